#include "LogSocket.h"

#include <boost/asio/post.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <condition_variable>
#include <utility>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;

namespace {

constexpr size_t LongestInput = 4096;
constexpr int SendFailed = 1;
constexpr int MessageNumber = 1;

}  // namespace

/// A message on its way, on the stack of the thread that waits for it.
struct LogSocket::Write {
    const unsigned char* data;
    size_t length;
    bool isLast;
    ErrorCode error = {};
    bool isDone = false;
    std::mutex mutex = {};
    std::condition_variable doneCondition = {};

    void Finish(const ErrorCode& result) {
        // Under the lock: as soon as it is open, the object may go.
        const std::lock_guard lock(mutex);
        error = result;
        isDone = true;
        doneCondition.notify_one();
    }

    /// @return false when the time is over
    bool Wait(int timeoutMs) {
        std::unique_lock lock(mutex);
        const auto done = [this] { return isDone; };
        if (timeoutMs >= 0) {
            return doneCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
        }
        doneCondition.wait(lock, done);
        return true;
    }
};

LogSocket::LogSocket(beast::tcp_stream&& connection, const Timeouts& timeouts)
    : _stream(std::move(connection)), _closeTimer(_stream.get_executor()), _timeouts(timeouts) {
    _stream.set_option(websocket::stream_base::timeout{timeouts.handshake, timeouts.idle, true});
    _stream.read_message_max(LongestInput);
    _stream.auto_fragment(false);
    _stream.binary(true);
}

void LogSocket::Accept(Request request, std::function<void(bool)> done) {
    // The WebSocket has time limits of its own, and the two must not mix.
    beast::get_lowest_layer(_stream).expires_never();
    _request = std::move(request);
    _stream.async_accept(_request,
                         [self = shared_from_this(), done = std::move(done)](const ErrorCode& error) {
                             if (!error) {
                                 self->ReadNext();
                             }
                             done(!error);
                         });
}

void LogSocket::SetCloseHandler(CloseHandler handler) {
    {
        const std::lock_guard lock(_handlerMutex);
        if (!_isClosed) {
            _closeHandler = handler;
            return;
        }
    }
    handler(nullptr, 0, this);
}

void LogSocket::ReadNext() {
    _stream.async_read(_input, [self = shared_from_this()](const ErrorCode& error, size_t) {
        if (error) {
            self->_closeTimer.cancel();
            self->Drop();
            self->TellClosed();
            return;
        }
        self->_input.clear();
        self->ReadNext();
    });
}

void LogSocket::TellClosed() {
    CloseHandler handler = nullptr;
    {
        const std::lock_guard lock(_handlerMutex);
        _isClosed = true;
        handler = std::exchange(_closeHandler, nullptr);
    }
    if (handler != nullptr) {
        handler(nullptr, 0, this);
    }
}

void LogSocket::Drop() { beast::get_lowest_layer(_stream).close(); }

void LogSocket::Close(CloseCode code, std::string_view reason) {
    const websocket::close_reason closeReason(code, reason);
    asio::post(_stream.get_executor(), [self = shared_from_this(), closeReason] {
        if (std::exchange(self->_isClosing, true)) {
            return;
        }
        if (!self->_stream.is_open()) {
            self->Drop();
            return;
        }
        self->_closeTimer.expires_after(self->_timeouts.close);
        self->_closeTimer.async_wait([self](const ErrorCode& error) {
            if (!error) {
                self->Drop();
            }
        });
        self->TellClosed();
        // The pending read sees the client's answer, or the end.
        self->_stream.async_close(closeReason, [self](const ErrorCode&) {});
    });
}

int LogSocket::sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length,
                          int timeoutMs, bool fragment) {
    const std::lock_guard lock(_sendMutex);
    Write write{.data = data, .length = length, .isLast = !fragment};
    const auto self = shared_from_this();
    asio::post(_stream.get_executor(), [self, &write] { self->StartWrite(write); });
    if (!write.Wait(timeoutMs)) {
        asio::post(_stream.get_executor(), [self] { self->Drop(); });
        write.Wait(-1);
    }
    if (!write.error) {
        return 0;
    }
    errors.setMessage(QxNSeverity::Error, 0, MessageNumber, "LogSocket", "The message was not sent: %s",
                      write.error.message().c_str());
    return SendFailed;
}

void LogSocket::StartWrite(Write& write) {
    if (_isClosing || !_stream.is_open()) {
        write.Finish(asio::error::not_connected);
        return;
    }
    _stream.async_write_some(
        write.isLast, asio::buffer(write.data, write.length),
        [self = shared_from_this(), &write](const ErrorCode& error, size_t) { write.Finish(error); });
}
