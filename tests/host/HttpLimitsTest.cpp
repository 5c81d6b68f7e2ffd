#include "Certificate.h"
#include "HttpTest.h"
#include "http/Background.h"

#include <sys/resource.h>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = HttpClient::Kind;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool DescriptorsAreTheProgramsOwn = false;
#else
constexpr bool DescriptorsAreTheProgramsOwn = true;
#endif

/// With and without TLS.
class HttpLimits : public HttpTest, public testing::WithParamInterface<Kind> {
protected:
    HttpLimits() {
        server.router.AddStream("/stream", Right::None, [](Request&) -> Task<QxNHttp::Router::Stream> {
            co_return [](QxNHttp::WebSocket& ws) -> Task<void> {
                co_await ws.Send("welcome");
                QxNHttp::Event never(co_await boost::asio::this_coro::executor);
                co_await never.Wait();
            };
        });
        if (GetParam() == Kind::Tls) {
            UseCertificate(server.options);
        }
    }

    HttpClient Connect() { return HttpClient(server.port, GetParam()); }
    std::string Hello() { return Get("/api/v1/hello"); }
};

INSTANTIATE_TEST_SUITE_P(, HttpLimits, testing::Values(Kind::Plain, Kind::Tls),
                         [](const auto& kind) { return kind.param == Kind::Tls ? "Tls" : "Plain"; });

TEST_P(HttpLimits, EndConnectionsWhoseHeaderTakesTooLong) {
    server.options.headerTimeout = milliseconds(500);
    server.Serve();
    for (const bool isFirst : {true, false}) {
        HttpClient client = Connect();
        if (!isFirst) {
            EXPECT_EQ(client.Ask(Hello()).status, 200);
        }
        client.Send("GET /api/v1/hello HTTP/1.1\r\nHost: localhost\r\nX: ");
        int sent = 0;
        while (!client.HasInput(20) && sent < 500) {
            client.Send("x");
            ++sent;
        }
        EXPECT_LT(sent, 500) << "bytes one by one keep no connection";
        EXPECT_TRUE(client.IsClosed());
    }
    EXPECT_TRUE(IsDeserted());
}

TEST_P(HttpLimits, EndConnectionsThatSayNothing) {
    server.options.headerTimeout = milliseconds(300);
    server.Serve();
    HttpClient client = Connect();
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(IsDeserted());
}

TEST_P(HttpLimits, EndConnectionsThatAreKeptForNothing) {
    server.options.idleTimeout = milliseconds(300);
    server.Serve();
    HttpClient client = Connect();
    EXPECT_EQ(client.Ask(Hello()).status, 200);
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(IsDeserted());
}

TEST_P(HttpLimits, LetConnectionsRestBetweenRequests) {
    server.options.headerTimeout = milliseconds(200);
    server.Serve();
    HttpClient client = Connect();
    EXPECT_EQ(client.Ask(Hello()).status, 200);
    std::this_thread::sleep_for(milliseconds(800));
    EXPECT_EQ(client.Ask(Hello()).status, 200) << "the time of the header begins with the header";
}

TEST_P(HttpLimits, EndConnectionsThatDoNotReadTheirAnswer) {
    server.options.idleTimeout = milliseconds(300);
    server.options.headerTimeout = milliseconds(100000);
    server.Serve();
    HttpClient client = Connect();
    client.Send(Get("/api/v1/large"));
    EXPECT_TRUE(client.HasInput(20000));
    EXPECT_TRUE(IsDeserted());
    EXPECT_FALSE(client.Read().isComplete);
}

TEST_P(HttpLimits, GiveAnswersTimeThatAreReadSlowly) {
    server.options.idleTimeout = milliseconds(2000);
    server.router.Add(Verb::get, "/produced", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [](QxNHttp::BodyWriter& body) -> Task<void> {
            for (int piece = 0; piece < 6; ++piece) {
                co_await body.Write(std::string(2 << 20, 'x'));
            }
        };
        co_return reply;
    });
    server.Serve();
    HttpClient client = Connect();
    client.Send(Get("/api/v1/produced"));
    std::this_thread::sleep_for(milliseconds(1000));
    EXPECT_EQ(client.Read().body.size(), 6U * (2 << 20));
}

TEST_P(HttpLimits, RefuseMoreClientsThanTheirNumber) {
    server.options.clients = 2;
    server.Serve();
    std::optional<HttpClient> first = Connect();
    HttpClient second = Connect();
    EXPECT_EQ(first->Ask(Hello()).status, 200);
    EXPECT_EQ(second.Ask(Hello()).status, 200);
    if (GetParam() == Kind::Plain) {
        HttpClient third = Connect();
        const Answer answer = third.Ask(Hello());
        EXPECT_EQ(answer.status, 503);
        EXPECT_EQ(answer.Header("retry-after"), "1");
        EXPECT_EQ(answer.Header("content-type"), "application/problem+json");
        EXPECT_THAT(answer.body, HasSubstr("too many clients"));
        EXPECT_TRUE(third.IsClosed());
    } else {
        EXPECT_THROW(Connect(), std::runtime_error);
    }
    EXPECT_EQ(server.Clients(), 2U);
    EXPECT_EQ(second.Ask(Hello()).status, 200);

    first.reset();
    EXPECT_TRUE(Sandbox::Eventually([&] { return server.Clients() == 1; }));
    EXPECT_EQ(Connect().Ask(Hello()).status, 200);
}

TEST_P(HttpLimits, SurviveThatThereAreNoDescriptors) {
    if (!DescriptorsAreTheProgramsOwn) {
        GTEST_SKIP() << "cannot run here: the sanitizer takes descriptors for its checks";
    }
    server.Serve();
    QxNSupport::UniqueFd waiting(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    setrlimit(RLIMIT_NOFILE, &none);
    const int connected = connect(waiting.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    std::this_thread::sleep_for(milliseconds(300));
    setrlimit(RLIMIT_NOFILE, &before);

    EXPECT_EQ(connected, 0);
    if (GetParam() == Kind::Plain) {
        EXPECT_EQ(HttpClient(std::move(waiting)).Ask(Hello()).status, 200) << "it had to wait only";
    }
    EXPECT_EQ(Connect().Ask(Hello()).status, 200);
}

TEST_P(HttpLimits, LeaveNoDescriptorsOpen) {
    server.options.headerTimeout = milliseconds(500);
    server.Serve();
    Connect().Ask(Hello());
    const auto visit = [this](int kind) {
        HttpClient client = Connect();
        if (kind == 0) {
            client.Send("GET / HT");
        } else if (kind == 1) {
            client.Ask(Hello());
        } else if (kind == 2) {
            client.Send(WithBody("PUT /api/v1/files/name", std::string(100000, 'x')).substr(0, 50000));
        } else if (kind == 3) {
            client.Ask(Upgrade("/api/v1/stream"));
        } else if (kind == 4) {
            client.Send(Get("/api/v1/large"));
            client.HasInput(1000);
        }
        if (kind % 2 == 0) {
            client.Vanish();
        }
    };
    for (int kind = 0; kind < 6; ++kind) {
        visit(kind);
    }
    EXPECT_TRUE(IsDeserted());
    const size_t before = Sandbox::OpenDescriptors().size();
    for (int at = 0; at < 120; ++at) {
        visit(at % 6);
    }
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(Sandbox::Eventually([&] { return Sandbox::OpenDescriptors().size() == before; }));
}

TEST_P(HttpLimits, DoNotKeepTheServerFromStopping) {
    const size_t before = Sandbox::OpenDescriptors().size();
    {
        server.Serve();
        HttpClient silent = Connect();
        HttpClient idle = Connect();
        EXPECT_EQ(idle.Ask(Hello()).status, 200);
        HttpClient half = Connect();
        half.Send("GET / HT");
        HttpClient upload = Connect();
        upload.Send(WithBody("PUT /api/v1/files/name", std::string(LongestFile, 'x')).substr(0, 500000));
        HttpClient text = Connect();
        text.Send(WithBody("POST /api/v1/text", "text").substr(0, 70));
        HttpClient socket = Connect();
        EXPECT_EQ(socket.Ask(Upgrade("/api/v1/stream")).status, 101);
        HttpClient deaf = Connect();
        deaf.Send(Get("/api/v1/large"));
        EXPECT_TRUE(deaf.HasInput(20000));
        HttpClient leaving = Connect();
        EXPECT_EQ(leaving.Ask(Get("/api/v1/hello", "Connection: close\r\n")).status, 200);
        HttpClient refused(server.port);
        EXPECT_TRUE(Sandbox::Eventually([] { return FilesIn(Uploads).size() == 1; }));

        const auto begin = steady_clock::now();
        server.Stop();
        EXPECT_LT(steady_clock::now() - begin, seconds(5));

        EXPECT_THAT(FilesIn(Uploads), IsEmpty());
        EXPECT_TRUE(idle.IsClosed());
        EXPECT_TRUE(half.IsClosed());
        EXPECT_TRUE(upload.IsClosed());
        EXPECT_FALSE(deaf.Read().isComplete);
        EXPECT_THROW(Connect(), std::runtime_error) << "nobody listens any more";
    }
    EXPECT_EQ(Sandbox::OpenDescriptors().size(), before + 3) << "the loop's own";
}

}  // namespace
