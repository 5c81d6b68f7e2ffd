#include "crp/PluginHeader.h"
#include "crp/PluginVersion.h"
#include "tests/crp/PluginMaker.h"

#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <string>
#include <vector>

using CRP::parseVersion;
using CRP::PluginVersion;

namespace {

struct VersionCase {
    const char* text;
    PluginVersion version;
};

/// Shows a text in a test's name, where not every character may stand.
std::string Shown(std::string text) {
    for (char& c : text) {
        c = std::isgraph(static_cast<unsigned char>(c)) != 0 ? c : '_';
    }
    return text;
}

void PrintTo(const VersionCase& value, std::ostream* stream) { *stream << Shown(value.text); }

class CrpVersionText : public testing::TestWithParam<VersionCase> {};

TEST_P(CrpVersionText, IsReadAsThreeNumbersAsFarAsItGoes) {
    const PluginVersion version = parseVersion(GetParam().text);

    EXPECT_TRUE(version == GetParam().version)
        << GetParam().text << " gave " << version.major << "." << version.minor << "." << version.patch;
}

INSTANTIATE_TEST_SUITE_P(Texts, CrpVersionText,
                         testing::Values(VersionCase{"2", {2, 0, 0}}, VersionCase{"1.4", {1, 4, 0}},
                                         VersionCase{"1.2.3", {1, 2, 3}},
                                         VersionCase{"1.2.3-beta", {1, 2, 3}},
                                         VersionCase{"1.2.3.4", {1, 2, 3}}, VersionCase{"v1.2.3", {0, 0, 0}},
                                         VersionCase{"", {0, 0, 0}}, VersionCase{" ", {0, 0, 0}},
                                         VersionCase{"1.x.5", {1, 0, 0}}, VersionCase{"1..5", {1, 0, 0}},
                                         VersionCase{"1.", {1, 0, 0}}, VersionCase{".1", {0, 0, 0}},
                                         VersionCase{"-1", {-1, 0, 0}}, VersionCase{"+1.+2.-3", {1, 2, -3}},
                                         VersionCase{"- 1", {0, 0, 0}}, VersionCase{"+-1", {0, 0, 0}},
                                         VersionCase{"+", {0, 0, 0}}, VersionCase{" \t\n\v\f\r7", {7, 0, 0}},
                                         VersionCase{"1. 2.\t3", {1, 2, 3}}, VersionCase{"1 .2", {1, 0, 0}},
                                         VersionCase{"1,2,3", {1, 0, 0}},
                                         VersionCase{"007.08.010", {7, 8, 10}},
                                         VersionCase{"0x10.1", {0, 0, 0}}, VersionCase{"1e3.1", {1, 0, 0}}));

INSTANTIATE_TEST_SUITE_P(NumbersBeyond32BitsAreTheNearestThatFits, CrpVersionText,
                         testing::Values(VersionCase{"2147483647", {2147483647, 0, 0}},
                                         VersionCase{"2147483648", {2147483647, 0, 0}},
                                         VersionCase{"-2147483648.1", {-2147483647 - 1, 1, 0}},
                                         VersionCase{"-2147483649", {-2147483647 - 1, 0, 0}},
                                         VersionCase{"99999999999999999999999999.1.2", {2147483647, 1, 2}},
                                         VersionCase{"1.-99999999999999999999999999.3",
                                                     {1, -2147483647 - 1, 3}}));

TEST(CrpVersion, EndsAtANul) {
    EXPECT_TRUE(parseVersion(std::string_view("1.2\0003.4", 7)) == (PluginVersion{1, 2, 0}));
}

TEST(CrpVersion, IsReadFromTextThatEndsAtItsLastByte) {
    const std::string text(1000, '1');

    for (std::size_t length = 0; length <= text.size(); ++length) {
        const std::vector<char> exact(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(parseVersion({exact.data(), exact.size()}).major == 0, length == 0);
    }
}

TEST(CrpVersion, BeginsWithANumberAlsoWhenThatIsNull) {
    for (const char* text : {"0", "+0", "-0", " 0.0", "0x10", "7"}) {
        EXPECT_TRUE(CRP::beginsWithNumber(text)) << text;
    }
    for (const char* text : {"", " ", "v1.2.3", "+", "- 1", "+-1", ".1"}) {
        EXPECT_FALSE(CRP::beginsWithNumber(text)) << text;
    }
}

struct OrderCase {
    const char* newer;
    const char* older;
};

void PrintTo(const OrderCase& value, std::ostream* stream) {
    *stream << value.newer << " over " << value.older;
}

class CrpVersionOrder : public testing::TestWithParam<OrderCase> {};

TEST_P(CrpVersionOrder, ComparesNumbersFromMajorToPatch) {
    EXPECT_TRUE(parseVersion(GetParam().newer) > parseVersion(GetParam().older));
    EXPECT_FALSE(parseVersion(GetParam().older) > parseVersion(GetParam().newer));
}

INSTANTIATE_TEST_SUITE_P(Pairs, CrpVersionOrder,
                         testing::Values(OrderCase{"2.0.0", "1.9.9"}, OrderCase{"1.10.0", "1.9.9"},
                                         OrderCase{"1.2.10", "1.2.9"}, OrderCase{"0.0.1", "v1.2.3"},
                                         OrderCase{"0.0.0", "-1.5.5"}, OrderCase{"1.0.0", "1.-1.9"},
                                         OrderCase{"3000000000", "2"}));

TEST(CrpVersion, IsNotNewerThanAnEqualOneOfAnotherText) {
    EXPECT_FALSE(parseVersion("1.2") > parseVersion("1.2.0"));
    EXPECT_FALSE(parseVersion("1.2.0") > parseVersion("1.2"));
}

TEST(CrpTrailer, KnowsItsMagicBeforeItsSize) {
    CrpPluginHeader trailer = PluginMaker::Trailer("a", "1");
    EXPECT_EQ(CRP::checkTrailer(trailer), CRP::TrailerStatus::Valid);
    trailer.header_size = 4096;
    EXPECT_EQ(CRP::checkTrailer(trailer), CRP::TrailerStatus::IncompatibleSize);
    trailer.magic = 0x00505243;
    EXPECT_EQ(CRP::checkTrailer(trailer), CRP::TrailerStatus::WrongMagic);
}

TEST(CrpTrailer, BeginsWithTheMagicInLittleEndianOrder) {
    EXPECT_EQ(PluginMaker::Bytes(PluginMaker::Trailer("a", "1")).substr(0, 4), std::string("\0PRC", 4));
}

TEST(CrpTrailer, EndsATextAtItsFirstNulOrAtItsBorder) {
    CrpPluginHeader trailer = PluginMaker::Trailer(std::string("ab\0cd", 5), std::string(100, 'v'));

    EXPECT_EQ(CRP::textOf(trailer.name), "ab");
    EXPECT_EQ(CRP::textOf(trailer.version), std::string(32, 'v'));
    EXPECT_EQ(CRP::textOf(trailer.compatibleOs), "");
}

}  // namespace
