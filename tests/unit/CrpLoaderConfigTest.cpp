#include "QxCRPLoader.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/crp/CrpTest.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <filesystem>

using CRP::QxCRPLoader;
using PluginMaker::Record;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* ConfigFile = "/userstorage1/container_rte/plugins/config.json";

std::vector<std::string> Deactivated(const QxCRPLoader& loader) {
    std::vector<std::string> entries;
    for (const auto& entry : loader.getDeactivatedPlugins()) {
        entries.push_back(entry.name + " " + entry.version);
    }
    return entries;
}

class CrpLoaderConfig : public CrpTest {
protected:
    bool Init(const std::string& content) {
        Sandbox::WriteFile(ConfigFile, content);
        return _loader.init(ConfigFile);
    }

    QxCRPLoader _loader;
};

TEST_F(CrpLoaderConfig, MayBeMissing) {
    EXPECT_TRUE(_loader.init(ConfigFile));
    EXPECT_THAT(_loader.getDeactivatedPlugins(), IsEmpty());
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpLoaderConfig, IsReadInItsOrderWithDuplicates) {
    EXPECT_TRUE(Init(R"({"other": 1, "deactivated_plugins": [{"name": "b", "version": "2"},
                         {"version": "1.0", "name": "a", "why": "x"}, {"name": "b", "version": "2"}]})"));

    EXPECT_THAT(Deactivated(_loader), ElementsAre("b 2", "a 1.0", "b 2"));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'b' v2",
                            "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'a' v1.0",
                            "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'b' v2"));
}

TEST_F(CrpLoaderConfig, IsAddedToWhatWasRead) {
    EXPECT_TRUE(Init(R"({"deactivated_plugins": [{"name": "a", "version": "1"}]})"));
    EXPECT_TRUE(Init(R"({"deactivated_plugins": [{"name": "b", "version": "2"}]})"));

    EXPECT_THAT(Deactivated(_loader), ElementsAre("a 1", "b 2"));
}

TEST_F(CrpLoaderConfig, ThatIsNoJsonIsAnErrorAndAddsNothing) {
    for (const char* content :
         {"", "{", "not json", R"({"deactivated_plugins": [{"name": "a", "version": "1"}])"}) {
        Recording::Forget();
        EXPECT_FALSE(Init(content)) << content;
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[ERROR] Quolex Container Runtime: Failed to parse config file "
                                "'/userstorage1/container_rte/plugins/config.json'"));
    }
    EXPECT_THAT(_loader.getDeactivatedPlugins(), IsEmpty());
}

TEST_F(CrpLoaderConfig, ThatIsADirectoryIsAnError) {
    fs::create_directories(ConfigFile);

    EXPECT_FALSE(_loader.init(ConfigFile));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Runtime: Failed to parse config file "
                            "'/userstorage1/container_rte/plugins/config.json'"));
}

TEST_F(CrpLoaderConfig, ThatCouldKeepItWaitingIsAnError) {
    fs::create_directories(fs::path(ConfigFile).parent_path());
    const dev_t noSuchDevice = makedev(240, 77);
    for (const auto& [type, device] :
         {std::pair<mode_t, dev_t>{S_IFIFO, 0}, {S_IFCHR, noSuchDevice}, {S_IFBLK, noSuchDevice}}) {
        fs::remove(ConfigFile);
        ASSERT_EQ(mknod(ConfigFile, type | 0600, device), 0);
        Recording::Forget();

        EXPECT_FALSE(_loader.init(ConfigFile));
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[ERROR] Quolex Container Runtime: Failed to parse config file "
                                "'/userstorage1/container_rte/plugins/config.json'"));
    }
}

TEST_F(CrpLoaderConfig, MayHaveSixteenMebibytesAndNoMore) {
    const std::string list = R"({"deactivated_plugins": [{"name": "a", "version": "1"}]})";
    const std::string largest = list + std::string((16U << 20) - list.size(), ' ');

    EXPECT_TRUE(Init(largest));
    EXPECT_FALSE(Init(largest + " "));
    EXPECT_THAT(Deactivated(_loader), ElementsAre("a 1"));
}

TEST_F(CrpLoaderConfig, WithoutAListDeactivatesNothing) {
    for (const char* content :
         {"{}", "[]", "null", "17", R"("deactivated_plugins")", R"(["deactivated_plugins"])",
          R"({"deactivated_plugins": {"name": "a", "version": "1"}})"}) {
        Recording::Forget();
        EXPECT_TRUE(Init(content)) << content;
        EXPECT_THAT(Recording::Logs(),
                    ElementsAre("[INFO] Quolex Container Runtime: No 'deactivated_plugins' array found in "
                                "'/userstorage1/container_rte/plugins/config.json'"));
    }
    EXPECT_THAT(_loader.getDeactivatedPlugins(), IsEmpty());
}

TEST_F(CrpLoaderConfig, PassesOverMalformedEntriesAndGoesOn) {
    for (const char* entry : {R"("a")", "1", "null", "[]", "{}", R"({"name": "a"})", R"({"version": "1"})",
                              R"({"name": 1, "version": "1"})", R"({"name": "a", "version": 1.0})",
                              R"({"name": null, "version": "1"})"}) {
        Recording::Forget();
        EXPECT_TRUE(
            Init(std::string(R"({"deactivated_plugins": [)") + entry + R"(, {"name":"z","version":"9"}]})"));
        EXPECT_THAT(
            Recording::Logs(),
            ElementsAre(
                "[WARNING] Quolex Container Runtime: Skipping malformed entry in 'deactivated_plugins'",
                "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'z' v9"))
            << entry;
    }
    EXPECT_THAT(Deactivated(_loader), Each("z 9"));
}

TEST_F(CrpLoaderConfig, DeactivatesByExactNameAndVersion) {
    Init(R"({"deactivated_plugins": [{"name": "a", "version": "1.2"}]})");

    EXPECT_TRUE(_loader.isPluginDeactivated(Record("a", "1.2")));
    EXPECT_FALSE(_loader.isPluginDeactivated(Record("a", "1.2.0")));
    EXPECT_FALSE(_loader.isPluginDeactivated(Record("A", "1.2")));
    EXPECT_FALSE(_loader.isPluginDeactivated(Record("", "")));
}

}  // namespace
