#include "QxCErrorManager.h"
#include "QxCRTELog.h"
#include "Recording.h"
#include "support/Log.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(Log, WritesTheLevelInBracketsTheMessageAndALineFeed) {
    QxCRTE_LOG_Impl(RteLogLevel::Info, "%s has %d cores", "board", 8);

    EXPECT_THAT(Recording::Events(), ElementsAre("log [INFO] board has 8 cores\n"));
}

TEST(Log, NamesEveryLevelAndNotifiesForFourToSixOnly) {
    for (int level = 0; level <= 7; ++level) {
        QxCRTE_LOG_Impl(level, "m%d", level);
    }
    QxCRTE_LOG_Impl(-1, "negative");

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] m0", "[DEBUG_VERBOSE] m1", "[INFO] m2", "[WARNING] m3", "[ERROR] m4",
                            "[INFO] m5", "[WARNING] m6", "[UNKNOWN] m7", "[UNKNOWN] negative"));
    EXPECT_THAT(Recording::Messages(), ElementsAre("3 m4", "1 m5", "2 m6"));
}

TEST(Log, HandsErrorsToTheMessageManagerThroughATemporaryListThatIsDeleted) {
    QxCRTE_LOG_Impl(RteLogLevel::Error, "100%% %s", "bad");

    EXPECT_THAT(Recording::Events(),
                ElementsAre("log [ERROR] 100% bad\n", "createErrorList(0, 1, 20, 5, 300)",
                            "createMessageList(0, 1, 100, 5, 300)",
                            "message severity=3 number=151 source=Quolex Container Runtime text=100% bad",
                            "resetList", "deleteMessageList", "deleteErrorList"));
    EXPECT_EQ(Recording::LiveLists(), 0);
}

TEST(Log, UsesTheMasterErrorListAndLeavesItAlone) {
    const Recording::MasterErrorList master;
    Recording::Forget();

    QxCRTE_LOG_Impl(RteLogLevel::WarningNotify, "w");

    EXPECT_THAT(Recording::Events(),
                ElementsAre("log [WARNING] w\n", "createMessageList(0, 1, 100, 5, 300)",
                            "message severity=2 number=151 source=Quolex Container Runtime text=w",
                            "resetList", "deleteMessageList"));
}

TEST(Log, UsesTheErrorManagerThatIsSetAndElseTheSingleton) {
    QxCErrorManager::s_pErrorManager = QxCErrorManager::getSingleton();
    const int before = Recording::SingletonRequests();
    QxCRTE_LOG_Impl(RteLogLevel::Error, "set");
    EXPECT_EQ(Recording::SingletonRequests(), before);

    QxCErrorManager::s_pErrorManager = nullptr;
    QxCRTE_LOG_Impl(RteLogLevel::Error, "not set");
    EXPECT_GT(Recording::SingletonRequests(), before);
    EXPECT_THAT(Recording::Events("message"), testing::SizeIs(2));
}

TEST(Log, CutsMessagesTo1023Bytes) {
    const std::string fits(1023, 'a');
    const std::string tooLong(5000, 'b');

    QxCRTE_LOG_Impl(RteLogLevel::Info, "%s", fits.c_str());
    QxCRTE_LOG_Impl(RteLogLevel::Error, "%s", tooLong.c_str());

    EXPECT_THAT(Recording::Logs(), ElementsAre("[INFO] " + fits, "[ERROR] " + tooLong.substr(0, 1023)));
    EXPECT_THAT(Recording::Messages(), ElementsAre("3 " + tooLong.substr(0, 1023)));
}

TEST(Log, WritesDebugMessagesAlsoWhenTheLevelIsOff) {
    QxCRTE_LOG_Impl(RteLogLevel::Debug, "kept");

    EXPECT_THAT(Recording::Logs(), ElementsAre("[DEBUG] kept"));
}

struct ThresholdCase {
    const char* option;
    bool debug;
    bool verbose;
};

class LogThreshold : public testing::TestWithParam<ThresholdCase> {};

TEST_P(LogThreshold, FollowsTheConfiguredTextWithoutRegardToCase) {
    TheScript().logLevel = GetParam().option;

    EXPECT_EQ(QxCRTE_LOG_IsLevelEnabled(RteLogLevel::Debug), GetParam().debug);
    EXPECT_EQ(QxCRTE_LOG_IsLevelEnabled(RteLogLevel::DebugVerbose), GetParam().verbose);
    for (const int level : {2, 3, 4, 5, 6, 7, -1}) {
        EXPECT_TRUE(QxCRTE_LOG_IsLevelEnabled(level)) << level;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Options, LogThreshold,
    testing::Values(ThresholdCase{"debug", true, false}, ThresholdCase{"DEBUG", true, false},
                    ThresholdCase{"DEBUG_VERBOSE", true, true}, ThresholdCase{"Debug_Verbose", true, true},
                    ThresholdCase{"INFO", false, false}, ThresholdCase{"WARNING", false, false},
                    ThresholdCase{"DEBUG ", false, false}, ThresholdCase{"", false, false}));

TEST(Log, ReadsTheThresholdOnceAndWithTheDefaultInfo) {
    TheScript().logLevelIsSet = false;

    EXPECT_FALSE(QxCRTE_LOG_IsLevelEnabled(RteLogLevel::Debug));
    TheScript().logLevelIsSet = true;
    TheScript().logLevel = "DEBUG";
    EXPECT_FALSE(QxCRTE_LOG_IsLevelEnabled(RteLogLevel::Debug));

    EXPECT_THAT(Recording::Events(), ElementsAre("getOption(ContainerRuntime, LogLevel, INFO, 0)"));
}

TEST(Log, DebugArgumentsAreComputedOnlyWhenTheLevelIsOn) {
    TheScript().logLevel = "DEBUG";
    int computed = 0;

    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "%d", ++computed);
    EXPECT_EQ(computed, 0);
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "%d", ++computed);
    EXPECT_EQ(computed, 1);

    EXPECT_THAT(Recording::Logs(), ElementsAre("[DEBUG] 1"));
}

TEST(Log, KeepsTheMessagesOfManyThreadsApart) {
    const auto log = [](char letter) {
        const std::string text(1000, letter);
        for (int i = 0; i < 1000; ++i) {
            QxCRTE_LOG_Impl(RteLogLevel::Info, "%s", text.c_str());
        }
    };
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back(log, letter);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::vector<std::string> lines = Recording::Logs();
    std::sort(lines.begin(), lines.end());
    ASSERT_EQ(lines.size(), 4000U);
    for (size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(lines[i], "[INFO] " + std::string(1000, "abcd"[i / 1000]));
    }
}

TEST(Log, DoesNotAskForTheThresholdWhenWriting) {
    QxCRTE_LOG_Impl(RteLogLevel::DebugVerbose, "x");

    EXPECT_THAT(Recording::Events("getOption"), IsEmpty());
}

}  // namespace
