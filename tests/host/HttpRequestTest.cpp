#include "HttpTest.h"
#include "QxNJson.h"
#include "http/Background.h"

#include <atomic>
#include <limits>

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* FirstLines[] = {
    "nonsense\r\n\r\n",
    "GET /api/v1/hello\r\nHost: localhost\r\n\r\n",
    "GET  /api/v1/hello HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "GET /api/v1/hello  HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "GET /api/v1/a b HTTP/1.1\r\nHost: localhost\r\n\r\n",
    " GET /api/v1/hello HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "G(T /api/v1/hello HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "GET /api/v1/hello HTTP/2.0\r\nHost: localhost\r\n\r\n",
    "GET /api/v1/hello HTTP/1.1 more\r\nHost: localhost\r\n\r\n",
    "GET /api/v1/hello\x01 HTTP/1.1\r\nHost: localhost\r\n\r\n",
};

constexpr const char* Fields[] = {
    "no colon\r\n",
    ": no name\r\n",
    "Blank : before the colon\r\n",
    "Control: \x01\r\n",
    "Content-Length: many\r\n",
    "Content-Length: -1\r\n",
    "Content-Length: +1\r\n",
    "Content-Length: 1, 2\r\n",
    "Content-Length: 99999999999999999999\r\n",
    "Content-Length: 1\r\nContent-Length: 2\r\n",
};

/// What leaves open where the body ends, so that what one takes for a body is a request for another.
constexpr const char* Smuggling[] = {
    "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
    "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n",
    "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
    "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n",
    "Transfer-Encoding: identity\r\n",
    "Transfer-Encoding: identity\r\nContent-Length: 5\r\n",
    "Transfer-Encoding: xchunked\r\n",
    "Transfer-Encoding: chunked, identity\r\n",
    "Transfer-Encoding: gzip, chunked\r\n",
    "Transfer-Encoding: \"chunked\"\r\n",
};

class HttpRequests : public HttpTest {
protected:
    HttpRequests() { server.router.AddStream("/stream", Right::None, OpenStream); }

    static Task<QxNHttp::Router::Stream> OpenStream(Request&) {
        co_return [](QxNHttp::WebSocket&) -> Task<void> { co_return; };
    }

    static std::string Hello() { return Get("/api/v1/hello"); }

    QxNJson::json ProblemOf(const Answer& answer) {
        EXPECT_EQ(answer.Header("content-type"), "application/problem+json");
        return QxNJson::json::parse(answer.body);
    }
};

TEST_F(HttpRequests, AreAnswered) {
    server.Serve();
    const Answer answer = Ask(Hello());
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "hello");
    EXPECT_EQ(answer.Header("content-type"), "text/plain");
    EXPECT_EQ(answer.Header("cache-control"), "no-store");
}

TEST_F(HttpRequests, AreAnsweredWithProtectingHeadersWhateverTheAnswer) {
    server.options.clients = 1;
    server.Serve();
    const std::vector<std::string> requests = {Hello(),
                                               Get("/"),
                                               Get("/api/v1/nothing"),
                                               Get("/api/v1/client"),
                                               "nonsense\r\n\r\n",
                                               Get("/", "Origin: http://evil.example\r\n"),
                                               Get("/api/v1/hello", "X: " + std::string(9000, 'x') + "\r\n"),
                                               Upgrade("/api/v1/stream"),
                                               "second client"};
    for (const std::string& request : requests) {
        std::optional<HttpClient> first;
        if (request == "second client") {
            first.emplace(server.port);
            first->Ask(Hello());
        }
        const Answer answer = Ask(first ? Hello() : request);
        EXPECT_THAT(answer.Header("content-security-policy"),
                    HasSubstr("default-src 'none'; script-src 'self'"))
            << request;
        EXPECT_EQ(answer.Header("x-content-type-options"), "nosniff") << request;
        EXPECT_EQ(answer.Header("referrer-policy"), "no-referrer") << request;
        EXPECT_EQ(answer.Header("server"), "qxcontainerd") << request;
        EXPECT_TRUE(first || IsDeserted());
    }
}

TEST_F(HttpRequests, ForTheHeadGetNoBody) {
    server.router.Add(Verb::get, "/produced", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [](QxNHttp::BodyWriter& body) -> Task<void> { co_await body.Write("piece"); };
        co_return reply;
    });
    server.Serve();
    HttpClient client(server.port);
    for (const char* target : {"/api/v1/hello", "/api/v1/nothing", "/api/v1/produced"}) {
        EXPECT_EQ(client.Ask(std::string("HEAD ") + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n").status,
                  target == std::string("/api/v1/nothing") ? 404 : 200);
        const Answer next = client.Ask(Hello());
        EXPECT_EQ(next.status, 200) << target;
        EXPECT_EQ(next.body, "hello") << target;
    }
    EXPECT_EQ(Ask("HEAD /api/v1/hello HTTP/1.1\r\nHost: localhost\r\n\r\n").Header("content-length"), "5");
}

TEST_F(HttpRequests, ToUnknownAddressesAreNotFound) {
    server.Serve();
    for (const char* target : {"/api", "/api/v1", "/api/v2/hello", "/api/v1/nothing", "/api/v1/hello/more",
                               "/api/v1/names", "/page", "/"}) {
        const Answer answer = Ask(Get(target));
        EXPECT_EQ(answer.status, 404) << target;
        EXPECT_EQ(ProblemOf(answer)["status"], 404) << target;
    }
}

TEST_F(HttpRequests, OfOtherMethodsAreToldWhichThereAre) {
    server.Serve();
    const Answer answer = Ask("DELETE /api/v1/client HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(answer.status, 405);
    EXPECT_EQ(answer.Header("allow"), "GET, POST");
    EXPECT_EQ(Ask("BREW /api/v1/hello HTTP/1.1\r\nHost: localhost\r\n\r\n").Header("allow"), "GET");
    EXPECT_EQ(Ask("HEAD /api/v1/text HTTP/1.1\r\nHost: localhost\r\n\r\n").status, 405);

    const Answer page = Ask("POST /index.html HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(page.status, 405);
    EXPECT_EQ(page.Header("allow"), "GET, HEAD");
}

TEST_F(HttpRequests, ToAWebSocketMustUpgrade) {
    server.Serve();
    const Answer answer = Ask(Get("/api/v1/stream"));
    EXPECT_EQ(answer.status, 426);
    EXPECT_EQ(answer.Header("upgrade"), "websocket");

    const Answer wrong = Ask(Upgrade("/api/v1/hello"));
    EXPECT_EQ(wrong.status, 405);
    EXPECT_EQ(wrong.Header("allow"), "GET");
    EXPECT_THAT(wrong.body, HasSubstr("no WebSocket"));
}

TEST_F(HttpRequests, ThatFailAreToldWhatIsWrong) {
    server.router.Add(Verb::get, "/failing", Right::None, [](Request& request) -> Task<Reply> {
        if (request.Flag("wanted", false)) {
            throw QxNHttp::Problem(QxNHttp::Status::conflict, "Not \"now\".");
        }
        throw std::logic_error("broken");
    });
    server.Serve();

    const Answer wanted = Ask(Get("/api/v1/failing?wanted=true"));
    EXPECT_EQ(wanted.status, 409);
    const auto problem = ProblemOf(wanted);
    EXPECT_EQ(problem["type"], "about:blank");
    EXPECT_EQ(problem["title"], "Conflict");
    EXPECT_EQ(problem["status"], 409);
    EXPECT_EQ(problem["detail"], "Not \"now\".");

    const Answer unexpected = Ask(Get("/api/v1/failing"));
    EXPECT_EQ(unexpected.status, 500);
    EXPECT_EQ(ProblemOf(unexpected)["detail"], "The daemon failed: broken");
    EXPECT_EQ(Ask(Hello()).status, 200);
}

TEST_F(HttpRequests, ThatAreMalformedAreRefusedAndEndTheConnection) {
    server.Serve();
    std::vector<std::string> requests(std::begin(FirstLines), std::end(FirstLines));
    for (const char* field : Fields) {
        requests.push_back(Get("/api/v1/hello", field));
    }
    requests.push_back(Get("/api/v1/hello", std::string("Null: a\0b\r\n", 11)));
    requests.push_back(std::string("GET /api/v1/hello\0 HTTP/1.1\r\nHost: localhost\r\n\r\n", 49));
    for (const std::string& request : requests) {
        HttpClient client(server.port);
        const Answer answer = client.Ask(request + Hello());
        EXPECT_EQ(answer.status, 400) << request;
        EXPECT_EQ(answer.Header("connection"), "close") << request;
        EXPECT_TRUE(answer.status == 400 && ProblemOf(answer)["status"] == 400) << request;
        EXPECT_TRUE(client.IsClosed()) << request;
    }
}

TEST_F(HttpRequests, CannotBeHiddenInOthers) {
    server.Serve();
    for (const char* fields : Smuggling) {
        HttpClient client(server.port);
        const Answer answer = client.Ask("POST /api/v1/unread HTTP/1.1\r\nHost: localhost\r\n" +
                                         std::string(fields) + "\r\n" + Hello());
        EXPECT_EQ(answer.status, 400) << fields;
        EXPECT_TRUE(client.IsClosed()) << fields;
    }
}

TEST_F(HttpRequests, MayHaveTheSameLengthTwice) {
    server.Serve();
    EXPECT_EQ(Ask("POST /api/v1/text HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n"
                  "Content-Length: 3\r\n\r\nabc")
                  .body,
              "abc");
}

TEST_F(HttpRequests, WithALongHeaderAreRefused) {
    server.options.largestTarget = 1000;
    server.Serve();
    const std::string long1(1000, 'x');
    for (const std::string& request :
         {Get("/api/v1/hello", "X: " + long1 + "\r\n"), Get("/api/v1/names/" + long1),
          Get("/api/v1/hello", "X: " + std::string(1000000, 'x') + "\r\n")}) {
        HttpClient client(server.port);
        const Answer answer = client.Ask(request);
        EXPECT_EQ(answer.status, 431);
        EXPECT_THAT(answer.body, HasSubstr("1000 bytes"));
        EXPECT_EQ(answer.Header("connection"), "close");
    }
    EXPECT_EQ(Ask(Get("/api/v1/hello", "X: " + std::string(900, 'x') + "\r\n")).status, 200);
}

TEST_F(HttpRequests, WithALongHeaderInPiecesAreRefused) {
    server.options.largestTarget = 1000;
    server.Serve();
    const auto withLength = [](size_t length) {
        const size_t others = Get("/api/v1/hello", "X: \r\n").size();
        return Get("/api/v1/hello", "X: " + std::string(length - others, 'x') + "\r\n");
    };
    for (const size_t cut : {20U, 60U, 500U, 990U}) {
        for (const auto& [length, status] : {std::pair(1000U, 200), std::pair(1001U, 431)}) {
            HttpClient client(server.port);
            client.Send(withLength(length).substr(0, cut));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            client.Send(withLength(length).substr(cut));
            EXPECT_EQ(client.Read().status, status) << length << " bytes, cut at " << cut;
        }
    }
}

TEST_F(HttpRequests, AreDecodedSegmentBySegment) {
    server.Serve();
    EXPECT_EQ(Ask(Get("/api/v1/names/a%20b%2Fc%c3%A4+%2e%2e")).body, "a b/c\xc3\xa4+..");
    for (const char* target : {"/api/v1/names/a#frag", "/api/v1/names/a?x=1#y=2", "/api/v1/names/a#x?y=1"}) {
        EXPECT_EQ(Ask(Get(target)).status, 400) << target;
    }
    EXPECT_EQ(Ask(Get("/api/v1/names/a?x=1%262&y=a+b&z&x%3d=%25")).body, "a&x=1&2&x==%&y=a b&z=");
    EXPECT_EQ(Ask(Get("/%61pi/v1/hello")).body, "hello");
    EXPECT_EQ(Ask(Get("/api/v1/hello/")).body, "hello");
}

TEST_F(HttpRequests, ToAddressesThatAreNoPathOfNamesAreRefused) {
    server.Serve();
    for (const char* target :
         {"/api/v1/names/..", "/api/v1/./hello", "/api/v1/names/%2e%2e", "/api/v1/names/%2E", "/..", "//",
          "//api/v1/hello", "/api//v1/hello", "/api/v1/names/%00", "/api/v1/names/a%00b", "/api/v1/names/%",
          "/api/v1/names/%4", "/api/v1/names/%zz", "/api/v1/names/%+1", "/api/v1/names/a?x=%", "*",
          "api/v1/hello", "http://localhost/api/v1/hello", "/api/v1/names/a?%00=1"}) {
        const Answer answer = Ask(Get(target));
        EXPECT_EQ(answer.status, 400) << target;
        EXPECT_THAT(answer.body, HasSubstr("malformed")) << target;
    }
}

TEST_F(HttpRequests, MustCallTheMachineByItsName) {
    server.options.hosts = {"Panel.local", "10.0.0.7"};
    server.Serve();
    const auto statusFor = [this](const std::string& host) {
        return Ask("GET /api/v1/hello HTTP/1.1\r\nHost: " + host + "\r\n\r\n").status;
    };
    const std::string port = ":" + std::to_string(server.port);
    for (const std::string host :
         {"localhost", "LocalHost", "127.0.0.1", "[::1]", "panel.local", "PANEL.LOCAL", "10.0.0.7"}) {
        EXPECT_EQ(statusFor(host), 200) << host;
        EXPECT_EQ(statusFor(host + port), 200) << host;
    }
    for (const std::string host :
         {"evil.example", "localhost.evil.example", "evil.example:80", "localhost@evil.example",
          "user@localhost", "127.0.0.2", "127.0.0.1.evil.example", "[::2]", "[::1", "[::1]x",
          "localhost:", "localhost:x", "localhost:123456", "localhost/", "local", ""}) {
        EXPECT_EQ(statusFor(host), 421) << host;
    }
    EXPECT_THAT(Ask("GET /api/v1/hello HTTP/1.1\r\nHost: evil.example:80\r\n\r\n").body,
                HasSubstr("not called 'evil.example' here"));
}

TEST_F(HttpRequests, MustHaveOneHostAndAtMostOneOrigin) {
    server.Serve();
    EXPECT_EQ(Ask("GET /api/v1/hello HTTP/1.1\r\n\r\n").status, 400);
    EXPECT_EQ(Ask("GET /api/v1/hello HTTP/1.0\r\n\r\n").status, 400);
    EXPECT_EQ(Ask(Get("/api/v1/hello", "Host: localhost\r\n")).status, 400);
    EXPECT_EQ(Ask(Get("/api/v1/hello", "Host: evil.example\r\n")).status, 400);
    const std::string origin = "Origin: http://localhost\r\n";
    EXPECT_EQ(Ask(Get("/api/v1/hello", origin + origin)).status, 400);
}

TEST_F(HttpRequests, OfPagesOfOtherSitesAreForbidden) {
    server.Serve();
    const auto statusFor = [this](const std::string& origin) {
        return Ask("GET /api/v1/hello HTTP/1.1\r\nHost: localhost:8089\r\nOrigin: " + origin + "\r\n\r\n")
            .status;
    };
    EXPECT_EQ(statusFor("http://localhost:8089"), 200);
    EXPECT_EQ(statusFor("http://LOCALHOST:8089"), 200);
    for (const char* origin :
         {"https://localhost:8089", "http://localhost", "http://localhost:80890", "http://localhost:8088",
          "http://evil.example", "http://127.0.0.1:8089", "http://evil.example:8089", "null",
          "http://localhost:8089.evil.example", "localhost:8089", "", "HTTP", "http://localhost:8089/"}) {
        EXPECT_EQ(statusFor(origin), 403) << origin;
    }
}

TEST_F(HttpRequests, OfPagesOfOtherSitesAreForbiddenForTheWholeServer) {
    Sandbox::WriteFile("/tmp/page/index.html", "page");
    server.options.page = "/tmp/page";
    server.Serve();
    const std::string evil = "Origin: http://evil.example\r\n";
    EXPECT_EQ(Ask(Get("/", evil)).status, 403);
    EXPECT_EQ(Ask(Upgrade("/api/v1/stream", evil)).status, 403);
    EXPECT_EQ(Ask("POST /api/v1/unread HTTP/1.1\r\nHost: localhost\r\n" + evil + "\r\n").status, 403);
    EXPECT_EQ(Ask(Upgrade("/api/v1/stream", "Origin: http://localhost\r\n")).status, 101);
}

TEST_F(HttpRequests, FollowOneAnotherOverOneConnection) {
    server.Serve();
    HttpClient client(server.port);
    for (int at = 0; at < 20; ++at) {
        EXPECT_EQ(client.Ask(Get("/api/v1/names/" + std::to_string(at))).body, std::to_string(at));
        const std::string body(static_cast<size_t>(at), 'b');
        EXPECT_EQ(client.Ask(WithBody("POST /api/v1/text", body)).body, body);
        EXPECT_EQ(client.Ask(Get("/api/v1/nothing")).status, 404);
    }
    EXPECT_EQ(server.Clients(), 1U);
}

TEST_F(HttpRequests, MayBeSentBeforeTheAnswersAreRead) {
    server.Serve();
    HttpClient client(server.port);
    std::string all;
    for (int at = 0; at < 500; ++at) {
        all += Get("/api/v1/names/" + std::to_string(at));
        all += WithBody("POST /api/v1/text", "body " + std::to_string(at));
    }
    ASSERT_TRUE(client.Send(all));
    for (int at = 0; at < 500; ++at) {
        ASSERT_EQ(client.Read().body, std::to_string(at));
        ASSERT_EQ(client.Read().body, "body " + std::to_string(at));
    }
}

TEST_F(HttpRequests, MayArriveInPieces) {
    server.Serve();
    HttpClient client(server.port);
    for (const char c : WithBody("POST /api/v1/text", "letter by letter")) {
        client.Send(std::string(1, c));
    }
    EXPECT_EQ(client.Read().body, "letter by letter");
}

TEST_F(HttpRequests, EndTheConnectionWhenTheyAskForThat) {
    server.Serve();
    for (const std::string& request :
         {Get("/api/v1/hello", "Connection: close\r\n"), Get("/api/v1/nothing", "Connection: close\r\n"),
          std::string("GET /api/v1/hello HTTP/1.0\r\nHost: localhost\r\n\r\n")}) {
        HttpClient client(server.port);
        const Answer answer = client.Ask(request + Hello());
        EXPECT_NE(answer.status, 0) << request;
        EXPECT_EQ(answer.Header("connection"), "close") << request;
        EXPECT_TRUE(client.IsClosed()) << request;
    }
}

TEST_F(HttpRequests, OfClientsThatSayTheyAreDoneAreAnswered) {
    server.Serve();
    HttpClient client(server.port);
    client.Send(Hello());
    client.EndSending();
    EXPECT_EQ(client.Read().body, "hello");
    EXPECT_TRUE(client.IsClosed());
}

TEST_F(HttpRequests, NeedATokenWhereTheRouteSaysSo) {
    const std::string look = server.tokens.Make("looker", Right::Look);
    const std::string act = server.tokens.Make("actor", Right::Act);
    server.Serve();
    const auto ask = [this](const std::string& method, const std::string& fields) {
        return Ask(method + " /api/v1/client HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n");
    };
    const auto bearer = [](const std::string& token) { return "Authorization: Bearer " + token + "\r\n"; };

    const Answer without = ask("GET", "");
    EXPECT_EQ(without.status, 401);
    EXPECT_EQ(without.Header("www-authenticate"), "Bearer");
    EXPECT_EQ(ask("GET", bearer(look)).body, "looker");
    EXPECT_EQ(ask("GET", bearer(act)).body, "actor");
    EXPECT_EQ(ask("POST", bearer(act)).body, "actor");
    const Answer forbidden = ask("POST", bearer(look));
    EXPECT_EQ(forbidden.status, 403);
    EXPECT_THAT(forbidden.body, HasSubstr("'looker' may look but not act"));

    for (const std::string& wrong :
         {bearer(""), bearer(look.substr(1)), bearer(look + "0"), bearer("looker"),
          bearer(server.tokens.List().at(0).hash), "Authorization: Basic " + look + "\r\n",
          "Authorization: " + look + "\r\n", "X: Bearer " + look + "\r\n"}) {
        EXPECT_EQ(ask("GET", wrong).status, 401) << wrong;
        EXPECT_EQ(ask("POST", wrong).status, 401) << wrong;
    }
    ASSERT_TRUE(server.tokens.Remove("looker"));
    EXPECT_EQ(ask("GET", bearer(look)).status, 401);
}

TEST_F(HttpRequests, ThatActAreWrittenDown) {
    const std::string look = server.tokens.Make("looker", Right::Look);
    const std::string act = server.tokens.Make("actor", Right::Act);
    server.Serve();
    testing::internal::CaptureStderr();
    for (const std::string& token : {look, act}) {
        for (const char* method : {"GET", "POST", "DELETE"}) {
            Ask(method +
                (" /api/v1/client?x=1 HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + token) +
                "\r\n\r\n");
        }
    }
    server.Stop();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qxcontainerd: actor: POST /api/v1/client?x=1: 200\n"
              "qxcontainerd: actor: DELETE /api/v1/client?x=1: 405\n");
}

TEST_F(HttpRequests, MayCarryTheTokenInACookie) {
    const std::string look = server.tokens.Make("looker", Right::Look);
    server.Serve();
    const auto ask = [this](const std::string& cookies) {
        return Ask(Get("/api/v1/client", "Cookie: " + cookies + "\r\n")).status;
    };
    EXPECT_EQ(ask("qx-session=" + look), 200);
    EXPECT_EQ(ask("a=b; qx-session=" + look + "; c=d"), 200);
    EXPECT_EQ(ask("a=b;qx-session=" + look), 200);
    for (const std::string& wrong :
         {"x-qx-session=" + look, "qx-sessions=" + look, "qx-session" + look, "qx-session= " + look,
          "QX-SESSION=" + look, "a=qx-session=" + look, std::string("qx-session="), std::string("qx-session"),
          std::string(";;; ;")}) {
        EXPECT_EQ(ask(wrong), 401) << wrong;
    }
    EXPECT_EQ(Ask(Get("/api/v1/client", "Authorization: Bearer wrong\r\nCookie: qx-session=" + look + "\r\n"))
                  .status,
              401)
        << "the header goes before the cookie";
}

TEST_F(HttpRequests, OfProducedAnswersGetThemPieceByPiece) {
    server.router.Add(Verb::get, "/produced", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [](QxNHttp::BodyWriter& body) -> Task<void> {
            co_await body.Write("one ");
            co_await body.Write("");
            co_await body.Write(std::string(3000000, 'x'));
        };
        co_return reply;
    });
    server.Serve();
    HttpClient client(server.port);
    const Answer answer = client.Ask(Get("/api/v1/produced"));
    EXPECT_TRUE(answer.isComplete);
    EXPECT_TRUE(answer.body == "one " + std::string(3000000, 'x'));
    EXPECT_EQ(client.Ask(Hello()).body, "hello");
}

TEST_F(HttpRequests, OfProducedAnswersSeeThatOneBrokeOff) {
    server.router.Add(Verb::get, "/produced", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [](QxNHttp::BodyWriter& body) -> Task<void> {
            co_await body.Write("one");
            throw std::runtime_error("no more");
        };
        co_return reply;
    });
    server.Serve();
    HttpClient client(server.port);
    const Answer answer = client.Ask(Get("/api/v1/produced"));
    EXPECT_EQ(answer.body, "one");
    EXPECT_FALSE(answer.isComplete);
    EXPECT_TRUE(client.IsClosed());
}

/// Chunks are for those who know HTTP/1.1.
TEST_F(HttpRequests, OfOldClientsGetProducedAnswersUntilTheConnectionEnds) {
    server.router.Add(Verb::get, "/produced", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [](QxNHttp::BodyWriter& body) -> Task<void> {
            co_await body.Write("one ");
            co_await body.Write("two");
        };
        co_return reply;
    });
    server.Serve();
    HttpClient client(server.port);
    const Answer answer = client.Ask(
        "GET /api/v1/produced HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\n\r\n" + Hello());
    EXPECT_EQ(answer.Header("transfer-encoding"), "(none)");
    EXPECT_EQ(answer.Header("connection"), "close");
    EXPECT_EQ(answer.body, "one two");
}

/// The end of a body has as much time as its pieces, however long it took to come.
TEST_F(HttpRequests, MayTakeLongToProduceTheEnd) {
    constexpr const char* Path = "/run/api.sock";
    std::atomic<int> written{0};
    std::atomic<int> limit{std::numeric_limits<int>::max()};
    server.options.socket = Path;
    server.options.idleTimeout = std::chrono::milliseconds(1500);
    server.router.Add(Verb::get, "/produced", Right::None, [&](Request&) -> Task<Reply> {
        Reply reply;
        reply.producer = [&](QxNHttp::BodyWriter& body) -> Task<void> {
            for (written = 0; written < limit; ++written) {
                co_await body.Write(std::string(10000, 'x'));
            }
            boost::asio::steady_timer pause(co_await boost::asio::this_coro::executor,
                                            std::chrono::milliseconds(2000));
            co_await pause.async_wait(boost::asio::use_awaitable);
        };
        co_return reply;
    });
    server.Serve();
    {
        // Until there is no room for more.
        HttpClient deaf{std::string(Path)};
        deaf.Send(Get("/api/v1/produced"));
        EXPECT_TRUE(deaf.HasInput(20000));
        EXPECT_TRUE(IsDeserted());
    }
    limit = written.load();
    ASSERT_GT(limit, 0);
    HttpClient client{std::string(Path)};
    client.Send(Get("/api/v1/produced"));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    const Answer answer = client.Read();
    EXPECT_EQ(answer.body.size(), 10000U * static_cast<size_t>(limit));
    EXPECT_TRUE(answer.isComplete);
}

}  // namespace
