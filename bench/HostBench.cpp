// The daemon's interface beside bare Beast, and its logs beside a bare socket. Podman is a thread here that scripts its
// answers; requests and lines come at a steady pace, and what counts is the 99th percentile of the delays.

#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "QxNJson.h"
#include "RunInSandbox.h"
#include "host/api/Interface.h"
#include "host/http/UploadFile.h"
#include "tests/host/TestServer.h"
#include "tests/unit/LogStreamClient.h"
#include "tests/unit/ScriptedServer.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using QxNHttp::Right;
using QxNHttp::Task;
using std::chrono::microseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr const char* Answer =
    R"({"enabled":true,"state":"running","problem":"","settings":{"tcpPort":0,"cores":1}})";

double Percentile99(std::vector<double>& seconds) {
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() * 99 / 100];
}

// --- 1000 small requests a second ---

constexpr int Connections = 4;
constexpr int RequestsEach = 500;
constexpr microseconds Pace{1000};  ///< between two requests of all connections together

/// @return the delays of one connection's requests, each from the time when it was due
std::vector<double> Ask(unsigned short port, const std::string& token, int connection) {
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::address_v4::loopback(), port});
    socket.set_option(asio::ip::tcp::no_delay(true));
    http::request<http::empty_body> request(http::verb::get, "/api/v1/state", 11);
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::authorization, "Bearer " + token);
    const auto begin = steady_clock::now() + connection * Pace;
    beast::flat_buffer input;
    std::vector<double> delays;
    for (int i = 0; i < RequestsEach; ++i) {
        const auto due = begin + i * Connections * Pace;
        std::this_thread::sleep_until(due);
        http::write(socket, request);
        http::response<http::string_body> response;
        http::read(socket, input, response);
        delays.push_back(std::chrono::duration<double>(steady_clock::now() - due).count());
        if (response.body() != Answer) {
            throw std::runtime_error("wrong answer: " + response.body());
        }
    }
    return delays;
}

void AskAtAPace(benchmark::State& state, unsigned short port, const std::string& token) {
    for (auto _ : state) {
        std::vector<std::vector<double>> delays(Connections);
        std::vector<std::thread> clients;
        for (int i = 0; i < Connections; ++i) {
            clients.emplace_back([&, i] { delays[static_cast<size_t>(i)] = Ask(port, token, i); });
        }
        std::vector<double> all;
        for (int i = 0; i < Connections; ++i) {
            clients[static_cast<size_t>(i)].join();
            const auto& some = delays[static_cast<size_t>(i)];
            all.insert(all.end(), some.begin(), some.end());
        }
        state.SetIterationTime(Percentile99(all));
    }
}

void RequestsOurs(benchmark::State& state) {
    TestServer server;
    server.router.Add(QxNHttp::Verb::get, "/state", Right::Look,
                      [](QxNHttp::Request&) -> Task<QxNHttp::Reply> {
                          QxNHttp::Reply reply;
                          reply.body = Answer;
                          co_return reply;
                      });
    server.tokens.Remove("bench");
    const std::string token = server.tokens.Make("bench", Right::Look);
    server.Serve();
    AskAtAPace(state, server.port, token);
}

Task<void> ServeBare(beast::tcp_stream stream) {
    beast::flat_buffer input;
    try {
        for (;;) {
            http::request<http::string_body> request;
            co_await http::async_read(stream, input, request, asio::use_awaitable);
            http::response<http::string_body> response(http::status::ok, 11);
            response.body() = Answer;
            response.prepare_payload();
            co_await http::async_write(stream, response, asio::use_awaitable);
        }
    } catch (const std::exception&) {
        // The client has gone.
    }
}

Task<void> AcceptBare(asio::ip::tcp::acceptor& acceptor) {
    for (;;) {
        asio::ip::tcp::socket socket = co_await acceptor.async_accept(asio::use_awaitable);
        socket.set_option(asio::ip::tcp::no_delay(true));
        asio::co_spawn(acceptor.get_executor(), ServeBare(beast::tcp_stream(std::move(socket))),
                       asio::detached);
    }
}

void RequestsBare(benchmark::State& state) {
    asio::io_context io{1};
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    asio::co_spawn(io, AcceptBare(acceptor), asio::detached);
    std::thread thread([&] { io.run(); });
    AskAtAPace(state, acceptor.local_endpoint().port(), "none");
    io.stop();
    thread.join();
}

BENCHMARK(RequestsOurs)
    ->Name("Request1000PerSecond99th/ours")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(RequestsBare)
    ->Name("Request1000PerSecond99th/bare")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);

// --- Uploads ---

constexpr size_t UploadSize = 64 << 20;
constexpr const char* UploadDirectory = "/tmp/uploads";
constexpr const char* UploadPath = "/tmp/uploads/large";

std::string UploadHeader() {
    return "PUT /api/v1/file HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(UploadSize) +
           "\r\n\r\n";
}

void UploadTo(benchmark::State& state, unsigned short port) {
    const std::string upload = UploadHeader() + std::string(UploadSize, 'u');
    for (auto _ : state) {
        asio::io_context io;
        asio::ip::tcp::socket socket(io);
        socket.connect({asio::ip::address_v4::loopback(), port});
        asio::write(socket, asio::buffer(upload));
        char answer[1024];
        const size_t count = socket.read_some(asio::buffer(answer));
        if (!std::string(answer, count).starts_with("HTTP/1.1 20")) {
            throw std::runtime_error("the upload was refused");
        }
    }
}

void UploadOurs(benchmark::State& state) {
    TestServer server;
    server.router.Add(QxNHttp::Verb::put, "/file", Right::None,
                      [](QxNHttp::Request& request) -> Task<QxNHttp::Reply> {
                          auto file = co_await request.body->ToFile(UploadDirectory, UploadSize);
                          const std::string path = UploadPath;
                          co_await QxNHttp::Place(file, path);
                          co_return QxNHttp::Reply::Empty(QxNHttp::Status::created);
                      });
    server.Serve();
    UploadTo(state, server.port);
}

/// From socket to file, which gets its name when it is safe.
void StoreBare(asio::ip::tcp::acceptor& acceptor) {
    std::vector<char> piece(64 << 10);
    for (;;) {
        boost::system::error_code error;
        asio::ip::tcp::socket socket = acceptor.accept(error);
        if (error) {
            return;
        }
        std::string path = std::string(UploadDirectory) + "/XXXXXX";
        const int file = mkostemp(path.data(), O_CLOEXEC);
        for (size_t missing = UploadHeader().size() + UploadSize; missing != 0;) {
            const size_t count = socket.read_some(asio::buffer(piece));
            missing -= count;
            if (write(file, piece.data(), count) != static_cast<ssize_t>(count)) {
                throw std::runtime_error("nothing can be written");
            }
        }
        fsync(file);
        close(file);
        std::filesystem::rename(path, UploadPath);
        asio::write(socket, asio::buffer("HTTP/1.1 201 Created\r\n\r\n", 24));
    }
}

void UploadBare(benchmark::State& state) {
    std::filesystem::create_directories(UploadDirectory);
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    const unsigned short port = acceptor.local_endpoint().port();
    std::thread thread([&] { StoreBare(acceptor); });
    UploadTo(state, port);
    shutdown(acceptor.native_handle(), SHUT_RDWR);
    thread.join();
}

BENCHMARK(UploadOurs)->Name("UploadOf64MiB/ours")->UseRealTime()->MinTime(2)->Unit(benchmark::kMillisecond);
BENCHMARK(UploadBare)->Name("UploadOf64MiB/bare")->UseRealTime()->MinTime(2)->Unit(benchmark::kMillisecond);

// --- Logs ---

constexpr int Lines = 2000;

std::string Now() { return std::to_string(system_clock::now().time_since_epoch().count()); }

double SecondsSince(const std::string& then) {
    return static_cast<double>(system_clock::now().time_since_epoch().count() - std::stoll(then)) / 1e9;
}

/// Calls the function at the pace of 1000 a second.
template <typename Function>
void AtAPace(Function function) {
    const auto begin = steady_clock::now();
    for (int i = 0; i < Lines; ++i) {
        std::this_thread::sleep_until(begin + i * Pace);
        function();
    }
}

/// A line as Podman's log has it: its time and text.
std::string Line(const std::string& text) {
    static int count = 0;
    char time[64];
    snprintf(time, sizeof(time), "2026-01-31T00:%02d:%02d.%06d000Z ", count / 60000000 % 60,
             count / 1000000 % 60, count % 1000000);
    ++count;
    return LogFrame(time + text + "\n");
}

/// The daemon's requests for logs before a Podman with one container, "web".
class LogHost {
public:
    explicit LogHost(ScriptedServer::Script follow)
        : _podman(QxNContainer::QxNContainerPaths::PODMAN_SOCKET,
                  [follow = std::move(follow)](ScriptedServer::Connection& connection) {
                      const std::string target = connection.request.Target();
                      if (target.find("/logs?") == std::string::npos) {
                          ScriptedServer::SendAnswer(
                              connection, 200,
                              R"({"Id":"0123456789abcdef0123456789abcdef)"
                              R"(0123456789abcdef0123456789abcdef","Name":"web","State":{"Status":"running",)"
                              R"("ExitCode":0,"FinishedAt":"2026-01-01T00:00:00Z"},"Config":{"Tty":false}})");
                      } else if (target.find("follow=true") == std::string::npos) {
                          ScriptedServer::SendAnswer(connection, 200, "");
                      } else {
                          follow(connection);
                      }
                  }) {
        AddLogRequests(server.router, _ground);
        server.options.socket = "/run/api.sock";
        server.tokens.Remove("bench");
        token = server.tokens.Make("bench", Right::Look);
        server.Serve();
    }
    ~LogHost() { server.Stop(); }

    TestServer server;
    std::string token;

private:
    ScriptedServer _podman;
    asio::thread_pool _workers{4};
    ServiceManager _serviceManager;
    ServiceKeeper _keeper{server.io, {}, _serviceManager};
    MessageFollower _messages{server.io, "/run/messages"};
    LogHub _logs{QxNContainer::QxCContainer::GetInstance()};
    StreamThreads _streams{4};
    Ground _ground{_keeper, _messages, _logs, _streams, server.tokens, _workers, _workers, _workers,
                   "",      "",        "",    0};
};

void LineOurs(benchmark::State& state) {
    for (auto _ : state) {
        std::atomic<bool> isWatched{false};
        LogHost host([&](ScriptedServer::Connection& connection) {
            connection.StartChunked();
            Sandbox::Eventually([&] { return isWatched.load(); });
            AtAPace([&] { connection.SendChunk(Line(Now())); });
            connection.WaitForEnd();
        });
        WebSocketClient client(host.server.port, "/api/v1/containers/web/logs", host.token);
        isWatched = true;
        std::vector<double> delays;
        while (delays.size() < Lines) {
            const auto message = QxNJson::json::parse(client.Next());
            if (message["type"] == "lines") {
                for (const auto& line : message["lines"]) {
                    delays.push_back(SecondsSince(line["text"].get<std::string>()));
                }
            }
        }
        state.SetIterationTime(Percentile99(delays));
    }
}

void LineBare(benchmark::State& state) {
    for (auto _ : state) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            state.SkipWithError("no socket pair");
            return;
        }
        std::thread writer([&] {
            AtAPace([&] {
                const std::string line = Now() + "\n";
                [[maybe_unused]] const ssize_t sent = send(ends[0], line.data(), line.size(), MSG_NOSIGNAL);
            });
        });
        std::vector<double> delays;
        std::string input;
        char bytes[4096];
        while (delays.size() < Lines) {
            const ssize_t count = recv(ends[1], bytes, sizeof(bytes), 0);
            input.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
            for (size_t end = 0; (end = input.find('\n')) != std::string::npos; input.erase(0, end + 1)) {
                delays.push_back(SecondsSince(input.substr(0, end)));
            }
        }
        writer.join();
        close(ends[0]);
        close(ends[1]);
        state.SetIterationTime(Percentile99(delays));
    }
}

BENCHMARK(LineOurs)
    ->Name("LogLineToClient99th/ours")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(LineBare)
    ->Name("LogLineToClient99th/bare")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);

// --- Memory ---

constexpr size_t Viewers = 100;

double ResidentBytes() {
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    file >> total >> resident;
    return static_cast<double>(resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

/// A client that costs next to nothing itself.
int Watch(unsigned short port, const std::string& token) {
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string request =
        "GET /api/v1/containers/web/logs HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
        "Authorization: Bearer " +
        token + "\r\n\r\n";
    char answer[4096];
    if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        send(client, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
        recv(client, answer, sizeof(answer), 0) < 12 || std::string(answer, 12) != "HTTP/1.1 101") {
        throw std::runtime_error("no WebSocket");
    }
    return client;
}

void IdleViewers(benchmark::State& state) {
    for (auto _ : state) {
        LogHost host([](ScriptedServer::Connection& connection) {
            connection.StartChunked();
            connection.WaitForEnd();
        });
        std::vector<int> clients{Watch(host.server.port, host.token)};
        const double before = ResidentBytes();
        while (clients.size() <= Viewers) {
            clients.push_back(Watch(host.server.port, host.token));
        }
        state.counters["bytes"] = (ResidentBytes() - before) / Viewers;
        state.SetIterationTime(1);
        for (const int client : clients) {
            close(client);
        }
    }
}

BENCHMARK(IdleViewers)->Name("IdleViewer/ours")->UseManualTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmarksInSandbox(argc, argv, [] {});
}
