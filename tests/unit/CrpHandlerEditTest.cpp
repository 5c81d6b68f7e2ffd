#include "QxCRPHandler.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/crp/AsNobody.h"
#include "tests/crp/CrpTest.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

#include <filesystem>

using CRP::QxCRPHandler;
using PluginMaker::Trailer;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* UserDir = "/userstorage1/container_rte/plugins";
constexpr const char* ConfigFile = "/userstorage1/container_rte/config/config.json";
constexpr const char* FooEntry = R"({"name": "foo", "version": "1.0.0"})";

std::string List(const std::string& elements) { return R"({"deactivated_plugins": [)" + elements + "]}"; }

/// A handler that has scanned the plugins foo 1.0.0 and spaced " 2".
class CrpEdit : public CrpTest {
protected:
    explicit CrpEdit(const char* logLevel = "INFO") {
        TheScript().logLevel = logLevel;
        PluginMaker::Write(std::string(UserDir) + "/foo.crp", Trailer("foo", "1.0.0"));
        PluginMaker::Write(std::string(UserDir) + "/spaced.crp", Trailer("spaced", " 2"));
        _handler.scanPluginsDir();
        Recording::Forget();
    }

    static void Configure(const std::string& content) { Sandbox::WriteFile(ConfigFile, content); }
    static std::string Config() { return Sandbox::ReadFile(ConfigFile); }

    /// @return the configuration without the blanks between its tokens
    static std::string CompactConfig() { return QxNJson::json::parse(Config()).dump(); }

    QxCRPHandler _handler{UserDir, ConfigFile};
};

class CrpEditDebug : public CrpEdit {
protected:
    CrpEditDebug() : CrpEdit("DEBUG") {}
};

class CrpEditVerbose : public CrpEdit {
protected:
    CrpEditVerbose() : CrpEdit("DEBUG_VERBOSE") {}
};

// --- What both refuse ---

TEST_F(CrpEdit, RejectsAnEmptyNameOrVersion) {
    for (const char* name : {"", " \t\n\r"}) {
        EXPECT_EQ(_handler.addPluginToConfig(name, "1.0.0"), 2);
    }
    EXPECT_EQ(_handler.addPluginToConfig("foo", ""), 2);
    EXPECT_EQ(_handler.removePluginFromConfig("\n", "1.0.0"), 2);
    EXPECT_EQ(_handler.removePluginFromConfig("foo", ""), 2);

    const std::string add = "[ERROR] Quolex Container Utils: Rejected config add with empty name or version";
    const std::string remove =
        "[ERROR] Quolex Container Utils: Rejected config remove with empty name or version";
    EXPECT_THAT(Recording::Logs(), ElementsAre(add, add, add, remove, remove));
    EXPECT_FALSE(fs::exists(ConfigFile));
}

TEST_F(CrpEdit, KnowsOnlyPluginsOfTheLastScan) {
    Configure(List(R"({"name": "gone", "version": "1"})"));

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0"), 3);
    EXPECT_EQ(_handler.removePluginFromConfig(" gone ", "1"), 3);

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[WARNING] Quolex Container Utils: Plugin 'foo' v1.0 not found in scanned plugins",
                    "[WARNING] Quolex Container Utils: Plugin 'gone' v1 not found in scanned plugins"));
    EXPECT_EQ(Config(), List(R"({"name": "gone", "version": "1"})"));
}

TEST_F(CrpEdit, JudgesThePluginBeforeItReadsTheFile) {
    Configure("{");

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0"), 3);
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0"), 3);

    const std::string line =
        "[WARNING] Quolex Container Utils: Plugin 'foo' v1.0 not found in scanned plugins";
    EXPECT_THAT(Recording::Logs(), ElementsAre(line, line));
}

TEST_F(CrpEdit, DoesNotTrimTheVersion) {
    EXPECT_EQ(_handler.addPluginToConfig("foo", " 1.0.0"), 3);
    EXPECT_EQ(_handler.addPluginToConfig("spaced", "2"), 3);
    EXPECT_EQ(_handler.addPluginToConfig("spaced", " 2"), 0);
    EXPECT_EQ(CompactConfig(), R"({"deactivated_plugins":[{"name":"spaced","version":" 2"}]})");
    EXPECT_EQ(_handler.removePluginFromConfig("spaced", "2"), 3);
    EXPECT_EQ(_handler.removePluginFromConfig("spaced", " 2"), 0);
}

// --- Adding ---

TEST_F(CrpEdit, AddsToAMissingConfigurationWithItsDirectory) {
    EXPECT_EQ(_handler.addPluginToConfig("  foo\n", "1.0.0"), 0);

    EXPECT_EQ(Config(), R"({
    "deactivated_plugins": [
        {
            "name": "foo",
            "version": "1.0.0"
        }
    ]
})");
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[INFO] Quolex Container Utils: Added plugin 'foo' v1.0.0 to deactivation config"));
}

TEST_F(CrpEditVerbose, TellsTheListAfterAdding) {
    Configure("{}");

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Utils: Parsed config file "
                    "'/userstorage1/container_rte/config/config.json': {}",
                    "[DEBUG_VERBOSE] Quolex Container Utils: Updated deactivated_plugins list: "
                    "[{\"name\":\"foo\",\"version\":\"1.0.0\"}]",
                    "[INFO] Quolex Container Utils: Added plugin 'foo' v1.0.0 to deactivation config"));
}

TEST_F(CrpEditVerbose, TellsAListWithBytesThatAreNoUtf8) {
    PluginMaker::Write(std::string(UserDir) + "/bad.crp", Trailer("n\xC3", "1"));
    _handler.scanPluginsDir();
    Recording::Forget();

    EXPECT_EQ(_handler.addPluginToConfig("n\xC3", "1"), 0);
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Utils: Updated deactivated_plugins list: "
                            "[{\"name\":\"n\xEF\xBF\xBD\",\"version\":\"1\"}]",
                            "[INFO] Quolex Container Utils: Added plugin 'n\xC3' v1 to deactivation config"));
}

TEST_F(CrpEdit, AppendsAndKeepsEverythingElse) {
    Configure(
        R"({"z": [1, {"y": null}], "deactivated_plugins": ["odd", {"name": "foo"}, {"name": "b", "version": "2"}],
                 "a": 1.5})");

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0);
    EXPECT_EQ(CompactConfig(), R"({"z":[1,{"y":null}],"deactivated_plugins":["odd",{"name":"foo"},)"
                               R"({"name":"b","version":"2"},{"name":"foo","version":"1.0.0"}],"a":1.5})");
}

TEST_F(CrpEdit, ReplacesAListThatIsNone) {
    for (const char* list : {"{}", R"("foo")", "null", "7", FooEntry}) {
        Configure(std::string(R"({"k": 1, "deactivated_plugins": )") + list + "}");

        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0) << list;
        EXPECT_EQ(CompactConfig(), R"({"k":1,"deactivated_plugins":[{"name":"foo","version":"1.0.0"}]})");
    }
}

TEST_F(CrpEdit, DoesNotAddTwice) {
    const std::string config = List(std::string(FooEntry) + "," + FooEntry);
    Configure(config);

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 1);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[INFO] Quolex Container Utils: Plugin 'foo' v1.0.0 is already in the deactivation list"));
    EXPECT_EQ(Config(), config);
}

TEST_F(CrpEdit, TakesNoElementForAMatchWhoseTextsAreNoStrings) {
    Configure(List(R"({"name": ["foo"], "version": "1.0.0"}, {"name": "foo", "version": 1}, null, "foo")"));

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0);
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 0);
    EXPECT_EQ(CompactConfig(), R"({"deactivated_plugins":[{"name":["foo"],"version":"1.0.0"},)"
                               R"({"name":"foo","version":1},null,"foo"]})");
}

TEST_F(CrpEdit, MakesAnObjectOfAConfigurationWithoutContent) {
    for (const char* content : {"null", "[]", "{}"}) {
        Configure(content);

        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 0) << content;
        EXPECT_EQ(CompactConfig(), R"({"deactivated_plugins":[{"name":"foo","version":"1.0.0"}]})");
    }
}

TEST_F(CrpEdit, DoesNotOverwriteContentThatIsNoObject) {
    for (const char* content : {"[1]", "5", R"("text")", "false"}) {
        Configure(content);
        Recording::Forget();

        EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4) << content;
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[ERROR] Quolex Container Utils: Failed to parse config file "
                                "'/userstorage1/container_rte/config/config.json'"));
        EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1) << content;
        EXPECT_EQ(Config(), content);
    }
}

TEST_F(CrpEdit, AnswersFourWhenItCannotWrite) {
    Sandbox::WriteFile("/userstorage1/container_rte/config", "a file");

    EXPECT_EQ(_handler.addPluginToConfig("foo", "1.0.0"), 4);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[ERROR] Quolex Container Utils: Failed to create config directory: Not a directory"));
}

TEST_F(CrpEdit, AnswersFourWhenItMayNotWriteWhatItRemovedFrom) {
    Configure(List(FooEntry));
    {
        const AsNobody nobody;
        EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 4);
    }
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Failed to open config file "
                            "'/userstorage1/container_rte/config/config.json' for writing"));
    EXPECT_EQ(Config(), List(FooEntry));
}

// --- Removing ---

TEST_F(CrpEditDebug, RemovesAllMatchesAndKeepsTheRestInItsOrder) {
    Configure(R"({"k": 1, "deactivated_plugins": [{"name": "foo", "version": "1.0.0", "why": "x"}, "odd",
                 {"name": "foo", "version": "1.0"}, {"name": "foo", "version": "1.0.0"}, {"version": "1.0.0"}]})");

    EXPECT_EQ(_handler.removePluginFromConfig("\tfoo ", "1.0.0"), 0);

    EXPECT_EQ(CompactConfig(),
              R"({"k":1,"deactivated_plugins":["odd",{"name":"foo","version":"1.0"},{"version":"1.0.0"}]})");
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Utils: Removed plugin 'foo' v1.0.0 from deactivation config"));
}

TEST_F(CrpEditVerbose, TellsTheListAfterRemoving) {
    Configure(List(std::string(FooEntry) + ", 1"));

    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 0);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Utils: Parsed config file "
                    "'/userstorage1/container_rte/config/config.json': "
                    "{\"deactivated_plugins\":[{\"name\":\"foo\",\"version\":\"1.0.0\"},1]}",
                    "[DEBUG_VERBOSE] Quolex Container Utils: Updated deactivated_plugins list: [1]",
                    "[DEBUG] Quolex Container Utils: Removed plugin 'foo' v1.0.0 from deactivation config"));
}

TEST_F(CrpEditDebug, HasNothingToRemoveWithoutAList) {
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1);
    EXPECT_FALSE(fs::exists(ConfigFile));
    for (const char* content : {"{}", R"({"deactivated_plugins": {"name": "foo", "version": "1.0.0"}})",
                                R"({"deactivated_plugins": "foo"})"}) {
        Configure(content);
        EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1) << content;
        EXPECT_EQ(Config(), content);
    }
    EXPECT_THAT(Recording::Logs(),
                testing::AllOf(testing::SizeIs(4),
                               testing::Each("[DEBUG] Quolex Container Utils: No deactivated_plugins "
                                             "list in config.json - nothing to remove")));
}

TEST_F(CrpEditDebug, HasNothingToRemoveWhenNothingMatches) {
    const std::string config = List(R"({"name": "Foo", "version": "1.0.0"})");
    Configure(config);

    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1);
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Utils: Plugin 'foo' v1.0.0 was not in the deactivation list"));
    EXPECT_EQ(Config(), config);
}

TEST_F(CrpEdit, HasNothingToRemoveWithoutAWordWhenDebugIsOff) {
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1);
    EXPECT_EQ(_handler.removePluginFromConfigByFileName("bar.crp"), 1);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpEdit, RemovesWithoutAWordWhenDebugIsOff) {
    Configure(List(FooEntry));

    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 0);
    EXPECT_EQ(_handler.removePluginFromConfig("foo", "1.0.0"), 1);
    EXPECT_EQ(CompactConfig(), R"({"deactivated_plugins":[]})");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

// --- Removing by file name ---

TEST_F(CrpEdit, RemovesThePluginOfAFile) {
    Configure(List(FooEntry));

    EXPECT_EQ(_handler.removePluginFromConfigByFileName("foo.crp"), 0);
    EXPECT_EQ(_handler.removePluginFromConfigByFileName("foo.crp"), 1);
    EXPECT_EQ(CompactConfig(), R"({"deactivated_plugins":[]})");
}

TEST_F(CrpEditDebug, HasNothingToRemoveForAnUnknownFile) {
    EXPECT_EQ(_handler.removePluginFromConfigByFileName("bar.crp"), 1);
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Utils: Plugin file 'bar.crp' not found in "
                            "scanner - nothing to remove from config"));
}

TEST_F(CrpEdit, PassesOnTheResultForAPluginWithoutAName) {
    PluginMaker::Write(std::string(UserDir) + "/nameless.crp", Trailer("", "1"));
    _handler.scanPluginsDir();

    EXPECT_EQ(_handler.removePluginFromConfigByFileName("nameless.crp"), 2);
}

}  // namespace
