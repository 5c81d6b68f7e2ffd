#include "Board.h"
#include "CurlHandlerOptions.h"
#include "LogStreamClient.h"
#include "QxCContainer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <chrono>
#include <fstream>
#include <thread>

using QxNContainer::QxCContainer;
using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Lt;

using Connection = ScriptedServer::Connection;

namespace {

/// A Podman that answers an inspection and streams logs as the test's script says.
class Streams : public testing::Test {
protected:
    Streams()
        : _podman(Board::PODMAN_SOCKET, [this](Connection& connection) {
              if (connection.request.Target().ends_with("/json")) {
                  const bool isTty = connection.request.Target().find("/tty") != std::string::npos;
                  ScriptedServer::SendAnswer(connection, 200,
                                             isTty ? R"({"Config":{"Tty":true}})" : R"({"Config":{}})");
              } else {
                  logs(connection);
              }
          }) {
        client.expectedErrors = &errors.list;
        Recording::Forget();
    }

    PodmanResponse Stream(LogStreamClient& target, const std::string& container) {
        const auto session = service.RegisterLogStreamSession(&target, container);
        const PodmanResponse response =
            service.StreamPodmanRequest("/containers/" + container + "/logs?follow=true", QxCCurlHandler::Get,
                                        {"X-A: b"}, errors.list, session, &target);
        service.UnregisterLogStreamSession(&target);
        return response;
    }

    std::vector<ScriptedServer::Request> Asked() const { return _podman.Requests(); }
    bool IsQuiet() const {
        return Sandbox::Eventually([&] { return _podman.LiveConnections() == 0; });
    }

    QxCContainer& service = QxCContainer::GetInstance();
    LogStreamErrors errors;
    LogStreamClient client;
    ScriptedServer::Script logs;

private:
    ScriptedServer _podman;
};

/// Sends one frame, says so, and then nothing until the client is gone.
ScriptedServer::Script OneFrameThenSilence() {
    return [](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(LogFrame("first"));
        connection.WaitForEnd();
    };
}

TEST_F(Streams, SendOneMessageForEachFrameHoweverItArrives) {
    logs = [](Connection& connection) {
        connection.StartChunked();
        for (const char byte : LogFrame("out") + LogFrame("err", 2) + LogFrame("")) {
            connection.SendChunk({&byte, 1});
        }
        connection.SendChunk(LogFrame("a") + LogFrame("b") + LogFrame("c").substr(0, 4));
        connection.EndChunks();
    };

    const PodmanResponse response = Stream(client, "plain");

    EXPECT_THAT(client.Messages(), ElementsAre("out", "err", "a", "b"));
    EXPECT_TRUE(client.usualArguments);
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(Asked().at(1).line, "GET /v5.8.1/containers/plain/logs?follow=true HTTP/1.1");
    EXPECT_THAT(Asked().at(1).headers, ElementsAre("Host: localhost", "Accept: */*", "X-A: b"));
}

TEST_F(Streams, OfATerminalPassTheBytesOn) {
    logs = ScriptedServer::Answer(200, LogFrame("raw"));

    Stream(client, "tty");

    std::string received;
    for (const std::string& message : client.Messages()) {
        received += message;
    }
    EXPECT_EQ(received, LogFrame("raw"));
}

TEST_F(Streams, AreConfiguredInAFixedOrderAndNeverSwitchTheDisk) {
    Board::ProvideUserStorage();
    logs = ScriptedServer::Answer(200);
    const auto session = service.RegisterLogStreamSession(&client, "plain");
    Recording::Forget();
    CurlOptions::Record();

    service.StreamPodmanRequest("/logs", QxCCurlHandler::Get, {"A: b"}, errors.list, session, &client);

    EXPECT_THAT(
        CurlOptions::Recorded(),
        ElementsAre("CONNECT_TO=null", "UNIX_SOCKET_PATH=/run/podman/podman.sock", "CUSTOMREQUEST=null",
                    "POST=0", "HTTPGET=0", "HTTPGET=1", "URL=http://localhost/v5.8.1/logs", "HTTPHEADER=A: b",
                    "WRITEFUNCTION=set", "WRITEDATA=set", "NOPROGRESS=0", "XFERINFOFUNCTION=set",
                    "XFERINFODATA=set", "perform", "free A: b", "cleanup"));
    EXPECT_THAT(Recording::Events("getState"), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(Streams, HaveTheMethodThatIsAskedForAndTheEndpointAsItIs) {
    logs = ScriptedServer::Answer(200);
    const auto session = service.RegisterLogStreamSession(&client, "plain");
    CurlOptions::Record();

    service.StreamPodmanRequest("logs", QxCCurlHandler::Delete, {}, errors.list, session, &client);

    EXPECT_THAT(CurlOptions::Recorded(), Contains("CUSTOMREQUEST=DELETE"));
    EXPECT_EQ(Asked().at(1).line, "DELETE /v5.8.1logs HTTP/1.1");
}

TEST_F(Streams, AskForEachPieceWhetherThereIsATerminal) {
    const auto session = service.RegisterLogStreamSession(&client, "plain");
    client.onMessage = [&] { session->tty = true; };
    logs = [this](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(LogFrame("frame"));
        EXPECT_TRUE(Sandbox::Eventually([this] { return !client.Messages().empty(); }));
        connection.SendChunk("raw");
        connection.EndChunks();
    };

    service.StreamPodmanRequest("/logs", QxCCurlHandler::Get, {}, errors.list, session, &client);

    EXPECT_THAT(client.Messages(), ElementsAre("frame", "raw"));
}

TEST_F(Streams, EndWhenASendFails) {
    logs = [](Connection& connection) {
        connection.StartChunked();
        while (connection.SendChunk(LogFrame("line"))) {
        }
    };
    client.accepted = 3;

    const PodmanResponse response = Stream(client, "plain");

    EXPECT_EQ(client.Messages().size(), 3U);
    EXPECT_EQ(client.refused, 1) << "nothing is sent after a failure";
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(Streams, EndSoonAfterTheClientCloseInSilence) {
    logs = OneFrameThenSilence();
    steady_clock::time_point closed;
    std::thread closer([&] {
        Sandbox::Eventually([&] { return !client.Messages().empty(); });
        closed = steady_clock::now();
        QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
    });

    EXPECT_EQ(Stream(client, "plain").httpCode, 200);

    closer.join();
    EXPECT_THAT(steady_clock::now() - closed, Lt(std::chrono::seconds(2)));
    EXPECT_THAT(client.Messages(), ElementsAre("first"));
}

TEST_F(Streams, SendNothingMoreAfterTheClose) {
    logs = [](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(LogFrame("first"));
        connection.Pause(50);
        while (connection.SendChunk(LogFrame("more"))) {
        }
    };
    client.onMessage = [&] { QxCContainer::LogStreamCloseHandler(nullptr, 0, &client); };

    Stream(client, "plain");

    EXPECT_THAT(client.Messages(), ElementsAre("first"));
}

TEST_F(Streams, OfAPodmanThatNeverAnswersEndWithTheClose) {
    logs = [](Connection& connection) { connection.WaitForEnd(); };
    std::thread closer([&] {
        Sandbox::Eventually([&] { return Asked().size() == 2; });
        QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
    });

    EXPECT_EQ(Stream(client, "plain").httpCode, 0);
    closer.join();
}

TEST_F(Streams, GiveTheStatusOfAnErrorAndSendNothingOfIt) {
    logs = ScriptedServer::Answer(404, R"({"message": "no such container"})");

    EXPECT_EQ(Stream(client, "ghost").httpCode, 404);
    EXPECT_THAT(client.Messages(), IsEmpty());
}

TEST_F(Streams, OfATerminalForwardTheTextOfAnError) {
    logs = ScriptedServer::Answer(404, "no such container");

    EXPECT_EQ(Stream(client, "tty").httpCode, 404);
    EXPECT_THAT(client.Messages(), ElementsAre("no such container"));
}

TEST_F(Streams, WithoutAWebSocketEndAtTheFirstFrame) {
    logs = OneFrameThenSilence();
    const auto session = service.RegisterLogStreamSession(nullptr, "plain");

    EXPECT_EQ(
        service.StreamPodmanRequest("/logs", QxCCurlHandler::Get, {}, errors.list, session, nullptr).httpCode,
        200);
    service.UnregisterLogStreamSession(nullptr);
}

TEST_F(Streams, WithoutASessionAreNotMade) {
    EXPECT_EQ(
        service.StreamPodmanRequest("/logs", QxCCurlHandler::Get, {}, errors.list, nullptr, &client).httpCode,
        0);
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(Streams, KeepTheirSessionWhenItIsReplacedOrUnregistered) {
    std::atomic<bool> mayGoOn{false};
    logs = [&](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(LogFrame("before"));
        EXPECT_TRUE(Sandbox::Eventually([&] { return mayGoOn.load(); }));
        connection.SendChunk(LogFrame("after"));
        connection.EndChunks();
    };
    std::thread stream([&] { EXPECT_EQ(Stream(client, "plain").httpCode, 200); });
    ASSERT_TRUE(Sandbox::Eventually([&] { return !client.Messages().empty(); }));

    service.RegisterLogStreamSession(&client, "plain");
    QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
    service.UnregisterLogStreamSession(&client);
    mayGoOn = true;
    stream.join();

    EXPECT_THAT(client.Messages(), ElementsAre("before", "after"));
}

TEST_F(Streams, LeaveTheTableFree) {
    logs = OneFrameThenSilence();
    std::thread stream([&] { Stream(client, "plain"); });
    ASSERT_TRUE(Sandbox::Eventually([&] { return !client.Messages().empty(); }));

    LogStreamClient other;
    service.RegisterLogStreamSession(&other, "plain");
    service.UnregisterLogStreamSession(&other);

    QxCContainer::LogStreamCloseHandler(nullptr, 0, &client);
    stream.join();
}

// --- Many streams ---

// Sanitizers keep freed memory for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool MemoryIsTheProgramsOwn = false;
#else
constexpr bool MemoryIsTheProgramsOwn = true;
#endif

size_t ResidentPages() {
    std::ifstream file("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    file >> total >> resident;
    return resident;
}

size_t Threads() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

class ManyStreams : public Streams {
protected:
    /// Ten times twenty streams side by side, of which every second is closed by its client.
    void Run() {
        for (int round = 0; round < 10; ++round) {
            std::vector<std::thread> threads;
            for (int i = 0; i < 20; ++i) {
                threads.emplace_back([this, i] { RunOne(i % 2 == 0); });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
        }
        EXPECT_TRUE(IsQuiet());
    }

    void RunOne(bool closes) {
        LogStreamClient target;
        LogStreamErrors list;
        if (closes) {
            target.onMessage = [&] { QxCContainer::LogStreamCloseHandler(nullptr, 0, &target); };
        }
        const auto session = service.RegisterLogStreamSession(&target, "plain");
        service.StreamPodmanRequest("/logs", QxCCurlHandler::Get, {}, list.list, session, &target);
        service.UnregisterLogStreamSession(&target);
        EXPECT_THAT(target.Messages(), Contains("line"));
        EXPECT_EQ(session.use_count(), 1);
    }
};

TEST_F(ManyStreams, LeaveDescriptorsThreadsChildrenAndMemoryAsTheyWere) {
    logs = [](Connection& connection) {
        connection.StartChunked();
        for (int i = 0; i < 10; ++i) {
            connection.SendChunk(LogFrame("line") + LogFrame(std::string(10000, 'x')));
        }
        connection.EndChunks();
    };
    Run();  // fills caches
    // Each connection's descriptor is collected when the next one comes.
    Stream(client, "plain");
    ASSERT_TRUE(IsQuiet());
    const auto descriptors = Sandbox::OpenDescriptors().size();
    const size_t threads = Threads();
    const size_t pages = ResidentPages();

    Run();
    Stream(client, "plain");
    ASSERT_TRUE(IsQuiet());

    EXPECT_NEAR(static_cast<double>(Sandbox::OpenDescriptors().size()), static_cast<double>(descriptors), 1);
    EXPECT_NEAR(static_cast<double>(Threads()), static_cast<double>(threads), 1);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_EQ(Recording::LiveLists(), 1) << "the fixture's";
    if (MemoryIsTheProgramsOwn) {
        EXPECT_LT(ResidentPages(), pages + 512) << "2 MiB over 200 streams";
    }
}

}  // namespace
