#pragma once

#include "Sandbox.h"
#include "WebSocketClient.h"
#include "http/Server.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

/// The daemon's HTTP server with requests that the test gives, on a thread of its own and a free loopback port.
class TestServer {
public:
    boost::asio::io_context io{1};

    /// To be filled before Serve(). What the requests hold may belong to the loop.
    QxNHttp::Router router;
    QxNHttp::ServerOptions options;
    QxNHttp::Tokens tokens{"/tmp/tokens.json"};

    TestServer() { options.listen = {"127.0.0.1:0"}; }
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    ~TestServer() { Stop(); }

    void Serve() {
        _server.emplace(io, options, router, tokens);
        const auto urls = _server->Urls();
        for (const std::string& url : urls) {
            if (!url.starts_with("unix:")) {
                port = static_cast<unsigned short>(std::stoi(url.substr(url.rfind(':') + 1)));
            }
        }
        _thread = std::thread([this] { io.run(); });
    }

    /// Ends connections and thread.
    void Stop() {
        if (_thread.joinable()) {
            boost::asio::post(io, [this] {
                _server->Stop();
                _work.reset();
            });
            _thread.join();
            _server.reset();
        }
    }

    size_t Clients() {
        std::promise<size_t> clients;
        boost::asio::post(io, [&] { clients.set_value(_server->Clients()); });
        return clients.get_future().get();
    }

    unsigned short port = 0;

private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work{io.get_executor()};
    std::optional<QxNHttp::Server> _server;
    std::thread _thread;
};
