#include "Board.h"
#include "FakePodman.h"
#include "QxCContainer.h"

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace fs = std::filesystem;
using QxNContainer::QxCContainer;
using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* InitLine = "[INFO] Quolex Container Utils: Container runtime initializing...";
constexpr const char* MountedLine = "[INFO] Quolex Container Utils: Firmware File is already mounted";
constexpr const char* FinishedLine = "[INFO] Quolex Container Utils: Initialization finished successfully.";
constexpr const char* RefusedCoresLine =
    "[ERROR] Quolex Container Utils: Failed to assign CPU cores for container runtime";

QxCContainer& Service() {
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

int StateInFile() {
    const std::string settings = Board::Settings();
    const std::string key = "\"state\": ";
    return std::stoi(settings.substr(settings.find(key) + key.size()));
}

bool EnabledInFile() { return Board::Settings().find("\"enabled\": true") != std::string::npos; }

/// A plugin "file.crp" of version 1.2.3 without an image.
void InstallPlugin(const char* name) {
    CrpPluginHeader header{};
    header.magic = CRP_PLUGIN_MAGIC;
    header.header_size = CRP_HEADER_SIZE;
    header.pluginType = CRP_PLUGIN_TYPE_SQUASHFS;
    strcpy(header.name, name);
    strcpy(header.version, "1.2.3");
    Sandbox::WriteFile(Board::PLUGINS_DIR + "/file.crp",
                       std::string(reinterpret_cast<const char*>(&header), sizeof(header)));
}

// --- The singleton ---

TEST(Service, IsOneObject) { EXPECT_EQ(&QxCContainer::GetInstance(), &QxCContainer::GetInstance()); }

TEST(Service, BeginsNotInitialisedWhateverTheFileSaid) {
    Board::WriteSettings(R"({"enabled": true, "state": 2})");

    EXPECT_EQ(QxCContainer::GetInstance().GetContainerServiceStatus(false),
              ContainerServiceState::NotInitialized);
    EXPECT_EQ(StateInFile(), 0);
    EXPECT_TRUE(EnabledInFile());
}

TEST(Service, MakesItsSessionMutexWithoutAName) {
    QxCContainer::GetInstance();
    EXPECT_THAT(Recording::Events("QxCMutex"), Contains("QxCMutex(null)"));
}

TEST(Service, TouchesNothingBeforeItIsAskedFor) {
    EXPECT_THAT(Recording::Events(), IsEmpty());
    EXPECT_FALSE(fs::exists(Board::SETTINGS_FILE));

    QxCContainer::GetInstance();
    EXPECT_TRUE(fs::exists(Board::SETTINGS_FILE));
}

TEST(Service, ReadsWhichPluginsAreSwitchedOffWhenItIsMade) {
    Sandbox::WriteFile(Board::PLUGIN_CONFIG_FILE,
                       R"({"deactivated_plugins": [{"name": "sensors", "version": "1.2.3"}]})");

    QxCContainer::GetInstance();

    EXPECT_THAT(Recording::Logs(),
                Contains("[INFO] Quolex Container Runtime: Plugin marked as deactivated: 'sensors' v1.2.3"));
}

TEST(Service, LeavesPodmanRunningWhenTheHostEndsWithoutAStop) {
    FakePodman{}.Install();
    fflush(nullptr);
    const pid_t host = fork();
    if (host == 0) {
        QxCContainer::GetInstance().Start();
        const bool isWatched = FakePodman::IsWatched();
        Sandbox::WriteFile("/service", std::to_string(Sandbox::Children().at(0)));
        exit(isWatched ? 0 : 1);
    }

    int status = -1;
    waitpid(host, &status, 0);

    EXPECT_EQ(status, 0);
    EXPECT_EQ(kill(std::stoi(Sandbox::ReadFile("/service")), 0), 0);
    EXPECT_EQ(FakePodman::CommandLines().size(), 2U) << "no containers are stopped";
    EXPECT_EQ(StateInFile(), ContainerServiceState::Running);
}

// --- init ---

TEST(Init, RunsItsStepsInOrderAndEndsInitialised) {
    Board::ProvideContainerSystem();
    TheScript().logLevel = "DEBUG";
    QxCContainer& service = Service();

    EXPECT_TRUE(service.init());

    const auto logs = Recording::Logs();
    const auto at = [&](const char* text) {
        return std::find_if(logs.begin(), logs.end(),
                            [&](const std::string& line) { return line.find(text) != std::string::npos; });
    };
    EXPECT_EQ(logs.front(), InitLine);
    EXPECT_EQ(logs.back(), FinishedLine);
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_LT(at("already mounted"), at("Loading container plugins..."));
    EXPECT_LT(at("Loading container plugins..."), at("Total CPUs"));
    EXPECT_TRUE(fs::is_symlink("/bin/podman"));
    EXPECT_EQ(Sandbox::ReadFile("/run/QxContainerRTE.docker_host"), "unix:///run/podman/podman.sock");
    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre("CpuSetCreate(libpod_parent, 6 of 8)"));
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::Initialized);
    EXPECT_EQ(StateInFile(), 1);
}

TEST(Init, LinksTheToolsAndPublishesPodmanBeforeItLoadsPlugins) {
    Board::ProvideContainerSystem();
    TheScript().logLevel = "DEBUG";
    QxCContainer& service = Service();
    int looked = 0;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Loading container plugins...") != std::string::npos) {
            ++looked;
            EXPECT_TRUE(fs::is_symlink("/etc/containers/certs"));
            EXPECT_TRUE(fs::exists("/run/QxContainerRTE.docker_host"));
        }
    };

    EXPECT_TRUE(service.init());
    EXPECT_EQ(looked, 1);
}

TEST(Init, SaysThatItHasFinishedOnceTheStateIsWritten) {
    Board::ProvideContainerSystem();
    QxCContainer& service = Service();
    int looked = 0;
    TheScript().onEvent = [&](const std::string& event) {
        if (event == std::string("log ") + FinishedLine + "\n") {
            ++looked;
            EXPECT_EQ(StateInFile(), ContainerServiceState::Initialized);
        }
    };

    EXPECT_TRUE(service.init());
    EXPECT_EQ(looked, 1);
}

TEST(Init, OfADisabledServiceLogsItsFirstLineAndChangesNothing) {
    Board::ProvideContainerSystem(R"({"enabled": false})");
    QxCContainer& service = Service();
    const std::string before = Board::Settings();

    EXPECT_FALSE(service.init());

    EXPECT_THAT(Recording::Events(), ElementsAre(std::string("log ") + InitLine + "\n"));
    EXPECT_EQ(Board::Settings(), before);
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::NotInitialized);
    EXPECT_FALSE(fs::exists("/bin/podman"));
}

TEST(Init, WithoutUserStorageSwitchesTheServiceOff) {
    Board::WriteSettings(R"({"enabled": true})");
    QxCContainer& service = Service();

    EXPECT_FALSE(service.init());

    EXPECT_FALSE(EnabledInFile());
    EXPECT_FALSE(service.IsContainerServiceEnabled(false));
    EXPECT_THAT(Recording::Logs(), ElementsAre(InitLine));
    EXPECT_EQ(StateInFile(), 0);
}

TEST(Init, WithoutTheFirmwareImageFailsAndSaysWhyAtDebugOnly) {
    Board::ProvideContainerSystem();
    fs::remove(Board::CONTAINER_TOOLS);
    QxCContainer& service = Service();

    EXPECT_FALSE(service.init());

    EXPECT_THAT(Recording::Logs(), ElementsAre(InitLine, HasSubstr("If you recently activated")));
    EXPECT_FALSE(fs::exists("/bin/podman"));
    EXPECT_EQ(StateInFile(), 0);
    EXPECT_TRUE(EnabledInFile());
}

TEST(Init, WithAFailedMountAddsADebugLine) {
    Board::ProvideContainerSystem();
    fs::remove(Board::CONTAINER_TOOLS);
    TheScript().logLevel = "DEBUG";

    EXPECT_FALSE(Service().init());

    EXPECT_EQ(Recording::Logs().back(), "[DEBUG] Quolex Container Utils: Failed to mount firmware file");
    EXPECT_THAT(Recording::Messages(), Not(Contains(HasSubstr("Failed to mount firmware file"))));
}

TEST(Init, WithTooManyCoresFailsAndLeavesWhatWasDone) {
    Board::ProvideContainerSystem(R"({"enabled": true, "cores_num": 6})");
    QxCContainer& service = Service();

    EXPECT_FALSE(service.init());

    EXPECT_EQ(Recording::Logs().back(), RefusedCoresLine);
    EXPECT_THAT(Recording::Messages(), Contains(std::string("3 ") + (RefusedCoresLine + 8)));
    EXPECT_THAT(Recording::Logs(), Not(Contains(FinishedLine)));
    EXPECT_TRUE(fs::is_symlink("/bin/podman")) << "links stay";
    EXPECT_EQ(StateInFile(), 0);
}

TEST(Init, ThatFailsLeavesTheStateAsItWas) {
    Board::ProvideContainerSystem(R"({"enabled": true, "cores_num": 6})");
    QxCContainer& service = Service();
    service.Stop();

    EXPECT_FALSE(service.init());
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::Stopped);
}

TEST(Init, GoesOnWhenPluginsCannotBeHad) {
    Board::ProvideContainerSystem();
    InstallPlugin("no/mountpoint");
    QxCContainer& service = Service();

    EXPECT_TRUE(service.init());

    EXPECT_THAT(Recording::Logs(), Contains("[ERROR] Quolex Container Runtime: Mount failed for "
                                            "'no/mountpoint'. Skipping plugin."));
    EXPECT_EQ(Recording::Logs().back(), FinishedLine);
}

TEST(Init, GoesOnWhenLinksExistAlready) {
    Board::ProvideContainerSystem();
    fs::create_directories("/etc/containers/certs");

    EXPECT_TRUE(Service().init());
}

TEST(Init, PassesOnTheErrorsOfTheFileSystemSteps) {
    Board::ProvideContainerSystem();
    fs::remove_all(Board::CNI_PLUGINS);
    QxCContainer& service = Service();

    EXPECT_THROW(service.init(), fs::filesystem_error);
    EXPECT_EQ(StateInFile(), 0);
    EXPECT_FALSE(fs::exists("/run/QxContainerRTE.docker_host")) << "links come first";
}

TEST(Init, ASecondTimeInTheSameBootDoesNotMountAgain) {
    Board::ProvideContainerSystem();
    fs::remove_all(Board::CONTAINER_TOOLS_MOUNTPOINT);
    Sandbox::InstallProgram("/usr/bin/mount", "mkdir -p /mnt/containers_tools/bin/plugins");
    QxCContainer& service = Service();

    EXPECT_TRUE(service.init());
    Recording::Forget();
    EXPECT_TRUE(service.init());

    EXPECT_EQ(Sandbox::Calls().size(), 1U);
    EXPECT_THAT(Recording::Logs(), Contains(MountedLine));
}

// --- Is it a container system? ---

TEST(ContainerSystem, IsABoardWithTheServiceEnabledAndUsableStorage) {
    Board::ProvideUserStorage();
    QxCContainer& service = Service();

    EXPECT_FALSE(service.IsContainerSystem());
    Board::WriteSettings(R"({"enabled": true})");
    EXPECT_TRUE(service.IsContainerSystem()) << "the file is read again";
    EXPECT_TRUE(EnabledInFile());
}

TEST(ContainerSystem, IsSwitchedOffUntilSomebodyEnablesItAgain) {
    QxCContainer& service = Service();
    EXPECT_TRUE(service.EnableContainerService());

    EXPECT_FALSE(service.IsContainerSystem());
    Board::ProvideUserStorage();
    EXPECT_FALSE(service.IsContainerSystem()) << "storage alone does not bring it back";
    EXPECT_TRUE(service.EnableContainerService());
    EXPECT_TRUE(service.IsContainerSystem());
}

// --- Start ---

TEST(Start, CreatesTheMonitorThreadAndIsRunning) {
    FakePodman{}.Install();
    QxCContainer& service = Service();

    EXPECT_TRUE(service.Start());

    EXPECT_THAT(Recording::Events("createThread"),
                ElementsAre("createThread(PodmanServiceMonitor, 1, 5, 0)"));
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::Running);
    EXPECT_EQ(StateInFile(), 2);
    service.Stop();
}

TEST(Start, LetsTheThreadReportIntoTheMasterErrorList) {
    FakePodman{}.Install();
    QxCContainer& service = Service();
    const Recording::MasterErrorList master;

    EXPECT_TRUE(service.Start());

    EXPECT_THAT(Recording::Events("createThread"),
                ElementsAre("createThread(PodmanServiceMonitor, 1, 5, 0) into the master error list"));
    service.Stop();
}

TEST(Start, WithoutAThreadIsAnErrorAndFailed) {
    TheScript().createThreadFails = true;
    QxCContainer& service = Service();
    const char* line = "[ERROR] Quolex Container Utils: Failed to create Podman monitor thread";
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find(line) != std::string::npos) {
            EXPECT_EQ(StateInFile(), 0) << "the message comes before the state";
        }
    };

    EXPECT_FALSE(service.Start());

    EXPECT_THAT(Recording::Logs(), ElementsAre(line));
    EXPECT_THAT(Recording::Messages(), ElementsAre(std::string("3 ") + (line + 8)));
    EXPECT_EQ(StateInFile(), 4);
    EXPECT_TRUE(service.Stop());
    EXPECT_THAT(Recording::Events("joinThread"), IsEmpty());
}

TEST(Start, RunsAgainAfterAStop) {
    FakePodman{}.Install();
    QxCContainer& service = Service();
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    service.Stop();
    Recording::Forget();

    ASSERT_TRUE(service.Start());
    EXPECT_TRUE(FakePodman::IsWatched());
    service.Stop();
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

// --- Stop ---

TEST(Stop, WithoutAStartSignalsNothingAndStopsNoContainer) {
    Board::ProvideUserStorage();
    Sandbox::InstallProgram("/bin/podman");
    QxCContainer& service = Service();
    Sandbox::WriteFile(Board::WriteCache, "write through");

    EXPECT_TRUE(service.Stop());

    EXPECT_THAT(Recording::Events(),
                ElementsAre("setContainerRteCoresCount(0)", "createErrorList(0, 1, 20, 5, 300)",
                            "getBlockDeviceMountInfo", "sync, the attribute holds ''", "deleteErrorList"));
    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::Stopped);
    EXPECT_EQ(StateInFile(), 3);
    EXPECT_EQ(Sandbox::ReadFile(Board::WriteCache), "write back");
}

TEST(Stop, IsStoppedBeforeItRestoresTheDisk) {
    Board::ProvideUserStorage();
    QxCContainer& service = Service();
    int looked = 0;
    TheScript().onEvent = [&](const std::string& event) {
        if (event == "getBlockDeviceMountInfo") {
            ++looked;
            EXPECT_EQ(StateInFile(), 3);
        }
    };

    service.Stop();
    EXPECT_EQ(looked, 1);
}

TEST(Stop, IsStoppedOnceTheMonitorThreadHasEnded) {
    FakePodman{.unixService = FakePodman::CountTerminations}.Install();
    QxCContainer& service = Service();
    std::atomic<int> stateAtTheEnd{-1};
    TheScript().onEvent = [&](const std::string& event) {
        if (event == "joinThread(-1)") {
            Sandbox::WriteFile("/end", "");
        }
        if (event == "clearMasterErrorList(-1)") {
            stateAtTheEnd = StateInFile();
        }
    };
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    service.Stop();

    EXPECT_EQ(stateAtTheEnd, ContainerServiceState::Running);
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
}

TEST(Stop, AfterTheServiceEndedByItselfStillStopsTheContainers) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service();
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::MonitorEnded());

    EXPECT_TRUE(service.Stop());

    EXPECT_EQ(FakePodman::CommandLines().back(), "podman stop --all --time 10");
    EXPECT_THAT(Recording::Events("joinThread"), ElementsAre("joinThread(-1)"));
}

TEST(Stop, LeavesNoDescriptorAndNoChildBehind) {
    FakePodman{}.Install();
    QxCContainer& service = Service();
    const auto before = Sandbox::OpenDescriptors();

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    service.Stop();

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_EQ(Recording::LiveLists(), 0);
}

// --- Settings through the facade ---

TEST(EnableService, WritesTheFileAndSaysSoAtDebug) {
    TheScript().logLevel = "DEBUG";
    QxCContainer& service = Service();

    EXPECT_TRUE(service.EnableContainerService());
    EXPECT_TRUE(EnabledInFile());
    EXPECT_TRUE(service.DisableContainerService());
    EXPECT_FALSE(EnabledInFile());

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Utils: Enabling container service.",
                            "[DEBUG] Quolex Container Utils: Disabling container service."));
}

TEST(EnableService, SaysNothingUnlessDebugIsOn) {
    QxCContainer& service = Service();
    service.EnableContainerService();
    service.DisableContainerService();
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(EnableService, ReportsAFileThatCannotBeWritten) {
    QxCContainer& service = Service();
    fs::remove(Board::SETTINGS_FILE);
    fs::create_directories(Board::SETTINGS_FILE);

    EXPECT_FALSE(service.EnableContainerService());
    EXPECT_FALSE(service.DisableContainerService());
    EXPECT_FALSE(service.SetContainerServiceUserSettings({1, 1}));
}

TEST(ServiceSettings, AnswerFromMemoryUnlessRereadingIsAskedFor) {
    QxCContainer& service = Service();
    EXPECT_TRUE(service.SetContainerServiceUserSettings({8080, 2}));
    Board::WriteSettings(R"({"enabled": true, "state": 4, "tcp_port": 1, "cores_num": 5})");

    EXPECT_EQ(service.GetContainerServiceUserSettings().tcpPort, 8080U);
    EXPECT_EQ(service.GetContainerServiceUserSettings().coresNum, 2U);
    EXPECT_FALSE(service.IsContainerServiceEnabled(false));
    EXPECT_EQ(service.GetContainerServiceStatus(false), 0);

    EXPECT_EQ(service.GetContainerServiceStatus(true), 4);
    Board::WriteSettings(R"({"enabled": false})");
    EXPECT_TRUE(service.IsContainerServiceEnabled(false));
    EXPECT_FALSE(service.IsContainerServiceEnabled(true));
}

// --- Forwarding ---

TEST(Forwarding, PassesPluginOperationsOnAsTheyAre) {
    InstallPlugin("sensors");
    QxCContainer& service = Service();

    EXPECT_EQ(service.addPluginToConfig("sensors", "1.2.3"), 3) << "nothing was scanned yet";
    service.scanContainerPluginsDir();
    const QxNJson::json listing = service.listPlugins();
    ASSERT_EQ(listing["plugins"].size(), 1U);
    EXPECT_EQ(listing["plugins"][0]["fileName"], "file.crp");
    EXPECT_EQ(service.addPluginToConfig("sensors", "1.2.3"), 0);
    EXPECT_THAT(Sandbox::ReadFile(Board::PLUGIN_CONFIG_FILE), HasSubstr("sensors"));
    EXPECT_EQ(service.removePluginFromConfig("sensors", "1.2.3"), 0);
    EXPECT_EQ(service.addPluginToConfig("sensors", "1.2.3"), 0);
    EXPECT_EQ(service.removePluginFromConfigByFileName("file.crp"), 0);
    EXPECT_EQ(service.removePluginFromConfigByFileName("other.crp"), 1);
}

TEST(Forwarding, PassesComposeOperationsOnAsTheyAre) {
    TheScript().logLevel = "DEBUG";
    QxCContainer& service = Service();
    QxNJson::json result;

    EXPECT_EQ(service.CreateCompose(nullptr, result), 2);
    EXPECT_EQ(service.StartCompose(" ", result), 3);
    EXPECT_EQ(service.StopCompose("missing.yaml", result), 4);
    EXPECT_EQ(result["Message"], "Checking compose YAML file failed: file '" + Board::COMPOSE_FILES_PATH +
                                     "missing.yaml' is not existing.");
    EXPECT_EQ(service.RemoveCompose("missing.yaml", result), 4);

    EXPECT_THAT(Recording::Logs(),
                ElementsAre(HasSubstr("CREATE"), HasSubstr("START"), HasSubstr("STOP"), HasSubstr("REMOVE")));
}

TEST(ServiceSettings, TellTheMostCoresThatContainersMayGet) {
    EXPECT_EQ(Service().GetMaxAllowedCpuCoreCount(), 5U);
}

}  // namespace
