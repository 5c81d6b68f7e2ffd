#include "LogParser.h"

#include "LogParserCheck.h"
#include "LogStreamClient.h"

#include <gmock/gmock.h>
#include <random>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* Time = "2026-01-31T10:00:00.123456789Z";

/// What came out: "source text", with "..." behind a part.
struct Parsed {
    explicit Parsed(bool hasTerminal = false, size_t lineBytes = 100) : parser(hasTerminal, lineBytes) {}

    bool Take(std::string_view bytes) {
        return parser.Take(bytes, [this](const LogParser::Piece& piece) {
            constexpr const char* Sources[] = {"out ", "err ", "tty "};
            pieces.push_back(Sources[static_cast<size_t>(piece.source)] + std::string(piece.text) +
                             (piece.isPartial ? "..." : ""));
            times.emplace_back(piece.timeText);
        });
    }

    LogParser parser;
    std::vector<std::string> pieces = {};
    std::vector<std::string> times = {};
};

std::string Frame(const std::string& text, char source = 1) {
    return LogFrame(std::string(Time) + " " + text, source);
}

// --- Frames ---

TEST(LogParsing, TellsTheStreamsApart) {
    Parsed parsed;
    EXPECT_TRUE(parsed.Take(Frame("one\n") + Frame("two\n", 2) + Frame("\n")));
    EXPECT_THAT(parsed.pieces, ElementsAre("out one", "err two", "out "));
    EXPECT_THAT(parsed.times, ElementsAre(Time, Time, Time));
}

TEST(LogParsing, TakesChunksCutAnywhere) {
    const std::string all = Frame("one\n") + Frame("part") + Frame("end\n") + Frame("e\n", 2);
    for (size_t cut = 0; cut <= all.size(); ++cut) {
        Parsed parsed;
        parsed.Take(all.substr(0, cut));
        parsed.Take(all.substr(cut));
        EXPECT_THAT(parsed.pieces, ElementsAre("out one", "out part...", "out end", "err e")) << cut;
    }
    Parsed bytewise;
    for (const char byte : all) {
        bytewise.Take({&byte, 1});
    }
    EXPECT_EQ(bytewise.pieces.size(), 4U);
}

TEST(LogParsing, KeepsBlanksAndCarriageReturns) {
    Parsed parsed;
    parsed.Take(Frame("  two  blanks \r\n"));
    EXPECT_THAT(parsed.pieces, ElementsAre("out   two  blanks \r"));
}

TEST(LogParsing, TakesTheLineEndOfTerminalsAway) {
    Parsed parsed(true);
    parsed.Take(Frame("one\r\n") + Frame("a\rb\r\n") + Frame("login: ") + Frame("\r\n"));
    EXPECT_THAT(parsed.pieces, ElementsAre("tty one", "tty a\rb", "tty login: ...", "tty "));
}

TEST(LogParsing, PassesOverEmptyFrames) {
    Parsed parsed;
    EXPECT_TRUE(parsed.Take(LogFrame("") + Frame("one\n") + LogFrame("")));
    EXPECT_THAT(parsed.pieces, ElementsAre("out one"));
}

TEST(LogParsing, WaitsForTheRestOfAFrame) {
    Parsed parsed;
    const std::string frame = Frame("one\n");
    parsed.Take(frame.substr(0, frame.size() - 1));
    EXPECT_THAT(parsed.pieces, IsEmpty());
}

// --- Long lines ---

TEST(LogParsing, CutsLongLines) {
    Parsed parsed;
    parsed.Take(Frame(std::string(250, 'x') + "\n"));
    EXPECT_THAT(parsed.pieces,
                ElementsAre("out " + std::string(100, 'x') + "...", "out " + std::string(100, 'x') + "...",
                            "out " + std::string(50, 'x')));
}

TEST(LogParsing, DoesNotCutALineThatJustFits) {
    Parsed parsed;
    parsed.Take(Frame(std::string(100, 'x') + "\n"));
    parsed.Take(Frame(std::string(101, 'y') + "\n"));
    parsed.Take(Frame(std::string(100, 'z')));
    EXPECT_THAT(parsed.pieces,
                ElementsAre("out " + std::string(100, 'x'), "out " + std::string(100, 'y') + "...", "out y",
                            "out " + std::string(100, 'z') + "..."));
}

TEST(LogParsing, CutsBetweenCharacters) {
    Parsed parsed;
    parsed.Take(Frame(std::string(99, 'x') + "\xe2\x82\xac\n"));
    EXPECT_THAT(parsed.pieces, ElementsAre("out " + std::string(99, 'x') + "...", "out \xe2\x82\xac"));
}

TEST(LogParsing, JoinsCharactersThatPodmanCut) {
    Parsed parsed;
    parsed.Take(Frame("a\xe2\x82") + Frame("\xe2\n", 2) + Frame("\xac\n") + Frame("b\n"));
    EXPECT_THAT(parsed.pieces, ElementsAre("out a...", "err \xe2", "out \xe2\x82\xac", "out b"));
}

TEST(LogParsing, TakesAFrameOfAnySizeInBoundedMemory) {
    Parsed parsed;
    std::string mark = LogFrame("");
    mark.replace(4, 4, "\xff\xff\xff\xff");
    parsed.Take(mark + Time + " ");
    for (int i = 0; i < 1000; ++i) {
        parsed.pieces.clear();
        EXPECT_TRUE(parsed.Take(std::string(1000, 'x')));
        EXPECT_LE(parsed.pieces.size(), 10U);
    }
}

// --- What is no log ---

TEST(LogParsing, GivesLinesWithoutATimeTheOneBefore) {
    Parsed parsed;
    parsed.Take(LogFrame("no time\n") + Frame("one\n") + LogFrame("0001-01-01T00:00:00Z x\n") +
                LogFrame("short") + LogFrame(std::string(60, 'y') + " z\n"));
    EXPECT_THAT(parsed.pieces, ElementsAre("out no time", "out one", "out 0001-01-01T00:00:00Z x",
                                           "out short...", "out " + std::string(60, 'y') + " z"));
    EXPECT_THAT(parsed.times, ElementsAre("1970-01-01T00:00:00Z", Time, Time, Time, Time));
}

TEST(LogParsing, StopsAtAWrongMark) {
    Parsed parsed;
    EXPECT_FALSE(parsed.Take(Frame("one\n") + R"({"cause":"none"})" + Frame("two\n")));
    EXPECT_THAT(parsed.pieces, ElementsAre("out one"));
    EXPECT_FALSE(parsed.Take("more"));
    EXPECT_TRUE(parsed.parser.Broken().starts_with(R"({"cause":"none"})"));
}

TEST(LogParsing, RemembersOnlyTheBeginningOfWhatIsNoLog) {
    Parsed parsed;
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(parsed.Take("a long text that is no log at all"));
    }
    EXPECT_LE(parsed.parser.Broken().size(), 1100U);
}

TEST(LogParsing, StopsAtEveryWrongByteOfAMark) {
    for (const std::string& mark : {std::string("\x03"), std::string("\xff"), std::string("\1\1", 2),
                                    std::string("\1\0\1", 3), std::string("\1\0\0\1", 4)}) {
        EXPECT_FALSE(Parsed().Take(mark));
    }
    EXPECT_TRUE(Parsed().Take(std::string("\0\0\0\0\0\0\0\0", 8)));
}

TEST(LogParsing, SurvivesAnyBytes) {
    std::mt19937 random(1);
    const std::string seed =
        Frame("one\n") + Frame("p\xe2\x82") + Frame("\xac\n") + Frame(std::string(150, 'x') + "\n", 2);
    for (int round = 0; round < 600; ++round) {
        std::string input(1, static_cast<char>(random()));
        std::string bytes = seed;
        for (unsigned i = 0; i < random() % 6; ++i) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        for (size_t at = 0; at < bytes.size();) {
            const size_t length = std::min<size_t>(random() % 100, bytes.size() - at);
            input += static_cast<char>(length);
            input += bytes.substr(at, length);
            at += length;
        }
        LogParserCheck::Run(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
}

}  // namespace
