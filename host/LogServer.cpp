#include "LogServer.h"

#include "LogHandshake.h"
#include "QxCContainer.h"
#include "support/ErrorListScope.h"
#include "support/UniqueFd.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <list>
#include <system_error>
#include <thread>
#include <utility>

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;
using QxNContainer::QxCContainer;

namespace {

constexpr int Backlog = 64;
constexpr std::chrono::milliseconds AcceptPause{100};

void Check(bool ok, unsigned short port) {
    if (!ok) {
        throw std::system_error(errno, std::generic_category(),
                                "listen for log clients on port " + std::to_string(port));
    }
}

/// Asio would make a socket that the programs inherit which the library starts; a container's monitor would then keep
/// connections open for the container's life.
QxNSupport::UniqueFd Listen(unsigned short port) {
    QxNSupport::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    Check(setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0, port);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Check(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, port);
    Check(listen(listener.Get(), Backlog) == 0, port);
    return listener;
}

}  // namespace

/// All members but the streams' threads are used on the connections' thread only.
class LogServer::Impl {
public:
    Impl(QxCContainer& service, unsigned short port, const Limits& limits)
        : _service(service), _limits(limits), _acceptor(_io), _acceptTimer(_io), _work(_io.get_executor()) {
        QxNSupport::UniqueFd listener = Listen(port);
        _acceptor.assign(tcp::v4(), listener.Get());
        listener.Release();
        _port = _acceptor.local_endpoint().port();
        AcceptNext();
        _thread = std::thread([this] { Run(); });
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    ~Impl() {
        asio::post(_io, [this] { Stop(); });
        _thread.join();
    }

    unsigned short Port() const { return _port; }
    size_t Clients() const { return _clientCount; }

private:
    struct Client {
        std::shared_ptr<LogSocket> socket;
        std::thread stream = {};
    };
    using ClientEntry = std::list<Client>::iterator;

    /// Goes on after what a handler throws, such as a lack of memory: it may cost a connection, but not the daemon.
    void Run() {
        for (;;) {
            try {
                _io.run();
                return;
            } catch (const std::exception&) {
                continue;
            }
        }
    }

    LogSocket::Timeouts SocketTimeouts() const {
        return {_limits.handshakeTimeout, _limits.idleTimeout, _limits.closeTimeout};
    }

    void AcceptNext() {
        _acceptor.async_wait(tcp::acceptor::wait_read, [this](const beast::error_code& error) {
            if (error) {
                return;
            }
            QxNSupport::UniqueFd client(
                accept4(_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            // Without room or descriptors the next ones wait in the backlog.
            const bool mayGoOn =
                client.IsOpen() || errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
            if (client.IsOpen()) {
                TryHandshake(std::move(client));
            }
            if (mayGoOn && PendingHandshakes() < _limits.clients) {
                AcceptNext();
            } else {
                AcceptLater();
            }
        });
    }

    size_t PendingHandshakes() {
        _handshakes.remove_if([](const auto& handshake) { return handshake.expired(); });
        return _handshakes.size();
    }

    void AcceptLater() {
        _acceptTimer.expires_after(AcceptPause);
        _acceptTimer.async_wait([this](const beast::error_code& error) {
            if (error) {
                return;
            }
            if (PendingHandshakes() < _limits.clients) {
                AcceptNext();
            } else {
                AcceptLater();
            }
        });
    }

    /// Drops the client when that is not possible, and leaves the others alone.
    void TryHandshake(QxNSupport::UniqueFd client) {
        try {
            StartHandshake(std::move(client));
        } catch (const std::exception&) {
            return;
        }
    }

    void StartHandshake(QxNSupport::UniqueFd client) {
        tcp::socket socket(_io);
        socket.assign(tcp::v4(), client.Get());
        client.Release();
        beast::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        auto handshake = std::make_shared<LogHandshake>(
            beast::tcp_stream(std::move(socket)), SocketTimeouts(),
            [this] { return !_isStopping && _clients.size() < _limits.clients; },
            [this](std::shared_ptr<LogSocket> accepted, const LogRequest& wanted) {
                StartStream(std::move(accepted), wanted);
            });
        _handshakes.push_back(handshake);
        handshake->Start();
    }

    void StartStream(std::shared_ptr<LogSocket> socket, const LogRequest& wanted) {
        if (_isStopping || _clients.size() >= _limits.clients) {
            socket->Close(LogSocket::CloseCode::try_again_later, "too many clients");
            return;
        }
        const ClientEntry entry = _clients.insert(_clients.end(), Client{std::move(socket)});
        try {
            entry->stream = std::thread([this, entry, wanted] {
                RunStream(*entry->socket, wanted);
                asio::post(_io, [this, entry] { Collect(entry); });
            });
        } catch (const std::system_error&) {
            entry->socket->Close(LogSocket::CloseCode::try_again_later, "no more threads");
            _clients.erase(entry);
        }
        _clientCount = _clients.size();
    }

    void RunStream(LogSocket& socket, const LogRequest& wanted) {
        PodmanResponse response;
        try {
            QxNSupport::ErrorListScope errors;
            const auto session = _service.RegisterLogStreamSession(&socket, wanted.container);
            // Not earlier: a close before there is a session would be lost.
            socket.SetCloseHandler(QxCContainer::LogStreamCloseHandler);
            response = _service.StreamPodmanRequest(wanted.Endpoint(), QxCCurlHandler::Get, {}, errors.List(),
                                                    session, &socket);
        } catch (...) {
            response.httpCode = 0;
        }
        _service.UnregisterLogStreamSession(&socket);
        if (response.httpCode == 200) {
            socket.Close(LogSocket::CloseCode::normal, "end of the log");
        } else if (response.httpCode == 404) {
            socket.Close(LogSocket::CloseCode::policy_error, "no such container");
        } else {
            socket.Close(LogSocket::CloseCode::internal_error, "no answer from Podman");
        }
    }

    void Collect(ClientEntry entry) {
        entry->stream.join();
        _clients.erase(entry);
        _clientCount = _clients.size();
        ReleaseWhenIdle();
    }

    void Stop() {
        _isStopping = true;
        _acceptor.close();
        _acceptTimer.cancel();
        for (const auto& handshake : _handshakes) {
            if (const auto pending = handshake.lock()) {
                pending->Cancel();
            }
        }
        for (const Client& client : _clients) {
            client.socket->Close(LogSocket::CloseCode::going_away, "the service stops");
        }
        ReleaseWhenIdle();
    }

    /// Lets the thread end as soon as nothing is left to do.
    void ReleaseWhenIdle() {
        if (_isStopping && _clients.empty()) {
            _work.reset();
        }
    }

    QxCContainer& _service;
    const Limits _limits;
    asio::io_context _io{1};
    tcp::acceptor _acceptor;
    asio::steady_timer _acceptTimer;
    asio::executor_work_guard<asio::io_context::executor_type> _work;
    unsigned short _port = 0;
    bool _isStopping = false;
    std::list<std::weak_ptr<LogHandshake>> _handshakes;
    std::list<Client> _clients;
    std::atomic<size_t> _clientCount{0};
    std::thread _thread;
};

LogServer::LogServer(QxCContainer& service, unsigned short port) : LogServer(service, port, Limits{}) {}

LogServer::LogServer(QxCContainer& service, unsigned short port, const Limits& limits)
    : _impl(std::make_unique<Impl>(service, port, limits)) {}

LogServer::~LogServer() = default;

unsigned short LogServer::Port() const { return _impl->Port(); }

size_t LogServer::Clients() const { return _impl->Clients(); }
