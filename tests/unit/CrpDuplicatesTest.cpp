#include "tests/crp/ScannerFixture.h"

#include "Sandbox.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

using CRP::PluginInfo;
using PluginMaker::Record;
using PluginMaker::Trailer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

TEST_F(CrpScanner, KeepsTheNewestOfThreeAndNamesTheOthers) {
    const auto kept =
        _scanner.deduplicateByName({Record("a", "1.0.0"), Record("a", "1.2.0"), Record("a", "1.1.9")});

    EXPECT_THAT(Labels(kept), ElementsAre("a 1.2.0"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[WARNING] Quolex Container Runtime: Ignoring duplicate plugin 'a' v1.0.0 (superseded by v1.2.0)",
            "[WARNING] Quolex Container Runtime: Ignoring duplicate plugin 'a' v1.1.9 (keeping v1.2.0)"));
}

TEST_F(CrpScannerVerbose, TellsEveryComparisonFirst) {
    _scanner.deduplicateByName({Record("a", "1.0.0"), Record("a", "1.2.0"), Record("a", "1.1.9")});

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[DEBUG_VERBOSE] Quolex Container Runtime: Comparing duplicate 'a': candidate v1.2.0 vs current "
            "best v1.0.0",
            "[WARNING] Quolex Container Runtime: Ignoring duplicate plugin 'a' v1.0.0 (superseded by v1.2.0)",
            "[DEBUG_VERBOSE] Quolex Container Runtime: Comparing duplicate 'a': candidate v1.1.9 vs current "
            "best v1.2.0",
            "[WARNING] Quolex Container Runtime: Ignoring duplicate plugin 'a' v1.1.9 (keeping v1.2.0)"));
}

TEST_F(CrpScanner, ComparesVersionsAsNumbers) {
    EXPECT_THAT(Labels(_scanner.deduplicateByName({Record("a", "1.9.9"), Record("a", "1.10.0")})),
                ElementsAre("a 1.10.0"));
}

TEST_F(CrpScanner, KeepsTheFirstOfEqualVersionsWithItsOwnText) {
    std::vector<PluginInfo> plugins{Record("a", "1.2"), Record("a", "1.2.0")};
    plugins[0].path = "/first";

    const auto kept = _scanner.deduplicateByName(plugins);

    EXPECT_THAT(Labels(kept), ElementsAre("a 1.2"));
    EXPECT_EQ(kept[0].path, "/first");
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[WARNING] Quolex Container Runtime: Ignoring duplicate plugin 'a' v1.2.0 (keeping v1.2)"));
}

TEST_F(CrpScanner, CountsAVersionThatIsNoNumberAsTheLowestWhicheverComesFirst) {
    EXPECT_THAT(Labels(_scanner.deduplicateByName({Record("a", "v1.2.3"), Record("a", "0.0.1")})),
                ElementsAre("a 0.0.1"));
    EXPECT_THAT(Labels(_scanner.deduplicateByName({Record("a", "0.0.1"), Record("a", "v1.2.3")})),
                ElementsAre("a 0.0.1"));
}

TEST_F(CrpScanner, KeepsDifferentNamesWithoutAWord) {
    EXPECT_THAT(Labels(_scanner.deduplicateByName({Record("a", "1"), Record("A", "1"), Record("", "1")})),
                UnorderedElementsAre("a 1", "A 1", " 1"));
    EXPECT_THAT(_scanner.deduplicateByName({}), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, LetsTheUsersCopyWinATieAndLoseToANewerSystemCopy) {
    PluginMaker::Write(InUserDir("tie"), Trailer("tie", "1.0.0"));
    PluginMaker::Write(InSystemDir("tie"), Trailer("tie", "1.0.0"));
    PluginMaker::Write(InUserDir("older"), Trailer("update", "1.9.9"));
    PluginMaker::Write(InSystemDir("newer"), Trailer("update", "2.0.0"));

    std::vector<std::string> paths;
    for (const PluginInfo& plugin : _scanner.scan()) {
        paths.push_back(plugin.path);
    }

    EXPECT_THAT(paths, UnorderedElementsAre(InUserDir("tie"), InSystemDir("newer")));
}

}  // namespace
