#pragma once

#include "QxCWebSocket.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

/// One connected WebSocket. Its input and output run on the thread of its connection's executor; what clients send is
/// read and dropped, so that pings, closes and ends of connections are noticed.
class LogSocket final : public QxNSmartWebApi::QxCWebSocket, public std::enable_shared_from_this<LogSocket> {
public:
    using CloseHandler = void (*)(const void* data, unsigned int length, QxCWebSocket* ws);
    using Request = boost::beast::http::request<boost::beast::http::empty_body>;
    using CloseCode = boost::beast::websocket::close_code;

    struct Timeouts {
        std::chrono::milliseconds handshake{10000};
        /// A client that neither sends nor answers pings for so long is dropped.
        std::chrono::milliseconds idle{60000};
        /// How long a client may take to answer a close.
        std::chrono::milliseconds close{1000};
    };

    LogSocket(boost::beast::tcp_stream&& connection, const Timeouts& timeouts);

    /// Answers the upgrade request and reads from then on; on the connection's thread.
    /// @param done  called with whether there is a WebSocket now
    void Accept(Request request, std::function<void(bool)> done);

    /// Sets what is called once as soon as nothing can be sent any more, on the connection's thread; at once on this
    /// one when that is so already. To be called once, from any thread.
    void SetCloseHandler(CloseHandler handler);

    /// Ends the connection in order, or after a time limit anyway. Later calls do nothing. From any thread.
    void Close(CloseCode code, std::string_view reason);

    /// Ends the connection at once; on the connection's thread.
    void Drop();

    /// Fails also when the connection ends meanwhile. A message that timed out may have been sent in part, so the
    /// connection is dropped.
    int sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length, int timeoutMs,
                   bool fragment) override;

private:
    struct Write;
    using ErrorCode = boost::beast::error_code;

    void ReadNext();
    void StartWrite(Write& write);
    void TellClosed();

    boost::beast::websocket::stream<boost::beast::tcp_stream> _stream;
    boost::asio::steady_timer _closeTimer;
    const Timeouts _timeouts;
    Request _request;
    boost::beast::flat_buffer _input;
    bool _isClosing = false;  ///< on the connection's thread only

    std::mutex _sendMutex;  ///< one message at a time
    std::mutex _handlerMutex;
    CloseHandler _closeHandler = nullptr;
    bool _isClosed = false;
};
