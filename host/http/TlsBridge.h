#pragma once

#include "http/Connection.h"

#include <boost/asio/ssl/context.hpp>
#include <chrono>

namespace QxNHttp {

/// Speaks TLS with a client and passes on what is inside, both ways, until one of the two ends. Throws nothing.
/// @param outside    connection to the client
/// @param inside     the other end of it
/// @param context    may go once this runs
/// @param handshake  longest time for the handshake
/// @param patience   longest time for the client to take a piece of what it is sent
Task<void> BridgeTls(Stream& outside, Stream& inside, boost::asio::ssl::context& context,
                     std::chrono::milliseconds handshake, std::chrono::milliseconds patience);

}  // namespace QxNHttp
