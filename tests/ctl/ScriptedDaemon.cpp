#include "ScriptedDaemon.h"

#include "QxNJson.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {

constexpr const char* Prefix = "/api/v1";

template <typename Stream>
class LiveStream : public ScriptedDaemon::Live {
public:
    LiveStream(websocket::stream<Stream&>& stream, int socket) : _stream(stream), _socket(socket) {}

    void Send(const std::string& text) override {
        beast::error_code ignored;
        _stream.write(asio::buffer(text), ignored);
    }
    void SendRaw(const std::string& bytes) override {
        beast::error_code ignored;
        asio::write(_stream.next_layer(), asio::buffer(bytes), ignored);
    }
    void Drop() override { shutdown(_socket, SHUT_RDWR); }
    void WaitForEnd() override {
        beast::error_code error;
        while (!error) {
            beast::flat_buffer buffer;
            _stream.read(buffer, error);
        }
    }

private:
    websocket::stream<Stream&>& _stream;
    int _socket;
};

void MakeCertificate() {
    const char* const command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=daemon "
        "-addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout /run/daemon.key -out /run/daemon.crt "
        "2>/run/openssl.log";
    if (std::system(command) != 0) {
        perror("scripted daemon: openssl");
        abort();
    }
}

ScriptedDaemon::Request Remembered(const http::request<http::string_body>& request) {
    ScriptedDaemon::Request result;
    result.method = std::string(request.method_string());
    result.target = std::string(request.target());
    if (result.target.rfind(Prefix, 0) == 0) {
        result.target.erase(0, std::string_view(Prefix).size());
    }
    result.body = request.body();
    result.contentType = std::string(request[http::field::content_type]);
    result.authorization = std::string(request[http::field::authorization]);
    result.host = std::string(request[http::field::host]);
    result.isWebSocket = websocket::is_upgrade(request);
    return result;
}

}  // namespace

ScriptedDaemon::ScriptedDaemon() : _isLocal(true) {
    std::filesystem::create_directories(std::filesystem::path(Socket).parent_path());
    unlink(Socket);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string_view(Socket).copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("scripted daemon");
        abort();
    }
    Listen(listener);
}

ScriptedDaemon::ScriptedDaemon(Network network) : _isTls(network == Network::Tls) {
    if (_isTls) {
        MakeCertificate();
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        perror("scripted daemon");
        abort();
    }
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    _port = ntohs(address.sin_port);
    Listen(listener);
}

ScriptedDaemon::~ScriptedDaemon() {
    shutdown(_listener, SHUT_RDWR);
    _acceptor.join();
    close(_listener);
    for (const Worker& worker : _workers) {
        shutdown(worker.socket, SHUT_RDWR);
    }
    for (Worker& worker : _workers) {
        worker.thread.join();
        close(worker.socket);
    }
}

ScriptedDaemon::Answer ScriptedDaemon::Problem(int status, const std::string& detail) {
    const QxNJson::json problem{
        {"type", "about:blank"}, {"title", "Scripted"}, {"status", status}, {"detail", detail}};
    return {status, problem.dump(), "application/problem+json"};
}

void ScriptedDaemon::On(const std::string& request, Answer answer) {
    const std::lock_guard lock(_mutex);
    _answers[request] = std::move(answer);
}

void ScriptedDaemon::OnLive(const std::string& target, Script script) {
    const std::lock_guard lock(_mutex);
    _scripts[target].push_back(std::move(script));
}

std::vector<ScriptedDaemon::Request> ScriptedDaemon::Requests() const {
    const std::lock_guard lock(_mutex);
    return _requests;
}

std::string ScriptedDaemon::Log() const {
    std::string log;
    for (const Request& request : Requests()) {
        log += request.Text() + "\n";
    }
    return log;
}

void ScriptedDaemon::Listen(int listener) {
    _listener = listener;
    listen(_listener, 64);
    _acceptor = std::thread([this] { AcceptClients(); });
}

void ScriptedDaemon::AcceptClients() {
    for (;;) {
        const int client = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            return;
        }
        Worker& worker = _workers.emplace_back();
        // Two descriptors: that of the stream is closed with it, this one tells it to end.
        worker.socket = client;
        worker.thread = std::thread([this, client] { Serve(client); });
    }
}

void ScriptedDaemon::Serve(int client) {
    asio::io_context io;
    const int own = fcntl(client, F_DUPFD_CLOEXEC, 0);
    try {
        if (_isLocal) {
            asio::local::stream_protocol::socket stream(io, asio::local::stream_protocol(), own);
            ServeStream(stream, client);
        } else if (!_isTls) {
            asio::ip::tcp::socket stream(io, asio::ip::tcp::v4(), own);
            ServeStream(stream, client);
        } else {
            asio::ssl::context context(asio::ssl::context::tls_server);
            context.use_certificate_chain_file("/run/daemon.crt");
            context.use_private_key_file("/run/daemon.key", asio::ssl::context::pem);
            asio::ssl::stream<asio::ip::tcp::socket> stream(
                asio::ip::tcp::socket(io, asio::ip::tcp::v4(), own), context);
            stream.handshake(asio::ssl::stream_base::server);
            ServeStream(stream, client);
        }
    } catch (const std::exception&) {
        // The client went away, or was not meant to get through.
    }
    shutdown(client, SHUT_RDWR);
}

template <typename Stream>
void ScriptedDaemon::ServeStream(Stream& stream, int socket) {
    beast::flat_buffer buffer;
    http::request_parser<http::string_body> parser;
    parser.body_limit(1ULL << 30);
    http::read_header(stream, buffer, parser);
    if (parser.get()[http::field::expect] == "100-continue") {
        asio::write(stream, asio::buffer(std::string_view("HTTP/1.1 100 Continue\r\n\r\n")));
    }
    http::read(stream, buffer, parser);
    const Request request = Remembered(parser.get());
    {
        const std::lock_guard lock(_mutex);
        _requests.push_back(request);
    }
    if (const Script script = request.isWebSocket ? ScriptFor(request) : Script()) {
        websocket::stream<Stream&> live(stream);
        live.accept(parser.get());
        LiveStream<Stream> access(live, socket);
        script(access);
        beast::error_code ignored;
        live.close(websocket::close_code::normal, ignored);
        return;
    }
    const Answer answer = AnswerFor(request);
    usleep(static_cast<useconds_t>(answer.delayMs) * 1000);
    http::response<http::string_body> response(static_cast<http::status>(answer.status), 11, answer.body);
    response.set(http::field::content_type, answer.contentType);
    response.keep_alive(false);
    response.prepare_payload();
    http::write(stream, response);
}

ScriptedDaemon::Answer ScriptedDaemon::AnswerFor(const Request& request) const {
    const std::lock_guard lock(_mutex);
    const auto answer = _answers.find(request.method + " " + request.target);
    return answer != _answers.end() ? answer->second : Problem(404, "There is nothing at " + request.target);
}

ScriptedDaemon::Script ScriptedDaemon::ScriptFor(const Request& request) {
    const std::lock_guard lock(_mutex);
    const auto scripts = _scripts.find(request.target);
    if (scripts == _scripts.end() || scripts->second.empty()) {
        return {};
    }
    Script script = scripts->second.front();
    scripts->second.pop_front();
    return script;
}
