#include "api/LogSocket.h"

#include <chrono>
#include <utility>

namespace {

constexpr int SendFailed = 1;
constexpr int MessageNumber = 1;

}  // namespace

/// While it lives, messages are written; ends also when the coroutine is thrown away.
class LogSocket::Serving {
public:
    Serving(LogSocket& log, QxNHttp::WebSocket& socket) : _log(log) { _log._socket = &socket; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
    ~Serving() { _log.Close(); }

private:
    LogSocket& _log;
};

QxNHttp::Task<void> LogSocket::Serve(QxNHttp::WebSocket& socket) {
    const Serving serving(*this, socket);
    for (;;) {
        if (const auto message = Take()) {
            co_await socket.SendBinary(message->bytes, message->isLast);
            NoteWritten();
        } else if (HasEnded()) {
            break;
        } else {
            co_await _more.Wait();
        }
    }
    Close();
    co_await socket.Close(_goodbye->reason, _goodbye->code);
}

std::optional<LogSocket::Message> LogSocket::Take() {
    const std::lock_guard lock(_mutex);
    if (_message == nullptr || _message->progress != Progress::Waiting) {
        return {};
    }
    _message->progress = Progress::BeingWritten;
    return *_message;
}

void LogSocket::NoteWritten() {
    const std::lock_guard lock(_mutex);
    _message->progress = Progress::Written;
    _settled.notify_all();
}

bool LogSocket::HasEnded() {
    const std::lock_guard lock(_mutex);
    return _goodbye.has_value();
}

void LogSocket::Close() {
    CloseHandler handler = nullptr;
    {
        const std::lock_guard lock(_mutex);
        _isClosed = true;
        _socket = nullptr;
        if (_message != nullptr) {
            _message->progress = Progress::Failed;
            _settled.notify_all();
        }
        handler = std::exchange(_closeHandler, nullptr);
    }
    if (handler != nullptr) {
        handler(nullptr, 0, this);
    }
}

void LogSocket::Drop() {
    boost::asio::post(_executor, [self = shared_from_this()] {
        if (self->_socket != nullptr) {
            self->_socket->Drop();
        }
    });
}

void LogSocket::SetCloseHandler(CloseHandler handler) {
    {
        const std::lock_guard lock(_mutex);
        if (!_isClosed) {
            _closeHandler = handler;
            return;
        }
    }
    handler(nullptr, 0, this);
}

void LogSocket::End(CloseCode code, const char* reason) {
    {
        const std::lock_guard lock(_mutex);
        _goodbye = Goodbye{code, reason};
    }
    _more.Notify();
}

int LogSocket::sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length,
                          int timeoutMs, bool fragment) {
    Message message{{reinterpret_cast<const char*>(data), length}, !fragment};
    const auto isSettled = [&message] {
        return message.progress == Progress::Written || message.progress == Progress::Failed;
    };
    std::unique_lock lock(_mutex);
    if (_isClosed) {
        message.progress = Progress::Failed;
    } else {
        _message = &message;
        _more.Notify();
    }
    bool isInTime = true;
    if (timeoutMs >= 0) {
        isInTime = _settled.wait_for(lock, std::chrono::milliseconds(timeoutMs), isSettled);
    }
    if (!isInTime && message.progress == Progress::BeingWritten) {
        Drop();
    } else if (!isInTime) {
        message.progress = Progress::Failed;
    }
    _settled.wait(lock, isSettled);
    _message = nullptr;
    if (message.progress == Progress::Written) {
        return 0;
    }
    errors.setMessage(QxNSeverity::Error, 0, MessageNumber, "LogSocket", "The message was not sent: %s",
                      isInTime ? "the client has gone" : "the client takes too long");
    return SendFailed;
}
