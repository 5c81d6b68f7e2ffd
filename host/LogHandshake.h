#pragma once

#include "LogRequest.h"
#include "LogSocket.h"

#include <array>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// The first exchange on a connection: reads the request and either makes a LogSocket of the connection or refuses it.
/// Everything happens on the connection's thread.
class LogHandshake : public std::enable_shared_from_this<LogHandshake> {
public:
    using Accepted = std::function<void(std::shared_ptr<LogSocket>, LogRequest)>;

    /// @param mayAccept  whether there is room for another stream
    /// @param accepted   called when there is a WebSocket
    LogHandshake(boost::beast::tcp_stream&& connection, const LogSocket::Timeouts& timeouts,
                 std::function<bool()> mayAccept, Accepted accepted);

    void Start();
    /// Ends the connection.
    void Cancel();

private:
    using Status = boost::beast::http::status;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    void OnRequest();
    void Upgrade(LogRequest wanted);
    void Refuse(Status status, const std::string& why);
    void DropRest(size_t limit);

    boost::beast::tcp_stream _connection;
    const LogSocket::Timeouts _timeouts;
    const std::function<bool()> _mayAccept;
    const Accepted _accepted;
    boost::beast::flat_buffer _input;
    boost::beast::http::request_parser<boost::beast::http::empty_body> _parser;
    std::optional<Response> _response;
    std::array<char, 4096> _rest;
    std::shared_ptr<LogSocket> _socket;
};
