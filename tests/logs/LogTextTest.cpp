#include "LogText.h"

#include "QxNJson.h"

#include <gmock/gmock.h>
#include <string>

using testing::Eq;
using testing::Optional;

namespace {

constexpr std::int64_t Second = 1'000'000'000;

// --- Times ---

TEST(LogTimes, AreReadToTheNanosecond) {
    EXPECT_THAT(LogText::ReadTime("2024-06-10T06:13:20.123456789Z"),
                Optional(1718000000 * Second + 123456789));
    EXPECT_THAT(LogText::ReadTime("2024-06-10T06:13:20.5Z"), Optional(1718000000 * Second + 500000000));
    EXPECT_THAT(LogText::ReadTime("2024-06-10T06:13:20Z"), Optional(1718000000 * Second));
    EXPECT_THAT(LogText::ReadTime("1970-01-01T00:00:00Z"), Optional(0));
    EXPECT_THAT(LogText::ReadTime("2261-12-31T23:59:59.999999999Z"),
                Optional(9214646399 * Second + 999999999));
}

TEST(LogTimes, AreReadWithAnOffset) {
    EXPECT_THAT(LogText::ReadTime("2024-06-10T08:13:20.25+02:00"), Optional(1718000000 * Second + 250000000));
    EXPECT_THAT(LogText::ReadTime("2024-06-10T00:43:20-05:30"), Optional(1718000000 * Second));
}

TEST(LogTimes, AreNothingElse) {
    for (const char* text : {"",
                             "Z",
                             "2024-06-10",
                             "2024-06-10T06:13:20",
                             "2024-06-10 06:13:20Z",
                             "2024-06-10T06:13:20.Z ",
                             "2024-06-10T06:13:20.1234567890Z",
                             "2024-06-10T06:13:20Zx",
                             "2024-02-30T06:13:20Z",
                             "2024-13-01T06:13:20Z",
                             "0001-01-01T00:00:00Z",
                             "2262-01-01T00:00:00Z",
                             "1970-01-01T00:00:00+01:00",
                             "-024-06-10T06:13:20Z",
                             "2024-06-10T06:13:20+0200",
                             "2024-06-10T06:13:20+02:0",
                             "2024-06-10T24:00:00Z",
                             "2024-06-10T06:60:00Z",
                             "2024-06-10T06:13:60Z",
                             "2024-06-10T06:13:20+24:00",
                             "2024-06-10T06:13:20+00:60"}) {
        EXPECT_EQ(LogText::ReadTime(text), std::nullopt) << text;
    }
}

TEST(LogTimes, AreWrittenAsTheyAreRead) {
    for (const char* text : {"1970-01-01T00:00:00.000000000Z", "2024-02-29T23:59:59.000000001Z",
                             "2261-12-31T23:59:59.999999999Z"}) {
        EXPECT_EQ(LogText::WriteTime(LogText::ReadTime(text).value_or(0)), text);
    }
}

// --- UTF-8 ---

TEST(LogTexts, KnowCharactersThatMayGoOn) {
    EXPECT_EQ(LogText::IncompleteEnd(""), 0U);
    EXPECT_EQ(LogText::IncompleteEnd("abc"), 0U);
    EXPECT_EQ(LogText::IncompleteEnd("\xc3"), 1U);
    EXPECT_EQ(LogText::IncompleteEnd("a\xe2\x82"), 2U);
    EXPECT_EQ(LogText::IncompleteEnd("a\xf0\x9f\x98"), 3U);
    EXPECT_EQ(LogText::IncompleteEnd("\xe2\x82\xac"), 0U);
    EXPECT_EQ(LogText::IncompleteEnd("\xf0\x9f\x98\x80"), 0U);
}

TEST(LogTexts, KnowBytesThatNeverBecomeACharacter) {
    for (const char* text :
         {"\x82", "\xff", "\xc0", "\xe0\x80", "\xed\xa0", "\xf4\x90", "\xf0\x80\x80", "\xc3\x28"}) {
        EXPECT_EQ(LogText::IncompleteEnd(text), 0U);
    }
}

// --- JSON ---

TEST(LogTexts, BecomeJson) {
    EXPECT_EQ(LogText::Quoted("plain"), R"("plain")");
    EXPECT_EQ(LogText::Quoted("\"\\\b\f\n\r\t"), R"("\"\\\b\f\n\r\t")");
    EXPECT_EQ(LogText::Quoted(std::string("\0\x1b\x1f\x7f", 4)), "\"\\u0000\\u001b\\u001f\x7f\"");
    EXPECT_EQ(LogText::Quoted("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"),
              "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\"");
}

std::string Cleaned(std::string_view bytes) {
    const QxNJson::json text = QxNJson::json::parse(LogText::Quoted(bytes));
    return text.is_string() ? text.get<std::string>() : "no string";
}

TEST(LogTexts, GetAMarkForEveryBadPiece) {
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(Cleaned("a\xff\xfe"), "a" + bad + bad);
    EXPECT_EQ(Cleaned("\x80z"), bad + "z");
    EXPECT_EQ(Cleaned("\xe2\x82z"), bad + "z") << "the beginning of a character is one piece";
    EXPECT_EQ(Cleaned("\xf0\x9f\x98"), bad);
    EXPECT_EQ(Cleaned("\xc0\xaf"), bad + bad) << "overlong";
    EXPECT_EQ(Cleaned("\xed\xa0\x80"), bad + bad + bad) << "a surrogate";
    EXPECT_EQ(Cleaned("\xf4\x90\x80\x80"), bad + bad + bad + bad) << "beyond the last character";
}

TEST(LogTexts, AgreeWithTheJsonLibraryOnEveryPairOfBytes) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string bytes{static_cast<char>(first), static_cast<char>(second), 'x'};
            const auto theirs = QxNJson::json::parse(QxNJson::json(bytes).dump());
            ASSERT_EQ(Cleaned(bytes), theirs.get<std::string>()) << first << " " << second;
        }
    }
}

}  // namespace
