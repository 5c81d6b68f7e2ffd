#include "Sandbox.h"
#include "host/api/Program.h"
#include "support/ChildProcess.h"
#include "support/ProcessEnd.h"

#include <gmock/gmock.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <csignal>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using testing::IsEmpty;

/// A signal a thousand times a second that interrupts calls, for as long as this lives.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        Repeat(1000);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;
    ~Interruptions() { Repeat(0); }

private:
    static void Repeat(suseconds_t period) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

TEST(Program, GivesWhatItPrintsAndItsCode) {
    const ProgramOutcome outcome =
        RunProgram("/bin/sh", {"sh", "-c", "cat; echo more >&2; exit 3"}, "text\n", seconds(60));

    EXPECT_TRUE(outcome.hasStarted);
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.output, "text\nmore\n");
}

TEST(Program, ThatCannotBeStartedIsSaidSo) {
    EXPECT_FALSE(RunProgram("/no/such/program", {"program"}, "", seconds(60)).hasStarted);
}

TEST(Program, EndsAtItsDeadlineAndNotBeforeWhateverSignalsCome) {
    const Interruptions interruptions;
    const auto begin = Clock::now();

    const ProgramOutcome outcome = RunProgram("/bin/sleep", {"sleep", "1000"}, "", milliseconds(500));

    EXPECT_EQ(outcome.exitCode, -1);
    EXPECT_GE(Clock::now() - begin, milliseconds(500));
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(ProcessEnd, IsAwaitedWhateverSignalsCome) {
    const Interruptions interruptions;
    const QxNSupport::SpawnResult child = QxNSupport::Spawn("/bin/sh", {"sh", "-c", "exec sleep 0.3"});
    const QxNSupport::UniqueFd process = QxNSupport::OpenPidfd(child.pid);

    EXPECT_TRUE(QxNSupport::AwaitEnd(process.Get(), Clock::now() + seconds(60)));

    EXPECT_EQ(waitpid(child.pid, nullptr, WNOHANG), child.pid);
}

TEST(ProcessEnd, IsAwaitedUntilTheDeadlineOnly) {
    const Interruptions interruptions;
    const auto begin = Clock::now();

    EXPECT_FALSE(QxNSupport::AwaitEnd(QxNSupport::OpenPidfd(getpid()).Get(), begin + milliseconds(300)));
    EXPECT_GE(Clock::now() - begin, milliseconds(300));
    EXPECT_FALSE(QxNSupport::AwaitEnd(-1, begin + milliseconds(400))) << "nothing to wait for";
    EXPECT_GE(Clock::now() - begin, milliseconds(400));
    EXPECT_FALSE(QxNSupport::AwaitEnd(-1, begin)) << "a deadline in the past";
}

}  // namespace
