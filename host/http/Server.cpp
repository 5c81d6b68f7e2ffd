#include "http/Server.h"

#include "http/Connection.h"
#include "http/Origin.h"
#include "http/TlsBridge.h"

#include <grp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <array>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <list>
#include <optional>
#include <system_error>

namespace asio = boost::asio;

namespace QxNHttp {

namespace {

using QxNSupport::UniqueFd;

constexpr int Backlog = 128;
constexpr std::chrono::milliseconds AcceptPause{100};
constexpr mode_t SocketMode = 0660;
constexpr unsigned long HighestPort = 65535;

struct Listener {
    UniqueFd socket;
    bool isLocal = false;
    std::string address;  ///< host in a URL; path of the Unix socket
    std::string url;
};

[[noreturn]] void Fail(const std::string& what, const std::string& why) {
    throw std::runtime_error("cannot listen on " + what + ": " + why);
}

void Check(bool ok, const std::string& what) {
    if (!ok) {
        Fail(what, strerror(errno));
    }
}

/// A socket file that nobody serves any more may go; one that somebody serves must stay.
void RemoveStaleSocket(const std::string& path, const sockaddr_un& address) {
    // It does not wait for one whose queue is full.
    const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    Check(probe.IsOpen(), path);
    if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
        errno == EAGAIN) {
        Fail(path, "another process serves it; is the daemon running already?");
    }
    struct stat status {};
    if (errno == ECONNREFUSED && lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str());
    }
}

Listener ListenLocally(const std::string& path, const std::string& groupName) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        Fail(path, "the path is too long for a socket");
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    RemoveStaleSocket(path, address);

    Listener listener{UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), true, path,
                      "unix:" + path};
    Check(listener.socket.IsOpen(), path);
    // Nobody gets in before the group is right.
    const mode_t before = umask(0177);
    const int bound = bind(listener.socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    umask(before);
    Check(bound == 0, path);
    const group* const entry = groupName.empty() ? nullptr : getgrnam(groupName.c_str());
    if (entry != nullptr) {
        Check(chown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) == 0, path);
    }
    Check(chmod(path.c_str(), SocketMode) == 0, path);
    Check(listen(listener.socket.Get(), Backlog) == 0, path);
    return listener;
}

bool IsLoopback(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr) != 0;
}

std::string PortOf(int socket) {
    sockaddr_storage bound{};
    socklen_t length = sizeof(bound);
    getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &length);
    return std::to_string(ntohs(bound.ss_family == AF_INET
                                    ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                    : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port));
}

Listener ListenOnTcp(const std::string& wanted, bool isTls, bool mayBeRemote) {
    const std::string host(HostOf(wanted));
    if (host.empty() || host.size() + 1 >= wanted.size() ||
        std::stoul(wanted.substr(host.size() + 1)) > HighestPort) {
        Fail("'" + wanted + "'", "an address looks like 127.0.0.1:8089 or [::1]:8089");
    }
    const std::string plain = host.front() == '[' ? host.substr(1, host.size() - 2) : host;
    const std::string port = wanted.substr(host.size() + 1);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(plain.c_str(), port.c_str(), &hints, &found);
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, freeaddrinfo);
    if (error != 0) {
        Fail("'" + wanted + "'", gai_strerror(error));
    }
    if (!IsLoopback(address->ai_addr) && !mayBeRemote) {
        Fail(wanted,
             "others than this machine's own programs could reach it. Give a certificate, a key and at least "
             "one token (qxcontainerd --make-token NAME), or listen on 127.0.0.1 only");
    }
    Listener listener{
        UniqueFd(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), false, host, {}};
    Check(listener.socket.IsOpen(), wanted);
    const int on = 1;
    Check(setsockopt(listener.socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0, wanted);
    if (address->ai_family == AF_INET6) {
        Check(setsockopt(listener.socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) == 0, wanted);
    }
    Check(bind(listener.socket.Get(), address->ai_addr, address->ai_addrlen) == 0, wanted);
    Check(listen(listener.socket.Get(), Backlog) == 0, wanted);
    listener.url = (isTls ? "https://" : "http://") + host + ":" + PortOf(listener.socket.Get());
    return listener;
}

/// Keeps a connection in the list of those that a stop closes.
class Listed {
public:
    Listed(std::list<Stream*>& streams, Stream& stream)
        : _streams(streams), _entry(streams.insert(streams.end(), &stream)) {}
    Listed(const Listed&) = delete;
    Listed& operator=(const Listed&) = delete;
    ~Listed() { _streams.erase(_entry); }

private:
    std::list<Stream*>& _streams;
    std::list<Stream*>::iterator _entry;
};

}  // namespace

/// Lives as long as a coroutine of the server runs.
struct Server::Impl : std::enable_shared_from_this<Impl> {
    using Acceptor = asio::posix::stream_descriptor;

    Impl(asio::io_context& context, const ServerOptions& wanted, const Router& routes, const Tokens& known)
        : io(context), options(wanted), router(routes), tokens(known) {
        const bool isTls = !options.certificate.empty();
        if (isTls) {
            tls.emplace(MakeTls());
            certificateTimes = CertificateTimes();
        }
        if (!options.socket.empty()) {
            listeners.push_back(ListenLocally(options.socket, options.socketGroup));
        }
        try {
            for (const std::string& address : options.listen) {
                listeners.push_back(ListenOnTcp(address, isTls, isTls && !tokens.List().empty()));
            }
        } catch (...) {
            RemoveSocket();
            throw;
        }
    }

    asio::ssl::context MakeTls() const {
        asio::ssl::context context(asio::ssl::context::tls_server);
        boost::system::error_code error;
        context.set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1 |
                            asio::ssl::context::default_workarounds);
        context.use_certificate_chain_file(options.certificate, error);
        if (!error) {
            context.use_private_key_file(options.key, asio::ssl::context::pem, error);
        }
        // A key of another kind does not show before.
        if (!error && SSL_CTX_check_private_key(context.native_handle()) != 1) {
            error =
                boost::system::error_code(static_cast<int>(ERR_get_error()), asio::error::get_ssl_category());
        }
        if (error) {
            throw std::runtime_error("the certificate " + options.certificate + " and its key " +
                                     options.key + " cannot be used: " + error.message());
        }
        return context;
    }

    using FileTimes = std::array<std::filesystem::file_time_type, 2>;

    FileTimes CertificateTimes() const {
        std::error_code ignored;
        return {std::filesystem::last_write_time(options.certificate, ignored),
                std::filesystem::last_write_time(options.key, ignored)};
    }

    /// A certificate that has been renewed holds for the next client. While it does not fit its key yet, or is not there,
    /// the one before stays.
    void RenewTls() {
        const FileTimes times = CertificateTimes();
        if (times == certificateTimes) {
            return;
        }
        certificateTimes = times;
        try {
            tls.emplace(MakeTls());
        } catch (const std::runtime_error& error) {
            std::fprintf(stderr, "qxcontainerd: %s; the one before is used\n", error.what());
        }
    }

    void Start() {
        for (Listener& listener : listeners) {
            acceptors.push_back(std::make_unique<Acceptor>(io, listener.socket.Release()));
            asio::co_spawn(io, Accept(*acceptors.back(), listener.isLocal, listener.address), asio::detached);
        }
    }

    Task<void> Accept(Acceptor& acceptor, bool isLocal, std::string address) {
        const auto self = shared_from_this();
        asio::steady_timer pause(io);
        boost::system::error_code error;
        while (!isStopping) {
            co_await acceptor.async_wait(Acceptor::wait_read,
                                         asio::redirect_error(asio::use_awaitable, error));
            if (error || isStopping) {
                break;
            }
            // Asio would make a socket that programs inherit which the library starts; a container's monitor would then
            // keep connections open for the container's life.
            UniqueFd client(
                accept4(acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (client.IsOpen()) {
                asio::co_spawn(
                    io,
                    Serve(std::move(client), {isLocal, !isLocal && !options.certificate.empty(), address}),
                    asio::detached);
            } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
                // Without room or descriptors the next ones wait in the backlog.
                pause.expires_after(AcceptPause);
                co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, error));
            }
        }
    }

    Task<void> Serve(UniqueFd client, Origin origin) {
        const auto self = shared_from_this();
        if (!origin.isLocal) {
            const int on = 1;
            setsockopt(client.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        }
        Stream stream{asio::any_io_executor(io.get_executor())};
        if (!Assign(stream, client, origin.isLocal ? AF_UNIX : AF_INET)) {
            co_return;
        }
        // Places of their own: clients of the network do not keep out who is on the board.
        std::list<Stream*>& streams = origin.isLocal ? localStreams : networkStreams;
        if (isStopping || streams.size() >= options.clients) {
            co_await RefuseConnection(stream);
            co_return;
        }
        const Listed listed(streams, stream);
        if (origin.isTls) {
            co_await ServeWithTls(stream, origin);
        } else {
            co_await ServeConnection(stream, origin, {options, router, tokens});
        }
    }

    /// Connections know nothing of TLS: a bridge speaks it for them.
    Task<void> ServeWithTls(Stream& outside, const Origin& origin) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
            co_return;
        }
        UniqueFd first(pair[0]);
        UniqueFd second(pair[1]);
        Stream bridged{asio::any_io_executor(io.get_executor())};
        Stream served{asio::any_io_executor(io.get_executor())};
        if (Assign(bridged, first, AF_UNIX) && Assign(served, second, AF_UNIX)) {
            using namespace asio::experimental::awaitable_operators;
            RenewTls();
            co_await (BridgeTls(outside, bridged, *tls, options.headerTimeout, options.idleTimeout) &&
                      ServeAndClose(served, origin));
        }
    }

    Task<void> ServeAndClose(Stream& served, const Origin& origin) {
        co_await ServeConnection(served, origin, {options, router, tokens});
        served.close();
    }

    static bool Assign(Stream& stream, UniqueFd& socket, int family) {
        boost::system::error_code error;
        stream.socket().assign(asio::generic::stream_protocol(family, 0), socket.Get(), error);
        if (!error) {
            socket.Release();
        }
        return !error;
    }

    void Stop() {
        isStopping = true;
        for (const auto& acceptor : acceptors) {
            boost::system::error_code ignored;
            acceptor->close(ignored);
        }
        for (const auto* streams : {&localStreams, &networkStreams}) {
            for (Stream* const stream : *streams) {
                stream->cancel();
                boost::system::error_code ignored;
                stream->socket().shutdown(asio::socket_base::shutdown_both, ignored);
            }
        }
        RemoveSocket();
    }

    void RemoveSocket() {
        if (!options.socket.empty() && !isRemoved) {
            isRemoved = true;
            unlink(options.socket.c_str());
        }
    }

    asio::io_context& io;
    const ServerOptions options;
    const Router& router;
    const Tokens& tokens;
    std::optional<asio::ssl::context> tls;
    FileTimes certificateTimes{};
    std::vector<Listener> listeners;
    std::vector<std::unique_ptr<Acceptor>> acceptors;
    std::list<Stream*> localStreams;
    std::list<Stream*> networkStreams;
    bool isStopping = false;
    bool isRemoved = false;
};

Server::Server(asio::io_context& io, const ServerOptions& options, const Router& router, const Tokens& tokens)
    : _impl(std::make_shared<Impl>(io, options, router, tokens)) {
    _impl->Start();
}

// NOLINTNEXTLINE(bugprone-exception-escape): cancelling what is open does not fail
Server::~Server() { _impl->Stop(); }

void Server::Stop() { _impl->Stop(); }

std::vector<std::string> Server::Urls() const {
    std::vector<std::string> urls;
    for (const Listener& listener : _impl->listeners) {
        urls.push_back(listener.url);
    }
    return urls;
}

size_t Server::Clients() const { return _impl->localStreams.size() + _impl->networkStreams.size(); }

}  // namespace QxNHttp
