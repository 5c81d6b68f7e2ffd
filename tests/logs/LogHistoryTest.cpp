#include "LogHistory.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

namespace {

/// Lines by their times; a negative one is a part of a line.
LogHistory Filled(unsigned asked, const std::vector<int>& times, size_t bytes = SIZE_MAX) {
    LogHistory history(asked, bytes);
    LogLineMaker maker("a");
    for (const int time : times) {
        history.Add(maker.Make({LogSource::Stdout, std::abs(time), "", "text", time < 0}));
    }
    return history;
}

std::vector<std::int64_t> Times(const LogHistory::Result& result) {
    std::vector<std::int64_t> times;
    for (const LogLinePtr& line : result.lines) {
        times.push_back(line->mark.time);
    }
    return times;
}

TEST(LogHistories, OfAWholeLogAreReadAgainWhenSomebodyMayWrite) {
    const auto result = Filled(5, {1, 2, 3}).Settle(false);
    EXPECT_THAT(Times(result), IsEmpty());
    EXPECT_EQ(result.since, std::nullopt);
    EXPECT_EQ(result.last, (LogMark{3, 1}));
}

TEST(LogHistories, OfAWholeLogAreUsedWhenNobodyWrites) {
    const auto result = Filled(5, {1, 2, 3}).Settle(true);
    EXPECT_THAT(Times(result), ElementsAre(1, 2, 3));
    EXPECT_THAT(result.since, Optional(2));
}

TEST(LogHistories, OfALongLogLackOnlyTheFirstTime) {
    const auto result = Filled(5, {1, 1, 2, 3, 3}).Settle(false);
    EXPECT_THAT(Times(result), ElementsAre(2, 3, 3));
    EXPECT_THAT(result.since, Optional(2));
    EXPECT_EQ(result.last, (LogMark{3, 2}));
    EXPECT_EQ(result.lines.back()->mark, result.last);
}

TEST(LogHistories, BeginWithTheBeginningOfALine) {
    EXPECT_THAT(Times(Filled(4, {1, -1, -2, 2, 3, 4}).Settle(false)), ElementsAre(3, 4));
}

TEST(LogHistories, EndWherePodmanBeganToReadTheEnd) {
    EXPECT_THAT(Times(Filled(3, {1, 2, 3, 7, 8}).Settle(false)), ElementsAre(2, 3));
    EXPECT_THAT(Times(Filled(3, {1, 2, -3, 7, 8}).Settle(false)), ElementsAre(2))
        << "the end of the open line may be from later";
    EXPECT_THAT(Times(Filled(3, {1, 2, -3, -7}).Settle(false)), ElementsAre(2));
    EXPECT_THAT(Times(Filled(3, {1, -2, 2, 3}).Settle(false)), ElementsAre(2, 2, 3));
    EXPECT_THAT(Times(Filled(3, {1, 2, 3, -4}).Settle(true)), ElementsAre(2, 3, -(-4)));
}

TEST(LogHistories, OfASingleTimeAreReadAgain) {
    for (const bool isFinal : {false, true}) {
        const auto result = Filled(3, {4, 4, 4}).Settle(isFinal);
        EXPECT_THAT(Times(result), IsEmpty());
        EXPECT_THAT(result.since, Optional(3));
        EXPECT_EQ(result.last, (LogMark{4, 3}));
    }
}

TEST(LogHistories, OfAnEmptyLogAreEmpty) {
    const auto result = Filled(3, {}).Settle(false);
    EXPECT_EQ(result.since, std::nullopt);
    EXPECT_EQ(result.last, std::nullopt);
}

TEST(LogHistories, KeepTheLatestLinesWithinTheirMemory) {
    const size_t cost = LogLineMaker("a").Make({LogSource::Stdout, 1, "", "text", false})->Cost();
    EXPECT_THAT(Times(Filled(5, {1, 2, 3, 4, 5}, 2 * cost).Settle(false)), ElementsAre(4, 5));
    EXPECT_THAT(Times(Filled(3, {1, 2, 3, 4, 5}, 2 * cost).Settle(false)), IsEmpty());
    EXPECT_THAT(Times(Filled(9, {1, 2, 3, 4, 5}, 2 * cost).Settle(true)), ElementsAre(4, 5));
}

}  // namespace
