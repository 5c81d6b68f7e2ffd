#pragma once

#include "http/Server.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/rate_policy.hpp>

namespace QxNHttp {

/// TCP or Unix.
using Stream = boost::beast::basic_stream<boost::asio::generic::stream_protocol, boost::asio::any_io_executor,
                                          boost::beast::unlimited_rate_policy>;

/// What all connections of a server share.
struct Ground {
    const ServerOptions& options;
    const Router& router;
    const Tokens& tokens;
};

/// How a connection came.
struct Origin {
    bool isLocal = false;  ///< through the Unix socket
    bool isTls = false;
    std::string address;  ///< host by which a TCP client reached us
};

/// Serves one connection to its end. Throws nothing.
/// @param stream  open
/// @param origin  outlives the connection
Task<void> ServeConnection(Stream& stream, const Origin& origin, const Ground& ground);

/// Answers 503 and closes.
Task<void> RefuseConnection(Stream& stream);

}  // namespace QxNHttp
