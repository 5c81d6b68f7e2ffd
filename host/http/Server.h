#pragma once

#include "http/Router.h"
#include "http/Tokens.h"

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace QxNHttp {

struct ServerOptions {
    std::string socket;       ///< path of the Unix socket; empty for none
    std::string socketGroup;  ///< group that may use it; root alone when there is no such group
    std::vector<std::string>
        listen;  ///< TCP addresses "127.0.0.1:8089" or "[::1]:8089"; port 0 takes a free one
    std::vector<std::string>
        hosts;                ///< names by which TCP clients may call the machine, beside loopback ones
    std::string certificate;  ///< PEM file with the chain; empty for no TLS
    std::string key;          ///< PEM file
    std::string page;         ///< directory of the files that are served under "/"; empty for none
    size_t clients =
        256;  ///< connections at a time over TCP, and as many over the socket; others are answered with 503
    std::uint64_t largestTarget = 8192;              ///< bytes of request line and header fields together
    std::chrono::milliseconds headerTimeout{10000};  ///< for a request's header to arrive
    std::chrono::milliseconds idleTimeout{60000};    ///< between requests, and for pieces of bodies both ways
    std::chrono::milliseconds textTimeout{60000};  ///< for the whole of a body that is not written to a file
    std::chrono::milliseconds pingTimeout{30000};  ///< for a WebSocket's client to show that it is there
};

/// Serves REST, WebSockets and the page from one set of listeners, on one thread.
///
/// What a request must be for a handler to see it: bounded in size and time; sent to a name that this machine is called
/// by; from a page of the same origin if from a page; with the right that the route asks for.
///
/// Thread safety: belongs to the thread of its io_context.
class Server {
public:
    /// Listens from now on.
    /// @throws std::runtime_error when an address cannot be had, or when it may not be: TCP addresses other than
    ///         loopback need a certificate and a token
    Server(boost::asio::io_context& io, const ServerOptions& options, const Router& router,
           const Tokens& tokens);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    // NOLINTNEXTLINE(bugprone-exception-escape): see there
    ~Server();

    /// Ends all connections and accepts no more.
    void Stop();

    /// @return addresses, as in a URL: "http://127.0.0.1:8089"
    std::vector<std::string> Urls() const;
    size_t Clients() const;

private:
    struct Impl;
    std::shared_ptr<Impl> _impl;
};

}  // namespace QxNHttp
