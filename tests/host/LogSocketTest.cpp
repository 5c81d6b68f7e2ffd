#include "LogStreamClient.h"
#include "TestServer.h"
#include "api/LogSocket.h"

#include <gmock/gmock.h>
#include <atomic>
#include <chrono>
#include <thread>

using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Task;
using QxNHttp::WebSocket;
using testing::HasSubstr;

namespace {

std::atomic<int> closes{0};
std::atomic<QxNSmartWebApi::QxCWebSocket*> closedSocket{nullptr};

void CountClose(const void* data, unsigned int length, QxNSmartWebApi::QxCWebSocket* ws) {
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0U);
    closedSocket = ws;
    ++closes;
}

/// A LogSocket with its client.
class LogSockets : public testing::Test {
protected:
    LogSockets() {
        Route("/log", socket);
        Route("/early", early);
        server.Serve();
        client = std::make_unique<WebSocketClient>(server.port, "/api/v1/log");
    }

    void Route(const std::string& path, const std::shared_ptr<LogSocket>& served) {
        server.router.AddStream(path, Right::None, [served](Request&) -> Task<QxNHttp::Router::Stream> {
            co_return [served](WebSocket& ws) -> Task<void> { co_await served->Serve(ws); };
        });
    }

    int Send(const std::string& text, int timeoutMs = -1, bool fragment = false) {
        return socket->sendBinary(errors.list, reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<unsigned int>(text.size()), timeoutMs, fragment);
    }

    bool IsClosed() const {
        return Sandbox::Eventually([] { return closes > 0; });
    }

    TestServer server;
    LogStreamErrors errors;
    std::shared_ptr<LogSocket> socket = std::make_shared<LogSocket>(server.io.get_executor());
    std::shared_ptr<LogSocket> early = std::make_shared<LogSocket>(server.io.get_executor());
    std::unique_ptr<WebSocketClient> client;
};

const std::string Large(50000000, 'x');

TEST_F(LogSockets, SendABinaryMessageFromAnyThread) {
    std::thread sender([&] { EXPECT_EQ(Send("hello"), 0); });
    EXPECT_EQ(client->Next(), "hello");
    EXPECT_TRUE(client->IsBinary());
    sender.join();
    EXPECT_EQ(errors.list.getErrorCount(), 0U);
}

TEST_F(LogSockets, SendOneMessageInParts) {
    EXPECT_EQ(Send("one ", -1, true), 0);
    EXPECT_EQ(Send("message", -1, false), 0);
    EXPECT_EQ(client->Next(), "one message");
}

TEST_F(LogSockets, SendMessagesLargerThanEveryBuffer) {
    std::thread sender([&] { EXPECT_EQ(Send(std::string(3000000, 'z')), 0); });
    EXPECT_TRUE(client->Next() == std::string(3000000, 'z'));
    sender.join();
}

TEST_F(LogSockets, BlockUntilTheMessageIsWritten) {
    std::atomic<bool> isSent{false};
    std::thread sender([&] {
        EXPECT_EQ(Send(Large), 0);
        isSent = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(isSent);
    EXPECT_EQ(client->Next().size(), Large.size());
    sender.join();
}

TEST_F(LogSockets, AreWaitedForByMessagesThatComeEarlier) {
    std::thread sender([&] {
        EXPECT_EQ(
            early->sendBinary(errors.list, reinterpret_cast<const unsigned char*>("early"), 5, -1, false), 0);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    WebSocketClient late(server.port, "/api/v1/early");
    EXPECT_EQ(late.Next(), "early");
    sender.join();
}

TEST_F(LogSockets, FailToSendWhenTheTimeIsOverAndAreClosedThen) {
    socket->SetCloseHandler(CountClose);

    EXPECT_NE(Send(Large, 200), 0);

    EXPECT_EQ(errors.list.getErrorCount(), 1U);
    EXPECT_THAT(errors.list.getMessages().at(0).text,
                HasSubstr("The message was not sent: the client takes too long"));
    EXPECT_TRUE(IsClosed());
    EXPECT_NE(Send("more"), 0);
}

TEST_F(LogSockets, FailToSendWhenNobodyWritesInTime) {
    const auto nobody = std::make_shared<LogSocket>(server.io.get_executor());
    EXPECT_NE(nobody->sendBinary(errors.list, reinterpret_cast<const unsigned char*>("a"), 1, 50, false), 0);
    EXPECT_EQ(errors.list.getErrorCount(), 1U);
}

TEST_F(LogSockets, FailToSendWhenTheClientVanishesMeanwhile) {
    socket->SetCloseHandler(CountClose);
    std::thread vanishing([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        client->Vanish();
    });

    EXPECT_NE(Send(Large), 0);

    vanishing.join();
    EXPECT_TRUE(IsClosed());
    EXPECT_THAT(errors.list.getMessages().at(0).text, HasSubstr("the client has gone"));
}

TEST_F(LogSockets, FailToSendWhenTheServerEndsMeanwhile) {
    std::thread ending([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        server.Stop();
    });
    EXPECT_NE(Send(Large), 0);
    ending.join();
}

TEST_F(LogSockets, TellTheirEndExactlyOnce) {
    socket->SetCloseHandler(CountClose);
    client->Close();
    ASSERT_TRUE(IsClosed());

    socket->End(LogSocket::CloseCode::normal, "again");
    EXPECT_NE(Send("late"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    EXPECT_EQ(closes, 1);
    EXPECT_EQ(closedSocket, socket.get());
}

TEST_F(LogSockets, TellTheirEndInSilence) {
    socket->SetCloseHandler(CountClose);
    client->Vanish();
    EXPECT_TRUE(IsClosed());
}

TEST_F(LogSockets, TellTheirEndAlsoToWhoAsksLater) {
    client->Vanish();
    ASSERT_TRUE(Sandbox::Eventually([&] { return Send("probe") != 0; }));
    socket->SetCloseHandler(CountClose);
    EXPECT_EQ(closes, 1);
    server.Stop();
    EXPECT_EQ(closes, 1);
}

TEST_F(LogSockets, CloseWithCodeAndReason) {
    socket->SetCloseHandler(CountClose);
    socket->End(LogSocket::CloseCode::internal_error, "bye");
    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), WebSocketClient::CloseCode::internal_error);
    EXPECT_EQ(client->Reason(), "bye");
    EXPECT_TRUE(IsClosed());
    EXPECT_NE(Send("late"), 0);
}

}  // namespace
