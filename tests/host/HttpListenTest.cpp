#include "Certificate.h"
#include "HttpTest.h"

#include <grp.h>
#include <sys/stat.h>

using QxNSupport::UniqueFd;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Kind = HttpClient::Kind;

namespace {

constexpr const char* SocketPath = "/run/daemon/api.sock";

class HttpListeners : public HttpTest {
protected:
    /// @return what is wrong; empty when the server could listen
    std::string WhyNot(const QxNHttp::ServerOptions& options) {
        boost::asio::io_context io;
        try {
            const QxNHttp::Server refused(io, options, server.router, server.tokens);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return {};
    }

    std::string WhyNotOn(const std::string& address) {
        server.options.listen = {address};
        return WhyNot(server.options);
    }

    void ListenLocally() {
        server.options.listen.clear();
        server.options.socket = SocketPath;
    }

    static struct stat StatusOf(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status;
    }

    /// A socket for the daemon's path that does not wait.
    static UniqueFd LocalSocket(int (*function)(int, const sockaddr*, socklen_t), int& result) {
        std::filesystem::create_directories("/run/daemon");
        UniqueFd local(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, SocketPath);
        result = function(local.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        return local;
    }

    static UniqueFd BoundSocket() {
        int result = -1;
        UniqueFd bound = LocalSocket(bind, result);
        EXPECT_EQ(result, 0);
        return bound;
    }

    /// What a daemon that was killed leaves.
    static void LeaveStaleSocket() { BoundSocket(); }
};

TEST_F(HttpListeners, TellTheirAddresses) {
    server.options.socket = SocketPath;
    boost::asio::io_context io;
    QxNHttp::Server served(io, server.options, server.router, server.tokens);
    EXPECT_THAT(served.Urls(),
                ElementsAre(std::string("unix:") + SocketPath, StartsWith("http://127.0.0.1:")));
}

TEST_F(HttpListeners, OnTheUnixSocketHavePlacesOfTheirOwn) {
    server.options.clients = 1;
    server.options.socket = SocketPath;
    server.Serve();
    HttpClient network(server.port);
    EXPECT_EQ(network.Ask(Get("/api/v1/hello")).status, 200);
    EXPECT_EQ(HttpClient(server.port).Ask(Get("/api/v1/hello")).status, 503);

    HttpClient local{std::string(SocketPath)};
    EXPECT_EQ(local.Ask(Get("/api/v1/hello")).status, 200);
    EXPECT_EQ(HttpClient(std::string(SocketPath)).Ask(Get("/api/v1/hello")).status, 503);
    EXPECT_EQ(server.Clients(), 2U);
}

TEST_F(HttpListeners, OnTheUnixSocketKnowWhoComes) {
    ListenLocally();
    server.Serve();
    HttpClient client{std::string(SocketPath)};
    EXPECT_EQ(client.Ask(Get("/api/v1/client")).body, "local");
    EXPECT_EQ(client.Ask("POST /api/v1/client HTTP/1.1\r\nHost: anything\r\n\r\n").body, "local");
    EXPECT_EQ(client.Ask(Get("/api/v1/hello", "Origin: http://evil.example\r\n")).status, 403);
}

TEST_F(HttpListeners, OnTcpKnowNobodyWithoutAToken) {
    server.options.socket = SocketPath;
    server.Serve();
    EXPECT_EQ(Ask(Get("/api/v1/client")).status, 401);
}

TEST_F(HttpListeners, OnTheUnixSocketAreForTheGroup) {
    std::ofstream("/etc/group", std::ios::app) << "panelists:x:4711:\n";
    ListenLocally();
    server.options.socketGroup = "panelists";
    server.Serve();
    EXPECT_EQ(StatusOf(SocketPath).st_mode & 07777, 0660U);
    EXPECT_EQ(StatusOf(SocketPath).st_gid, 4711U);
    EXPECT_EQ(StatusOf(SocketPath).st_uid, 0U);
}

TEST_F(HttpListeners, OnTheUnixSocketAreForRootWhenThereIsNoGroup) {
    ListenLocally();
    server.options.socketGroup = "nobody-knows-it";
    server.Serve();
    EXPECT_EQ(StatusOf(SocketPath).st_mode & 07777, 0660U);
    EXPECT_EQ(StatusOf(SocketPath).st_gid, 0U);
}

TEST_F(HttpListeners, ReplaceASocketThatNobodyServes) {
    LeaveStaleSocket();
    ListenLocally();
    server.Serve();
    EXPECT_EQ(HttpClient(std::string(SocketPath)).Ask(Get("/api/v1/hello")).body, "hello");
}

TEST_F(HttpListeners, LeaveASocketWhoseQueueIsFull) {
    const UniqueFd busy = BoundSocket();
    ASSERT_EQ(listen(busy.Get(), 0), 0);
    std::vector<UniqueFd> waiting;
    for (int result = 0; result == 0;) {
        waiting.push_back(LocalSocket(connect, result));
    }
    ASSERT_EQ(errno, EAGAIN);

    ListenLocally();
    EXPECT_THAT(WhyNot(server.options), HasSubstr("/run/daemon/api.sock: another process serves it"));
    EXPECT_TRUE(S_ISSOCK(StatusOf(SocketPath).st_mode));
}

TEST_F(HttpListeners, LeaveASocketThatSomebodyServes) {
    ListenLocally();
    server.Serve();
    EXPECT_THAT(WhyNot(server.options), HasSubstr("/run/daemon/api.sock: another process serves it"));
    EXPECT_EQ(HttpClient(std::string(SocketPath)).Ask(Get("/api/v1/hello")).body, "hello");
}

TEST_F(HttpListeners, LeaveOtherFiles) {
    ListenLocally();
    Sandbox::WriteFile(SocketPath, "precious");
    EXPECT_THAT(WhyNot(server.options), HasSubstr(SocketPath));
    EXPECT_EQ(Sandbox::ReadFile(SocketPath), "precious");
}

TEST_F(HttpListeners, LeaveLinks) {
    LeaveStaleSocket();
    std::filesystem::create_symlink(SocketPath, "/run/daemon/link");
    server.options.listen.clear();
    server.options.socket = "/run/daemon/link";
    EXPECT_NE(WhyNot(server.options), "");
    EXPECT_TRUE(std::filesystem::is_symlink("/run/daemon/link"));
    EXPECT_TRUE(std::filesystem::exists(SocketPath));
}

TEST_F(HttpListeners, RefuseAPathThatIsTooLong) {
    server.options.socket = "/run/" + std::string(110, 'x');
    EXPECT_THAT(WhyNot(server.options), HasSubstr("too long"));
}

TEST_F(HttpListeners, TakeTheirSocketAlong) {
    ListenLocally();
    server.Serve();
    EXPECT_TRUE(std::filesystem::exists(SocketPath));
    server.Stop();
    EXPECT_FALSE(std::filesystem::exists(SocketPath));
}

TEST_F(HttpListeners, LeaveNoSocketWhenAnotherAddressCannotBeHad) {
    server.options.socket = SocketPath;
    EXPECT_NE(WhyNotOn("192.0.2.1:0"), "");
    EXPECT_FALSE(std::filesystem::exists(SocketPath));
}

TEST_F(HttpListeners, RefuseWhatIsNoAddress) {
    for (const char* address : {"", "127.0.0.1", "127.0.0.1:", ":8089", "8089", "::1:8089", "[::1]",
                                "[::1]8089", "[::1:8089", "localhost:8089", "127.0.0.1:http", "127.0.0.1:-1",
                                "127.0.0.1:65536", "127.0.0.1:99999", "127.0.0.1:0:0", "256.0.0.1:8089"}) {
        EXPECT_THAT(WhyNotOn(address), HasSubstr("cannot listen on '" + std::string(address) + "'"));
    }
}

TEST_F(HttpListeners, RefuseAnAddressThatIsTaken) {
    server.Serve();
    EXPECT_THAT(WhyNotOn("127.0.0.1:" + std::to_string(server.port)), HasSubstr("already in use"));
}

TEST_F(HttpListeners, AreForThisMachineOnlyWithoutCertificateAndToken) {
    const std::vector<std::string> open = {"0.0.0.0:0", "[::]:0", "192.0.2.1:0", "[::ffff:127.0.0.1]:0",
                                           "128.0.0.1:0"};
    const auto expectRefused = [&](const char* when) {
        for (const std::string& address : open) {
            EXPECT_THAT(WhyNotOn(address), HasSubstr("Give a certificate, a key and at least one token"))
                << address << " " << when;
        }
    };
    expectRefused("with neither");
    EXPECT_EQ(WhyNotOn("127.0.0.1:0"), "");
    EXPECT_EQ(WhyNotOn("127.1.2.3:0"), "");

    UseCertificate(server.options);
    expectRefused("without a token");
    server.tokens.Make("panel", Right::Look);
    EXPECT_EQ(WhyNotOn("0.0.0.0:0"), "");
    server.options.certificate.clear();
    expectRefused("without a certificate");
}

TEST_F(HttpListeners, RefuseCertificatesThatCannotBeUsed) {
    UseCertificate(server.options);
    MakeCertificate("/tmp/other");
    EXPECT_EQ(WhyNot(server.options), "");
    auto wrong = server.options;
    wrong.key = "/tmp/other.key";
    EXPECT_THAT(WhyNot(wrong), HasSubstr("/tmp/server.pem and its key /tmp/other.key cannot be used"));
    wrong.key.clear();
    EXPECT_THAT(WhyNot(wrong), HasSubstr("cannot be used"));
    wrong = server.options;
    wrong.certificate = "/tmp/nowhere.pem";
    EXPECT_THAT(WhyNot(wrong), HasSubstr("/tmp/nowhere.pem"));
    Sandbox::WriteFile("/tmp/nowhere.pem", "nonsense");
    EXPECT_THAT(WhyNot(wrong), HasSubstr("/tmp/nowhere.pem"));
}

class HttpListenersWithTls : public HttpListeners {
protected:
    HttpListenersWithTls() { UseCertificate(server.options); }

    HttpClient Connect() { return HttpClient(server.port, Kind::Tls); }
};

TEST_F(HttpListenersWithTls, Serve) {
    server.Serve();
    HttpClient client = Connect();
    for (int at = 0; at < 5; ++at) {
        EXPECT_EQ(client.Ask(Get("/api/v1/hello")).body, "hello");
    }
    const std::string text(LongestText, 't');
    EXPECT_TRUE(client.Ask(WithBody("POST /api/v1/text", text)).body == text);
    EXPECT_EQ(client.Ask(WithBody("PUT /api/v1/files/name", std::string(LongestFile, 'x'))).status, 201);
    const Answer large = client.Ask(Get("/api/v1/large", "Connection: close\r\n"));
    EXPECT_EQ(large.body.size(), 64U << 20);
    EXPECT_TRUE(client.IsClosed());
}

std::string FingerprintOnPort(unsigned short port) {
    const std::string server = "127.0.0.1:" + std::to_string(port);
    const std::string command =
        "openssl s_client -connect " + server +
        " </dev/null 2>/dev/null | openssl x509 -noout -fingerprint >/tmp/fingerprint";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return Sandbox::ReadFile("/tmp/fingerprint");
}

TEST_F(HttpListenersWithTls, TakeARenewedCertificate) {
    server.Serve();
    const std::string first = FingerprintOnPort(server.port);
    EXPECT_THAT(first, HasSubstr("Fingerprint="));
    EXPECT_EQ(FingerprintOnPort(server.port), first);

    MakeCertificate("/tmp/new");
    std::filesystem::rename("/tmp/new.pem", "/tmp/server.pem");
    EXPECT_EQ(FingerprintOnPort(server.port), first) << "while the key does not fit yet";
    std::filesystem::rename("/tmp/new.key", "/tmp/server.key");
    const std::string second = FingerprintOnPort(server.port);
    EXPECT_THAT(second, HasSubstr("Fingerprint="));
    EXPECT_NE(second, first);
    std::filesystem::remove("/tmp/server.pem");
    EXPECT_EQ(FingerprintOnPort(server.port), second);
}

TEST_F(HttpListenersWithTls, HaveTheirOrigin) {
    server.Serve();
    EXPECT_EQ(Connect().Ask(Get("/api/v1/hello", "Origin: https://localhost\r\n")).status, 200);
    EXPECT_EQ(Connect().Ask(Get("/api/v1/hello", "Origin: http://localhost\r\n")).status, 403);
    EXPECT_EQ(Connect().Ask("GET /api/v1/hello HTTP/1.1\r\nHost: evil.example\r\n\r\n").status, 421);
    EXPECT_EQ(Connect().Ask(Get("/api/v1/client")).status, 401);
}

TEST_F(HttpListenersWithTls, AnswerBeforeABodyHasComeWhenItIsTooLong) {
    server.Serve();
    HttpClient client = Connect();
    client.Send("POST /api/v1/text HTTP/1.1\r\nHost: localhost\r\nContent-Length: 200000\r\n\r\n");
    EXPECT_EQ(client.Read().status, 413);
}

TEST_F(HttpListenersWithTls, EndConnectionsThatSpeakSomethingElse) {
    server.Serve();
    for (const std::string& bytes :
         {Get("/api/v1/hello"), std::string(70000, '\0'), std::string(300, '\x16')}) {
        HttpClient client(server.port);
        client.Send(bytes);
        client.EndSending();
        client.ReadToEnd();
        EXPECT_TRUE(IsDeserted());
    }
    EXPECT_EQ(Connect().Ask(Get("/api/v1/hello")).body, "hello");
}

TEST_F(HttpListenersWithTls, EndHandshakesThatStall) {
    server.options.headerTimeout = milliseconds(300);
    server.Serve();
    for (const std::string& begin : {std::string(), std::string("\x16\x03\x01", 3)}) {
        HttpClient client(server.port);
        client.Send(begin);
        EXPECT_TRUE(client.IsClosed());
        EXPECT_TRUE(IsDeserted());
    }
}

TEST_F(HttpListenersWithTls, KeepTheUnixSocketPlain) {
    server.options.socket = SocketPath;
    server.Serve();
    EXPECT_EQ(HttpClient(std::string(SocketPath)).Ask(Get("/api/v1/client")).body, "local");
}

}  // namespace
