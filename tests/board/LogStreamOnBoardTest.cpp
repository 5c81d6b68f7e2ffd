#include "LogStreamClient.h"
#include "PodmanOnBoard.h"

#include <atomic>
#include <fstream>
#include <thread>

using namespace OnBoard;
using QxNContainer::QxCContainer;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Lt;

namespace {

constexpr auto Soon = std::chrono::milliseconds(2500);

class LogStreams : public PodmanOnBoard {
protected:
    static constexpr const char* Both = "stdout=true&stderr=true";
    static constexpr const char* FollowBoth = "follow=true&stdout=true&stderr=true";

    /// Runs a container to its end. A Podman that is held up just when a container ends may leave out the last line
    /// for who follows its log. So what one wrote is asked for afterwards, without "follow", or the container lives on
    /// for a moment after its last line.
    static void RunToItsEnd(const std::string& name, const std::string& script,
                            const std::string& options = {}) {
        Run(name, script, options);
        Output("podman wait " + name);
    }

    PodmanResponse Stream(LogStreamClient& client, const std::string& container,
                          const std::string& query = FollowBoth) {
        const LogStreamErrors errors;
        const auto session = service.RegisterLogStreamSession(&client, container);
        const PodmanResponse response = service.StreamPodmanRequest(
            "/containers/" + container + "/logs?" + query, Get, {}, errors.list, session, &client);
        service.UnregisterLogStreamSession(&client);
        return response;
    }

    /// Streams on a thread of its own until something was received, closes, and tells how long the end took.
    steady_clock::duration TimeFromCloseToEnd(const std::string& container) {
        LogStreamClient client;
        std::atomic<bool> hasReceived{false};
        client.onMessage = [&] { hasReceived = true; };
        std::thread stream([&] { EXPECT_EQ(Stream(client, container).httpCode, 200); });
        EXPECT_TRUE(Eventually([&] { return hasReceived.load(); }));
        const auto closed = steady_clock::now();
        QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
        stream.join();
        return steady_clock::now() - closed;
    }
};

std::string Joined(const LogStreamClient& client) {
    std::string all;
    for (const std::string& message : client.Messages()) {
        all += message;
    }
    return all;
}

// --- What is streamed ---

TEST_F(LogStreams, OfAContainerWithoutATerminalAreMessagesOfLines) {
    RunToItsEnd("talker", "echo one; echo two");
    LogStreamClient client;

    EXPECT_EQ(Stream(client, "talker", Both).httpCode, 200);

    EXPECT_THAT(client.Messages(), ElementsAre("one\n", "two\n"));
}

TEST_F(LogStreams, CarryStandardErrorAsWell) {
    RunToItsEnd("talker", "echo out; echo err >&2");
    LogStreamClient both;
    LogStreamClient errorsOnly;

    Stream(both, "talker", Both);
    Stream(errorsOnly, "talker", "stderr=true");

    EXPECT_THAT(both.Messages(), testing::UnorderedElementsAre("out\n", "err\n"));
    EXPECT_THAT(errorsOnly.Messages(), ElementsAre("err\n"));
}

TEST_F(LogStreams, OfAContainerWithATerminalAreRaw) {
    RunToItsEnd("screen", "echo one; echo two", "-t");
    LogStreamClient client;

    EXPECT_EQ(Stream(client, "screen", Both).httpCode, 200);

    EXPECT_TRUE(service.IsContainerTty("screen"));
    EXPECT_EQ(Joined(client), "one\r\ntwo\r\n");
}

TEST_F(LogStreams, FollowAContainerAcrossItsEnd) {
    Run("counter", "for i in 1 2 3; do echo $i; sleep 1; done; echo last; sleep 1");
    LogStreamClient client;

    EXPECT_EQ(Stream(client, "counter").httpCode, 200);

    EXPECT_THAT(client.Messages(), ElementsAre("1\n", "2\n", "3\n", "last\n"));
}

TEST_F(LogStreams, OfAContainerThatDoesNotExistGiveTheStatusOnly) {
    LogStreamClient client;
    EXPECT_EQ(Stream(client, "ghost").httpCode, 404);
    EXPECT_THAT(client.Messages(), IsEmpty());
}

// --- Clients that leave ---

TEST_F(LogStreams, EndSoonAfterAClientVanishesInSilence) {
    Run("silent", "echo ready; sleep 1000");
    EXPECT_THAT(TimeFromCloseToEnd("silent"), Lt(Soon));
}

TEST_F(LogStreams, EndSoonAfterAClientVanishesInAFlood) {
    Run("flood", "yes flooding");
    EXPECT_THAT(TimeFromCloseToEnd("flood"), Lt(Soon));
}

TEST_F(LogStreams, WithoutAWebSocketEndAtTheFirstLine) {
    Run("talker", "echo one; sleep 1000");
    const LogStreamErrors errors;
    const auto session = service.RegisterLogStreamSession(nullptr, "talker");
    EXPECT_EQ(service
                  .StreamPodmanRequest("/containers/talker/logs?follow=true&stdout=true", Get, {},
                                       errors.list, session, nullptr)
                  .httpCode,
              200);
    service.UnregisterLogStreamSession(nullptr);
}

// --- Sessions ---

TEST_F(LogStreams, KeepASessionThatWasRegisteredAgain) {
    Run("slow", "echo begin; sleep 3; echo end; sleep 1");
    LogStreamClient client;
    std::atomic<bool> hasReceived{false};
    client.onMessage = [&] { hasReceived = true; };
    std::thread stream([&] { EXPECT_EQ(Stream(client, "slow").httpCode, 200); });
    ASSERT_TRUE(Eventually([&] { return hasReceived.load(); }));

    const auto second = service.RegisterLogStreamSession(&client, "slow");
    QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
    stream.join();

    EXPECT_TRUE(second->abortFlag);
    EXPECT_THAT(client.Messages(), ElementsAre("begin\n", "end\n"));
}

TEST_F(LogStreams, AreNotReachedByACloseAfterTheyWereUnregistered) {
    Run("talker", "echo one");
    LogStreamClient client;
    const auto session = service.RegisterLogStreamSession(&client, "talker");
    service.UnregisterLogStreamSession(&client);

    QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);

    EXPECT_FALSE(session->abortFlag);
}

// --- Many ---

TEST_F(LogStreams, RunTwentySideBySide) {
    Run("counter", "for i in 1 2 3 4 5; do echo $i; sleep 0.5; done");
    std::vector<LogStreamClient> clients(20);
    const auto descriptors = OpenDescriptors();
    std::vector<std::thread> threads;
    for (LogStreamClient& client : clients) {
        threads.emplace_back([&] { EXPECT_EQ(Stream(client, "counter").httpCode, 200); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const LogStreamClient& client : clients) {
        EXPECT_THAT(client.Messages(), ElementsAre("1\n", "2\n", "3\n", "4\n", "5\n"));
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

size_t Threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

size_t ResidentKilobytes() {
    std::ifstream file("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    file >> total >> resident;
    return resident * 4;
}

TEST_F(LogStreams, LeaveNothingAfterTwoHundred) {
    RunToItsEnd("talker", "echo one; echo two");
    const auto runTwenty = [&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 20; ++i) {
            threads.emplace_back([&] {
                LogStreamClient client;
                EXPECT_EQ(Stream(client, "talker", Both).httpCode, 200);
                EXPECT_EQ(Joined(client), "one\ntwo\n");
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    };
    runTwenty();
    const auto descriptors = OpenDescriptors();
    const auto children = Children();
    const size_t threads = Threads();
    const size_t memory = ResidentKilobytes();

    for (int i = 0; i < 10; ++i) {
        runTwenty();
    }

    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(Children(), children);
    EXPECT_EQ(Threads(), threads);
    EXPECT_LT(ResidentKilobytes(), memory + 2048);
}

}  // namespace
