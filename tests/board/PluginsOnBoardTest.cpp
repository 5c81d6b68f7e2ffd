#include "PluginBoard.h"
#include "QxCRPHandler.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <map>

namespace fs = std::filesystem;
using namespace OnBoard;
using namespace PluginBoard;
using CRP::PluginInfo;
using CRP::QxCRPHandler;
using CRP::QxCRPLoader;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* Runtime = "Quolex Container Runtime: ";

class PluginsOnBoard : public testing::Test {
protected:
    void SetUp() override {
        ConfigurePlatform("[ContainerRuntime]\nLogLevel=DEBUG_VERBOSE\n");
        fs::create_directories(PLUGINS_DIR);
        fs::create_directories(CRP::SYSTEM_PLUGIN_DIR);
    }

    /// @return how many loop devices are bound to each file in the plugin directories
    static std::map<std::string, std::size_t> Devices() {
        std::map<std::string, std::size_t> devices;
        for (const char* directory : {PLUGINS_DIR.c_str(), CRP::SYSTEM_PLUGIN_DIR}) {
            for (const auto& entry : fs::directory_iterator(directory)) {
                devices[entry.path()] = DevicesBoundTo(entry.path());
            }
        }
        return devices;
    }

    /// Loads all plugins as the service does at its start. No child and no descriptor may be left by it, and
    /// of loop devices one for each plugin that is loaded.
    static std::vector<std::string> Load() {
        QxCRPHandler handler(PLUGINS_DIR, PLUGIN_CONFIG_FILE);
        const auto descriptors = OpenDescriptors();
        std::map<std::string, std::size_t> devices = Devices();
        handler.loadPlugins();
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_THAT(Children(), IsEmpty());
        const QxNJson::json list = handler.listPlugins();
        for (const auto& plugin : list["plugins"]) {
            devices.at(plugin["path"].get<std::string>()) += plugin["isLoaded"].get<bool>() ? 1U : 0U;
        }
        EXPECT_TRUE(Eventually([&] { return Devices() == devices; }));
        return Listing(list);
    }

    static void ExpectLogged(const std::string& level, const std::string& text) {
        EXPECT_THAT(LogLines(), Contains("[" + level + "] " + Runtime + text));
    }

    static void ExpectInitFails(const std::string& command, int code) {
        const std::string file = Install({"x", command});
        EXPECT_THAT(Load(), ElementsAre("user x 1.0.0 loaded"));
        ExpectLogged("ERROR",
                     "Initializing plugin failed: init command exited with code " + std::to_string(code));
        ExpectLogged("WARNING", "Init command failed for 'x'");
        EXPECT_EQ(ReadFile("/mnt/crp_x/here"), "in the image\n");
        EXPECT_EQ(DevicesBoundTo(file), 1U);
    }
};

TEST_F(PluginsOnBoard, TheServiceLoadsThemAndListsThem) {
    WriteSettings(R"({"enabled": true})");
    const std::string file = Install({"mine", "append.sh mine", "1.2.3", 7});
    auto& service = QxNContainer::QxCContainer::GetInstance();
    EXPECT_THAT(Listing(service.listPlugins()), IsEmpty());

    ASSERT_TRUE(service.init());

    EXPECT_THAT(Listing(service.listPlugins()), ElementsAre("user mine 1.2.3 loaded"));
    EXPECT_THAT(Order(), ElementsAre("mine"));
    EXPECT_EQ(ReadFile("/mnt/crp_mine/here"), "in the image\n");
    EXPECT_THAT(Messages(), Contains(HasSubstr("Loading plugin 'mine' v1.2.3")));
    EXPECT_THAT(Output("findmnt -n -o FSTYPE,OPTIONS /mnt/crp_mine"),
                AllOf(HasSubstr("squashfs"), HasSubstr("ro"), HasSubstr("nosuid"), HasSubstr("nodev")));
    EXPECT_EQ(DevicesBoundTo(file), 1U);

    EXPECT_EQ(service.addPluginToConfig("mine", "1.2.3"), 0);
    EXPECT_THAT(Listing(service.listPlugins()), ElementsAre("user mine 1.2.3 loaded"))
        << "the list is read at the start only";
    EXPECT_EQ(service.removePluginFromConfigByFileName("mine-1.2.3.crp"), 0);
}

TEST_F(PluginsOnBoard, LoadInOrderOfTheirPriorityFromBothDirectories) {
    Install({"last", "append.sh last", "1.0.0", 0xffffffff});
    InstallForAll({"second", "./program second", "1.0.0", 9});
    Install({"third", "append.sh third", "1.0.0", 10});
    InstallForAll({"first", "sleep 0.3; sh program first", "1.0.0", 0});

    EXPECT_THAT(Load(), SizeIs(4));

    EXPECT_THAT(Order(), ElementsAre("first", "second", "third", "last"));
    EXPECT_THAT(Mounts(),
                ElementsAre("/mnt/crp_first", "/mnt/crp_second", "/mnt/crp_third", "/mnt/crp_last"));
}

TEST_F(PluginsOnBoard, OfOneNameTheNewestLoadsAndOfEqualOnesTheUsers) {
    Install({"equal", "append.sh user", "1.0", 1});
    InstallForAll({"equal", "append.sh system", "1.0.0", 1});
    Install({"update", "append.sh user", "1.10.0", 2});
    InstallForAll({"update", "append.sh system", "1.9.9", 2});
    Install({"outdated", "append.sh user", "1.9.9", 3});
    InstallForAll({"outdated", "append.sh system", "2.0.0", 3});

    EXPECT_THAT(Load(), UnorderedElementsAre("user equal 1.0 loaded", "system equal 1.0.0",
                                             "user update 1.10.0 loaded", "system update 1.9.9",
                                             "user outdated 1.9.9", "system outdated 2.0.0 loaded"));

    EXPECT_THAT(Order(), ElementsAre("user", "user", "system"));
    ExpectLogged("WARNING", "Ignoring duplicate plugin 'equal' v1.0.0 (keeping v1.0)");
    ExpectLogged("WARNING", "Ignoring duplicate plugin 'outdated' v1.9.9 (superseded by v2.0.0)");
    EXPECT_THAT(Mounts(), SizeIs(3));
}

TEST_F(PluginsOnBoard, AnIncompatibleNewerOneHidesNoCompatibleOlderOne) {
    utsname system{};
    ASSERT_EQ(uname(&system), 0);
    InstallForAll({"x", "append.sh new", "2.0.0", 0, "no such release"});
    Install({"x", "append.sh old", "1.0.0", 0, std::string(system.release).substr(1, 3)});

    EXPECT_THAT(Load(), UnorderedElementsAre("user x 1.0.0 loaded", "system x 2.0.0 incompatible"));

    EXPECT_THAT(Order(), ElementsAre("old"));
    ExpectLogged("WARNING",
                 "Plugin 'x' v2.0.0 requires OS release containing 'no such release' but running '" +
                     std::string(system.release) + "'");
    EXPECT_THAT(LogLines(), Not(Contains(HasSubstr("Ignoring duplicate"))));
}

TEST_F(PluginsOnBoard, OfAnotherTypeStayUnmounted) {
    const std::string file = Install({"x", "append.sh x", "1.0.0", 0, "", 2});

    EXPECT_THAT(Load(), ElementsAre("user x 1.0.0"));

    ExpectLogged("WARNING", "Skipping unsupported plugin type 2 for plugin 'x' v1.0.0");
    EXPECT_THAT(Mounts(), IsEmpty());
    EXPECT_EQ(DevicesBoundTo(file), 0U);
}

TEST_F(PluginsOnBoard, TheConfigurationSwitchesOffExactVersions) {
    struct {
        const char* config;
        bool isLoaded;
        const char* line;
    } const cases[] = {
        {"", true, "[ERROR] Quolex Container Runtime: Failed to parse config file '%s'"},
        {"{", true, "[ERROR] Quolex Container Runtime: Failed to parse config file '%s'"},
        {"{}", true, "[INFO] Quolex Container Runtime: No 'deactivated_plugins' array found in '%s'"},
        {"[]", true, "[INFO] Quolex Container Runtime: No 'deactivated_plugins' array found in '%s'"},
        {R"({"deactivated_plugins": {"name": "x", "version": "1.2.0"}})", true,
         "[INFO] Quolex Container Runtime: No 'deactivated_plugins' array found in '%s'"},
        {R"({"deactivated_plugins": ["x"]})", true,
         "[WARNING] Quolex Container Runtime: Skipping malformed entry in 'deactivated_plugins'"},
        {R"({"deactivated_plugins": [{"name": "x"}]})", true,
         "[WARNING] Quolex Container Runtime: Skipping malformed entry in 'deactivated_plugins'"},
        {R"({"deactivated_plugins": [{"name": "x", "version": "1.2"}]})", true,
         "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'x' v1.2"},
        {R"({"deactivated_plugins": [{"name": "X", "version": "1.2.0"}]})", true,
         "[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'X' v1.2.0"},
        {R"({"deactivated_plugins": [7, {"name": "x", "version": "1.2.0", "by": "me"}], "more": 1})", false,
         "[INFO] Quolex Container Runtime: Skipping deactivated plugin: 'x' v1.2.0"},
    };
    const std::string file = Install({"x", "", "1.2.0"});
    for (const auto& [config, isLoaded, line] : cases) {
        SCOPED_TRACE(config);
        WriteFile(PLUGIN_CONFIG_FILE, config);
        const std::size_t before = LogLines().size();

        EXPECT_THAT(Load(), ElementsAre(isLoaded ? "user x 1.2.0 loaded" : "user x 1.2.0 deactivated"));

        std::string expected = line;
        if (const std::size_t place = expected.find("%s"); place != std::string::npos) {
            expected.replace(place, 2, PLUGIN_CONFIG_FILE);
        }
        std::vector<std::string> lines = LogLines();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_THAT(lines, Contains(expected));
        EXPECT_THAT(Mounts(), SizeIs(isLoaded ? 1 : 0));
        Shell("umount -d /mnt/crp_x");
        EXPECT_TRUE(Eventually([&] { return DevicesBoundTo(file) == 0; }));
    }
}

TEST_F(PluginsOnBoard, RunInitCommandsInTheImage) {
    Install({"x", "cat here > /tmp/seen && pwd >> /tmp/seen && [ ! -x append.sh ]"});

    EXPECT_THAT(Load(), ElementsAre("user x 1.0.0 loaded"));

    EXPECT_EQ(ReadFile("/tmp/seen"), "in the image\n/mnt/crp_x\n");
    EXPECT_THAT(LogLines(), Not(Contains(HasSubstr("failed"))));
}

TEST_F(PluginsOnBoard, WhoseInitCommandFailsCountAsLoaded) { ExpectInitFails("append.sh x; exit 3", 3); }

TEST_F(PluginsOnBoard, WhoseInitCommandIsNotThereCountAsLoaded) { ExpectInitFails("no-such-command", 127); }

TEST_F(PluginsOnBoard, WhoseInitCommandIsKilledCountAsLoaded) { ExpectInitFails("kill -9 $$", -1); }

TEST_F(PluginsOnBoard, WhoseInitCommandWritesMuchAreNotHeldUp) {
    Install({"x", "yes | head -c 1048576; yes | head -c 1048576 >&2"});
    const int saved[] = {dup(1), dup(2)};
    const int output = open("/tmp/output", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(output, 1);
    dup2(output, 2);

    const std::vector<std::string> listing = Load();

    dup2(saved[0], 1);
    dup2(saved[1], 2);
    EXPECT_THAT(listing, ElementsAre("user x 1.0.0 loaded"));
    EXPECT_EQ(fs::file_size("/tmp/output"), 2U << 20);
    EXPECT_THAT(LogLines(), Not(Contains(HasSubstr("failed"))));
}

TEST_F(PluginsOnBoard, OneThatCannotBeMountedLeavesItsLoopDeviceFreeAndTheOthersLoad) {
    const std::string bad = Install({"bad", "", "1.0.0", 0, "", 1, std::string(8192, 'x')});
    const std::string empty = Install({"empty", "", "1.0.0", 1, "", 1, std::string()});
    Install({"good", "append.sh good", "1.0.0", 2});

    EXPECT_THAT(Load(), UnorderedElementsAre("user bad 1.0.0", "user empty 1.0.0", "user good 1.0.0 loaded"));

    ExpectLogged("ERROR", "Mount failed for 'bad'. Skipping plugin.");
    ExpectLogged("ERROR", "Mount failed for 'empty'. Skipping plugin.");
    EXPECT_THAT(LogLines(), Contains(HasSubstr("', '/mnt/crp_bad'): Invalid argument")));
    EXPECT_THAT(Mounts(), ElementsAre("/mnt/crp_good"));
    EXPECT_TRUE(fs::is_directory("/mnt/crp_bad"));
    EXPECT_TRUE(Eventually([&] { return DevicesBoundTo(bad) == 0 && DevicesBoundTo(empty) == 0; }));
}

TEST_F(PluginsOnBoard, ASecondLoadMountsAndInitialisesOnceMore) {
    const std::string file = Install({"x", "append.sh x"});
    QxCRPHandler handler(PLUGINS_DIR, PLUGIN_CONFIG_FILE);

    handler.loadPlugins();
    handler.loadPlugins();

    EXPECT_THAT(Mounts(), ElementsAre("/mnt/crp_x", "/mnt/crp_x"));
    EXPECT_EQ(DevicesBoundTo(file), 2U);
    EXPECT_THAT(Order(), ElementsAre("x", "x"));
    EXPECT_THAT(Listing(handler.listPlugins()), ElementsAre("user x 1.0.0 loaded"));
}

TEST_F(PluginsOnBoard, MadeByTheToolLoad) {
    WriteFile("/tmp/image", PluginImage());
    Output(
        "/opt/qx/bin/crp pack --name 'my plugin/v2' --version 1.0.0 --priority 4 --init './program packed' "
        "--image /tmp/image -o " +
        PLUGINS_DIR + "/packed.crp");

    EXPECT_THAT(Load(), ElementsAre("user my plugin/v2 1.0.0 loaded"));

    EXPECT_THAT(Order(), ElementsAre("packed"));
    EXPECT_THAT(Mounts(), ElementsAre("/mnt/crp_my_plugin_v2"));
}

/// One process that loads one plugin as soon as it is told to.
class LoaderProcess {
public:
    /// @param delay  microseconds to wait after the start
    LoaderProcess(const Plugin& plugin, const int (&start)[2], unsigned int delay)
        : _path(Install(plugin)), _mountPoint(QxCRPLoader::getMountPoint(plugin.name)) {
        _pid = fork();
        if (_pid == 0) {
            close(start[1]);
            char none = 0;
            (void)!read(start[0], &none, 1);  // ends when every other process has closed the writing end
            usleep(delay);
            QxCRPLoader loader;
            const PluginInfo record = Record(plugin, PLUGINS_DIR);
            loader.loadPlugins({record});
            _exit(loader.isPluginLoaded(record) ? 0 : 1);
        }
    }

    bool Succeeds() const {
        int status = -1;
        waitpid(_pid, &status, 0);
        return status == 0;
    }
    const std::string& Path() const { return _path; }
    const std::string& MountPoint() const { return _mountPoint; }

private:
    std::string _path;
    std::string _mountPoint;
    pid_t _pid;
};

// Two that ask for a free device at the same moment are told the same one. The one that binds it second fails with
// EBUSY, which must be its only consequence, for both. The later rounds draw the loaders apart, so that more succeed.
TEST_F(PluginsOnBoard, EightLoadersAtOnceTakeNoDeviceFromEachOther) {
    constexpr std::size_t Rounds = 12;
    std::size_t failures = 0;
    for (std::size_t round = 0; round < Rounds; ++round) {
        int start[2];
        ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
        std::vector<LoaderProcess> loaders;
        for (std::size_t i = 0; i < 8; ++i) {
            Plugin plugin{"p" + std::to_string(i)};
            plugin.image = i % 4 == 3 ? std::string(4096, 'x') : plugin.image;
            loaders.emplace_back(plugin, start, static_cast<unsigned int>(i * round * 300));
        }
        close(start[0]);
        close(start[1]);
        std::vector<bool> isLoaded;
        for (const LoaderProcess& loader : loaders) {
            isLoaded.push_back(loader.Succeeds());
        }
        for (std::size_t i = 0; i < loaders.size(); ++i) {
            SCOPED_TRACE(i);
            const std::string& path = loaders[i].Path();
            EXPECT_EQ(ReadFile(loaders[i].MountPoint() + "/here"), isLoaded[i] ? "in the image\n" : "");
            EXPECT_TRUE(Eventually([&] { return DevicesBoundTo(path) == (isLoaded[i] ? 1U : 0U); }));
            EXPECT_FALSE(isLoaded[i] && i % 4 == 3);
            failures += isLoaded[i] ? 0U : 1U;
            Shell("umount -d " + loaders[i].MountPoint());
        }
        EXPECT_THAT(Mounts(), IsEmpty());
    }
    const std::vector<std::string> lines = LogLines();
    const auto count = [&](const std::string& text) {
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.starts_with("[ERROR]") && line.find(text) != std::string::npos;
            }));
    };
    EXPECT_EQ(count("Mount failed for"), failures);
    EXPECT_EQ(count("LOOP_SET_FD: Device or resource busy") + count("): Invalid argument"), failures);
    RecordProperty("beaten", static_cast<int>(failures - 2 * Rounds));
}

}  // namespace
