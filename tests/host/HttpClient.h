#pragma once

#include "support/UniqueFd.h"

#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

/// An HTTP client of a test: sends what it is told, byte for byte, and reads the answers one by one. Everything blocks,
/// but for 20 seconds at most.
class HttpClient {
public:
    struct Answer {
        int status = 0;                              ///< 0 when there was none
        std::map<std::string, std::string> headers;  ///< names in lower case
        std::string body;
        bool isComplete = false;

        std::string Header(const std::string& name) const {
            const auto found = headers.find(name);
            return found == headers.end() ? "(none)" : found->second;
        }
    };

    enum class Kind { Plain, Tls };

    explicit HttpClient(unsigned short port, Kind kind = Kind::Plain) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Connect(AF_INET, &address, sizeof(address));
        if (kind == Kind::Tls) {
            SpeakTls();
        }
    }

    /// By a Unix socket.
    explicit HttpClient(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        Connect(AF_UNIX, &address, sizeof(address));
    }

    /// By a connection that is there already.
    explicit HttpClient(QxNSupport::UniqueFd socket) : _socket(std::move(socket)) { Bound(); }

    /// @return whether everything could be sent
    bool Send(const std::string& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const size_t left = bytes.size() - done;
            const ssize_t count = _tls ? SSL_write(_tls.get(), bytes.data() + done, static_cast<int>(left))
                                       : send(_socket.Get(), bytes.data() + done, left, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            done += static_cast<size_t>(count);
        }
        return true;
    }

    /// Sends everything and reads one answer.
    Answer Ask(const std::string& bytes) {
        Send(bytes);
        return Read(bytes.starts_with("HEAD "));
    }

    Answer Read(bool isHead = false) {
        Answer answer;
        while (_input.find("\r\n\r\n") == std::string::npos) {
            if (!Fill()) {
                return answer;
            }
        }
        TakeHeaders(answer);
        const bool hasNoBody = isHead || answer.status < 200 || answer.status == 204 || answer.status == 304;
        if (hasNoBody) {
            answer.isComplete = true;
        } else if (answer.Header("transfer-encoding") == "chunked") {
            ReadChunks(answer);
        } else if (answer.headers.contains("content-length")) {
            answer.isComplete = Take(std::stoul(answer.Header("content-length")), answer.body);
        } else {
            answer.body = ReadToEnd();
            answer.isComplete = _isClosed;
        }
        return answer;
    }

    /// @return everything until the server closes the connection
    std::string ReadToEnd() {
        while (Fill()) {
        }
        return std::exchange(_input, {});
    }

    /// @return whether the server closes the connection without another byte
    bool IsClosed() { return ReadToEnd().empty() && _isClosed; }

    /// @return whether something is there to be read within the time, be it the end
    bool HasInput(int timeoutMs) {
        timeval time{timeoutMs / 1000, timeoutMs % 1000 * 1000};
        fd_set set;
        FD_ZERO(&set);
        FD_SET(_socket.Get(), &set);
        return !_input.empty() || select(_socket.Get() + 1, &set, nullptr, nullptr, &time) > 0;
    }

    /// Says that nothing more is sent.
    void EndSending() { shutdown(_socket.Get(), SHUT_WR); }

    /// Ends the connection without a word.
    void Vanish() {
        const linger atOnce{1, 0};
        setsockopt(_socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        _tls.reset();
        _socket.Reset();
    }

private:
    void Connect(int family, const void* address, socklen_t size) {
        _socket = QxNSupport::UniqueFd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(_socket.Get(), static_cast<const sockaddr*>(address), size) != 0) {
            throw std::runtime_error(std::string("the test cannot connect: ") + strerror(errno));
        }
        Bound();
    }

    void Bound() {
        const timeval time{20, 0};
        setsockopt(_socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time));
        setsockopt(_socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
    }

    void SpeakTls() {
        std::signal(SIGPIPE, SIG_IGN);
        _context.reset(SSL_CTX_new(TLS_client_method()));
        _tls.reset(SSL_new(_context.get()));
        SSL_set_fd(_tls.get(), _socket.Get());
        if (SSL_connect(_tls.get()) != 1) {
            throw std::runtime_error("the test cannot agree on TLS");
        }
    }

    bool Fill() {
        char bytes[65536];
        errno = 0;
        const ssize_t count =
            _tls ? SSL_read(_tls.get(), bytes, sizeof(bytes)) : recv(_socket.Get(), bytes, sizeof(bytes), 0);
        if (count <= 0) {
            _isClosed = errno != EAGAIN;
            return false;
        }
        _input.append(bytes, static_cast<size_t>(count));
        return true;
    }

    bool Take(size_t size, std::string& target) {
        while (_input.size() < size && Fill()) {
        }
        const bool isThere = _input.size() >= size;
        target += _input.substr(0, size);
        _input.erase(0, size);
        return isThere;
    }

    bool TakeLine(std::string& line) {
        while (_input.find("\r\n") == std::string::npos) {
            if (!Fill()) {
                return false;
            }
        }
        line = _input.substr(0, _input.find("\r\n"));
        _input.erase(0, line.size() + 2);
        return true;
    }

    void TakeHeaders(Answer& answer) {
        std::string line;
        TakeLine(line);
        answer.status = std::stoi(line.substr(9, 3));
        while (TakeLine(line) && !line.empty()) {
            std::string name = line.substr(0, line.find(':'));
            for (char& c : name) {
                c = static_cast<char>(tolower(c));
            }
            answer.headers[name] = line.substr(name.size() + 2);
        }
    }

    void ReadChunks(Answer& answer) {
        std::string line;
        while (TakeLine(line)) {
            const size_t size = std::stoul(line, nullptr, 16);
            std::string end;
            if (!Take(size, answer.body) || !TakeLine(end)) {
                return;
            }
            if (size == 0) {
                answer.isComplete = true;
                return;
            }
        }
    }

    struct Free {
        void operator()(SSL* tls) const { SSL_free(tls); }
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };

    QxNSupport::UniqueFd _socket;
    std::unique_ptr<SSL_CTX, Free> _context;
    std::unique_ptr<SSL, Free> _tls;
    std::string _input;
    bool _isClosed = false;
};
