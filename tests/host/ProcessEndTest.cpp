#include "support/ProcessEnd.h"

#include "Interruptions.h"
#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

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
