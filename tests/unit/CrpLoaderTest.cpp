#include "QxCRPLoader.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/crp/CrpTest.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/LoopDevices.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/RecordedOpens.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <cerrno>
#include <filesystem>
#include <regex>

using CRP::PluginInfo;
using CRP::QxCRPLoader;
using PluginMaker::Record;
using PluginMaker::Trailer;
using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

class CrpLoader : public CrpTest {
protected:
    CrpLoader() {
        Sandbox::WriteFile("/image/here", "in the image\n");
        Sandbox::WriteFile("/image/script.sh", "pwd > /ran\n");
        Sandbox::WriteFile("/image/order.sh", "echo $1 >> /ran\n");
        chmod("/image/script.sh", 0644);
        _image = PluginMaker::ImageOf("/image");
        Recording::Forget();
    }
    ~CrpLoader() override { EXPECT_THAT(Sandbox::Children(), IsEmpty()); }

    PluginInfo Plugin(const std::string& name, const std::string& initCommand = {}) const {
        CrpPluginHeader trailer = Trailer(name, "1.0.0");
        PluginMaker::SetText(trailer.initCommand, initCommand);
        trailer.imageSize = _image.size();
        const PluginInfo plugin{trailer, _loop.Directory() + "/" + name + ".crp", true};
        PluginMaker::Write(plugin.path, trailer, _image);
        return plugin;
    }

    PluginInfo Garbage(const std::string& name) const {
        PluginInfo plugin = Plugin(name);
        PluginMaker::Write(plugin.path, plugin.header, std::string(_image.size(), 'x'));
        return plugin;
    }

    /// @return the lines with the test's own names for its directory and for loop devices
    std::vector<std::string> InOwnNames(std::vector<std::string> lines) const {
        for (std::string& line : lines) {
            line = std::regex_replace(line, std::regex(_loop.Directory()), "/plugins");
            line = std::regex_replace(line, std::regex("/dev/loop[0-9]+"), "/dev/loopN");
        }
        return lines;
    }
    std::vector<std::string> Logs() const { return InOwnNames(Recording::Logs()); }

    /// Mounts a plugin.
    /// @return the files that were opened for that
    std::vector<std::string> OpensOfMounting(const PluginInfo& plugin, bool succeeds) const {
        bool isMounted = false;
        const std::vector<std::string> opens =
            RecordedOpens::During([&] { isMounted = _loader.mountPlugin(plugin, "/mnt/crp_x"); });
        EXPECT_EQ(isMounted, succeeds);
        return InOwnNames(opens);
    }

    /// Mounts and expects that it fails with this line and leaves nothing behind.
    void ExpectMountFails(const PluginInfo& plugin, const std::string& line,
                          const std::string& mountPoint = "/mnt/crp_x") {
        const std::vector<std::string> before = Sandbox::OpenDescriptors();
        EXPECT_FALSE(_loader.mountPlugin(plugin, mountPoint));
        EXPECT_THAT(Logs(), ElementsAre(line));
        EXPECT_THAT(LoopDevices::Mounts(), IsEmpty());
        EXPECT_THAT(_loop.Bound(), IsEmpty());
        EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    }

    LoopDevices _loop;
    std::string _image;
    QxCRPLoader _loader;
};

TEST_F(CrpLoader, MountsTheImageReadOnlyThroughADeviceThatEndsBeforeTheTrailer) {
    const PluginInfo plugin = Plugin("x");
    const std::vector<std::string> before = Sandbox::OpenDescriptors();

    EXPECT_TRUE(_loader.mountPlugin(plugin, "/mnt/crp_x"));

    EXPECT_THAT(Logs(),
                ElementsAre("[INFO] Quolex Container Runtime: Mounted '/plugins/x.crp' via /dev/loopN at "
                            "'/mnt/crp_x'"));
    EXPECT_EQ(Sandbox::ReadFile("/mnt/crp_x/here"), "in the image\n");
    struct statvfs mounted {};
    ASSERT_EQ(statvfs("/mnt/crp_x", &mounted), 0);
    EXPECT_EQ(mounted.f_flag & (ST_RDONLY | ST_NOSUID | ST_NODEV | ST_NOEXEC),
              static_cast<unsigned long>(ST_RDONLY | ST_NOSUID | ST_NODEV));
    ASSERT_THAT(_loop.Bound(), SizeIs(1));
    const std::string device = _loop.Bound()[0];
    EXPECT_EQ(LoopDevices::Attribute(device, "sizelimit"), std::to_string(_image.size()));
    EXPECT_EQ(LoopDevices::Attribute(device, "offset"), "0");
    EXPECT_EQ(LoopDevices::Attribute(device, "autoclear"), "0");
    EXPECT_EQ(Sandbox::ReadFile("/sys/block/" + device + "/ro"), "1\n");
    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

TEST_F(CrpLoader, OpensControlDeviceFileAndDeviceInThisOrderAndForNoProgramItStarts) {
    EXPECT_THAT(OpensOfMounting(Plugin("x"), true),
                ElementsAre("/dev/loop-control read-write", "/plugins/x.crp read", "/dev/loopN read"));
}

TEST_F(CrpLoader, OpensTheDeviceOnceMoreToReleaseIt) {
    EXPECT_THAT(OpensOfMounting(Garbage("x"), false),
                ElementsAre("/dev/loop-control read-write", "/plugins/x.crp read", "/dev/loopN read",
                            "/dev/loopN read"));
}

TEST_F(CrpLoader, ConfiguresTheDeviceWithNothingButSizeAndReadOnlyFlag) {
    EXPECT_TRUE(_loader.mountPlugin(Plugin("x"), "/mnt/crp_x"));

    ASSERT_THAT(_loop.Bound(), SizeIs(1));
    const int device = open(("/dev/" + _loop.Bound()[0]).c_str(), O_RDONLY | O_CLOEXEC);
    loop_info64 info{};
    ASSERT_EQ(ioctl(device, LOOP_GET_STATUS64, &info), 0);
    close(device);
    EXPECT_EQ(info.lo_offset, 0U);
    EXPECT_EQ(info.lo_sizelimit, _image.size());
    EXPECT_EQ(info.lo_flags, static_cast<std::uint32_t>(LO_FLAGS_READ_ONLY));
    EXPECT_EQ(info.lo_file_name[0], 0);
    EXPECT_EQ(info.lo_encrypt_type, 0U);
    EXPECT_EQ(info.lo_encrypt_key_size, 0U);
}

TEST_F(CrpLoader, TellsTheDeviceConfigurationWhenVerbose) {
    TheScript().logLevel = "DEBUG_VERBOSE";

    EXPECT_TRUE(_loader.mountPlugin(Plugin("x"), "/mnt/crp_x"));

    EXPECT_THAT(Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Runtime: Loop device config for "
                            "'/plugins/x.crp': dev=/dev/loopN, sizelimit=" +
                                std::to_string(_image.size()) + ", flags=0x1",
                            "[INFO] Quolex Container Runtime: Mounted '/plugins/x.crp' via /dev/loopN at "
                            "'/mnt/crp_x'"));
}

TEST_F(CrpLoader, MakesTheMountPointOrTakesTheOneThatIsThere) {
    umask(0);
    EXPECT_TRUE(_loader.mountPlugin(Plugin("new"), "/mnt/crp_new"));
    umount2("/mnt/crp_new", 0);
    struct stat directory {};
    ASSERT_EQ(stat("/mnt/crp_new", &directory), 0);
    EXPECT_EQ(directory.st_mode & 07777U, 0755U);

    fs::create_directory("/mnt/crp_old");
    EXPECT_TRUE(_loader.mountPlugin(Plugin("old"), "/mnt/crp_old"));
}

TEST_F(CrpLoader, FailsWhenTheMountPointCannotBeMade) {
    Sandbox::WriteFile("/mnt/file", "");

    ExpectMountFails(Plugin("x"),
                     "[ERROR] Quolex Container Runtime: mkdir('/mnt/file/crp_x'): Not a directory",
                     "/mnt/file/crp_x");
}

TEST_F(CrpLoader, FailsWithoutTheControlDevice) {
    const PluginInfo plugin = Plugin("x");
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, nullptr), 0);

    EXPECT_FALSE(_loader.mountPlugin(plugin, "/mnt/crp_x"));
    EXPECT_THAT(Logs(),
                ElementsAre("[ERROR] Quolex Container Runtime: open('/dev/loop-control'): No such file or "
                            "directory"));
}

TEST_F(CrpLoader, FailsWhenThereIsNoFreeDevice) {
    const PluginInfo plugin = Plugin("x");
    FailSystemCall(SYS_ioctl, ENOSPC, FailingArgument{1, 0x4C82});

    ExpectMountFails(plugin, "[ERROR] Quolex Container Runtime: LOOP_CTL_GET_FREE: No space left on device");
}

TEST_F(CrpLoader, FailsWhenThePluginFileIsGone) {
    const PluginInfo plugin = Plugin("x");
    fs::remove(plugin.path);

    ExpectMountFails(plugin,
                     "[ERROR] Quolex Container Runtime: open('/plugins/x.crp'): No such file or directory");
}

TEST_F(CrpLoader, FailsWhenTheDeviceNodeIsMissing) {
    const PluginInfo plugin = Plugin("x");
    struct stat control {};
    stat("/dev/loop-control", &control);
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mknod("/dev/loop-control", S_IFCHR | 0600, control.st_rdev), 0);

    EXPECT_FALSE(_loader.mountPlugin(plugin, "/mnt/crp_x"));
    EXPECT_THAT(
        Logs(),
        ElementsAre("[ERROR] Quolex Container Runtime: open('/dev/loopN'): No such file or directory"));
    EXPECT_THAT(_loop.Bound(), IsEmpty());
}

TEST_F(CrpLoader, FailsWhenTheFileCannotBeBound) {
    PluginInfo plugin = Plugin("x");
    plugin.path = _loop.Directory();

    ExpectMountFails(plugin, "[ERROR] Quolex Container Runtime: LOOP_SET_FD: Invalid argument");
}

TEST_F(CrpLoader, ReleasesTheDeviceWhenItCannotBeConfigured) {
    const PluginInfo plugin = Plugin("x");
    FailSystemCall(SYS_ioctl, EPERM, FailingArgument{1, 0x4C04});

    ExpectMountFails(plugin, "[ERROR] Quolex Container Runtime: LOOP_SET_STATUS64: Operation not permitted");
}

TEST_F(CrpLoader, ReleasesTheDeviceAndLeavesTheDirectoryWhenTheMountFails) {
    ExpectMountFails(Garbage("x"),
                     "[ERROR] Quolex Container Runtime: mount('/dev/loopN', '/mnt/crp_x'): Invalid "
                     "argument");

    EXPECT_TRUE(fs::is_directory("/mnt/crp_x"));
}

TEST_F(CrpLoader, ReleasesTheDeviceWhenAFileIsInTheMountPointsPlace) {
    Sandbox::WriteFile("/mnt/crp_x", "a file");

    ExpectMountFails(Plugin("x"),
                     "[ERROR] Quolex Container Runtime: mount('/dev/loopN', '/mnt/crp_x'): Not a "
                     "directory");
}

TEST_F(CrpLoader, MountsTheWholeFileWhenTheTrailerGivesNoSize) {
    PluginInfo plugin = Plugin("x");
    plugin.header.imageSize = 0;

    EXPECT_TRUE(_loader.mountPlugin(plugin, "/mnt/crp_x"));
    EXPECT_EQ(Sandbox::ReadFile("/mnt/crp_x/here"), "in the image\n");
}

TEST_F(CrpLoader, LoadsAPluginWithNotificationAndScriptFromTheMountPoint) {
    const PluginInfo plugin = Plugin("my plugin/v2", "script.sh");
    fs::create_directories(_loop.Directory() + "/my plugin");

    _loader.loadPlugins({plugin});

    EXPECT_THAT(Logs(),
                ElementsAre("[INFO] Quolex Container Runtime: Loading plugin 'my plugin/v2' v1.0.0",
                            "[INFO] Quolex Container Runtime: Mounted '/plugins/my plugin/v2.crp' via "
                            "/dev/loopN at '/mnt/crp_my_plugin_v2'",
                            "[INFO] Quolex Container Runtime: Initializing plugin 'my plugin/v2' version "
                            "'1.0.0'"));
    EXPECT_THAT(Recording::Messages(),
                ElementsAre("1 Quolex Container Runtime: Loading plugin 'my plugin/v2' v1.0.0"));
    EXPECT_EQ(Sandbox::ReadFile("/ran"), "/mnt/crp_my_plugin_v2\n");
    EXPECT_TRUE(_loader.isPluginLoaded(plugin));
}

TEST_F(CrpLoader, TellsEveryStepWhenVerbose) {
    PluginInfo plugin = Plugin("x", "./script.sh --now");
    plugin.header.initPriority = 4294967295;
    TheScript().logLevel = "DEBUG_VERBOSE";

    _loader.loadPlugins({plugin});

    EXPECT_THAT(
        Logs(),
        ElementsAre("[DEBUG_VERBOSE] Quolex Container Runtime: Evaluating plugin 'x' v1.0.0 "
                    "(priority=4294967295, type=1, os_compatible=yes)",
                    "[INFO] Quolex Container Runtime: Loading plugin 'x' v1.0.0",
                    StartsWith("[DEBUG_VERBOSE] Quolex Container Runtime: Loop device config for"),
                    StartsWith("[INFO] Quolex Container Runtime: Mounted"),
                    "[INFO] Quolex Container Runtime: Initializing plugin 'x' version '1.0.0'",
                    "[DEBUG_VERBOSE] Quolex Container Runtime: Executing init command for 'x': cd /mnt/crp_x "
                    "&& sh ./script.sh --now"));
}

TEST_F(CrpLoader, SaysWhenThereIsNoInitCommand) {
    _loader.loadPlugins({Plugin("x")});

    EXPECT_THAT(Logs(),
                Contains("[INFO] Quolex Container Runtime: Plugin 'x' has no init command. Nothing to run"));
}

TEST_F(CrpLoader, SkipsWhatIsDeactivatedBeforeItLooksAtTheRest) {
    Sandbox::WriteFile("/run/config.json", R"({"deactivated_plugins": [{"name": "x", "version": "1.0.0"}]})");
    _loader.init("/run/config.json");
    Recording::Forget();
    PluginInfo plugin = Plugin("x");
    plugin.osCompatible = false;
    plugin.header.pluginType = 2;

    _loader.loadPlugins({plugin});

    EXPECT_THAT(Logs(),
                ElementsAre("[INFO] Quolex Container Runtime: Skipping deactivated plugin: 'x' v1.0.0"));
    EXPECT_THAT(LoopDevices::Mounts(), IsEmpty());
    EXPECT_FALSE(_loader.isPluginLoaded(plugin));
}

TEST_F(CrpLoader, SkipsWhatIsIncompatibleBeforeItLooksAtTheType) {
    PluginInfo plugin = Plugin("x");
    plugin.osCompatible = false;
    plugin.header.pluginType = 2;

    _loader.loadPlugins({plugin});

    EXPECT_THAT(Logs(),
                ElementsAre("[WARNING] Quolex Container Runtime: Skipping OS-incompatible plugin: x v1.0.0"));
}

TEST_F(CrpLoader, TellsOfWhatItSkipsTooWhenVerbose) {
    PluginInfo plugin = Plugin("x");
    plugin.osCompatible = false;
    TheScript().logLevel = "DEBUG_VERBOSE";

    _loader.loadPlugins({plugin});

    EXPECT_THAT(Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Runtime: Evaluating plugin 'x' v1.0.0 "
                            "(priority=0, type=1, os_compatible=no)",
                            "[WARNING] Quolex Container Runtime: Skipping OS-incompatible plugin: x v1.0.0"));
}

TEST_F(CrpLoader, NeverMountsAnotherType) {
    PluginInfo plugin = Plugin("x");
    plugin.header.pluginType = 2;

    _loader.loadPlugins({plugin});

    EXPECT_THAT(
        Logs(),
        ElementsAre("[WARNING] Quolex Container Runtime: Skipping unsupported plugin type 2 for plugin "
                    "'x' v1.0.0"));
    EXPECT_THAT(LoopDevices::Mounts(), IsEmpty());
    EXPECT_FALSE(_loader.isPluginLoaded(plugin));
}

TEST_F(CrpLoader, GoesOnAfterAFailedMount) {
    const PluginInfo garbage = Garbage("bad");
    const PluginInfo plugin = Plugin("good");

    _loader.loadPlugins({garbage, plugin});

    EXPECT_THAT(
        Logs(),
        ElementsAre("[INFO] Quolex Container Runtime: Loading plugin 'bad' v1.0.0",
                    "[ERROR] Quolex Container Runtime: mount('/dev/loopN', '/mnt/crp_bad'): Invalid argument",
                    "[ERROR] Quolex Container Runtime: Mount failed for 'bad'. Skipping plugin.",
                    "[INFO] Quolex Container Runtime: Loading plugin 'good' v1.0.0",
                    StartsWith("[INFO] Quolex Container Runtime: Mounted"),
                    "[INFO] Quolex Container Runtime: Plugin 'good' has no init command. Nothing to run"));
    EXPECT_FALSE(_loader.isPluginLoaded(garbage));
    EXPECT_TRUE(_loader.isPluginLoaded(plugin));
    EXPECT_THAT(_loop.Bound(), SizeIs(1));
}

TEST_F(CrpLoader, CountsAPluginAsLoadedAlthoughItsInitCommandFailed) {
    const PluginInfo plugin = Plugin("x", "exit 3");

    _loader.loadPlugins({plugin});

    EXPECT_THAT(
        Logs(),
        ElementsAre("[INFO] Quolex Container Runtime: Loading plugin 'x' v1.0.0",
                    StartsWith("[INFO] Quolex Container Runtime: Mounted"),
                    "[INFO] Quolex Container Runtime: Initializing plugin 'x' version '1.0.0'",
                    "[ERROR] Quolex Container Runtime: Initializing plugin failed: init command exited with "
                    "code 3",
                    "[WARNING] Quolex Container Runtime: Init command failed for 'x'"));
    EXPECT_TRUE(_loader.isPluginLoaded(plugin));
    EXPECT_THAT(LoopDevices::Mounts(), ElementsAre("/mnt/crp_x"));
}

TEST_F(CrpLoader, ReportsAnInitCommandThatWasKilledAsMinusOne) {
    const PluginInfo plugin = Plugin("x", "kill -KILL $$");

    _loader.loadPlugins({plugin});

    EXPECT_THAT(Logs(),
                Contains("[ERROR] Quolex Container Runtime: Initializing plugin failed: init command exited "
                         "with code -1"));
    EXPECT_TRUE(_loader.isPluginLoaded(plugin));
}

TEST_F(CrpLoader, InitialisesInTheGivenOrderOneAfterTheOther) {
    std::vector<PluginInfo> plugins{Plugin("slow", "sleep 0.2; sh order.sh slow"),
                                    Plugin("quick", "order.sh quick"), Plugin("last", "order.sh last")};
    std::uint32_t priority = 30;
    for (PluginInfo& plugin : plugins) {
        plugin.header.initPriority = priority;
        priority -= 10;
    }

    _loader.loadPlugins(plugins);

    EXPECT_EQ(Sandbox::ReadFile("/ran"), "slow\nquick\nlast\n");
    EXPECT_THAT(LoopDevices::Mounts(), ElementsAre("/mnt/crp_slow", "/mnt/crp_quick", "/mnt/crp_last"));
}

TEST_F(CrpLoader, MountsAPluginOnlyWhenTheOneBeforeItIsInitialised) {
    _loader.loadPlugins(
        {Plugin("first", "sleep 0.1; [ ! -e /mnt/crp_second ] && echo alone > /ran"), Plugin("second")});

    EXPECT_EQ(Sandbox::ReadFile("/ran"), "alone\n");
    EXPECT_THAT(LoopDevices::Mounts(), ElementsAre("/mnt/crp_first", "/mnt/crp_second"));
}

TEST_F(CrpLoader, MountsAndInitialisesOnceMoreWhenCalledAgain) {
    const PluginInfo plugin = Plugin("x", "order.sh again");

    _loader.loadPlugins({plugin});
    _loader.loadPlugins({plugin});

    EXPECT_THAT(LoopDevices::Mounts(), ElementsAre("/mnt/crp_x", "/mnt/crp_x"));
    EXPECT_THAT(_loop.Bound(), SizeIs(2));
    EXPECT_EQ(Sandbox::ReadFile("/ran"), "again\nagain\n");
}

TEST_F(CrpLoader, KnowsLoadedPluginsByNameVersionAndCompatibility) {
    const PluginInfo plugin = Plugin("x");
    _loader.loadPlugins({plugin});
    PluginInfo other = plugin;
    other.path = "/elsewhere";
    other.header.initPriority = 99;
    EXPECT_TRUE(_loader.isPluginLoaded(other));

    other.osCompatible = false;
    EXPECT_FALSE(_loader.isPluginLoaded(other));
    EXPECT_FALSE(_loader.isPluginLoaded(Record("x", "1.0")));
    EXPECT_FALSE(_loader.isPluginLoaded(Record("y", "1.0.0")));
}

TEST_F(CrpLoader, LeavesNothingOfItsOwnOpenOrRunning) {
    const std::vector<PluginInfo> plugins{Plugin("x", "exit 1"), Garbage("y"), Plugin("z", "true")};
    const std::vector<std::string> before = Sandbox::OpenDescriptors();

    _loader.loadPlugins(plugins);

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

}  // namespace
