#include "ApiPath.h"
#include "CtlError.h"
#include "Follow.h"
#include "Format.h"
#include "LineSplitter.h"
#include "Progress.h"
#include "Table.h"
#include "Text.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

TEST(CtlText, CountsColumns) {
    EXPECT_EQ(DisplayWidth(""), 0U);
    EXPECT_EQ(DisplayWidth("größe"), 5U);
    EXPECT_EQ(DisplayWidth("日本"), 4U);
    EXPECT_EQ(DisplayWidth("e\u0301"), 1U);
    EXPECT_EQ(DisplayWidth("\xFF\xC3"), 2U);
}

TEST(CtlText, IsMadePrintable) {
    EXPECT_EQ(Printable("größe 日本"), "größe 日本");
    EXPECT_EQ(Printable("a\x1b[31m\n\t\r\x7F"), "a\uFFFD[31m\uFFFD\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(Printable("a\n\tb\r", Lines::AreKept), "a\n\tb\uFFFD");
    EXPECT_EQ(Printable("\xC2\x9B"), "\uFFFD");
    EXPECT_EQ(Printable("\xFF\xC3(\xE2\x82"), "\uFFFD\uFFFD(\uFFFD\uFFFD");
    EXPECT_EQ(Printable("a\u202Eb\u2066c\u200F"), "a\uFFFDb\uFFFDc\uFFFD");
    EXPECT_EQ(Printable(std::string("\0", 1)), "\uFFFD");
}

TEST(CtlText, KeepsColoursOfLogs) {
    EXPECT_EQ(WithColoursOnly("plain\ttext"), "plain\ttext");
    EXPECT_EQ(WithColoursOnly("\x1b[1;31mred\x1b[0m"), "\x1b[1;31mred\x1b[0m\x1b[0m");
    EXPECT_EQ(WithColoursOnly("\x1b[38:5:1mx"), "\x1b[38:5:1mx\x1b[0m");
    EXPECT_EQ(WithColoursOnly("\x1b[mx"), "\x1b[mx\x1b[0m");
}

TEST(CtlText, DropsOtherSequencesOfLogs) {
    EXPECT_EQ(WithColoursOnly("a\x1b[2Jb\x1b[10;20Hc\x1b[?25ld\x1b[>4;2me"), "abcde");
    EXPECT_EQ(WithColoursOnly("a\x1b]0;title\x07"
                              "b\x1b]52;c;eA==\x1b\\c"),
              "abc");
    EXPECT_EQ(WithColoursOnly("a\x1bPq#0\x1b\\b\x1b_x\x1b\\c\x1b^y\x1b\\d\x1bXz\x1b\\e"), "abcde");
    EXPECT_EQ(WithColoursOnly("a\x1b"
                              "cb\x1b(Bc\x1b#8d\x1b=e"),
              "abcde");
    EXPECT_EQ(WithColoursOnly("a\xC2\x9B\x32Jb\xC2\x9B\x33\x31mc"), "ab\x1b[31mc\x1b[0m");
    EXPECT_EQ(WithColoursOnly("a\xC2\x9D\x30;t\xC2\x9C"
                              "b\xC2\x90x\x1b\\c"),
              "abc");
    EXPECT_EQ(WithColoursOnly("a\rb\bc\x07\x0E"
                              "d\x7F"),
              "abcd");
    EXPECT_EQ(WithColoursOnly("\xFF\x9B[2J"), "\uFFFD\uFFFD[2J");
}

TEST(CtlText, DropsSequencesThatAreCutOff) {
    for (const char* text :
         {"a\x1b", "a\x1b[", "a\x1b[31", "a\x1b]0;x", "a\x1bPq", "a\x1b(", "a\xC2\x9B", "a\x1b]0;x\x1b"}) {
        EXPECT_EQ(WithColoursOnly(text), "a");
    }
    EXPECT_EQ(WithColoursOnly("a\x1b\x1b[2Jb"), "ab");
    EXPECT_EQ(WithColoursOnly("a\x1b[3\x1b[31mb"), "a\x1b[31mb\x1b[0m");
}

TEST(CtlFormat, TellsSizes) {
    EXPECT_EQ(SizeText(0), "0 B");
    EXPECT_EQ(SizeText(1023), "1023 B");
    EXPECT_EQ(SizeText(1024), "1.0 KiB");
    EXPECT_EQ(SizeText(1024 * 1024 - 1), "1.0 MiB");
    EXPECT_EQ(SizeText(4402345), "4.2 MiB");
    EXPECT_EQ(SizeText(UINT64_MAX), "16384.0 PiB");
}

TEST(CtlFormat, TellsTimes) {
    setenv("TZ", "UTC", 1);
    EXPECT_EQ(LocalTimeText("2021-11-21T19:00:01.123456789Z"), "2021-11-21 19:00:01");
    EXPECT_EQ(LocalTimeText("2021-11-21T19:00:01+02:00"), "2021-11-21 17:00:01");
    EXPECT_EQ(LocalTimeText("soon\x1b"), "soon\uFFFD");
    EXPECT_EQ(DurationText(1), "1 second");
    EXPECT_EQ(DurationText(119), "1 minute");
    EXPECT_EQ(DurationText(7200), "2 hours");
    EXPECT_EQ(DurationText(100 * 86400), "100 days");
}

TEST(CtlTable, AlignsColumns) {
    Table table({{"NAME"}, {"SIZE", Table::Side::Right}, {"TEXT"}});
    table.Add({{"日本"}, {"1"}, {""}});
    table.Add({{"b"}, {"1000"}, {"x\ny", Style::Bad}});

    EXPECT_EQ(table.Text(Console(false, false)), "NAME  SIZE  TEXT\n日本     1\nb     1000  x\uFFFDy\n");
    EXPECT_EQ(table.Text(Console(true, true)),
              "\x1b[1mNAME\x1b[0m  \x1b[1mSIZE\x1b[0m  \x1b[1mTEXT\x1b[0m\n"
              "日本     1\nb     1000  \x1b[31mx\uFFFDy\x1b[0m\n");
}

TEST(CtlProgress, FitsOntoTheTerminal) {
    const auto line = [](size_t columns) {
        return Progress::BarLine("Sending größe.tar", 512 * 1024, 1024 * 1024, std::chrono::seconds(2),
                                 columns);
    };

    EXPECT_EQ(line(120),
              "Sending größe.tar [####################....................]  50 %  512.0 KiB of 1.0 MiB  "
              "256.0 KiB/s");
    for (size_t columns = 1; columns < 150; ++columns) {
        EXPECT_LT(DisplayWidth(line(columns)), columns);
    }
    EXPECT_EQ(Progress::BarLine("x", 0, 0, std::chrono::seconds(0), 10), "");
}

TEST(CtlBackoff, GrowsUpToALimit) {
    Backoff pause;
    Backoff::Duration sum{0};
    EXPECT_EQ(pause.Next().count(), 200);
    EXPECT_EQ(pause.Next().count(), 400);
    for (int i = 0; i < 20; ++i) {
        sum = pause.Next();
    }
    EXPECT_EQ(sum.count(), 10000);
    pause.Reset();
    EXPECT_EQ(pause.Next().count(), 200);
}

TEST(CtlLines, ArePutTogether) {
    std::vector<std::string> lines;
    LineSplitter splitter([&](std::string_view line) {
        lines.emplace_back(line);
        return lines.size() < 4;
    });

    EXPECT_TRUE(splitter.Take("a"));
    EXPECT_TRUE(splitter.Take("b\n\nc"));
    EXPECT_TRUE(splitter.Take("\n"));
    EXPECT_FALSE(splitter.Take("d\ne\n"));
    EXPECT_FALSE(splitter.Take("f\n"));
    splitter.Finish();
    EXPECT_THAT(lines, ElementsAre("ab", "", "c", "d"));
}

TEST(CtlLines, HaveALimit) {
    size_t longest = 0;
    LineSplitter splitter([&](std::string_view line) {
        longest = std::max(longest, line.size());
        return true;
    });

    for (int i = 0; i < 64; ++i) {
        splitter.Take(std::string(65536, 'x'));
    }

    EXPECT_GT(longest, 0U);
    EXPECT_LE(longest, LineSplitter::LongestLine + 65536);
}

TEST(CtlPath, EscapesItsParts) {
    EXPECT_EQ(ApiPath({"containers", "clock", "logs"}, {{"tail", "all"}, {"none", ""}, {"after", "a b&c=d"}}),
              "/api/v1/containers/clock/logs?tail=all&after=a%20b%26c%3Dd");
    EXPECT_EQ(ApiPath({"images", "localhost/b:1@sha256"}), "/api/v1/images/localhost%2Fb%3A1%40sha256");
    EXPECT_THROW(ApiPath({"containers", ".."}), CtlError);
}

}  // namespace
