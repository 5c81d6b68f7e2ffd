#include "LogHub.h"
#include "LogWatcher.h"
#include "PodmanOnBoard.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

using namespace OnBoard;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::Lt;

namespace {

class LogHubOnBoard : public PodmanOnBoard {
protected:
    void SetUp() override {
        PodmanOnBoard::SetUp();
        Serve();
    }
    void TearDown() override {
        hub.reset();
        PodmanOnBoard::TearDown();
    }

    void Serve(const LogHub::Limits& limits = {}) {
        hub.reset();
        hub = std::make_unique<LogHub>(service, limits);
    }

    LogWatcher Watch(const std::string& container,
                     const LogStart& start = {.tail = LogStart::All, .after = {}}, size_t maxBytes = 65536) {
        LogHub::Opened opened = hub->Open(container, start);
        if (opened.viewer == nullptr) {
            ADD_FAILURE() << opened.error.text;
            abort();
        }
        return LogWatcher(std::move(opened.viewer), maxBytes);
    }

    std::unique_ptr<LogHub> hub;
};

/// Joins the parts of lines of one source that count upwards, and finds what is missing or double.
class Counting {
public:
    void Take(const QxNJson::json& line) {
        _text += line["text"].get<std::string>();
        if (line.contains("partial")) {
            return;
        }
        const long number = std::stol(_text);
        _text.clear();
        EXPECT_TRUE(last == 0 || number == last + 1) << number << " after " << last;
        last = number;
        ++count;
    }

    long last = 0;
    long count = 0;

private:
    std::string _text;
};

/// Lines of eight bytes, so that reading in blocks cuts none.
constexpr const char* CountForEver = "i=1000000; while :; do i=$((i+1)); echo $i; done";
/// As fast as Podman can still read behind, also on a busy machine.
constexpr const char* CountFast =
    "i=0; while :; do i=$((i+1)); echo $i; [ $((i % 500)) = 0 ] && sleep 0.05; done";

// --- What is shown ---

TEST_F(LogHubOnBoard, FollowsAContainerAcrossItsEnd) {
    Run("counter", "for i in 1 2 3; do echo $i; sleep 0.5; done; echo last; exit 7");
    EXPECT_THAT(Watch("counter").Texts(), ElementsAre("1", "2", "3", "last", "[exited exit code 7]"));
    EXPECT_THAT(Watch("counter", {.tail = 2, .after = {}}).Texts(),
                ElementsAre("3", "last", "[exited exit code 7]"));
}

TEST_F(LogHubOnBoard, TellsTheStreamsApartAndKeepsTheirOrder) {
    Run("both",
        "for i in 1 2 3 4 5; do echo out $i; sleep 0.02; echo err $i >&2; sleep 0.02; done; sleep 1000");
    auto running = Watch("both");
    const auto lines = running.Lines(10);
    ASSERT_EQ(lines.size(), 10U);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i]["stream"], i % 2 == 0 ? "stdout" : "stderr");
        EXPECT_EQ(lines[i]["text"], (i % 2 == 0 ? "out " : "err ") + std::to_string(i / 2 + 1));
    }
}

TEST_F(LogHubOnBoard, ShowsTerminalsWithLinesThatAreNotComplete) {
    Run("screen", "echo one; printf login:; sleep 2; echo root", "-t");
    auto viewer = Watch("screen");
    const QxNJson::json start = viewer.Next();
    const auto lines = viewer.Lines(3);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(start["tty"], true);
    EXPECT_EQ(lines[0]["text"], "one");
    EXPECT_EQ(lines[0]["stream"], "tty");
    EXPECT_EQ(lines[1]["text"], "login:");
    EXPECT_EQ(lines[1]["partial"], true);
    EXPECT_EQ(lines[2]["text"], "root");
}

TEST_F(LogHubOnBoard, CutsLongLinesAndReplacesBadBytes) {
    Run("long", "head -c 40000 /dev/zero | tr \"\\0\" x; echo; printf \"a\\377b\\n\"");
    auto viewer = Watch("long");
    std::string text;
    size_t parts = 0;
    for (const auto& line : viewer.Lines(SIZE_MAX)) {
        if (line.contains("text")) {
            EXPECT_LE(line["text"].get<std::string>().size(), 16384U);
            text += line["text"].get<std::string>() + (line.contains("partial") ? "" : "\n");
            ++parts;
        }
    }
    EXPECT_EQ(text, std::string(40000, 'x') + "\na\xef\xbf\xbd" + "b\n");
    EXPECT_GT(parts, 3U);
}

TEST_F(LogHubOnBoard, ShowsContainersThatNeverRanAndThatAreRemoved) {
    Output("podman create --name never --network=none localhost/busybox:1 true");
    EXPECT_THAT(Watch("never").Texts(), ElementsAre("[exited created]"));

    Run("talker", "echo one; sleep 1000");
    auto viewer = Watch("talker");
    EXPECT_THAT(viewer.Texts(1), ElementsAre("one"));
    Output("podman rm -f -t 0 talker");
    EXPECT_THAT(viewer.Texts(), ElementsAre("[removed the container is gone]"));
    EXPECT_EQ(hub->Open("talker", {}).error.kind, LogError::Kind::NotFound);
}

TEST_F(LogHubOnBoard, GoesOnWithAContainerThatPodmanStartsAgain) {
    Run("again", "echo run; sleep 1; exit 3", "--restart=always");
    EXPECT_THAT(Watch("again").Texts(3), ElementsAre("run", "run", "run"));
}

TEST_F(LogHubOnBoard, SaysThatPodmanHasGone) {
    Run("talker", "echo one; sleep 1000");
    auto viewer = Watch("talker");
    EXPECT_THAT(viewer.Texts(1), ElementsAre("one"));
    for (const pid_t podman : Processes("podman system service")) {
        kill(podman, SIGKILL);
    }
    EXPECT_THAT(viewer.Texts(), ElementsAre("[podman no answer from Podman]"));
}

// --- Completeness ---

TEST_F(LogHubOnBoard, LosesAndDoublesNothingWhileTheLogGrows) {
    Run("flood", CountFast);
    LogHub::Limits limits;
    limits.ringLines = 500000;
    limits.ringBytes = 256 * 1024 * 1024;
    limits.linger = milliseconds(1);
    for (int round = 0; round < 4; ++round) {
        Serve(limits);
        Counting counting;
        auto viewer = Watch("flood");
        while (counting.count < 15000) {
            for (const auto& line : viewer.Lines(1)) {
                ASSERT_TRUE(line.contains("text")) << line.dump();
                counting.Take(line);
            }
        }
        std::this_thread::sleep_for(milliseconds(100));
    }
}

TEST_F(LogHubOnBoard, GoesOnBehindACursorAcrossHubsAndStarts) {
    Run("counter",
        "i=0; while [ $i -lt 400 ]; do i=$((i+1)); echo $i; [ $((i % 20)) = 0 ] && sleep 0.1; done; sleep "
        "1000");
    Counting counting;
    std::string cursor;
    while (counting.last < 400) {
        Serve();
        auto viewer = Watch("counter", {.tail = LogStart::All, .after = cursor}, 1);
        for (const auto& line : viewer.Lines(37)) {
            ASSERT_TRUE(line.contains("text")) << line.dump();
            counting.Take(line);
            cursor = line["cursor"].get<std::string>();
            if (counting.last == 400) {
                break;
            }
        }
    }
    EXPECT_EQ(counting.count, 400);
}

TEST_F(LogHubOnBoard, GivesEverythingOfAContainerThatWasMadeAnew) {
    Run("web", "echo old; sleep 1000");
    auto old = Watch("web");
    EXPECT_THAT(old.Texts(1), ElementsAre("old"));
    Output("podman rm -f -t 0 web");
    Run("web", "echo new 1; echo new 2; sleep 1000");

    auto viewer = Watch("web", {.tail = 0, .after = old.cursor});

    EXPECT_THAT(viewer.Texts(2), ElementsAre("new 1", "new 2"));
    EXPECT_THAT(viewer.cursor.substr(0, 12), testing::Ne(old.cursor.substr(0, 12)));
}

// --- Many viewers ---

size_t ConnectionsToPodman() {
    return static_cast<size_t>(std::stoi(Output("grep -c 'podman.sock' /proc/net/unix")));
}

TEST_F(LogHubOnBoard, ServesTwentyViewersFromOneStream) {
    Run("ticker", "i=0; while :; do i=$((i+1)); echo $i; sleep 0.1; done");
    auto first = Watch("ticker");
    first.Texts(1);
    const size_t connections = ConnectionsToPodman();
    std::vector<std::thread> threads;
    std::atomic<int> connected{0};
    for (int i = 0; i < 19; ++i) {
        threads.emplace_back([&] {
            Counting counting;
            auto viewer = Watch("ticker");
            ++connected;
            while (counting.last < 40) {
                for (const auto& line : viewer.Lines(1)) {
                    counting.Take(line);
                }
            }
            EXPECT_EQ(counting.count, counting.last);
        });
    }
    ASSERT_TRUE(Eventually([&] { return connected == 19; }));
    EXPECT_EQ(hub->Viewers(), 20U);
    EXPECT_EQ(hub->Streams(), 1U);
    EXPECT_LE(ConnectionsToPodman(), connections);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(LogHubOnBoard, TellsASlowViewerExactlyHowManyLinesOfAFloodItHasMissed) {
    Run("flood", CountForEver);
    auto slow = Watch("flood", {.tail = 10, .after = {}}, 1);
    long last = 0;
    long skipped = 0;
    int gaps = 0;
    for (int round = 0; round < 2000 && gaps < 3; ++round) {
        const auto lines = slow.Lines(1);
        ASSERT_EQ(lines.size(), 1U);
        if (!lines[0].contains("text")) {
            skipped += lines[0]["count"].get<long>();
            continue;
        }
        const long number = std::stol(lines[0]["text"].get<std::string>());
        EXPECT_TRUE(last == 0 || number == last + skipped + 1)
            << number << " after " << last << " and " << skipped;
        gaps += skipped != 0 ? 1 : 0;
        last = number;
        skipped = 0;
        std::this_thread::sleep_for(milliseconds(gaps == 0 ? 10 : 500));
    }
    EXPECT_EQ(gaps, 3);
}

size_t Threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

long Sockets() {
    const auto descriptors = OpenDescriptors();
    return std::count_if(descriptors.begin(), descriptors.end(),
                         [](const std::string& name) { return name.starts_with("socket:"); });
}

size_t ResidentKilobytes() {
    std::ifstream file("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    file >> total >> resident;
    return resident * 4;
}

TEST_F(LogHubOnBoard, LeavesNothingAfterTwoHundred) {
    Run("talker", "echo one; sleep 1000");
    LogHub::Limits limits;
    limits.linger = milliseconds(1);
    Serve(limits);
    const auto open = [&](int times) {
        for (int i = 0; i < times; ++i) {
            EXPECT_THAT(Watch("talker").Texts(1), ElementsAre("one"));
        }
        EXPECT_TRUE(Eventually([&] { return hub->Streams() == 0 && Sockets() == 0; }));
    };
    open(20);
    const auto descriptors = OpenDescriptors();
    const size_t threads = Threads();
    const size_t memory = ResidentKilobytes();
    for (int i = 0; i < 10; ++i) {
        open(20);
    }
    EXPECT_TRUE(Eventually([&] { return Threads() == threads; })) << Threads();
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_LT(ResidentKilobytes(), memory + 2048);
}

TEST_F(LogHubOnBoard, EndsAStreamThatNobodyWatchesSoon) {
    Run("silent", "echo one; sleep 1000");
    LogHub::Limits limits;
    limits.linger = milliseconds(100);
    Serve(limits);
    const size_t connections = ConnectionsToPodman();
    Watch("silent");
    const auto left = steady_clock::now();
    EXPECT_TRUE(Eventually([&] { return hub->Streams() == 0 && ConnectionsToPodman() <= connections; }));
    EXPECT_THAT(steady_clock::now() - left, Lt(milliseconds(2500)));
}

}  // namespace
