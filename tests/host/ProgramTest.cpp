#include "Interruptions.h"
#include "Sandbox.h"
#include "host/api/Program.h"

#include <gmock/gmock.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using testing::IsEmpty;

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

}  // namespace
