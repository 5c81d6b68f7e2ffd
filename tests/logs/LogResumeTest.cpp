#include "LogResume.h"

#include <gmock/gmock.h>

namespace {

class LogResumes : public testing::Test {
protected:
    /// @return the new ones of a stream's lines, by their times
    std::vector<std::int64_t> New(const std::vector<LogMark>& marks) {
        std::vector<std::int64_t> times;
        resume.Restart();
        for (const LogMark& mark : marks) {
            if (resume.IsNew(mark)) {
                times.push_back(mark.time);
            }
        }
        return times;
    }

    LogResume resume;
};

TEST_F(LogResumes, KnowNothingAtFirst) {
    EXPECT_EQ(resume.Since(), std::nullopt);
    EXPECT_THAT(New({{1, 1}, {2, 1}}), testing::ElementsAre(1, 2));
    EXPECT_THAT(resume.Since(), testing::Optional(1));
}

TEST_F(LogResumes, PassOverWhatIsKnown) {
    resume.Know({5, 2});
    EXPECT_THAT(New({{5, 1}, {5, 2}, {5, 3}, {6, 1}}), testing::ElementsAre(5, 6));
    EXPECT_THAT(New({{6, 1}, {7, 1}}), testing::ElementsAre(7));
}

TEST_F(LogResumes, GoOnWhenTheLastLineHasVanished) {
    resume.Know({5, 1});
    EXPECT_THAT(New({{6, 1}, {7, 1}}), testing::ElementsAre(6, 7));
    resume.Know({8, 5});
    EXPECT_THAT(New({{8, 1}, {9, 1}}), testing::ElementsAre(9));
}

TEST_F(LogResumes, KnowLinesFromBeforeTheClockWasSetBack) {
    resume.Know({10, 1});
    resume.Know({20, 1});
    resume.Know({15, 1});
    EXPECT_THAT(New({{20, 1}, {15, 1}, {16, 1}, {14, 1}}), testing::ElementsAre(16, 14));
}

}  // namespace
