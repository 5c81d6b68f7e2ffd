#include "LogHubFixture.h"

#include "PodmanLog.h"

#include <atomic>
#include <filesystem>
#include <thread>

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;

namespace {

class LogHubs : public LogHubTest {
protected:
    LogHubs() { Serve(); }
};

LogHub::Limits Few(size_t lines) {
    LogHub::Limits limits;
    limits.ringLines = lines;
    limits.history = 3;
    limits.linger = milliseconds(50);
    return limits;
}

// --- The beginning ---

TEST_F(LogHubs, BeginWithTheContainer) {
    auto viewer = Watch();
    const auto start = viewer.Next();
    EXPECT_EQ(start.dump(), R"({"type":"start","container":")" + std::string(Id) + R"(","tty":false})");
}

TEST_F(LogHubs, GiveLinesWithAllThatBelongsToThem) {
    history = ScriptedServer::Answer(200, Line(5, "out") + Line(7, "err", 2));
    follow = Silent(Line(5, "out") + Line(7, "err", 2));

    const auto lines = Watch().Lines(2);

    EXPECT_EQ(lines[0].dump(),
              R"({"cursor":"0123456789abcdef-188fa7baf5884b40-1","time":"2026-01-31T00:00:00.005000000Z",)"
              R"("stream":"stdout","text":"out"})");
    EXPECT_EQ(lines[1]["stream"], "stderr");
    EXPECT_EQ(lines[1]["time"], "2026-01-31T00:00:00.007000000Z");
}

TEST_F(LogHubs, TellTerminalsApart) {
    inspect = ScriptedServer::Answer(200, State("running", 0, true));
    history = ScriptedServer::Answer(200, Line(5, "one\r"));
    follow = Silent(Line(5, "one\r") + Frame(6, "login: "));

    auto viewer = Watch();

    EXPECT_EQ(viewer.Next()["tty"], true);
    const auto lines = viewer.Lines(2);
    EXPECT_EQ(lines[0]["stream"], "tty");
    EXPECT_EQ(lines[0]["text"], "one");
    EXPECT_EQ(lines[1]["text"], "login: ");
    EXPECT_EQ(lines[1]["partial"], true);
}

TEST_F(LogHubs, AskPodmanForBothStreamsAtOnceInItsOwnFormat) {
    history = ScriptedServer::Answer(200, Line(5, "one"));
    follow = Silent(Line(5, "one"));
    auto viewer = Watch();
    EXPECT_THAT(viewer.Texts(1), ElementsAre("one"));

    const std::string prefix =
        "/v5.8.1/libpod/containers/" + std::string(Id) + "/logs?stdout=true&stderr=true&timestamps=true";
    EXPECT_THAT(LogRequests(), ElementsAre(prefix + "&tail=5000", prefix + "&follow=true"));
}

TEST_F(LogHubs, FollowALongLogFromItsLastLineOn) {
    Serve(Few(100));
    history = ScriptedServer::Answer(200, NumberedLines(7, 9));
    follow = Silent(NumberedLines(9, 12));

    EXPECT_THAT(Watch({.tail = LogStart::All}).Texts(5), ElementsAre("8", "9", "10", "11", "12"))
        << "without the first one, whose time may have lines before it";
    EXPECT_THAT(LogRequests()[1], HasSubstr("&since=2026-01-31T00:00:00.008999999Z"));
}

TEST_F(LogHubs, PassOverOnlyTheKnownOfLinesWithTheSameTime) {
    Serve(Few(100));
    history = ScriptedServer::Answer(200, Line(1, "a") + Line(2, "b") + Line(2, "c"));
    follow = Silent(Line(2, "b") + Line(2, "c") + Line(2, "d") + Line(3, "e"));

    EXPECT_THAT(Watch().Texts(4), ElementsAre("b", "c", "d", "e"));
}

TEST_F(LogHubs, LeaveToTheStreamWhatPodmanMayHaveLostBetweenTheLastLinesAndTheEnd) {
    Serve(Few(100));
    history = ScriptedServer::Answer(200, NumberedLines(1, 3) + NumberedLines(9, 10));
    follow = Silent(NumberedLines(3, 12));

    EXPECT_THAT(Watch({.tail = LogStart::All}).Texts(11),
                ElementsAre("2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"));
}

// --- Where viewers begin ---

TEST_F(LogHubs, GiveTheLastLinesThatAViewerWants) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 10));
    follow = Silent(NumberedLines(1, 10));
    EXPECT_THAT(Watch({.tail = 2}).Texts(2), ElementsAre("9", "10"));
    EXPECT_THAT(Watch({.tail = 11}).Texts(10).size(), 10U);
    EXPECT_THAT(Watch({.tail = LogStart::All}).Texts(10).size(), 10U);
    EXPECT_EQ(LogRequests().size(), 2U);
}

TEST_F(LogHubs, CountALineInPartsOnce) {
    follow = Silent(Line(1, "a") + Frame(2, "b") + Line(3, "x", 2) + Line(4, "c") + Line(5, "d"));
    history = ScriptedServer::Answer(
        200, Line(1, "a") + Frame(2, "b") + Line(3, "x", 2) + Line(4, "c") + Line(5, "d"));
    EXPECT_THAT(Watch({.tail = 3}).Texts(4), ElementsAre("b", "x", "c", "d"));
}

TEST_F(LogHubs, GoOnBehindACursor) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 10));
    follow = Silent(NumberedLines(1, 10));
    auto first = Watch({.tail = 5}, 1);
    first.Texts(3);

    EXPECT_THAT(Watch({.after = first.cursor}).Texts(2), ElementsAre("9", "10"));
}

TEST_F(LogHubs, GoOnBehindACursorOfAnEarlierHub) {
    history = ScriptedServer::Answer(200, Line(1, "a") + Line(2, "b") + Line(2, "c") + Line(2, "d"));
    follow = Silent(Line(1, "a") + Line(2, "b") + Line(2, "c") + Line(2, "d"));
    std::string cursor;
    {
        auto first = Watch();
        EXPECT_THAT(first.Texts(3).size(), 4U);
        first = Watch({.tail = 3}, 1);
        first.Texts(2);
        cursor = first.cursor;
    }
    Serve();
    EXPECT_THAT(Watch({.after = cursor}).Texts(1), ElementsAre("d"));
}

TEST_F(LogHubs, GiveEverythingWhenACursorIsGone) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 3));
    follow = Silent(NumberedLines(1, 3));
    auto first = Watch({}, 1);
    first.Texts(1);
    Serve();
    history = ScriptedServer::Answer(200, NumberedLines(2, 3));
    follow = Silent(NumberedLines(2, 3));
    EXPECT_THAT(Watch({.after = first.cursor}).Texts(3), ElementsAre("[skipped -1]", "2", "3"));
}

TEST_F(LogHubs, GiveEverythingOfAContainerThatWasMadeAnew) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 3));
    follow = Silent(NumberedLines(1, 3));
    auto first = Watch();
    first.Texts(3);
    inspect = ScriptedServer::Answer(200, State("running", 0, false, "fedcba9876543210"));
    EXPECT_THAT(Watch({.after = first.cursor}).Texts(3), ElementsAre("1", "2", "3"));
    EXPECT_EQ(hub->Streams(), 2U);
}

// --- Many viewers ---

TEST_F(LogHubs, ServeAllViewersFromOneStream) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 50));
    follow = Silent(NumberedLines(1, 60));
    std::vector<std::thread> threads;
    for (int i = 0; i < 20; ++i) {
        threads.emplace_back([&] { EXPECT_EQ(Watch({.tail = LogStart::All}).Texts(60).size(), 60U); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(LogRequests().size(), 2U);
    EXPECT_EQ(hub->Streams(), 1U);
    EXPECT_EQ(hub->Viewers(), 0U);
}

TEST_F(LogHubs, TellASlowViewerHowManyLinesItHasMissed) {
    Serve(Few(10));
    std::atomic<bool> mayGoOn{false};
    follow = [&](Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(NumberedLines(1, 5));
        Sandbox::Eventually([&] { return mayGoOn.load(); });
        connection.SendChunk(NumberedLines(6, 1000));
        connection.WaitForEnd();
    };
    auto quick = Watch({.tail = LogStart::All});
    auto slow = Watch({.tail = LogStart::All}, 1);
    EXPECT_EQ(quick.Texts(5).size(), 5U);
    EXPECT_THAT(slow.Texts(2), ElementsAre("1", "2"));
    mayGoOn = true;
    std::string last;
    while (last != "1000") {
        last = quick.Texts(1).back();
    }

    EXPECT_THAT(slow.Texts(3), ElementsAre("[skipped 988]", "991", "992"));
}

TEST_F(LogHubs, BoundMessages) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 1000));
    follow = Silent(NumberedLines(1, 1000));
    auto viewer = Open({.tail = LogStart::All}).viewer;
    viewer->Next(1000);
    size_t messages = 0;
    while (const auto message = viewer->Next(1000)) {
        EXPECT_THAT(message->size(), Lt(1001U));
        ++messages;
    }
    EXPECT_THAT(messages, testing::AllOf(testing::Gt(100U), Lt(200U)));
}

TEST_F(LogHubs, CallBackOnceForEachCall) {
    std::atomic<int> sent{0};
    std::atomic<int> wanted{0};
    follow = [&](Connection& connection) {
        connection.StartChunked();
        while (sent < 2 && Sandbox::Eventually([&] { return wanted > sent; })) {
            ++sent;
            connection.SendChunk(Line(sent, "x"));
        }
        connection.WaitForEnd();
    };
    auto viewer = Open().viewer;
    std::atomic<int> calls{0};
    const auto call = [&] { ++calls; };
    viewer->NotifyOnce(call);
    EXPECT_EQ(calls, 1) << "there is the start";
    viewer->Next(100);
    EXPECT_EQ(viewer->Next(100), std::nullopt);
    viewer->NotifyOnce(call);
    EXPECT_EQ(calls, 1);
    wanted = 1;
    EXPECT_TRUE(Sandbox::Eventually([&] { return calls == 2; }));
    wanted = 2;
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(calls, 2);
    viewer->NotifyOnce(call);
    EXPECT_EQ(calls, 3) << "there is a line already";
}

// --- The end ---

TEST_F(LogHubs, GiveTheLogOfAContainerThatDoesNotRunAndItsExitCode) {
    inspect = ScriptedServer::Answer(200, State("exited", 3));
    history = ScriptedServer::Answer(200, NumberedLines(1, 2));

    auto viewer = Watch();

    EXPECT_THAT(viewer.Texts(), ElementsAre("1", "2", "[exited exit code 3]"));
    EXPECT_TRUE(viewer.Viewer().HasEnded());
    EXPECT_EQ(viewer.Viewer().Next(1000), std::nullopt);
    EXPECT_EQ(LogRequests().size(), 1U);
}

TEST_F(LogHubs, SayThatTheContainerHasEndedAfterItsLastLine) {
    history = ScriptedServer::Answer(200, NumberedLines(1, 2));
    follow = [&](Connection& connection) {
        inspect = ScriptedServer::Answer(200, State("exited", 137));
        ScriptedServer::SendAnswer(connection, 200, NumberedLines(1, 5));
    };
    EXPECT_THAT(Watch().Texts(), ElementsAre("1", "2", "3", "4", "5", "[exited exit code 137]"));
    EXPECT_TRUE(Sandbox::Eventually([&] { return hub->Streams() == 0; }));
}

TEST_F(LogHubs, SayThatTheContainerIsGone) {
    follow = [&](Connection& connection) {
        inspect = ScriptedServer::Answer(404, "{}");
        ScriptedServer::SendAnswer(connection, 200, NumberedLines(1, 1));
    };
    EXPECT_THAT(Watch().Texts(), ElementsAre("1", "[removed the container is gone]"));
}

TEST_F(LogHubs, SayThatPodmanIsGone) {
    follow = [&](Connection& connection) {
        inspect = [](Connection&) {};
        connection.StartChunked();
        connection.SendChunk(NumberedLines(1, 1) + NumberedLines(2, 2).substr(0, 20));
    };
    EXPECT_THAT(Watch().Texts(), ElementsAre("1", "[podman no answer from Podman]"));
}

TEST_F(LogHubs, GiveThePodmanErrorThatKeepsTheLogAway) {
    history =
        ScriptedServer::Answer(500, R"({"cause":"this container has no logs","message":"","response":500})");
    EXPECT_THAT(Watch().Texts(), ElementsAre("[error Podman refuses with 500: this container has no logs]"));
}

TEST_F(LogHubs, GoOnWhenTheContainerRunsAgain) {
    std::atomic<int> streams{0};
    follow = [&](Connection& connection) {
        if (++streams == 1) {
            ScriptedServer::SendAnswer(connection, 200, NumberedLines(1, 3));
        } else {
            Silent(NumberedLines(3, 5))(connection);
        }
    };
    EXPECT_THAT(Watch().Texts(5), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(LogHubs, GiveUpOnAStreamThatEndsAgainAndAgain) {
    follow = ScriptedServer::Answer(200, NumberedLines(1, 1));
    EXPECT_THAT(Watch().Texts(), ElementsAre("1", "[error Podman ends the log although the container runs]"));
    EXPECT_THAT(LogRequests().size(), Lt(8U));
}

TEST_F(LogHubs, TellViewersThatOutliveThemThatTheyStop) {
    follow = Silent(NumberedLines(1, 2));
    auto viewer = Watch();
    EXPECT_EQ(viewer.Texts(2).size(), 2U);
    std::thread reader([&] { EXPECT_THAT(viewer.Texts(), ElementsAre("[stopping the service stops]")); });
    const auto begin = steady_clock::now();

    hub.reset();

    EXPECT_THAT(steady_clock::now() - begin, Lt(std::chrono::seconds(3)));
    reader.join();
    EXPECT_TRUE(Sandbox::Eventually([&] { return LiveConnections() == 0; }));
}

TEST_F(LogHubs, GoOnAfterTheLastLineAlsoWhenPodmanIsSlow) {
    Serve(Few(100));
    history = [](Connection& connection) {
        std::this_thread::sleep_for(milliseconds(5500));
        ScriptedServer::SendAnswer(connection, 200, NumberedLines(1, 4));
    };
    follow = Silent(NumberedLines(4, 8));
    const LogCursor last{Id, LogMark{1769817600003000000, 1}};

    auto viewer = Watch({.after = last.Write()});

    EXPECT_THAT(viewer.Texts(5), ElementsAre("4", "5", "6", "7", "8"));
    Serve(Few(100));
    EXPECT_THAT(Watch({.tail = 2}).Texts(7), ElementsAre("2", "3", "4", "5", "6", "7", "8"))
        << "not from the first one on";
}

// --- Errors ---

TEST_F(LogHubs, RefuseWhatIsNoCursor) {
    for (const std::string cursor : {"x", "-", "a-b-c-d", "0123456789abcdef-1-0", "0123456789abcdef-1-1 "}) {
        const auto opened = Open({.after = cursor});
        EXPECT_EQ(opened.viewer, nullptr) << cursor;
        EXPECT_EQ(opened.error.kind, LogError::Kind::BadCursor);
    }
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(LogHubs, SayThatThereIsNoSuchContainer) {
    inspect = ScriptedServer::Answer(404, "{}");
    EXPECT_EQ(Open().error.kind, LogError::Kind::NotFound);
    EXPECT_EQ(Open({}, "../images").error.kind, LogError::Kind::NotFound);
    EXPECT_EQ(Asked().size(), 1U);
    EXPECT_EQ(hub->Viewers(), 0U);
}

TEST_F(LogHubs, SayThatPodmanDoesNotAnswer) {
    inspect = [](Connection&) {};
    EXPECT_EQ(Open().error.kind, LogError::Kind::NoPodman);
    inspect = ScriptedServer::Answer(200, "[1]");
    EXPECT_EQ(Open().error.kind, LogError::Kind::NoPodman);
}

TEST_F(LogHubs, RefuseMoreContainersThanTheLimitUnlessOneIsNotWatched) {
    LogHub::Limits limits;
    limits.containers = 1;
    Serve(limits);
    auto first = Open();
    inspect = ScriptedServer::Answer(200, State("running", 0, false, "fedcba9876543210"));

    EXPECT_EQ(Open().error.kind, LogError::Kind::TooMany);
    first.viewer.reset();
    EXPECT_NE(Open().viewer, nullptr);
    EXPECT_EQ(hub->Streams(), 1U);
}

/// As when a hub is stopped while it opens a log.
TEST_F(LogHubs, StartNoStreamThatHasBeenStopped) {
    const auto state = ContainerState::Read(State("running"));
    const auto log = std::make_shared<ContainerLog>(Id, false, 10, 100000);
    bool isDone = false;
    PodmanLog reader(QxNContainer::QxCContainer::GetInstance(), *state, log, {10, 100000, 1000},
                     [&] { isDone = true; });
    reader.Stop();
    reader.Join();
    reader.Start();
    EXPECT_FALSE(isDone);
    EXPECT_EQ(log->TheEnding().code, "stopping");
    EXPECT_THAT(LogRequests(), IsEmpty());
}

TEST_F(LogHubs, SayThatTheyStop) {
    auto first = Open();
    hub->Stop();
    const auto refused = Open();
    EXPECT_EQ(refused.viewer, nullptr);
    EXPECT_EQ(refused.error.kind, LogError::Kind::Stopping);
    EXPECT_EQ(refused.error.text, "the service stops");
}

// --- Streams that nobody watches ---

TEST_F(LogHubs, KeepAStreamForAViewerThatComesBackSoon) {
    Watch();
    Watch();
    EXPECT_EQ(hub->Viewers(), 0U);
    EXPECT_EQ(hub->Streams(), 1U);
    EXPECT_TRUE(Sandbox::Eventually([&] { return LogRequests().size() == 2; }));
    Watch();
    EXPECT_EQ(LogRequests().size(), 2U);
}

TEST_F(LogHubs, EndAStreamThatNobodyWatches) {
    Serve(Few(10));
    auto other = Watch();
    Watch();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(hub->Streams(), 1U);
    const auto left = steady_clock::now();
    other = LogWatcher(nullptr);
    EXPECT_TRUE(Sandbox::Eventually([&] { return LiveConnections() == 0; }));
    EXPECT_EQ(hub->Streams(), 0U);
    EXPECT_THAT(steady_clock::now() - left, Lt(milliseconds(2500)));
}

size_t Threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST_F(LogHubs, LeaveDescriptorsAndThreadsAsTheyWere) {
    Serve(Few(10));
    inspect = ScriptedServer::Answer(200, State("exited"));
    history = ScriptedServer::Answer(200, NumberedLines(1, 5));
    const auto round = [&] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(Watch().Texts().back(), "[exited exit code 0]");
        }
        EXPECT_TRUE(Sandbox::Eventually([&] { return hub->Streams() == 0 && LiveConnections() == 0; }));
    };
    round();
    const size_t threads = Threads();
    const size_t descriptors = Sandbox::OpenDescriptors().size();
    for (int i = 0; i < 30; ++i) {
        round();
    }
    // The scripted Podman collects its ended connections when the next one comes.
    EXPECT_NEAR(static_cast<double>(Threads()), static_cast<double>(threads), 10);
    EXPECT_NEAR(static_cast<double>(Sandbox::OpenDescriptors().size()), static_cast<double>(descriptors), 10);
    EXPECT_LE(Recording::LiveLists(), 0);
}

}  // namespace
