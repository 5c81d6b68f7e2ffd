#include "podman/LogDemultiplexer.h"

#include <gmock/gmock.h>
#include <random>
#include <string>

using QxNContainer::QxNLogStream::Demultiplex;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Bytes = std::vector<unsigned char>;

std::string Header(std::uint32_t length) {
    std::string header("\1\0\0\0", 4);
    for (int shift = 24; shift >= 0; shift -= 8) {
        header += static_cast<char>(length >> shift);
    }
    return header;
}

std::string Frame(const std::string& payload) {
    return Header(static_cast<std::uint32_t>(payload.size())) + payload;
}

const unsigned char* BytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string TextOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

/// What came out, and what stayed, after every chunk.
struct Outcome {
    std::vector<std::string> payloads;
    Bytes pending;
    bool goesOn = true;
    size_t accepted = SIZE_MAX;  ///< payloads after which the sink refuses

    bool operator==(const Outcome& other) const {
        return payloads == other.payloads && pending == other.pending && goesOn == other.goesOn;
    }

    bool Take(const unsigned char* payload, size_t length) {
        if (payloads.size() >= accepted) {
            return false;
        }
        payloads.emplace_back(reinterpret_cast<const char*>(payload), length);
        return true;
    }
};

void Feed(Outcome& outcome, const std::string& chunk) {
    const auto sink = [&](const unsigned char* data, size_t length) { return outcome.Take(data, length); };
    outcome.goesOn = Demultiplex(outcome.pending, BytesOf(chunk), chunk.size(), sink);
}

/// The plainest way to do the same: append everything, cut frames off the front.
void FeedPlainly(Outcome& outcome, const std::string& chunk) {
    std::string all = TextOf(outcome.pending) + chunk;
    outcome.goesOn = true;
    while (all.size() >= 8 && outcome.goesOn) {
        size_t length = 0;
        for (int i = 4; i < 8; ++i) {
            length = length << 8 | static_cast<unsigned char>(all[static_cast<size_t>(i)]);
        }
        if (all.size() - 8 < length) {
            break;
        }
        outcome.goesOn = length == 0 || outcome.Take(BytesOf(all) + 8, length);
        all.erase(0, outcome.goesOn ? 8 + length : all.size());
    }
    outcome.pending.assign(all.begin(), all.end());
}

Outcome FeedCutAt(const std::string& stream, const std::vector<size_t>& cuts) {
    Outcome outcome;
    size_t begin = 0;
    for (const size_t end : cuts) {
        Feed(outcome, stream.substr(begin, end - begin));
        begin = end;
    }
    Feed(outcome, stream.substr(begin));
    return outcome;
}

const std::string Sequence = Frame("out") + Frame("") + Frame("x") + Frame(std::string(20, 'y')) + Frame("") +
                             Frame("end") + Header(9) + "half";

// --- Every way to cut a stream ---

TEST(Demux, GivesTheSameAtEverySplitPosition) {
    Outcome expected;
    FeedPlainly(expected, Sequence);
    ASSERT_THAT(expected.payloads, ElementsAre("out", "x", std::string(20, 'y'), "end"));

    for (size_t a = 0; a <= Sequence.size(); ++a) {
        EXPECT_EQ(FeedCutAt(Sequence, {a}), expected) << a;
        for (size_t b = a; b <= Sequence.size(); ++b) {
            ASSERT_EQ(FeedCutAt(Sequence, {a, b}), expected) << a << " " << b;
            for (size_t c = b; c <= Sequence.size(); ++c) {
                ASSERT_EQ(FeedCutAt(Sequence, {a, b, c}), expected) << a << " " << b << " " << c;
            }
        }
    }
}

TEST(Demux, HasTheSamePendingAfterEveryByte) {
    Outcome ours;
    Outcome plain;
    for (const char byte : Sequence) {
        Feed(ours, {byte});
        FeedPlainly(plain, {byte});
        ASSERT_EQ(ours, plain);
    }
}

TEST(Demux, AgreesWithThePlainWayOnRandomStreams) {
    std::mt19937 random(20240607);
    const auto upTo = [&](size_t limit) { return std::uniform_int_distribution<size_t>(0, limit)(random); };
    for (int stream = 0; stream < 3000; ++stream) {
        Outcome ours;
        Outcome plain;
        ours.accepted = plain.accepted = upTo(3) == 0 ? upTo(5) : SIZE_MAX;
        for (int chunk = 0; chunk < 12; ++chunk) {
            std::string bytes;
            while (upTo(3) != 0) {
                bytes += Frame(std::string(upTo(1) * upTo(40), 'a'));
            }
            bytes.resize(upTo(bytes.size()));
            Feed(ours, bytes);
            FeedPlainly(plain, bytes);
            ASSERT_EQ(ours, plain) << stream << " " << chunk;
        }
    }
}

// --- Edges ---

TEST(Demux, OfNothingDoesNothing) {
    Outcome outcome;
    Feed(outcome, {});
    EXPECT_TRUE(Demultiplex(outcome.pending, nullptr, 0, [](const unsigned char*, size_t) { return false; }));
    EXPECT_TRUE(outcome.goesOn);
    EXPECT_THAT(outcome.payloads, IsEmpty());
    EXPECT_THAT(outcome.pending, IsEmpty());
}

TEST(Demux, TakesWholeFramesOutOfPendingToo) {
    for (size_t held = 0; held <= Sequence.size(); ++held) {
        for (const size_t accepted : {SIZE_MAX, size_t{0}, size_t{1}, size_t{2}, size_t{3}}) {
            Outcome ours;
            ours.pending.assign(BytesOf(Sequence), BytesOf(Sequence) + held);
            ours.accepted = accepted;
            Outcome plain = ours;
            Feed(ours, Sequence.substr(held));
            FeedPlainly(plain, Sequence.substr(held));
            ASSERT_EQ(ours, plain) << held << " " << accepted;
        }
    }
}

TEST(Demux, ARefusalLeavesNothingPending) {
    for (size_t split = 0; split < Sequence.size(); ++split) {
        Outcome ours;
        Outcome plain;
        ours.accepted = plain.accepted = 1;
        for (const std::string& chunk : {Sequence.substr(0, split), Sequence.substr(split)}) {
            Feed(ours, chunk);
            FeedPlainly(plain, chunk);
            ASSERT_EQ(ours, plain) << split;
        }
    }
}

TEST(Demux, TheLengthIsBigEndianAndUnsigned) {
    Outcome outcome;
    Feed(outcome, Header(0x00010203) + std::string(0x00010203, 'a'));
    ASSERT_EQ(outcome.payloads.size(), 1U);
    EXPECT_EQ(outcome.payloads[0].size(), 0x00010203U);
}

TEST(Demux, AClaimOf4GigabytesCostsNothing) {
    for (const std::uint32_t claim : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF7U, 0x80000000U, 0x7FFFFFFFU}) {
        Outcome outcome;
        Feed(outcome, Header(claim) + "ab");
        Feed(outcome, "c");

        EXPECT_TRUE(outcome.goesOn);
        EXPECT_THAT(outcome.payloads, IsEmpty());
        EXPECT_EQ(TextOf(outcome.pending), Header(claim) + "abc");
        EXPECT_LT(outcome.pending.capacity(), 64U) << claim;
    }
}

TEST(Demux, WholeFramesComeFromTheChunkItself) {
    const std::string chunk = Frame("one") + Frame("two") + Frame("three");
    Bytes pending;
    size_t seen = 0;
    Demultiplex(pending, BytesOf(chunk), chunk.size(), [&](const unsigned char* data, size_t length) {
        EXPECT_GE(data, BytesOf(chunk));
        EXPECT_LE(data + length, BytesOf(chunk) + chunk.size());
        return ++seen != 0;
    });
    EXPECT_EQ(seen, 3U);
    EXPECT_EQ(pending.capacity(), 0U);
}

TEST(Demux, AfterACompletedFrameTheRestComesFromTheChunkAgain) {
    const std::string frame = Frame("one");
    const std::string chunk = frame.substr(5) + Frame("two");
    Outcome outcome;
    Feed(outcome, frame.substr(0, 5));
    std::vector<bool> fromChunk;
    Demultiplex(outcome.pending, BytesOf(chunk), chunk.size(), [&](const unsigned char* data, size_t) {
        fromChunk.push_back(data >= BytesOf(chunk) && data < BytesOf(chunk) + chunk.size());
        return true;
    });
    EXPECT_THAT(fromChunk, ElementsAre(false, true));
}

}  // namespace
