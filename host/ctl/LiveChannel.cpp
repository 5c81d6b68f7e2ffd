#include "LiveChannel.h"

#include "Answers.h"
#include "Refusal.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using beast::error_code;

constexpr size_t LargestMessage = 16UL * 1024 * 1024;
constexpr std::chrono::seconds ConnectTimeout{10};
constexpr std::chrono::seconds HandshakeTimeout{20};
/// A daemon that answers no ping for so long is gone.
constexpr std::chrono::seconds IdleTimeout{60};

using LocalStream = beast::basic_stream<asio::local::stream_protocol>;

/// What all streams have in common, whatever they run over.
template <typename Stream>
class Channel final : public LiveChannel {
public:
    template <typename... Arguments>
    explicit Channel(Endpoint endpoint, Arguments&&... arguments)
        : _endpoint(std::move(endpoint)), _socket(_io, std::forward<Arguments>(arguments)...) {}

    Stream& Socket() { return _socket.next_layer(); }
    asio::io_context& Io() { return _io; }

    /// Starts an operation and waits for its end.
    template <typename Operation>
    error_code Run(Operation start) {
        std::optional<error_code> result;
        start([&result](error_code error, auto&&...) { result = error; });
        while (!result) {
            _io.restart();
            _io.run_one();
        }
        return *result;
    }

    /// Runs an operation on the way to a connection, with a time limit.
    template <typename Operation>
    void Connect(Operation start) {
        beast::get_lowest_layer(_socket).expires_after(ConnectTimeout);
        const error_code error = Run(start);
        beast::get_lowest_layer(_socket).expires_never();
        if (error) {
            const bool isSystemError = error.category() == boost::system::system_category();
            throw Unreachable(_endpoint, error.message(), isSystemError ? error.value() : 0);
        }
    }

    void Upgrade(const std::string& target) {
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = HandshakeTimeout;
        timeouts.idle_timeout = IdleTimeout;
        timeouts.keep_alive_pings = true;
        _socket.set_option(timeouts);
        _socket.read_message_max(LargestMessage);
        _socket.set_option(websocket::stream_base::decorator([this](websocket::request_type& request) {
            if (!_endpoint.token.empty()) {
                request.set(beast::http::field::authorization, "Bearer " + _endpoint.token);
            }
        }));
        websocket::response_type response;
        const error_code error = Run([&](auto done) {
            _socket.async_handshake(response, _endpoint.Authority(), target, std::move(done));
        });
        if (error == websocket::error::upgrade_declined && response.result_int() >= 300) {
            throw Refusal(static_cast<long>(response.result_int()), response.body());
        }
        if (error && (error.category() == beast::http::make_error_code(beast::http::error{}).category() ||
                      IsMalformed(error))) {
            Answers::Malformed("it is no WebSocket: " + error.message());
        }
        if (error) {
            throw Unreachable(_endpoint, error.message());
        }
    }

    std::optional<std::string> Read() override {
        beast::flat_buffer message;
        const error_code error = Run([&](auto done) { _socket.async_read(message, std::move(done)); });
        if (error == websocket::error::message_too_big || error == websocket::error::buffer_overflow) {
            Answers::Malformed("a message has more than 16 MiB");
        }
        if (error && IsMalformed(error)) {
            Answers::Malformed("WebSocket: " + error.message());
        }
        if (error) {
            return {};
        }
        return beast::buffers_to_string(message.data());
    }

private:
    static bool IsMalformed(const error_code& error) {
        return error == websocket::condition::protocol_violation ||
               error == websocket::condition::handshake_failed;
    }

    const Endpoint _endpoint;
    asio::io_context _io;
    websocket::stream<Stream> _socket;
};

std::unique_ptr<LiveChannel> OpenLocal(const Endpoint& endpoint, const std::string& target) {
    auto channel = std::make_unique<Channel<LocalStream>>(endpoint);
    channel->Connect([&](auto done) {
        channel->Socket().async_connect(asio::local::stream_protocol::endpoint(endpoint.socketPath),
                                        std::move(done));
    });
    channel->Upgrade(target);
    return channel;
}

template <typename Stream>
void ConnectByNetwork(Channel<Stream>& channel, const Endpoint& endpoint) {
    tcp::resolver resolver(channel.Io());
    error_code error;
    const auto addresses = resolver.resolve(endpoint.host, endpoint.port, error);
    if (error) {
        throw Unreachable(endpoint, error.message());
    }
    channel.Connect([&](auto done) {
        beast::get_lowest_layer(channel.Socket()).async_connect(addresses, std::move(done));
    });
}

std::unique_ptr<LiveChannel> OpenPlain(const Endpoint& endpoint, const std::string& target) {
    auto channel = std::make_unique<Channel<beast::tcp_stream>>(endpoint);
    ConnectByNetwork(*channel, endpoint);
    channel->Upgrade(target);
    return channel;
}

asio::ssl::context MakeTlsContext(const Endpoint& endpoint) {
    asio::ssl::context context(asio::ssl::context::tls_client);
    context.set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    context.set_verify_mode(asio::ssl::verify_peer);
    context.set_verify_callback(asio::ssl::host_name_verification(endpoint.host));
    error_code error;
    if (endpoint.caFile.empty()) {
        context.set_default_verify_paths(error);
    } else {
        context.load_verify_file(endpoint.caFile, error);
    }
    if (error) {
        throw Unreachable(endpoint, "cannot read the certificates to trust: " + error.message());
    }
    return context;
}

std::unique_ptr<LiveChannel> OpenTls(const Endpoint& endpoint, const std::string& target) {
    using Stream = beast::ssl_stream<beast::tcp_stream>;
    asio::ssl::context context = MakeTlsContext(endpoint);
    auto channel = std::make_unique<Channel<Stream>>(endpoint, context);
    // An address is no name, and asking for one by it is an error of the protocol.
    error_code isNoAddress;
    asio::ip::make_address(endpoint.host, isNoAddress);
    if (isNoAddress) {
        // What the usual macro does, which casts in the old style.
        SSL_ctrl(channel->Socket().native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 const_cast<char*>(endpoint.host.c_str()));
    }
    ConnectByNetwork(*channel, endpoint);
    channel->Connect([&](auto done) {
        channel->Socket().async_handshake(asio::ssl::stream_base::client, std::move(done));
    });
    channel->Upgrade(target);
    return channel;
}

}  // namespace

std::unique_ptr<LiveChannel> OpenLiveChannel(const Endpoint& endpoint, const std::string& target) {
    if (endpoint.IsLocalSocket()) {
        return OpenLocal(endpoint, target);
    }
    return endpoint.isTls ? OpenTls(endpoint, target) : OpenPlain(endpoint, target);
}
