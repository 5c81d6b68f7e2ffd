#include "LogHandshake.h"

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <utility>

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {

constexpr std::uint32_t LongestHeader = 8192;
constexpr size_t LongestRest = 1 << 20;

std::string_view View(beast::string_view text) { return {text.data(), text.size()}; }

/// @return whether Host, and Origin where there is one, occur once and name this machine. Without that check every
///         page that a browser on this machine shows could read the logs.
bool ComesFromThisMachine(const LogSocket::Request& request) {
    return request.count(http::field::host) == 1 && IsLoopbackAuthority(View(request[http::field::host])) &&
           request.count(http::field::origin) <= 1 &&
           (request.count(http::field::origin) == 0 || IsLoopbackOrigin(View(request[http::field::origin])));
}

/// @return whether something arrived that is no request, in contrast to a connection that ended
bool IsMalformed(const beast::error_code& error) {
    return error.category() == beast::error_code(http::error::bad_method).category() &&
           error != http::error::end_of_stream && error != http::error::partial_message;
}

}  // namespace

LogHandshake::LogHandshake(beast::tcp_stream&& connection, const LogSocket::Timeouts& timeouts,
                           std::function<bool()> mayAccept, Accepted accepted)
    : _connection(std::move(connection)),
      _timeouts(timeouts),
      _mayAccept(std::move(mayAccept)),
      _accepted(std::move(accepted)),
      _input(LongestHeader) {
    _parser.header_limit(LongestHeader);
    _parser.body_limit(0);
}

void LogHandshake::Start() {
    _connection.expires_after(_timeouts.handshake);
    http::async_read(_connection, _input, _parser, [self = shared_from_this()](const auto& error, size_t) {
        if (!error) {
            self->OnRequest();
        } else if (error == http::error::header_limit || error == http::error::buffer_overflow) {
            self->Refuse(Status::request_header_fields_too_large, "The request is too long.");
        } else if (IsMalformed(error)) {
            self->Refuse(Status::bad_request, "This is no request for a log.");
        }
    });
}

void LogHandshake::Cancel() {
    _connection.close();
    if (_socket != nullptr) {
        _socket->Drop();
    }
}

void LogHandshake::OnRequest() {
    const auto& request = _parser.get();
    std::optional<LogRequest> wanted = LogRequest::Parse(View(request.target()));
    if (!ComesFromThisMachine(request)) {
        Refuse(Status::forbidden, "Logs are for pages and programs of this machine only.");
    } else if (request.method() != http::verb::get) {
        Refuse(Status::method_not_allowed, "Logs can only be read.");
    } else if (!wanted) {
        Refuse(Status::not_found, "Ask for /logs/NAME or /logs/NAME?tail=N.");
    } else if (!websocket::is_upgrade(request)) {
        Refuse(Status::upgrade_required, "Logs are for WebSockets.");
    } else if (!_mayAccept()) {
        Refuse(Status::service_unavailable, "There are too many clients.");
    } else {
        Upgrade(std::move(*wanted));
    }
}

void LogHandshake::Upgrade(LogRequest wanted) {
    _socket = std::make_shared<LogSocket>(std::move(_connection), _timeouts);
    _socket->Accept(_parser.release(),
                    [self = shared_from_this(), wanted = std::move(wanted)](bool isAccepted) {
                        if (isAccepted) {
                            self->_accepted(self->_socket, wanted);
                        }
                        self->_socket.reset();
                    });
}

void LogHandshake::Refuse(Status status, const std::string& why) {
    _response.emplace(status, 11);
    _response->set(http::field::content_type, "text/plain");
    if (status == Status::upgrade_required) {
        _response->set(http::field::upgrade, "websocket");
    }
    _response->keep_alive(false);
    _response->body() = why + "\n";
    _response->prepare_payload();
    http::async_write(_connection, *_response, [self = shared_from_this()](const auto&, size_t) {
        beast::error_code ignored;
        self->_connection.socket().shutdown(boost::asio::socket_base::shutdown_send, ignored);
        self->DropRest(LongestRest);
    });
}

void LogHandshake::DropRest(size_t limit) {
    // A connection that is closed with unread input may take the answer along.
    _connection.async_read_some(boost::asio::buffer(_rest),
                                [self = shared_from_this(), limit](const auto& error, size_t count) {
                                    if (!error && count < limit) {
                                        self->DropRest(limit - count);
                                    }
                                });
}
