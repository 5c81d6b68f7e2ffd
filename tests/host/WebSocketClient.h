#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <string>

/// A WebSocket client of a test; everything blocks.
class WebSocketClient {
public:
    using Socket = boost::asio::ip::tcp::socket;
    using CloseCode = boost::beast::websocket::close_code;

    /// Connects; throws when the server refuses.
    WebSocketClient(unsigned short port, const std::string& target, const std::string& token = {})
        : _stream(_io) {
        if (!token.empty()) {
            _stream.set_option(boost::beast::websocket::stream_base::decorator(
                [token](auto& request) { request.set("Authorization", "Bearer " + token); }));
        }
        Tcp().connect({boost::asio::ip::address_v4::loopback(), port});
        _stream.read_message_max(0);
        _stream.handshake("127.0.0.1:" + std::to_string(port), target);
    }

    /// @return the next message; empty when there is none any more
    std::string Next() {
        boost::beast::flat_buffer message;
        boost::beast::error_code error;
        _stream.read(message, error);
        return error ? std::string() : boost::beast::buffers_to_string(message.data());
    }

    bool IsBinary() const { return _stream.got_binary(); }

    /// @return how the server closed the connection, after Next() gave nothing
    unsigned int Code() const { return _stream.reason().code; }
    std::string Reason() const { return {_stream.reason().reason.data(), _stream.reason().reason.size()}; }

    void Send(const std::string& text) {
        boost::beast::error_code ignored;
        _stream.write(boost::asio::buffer(text), ignored);
    }

    void Close() {
        boost::beast::error_code ignored;
        _stream.close(CloseCode::normal, ignored);
    }

    /// Ends the connection without a word.
    void Vanish() { Tcp().close(); }

    Socket& Tcp() { return boost::beast::get_lowest_layer(_stream); }

private:
    boost::asio::io_context _io;
    boost::beast::websocket::stream<Socket> _stream;
};

/// @return the answer to bytes sent over a plain connection
inline std::string AskPlainly(unsigned short port, const std::string& request) {
    boost::asio::io_context io;
    WebSocketClient::Socket socket(io);
    socket.connect({boost::asio::ip::address_v4::loopback(), port});
    boost::system::error_code error;
    boost::asio::write(socket, boost::asio::buffer(request), error);
    std::string answer;
    char bytes[4096];
    while (const size_t count = socket.read_some(boost::asio::buffer(bytes), error)) {
        answer.append(bytes, count);
    }
    return answer;
}
