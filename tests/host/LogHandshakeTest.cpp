#include "LogServerFixture.h"

#include <fstream>
#include <system_error>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class LogHandshakes : public LogServerTest {
protected:
    LogHandshakes() { Serve(); }

    std::string Ask(const std::string& firstLine, const std::string& headers) {
        return AskPlainly(server->Port(), firstLine + "\r\n" + headers +
                                              "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                                              "Sec-WebSocket-Version: 13\r\n"
                                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    }
};

constexpr const char* Line = "GET /logs/web HTTP/1.1";
constexpr const char* Forbidden = "HTTP/1.1 403 Forbidden\r\n";

TEST_F(LogHandshakes, RefuseHostsAndOriginsOfOtherMachines) {
    for (const char* headers :
         {"", "Host: evil.example\r\n", "Host: localhost.evil.example\r\n", "Host: 192.168.0.1\r\n",
          "Host: localhost\r\nHost: evil.example\r\n", "Host: localhost\r\nOrigin: http://evil.example\r\n",
          "Host: localhost\r\nOrigin: null\r\n",
          "Host: localhost\r\nOrigin: http://localhost\r\nOrigin: http://evil.example\r\n"}) {
        EXPECT_THAT(Ask(Line, headers), StartsWith(Forbidden)) << headers;
    }
    EXPECT_TRUE(Asked().empty());
}

TEST_F(LogHandshakes, AcceptHostsAndOriginsOfThisMachine) {
    logs = ScriptedServer::Answer(200);
    for (const char* headers :
         {"Host: localhost\r\n", "Host: 127.0.0.1:1\r\nOrigin: http://localhost:3000\r\n",
          "Host: [::1]\r\n"}) {
        EXPECT_THAT(Ask(Line, headers), StartsWith("HTTP/1.1 101 Switching Protocols\r\n")) << headers;
    }
}

TEST_F(LogHandshakes, SayWhatIsWrongWithARequest) {
    const std::string host = "Host: localhost\r\n";
    EXPECT_THAT(Ask("GET /logs/a/../b HTTP/1.1", host), StartsWith("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_THAT(Ask("GET / HTTP/1.1", host), StartsWith("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_THAT(Ask("POST /logs/web HTTP/1.1", host), StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"));
    EXPECT_THAT(Ask(Line, host + "Content-Length: 5\r\n"), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
    EXPECT_THAT(AskPlainly(server->Port(), "GET /logs/web HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                StartsWith("HTTP/1.1 426 Upgrade Required\r\n"));
    EXPECT_THAT(AskPlainly(server->Port(), std::string(100, '\xff') + "\r\n\r\n"),
                StartsWith("HTTP/1.1 400 Bad Request\r\n"));
    EXPECT_TRUE(Asked().empty());
}

TEST_F(LogHandshakes, BoundTheHeader) {
    for (const size_t length : {size_t{9000}, size_t{100000}}) {
        EXPECT_THAT(Ask(Line, "Host: localhost\r\nX-Long: " + std::string(length, 'a') + "\r\n"),
                    StartsWith("HTTP/1.1 431 Request Header Fields Too Large\r\n"));
    }
    EXPECT_TRUE(Asked().empty());
}

TEST_F(LogHandshakes, AreLeftAfterATime) {
    server.reset();
    LogServer::Limits limits;
    limits.clients = 2;
    limits.handshakeTimeout = std::chrono::milliseconds(200);
    Serve(limits);
    boost::asio::io_context io;
    std::vector<LogClient::Socket> silent;
    for (int i = 0; i < 10; ++i) {
        silent.emplace_back(io).connect({boost::asio::ip::address_v4::loopback(), server->Port()});
    }

    EXPECT_EQ(Connect("/logs/web")->Next(), "line") << "the silent ones keep nobody out for long";
}

TEST_F(LogHandshakes, ThatBreakOffLeaveNothing) {
    const auto before = Sandbox::OpenDescriptors().size();
    for (const char* request : {"", "G", "GET /logs/web HTTP/1.1\r\nHost: loc"}) {
        boost::asio::io_context io;
        LogClient::Socket socket(io);
        socket.connect({boost::asio::ip::address_v4::loopback(), server->Port()});
        boost::asio::write(socket, boost::asio::buffer(request, strlen(request)));
    }
    EXPECT_TRUE(Sandbox::Eventually([&] { return Sandbox::OpenDescriptors().size() == before; }));
}

TEST_F(LogHandshakes, AreForLoopbackOnly) {
    std::ifstream table("/proc/net/tcp");
    char wanted[32];
    snprintf(wanted, sizeof(wanted), ":%04X 00000000:0000 0A", server->Port());
    std::string found;
    for (std::string line; std::getline(table, line);) {
        found += line.find(wanted) != std::string::npos ? line + "\n" : "";
    }
    EXPECT_THAT(found, HasSubstr(" 0100007F:")) << "listens on 127.0.0.1";
    EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 1);
}

TEST_F(LogHandshakes, NeedAPortThatIsFree) {
    EXPECT_NE(server->Port(), 0);
    try {
        const LogServer second(QxNContainer::QxCContainer::GetInstance(), server->Port());
        FAIL() << "the port is taken";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::address_in_use);
        EXPECT_THAT(error.what(), HasSubstr("port " + std::to_string(server->Port())));
    }
}

}  // namespace
