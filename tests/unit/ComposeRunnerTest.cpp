#include "ComposeAccess.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/LimitedMemory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>
#include <thread>

using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class ComposeRunner : public testing::Test, protected ComposeFileHandlerTest {
protected:
    static void LogAt(const char* level) { TheScript().logLevel = level; }
};

TEST_F(ComposeRunner, GivesStandardOutputOfASuccessfulProgramAndDropsItsErrors) {
    LogAt("DEBUG_VERBOSE");

    EXPECT_THAT(RunScript("echo told; echo warned >&2"), Pair(0, "told\n"));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeRunner, GivesNothingForASilentProgram) { EXPECT_THAT(RunScript("exit 0"), Pair(0, "")); }

TEST_F(ComposeRunner, KeepsZeroBytesAndBytesThatAreNoText) {
    EXPECT_THAT(RunScript(R"(printf 'a\0b\377\r\n')"), Pair(0, std::string("a\0b\377\r\n", 6)));
}

// --- Failures of the program ---

TEST_F(ComposeRunner, ReportsTheErrorsOfAProgramThatFailsAndItsStatusInTheLogOnly) {
    LogAt("DEBUG_VERBOSE");

    EXPECT_THAT(RunScript("echo told; echo broken >&2; exit 3"), Pair(6, "broken\n"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   executing of command failed: '/bin/sh "
                    "sh -c echo told; echo broken >&2; exit 3'",
                    "[DEBUG_VERBOSE] Quolex Container Service:   return code = 3, broken\n"));
}

TEST_F(ComposeRunner, ReportsEveryStatusAsTheSameCode) {
    LogAt("DEBUG_VERBOSE");
    for (const int status : {1, 127, 128, 255}) {
        Recording::Forget();

        EXPECT_THAT(RunScript("exit " + std::to_string(status)), Pair(6, "")) << status;

        ASSERT_EQ(Recording::Logs().size(), 2U);
        EXPECT_EQ(Recording::Logs()[1], "[DEBUG_VERBOSE] Quolex Container Service:   return code = " +
                                            std::to_string(status) + ", ");
    }
}

TEST_F(ComposeRunner, SaysNothingOfAFailureAtLevelDebug) {
    LogAt("DEBUG");

    EXPECT_THAT(RunScript("exit 1"), Pair(6, ""));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeRunner, ReportsAKilledProgramWithItsErrors) {
    LogAt("DEBUG_VERBOSE");

    EXPECT_THAT(RunScript("echo told; printf last >&2; kill -9 $$"),
                Pair(6, "command terminated abnormally: last"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Service:   command '/bin/sh sh -c echo told; printf last "
                    ">&2; kill -9 $$' killed by signal 9"));
}

TEST_F(ComposeRunner, NamesTheKillingSignalAtLevelDebug) {
    LogAt("DEBUG");

    EXPECT_THAT(RunScript("ulimit -c unlimited; kill -SEGV $$"), Pair(6, "command terminated abnormally: "));
    EXPECT_THAT(Recording::Logs(), ElementsAre(testing::EndsWith("' killed by signal 11")));
}

TEST_F(ComposeRunner, SaysNothingOfAKilledProgramAtLevelInfo) {
    EXPECT_THAT(RunScript("kill -TERM $$"), Pair(6, "command terminated abnormally: "));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

// --- Programs that do not start ---

TEST_F(ComposeRunner, ReportsAMissingProgramNamingItTwice) {
    LogAt("DEBUG_VERBOSE");

    EXPECT_THAT(RunProgram("/no/such/tool", {"tool", "-f", "x"}),
                Pair(5, "spawning command failed: No such file or directory"));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   executing of command failed: "
                            "'/no/such/tool tool -f x'",
                            "[DEBUG_VERBOSE] Quolex Container Service:   No such file or directory"));
}

TEST_F(ComposeRunner, SaysNothingOfAMissingProgramAtLevelDebug) {
    LogAt("DEBUG");

    EXPECT_EQ(RunProgram("/no/such/tool", {"tool"}).first, 5);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeRunner, ReportsWhatCannotBeExecuted) {
    Sandbox::WriteFile("/plain", "#!/bin/sh\n");
    chmod("/plain", 0644);
    Sandbox::WriteFile("/empty", "");
    chmod("/empty", 0755);
    const std::string failed = "spawning command failed: ";

    EXPECT_THAT(RunProgram("/plain", {"x"}), Pair(5, failed + "Permission denied"));
    EXPECT_THAT(RunProgram("/etc", {"x"}), Pair(5, failed + "Permission denied"));
    EXPECT_THAT(RunProgram("/plain/x", {"x"}), Pair(5, failed + "Not a directory"));
    EXPECT_THAT(RunProgram("/empty", {"x"}), Pair(5, failed + "Exec format error"));
    EXPECT_THAT(RunProgram("/bin/true", {"x", std::string(300000, 'a')}),
                Pair(5, failed + "Argument list too long"));
}

TEST_F(ComposeRunner, DoesNotLookForTheProgramInThePath) {
    EXPECT_THAT(RunProgram("sh", {"sh", "-c", "exit 0"}),
                Pair(5, "spawning command failed: No such file or directory"));
}

/// Allows only so many more descriptors than are open.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t more) {
        const int next = dup(0);
        close(next);
        getrlimit(RLIMIT_NOFILE, &_before);
        const rlimit limit{static_cast<rlim_t>(next) + more, _before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &_before); }

private:
    rlimit _before{};
};

TEST_F(ComposeRunner, ReportsMissingDescriptorsAsAProgramThatDidNotStart) {
    LogAt("DEBUG_VERBOSE");
    // The same path once before: a sanitizer that sees an object for the first time takes descriptors itself.
    ASSERT_EQ(RunProgram("/no/such/tool", {"tool"}).first, 5);
    const auto descriptors = Sandbox::OpenDescriptors();
    for (const rlim_t more : {0U, 1U, 2U, 3U}) {
        Recording::Forget();
        Result result;
        {
            const FewDescriptors limit(more);
            result = RunProgram("/bin/true", {"true"});
        }
        EXPECT_THAT(result, Pair(5, "spawning command failed: Too many open files")) << more;
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   executing of command failed: "
                                "'/bin/true true'",
                                "[DEBUG_VERBOSE] Quolex Container Service:   Too many open files"));
    }
    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST_F(ComposeRunner, FourDescriptorsAreEnough) {
    const FewDescriptors limit(4);

    EXPECT_THAT(RunProgram("/bin/true", {"true"}), Pair(0, ""));
}

// --- Waiting ---

TEST_F(ComposeRunner, ReportsWhenTheStatusIsCollectedByOthers) {
    LogAt("DEBUG_VERBOSE");
    signal(SIGCHLD, SIG_IGN);

    const Result result = RunScript("echo told; echo warned >&2; exit 3");

    signal(SIGCHLD, SIG_DFL);
    EXPECT_THAT(result, Pair(6, "evaluating of command failed, can't read return code!"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[DEBUG_VERBOSE] Quolex Container Service:   evaluating of command failed: '/bin/sh sh -c "
            "echo told; echo warned >&2; exit 3'",
            "[DEBUG_VERBOSE] Quolex Container Service:   can't get return code! No child processes"));
}

TEST_F(ComposeRunner, SaysNothingOfALostStatusAtLevelDebug) {
    LogAt("DEBUG");
    signal(SIGCHLD, SIG_IGN);

    const Result result = RunScript("exit 0");

    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(result.first, 6);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeRunner, DoesNotWaitAgainAfterAnInterruption) {
    LogAt("DEBUG_VERBOSE");
    constexpr FailingArgument WithoutOptions{2, 0};
    FailSystemCall(SYS_wait4, EINTR, WithoutOptions);

    EXPECT_THAT(RunProgram("/bin/true", {"true"}),
                Pair(6, "evaluating of command failed, can't read return code!"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[DEBUG_VERBOSE] Quolex Container Service:   evaluating of command failed: '/bin/true true'",
            "[DEBUG_VERBOSE] Quolex Container Service:   can't get return code! Interrupted system call"));
}

TEST_F(ComposeRunner, LeavesNoChildWhenMemoryRunsOutInTheMiddleOfItsOutput) {
    if (!LimitedMemory::IsPossible) {
        GTEST_SKIP() << "cannot run here: a sanitizer ends the process when it gets no memory";
    }
    const auto descriptors = Sandbox::OpenDescriptors();
    {
        const LimitedMemory limit(size_t{64} << 20);
        EXPECT_THROW(RunProgram("/usr/bin/yes", {"yes"}), std::bad_alloc);
    }
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
}

TEST_F(ComposeRunner, WaitsForAProgramThatClosedItsOutputsEarly) {
    const char* script =
        "for fd in /proc/$$/fd/*; do fd=${fd##*/}; [ $fd -lt 1 ] || exec {fd}>&-; done; sleep 0.3; "
        "echo done > /done; exit 4";

    EXPECT_THAT(RunProgram("/bin/bash", {"bash", "-c", script}), Pair(6, ""));
    EXPECT_EQ(Sandbox::ReadFile("/done"), "done\n");
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

/// @return the descriptor on which a thread of this process waits in read(2), with nothing to read; -1 for
/// none
int EmptyDescriptorReadBy(pid_t thread) {
    unsigned int descriptor = 0;
    int waiting = -1;
    const std::string call = Sandbox::ReadFile("/proc/self/task/" + std::to_string(thread) + "/syscall");
    const bool reads = sscanf(call.c_str(), "0 %x ", &descriptor) == 1;
    return reads && ioctl(static_cast<int>(descriptor), FIONREAD, &waiting) == 0 && waiting == 0
               ? static_cast<int>(descriptor)
               : -1;
}

TEST_F(ComposeRunner, AnInterruptedReadEndsTheCapture) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    const pid_t reader = gettid();
    std::thread interrupter([reader] {
        int descriptor = -1;
        Sandbox::Eventually([&] {
            descriptor = std::filesystem::exists("/written") ? EmptyDescriptorReadBy(reader) : -1;
            return descriptor >= 0;
        });
        tgkill(getpid(), reader, SIGUSR1);
        Sandbox::Eventually([&] { return fcntl(descriptor, F_GETFD) < 0; });
        Sandbox::WriteFile("/continue", "");
    });

    const Result result = RunScript(
        "trap '' PIPE; echo first; : > /written; until [ -e /continue ]; do sleep 0.01; done; echo more; "
        "exit 0");

    interrupter.join();
    EXPECT_THAT(result, Pair(0, "first\n"));
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

// --- The two pipes ---

TEST_F(ComposeRunner, HoldsErrorsThatFitIntoAPipeWhileItReadsTheOutput) {
    const std::string errors(60 * 1024, 'e');
    const std::string write = "head -c 61440 /dev/zero | tr '\\0' e >&2; echo done";

    EXPECT_THAT(RunScript(write), Pair(0, "done\n"));
    EXPECT_THAT(RunScript(write + "; exit 1"), Pair(6, errors));
}

TEST_F(ComposeRunner, CollectsOutputWithoutALimit) {
    const Result result = RunScript("head -c 9000001 /dev/zero | tr '\\0' o");

    EXPECT_EQ(result.first, 0);
    EXPECT_TRUE(result.second == std::string(9000001, 'o'));
    EXPECT_LE(result.second.capacity(), 2 * result.second.size()) << "the caller keeps that memory";
}

TEST_F(ComposeRunner, ReadsInPiecesOfFourKilobytes) {
    constexpr FailingArgument OfThatSize{2, 4096};
    // On a thread of its own: a count of what is reached is read at the end of the process.
    std::thread([&] {
        FailSystemCall(SYS_read, EIO, OfThatSize);
        EXPECT_THAT(RunScript("trap '' PIPE; echo x; exit 0"), Pair(0, ""));
    }).join();
}

/// @return whether this process holds a pipe with so many unread bytes
bool HasFullPipe(int unread) {
    for (const std::string& descriptor : Sandbox::OpenDescriptors()) {
        int waiting = 0;
        if (descriptor.find(" pipe:") != std::string::npos &&
            ioctl(std::stoi(descriptor), FIONREAD, &waiting) == 0 && waiting == unread) {
            return true;
        }
    }
    return false;
}

TEST_F(ComposeRunner, LeavesErrorsUnreadUntilTheOutputHasEnded) {
    bool wasFull = false;
    std::thread killer([&] {
        wasFull = Sandbox::Eventually([] { return HasFullPipe(65536); });
        kill(std::stoi(Sandbox::ReadFile("/pid")), SIGKILL);
    });

    const Result result = RunScript("echo $$ > /pid; exec head -c 70000 /dev/zero >&2");

    killer.join();
    EXPECT_TRUE(wasFull);
    EXPECT_THAT(result, Pair(6, "command terminated abnormally: " + std::string(65536, '\0')));
}

TEST_F(ComposeRunner, TheProgramHasTheWritingEndsOnly) {
    const Result result = RunScript(
        "for n in 1 2; do p=$(readlink /proc/$$/fd/$n); count=0; for fd in /proc/$$/fd/*; do "
        "if [ \"$(readlink $fd)\" = \"$p\" ]; then count=$((count + 1)); fi; done; echo $count >> /counts; "
        "done");

    EXPECT_EQ(result.first, 0);
    EXPECT_EQ(Sandbox::ReadFile("/counts"), "2\n2\n") << "the writing end, and its duplicate";
}

}  // namespace
