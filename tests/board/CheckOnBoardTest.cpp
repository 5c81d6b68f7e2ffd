// What the check says of boards with something wrong that the daemon lives with.

#include "ApiOnBoard.h"
#include "PluginBoard.h"

#include <gmock/gmock.h>

using namespace OnBoard;
using testing::HasSubstr;

namespace {

TEST_F(ApiOnBoard, ChecksWhetherItIsEnabled) {
    EXPECT_EQ(Checks().Verdict("enabled"), "ok");
    EXPECT_EQ(Post("/service/disable").status, 200);
    const Checks disabled;
    EXPECT_EQ(disabled.Verdict("enabled"), "error");
    EXPECT_EQ(disabled.Found("enabled"), "no");
    EXPECT_THAT(disabled.Remedy("enabled"), HasSubstr("Enable the service"));
}

TEST(CheckOnBoard, KnowsCoresThatTheBoardDoesNotHave) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon({"--enable", "--cores", "500"});
    ASSERT_TRUE(Becomes("failed"));
    const Checks checks;
    EXPECT_EQ(checks.Verdict("core-settings"), "error");
    EXPECT_EQ(checks.Found("core-settings"), "500 configured, at most 1");
    EXPECT_EQ(checks.Remedy("core-settings"), "Set at most 1 cores.");
    EXPECT_EQ(checks.Verdict("cpu-set"), "error");
    EXPECT_EQ(checks.Found("cpu-set"), "there is no CPU set libpod_parent");
}

TEST_F(ApiOnBoard, ChecksHowMuchSpaceIsLeft) {
    const auto leave = [](const char* size) {
        Output("rm -f /userstorage1/ballast; fallocate -l $(($(stat -f -c '%a * %S' /userstorage1) - " +
               std::string(size) + " * 1024 * 1024)) /userstorage1/ballast");
    };
    EXPECT_EQ(Checks().Verdict("space"), "ok");
    leave("200");
    const Checks little;
    EXPECT_EQ(little.Verdict("space"), "warning");
    EXPECT_THAT(little.Found("space"), testing::MatchesRegex("(19|20)[0-9] MiB at /userstorage1"));
    EXPECT_THAT(little.Remedy("space"), HasSubstr("Remove images"));
    leave("20");
    EXPECT_EQ(Checks().Verdict("space"), "error");
}

TEST_F(ApiOnBoard, ChecksWhatTheFirmwareIs) {
    Output("echo 'no image' >/tmp/text && mount --bind /tmp/text " + CONTAINER_TOOLS);
    const Checks checks;
    EXPECT_EQ(checks.Verdict("firmware"), "error");
    EXPECT_EQ(checks.Found("firmware"), CONTAINER_TOOLS + " is no squashfs image");
}

TEST(ApiPluginsCheck, SaysWhyEachWasSkipped) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    PluginBoard::Install({"network"});
    PluginBoard::Install({.name = "network", .version = "1.1.0"});
    PluginBoard::Install({.name = "strange", .type = 7});
    PluginBoard::Install({.name = "foreign", .compatibleOs = "-of-another-board"});
    PluginBoard::Install({.name = "twin"});
    PluginBoard::Install({.name = "twin", .version = "1.1.0", .type = 7});
    PluginBoard::Install({.name = "failing", .initCommand = "exit 3"});
    PluginBoard::Install({.name = "torn", .image = std::string(4096, 'x')});
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("running"));
    PluginBoard::Install({"late"});
    EXPECT_EQ(Post("/plugins/rescan").status, 200);

    const Checks checks;

    EXPECT_EQ(checks.Verdict("plugins"), "warning");
    for (const char* why :
         {"network-1.0.0.crp: another file of the same plugin is loaded",
          "strange-1.0.0.crp: its type is not supported",
          "foreign-1.0.0.crp: it is not for this system release",
          "torn-1.0.0.crp: it came after the start, its image could not be mounted, or another "
          "file of the same plugin goes before it",
          "twin-1.0.0.crp: it came after the start, its image",
          "late-1.0.0.crp: it came after the start, its image"}) {
        EXPECT_THAT(checks.Found("plugins"), HasSubstr(why));
    }
    for (const char* loaded : {"network-1.1.0.crp", "failing-1.0.0.crp"}) {
        EXPECT_THAT(checks.Found("plugins"), testing::Not(HasSubstr(loaded)));
    }
    EXPECT_THAT(checks.Remedy("plugins"), HasSubstr("log file"));
}

}  // namespace
