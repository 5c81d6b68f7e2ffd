#include "tests/crp/ScannerFixture.h"

#include "Sandbox.h"
#include "tests/crp/AsNobody.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <sstream>
#include <thread>

using CRP::PluginInfo;
using CRP::QxCRPScanner;
using PluginMaker::Record;
using PluginMaker::Trailer;
using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

std::string Numbered(const char* prefix, std::uint32_t number) {
    return std::string(prefix).append(std::to_string(number));
}

std::string Release() {
    utsname system{};
    uname(&system);
    return system.release;
}

/// Makes its scanners itself.
class CrpScannerStart : public CrpScanner {
protected:
    CrpScannerStart() { Recording::Forget(); }
};

// --- Construction ---

TEST_F(CrpScannerStart, LogsTheReleaseAndBothDirectories) {
    const QxCRPScanner scanner(UserDir);

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[INFO] Quolex Container Runtime: Running OS release : " + Release(),
            "[INFO] Quolex Container Runtime: Plugin directory   : /userstorage1/container_rte/plugins",
            "[INFO] Quolex Container Runtime: System plugin dir  : /usr/Quolex/container/plugins"));
}

TEST_F(CrpScannerStart, FindsNothingBeforeTheFirstScan) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    const QxCRPScanner scanner(UserDir);

    EXPECT_THAT(scanner.getAllPlugins(), IsEmpty());
    EXPECT_FALSE(scanner.pluginExists("a", "1.0.0"));
}

TEST_F(CrpScannerStart, WithoutAReleaseEveryPluginThatAsksForOneIsIncompatible) {
    FailSystemCall(SYS_uname, EPERM);
    const QxCRPScanner scanner(UserDir);

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[WARNING] Quolex Container Runtime: uname() failed: Operation not permitted. OS "
            "compatibility checks will be skipped",
            "[INFO] Quolex Container Runtime: Running OS release : ",
            "[INFO] Quolex Container Runtime: Plugin directory   : /userstorage1/container_rte/plugins",
            "[INFO] Quolex Container Runtime: System plugin dir  : /usr/Quolex/container/plugins"));
    EXPECT_TRUE(scanner.checkOsCompatibility(""));
    EXPECT_FALSE(scanner.checkOsCompatibility("rt"));
}

// --- Compatibility ---

TEST_F(CrpScanner, FindsTheTextAnywhereInTheRelease) {
    const std::string release = Release();

    EXPECT_TRUE(_scanner.checkOsCompatibility(""));
    EXPECT_TRUE(_scanner.checkOsCompatibility(release));
    EXPECT_TRUE(_scanner.checkOsCompatibility(release.substr(1, 3)));
    EXPECT_FALSE(_scanner.checkOsCompatibility(release + "x"));
    EXPECT_FALSE(_scanner.checkOsCompatibility("*"));
}

TEST_F(CrpScanner, MindsTheCaseOfTheRelease) {
    std::string other = Release();
    std::transform(other.begin(), other.end(), other.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (other == Release()) {
        GTEST_SKIP() << "cannot run here: the kernel release has no lower-case letter";
    }

    EXPECT_FALSE(_scanner.checkOsCompatibility(other));
}

// --- One directory ---

TEST_F(CrpScanner, RecordsAPluginWithItsPath) {
    CrpPluginHeader trailer = Trailer("tool", "1.2.3");
    trailer.initPriority = 4000000000;
    PluginMaker::Write(InUserDir("any name"), trailer);

    const std::vector<PluginInfo> found = ScanUserDir();

    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].path, InUserDir("any name"));
    EXPECT_TRUE(found[0].osCompatible);
    EXPECT_EQ(PluginMaker::Bytes(found[0].header), PluginMaker::Bytes(trailer));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[INFO] Quolex Container Runtime: Found  : tool v1.2.3 | priority=4000000000 | os_ok=yes"));
}

TEST_F(CrpScanner, RecordsIncompatiblePluginsTooAndSaysWhy) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("tool", "1.2.3", "no-such-os"));

    const std::vector<PluginInfo> found = ScanUserDir();

    ASSERT_EQ(found.size(), 1U);
    EXPECT_FALSE(found[0].osCompatible);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[WARNING] Quolex Container Runtime: Plugin 'tool' v1.2.3 requires OS release containing "
                    "'no-such-os' but running '" +
                        Release() + "'",
                    "[INFO] Quolex Container Runtime: Found  : tool v1.2.3 | priority=0 | os_ok=no"));
}

TEST_F(CrpScanner, TakesTextsWithoutANulUpToTheirBorder) {
    CrpPluginHeader trailer = Trailer(std::string(64, 'n'), std::string(32, 'v'), std::string(672, 'o'));
    PluginMaker::SetText(trailer.initCommand, std::string(384, 'i'));
    PluginMaker::Write(InUserDir("a.crp"), trailer);

    _scanner.scan();

    EXPECT_TRUE(_scanner.pluginExists(std::string(64, 'n'), std::string(32, 'v')));
    EXPECT_THAT(Recording::Logs(),
                Contains("[INFO] Quolex Container Runtime: Found  : " + std::string(64, 'n') + " v" +
                         std::string(32, 'v') + " | priority=0 | os_ok=no"));
}

TEST_F(CrpScannerVerbose, NeverExaminesHiddenEntries) {
    for (const char* name : {".hidden", "..twice", ".a.crp"}) {
        PluginMaker::Write(InUserDir(name), Trailer("hidden", "1.0.0"));
    }
    PluginMaker::Write(InUserDir("a.crp"), Trailer("shown", "1.0.0"));

    EXPECT_THAT(Labels(ScanUserDir()), ElementsAre("shown 1.0.0"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Runtime: Examining directory entry "
                    "'/userstorage1/container_rte/plugins/a.crp'",
                    "[DEBUG_VERBOSE] Quolex Container Runtime: Read header from "
                    "'/userstorage1/container_rte/plugins/a.crp': magic=0x43525000, header_size=2048",
                    "[INFO] Quolex Container Runtime: Found  : shown v1.0.0 | priority=0 | os_ok=yes"));
}

TEST_F(CrpScanner, FollowsLinksAndSkipsWhatIsNoRegularFile) {
    PluginMaker::Write("/elsewhere/real", Trailer("linked", "1.0.0"));
    fs::create_directories(InUserDir("directory"));
    fs::create_symlink("/elsewhere/real", InUserDir("link"));
    fs::create_symlink("nowhere", InUserDir("dangling"));
    fs::create_symlink("circle", InUserDir("circle"));
    fs::create_symlink("circle2b", InUserDir("circle2a"));
    fs::create_symlink("circle2a", InUserDir("circle2b"));
    fs::create_symlink("/dev/zero", InUserDir("device-link"));
    mkfifo(InUserDir("fifo").c_str(), 0600);
    mknod(InUserDir("device").c_str(), S_IFCHR | 0600, makedev(1, 5));

    const std::vector<PluginInfo> found = ScanUserDir();

    EXPECT_THAT(Labels(found), ElementsAre("linked 1.0.0"));
    EXPECT_EQ(found[0].path, InUserDir("link"));
}

TEST_F(CrpScanner, KeepsTheDirectorysOwnOrder) {
    for (std::uint32_t i = 0; i < 20; ++i) {
        PluginMaker::Write(InUserDir(Numbered("p", i * 7U % 20)), Trailer(Numbered("n", i), "1"));
    }
    std::vector<std::string> listed;
    for (const auto& entry : fs::directory_iterator(UserDir)) {
        listed.push_back(entry.path().string());
    }

    std::vector<std::string> found;
    for (const PluginInfo& plugin : ScanUserDir()) {
        found.push_back(plugin.path);
    }

    EXPECT_EQ(found, listed);
}

TEST_F(CrpScanner, AppendsAndLeavesATrailingSlashAsItIs) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    std::vector<PluginInfo> found{Record("earlier", "1")};

    _scanner.scanDirectory(std::string(UserDir) + "/", found);

    EXPECT_THAT(Labels(found), ElementsAre("earlier 1", "a 1.0.0"));
    EXPECT_EQ(found[1].path, std::string(UserDir) + "//a.crp");
}

TEST_F(CrpScanner, AcceptsNamesWithLineBreaksAndBytesThatAreNoUtf8) {
    PluginMaker::Write(InUserDir("line\nbreak"), Trailer("in\nname", "1"));
    PluginMaker::Write(InUserDir("bad\xFF\xFE"), Trailer("bad\xC3", "1"));

    const std::vector<PluginInfo> found = _scanner.scan();

    EXPECT_THAT(Labels(found), UnorderedElementsAre("in\nname 1", "bad\xC3 1"));
    std::string name;
    std::string version;
    EXPECT_TRUE(_scanner.findPluginByFileName("bad\xFF\xFE", name, version));
    EXPECT_EQ(name, "bad\xC3");
}

TEST_F(CrpScanner, SaysNothingOfAMissingDirectoryUnlessDebugIsOn) {
    EXPECT_THAT(ScanUserDir(), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, NamesAMissingDirectoryAtLevelDebug) {
    TheScript().logLevel = "DEBUG";

    ScanUserDir();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Runtime: Cannot open plugin directory "
                            "'/userstorage1/container_rte/plugins': No such file or directory. Skipping"));
}

TEST_F(CrpScanner, PassesOverAFileInTheDirectorysPlace) {
    TheScript().logLevel = "DEBUG";
    Sandbox::WriteFile(UserDir, "a file");

    EXPECT_THAT(ScanUserDir(), IsEmpty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Runtime: Cannot open plugin directory "
                            "'/userstorage1/container_rte/plugins': Not a directory. Skipping"));
}

/// A level at which a directory that cannot be opened is told of, and entries are not.
class CrpScannerDebug : public CrpScanner {
protected:
    CrpScannerDebug() { TheScript().logLevel = "DEBUG"; }
};

TEST_F(CrpScannerDebug, NamesADirectoryThatItMayNotRead) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    chmod(UserDir, 0);
    const AsNobody nobody;

    EXPECT_THAT(ScanUserDir(), IsEmpty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Runtime: Cannot open plugin directory "
                            "'/userstorage1/container_rte/plugins': Permission denied. Skipping"));
}

TEST_F(CrpScannerDebug, SkipsEntriesThatItMayNotLookAtWithoutAWord) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    chmod(UserDir, 0444);
    const AsNobody nobody;

    EXPECT_THAT(ScanUserDir(), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScannerDebug, SkipsFilesThatItMayNotReadWithoutAWord) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    chmod(InUserDir("a.crp").c_str(), 0);
    const AsNobody nobody;

    EXPECT_THAT(ScanUserDir(), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScannerDebug, TellsTheDirectorysErrorWhateverTheQueryOfTheLevelLeaves) {
    TheScript().onEvent = [](const std::string&) { errno = EIO; };

    ScanUserDir();

    EXPECT_THAT(Recording::Logs(), ElementsAre(HasSubstr("': No such file or directory. Skipping")));
}

TEST_F(CrpScannerVerbose, ExaminesWhatIsNoRegularFileToo) {
    fs::create_directories(InUserDir("directory"));
    fs::create_symlink("nowhere", InUserDir("dangling"));
    mkfifo(InUserDir("fifo").c_str(), 0600);

    ScanUserDir();

    const auto line = [](const std::string& name) {
        return "[DEBUG_VERBOSE] Quolex Container Runtime: Examining directory entry '" + InUserDir(name) +
               "'";
    };
    EXPECT_THAT(Recording::Logs(), UnorderedElementsAre(line("directory"), line("dangling"), line("fifo")));
}

/// @return how many bytes this process has read so far, without those of this answer
std::uint64_t BytesRead() {
    static std::uint64_t ofAnswers = 0;
    const std::string answer = Sandbox::ReadFile("/proc/self/io");
    std::istringstream fields(answer);
    std::string key;
    std::uint64_t read = 0;
    fields >> key >> read;
    EXPECT_EQ(key, "rchar:");
    read -= ofAnswers;
    ofAnswers += answer.size();
    return read;
}

TEST_F(CrpScanner, ReadsNothingOfAPluginButItsTrailer) {
    constexpr std::size_t Plugins = 7;
    for (std::uint32_t i = 0; i < Plugins; ++i) {
        PluginMaker::Write(InUserDir(Numbered("p", i)), Trailer(Numbered("n", i), "1"),
                           std::string(100000, 'i'));
    }
    Sandbox::WriteFile(InUserDir("short"), std::string(2047, 'x'));
    ScanUserDir();  // what is set up once does not count
    const std::uint64_t before = BytesRead();

    const std::size_t found = ScanUserDir().size();

    EXPECT_EQ(BytesRead() - before, Plugins * 2048);
    EXPECT_EQ(found, Plugins);
}

// --- Both directories ---

TEST_F(CrpScanner, WithBothDirectoriesMissingForgetsTheLastScan) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    _scanner.scan();
    fs::remove_all(UserDir);

    EXPECT_THAT(_scanner.scan(), IsEmpty());
    EXPECT_THAT(_scanner.getAllPlugins(), IsEmpty());
}

TEST_F(CrpScanner, ListsTheUsersPluginsBeforeTheSystems) {
    PluginMaker::Write(InSystemDir("a.crp"), Trailer("a", "1.0.0"));
    PluginMaker::Write(InUserDir("z.crp"), Trailer("z", "1.0.0"));

    _scanner.scan();

    EXPECT_THAT(Labels(_scanner.getAllPlugins()), ElementsAre("z 1.0.0", "a 1.0.0"));
}

TEST_F(CrpScanner, KeepsIncompatiblePluginsAndDuplicatesOutOfTheResultOnly) {
    PluginMaker::Write(InUserDir("old"), Trailer("a", "1.0.0"));
    PluginMaker::Write(InUserDir("other"), Trailer("b", "1.0.0", "no-such-os"));
    PluginMaker::Write(InSystemDir("new"), Trailer("a", "2.0.0"));

    EXPECT_THAT(Labels(_scanner.scan()), ElementsAre("a 2.0.0"));
    EXPECT_THAT(Labels(_scanner.getAllPlugins()), UnorderedElementsAre("a 1.0.0", "b 1.0.0", "a 2.0.0"));
}

TEST_F(CrpScanner, LetsNoIncompatibleNewerVersionHideACompatibleOne) {
    PluginMaker::Write(InUserDir("new"), Trailer("a", "2.0.0", "no-such-os"));
    PluginMaker::Write(InUserDir("old"), Trailer("a", "1.0.0"));

    EXPECT_THAT(Labels(_scanner.scan()), ElementsAre("a 1.0.0"));
    EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("duplicate"))));
}

TEST_F(CrpScanner, SortsByPriorityAsUnsignedNumbers) {
    for (const std::uint32_t priority : {0x80000000U, 7U, 0xFFFFFFFFU, 0U, 10U}) {
        CrpPluginHeader trailer = Trailer(Numbered("p", priority), "1");
        trailer.initPriority = priority;
        PluginMaker::Write(InUserDir(std::to_string(priority)), trailer);
    }

    EXPECT_THAT(Labels(_scanner.scan()),
                ElementsAre("p0 1", "p7 1", "p10 1", "p2147483648 1", "p4294967295 1"));
}

TEST_F(CrpScannerVerbose, CountsTheFilesBeforeDuplicatesAreResolved) {
    PluginMaker::Write(InUserDir("a"), Trailer("a", "1.0.0"));
    PluginMaker::Write(InSystemDir("a"), Trailer("a", "1.0.0"));

    _scanner.scan();

    EXPECT_THAT(
        Recording::Logs(),
        Contains(
            "[DEBUG_VERBOSE] Quolex Container Runtime: Scan discovered 2 plugin file(s) in total (before "
            "de-duplication)"));
}

TEST_F(CrpScanner, ReadsEveryHeaderAfresh) {
    PluginMaker::Write(InUserDir("a"), Trailer("a", "1.0.0"));
    _scanner.scan();
    PluginMaker::Write(InUserDir("a"), Trailer("a", "1.0.1"));

    EXPECT_THAT(Labels(_scanner.scan()), ElementsAre("a 1.0.1"));
}

TEST_F(CrpScanner, AnswersWithThePreviousResultInTheMiddleOfAScan) {
    PluginMaker::Write(InUserDir("a"), Trailer("old", "1"));
    _scanner.scan();
    PluginMaker::Write(InUserDir("a"), Trailer("new", "1"));
    std::future<std::vector<PluginInfo>> listing;
    std::future_status status = std::future_status::deferred;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Found  : new v1") != std::string::npos) {
            listing = std::async(std::launch::async, [this] { return _scanner.getAllPlugins(); });
            status = listing.wait_for(std::chrono::seconds(2));
        }
    };

    _scanner.scan();

    TheScript().onEvent = nullptr;
    ASSERT_TRUE(listing.valid());
    EXPECT_EQ(status, std::future_status::ready);
    EXPECT_THAT(Labels(listing.get()), ElementsAre("old 1"));
    EXPECT_THAT(Labels(_scanner.getAllPlugins()), ElementsAre("new 1"));
}

TEST_F(CrpScanner, AnswersQueriesDuringAScan) {
    PluginMaker::Write(InUserDir("a"), Trailer("a", "1.0.0"));
    _scanner.scan();
    std::thread reader([this] {
        std::string name;
        std::string version;
        for (int i = 0; i < 200; ++i) {
            EXPECT_TRUE(_scanner.pluginExists("a", "1.0.0"));
            EXPECT_EQ(_scanner.getAllPlugins().size(), 1U);
            EXPECT_TRUE(_scanner.findPluginByFileName("a", name, version));
        }
    });
    for (int i = 0; i < 50; ++i) {
        _scanner.scan();
    }
    reader.join();
}

TEST_F(CrpScanner, LocksTheListOnceForEachCallAndWithoutATimeLimit) {
    PluginMaker::Write(InUserDir("a"), Trailer("a", "1.0.0"));
    std::string name;
    std::string version;
    const std::function<void()> calls[] = {[&] { _scanner.scan(); }, [&] { _scanner.getAllPlugins(); },
                                           [&] { _scanner.pluginExists("a", "1.0.0"); },
                                           [&] { _scanner.findPluginByFileName("a", name, version); }};
    for (const auto& call : calls) {
        Recording::Forget();
        call();
        EXPECT_THAT(Recording::MutexCalls(), ElementsAre("lock(-1)", "unlock"));
    }
}

// --- Queries ---

TEST_F(CrpScanner, KnowsPluginsByExactNameAndVersion) {
    PluginMaker::Write(InUserDir("a"), Trailer("Tool", "1.0.0", "no-such-os"));
    PluginMaker::Write(InUserDir("b"), Trailer("bare", ""));
    _scanner.scan();

    EXPECT_TRUE(_scanner.pluginExists("Tool", "1.0.0"));
    EXPECT_FALSE(_scanner.pluginExists("tool", "1.0.0"));
    EXPECT_FALSE(_scanner.pluginExists("Tool", "1.0"));
    EXPECT_FALSE(_scanner.pluginExists("Tool", ""));
    EXPECT_TRUE(_scanner.pluginExists("bare", ""));
    EXPECT_FALSE(_scanner.pluginExists("", ""));
}

TEST_F(CrpScanner, FindsAPluginByItsFileNameTheUsersCopyFirst) {
    PluginMaker::Write(InUserDir("same.crp"), Trailer("users", "1.0.0"));
    PluginMaker::Write(InSystemDir("same.crp"), Trailer("systems", "2.0.0"));
    _scanner.scan();
    std::string name;
    std::string version;

    EXPECT_TRUE(_scanner.findPluginByFileName("same.crp", name, version));
    EXPECT_EQ(name + " " + version, "users 1.0.0");
}

TEST_F(CrpScanner, LeavesTheTextsAloneWhenThereIsNoSuchFile) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    _scanner.scan();
    std::string name = "kept";
    std::string version = "kept too";

    for (const char* fileName : {"b.crp", "", "A.crp", "a.crp/", "plugins/a.crp", "/a.crp"}) {
        EXPECT_FALSE(_scanner.findPluginByFileName(fileName, name, version)) << fileName;
    }
    EXPECT_EQ(name + ", " + version, "kept, kept too");
}

}  // namespace
