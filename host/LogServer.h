#pragma once

#include <chrono>
#include <memory>

namespace QxNContainer {
class QxCContainer;
}

/// A WebSocket server for the logs of containers, for clients on this machine only.
///
/// A client that opens ws://127.0.0.1:PORT/logs/NAME gets the container's last lines and then every new one, each
/// frame as a binary message, until the container ends or the client leaves. "?tail=N" or "?tail=all" says how many
/// lines that are there already it wants; otherwise 100. When the log ends, the server closes the connection and
/// gives the reason.
///
/// Each client has a thread of its own for its stream; one more serves all connections. Thread safety: all operations
/// belong to one thread.
class LogServer {
public:
    struct Limits {
        size_t clients = 32;  ///< log streams at a time; others are answered with 503
        std::chrono::milliseconds handshakeTimeout{10000};
        std::chrono::milliseconds idleTimeout{60000};  ///< without an answer to a ping
        std::chrono::milliseconds closeTimeout{1000};  ///< for a client to answer a close
    };

    /// Listens from now on.
    /// @param service  gives the logs; must outlive the server
    /// @param port     TCP port of 127.0.0.1; 0 takes one that is free
    /// @throws std::system_error when the port cannot be had
    LogServer(QxNContainer::QxCContainer& service, unsigned short port);
    LogServer(QxNContainer::QxCContainer& service, unsigned short port, const Limits& limits);
    LogServer(const LogServer&) = delete;
    LogServer& operator=(const LogServer&) = delete;
    /// Tells every client that the server goes away, ends the streams and waits for them: about a second. A stream whose
    /// question about the container's terminal Podman has not answered ends only when Podman answers or ends; to be sure
    /// not to wait for a Podman that hangs, call QxCContainer::Stop() first.
    ~LogServer();

    unsigned short Port() const;
    /// @return log streams that run now
    size_t Clients() const;

private:
    class Impl;
    std::unique_ptr<Impl> _impl;
};
