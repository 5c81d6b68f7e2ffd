#include "Certificate.h"
#include "HttpTest.h"
#include "http/Background.h"

#include <atomic>

using QxNHttp::Event;
using QxNHttp::WebSocket;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = HttpClient::Kind;
using CloseCode = WebSocketClient::CloseCode;

namespace {

constexpr const char* Address = "/api/v1/stream";
constexpr size_t LargestClientMessage = 4096;

class HttpWebSockets : public HttpTest {
protected:
    using Stream = QxNHttp::Router::Stream;

    /// @param stream  what the server does with each WebSocket
    void Serve(Stream stream) {
        server.router.AddStream("/stream", Right::None,
                                [stream](Request&) -> Task<Stream> { co_return stream; });
        server.Serve();
    }

    /// A stream that does nothing until it is ended from outside.
    Stream UntilCancelled() {
        return [this](WebSocket&) -> Task<void> {
            Event never(co_await boost::asio::this_coro::executor);
            try {
                co_await never.Wait();
            } catch (const boost::system::system_error&) {
                isCancelled = true;
            }
        };
    }

    /// A stream whose client would have to read for long.
    Stream SendMuch() {
        return [this](WebSocket& ws) -> Task<void> {
            try {
                co_await ws.Send(std::string(100 << 20, 'x'));
            } catch (const boost::system::system_error&) {
                hasFailed = true;
            }
        };
    }

    static Task<void> Pause(milliseconds time) {
        boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor, time);
        co_await timer.async_wait(boost::asio::use_awaitable);
    }

    std::atomic<bool> isCancelled{false};
    std::atomic<bool> hasFailed{false};
};

TEST_F(HttpWebSockets, AreOpenedByTheHandshake) {
    Serve(UntilCancelled());
    HttpClient client(server.port);
    const Answer answer = client.Ask(Upgrade(Address));
    EXPECT_EQ(answer.status, 101);
    // The digest of the key that was sent.
    EXPECT_EQ(answer.Header("sec-websocket-accept"), "BACScCJPNqyz+UBoqMH89VmURoA=");
}

TEST_F(HttpWebSockets, SendTextAndBinaryMessages) {
    Serve([](WebSocket& ws) -> Task<void> {
        co_await ws.Send("text \xc3\xa4");
        co_await ws.SendBinary(std::string_view("one ", 4), false);
        co_await ws.SendBinary(std::string_view("message", 7), true);
        co_await ws.Send("more text");
        co_await ws.Close("that is all");
    });
    WebSocketClient client(server.port, Address);
    EXPECT_EQ(client.Next(), "text \xc3\xa4");
    EXPECT_FALSE(client.IsBinary());
    EXPECT_EQ(client.Next(), "one message");
    EXPECT_TRUE(client.IsBinary());
    EXPECT_EQ(client.Next(), "more text");
    EXPECT_FALSE(client.IsBinary());
    EXPECT_EQ(client.Next(), "");
    EXPECT_EQ(client.Code(), CloseCode::normal);
    EXPECT_EQ(client.Reason(), "that is all");
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpWebSockets, SendLargeMessages) {
    const std::string large(20000000, 'l');
    Serve([&large](WebSocket& ws) -> Task<void> {
        co_await ws.Send(large);
        co_await ws.Close("");
    });
    WebSocketClient client(server.port, Address);
    EXPECT_TRUE(client.Next() == large);
    EXPECT_EQ(client.Next(), "");
    EXPECT_EQ(client.Code(), CloseCode::normal);
}

TEST_F(HttpWebSockets, CloseWithACode) {
    Serve([](WebSocket& ws) -> Task<void> { co_await ws.Close("why", CloseCode::try_again_later); });
    WebSocketClient client(server.port, Address);
    EXPECT_EQ(client.Next(), "");
    EXPECT_EQ(client.Code(), CloseCode::try_again_later);
    EXPECT_EQ(client.Reason(), "why");
}

/// A close frame has room for 123 bytes, which must be whole characters.
TEST_F(HttpWebSockets, CloseWithAsMuchOfALongReasonAsFits) {
    Serve([](WebSocket& ws) -> Task<void> {
        std::string reason = "x";
        for (int at = 0; at < 50; ++at) {
            reason += "\xe2\x82\xac";
        }
        co_await ws.Close(std::move(reason), CloseCode::internal_error);
    });
    WebSocketClient client(server.port, Address);
    EXPECT_EQ(client.Next(), "");
    EXPECT_EQ(client.Code(), CloseCode::internal_error);
    EXPECT_EQ(client.Reason().size(), 121U);
}

TEST_F(HttpWebSockets, EndWithTheirStream) {
    Serve([](WebSocket& ws) -> Task<void> {
        co_await ws.Send("bye");
        throw std::runtime_error("broken");
    });
    WebSocketClient client(server.port, Address);
    EXPECT_EQ(client.Next(), "bye");
    EXPECT_EQ(client.Next(), "");
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpWebSockets, EndAtOnceWhenDropped) {
    Serve([](WebSocket& ws) -> Task<void> {
        ws.Drop();
        co_await Pause(milliseconds(100000));
    });
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    EXPECT_TRUE(client.IsClosed()) << "not even a close frame";
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpWebSockets, EndTheirStreamWhenTheClientCloses) {
    Serve(UntilCancelled());
    WebSocketClient client(server.port, Address);
    client.Close();
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(isCancelled);
}

TEST_F(HttpWebSockets, EndTheirStreamWhenTheClientVanishes) {
    Serve(UntilCancelled());
    WebSocketClient client(server.port, Address);
    client.Vanish();
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(isCancelled);
}

TEST_F(HttpWebSockets, EndASendWhoseClientVanishes) {
    Serve(SendMuch());
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    std::this_thread::sleep_for(milliseconds(100));
    client.Vanish();
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(Ask(Get("/api/v1/hello")).status, 200);
}

TEST_F(HttpWebSockets, EndWhenTheClientAnswersNoPings) {
    server.options.pingTimeout = milliseconds(600);
    Serve(UntilCancelled());
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    EXPECT_EQ(client.ReadToEnd().substr(0, 1), "\x89") << "a ping";
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(isCancelled);
}

TEST_F(HttpWebSockets, EndASendThatNobodyReads) {
    server.options.pingTimeout = milliseconds(600);
    Serve(SendMuch());
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(hasFailed);
}

TEST_F(HttpWebSockets, GoOnWhileTheClientAnswersPings) {
    server.options.pingTimeout = milliseconds(1000);
    server.options.idleTimeout = server.options.headerTimeout = milliseconds(300);
    Serve([](WebSocket& ws) -> Task<void> {
        co_await Pause(milliseconds(3500));
        co_await ws.Send("late");
    });
    WebSocketClient client(server.port, Address);
    EXPECT_EQ(client.Next(), "late");
}

TEST_F(HttpWebSockets, DropWhatClientsSend) {
    Serve([](WebSocket& ws) -> Task<void> {
        co_await Pause(milliseconds(500));
        co_await ws.Send("still there");
    });
    WebSocketClient client(server.port, Address);
    for (int at = 0; at < 50; ++at) {
        client.Send(std::string(LargestClientMessage, 'x'));
    }
    EXPECT_EQ(client.Next(), "still there");
}

TEST_F(HttpWebSockets, EndWhenClientsSendTooMuch) {
    Serve(UntilCancelled());
    WebSocketClient client(server.port, Address);
    client.Send(std::string(LargestClientMessage + 1, 'x'));
    EXPECT_EQ(client.Next(), "");
    EXPECT_EQ(client.Code(), CloseCode::too_big);
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(isCancelled);
}

TEST_F(HttpWebSockets, EndWhenClientsSendNonsense) {
    Serve(UntilCancelled());
    HttpClient client(server.port);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    client.Send("GET / HTTP/1.1\r\n\r\n");
    client.ReadToEnd();
    EXPECT_TRUE(IsDeserted());
    EXPECT_TRUE(isCancelled);
}

TEST_F(HttpWebSockets, MayBeRefusedBeforeTheHandshake) {
    server.router.AddStream("/refusing", Right::None, [](Request&) -> Task<Stream> {
        throw QxNHttp::Problem(QxNHttp::Status::conflict, "Not now.");
        co_return Stream();
    });
    server.router.AddStream("/mine", Right::Look, [](Request&) -> Task<Stream> { co_return Stream(); });
    server.Serve();
    HttpClient client(server.port);
    const Answer answer = client.Ask(Upgrade("/api/v1/refusing"));
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.Header("content-type"), "application/problem+json");
    EXPECT_EQ(client.Ask(Upgrade("/api/v1/mine")).status, 401);
    EXPECT_EQ(client.Ask(Get("/api/v1/hello")).body, "hello") << "the connection is good for more";
}

TEST_F(HttpWebSockets, EndWithTheirToken) {
    const std::string token = server.tokens.Make("panel", Right::Look);
    server.router.AddStream("/mine", Right::Look, [](Request&) -> Task<Stream> {
        co_return [](WebSocket& ws) -> Task<void> {
            for (;;) {
                co_await ws.Send("secret");
                co_await Pause(milliseconds(20));
            }
        };
    });
    server.Serve();
    WebSocketClient client(server.port, "/api/v1/mine", token);
    EXPECT_EQ(client.Next(), "secret");

    server.tokens.Remove("panel");

    std::string last = "secret";
    for (int at = 0; at < 500 && !last.empty(); ++at) {
        last = client.Next();
    }
    EXPECT_EQ(last, "");
    EXPECT_EQ(client.Code(), CloseCode::policy_error);
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpWebSockets, NeedAWholeHandshake) {
    Serve(UntilCancelled());
    const std::string key = "Sec-WebSocket-Key: MDEyMzQ1Njc4OWFiY2RlZg==\r\n";
    for (const auto& [fields, status] :
         {std::pair<std::string, int>("Sec-WebSocket-Version: 13\r\n", 400),
          std::pair<std::string, int>("Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: x\r\n", 400),
          std::pair<std::string, int>("Sec-WebSocket-Version: 12\r\n" + key, 426),
          std::pair<std::string, int>(key, 426)}) {
        const Answer answer = Ask(Get(Address, "Connection: Upgrade\r\nUpgrade: websocket\r\n" + fields));
        EXPECT_EQ(answer.status, status) << fields;
        EXPECT_EQ(answer.Header("content-type"), "application/problem+json") << fields;
        EXPECT_EQ(answer.Header("sec-websocket-version"), status == 426 ? "13" : "(none)") << fields;
    }
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpWebSockets, GoThroughTls) {
    UseCertificate(server.options);
    server.options.idleTimeout = server.options.headerTimeout = milliseconds(1000);
    Serve([](WebSocket& ws) -> Task<void> {
        co_await Pause(milliseconds(3000));
        co_await ws.Send("hello");
        co_await ws.Close("");
    });
    HttpClient client(server.port, Kind::Tls);
    EXPECT_EQ(client.Ask(Upgrade(Address)).status, 101);
    EXPECT_EQ(client.ReadToEnd(), std::string("\x81\x05hello\x88\x02\x03\xe8")) << "in spite of the pause";
    EXPECT_TRUE(IsDeserted());
}

}  // namespace
