#include "http/TlsBridge.h"

#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <vector>

namespace asio = boost::asio;

namespace QxNHttp {

namespace {

constexpr size_t Piece = 16 << 10;  // a record of TLS
constexpr std::chrono::seconds GoodbyeTimeout{2};

/// Passes bytes on until one side ends or fails.
template <typename From, typename To>
Task<void> Pump(From& from, To& to) {
    std::vector<char> piece(Piece);
    boost::system::error_code error;
    while (!error) {
        const size_t count = co_await from.async_read_some(asio::buffer(piece),
                                                           asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            co_await asio::async_write(to, asio::buffer(piece.data(), count),
                                       asio::redirect_error(asio::use_awaitable, error));
        }
    }
}

}  // namespace

Task<void> BridgeTls(Stream& outside, Stream& inside, asio::ssl::context& context,
                     std::chrono::milliseconds handshake) {
    using namespace asio::experimental::awaitable_operators;
    using Tls = asio::ssl::stream<Stream&>;
    Tls tls(outside, context);
    boost::system::error_code error;
    outside.expires_after(handshake);
    co_await tls.async_handshake(Tls::server, asio::redirect_error(asio::use_awaitable, error));
    outside.expires_never();
    if (!error) {
        co_await (Pump(tls, inside) || Pump(inside, tls));
        outside.expires_after(GoodbyeTimeout);
        co_await tls.async_shutdown(asio::redirect_error(asio::use_awaitable, error));
    }
    inside.close();
    outside.close();
}

}  // namespace QxNHttp
