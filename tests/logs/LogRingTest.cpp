#include "LogRing.h"

#include <gmock/gmock.h>

using testing::Optional;

namespace {

LogLinePtr Line(std::int64_t time, bool isPartial = false, LogSource source = LogSource::Stdout,
                size_t size = 10) {
    return std::make_shared<const LogLine>(LogLine{{time, 1}, source, isPartial, std::string(size, 'x')});
}

TEST(LogRings, KeepTheLatestLines) {
    LogRing ring(3, SIZE_MAX);
    EXPECT_EQ(ring.Begin(), ring.End());
    for (int i = 0; i < 10; ++i) {
        ring.Append(Line(i));
    }
    EXPECT_EQ(ring.Begin(), 7U);
    EXPECT_EQ(ring.End(), 10U);
    EXPECT_EQ(ring.At(7)->mark.time, 7);
    EXPECT_EQ(ring.At(9)->mark.time, 9);
}

TEST(LogRings, KeepWhatFitsTheirMemory) {
    LogRing ring(SIZE_MAX, 3 * Line(0)->Cost() + 1);
    for (int i = 0; i < 10; ++i) {
        ring.Append(Line(i));
    }
    EXPECT_EQ(ring.Begin(), 7U);
    ring.Append(Line(10, false, LogSource::Stdout, 100000));
    EXPECT_EQ(ring.Begin(), 10U) << "the newest line stays";
    ring.Append(Line(11));
    EXPECT_EQ(ring.Begin(), 11U);
}

TEST(LogRings, FindTheLastLines) {
    LogRing ring(100, SIZE_MAX);
    EXPECT_EQ(ring.Tail(5), 0U);
    for (int i = 0; i < 10; ++i) {
        ring.Append(Line(i));
    }
    EXPECT_EQ(ring.Tail(0), 10U);
    EXPECT_EQ(ring.Tail(3), 7U);
    EXPECT_EQ(ring.Tail(SIZE_MAX), 0U);
}

TEST(LogRings, CountALineInPartsOnce) {
    LogRing ring(100, SIZE_MAX);
    ring.Append(Line(0));
    ring.Append(Line(1, true));
    ring.Append(Line(2, false, LogSource::Stderr));
    ring.Append(Line(3, true));
    ring.Append(Line(4));
    ring.Append(Line(5));
    EXPECT_EQ(ring.Tail(1), 5U);
    EXPECT_EQ(ring.Tail(2), 2U);
    EXPECT_EQ(ring.Tail(3), 1U);
    EXPECT_EQ(ring.Tail(4), 0U);
}

TEST(LogRings, DoNotBeginInTheMiddleOfALine) {
    LogRing ring(3, SIZE_MAX);
    for (const bool isPartial : {false, true, true, false, false}) {
        ring.Append(Line(0, isPartial));
    }
    EXPECT_EQ(ring.Begin(), 2U);
    EXPECT_EQ(ring.Tail(SIZE_MAX), 4U);
}

TEST(LogRings, FindTheLineBehindAMark) {
    LogRing ring(5, SIZE_MAX);
    for (int i = 0; i < 10; ++i) {
        ring.Append(Line(i));
    }
    EXPECT_THAT(ring.After({5, 1}), Optional(6U));
    EXPECT_THAT(ring.After({9, 1}), Optional(10U));
    EXPECT_EQ(ring.After({4, 1}), std::nullopt);
    EXPECT_EQ(ring.After({9, 2}), std::nullopt);
}

}  // namespace
