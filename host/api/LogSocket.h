#pragma once

#include "QxCWebSocket.h"
#include "http/Background.h"
#include "http/Message.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

/// A client's WebSocket as the library sends to it: messages come from a thread of the library's user, one at a time,
/// and are written by the connection's thread while the sender waits. Nothing is copied or kept.
class LogSocket final : public QxNSmartWebApi::QxCWebSocket, public std::enable_shared_from_this<LogSocket> {
public:
    using CloseHandler = void (*)(const void* data, unsigned int length, QxCWebSocket* ws);
    using CloseCode = QxNHttp::WebSocket::CloseCode;

    /// @param executor  of the connection
    explicit LogSocket(const boost::asio::any_io_executor& executor) : _executor(executor), _more(executor) {}

    /// Writes what is sent, until End() or until the client has gone; on the connection's thread, once.
    QxNHttp::Task<void> Serve(QxNHttp::WebSocket& socket);

    /// Sets what is called once as soon as nothing can be sent any more; at once when that is so already. To be called
    /// once, from any thread.
    void SetCloseHandler(CloseHandler handler);

    /// Lets Serve() say goodbye; for the thread that sends.
    /// @param reason  a literal
    void End(CloseCode code, const char* reason);

    /// Fails also when the client goes meanwhile. A message that timed out may have been sent in part, so the connection
    /// is dropped.
    int sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length, int timeoutMs,
                   bool fragment) override;

private:
    enum class Progress { Waiting, BeingWritten, Written, Failed };
    struct Message {
        std::string_view bytes;
        bool isLast = true;
        Progress progress = Progress::Waiting;
    };
    struct Goodbye {
        CloseCode code;
        const char* reason;
    };
    class Serving;

    /// @return what is to be written now
    std::optional<Message> Take();
    void NoteWritten();
    bool HasEnded();
    void Close();
    /// Ends the connection, from any thread.
    void Drop();

    const boost::asio::any_io_executor _executor;
    QxNHttp::Event _more;
    std::mutex _mutex;
    std::condition_variable _settled;
    Message* _message = nullptr;  ///< the sender's, while it waits
    std::optional<Goodbye> _goodbye;
    bool _isClosed = false;
    CloseHandler _closeHandler = nullptr;
    QxNHttp::WebSocket* _socket = nullptr;  ///< while it is served; on the connection's thread only
};
