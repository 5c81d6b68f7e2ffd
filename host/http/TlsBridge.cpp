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

using Tls = asio::ssl::stream<Stream&>;

/// Passes on what the client sends until one side ends or fails. May last: the connection knows how long it waits.
Task<void> PumpIn(Tls& tls, Stream& inside) {
    std::vector<char> piece(Piece);
    boost::system::error_code error;
    while (!error) {
        tls.next_layer().expires_never();
        const size_t count = co_await tls.async_read_some(asio::buffer(piece),
                                                          asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            co_await asio::async_write(inside, asio::buffer(piece.data(), count),
                                       asio::redirect_error(asio::use_awaitable, error));
        }
    }
}

/// Passes on what the client is sent until one side ends or fails. A client that takes nothing must not last: the
/// connection has long done when the bridge still waits.
Task<void> PumpOut(Stream& inside, Tls& tls, std::chrono::milliseconds patience) {
    std::vector<char> piece(Piece);
    boost::system::error_code error;
    while (!error) {
        const size_t count = co_await inside.async_read_some(
            asio::buffer(piece), asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            tls.next_layer().expires_after(patience);
            co_await asio::async_write(tls, asio::buffer(piece.data(), count),
                                       asio::redirect_error(asio::use_awaitable, error));
        }
    }
}

}  // namespace

Task<void> BridgeTls(Stream& outside, Stream& inside, asio::ssl::context& context,
                     std::chrono::milliseconds handshake, std::chrono::milliseconds patience) {
    using namespace asio::experimental::awaitable_operators;
    Tls tls(outside, context);
    boost::system::error_code error;
    outside.expires_after(handshake);
    co_await tls.async_handshake(Tls::server, asio::redirect_error(asio::use_awaitable, error));
    if (!error) {
        co_await (PumpIn(tls, inside) || PumpOut(inside, tls, patience));
        outside.expires_after(GoodbyeTimeout);
        co_await tls.async_shutdown(asio::redirect_error(asio::use_awaitable, error));
    }
    inside.close();
    outside.close();
}

}  // namespace QxNHttp
