#include "LogLine.h"

#include <gmock/gmock.h>

namespace {

constexpr const char* Time = "2026-01-31T10:00:00.000000001Z";

LogParser::Piece Piece(std::int64_t time, std::string_view text = "x", bool isPartial = false) {
    return {LogSource::Stderr, time, Time, text, isPartial};
}

TEST(LogLines, AreJsonObjects) {
    LogLineMaker maker("fedcba98765432100123");
    const LogLinePtr line = maker.Make(Piece(255, "say \"hi\"\xff"));
    EXPECT_EQ(line->json, std::string(R"({"cursor":"fedcba9876543210-ff-1","time":")") + Time +
                              R"(","stream":"stderr","text":"say \"hi\")" + "\xef\xbf\xbd\"}");
    EXPECT_FALSE(line->isPartial);
    EXPECT_TRUE(maker.Make(Piece(255, "", true))->json.ends_with(R"(,"text":"","partial":true})"));
}

TEST(LogLines, AreCountedByTheirTime) {
    LogLineMaker maker("a");
    EXPECT_EQ(maker.Make(Piece(0))->mark, (LogMark{0, 1}));
    EXPECT_EQ(maker.Make(Piece(0))->mark, (LogMark{0, 2}));
    EXPECT_EQ(maker.Make(Piece(5))->mark, (LogMark{5, 1}));
    EXPECT_EQ(maker.Make(Piece(5))->mark, (LogMark{5, 2}));
    EXPECT_EQ(maker.Make(Piece(0))->mark, (LogMark{0, 1})) << "the clock was set back";
}

TEST(LogLines, KnowWhatTheyTake) {
    LogLineMaker maker("a");
    const LogLinePtr line = maker.Make(Piece(0, std::string(1000, 'x')));
    EXPECT_GT(line->Cost(), line->json.size() + sizeof(LogLine));
    EXPECT_LT(line->Cost(), line->json.size() + 300) << "nothing is kept beside the JSON text";
}

TEST(LogCursors, AreReadAsTheyWereWritten) {
    for (const LogMark& mark :
         {LogMark{0, 1}, LogMark{INT64_MAX, UINT32_MAX}, LogMark{1769817600000000000, 17}}) {
        const std::string text = LogCursor{"0123456789abcdef0123", mark}.Write();
        const auto cursor = LogCursor::Read(text);
        ASSERT_TRUE(cursor) << text;
        EXPECT_EQ(cursor->mark, mark);
        EXPECT_TRUE(cursor->IsOf("0123456789abcdef0123"));
        EXPECT_FALSE(cursor->IsOf("0123456789abcdee0123"));
        EXPECT_FALSE(cursor->IsOf("0123456789abcde"));
        EXPECT_LT(text.size(), 50U);
    }
}

TEST(LogCursors, AreNothingElse) {
    for (const std::string& text :
         {std::string(), std::string("a"), std::string("a-1"), std::string("a-1-"), std::string("a-1-0"),
          std::string("-1-1"), std::string("a--1-1"), std::string("a-1--1"), std::string("a-1-1-1"),
          std::string("a-1-1 "), std::string("a-x-1"), std::string("a-+1-1"), std::string("a/-1-1"),
          std::string("a-8000000000000000-1"), std::string("a-1-100000000"),
          std::string("0123456789abcdef0-1-1"), std::string(300, '-'),
          "a-1-" + std::string(300, '0') + "1"}) {
        EXPECT_FALSE(LogCursor::Read(text)) << text;
    }
}

}  // namespace
