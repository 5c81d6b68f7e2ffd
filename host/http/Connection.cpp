#include "http/Connection.h"

#include "http/Origin.h"
#include "http/PageFiles.h"
#include "http/UploadFile.h"

#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/chunk_encode.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/file_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <cstdio>
#include <memory>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace QxNHttp {

namespace {

constexpr size_t LargestInput = 64 << 10;
constexpr size_t LargestLeftover = 64 << 20;
constexpr std::chrono::seconds LingerTimeout{2};
constexpr size_t FilePiece = 256 << 10;
constexpr size_t LargestClientMessage = 4096;
constexpr const char* ApiSegments[] = {"api", "v1"};

constexpr const char* ContentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; font-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

std::string_view View(beast::string_view text) { return {text.data(), text.size()}; }

/// @return the value of a cookie; empty when it is not there
std::string_view CookieOf(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        std::string_view pair = cookies.substr(0, cookies.find(';'));
        cookies.remove_prefix(std::min(cookies.size(), pair.size() + 1));
        pair.remove_prefix(std::min(pair.size(), pair.find_first_not_of(' ')));
        if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
            return pair.substr(name.size() + 1);
        }
    }
    return {};
}

void SetCommonHeaders(auto& message) {
    message.set(http::field::server, "qxcontainerd");
    message.set("Content-Security-Policy", ContentPolicy);
    message.set("X-Content-Type-Options", "nosniff");
    message.set("Referrer-Policy", "no-referrer");
    if (message.find(http::field::cache_control) == message.end()) {
        message.set(http::field::cache_control, "no-store");
    }
}

/// One connection.
class Session final : public BodyReader {
public:
    Session(Stream& stream, const Origin& origin, const Ground& ground)
        : _stream(stream), _origin(origin), _ground(ground) {}

    /// Serves requests until the connection ends.
    Task<void> Run() {
        // Not as a condition: GCC 12 loses temporaries in conditions that suspend.
        for (bool goesOn = true; goesOn;) {
            goesOn = co_await ServeNext();
        }
        co_await Linger();
    }

    Task<std::string> Text(size_t limit) override {
        const auto parser = co_await TakeBody<http::string_body>(limit);
        // For all of it as well as for its pieces: whoever has no token yet may send one too.
        const auto end = std::chrono::steady_clock::now() + _ground.options.textTimeout;
        while (!parser->is_done()) {
            const auto left =
                std::chrono::floor<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            Deadline(std::clamp(left, std::chrono::milliseconds(0), _ground.options.idleTimeout));
            beast::error_code error;
            co_await http::async_read_some(_stream, _input, *parser,
                                           asio::redirect_error(asio::use_awaitable, error));
            if (error) {
                FailBody(error, limit);
            }
        }
        _isBodyRead = true;
        co_return std::move(parser->get().body());
    }

    Task<UploadedFile> ToFile(const std::string& directory, std::uint64_t limit) override {
        UploadTarget target;
        std::optional<UploadedFile> file;
        std::exception_ptr failure;
        try {
            co_await target.Begin(directory, _contentLength);
            co_await ReadInto(target, limit);
            _isBodyRead = true;
            UploadedFile finished = co_await target.Finish();
            file.emplace(std::move(finished));
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            co_await target.Discard();
            std::rethrow_exception(failure);
        }
        co_return std::move(*file);
    }

private:
    using HeaderParser = http::request_parser<http::empty_body>;

    Task<void> ReadInto(UploadTarget& target, std::uint64_t limit) {
        const auto parser = co_await TakeBody<http::buffer_body>(limit);
        std::vector<char> piece(FilePiece);
        // As much is asked of the socket at a time as the input has room for: without this, 512 bytes.
        _input.reserve(LargestInput);
        while (!parser->is_done()) {
            auto& body = parser->get().body();
            body.data = piece.data();
            body.size = piece.size();
            beast::error_code error;
            while (!error && !parser->is_done()) {
                Deadline(_ground.options.idleTimeout);
                co_await http::async_read_some(_stream, _input, *parser,
                                               asio::redirect_error(asio::use_awaitable, error));
            }
            if (error && error != http::error::need_buffer) {
                FailBody(error, limit);
            }
            co_await target.Write(piece.data(), piece.size() - body.size);
        }
        _input.shrink_to_fit();
    }

    /// @return whether another request may follow
    Task<bool> ServeNext() {
        beast::error_code error;
        co_await ReadHeader(error);
        if (error) {
            co_return co_await AnswerUnreadable(error);
        }
        Request request;
        std::optional<Reply> reply;
        Router::Stream stream;
        std::string allow;
        try {
            TakeHeader(request);
            if (!IsForApi(request)) {
                allow = "GET, HEAD";
                reply = PageFile(_ground.options.page, request);
            } else {
                co_await Handle(Admit(request, allow), request, reply, stream);
            }
        } catch (const Problem& problem) {
            reply = ReplyOf(problem, allow);
        } catch (const boost::system::system_error&) {
            co_return false;  // of the connection itself
        } catch (const std::exception& unexpected) {
            reply = Reply::Of(Problem(Status::internal_server_error,
                                      std::string("The daemon failed: ") + unexpected.what()));
        }
        if (!reply) {
            co_await ServeWebSocket(stream);
            co_return false;
        }
        Tell(request, *reply);
        co_return co_await Send(std::move(*reply), request.method == Verb::head);
    }

    /// Gives either a reply or what goes on over a WebSocket.
    static Task<void> Handle(const Router::Route& route, Request& request, std::optional<Reply>& reply,
                             Router::Stream& stream) {
        if (route.stream) {
            stream = co_await route.stream(request);
        } else {
            reply = co_await route.handler(request);
        }
    }

    // --- Reading ---

    Task<void> ReadHeader(beast::error_code& error) {
        if (_isKeptAlive && _input.size() == 0) {
            Deadline(_ground.options.idleTimeout);
            const auto room = _input.prepare(1024);
            const size_t count =
                co_await _stream.async_read_some(room, asio::redirect_error(asio::use_awaitable, error));
            if (error) {
                co_return;
            }
            _input.commit(count);
        }
        Deadline(_ground.options.headerTimeout);
        _header.emplace();
        _header->header_limit(static_cast<std::uint32_t>(_ground.options.largestTarget));
        _header->body_limit(boost::none);
        const size_t length = co_await http::async_read_header(
            _stream, _input, *_header, asio::redirect_error(asio::use_awaitable, error));
        // The parser looks at the limit only while it waits for more.
        if (!error && length > _ground.options.largestTarget) {
            error = http::error::header_limit;
        }
    }

    Task<bool> AnswerUnreadable(beast::error_code error) {
        _isKeptAlive = false;
        if (error == http::error::header_limit || error == http::error::buffer_overflow) {
            co_return co_await Send(
                Reply::Of(Problem(Status::request_header_fields_too_large,
                                  "The request's header is longer than " +
                                      std::to_string(_ground.options.largestTarget) + " bytes.")),
                false);
        }
        if (IsMalformed(error)) {
            co_return co_await Send(Reply::Of(Problem(Status::bad_request, "This is no HTTP request.")),
                                    false);
        }
        co_return false;
    }

    static bool IsMalformed(const beast::error_code& error) {
        return error.category() == beast::error_code(http::error::bad_method).category() &&
               error != http::error::end_of_stream && error != http::error::partial_message;
    }

    void TakeHeader(Request& request) {
        const auto& header = _header->get();
        _isKeptAlive = header.keep_alive();
        _contentLength = _header->content_length() ? std::optional<std::uint64_t>(*_header->content_length())
                                                   : std::nullopt;
        _isBodyRead = _header->is_done();
        _knowsChunks = header.version() >= 11;
        _expectsContinue = _knowsChunks && beast::iequals(header[http::field::expect], "100-continue");
        request.method = header.method();
        request.body = this;
        request.wantsWebSocket = websocket::is_upgrade(header);
        CheckCoding(header);
        CheckSender(header);
        if (!ParseTarget(View(header.target()), request)) {
            throw Problem(Status::bad_request, "The request's address is malformed.");
        }
        request.client = ClientOf(header);
    }

    /// Refuses bodies whose end nobody can tell: what follows would be taken for the next request.
    void CheckCoding(const http::request<http::empty_body>& header) {
        if (header.count(http::field::transfer_encoding) > 0 &&
            !beast::iequals(header[http::field::transfer_encoding], "chunked")) {
            _isKeptAlive = false;
            throw Problem(Status::bad_request, "The only transfer coding known here is 'chunked'.");
        }
    }

    /// Refuses what came through another site's page or another host's name. Browsers attach our cookie to both.
    void CheckSender(const http::request<http::empty_body>& header) const {
        if (header.count(http::field::host) != 1 || header.count(http::field::origin) > 1) {
            throw Problem(Status::bad_request,
                          "The request must have one Host header and at most one Origin.");
        }
        const std::string_view authority = View(header[http::field::host]);
        const std::string_view host = HostOf(authority);
        if (!_origin.isLocal && !IsOurName(host)) {
            throw Problem(Status::misdirected_request,
                          "This machine is not called '" + std::string(host) +
                              "' here; the daemon's option --host allows a name.");
        }
        if (header.count(http::field::origin) == 1 &&
            !IsSameOrigin(View(header[http::field::origin]), authority, _origin.isTls)) {
            throw Problem(Status::forbidden, "Pages of other sites may not use this daemon.");
        }
    }

    bool IsOurName(std::string_view host) const {
        const auto& hosts = _ground.options.hosts;
        return IsLoopbackName(host) || IsSameHost(host, _origin.address) ||
               std::any_of(hosts.begin(), hosts.end(),
                           [&](const std::string& name) { return IsSameHost(host, name); });
    }

    Client ClientOf(const http::request<http::empty_body>& header) {
        if (_origin.isLocal) {
            return {"local", Right::Act, true, false};
        }
        constexpr std::string_view Bearer = "Bearer ";
        const std::string_view authorization = View(header[http::field::authorization]);
        _token = authorization.starts_with(Bearer)
                     ? authorization.substr(Bearer.size())
                     : CookieOf(View(header[http::field::cookie]), "qx-session");
        Client client = _token.empty() ? Client{} : _ground.tokens.Find(_token);
        client.isTls = _origin.isTls;
        return client;
    }

    static bool IsForApi(const Request& request) {
        return !request.segments.empty() && request.segments[0] == ApiSegments[0];
    }

    /// Of a WebSocket (RFC 6455, 4.2.1).
    void CheckHandshake() const {
        constexpr size_t KeyLength = 24;  // 16 bytes in Base64
        const auto& header = _header->get();
        if (header[http::field::sec_websocket_version] != "13") {
            throw Problem(Status::upgrade_required, "WebSockets are spoken here in version 13 only.");
        }
        if (header[http::field::sec_websocket_key].size() != KeyLength) {
            throw Problem(Status::bad_request, "The handshake of a WebSocket needs a Sec-WebSocket-Key.");
        }
    }

    const Router::Route& Admit(const Request& request, std::string& allow) {
        const auto& segments = request.segments;
        if (segments.size() < 2 || segments[1] != ApiSegments[1]) {
            throw Problem(Status::not_found, "The interface begins at /api/v1.");
        }
        const Verb method = request.method == Verb::head ? Verb::get : request.method;
        const Router::Route& route = _ground.router.Find(method, {segments.begin() + 2, segments.end()},
                                                         request.wantsWebSocket, allow);
        if (route.right != Right::None && request.client.right == Right::None) {
            throw Problem(Status::unauthorized,
                          "A token is needed; qxctl token create makes one on the board.");
        }
        if (route.right > request.client.right) {
            throw Problem(Status::forbidden, "The token '" + request.client.name + "' may look but not act.");
        }
        if (route.stream) {
            CheckHandshake();
        }
        return route;
    }

    template <typename Body>
    Task<std::unique_ptr<http::request_parser<Body>>> TakeBody(std::uint64_t limit) {
        if (_contentLength && *_contentLength > limit) {
            throw TooLong(limit);
        }
        if (_expectsContinue) {
            _expectsContinue = false;
            http::response<http::empty_body> goOn(Status::continue_, 11);
            Deadline(_ground.options.idleTimeout);
            co_await http::async_write(_stream, goOn, asio::use_awaitable);
        }
        auto parser = std::make_unique<http::request_parser<Body>>(std::move(*_header));
        parser->body_limit(limit);
        co_return parser;
    }

    static Problem TooLong(std::uint64_t limit) {
        return {Status::payload_too_large, "The body is longer than " + std::to_string(limit) + " bytes."};
    }

    [[noreturn]] static void FailBody(const beast::error_code& error, std::uint64_t limit) {
        if (error == http::error::body_limit) {
            throw TooLong(limit);
        }
        if (IsMalformed(error)) {
            throw Problem(Status::bad_request, "The request's body is malformed.");
        }
        throw boost::system::system_error(error);
    }

    // --- Writing ---

    static Reply ReplyOf(const Problem& problem, const std::string& allow) {
        Reply reply = Reply::Of(problem);
        if (problem.status == Status::method_not_allowed) {
            reply.headers.emplace_back("Allow", allow);
        } else if (problem.status == Status::unauthorized) {
            reply.headers.emplace_back("WWW-Authenticate", "Bearer");
        } else if (problem.status == Status::upgrade_required) {
            reply.headers.emplace_back("Upgrade", "websocket");
            reply.headers.emplace_back("Sec-WebSocket-Version", "13");
        }
        return reply;
    }

    /// Who changed what, for the journal.
    static void Tell(const Request& request, const Reply& reply) {
        if (request.method != Verb::get && request.method != Verb::head &&
            request.client.right == Right::Act) {
            const std::string method(http::to_string(request.method));
            std::fprintf(stderr, "qxcontainerd: %s: %s %s: %d\n", request.client.name.c_str(), method.c_str(),
                         request.target.c_str(), static_cast<int>(reply.status));
        }
    }

    template <typename Body>
    http::response<Body> Begin(const Reply& reply) const {
        http::response<Body> message(reply.status, 11);
        for (const auto& [name, value] : reply.headers) {
            message.insert(name, value);
        }
        if (!reply.type.empty()) {
            message.set(http::field::content_type, reply.type);
        }
        SetCommonHeaders(message);
        message.keep_alive(_isKeptAlive);
        return message;
    }

    /// @return whether another request may follow
    Task<bool> Send(Reply reply, bool isHead) {
        _isKeptAlive = _isKeptAlive && _isBodyRead;
        beast::error_code error;
        if (reply.producer) {
            co_await SendProduced(reply, isHead, error);
        } else if (reply.file.IsOpen()) {
            auto message = Begin<http::file_body>(reply);
            http::file_body::file_type file;
            file.native_handle(reply.file.Release());
            message.body().reset(std::move(file), error);
            message.prepare_payload();
            co_await Write(message, isHead, error);
        } else {
            auto message = Begin<http::string_body>(reply);
            message.body() = std::move(reply.body);
            message.prepare_payload();
            if (reply.status == Status::no_content) {
                message.erase(http::field::content_length);
            }
            co_await Write(message, isHead, error);
        }
        co_return _isKeptAlive && !error;
    }

    template <typename Message>
    Task<void> Write(Message& message, bool isHead, beast::error_code& error) {
        http::response_serializer<typename Message::body_type> serializer(message);
        serializer.split(isHead);
        while (!error && !(isHead ? serializer.is_header_done() : serializer.is_done())) {
            Deadline(_ground.options.idleTimeout);
            co_await http::async_write_some(_stream, serializer,
                                            asio::redirect_error(asio::use_awaitable, error));
        }
    }

    class ChunkWriter final : public BodyWriter {
    public:
        explicit ChunkWriter(Session& session) : _session(session) {}

        Task<void> Write(std::string piece) override {
            if (!piece.empty()) {
                _session.Deadline(_session._ground.options.idleTimeout);
                if (_session._knowsChunks) {
                    co_await asio::async_write(_session._stream, http::make_chunk(asio::buffer(piece)),
                                               asio::use_awaitable);
                } else {
                    co_await asio::async_write(_session._stream, asio::buffer(piece), asio::use_awaitable);
                }
            }
        }

    private:
        Session& _session;
    };

    Task<void> SendProduced(const Reply& reply, bool isHead, beast::error_code& error) {
        // For clients of HTTP/1.0 the body ends with the connection.
        _isKeptAlive = _isKeptAlive && _knowsChunks;
        auto message = Begin<http::empty_body>(reply);
        message.chunked(_knowsChunks);
        http::response_serializer<http::empty_body> serializer(message);
        Deadline(_ground.options.idleTimeout);
        co_await http::async_write_header(_stream, serializer,
                                          asio::redirect_error(asio::use_awaitable, error));
        if (error || isHead) {
            co_return;
        }
        ChunkWriter writer(*this);
        try {
            co_await reply.producer(writer);
        } catch (const std::exception&) {
            // The client sees by the missing end that this is not all.
            error = asio::error::connection_aborted;
            co_return;
        }
        if (_knowsChunks) {
            Deadline(_ground.options.idleTimeout);
            co_await asio::async_write(_stream, http::make_chunk_last(),
                                       asio::redirect_error(asio::use_awaitable, error));
        }
    }

    /// A connection that is closed with unread input may take the answer along.
    Task<void> Linger() {
        beast::error_code error;
        _stream.socket().shutdown(asio::socket_base::shutdown_send, error);
        Deadline(LingerTimeout);
        std::array<char, 4096> rest;
        for (size_t left = LargestLeftover; !error && left > 0;) {
            const size_t count = co_await _stream.async_read_some(
                asio::buffer(rest), asio::redirect_error(asio::use_awaitable, error));
            left -= std::min(left, count);
        }
    }

    // --- WebSockets ---

    class Socket final : public WebSocket {
    public:
        Socket(Stream& stream, std::function<bool()> isAllowed)
            : ws(stream), _isAllowed(std::move(isAllowed)) {}

        Task<void> Send(std::string text) override {
            co_await CheckAllowed();
            ws.text(true);
            co_await ws.async_write(asio::buffer(text), asio::use_awaitable);
        }

        Task<void> SendBinary(std::string_view bytes, bool isLast) override {
            co_await CheckAllowed();
            ws.binary(true);
            co_await ws.async_write_some(isLast, asio::buffer(bytes), asio::use_awaitable);
        }

        void Drop() override { ws.next_layer().close(); }

        Task<void> Close(std::string reason, CloseCode code) override {
            websocket::close_reason why(code);
            why.reason = reason.substr(0, LengthOfReason(reason));
            co_await ws.async_close(why, asio::use_awaitable);
        }

        /// A close frame has room for 123 bytes, which must be whole characters.
        static size_t LengthOfReason(const std::string& reason) {
            constexpr size_t LongestReason = 123;
            size_t length = std::min(reason.size(), LongestReason);
            while (length > 0 && length < reason.size() && (reason[length] & 0xC0) == 0x80) {
                --length;
            }
            return length;
        }

        /// What clients send is dropped; reading answers pings and notices the end.
        Task<void> ReadUntilClosed() {
            beast::flat_buffer dropped;
            beast::error_code error;
            while (!error) {
                co_await ws.async_read(dropped, asio::redirect_error(asio::use_awaitable, error));
                dropped.consume(dropped.size());
            }
        }

        websocket::stream<Stream&> ws;

    private:
        /// A token that is removed takes its open streams along.
        Task<void> CheckAllowed() {
            if (!_isAllowed()) {
                co_await Close("the token has been removed", CloseCode::policy_error);
                throw boost::system::system_error(asio::error::operation_aborted);
            }
        }

        const std::function<bool()> _isAllowed;
    };

    Task<void> ServeWebSocket(const Router::Stream& stream) {
        using namespace asio::experimental::awaitable_operators;
        Socket socket(_stream,
                      [this] { return _token.empty() || _ground.tokens.Find(_token).right != Right::None; });
        _stream.expires_never();
        socket.ws.set_option(websocket::stream_base::timeout{_ground.options.headerTimeout,
                                                             _ground.options.pingTimeout, true});
        socket.ws.set_option(
            websocket::stream_base::decorator([](auto& message) { SetCommonHeaders(message); }));
        socket.ws.read_message_max(LargestClientMessage);
        // Each message goes as one frame.
        socket.ws.auto_fragment(false);
        beast::error_code error;
        co_await socket.ws.async_accept(_header->get(), asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            co_await (socket.ReadUntilClosed() || RunStream(stream, socket));
        }
    }

    static Task<void> RunStream(const Router::Stream& stream, Socket& socket) {
        try {
            co_await stream(socket);
        } catch (const std::exception&) {
            // The connection has ended, or ends now.
        }
    }

    void Deadline(std::chrono::milliseconds time) { _stream.expires_after(time); }

    Stream& _stream;
    const Origin& _origin;
    const Ground& _ground;
    beast::flat_buffer _input{LargestInput};
    std::optional<HeaderParser> _header;
    std::optional<std::uint64_t> _contentLength;
    std::string _token;  ///< of the client of the last request; empty for one on the board
    bool _isBodyRead = true;
    bool _isKeptAlive = false;
    bool _expectsContinue = false;
    bool _knowsChunks = true;
};

}  // namespace

Task<void> ServeConnection(Stream& stream, const Origin& origin, const Ground& ground) {
    try {
        Session session(stream, origin, ground);
        co_await session.Run();
    } catch (const std::exception&) {
        // The connection's own failures end it.
    }
}

Task<void> RefuseConnection(Stream& stream) {
    Reply reply =
        Reply::Of(Problem(Status::service_unavailable, "There are too many clients; try again later."));
    http::response<http::string_body> message(reply.status, 11);
    message.set(http::field::content_type, reply.type);
    message.set(http::field::retry_after, "1");
    SetCommonHeaders(message);
    message.keep_alive(false);
    message.body() = std::move(reply.body);
    message.prepare_payload();
    stream.expires_after(LingerTimeout);
    beast::error_code ignored;
    co_await http::async_write(stream, message, asio::redirect_error(asio::use_awaitable, ignored));
    stream.socket().shutdown(asio::socket_base::shutdown_both, ignored);
}

}  // namespace QxNHttp
