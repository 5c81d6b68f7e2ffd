#include "LogClient.h"
#include "LogSocket.h"
#include "LogStreamClient.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/http/read.hpp>
#include <future>
#include <thread>

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

/// A LogSocket with its client; the socket's thread is the fixture's.
class LogSockets : public testing::Test {
protected:
    LogSockets() : _work(_io.get_executor()), _acceptor(_io, {boost::asio::ip::address_v4::loopback(), 0}) {
        std::thread connecting(
            [this] { client = std::make_unique<LogClient>(_acceptor.local_endpoint().port(), "/"); });
        boost::beast::tcp_stream connection(_acceptor.accept());
        boost::beast::flat_buffer input;
        LogSocket::Request request;
        boost::beast::http::read(connection, input, request);
        LogSocket::Timeouts timeouts;
        timeouts.close = std::chrono::milliseconds(300);
        socket = std::make_shared<LogSocket>(std::move(connection), timeouts);
        std::promise<bool> isAccepted;
        boost::asio::post(
            _io, [&] { socket->Accept(request, [&](bool accepted) { isAccepted.set_value(accepted); }); });
        _thread = std::thread([this] { _io.run(); });
        EXPECT_TRUE(isAccepted.get_future().get());
        connecting.join();
    }
    ~LogSockets() override {
        client.reset();
        socket.reset();
        _work.reset();
        _thread.join();
    }

    int Send(const std::string& text, int timeoutMs = -1, bool fragment = false) {
        return socket->sendBinary(errors.list, reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<unsigned int>(text.size()), timeoutMs, fragment);
    }

    bool IsClosed() const {
        return Sandbox::Eventually([] { return closes > 0; });
    }

    LogStreamErrors errors;
    std::unique_ptr<LogClient> client;
    std::shared_ptr<LogSocket> socket;

private:
    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
    boost::asio::ip::tcp::acceptor _acceptor;
    std::thread _thread;
};

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

TEST_F(LogSockets, TakeMessagesFromSeveralThreadsOneByOne) {
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] {
            for (int j = 0; j < 50; ++j) {
                EXPECT_EQ(Send(std::string(1000, 'a')), 0);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(client->Next().size(), 1000U);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TEST_F(LogSockets, FailToSendWhenTheTimeIsOverAndAreClosedThen) {
    socket->SetCloseHandler(CountClose);
    const std::string large(50000000, 'x');

    EXPECT_NE(Send(large, 200), 0);

    EXPECT_EQ(errors.list.getErrorCount(), 1U);
    EXPECT_THAT(errors.list.getMessages().at(0).text, HasSubstr("The message was not sent"));
    EXPECT_TRUE(IsClosed());
    EXPECT_NE(Send("more"), 0);
}

TEST_F(LogSockets, FailToSendWhenTheClientVanishesMeanwhile) {
    socket->SetCloseHandler(CountClose);
    std::thread vanishing([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        client->Vanish();
    });

    EXPECT_NE(Send(std::string(50000000, 'x')), 0);

    vanishing.join();
    EXPECT_TRUE(IsClosed());
}

TEST_F(LogSockets, TellTheirEndExactlyOnce) {
    socket->SetCloseHandler(CountClose);
    client->Close();
    ASSERT_TRUE(IsClosed());

    socket->Close(LogSocket::CloseCode::normal, "again");
    EXPECT_NE(Send("late"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    EXPECT_EQ(closes, 1);
    EXPECT_EQ(closedSocket, socket.get());
}

TEST_F(LogSockets, TellTheirEndAlsoToWhoAsksLater) {
    client->Vanish();
    ASSERT_TRUE(Sandbox::Eventually([&] { return Send("probe") != 0; }));
    socket->SetCloseHandler(CountClose);
    EXPECT_TRUE(IsClosed());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(closes, 1);
}

TEST_F(LogSockets, CloseWithCodeAndReason) {
    socket->SetCloseHandler(CountClose);
    socket->Close(LogSocket::CloseCode::going_away, "bye");
    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), LogClient::CloseCode::going_away);
    EXPECT_EQ(client->Reason(), "bye");
    EXPECT_TRUE(IsClosed());
    EXPECT_NE(Send("late"), 0);
}

TEST_F(LogSockets, CloseAlsoWhenTheClientDoesNotAnswer) {
    socket->SetCloseHandler(CountClose);
    const auto begin = std::chrono::steady_clock::now();

    socket->Close(LogSocket::CloseCode::normal, "bye");

    EXPECT_TRUE(IsClosed());
    EXPECT_TRUE(Sandbox::Eventually([&] { return socket.use_count() == 1; })) << "nothing waits any more";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace
