#include "PlatformTest.h"
#include "QxCBoardStatus.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

using namespace PlatformTest;
using testing::IsEmpty;

namespace {

constexpr const char* File = "/run/quolex/board-status";

struct Answer {
    int state;
    unsigned errors;
    bool operator==(const Answer&) const = default;
};

Answer ask(int selector = QxCBoardStatus::RealtimeApplicationLoaded, int instance = 0) {
    const auto errors = newErrorList();
    const int state = QxCBoardStatus::getState(*errors, selector, instance);
    return {state, errors->getErrorCount()};
}

TEST(BoardStatus, HasNoRealtimeApplicationWithoutAFile) { EXPECT_EQ(ask(), (Answer{0, 0})); }

TEST(BoardStatus, ReadsTheFileAtEachQuery) {
    Sandbox::WriteFile(File, "[Status]\nRealtimeApplicationLoaded=1\n");
    EXPECT_EQ(ask(), (Answer{1, 0}));

    Sandbox::WriteFile(File, "[Status]\nRealtimeApplicationLoaded=0\n");
    EXPECT_EQ(ask(), (Answer{0, 0}));
}

TEST(BoardStatus, ReadsTheConfiguredFile) {
    Sandbox::WriteFile("/etc/quolex/platform.ini", "[Status]\nFile = /run/other\n");
    Sandbox::WriteFile("/run/other", "[Status]\nRealtimeApplicationLoaded=1\n");

    EXPECT_EQ(ask(), (Answer{1, 0}));
}

TEST(BoardStatus, HasNoRealtimeApplicationWhenTheFileDoesNotMentionOne) {
    Sandbox::WriteFile(File, "[Status]\nOther=1\n");

    EXPECT_EQ(ask(), (Answer{0, 0}));
}

TEST(BoardStatus, ReportsAValueThatIsNeitherZeroNorOne) {
    Sandbox::WriteFile(File, "[Status]\nRealtimeApplicationLoaded=yes\n");

    EXPECT_EQ(ask(), (Answer{0, 1}));
}

TEST(BoardStatus, ReportsAMalformedFile) {
    Sandbox::WriteFile(File, "[Status]\nRealtimeApplicationLoad");

    EXPECT_EQ(ask(), (Answer{0, 1}));
}

TEST(BoardStatus, ReportsAFileThatCannotBeRead) {
    std::filesystem::create_directories(File);

    EXPECT_EQ(ask(), (Answer{0, 1}));
}

TEST(BoardStatus, DoesNotWaitForTheOtherEndOfAPipe) {
    std::filesystem::create_directories("/run/quolex");
    ASSERT_EQ(::mkfifo(File, 0600), 0);

    EXPECT_EQ(ask(), (Answer{0, 0}));
}

TEST(BoardStatus, ReportsOtherSelectorsAndInstances) {
    Sandbox::WriteFile(File, "[Status]\nRealtimeApplicationLoaded=1\n");

    EXPECT_EQ(ask(5), (Answer{0, 1}));
    EXPECT_EQ(ask(6, 1), (Answer{0, 1}));
}

}  // namespace
