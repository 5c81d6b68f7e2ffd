#include "QxCRPHandler.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/crp/CrpTest.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/LoopDevices.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <cerrno>
#include <filesystem>
#include <thread>

using CRP::QxCRPHandler;
using PluginMaker::Trailer;
using QxNJson::json;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

constexpr const char* UserDir = "/userstorage1/container_rte/plugins";
constexpr const char* SystemDir = "/usr/Quolex/container/plugins";
constexpr const char* ConfigFile = "/userstorage1/container_rte/plugins/config.json";

std::string InUserDir(const std::string& name) { return std::string(UserDir) + "/" + name; }

class CrpHandler : public CrpTest {
protected:
    explicit CrpHandler(const char* logLevel = "INFO") { TheScript().logLevel = logLevel; }

    /// Has the handler scan a directory with the plugin foo in version 1.0.0.
    void ScanFoo() {
        PluginMaker::Write(InUserDir("foo.crp"), Trailer("foo", "1.0.0"));
        _handler.scanPluginsDir();
        Recording::Forget();
    }

    QxCRPHandler _handler{UserDir, ConfigFile};
};

class CrpHandlerDebug : public CrpHandler {
protected:
    CrpHandlerDebug() : CrpHandler("DEBUG") {}
};

class CrpHandlerVerbose : public CrpHandler {
protected:
    CrpHandlerVerbose() : CrpHandler("DEBUG_VERBOSE") {}
};

/// These make their handlers themselves.
class CrpHandlerStart : public CrpTest {};
class CrpHandlerLoad : public CrpTest {};
class CrpHandlerListing : public CrpTest {};
class CrpHandlerWriting : public CrpTest {};
class CrpHandlerBadPath : public CrpTest {};

// --- Construction, scan and load ---

TEST_F(CrpHandlerStart, LogsTheScannersDirectoriesAndThenReadsTheListWithoutAScan) {
    Sandbox::WriteFile(ConfigFile, R"({"deactivated_plugins": [{"name": "foo", "version": "1.0.0"}]})");
    PluginMaker::Write(InUserDir("foo.crp"), Trailer("foo", "1.0.0"));

    const QxCRPHandler handler(UserDir, ConfigFile);

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            StartsWith("[INFO] Quolex Container Runtime: Running OS release : "),
            "[INFO] Quolex Container Runtime: Plugin directory   : /userstorage1/container_rte/plugins",
            "[INFO] Quolex Container Runtime: System plugin dir  : /usr/Quolex/container/plugins",
            "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'foo' v1.0.0"));
    EXPECT_EQ(handler.listPlugins().dump(), R"({"plugins":[]})");
}

TEST_F(CrpHandlerDebug, AnnouncesLoading) {
    Recording::Forget();
    fs::create_directories(UserDir);
    fs::create_directories(SystemDir);

    _handler.loadPlugins();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Utils: Loading container plugins..."));
}

TEST_F(CrpHandlerDebug, AnnouncesLoadingBeforeItScans) {
    CrpPluginHeader trailer = Trailer("x", "1.0.0");
    trailer.pluginType = 2;
    PluginMaker::Write(InUserDir("x.crp"), trailer);
    fs::create_directories(SystemDir);
    Recording::Forget();

    _handler.loadPlugins();

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Utils: Loading container plugins...",
                    "[INFO] Quolex Container Runtime: Found  : x v1.0.0 | priority=0 | os_ok=yes",
                    "[WARNING] Quolex Container Runtime: Skipping unsupported plugin type 2 for plugin 'x' "
                    "v1.0.0"));
}

TEST_F(CrpHandler, AnnouncesNothingWhenDebugIsOff) {
    Recording::Forget();

    _handler.loadPlugins();

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpHandlerLoad, LoadsInOrderOfPriorityAndSkipsWhatTheUserSwitchedOff) {
    const LoopDevices loop;
    Sandbox::WriteFile("/image/note.sh", "echo $1 >> /ran\n");
    const std::string image = PluginMaker::ImageOf("/image");
    const auto install = [&](const std::string& name, std::uint32_t priority) {
        CrpPluginHeader trailer = Trailer(name, "1.0.0");
        trailer.initPriority = priority;
        trailer.imageSize = image.size();
        PluginMaker::SetText(trailer.initCommand, "note.sh " + name);
        PluginMaker::Write(loop.Directory() + "/" + name, trailer, image);
    };
    install("third", 30);
    install("first", 10);
    install("off", 15);
    install("second", 20);
    Sandbox::WriteFile(ConfigFile, R"({"deactivated_plugins": [{"name": "off", "version": "1.0.0"}]})");
    QxCRPHandler handler(loop.Directory(), ConfigFile);

    handler.loadPlugins();

    EXPECT_EQ(Sandbox::ReadFile("/ran"), "first\nsecond\nthird\n");
    std::vector<std::string> states;
    const json list = handler.listPlugins();
    for (const auto& plugin : list["plugins"]) {
        states.push_back(plugin["name"].get<std::string>() +
                         (plugin["isLoaded"].get<bool>() ? " loaded" : "") +
                         (plugin["isDeactivated"].get<bool>() ? " off" : ""));
    }
    EXPECT_THAT(states,
                testing::UnorderedElementsAre("first loaded", "second loaded", "third loaded", "off off"));
}

TEST_F(CrpHandler, SeesNewFilesOnlyAfterAScan) {
    ScanFoo();
    PluginMaker::Write(InUserDir("bar.crp"), Trailer("bar", "1.0.0"));
    EXPECT_EQ(_handler.listPlugins()["plugins"].size(), 1U);

    _handler.scanPluginsDir();

    EXPECT_EQ(_handler.listPlugins()["plugins"].size(), 2U);
}

// --- The listing ---

TEST_F(CrpHandler, ListsEveryKeyInItsOrder) {
    CrpPluginHeader trailer = Trailer("foo", "1.0.0");
    trailer.initPriority = 4294967295;
    trailer.pluginType = 2147483648;
    PluginMaker::Write(InUserDir("foo.crp"), trailer, "12345");
    const timespec times[2] = {{1, 0}, {1234567890, 999}};
    utimensat(AT_FDCWD, InUserDir("foo.crp").c_str(), times, 0);
    _handler.scanPluginsDir();

    EXPECT_EQ(_handler.listPlugins().dump(),
              R"({"plugins":[{"fileName":"foo.crp","path":"/userstorage1/container_rte/plugins/foo.crp",)"
              R"("directory":"user","name":"foo","version":"1.0.0","compatibleOs":"","osCompatible":true,)"
              R"("initPriority":4294967295,"pluginType":2147483648,"size":2053,"created":1234567890,)"
              R"("isDeactivated":false,"isLoaded":false}]})");
}

TEST_F(CrpHandler, ListsIncompatiblePluginsAndDuplicatesOfBothDirectories) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0", "no-such-os"));
    PluginMaker::Write(std::string(SystemDir) + "/a.crp", Trailer("a", "1.0.0"));
    _handler.scanPluginsDir();

    const json list = _handler.listPlugins();

    ASSERT_EQ(list["plugins"].size(), 2U);
    EXPECT_EQ(list["plugins"][0]["directory"], "user");
    EXPECT_EQ(list["plugins"][0]["compatibleOs"], "no-such-os");
    EXPECT_EQ(list["plugins"][0]["osCompatible"], false);
    EXPECT_EQ(list["plugins"][1]["directory"], "system");
    EXPECT_EQ(list["plugins"][1]["path"], "/usr/Quolex/container/plugins/a.crp");
}

TEST_F(CrpHandlerListing, CountsEveryPathThatBeginsLikeTheUserDirectoryAsUser) {
    PluginMaker::Write(std::string(SystemDir) + "/a.crp", Trailer("a", "1.0.0"));
    QxCRPHandler handler("/usr/Quolex/container/plug", ConfigFile);
    handler.scanPluginsDir();

    EXPECT_EQ(handler.listPlugins()["plugins"][0]["directory"], "user");
}

TEST_F(CrpHandler, ListsSizeAndTimeOfTheFileBehindALink) {
    PluginMaker::Write("/elsewhere/real", Trailer("linked", "1.0.0"), "12345");
    const timespec times[2] = {{1, 0}, {1234567890, 0}};
    utimensat(AT_FDCWD, "/elsewhere/real", times, 0);
    fs::create_directories(UserDir);
    fs::create_symlink("/elsewhere/real", InUserDir("link"));
    _handler.scanPluginsDir();

    const json list = _handler.listPlugins();

    EXPECT_EQ(list["plugins"][0]["path"], InUserDir("link"));
    EXPECT_EQ(list["plugins"][0]["size"], 2053);
    EXPECT_EQ(list["plugins"][0]["created"], 1234567890);
}

TEST_F(CrpHandler, ListsAVanishedFileWithoutSizeAndTime) {
    ScanFoo();
    fs::remove(InUserDir("foo.crp"));

    const json list = _handler.listPlugins();

    EXPECT_EQ(list["plugins"][0]["size"], 0);
    EXPECT_EQ(list["plugins"][0]["created"], 0);
}

TEST_F(CrpHandler, ListsNamesThatAreNoUtf8WithReplacements) {
    PluginMaker::Write(InUserDir("bad\xFF"), Trailer("n\xC3", "v\xFE", "\x80"));
    _handler.scanPluginsDir();

    const json list = json::parse(_handler.listPlugins().dump());

    ASSERT_FALSE(list.is_invalid());
    EXPECT_EQ(list["plugins"][0]["fileName"], "bad\xEF\xBF\xBD");
    EXPECT_EQ(list["plugins"][0]["name"], "n\xEF\xBF\xBD");
}

TEST_F(CrpHandler, ListsNamesWithLineBreaksAsTheyAre) {
    PluginMaker::Write(InUserDir("line\nbreak"), Trailer("in\nname", "1\r\n2"));
    _handler.scanPluginsDir();

    const json list = _handler.listPlugins();

    EXPECT_EQ(list["plugins"][0]["fileName"], "line\nbreak");
    EXPECT_EQ(list["plugins"][0]["name"], "in\nname");
    EXPECT_EQ(list["plugins"][0]["version"], "1\r\n2");
    EXPECT_TRUE(json::parse(list.dump()) == list);
}

TEST_F(CrpHandler, CountsNothingWhenDebugIsOff) {
    ScanFoo();

    _handler.listPlugins();

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpHandlerDebug, CountsThePluginsListed) {
    ScanFoo();

    _handler.listPlugins();

    EXPECT_THAT(Recording::Logs(), ElementsAre("[DEBUG] Quolex Container Utils: Discovered 1 CRP plugin(s)"));
}

TEST_F(CrpHandler, ShowsTheDeactivationListAsItWasRead) {
    ScanFoo();
    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0);

    EXPECT_EQ(_handler.listPlugins()["plugins"][0]["isDeactivated"], false);
    QxCRPHandler next(UserDir, ConfigFile);
    next.scanPluginsDir();
    EXPECT_EQ(next.listPlugins()["plugins"][0]["isDeactivated"], true);
}

// --- Reading the configuration ---

TEST_F(CrpHandler, TakesAMissingConfigurationAsAnEmptyOne) {
    Recording::Forget();
    json config = 5;

    EXPECT_TRUE(_handler.readConfig(config));
    EXPECT_EQ(config.dump(), "{}");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpHandlerVerbose, TellsWhatItParsed) {
    Sandbox::WriteFile(ConfigFile, "{ \"b\": 1,\n \"a\": \"\xC3\xBC\" }");
    Recording::Forget();
    json config;

    EXPECT_TRUE(_handler.readConfig(config));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Utils: Parsed config file "
                    "'/userstorage1/container_rte/plugins/config.json': {\"b\":1,\"a\":\"\xC3\xBC\"}"));
}

TEST_F(CrpHandler, ReportsAConfigurationThatCannotBeOpened) {
    ScanFoo();
    Sandbox::WriteFile(ConfigFile, "{}");
    // On a thread of its own: a count of what is reached is opened at the end of the process.
    std::thread([&] {
        FailSystemCall(SYS_openat, EACCES);
        json config;
        EXPECT_FALSE(_handler.readConfig(config));
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[ERROR] Quolex Container Utils: Failed to open config file "
                                "'/userstorage1/container_rte/plugins/config.json' for reading"));
        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4);
    }).join();
}

TEST_F(CrpHandler, NeverOverwritesAConfigurationThatIsNoJson) {
    ScanFoo();
    for (const char* content : {"", "{\"deactivated_plugins\": [", "half a { file"}) {
        Sandbox::WriteFile(ConfigFile, content);
        Recording::Forget();
        json config;

        EXPECT_FALSE(_handler.readConfig(config));
        EXPECT_TRUE(config.is_invalid());
        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4);
        EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 4);
        EXPECT_EQ(Sandbox::ReadFile(ConfigFile), content);
        const std::string line =
            "[ERROR] Quolex Container Utils: Failed to parse config file "
            "'/userstorage1/container_rte/plugins/config.json'";
        EXPECT_THAT(Recording::Logs(), ElementsAre(line, line, line));
    }
}

TEST_F(CrpHandler, ReportsADirectoryInTheConfigurationsPlace) {
    ScanFoo();
    fs::create_directories(ConfigFile);

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4);
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 4);
    EXPECT_TRUE(fs::is_directory(ConfigFile));
}

TEST_F(CrpHandler, TakesNothingForAConfigurationThatCouldKeepItWaiting) {
    ScanFoo();
    const auto expectNoJson = [this] {
        Recording::Forget();
        json config;
        EXPECT_FALSE(_handler.readConfig(config));
        EXPECT_TRUE(config.is_invalid());
        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4);
        EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 4);
        EXPECT_THAT(Recording::Logs(),
                    testing::AllOf(testing::SizeIs(3),
                                   testing::Each("[ERROR] Quolex Container Utils: Failed to parse config "
                                                 "file '/userstorage1/container_rte/plugins/config.json'")));
    };

    mkfifo(ConfigFile, 0600);
    expectNoJson();
    EXPECT_TRUE(fs::is_fifo(ConfigFile));

    fs::remove(ConfigFile);
    Sandbox::WriteFile(ConfigFile, "{}" + std::string(16U << 20, ' '));
    expectNoJson();
    EXPECT_EQ(fs::file_size(ConfigFile), (16U << 20) + 2);
}

/// A configuration whose status is not to be had counts as missing, so that only writing it can fail.
void ExpectMissingAndNotWritable(const std::string& configFile) {
    PluginMaker::Write(InUserDir("foo.crp"), Trailer("foo", "1.0.0"));
    QxCRPHandler handler(UserDir, configFile);
    handler.scanPluginsDir();
    Recording::Forget();
    json config = 5;

    EXPECT_TRUE(handler.readConfig(config));
    EXPECT_EQ(config.dump(), "{}");
    EXPECT_THAT(Recording::Logs(), IsEmpty());

    EXPECT_EQ(handler.addPluginToConfig("foo", "1.0.0"), 4);
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Failed to open config file '" + configFile +
                            "' for writing"));
}

TEST_F(CrpHandlerBadPath, TakesACircleOfLinksForAMissingConfiguration) {
    fs::create_symlink("circle.json", "/run/circle.json");

    ExpectMissingAndNotWritable("/run/circle.json");
}

TEST_F(CrpHandlerBadPath, TakesANameThatIsTooLongForAMissingConfiguration) {
    ExpectMissingAndNotWritable("/run/" + std::string(256, 'c'));
}

// --- Writing the configuration ---

TEST_F(CrpHandlerWriting, MakesTheDirectoryAndEndsWithoutALineFeed) {
    const QxCRPHandler handler(UserDir, "/a/b/c/config.json");
    json config = json::object();
    config["k"] = "\xC3\xBC \xFF";

    EXPECT_TRUE(handler.writeConfig(config));
    EXPECT_EQ(Sandbox::ReadFile("/a/b/c/config.json"), "{\n    \"k\": \"\xC3\xBC \xEF\xBF\xBD\"\n}");
}

TEST_F(CrpHandlerWriting, ReplacesTheFileInPlace) {
    Sandbox::WriteFile("/run/real.json", std::string(1000, ' '));
    fs::create_symlink("/run/real.json", "/run/config.json");
    const QxCRPHandler handler(UserDir, "/run/config.json");

    EXPECT_TRUE(handler.writeConfig(json::object()));
    EXPECT_EQ(Sandbox::ReadFile("/run/real.json"), "{}");
    EXPECT_TRUE(fs::is_symlink("/run/config.json"));
}

TEST_F(CrpHandlerWriting, ReportsADirectoryThatCannotBeMade) {
    Sandbox::WriteFile("/a", "a file");
    const QxCRPHandler handler(UserDir, "/a/b/config.json");
    Recording::Forget();

    EXPECT_FALSE(handler.writeConfig(json::object()));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[ERROR] Quolex Container Utils: Failed to create config directory: Not a directory"));
}

TEST_F(CrpHandlerWriting, ReportsAFileThatCannotBeOpened) {
    fs::create_directories(ConfigFile);
    const QxCRPHandler handler(UserDir, ConfigFile);
    Recording::Forget();

    EXPECT_FALSE(handler.writeConfig(json::object()));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Failed to open config file "
                            "'/userstorage1/container_rte/plugins/config.json' for writing"));
}

TEST_F(CrpHandlerWriting, ReportsAFullDrive) {
    const QxCRPHandler handler(UserDir, "/run/config.json");
    fs::create_symlink("/dev/full", "/run/config.json");
    Recording::Forget();

    EXPECT_FALSE(handler.writeConfig(json::object()));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Error writing config file '/run/config.json'"));
}

TEST_F(CrpHandlerWriting, TakesAPathWithoutADirectory) {
    fs::current_path("/run");
    const QxCRPHandler handler(UserDir, "config.json");

    EXPECT_TRUE(handler.writeConfig(json::object()));
    EXPECT_EQ(Sandbox::ReadFile("/run/config.json"), "{}");
}

}  // namespace
