#include "QxCCurlHandler.h"
#include "Recording.h"
#include "Sandbox.h"
#include "ScriptedServer.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <chrono>
#include <csignal>
#include <stdexcept>

using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Lt;

using Connection = ScriptedServer::Connection;

namespace {

constexpr const char* SocketPath = "/run/scripted.sock";

/// A handler that is ready to ask the server of a test.
struct Client : QxCCurlHandler {
    Client() {
        SetUnixSocket(SocketPath);
        SetUrl("http://d/x");
    }
};

struct Seconds {
    steady_clock::time_point begin = steady_clock::now();
    double Passed() const { return std::chrono::duration<double>(steady_clock::now() - begin).count(); }
};

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 251);
    }
    return text;
}

// --- Bodies ---

TEST(CurlTransfer, CollectsAChunkedBody) {
    const std::string large = Pattern(300000);
    const ScriptedServer server(SocketPath, [&](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk("one ");
        connection.SendChunk(large);
        connection.SendChunk(" two");
        connection.EndChunks();
    });
    Client curl;

    EXPECT_TRUE(curl.Execute() == "one " + large + " two");
    EXPECT_EQ(curl.GetHttpCode(), 200);
}

TEST(CurlTransfer, CollectsAnAnswerThatComesByteByByte) {
    const ScriptedServer server(SocketPath, [](Connection& connection) {
        for (const char byte : std::string("HTTP/1.1 202 Slow\r\nContent-Length: 5\r\n\r\nslow!")) {
            connection.Send({&byte, 1});
            connection.Pause(1);
        }
    });
    Client curl;

    EXPECT_EQ(curl.Execute(), "slow!");
    EXPECT_EQ(curl.GetHttpCode(), 202);
}

TEST(CurlTransfer, GivesWhatArrivedWhenTheConnectionIsCutInTheBody) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    const ScriptedServer server(SocketPath, [](Connection& connection) {
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
    });
    Client curl;

    EXPECT_EQ(curl.Execute(), "half");

    EXPECT_EQ(curl.GetHttpCode(), 200);
    EXPECT_THAT(Recording::Logs(),
                Contains(HasSubstr("Error message from CurlHandler: Transferred a partial file")));
}

TEST(CurlTransfer, GivesNothingWhenTheConnectionIsCutInTheHead) {
    for (const char* head : {"", "HTTP/1.1"}) {
        const ScriptedServer server(SocketPath, [head](Connection& connection) { connection.Send(head); });
        Client curl;

        EXPECT_EQ(curl.Execute(), "") << head;
        EXPECT_EQ(curl.GetHttpCode(), 0) << head;
    }
}

TEST(CurlTransfer, SurvivesWhatIsNoHttp) {
    const ScriptedServer server(
        SocketPath, [](Connection& connection) { connection.Send(std::string(1000, '\xff') + "\r\n\r\n"); });
    Client curl;

    curl.Execute();

    EXPECT_EQ(curl.GetHttpCode(), 0);
}

// --- Streaming ---

TEST(CurlStream, HandsEveryByteToTheCallbackAndReturnsNone) {
    const std::string large = Pattern(500000);
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, large));
    Client curl;
    std::string received;
    curl.SetStreamCallback([&](const char* data, size_t length) {
        received.append(data, length);
        return length;
    });

    EXPECT_EQ(curl.Execute(), "");

    EXPECT_TRUE(received == large);
    EXPECT_EQ(curl.GetHttpCode(), 200);
}

TEST(CurlStream, HandsBytesOnAsTheyArrive) {
    std::atomic<bool> firstSeen{false};
    const ScriptedServer server(SocketPath, [&](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk("first");
        EXPECT_TRUE(Sandbox::Eventually([&] { return firstSeen.load(); }));
        connection.SendChunk("second");
        connection.EndChunks();
    });
    Client curl;
    std::vector<std::string> pieces;
    curl.SetStreamCallback([&](const char* data, size_t length) {
        pieces.emplace_back(data, length);
        firstSeen = true;
        return length;
    });

    curl.Execute();

    EXPECT_THAT(pieces, ElementsAre("first", "second"));
}

TEST(CurlStream, LogsAnEmptyBody) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    curl.SetStreamCallback([](const char*, size_t length) { return length; });

    curl.Execute();

    EXPECT_THAT(Recording::Logs(), Contains("[DEBUG_VERBOSE] Quolex Container CURL Handler:Response: \n"));
}

TEST(CurlStream, EndsWhenTheCallbackTakesAnythingButAll) {
    for (const size_t taken : {size_t{0}, size_t{1}, size_t{1000000}}) {
        const ScriptedServer server(SocketPath, [](Connection& connection) {
            connection.StartChunked();
            connection.SendChunk("endless");
            connection.WaitForEnd();
        });
        Client curl;
        int calls = 0;
        curl.SetStreamCallback([&](const char*, size_t) {
            ++calls;
            return taken;
        });

        EXPECT_EQ(curl.Execute(), "") << taken;
        EXPECT_EQ(calls, 1) << taken;
        EXPECT_EQ(curl.GetHttpCode(), 200) << taken;
    }
}

bool IgnoresBrokenPipes() {
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    return current.sa_handler == SIG_IGN;
}

TEST(CurlStream, LetsAnExceptionOfTheCallbackThroughAndLeavesNothingBehind) {
    signal(SIGPIPE, SIG_DFL);
    const ScriptedServer server(SocketPath, [](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk("endless");
        connection.WaitForEnd();
    });
    const auto round = [&] {
        Client curl;
        curl.SetStreamCallback([](const char*, size_t) -> size_t { throw std::runtime_error("no more"); });
        EXPECT_THROW(curl.Execute(), std::runtime_error);
        EXPECT_EQ(curl.GetHttpCode(), 200);
        EXPECT_FALSE(IgnoresBrokenPipes());
    };
    const auto isQuiet = [&] { return Sandbox::Eventually([&] { return server.LiveConnections() == 0; }); };
    round();
    ASSERT_TRUE(isQuiet());
    const auto descriptors = Sandbox::OpenDescriptors().size();
    for (int i = 0; i < 4; ++i) {
        round();
        ASSERT_TRUE(isQuiet()) << "the connection is closed";
    }
    // The server collects its ended connections when the next one comes.
    EXPECT_LE(Sandbox::OpenDescriptors().size(), descriptors + 1);
}

TEST(CurlStream, TheNextRequestIsFreeOfAnEarlierException) {
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    curl.SetStreamCallback([](const char*, size_t) -> size_t { throw 5; });
    EXPECT_THROW(curl.Execute(), int);
    curl.SetStreamCallback({});
    EXPECT_EQ(curl.Execute(), "text");
}

TEST(CurlStream, KeepsExceptionsOfARequestInTheCallbackApart) {
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    curl.SetStreamCallback([](const char*, size_t length) {
        Client inner;
        inner.SetStreamCallback([](const char*, size_t) -> size_t { throw 5; });
        EXPECT_THROW(inner.Execute(), int);
        return length;
    });
    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(curl.GetHttpCode(), 200);
}

TEST(CurlStream, DoesNotMakeChildrenIgnoreBrokenPipes) {
    signal(SIGPIPE, SIG_DFL);
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    curl.SetStreamCallback([](const char*, size_t length) {
        EXPECT_TRUE(IgnoresBrokenPipes()) << "libcurl does so meanwhile";
        const auto child =
            QxNSupport::Spawn("/bin/sh", {"sh", "-c", "grep SigIgn: /proc/self/status > /tmp/ignored"});
        EXPECT_EQ(child.error, 0);
        waitpid(child.pid, nullptr, 0);
        return length;
    });

    curl.Execute();

    const std::string ignored = Sandbox::ReadFile("/tmp/ignored");
    ASSERT_THAT(ignored, HasSubstr("SigIgn:\t"));
    EXPECT_EQ(std::stoull(ignored.substr(8), nullptr, 16) >> (SIGPIPE - 1) & 1, 0U) << ignored;
}

TEST(CurlStream, AnEmptyCallbackSwitchesBackToCollecting) {
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    curl.SetStreamCallback([](const char*, size_t length) { return length; });
    EXPECT_EQ(curl.Execute(), "");
    curl.SetStreamCallback({});
    EXPECT_EQ(curl.Execute(), "text");
}

TEST(CurlStream, APreviousCallbackIsDestroyed) {
    const auto token = std::make_shared<int>();
    QxCCurlHandler curl;
    curl.SetStreamCallback([token](const char*, size_t length) { return length; });
    EXPECT_EQ(token.use_count(), 2);
    curl.SetStreamCallback({});
    EXPECT_EQ(token.use_count(), 1);
}

// --- Abort ---

TEST(CurlAbort, EndsATransferInSilenceWithinTwoSeconds) {
    const ScriptedServer server(SocketPath, [](Connection& connection) { connection.WaitForEnd(); });
    Client curl;
    std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);
    Seconds aborted;
    std::thread other([&] {
        Sandbox::Eventually([&] { return !server.Requests().empty(); });
        aborted = {};
        abort = true;
    });

    EXPECT_EQ(curl.Execute(), "");

    EXPECT_THAT(aborted.Passed(), Lt(2.0));
    EXPECT_EQ(curl.GetHttpCode(), 0);
    other.join();
}

TEST(CurlAbort, EndsAFloodAtOnce) {
    const ScriptedServer server(SocketPath, [](Connection& connection) {
        connection.StartChunked();
        while (connection.SendChunk(std::string(10000, 'x'))) {
        }
    });
    Client curl;
    std::atomic<bool> abort{false};
    size_t received = 0;
    size_t receivedAtAbort = 0;
    curl.SetAbortFlag(&abort);
    curl.SetStreamCallback([&](const char*, size_t length) {
        received += length;
        if (received > 1000000 && receivedAtAbort == 0) {
            receivedAtAbort = received;
            abort = true;
        }
        return length;
    });
    const Seconds time;

    curl.Execute();

    EXPECT_EQ(curl.GetHttpCode(), 200);
    EXPECT_THAT(received - receivedAtAbort, Lt(10000000U));
    EXPECT_THAT(time.Passed(), Lt(10.0));
}

TEST(CurlAbort, AFlagSetBeforehandLetsNothingThrough) {
    const ScriptedServer server(SocketPath, [](Connection& connection) { connection.WaitForEnd(); });
    Client curl;
    const std::atomic<bool> abort{true};
    curl.SetAbortFlag(&abort);
    const Seconds time;

    EXPECT_EQ(curl.Execute(), "");

    EXPECT_EQ(curl.GetHttpCode(), 0);
    EXPECT_THAT(time.Passed(), Lt(2.0));
}

TEST(CurlAbort, AFlagThatStaysFalseChangesNothing) {
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    Client curl;
    const std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);

    EXPECT_EQ(curl.Execute(), "text");
}

TEST(CurlTransfer, LeavesNoDescriptorBehind) {
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, "text"));
    { Client{}.Execute(); }
    ASSERT_TRUE(Sandbox::Eventually([&] { return server.LiveConnections() == 0; }));
    const auto before = Sandbox::OpenDescriptors().size();
    {
        QxCCurlHandler curl;
        curl.SetUnixSocket("/run/nobody.sock");
        curl.SetUrl("http://d/x");
        curl.SetHeaders({"A: b"});
        curl.SetPayload("text");
        curl.Execute();
    }
    EXPECT_EQ(Sandbox::OpenDescriptors().size(), before);
}

}  // namespace
