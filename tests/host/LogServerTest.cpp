#include "LogServerFixture.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

using QxNContainer::QxCContainer;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Lt;
using testing::StartsWith;

namespace {

/// Whether threads other than the first cannot watch descriptors any more.
std::atomic<bool> watchingFails{false};

}  // namespace

// Asio finds it before that of the C library.
int epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event) noexcept {
    static auto* const real =
        reinterpret_cast<int (*)(int, int, int, epoll_event*)>(dlsym(RTLD_NEXT, "epoll_ctl"));
    if (watchingFails && operation == EPOLL_CTL_ADD && gettid() != getpid()) {
        errno = ENOSPC;
        return -1;
    }
    return real(epoll, operation, descriptor, event);
}

namespace {

class LogServing : public LogServerTest {
protected:
    LogServing() { Serve(); }

    steady_clock::duration Since(steady_clock::time_point time) const { return steady_clock::now() - time; }
};

constexpr auto Soon = std::chrono::seconds(3);

// --- What a client gets ---

TEST_F(LogServing, SendsEachFrameAsABinaryMessageAndThenSaysThatItEnds) {
    logs = ScriptedServer::Answer(200, LogFrame("one\n") + LogFrame("two\n", 2));

    const auto client = Connect("/logs/web?tail=7");

    EXPECT_EQ(client->Next(), "one\n");
    EXPECT_TRUE(client->IsBinary());
    EXPECT_EQ(client->Next(), "two\n");
    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), LogClient::CloseCode::normal);
    EXPECT_EQ(client->Reason(), "end of the log");
    ASSERT_EQ(Asked().size(), 2U);
    EXPECT_EQ(Asked()[0].Target(), "/v5.8.1/containers/web/json");
    EXPECT_EQ(Asked()[1].Target(),
              "/v5.8.1/containers/web/logs?follow=true&stdout=true&stderr=true&timestamps=false&tail=7");
    EXPECT_TRUE(IsQuiet());
}

TEST_F(LogServing, SendsTerminalOutputAsItComes) {
    logs = ScriptedServer::Answer(200, "\x1b[1mraw\r\n");
    EXPECT_EQ(Connect("/logs/tty-1")->Next(), "\x1b[1mraw\r\n");
}

TEST_F(LogServing, SendsFramesLargerThanEveryBuffer) {
    const std::string large(3000000, 'z');
    logs = ScriptedServer::Answer(200, LogFrame(large));
    EXPECT_TRUE(Connect("/logs/web")->Next() == large);
}

TEST_F(LogServing, SaysThatThereIsNoSuchContainer) {
    inspect = logs = ScriptedServer::Answer(404, "{}");
    const auto client = Connect("/logs/ghost");
    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), LogClient::CloseCode::policy_error);
    EXPECT_EQ(client->Reason(), "no such container");
}

TEST_F(LogServing, SaysThatPodmanGaveNoAnswer) {
    inspect = logs = [](Connection&) {};
    const auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), LogClient::CloseCode::internal_error);
}

TEST_F(LogServing, HandsFramesOnAsTheyCome) {
    std::atomic<steady_clock::rep> sent{0};
    std::atomic<int> received{0};
    logs = [&](Connection& connection) {
        connection.StartChunked();
        for (int i = 0; i < 50; ++i) {
            sent = steady_clock::now().time_since_epoch().count();
            connection.SendChunk(LogFrame("line"));
            EXPECT_TRUE(Sandbox::Eventually([&] { return received == i + 1; }));
        }
        connection.EndChunks();
    };
    const auto client = Connect("/logs/web");
    std::vector<steady_clock::duration> delays;
    while (!client->Next().empty()) {
        delays.push_back(steady_clock::now().time_since_epoch() - steady_clock::duration(sent));
        ++received;
    }

    ASSERT_EQ(delays.size(), 50U);
    std::sort(delays.begin(), delays.end());
    RecordProperty("median_us", static_cast<int>(delays[25] / std::chrono::microseconds(1)));
    EXPECT_THAT(delays[25], Lt(milliseconds(20)));
}

// --- Clients that leave ---

TEST_F(LogServing, EndsTheStreamOfAClientThatVanishesInSilence) {
    auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "line");

    const auto gone = steady_clock::now();
    client->Vanish();

    EXPECT_TRUE(IsQuiet());
    EXPECT_THAT(Since(gone), Lt(Soon));
}

TEST_F(LogServing, EndsTheStreamOfAClientThatClosesInOrder) {
    auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "line");
    client->Close();
    EXPECT_TRUE(IsQuiet());
}

TEST_F(LogServing, EndsTheStreamOfAClientThatVanishesInAFlood) {
    logs = Flood;
    auto client = Connect("/logs/web");
    EXPECT_NE(client->Next(), "");
    client->Vanish();
    EXPECT_TRUE(IsQuiet());
}

TEST_F(LogServing, EndsTheStreamOfAClientThatVanishedBeforeThereWasASession) {
    std::atomic<bool> mayAnswer{false};
    inspect = [&](Connection& connection) {
        EXPECT_TRUE(Sandbox::Eventually([&] { return mayAnswer.load(); }));
        ScriptedServer::SendAnswer(connection, 200, "{}");
    };
    auto client = Connect("/logs/web");
    ASSERT_TRUE(Sandbox::Eventually([&] { return !Asked().empty(); }));
    client->Vanish();
    ASSERT_TRUE(Sandbox::Eventually([&] { return server->Clients() == 1; }));
    std::this_thread::sleep_for(milliseconds(50));

    mayAnswer = true;

    EXPECT_TRUE(IsQuiet());
}

TEST_F(LogServing, DropsAClientThatSendsTooMuchAndIgnoresWhatIsSmall) {
    auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "line");
    client->Send("hello");
    EXPECT_EQ(server->Clients(), 1U);

    client->Send(std::string(5000, 'x'));

    EXPECT_EQ(client->Next(), "");
    EXPECT_EQ(client->Code(), LogClient::CloseCode::too_big);
    EXPECT_TRUE(IsQuiet());
}

// --- Clients that do not read ---

TEST_F(LogServing, AClientThatStopsReadingHindersNobody) {
    logs = [](Connection& connection) {
        if (connection.request.Target().find("/flood/") != std::string::npos) {
            Flood(connection);
        } else {
            OneLine(connection);
        }
    };
    auto stuck = Connect("/logs/flood");
    std::this_thread::sleep_for(milliseconds(300));

    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Connect("/logs/web")->Next(), "line");
    }
    EXPECT_EQ(stuck->Next().size(), 20000U) << "it still has its stream";
}

TEST_F(LogServing, AClientThatNeverReadsAgainIsDropped) {
    server.reset();
    LogServer::Limits limits;
    limits.idleTimeout = milliseconds(500);
    Serve(limits);
    logs = Flood;

    const auto stuck = Connect("/logs/web");

    ASSERT_TRUE(Sandbox::Eventually([&] { return server->Clients() == 1; }));
    EXPECT_TRUE(IsQuiet());
}

TEST_F(LogServing, AClientThatAnswersPingsMayBeSilent) {
    server.reset();
    LogServer::Limits limits;
    limits.idleTimeout = milliseconds(300);
    Serve(limits);
    logs = [](Connection& connection) {
        connection.StartChunked();
        connection.Pause(1500);
        connection.SendChunk(LogFrame("late"));
        connection.WaitForEnd();
    };
    EXPECT_EQ(Connect("/logs/web")->Next(), "late");
}

// --- Bounds ---

TEST_F(LogServing, RefusesMoreClientsThanTheLimit) {
    server.reset();
    LogServer::Limits limits;
    limits.clients = 2;
    Serve(limits);
    auto first = Connect("/logs/web");
    auto second = Connect("/logs/web");
    EXPECT_EQ(first->Next() + second->Next(), "lineline");

    EXPECT_THAT(AskPlainly(server->Port(),
                           "GET /logs/web HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
                           "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"),
                StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));

    first->Vanish();
    EXPECT_TRUE(Sandbox::Eventually([&] { return server->Clients() == 1; }));
    EXPECT_EQ(Connect("/logs/web")->Next(), "line");
}

TEST_F(LogServing, SurvivesAConnectionThatCannotBeWatched) {
    { EXPECT_EQ(Connect("/logs/web")->Next(), "line"); }
    ASSERT_TRUE(IsQuiet());
    const auto before = Sandbox::OpenDescriptors();
    watchingFails = true;

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(AskPlainly(server->Port(), ""), "");
    }

    watchingFails = false;
    EXPECT_TRUE(Sandbox::Eventually([&] { return Sandbox::OpenDescriptors() == before; }));
    EXPECT_EQ(Connect("/logs/web")->Next(), "line");
}

TEST_F(LogServing, HandsNoSocketToPrograms) {
    const auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "line");
    unsigned short port = 0;
    size_t sockets = 0;
    for (int fd = 3; fd < 200; ++fd) {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            address.sin_family == AF_INET && ntohs(address.sin_port) == server->Port()) {
            port = server->Port();
            ++sockets;
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
        }
    }
    EXPECT_EQ(port, server->Port());
    EXPECT_EQ(sockets, 2U) << "the one that listens, and the client's";
}

// --- The end ---

TEST_F(LogServing, TellsItsClientsThatItGoesAway) {
    auto client = Connect("/logs/web");
    EXPECT_EQ(client->Next(), "line");
    std::thread reader([&] { EXPECT_EQ(client->Next(), ""); });
    const auto begin = steady_clock::now();

    server.reset();

    EXPECT_THAT(Since(begin), Lt(Soon));
    reader.join();
    EXPECT_EQ(client->Code(), LogClient::CloseCode::going_away);
}

TEST_F(LogServing, EndsAlsoWithClientsThatDoNotReadOrNeverAskedForAnything) {
    logs = Flood;
    const auto stuck = Connect("/logs/web");
    boost::asio::io_context io;
    LogClient::Socket silent(io);
    silent.connect({boost::asio::ip::address_v4::loopback(), server->Port()});
    std::this_thread::sleep_for(milliseconds(300));
    const auto begin = steady_clock::now();

    server.reset();

    EXPECT_THAT(Since(begin), Lt(Soon));
}

size_t Threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST_F(LogServing, LeavesDescriptorsThreadsAndSessionsAsTheyWere) {
    const auto round = [&] {
        std::vector<std::unique_ptr<LogClient>> clients;
        for (int i = 0; i < 10; ++i) {
            clients.push_back(Connect("/logs/web"));
        }
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(clients[static_cast<size_t>(i)]->Next(), "line");
            i % 2 == 0 ? clients[static_cast<size_t>(i)]->Vanish() : clients[static_cast<size_t>(i)]->Close();
        }
        EXPECT_TRUE(IsQuiet());
    };
    round();
    const size_t threads = Threads();
    const size_t descriptors = Sandbox::OpenDescriptors().size();
    for (int i = 0; i < 5; ++i) {
        round();
    }
    // The scripted Podman collects its ended connections when the next one comes.
    EXPECT_NEAR(static_cast<double>(Threads()), static_cast<double>(threads), 10);
    EXPECT_NEAR(static_cast<double>(Sandbox::OpenDescriptors().size()), static_cast<double>(descriptors), 10);
    EXPECT_LE(Recording::LiveLists(), 0);
}

}  // namespace
