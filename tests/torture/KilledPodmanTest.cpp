// Podman is killed at random moments while the service starts, runs and stops.

#include "QxCContainer.h"
#include "tests/unit/Board.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <mutex>
#include <random>
#include <set>
#include <thread>

using QxNContainer::QxCContainer;
using testing::IsEmpty;

namespace {

std::mutex signalledMutex;
std::set<pid_t> signalled;
std::atomic<int> signalledTwice{0};
std::atomic<int> signalledAfterTheEnd{0};

}  // namespace

extern "C" {

/// As the library calls it.
int kill(pid_t pid, int signal) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        ++signalledAfterTheEnd;  // no child of ours, or collected already: the number can be anybody's
    }
    const std::lock_guard lock(signalledMutex);
    signalledTwice += signalled.insert(pid).second ? 0 : 1;
    return static_cast<int>(syscall(SYS_kill, pid, signal));
}

/// Shorter than the time that services get before they are watched.
int nanosleep(const timespec*, timespec*) { return usleep(4000); }

void sync() {}
}

namespace {

constexpr int Kills = 125;
constexpr unsigned int DeadlineSeconds = 20;

/// Kills children of this process, one by one, in a thread of its own.
class Killer {
public:
    /// @param longestPause  microseconds between two kills, at most
    Killer(unsigned int seed, useconds_t longestPause)
        : _random(seed), _longestPause(longestPause), _thread([this] { Kill(); }) {}
    Killer(const Killer&) = delete;
    Killer& operator=(const Killer&) = delete;
    ~Killer() {
        _ends = true;
        _thread.join();
    }

    int Count() const { return _count; }

private:
    void Kill() {
        while (!_ends) {
            usleep(std::uniform_int_distribution<useconds_t>(0, _longestPause)(_random));
            const std::vector<int> children = Sandbox::Children();
            if (!children.empty()) {
                const int chosen =
                    children[std::uniform_int_distribution<size_t>(0, children.size() - 1)(_random)];
                _count += Runs(chosen) && syscall(SYS_kill, chosen, SIGKILL) == 0 ? 1 : 0;
            }
        }
    }

    /// @return whether a child has not ended yet; one that nobody has collected takes every signal
    static bool Runs(int child) {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    std::mt19937 _random;
    const useconds_t _longestPause;
    std::atomic<bool> _ends{false};
    std::atomic<int> _count{0};
    std::thread _thread;
};

class KilledPodman : public testing::TestWithParam<unsigned int> {};

TEST_P(KilledPodman, StopReturnsAndLeavesNothing) {
    Board::ProvideContainerSystem(R"({"enabled": true, "tcp_port": 8080})");
    Sandbox::WriteFile("/bin/podman",
                       "#!/bin/sh\ncase \"$1\" in\nsystem) exec sleep 1000;;\nesac\nsleep 0.003\n");
    chmod("/bin/podman", 0755);
    QxCContainer& service = QxCContainer::GetInstance();
    std::mt19937 random(GetParam());
    const std::vector<std::string> descriptors = Sandbox::OpenDescriptors();
    signal(SIGALRM, [](int) {
        constexpr char Text[] = "Stop() did not return\n";
        static_cast<void>(!write(STDERR_FILENO, Text, sizeof(Text) - 1));
        _exit(1);
    });

    int kills = 0;
    int cycles = 0;
    for (; kills < Kills; ++cycles) {
        signalled.clear();
        {
            // Many kills in every cycle, or hardly one.
            Killer killer(GetParam() * 100000 + static_cast<unsigned int>(cycles),
                          GetParam() % 2 == 0 ? 5000 : 60000);
            ASSERT_TRUE(service.Start());
            usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
            alarm(DeadlineSeconds);
            EXPECT_TRUE(service.Stop());
            alarm(0);
            kills += killer.Count();
        }
        ASSERT_THAT(Sandbox::Children(), IsEmpty()) << "in cycle " << cycles;
        ASSERT_EQ(signalledTwice, 0) << "in cycle " << cycles;
        ASSERT_EQ(signalledAfterTheEnd, 0) << "in cycle " << cycles;
        Recording::Forget();
    }
    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_EQ(Recording::LiveLists(), 0);
    printf("%d kills in %d cycles\n", kills, cycles);
}

INSTANTIATE_TEST_SUITE_P(Seeds, KilledPodman, testing::Range(1U, 9U));

}  // namespace
