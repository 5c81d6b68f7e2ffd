// Every public operation of the library, ready to be run again and again.

#include "FailingCalls.h"
#include "Torture.h"

#include "QxCContainer.h"
#include "QxCCurlHandler.h"
#include "QxCErrorManager.h"
#include "QxCWebSocket.h"
#include "QxCWriteThroughCacheGuard.h"
#include "tests/crp/LoopDevices.h"
#include "tests/crp/PluginMaker.h"
#include "tests/unit/Board.h"

#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <csignal>
#include <memory>

using QxNContainer::QxCContainer;
namespace fs = std::filesystem;

namespace Torture {

namespace {

QxCContainer& Service() { return QxCContainer::GetInstance(); }

const char* Word(bool value) { return value ? "true" : "false"; }

void Script(const std::string& path, const std::string& script) {
    Sandbox::WriteFile(path, "#!/bin/sh\n" + script + "\n");
    chmod(path.c_str(), 0755);
}

// --- The board ---

void OwnMounts() {
    unshare(CLONE_NEWNS);
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

void FurnishPrograms() {
    Script("/bin/podman", "case \"$1\" in system) exec sleep 1000;; esac");
    Script("/usr/bin/mount",
           "mkdir -p /mnt/containers_tools/bin/plugins; : > /mnt/containers_tools/bin/plugins/bridge");
}

void FurnishBoard() {
    OwnMounts();
    Board::ProvideContainerSystem();
    FurnishPrograms();
}

// --- Settings ---

/// The settings file as another program writes it: without "max_cpu_core_count", which every write of the
/// library adds.
void WriteSettings(bool enabled, int port, int state, int cores = 3) {
    Board::WriteSettings(std::string(R"({"enabled": )") + Word(enabled) + R"(, "tcp_port": )" +
                         std::to_string(port) + R"(, "cores_num": )" + std::to_string(cores) +
                         R"(, "state": )" + std::to_string(state) + "}");
}

/// The same values in the file and in memory.
void PrepareState(bool enabled, int state) {
    WriteSettings(enabled, 0, state);
    Service().GetContainerServiceStatus(true);
}

void PrepareSettings() { PrepareState(true, ContainerServiceState::Initialized); }

void PrepareDisabled() { PrepareState(false, ContainerServiceState::Initialized); }

void PrepareChangedFile() {
    PrepareDisabled();
    WriteSettings(true, 8080, ContainerServiceState::Running, 2);
}

/// As on a configuration drive that never had settings.
void PrepareNoSettingsDirectory() {
    PrepareSettings();
    fs::remove_all(fs::path(Board::SETTINGS_FILE).parent_path());
}

void SetUserSettings(Outcome& outcome) {
    outcome.Add("%s", Word(Service().SetContainerServiceUserSettings({8080, 2})));
}

void InspectMemory(Outcome& outcome) {
    const QxCCTESettings::QxSUserSettings user = Service().GetContainerServiceUserSettings();
    outcome.Add(", memory %s %u %u state %d", Service().IsContainerServiceEnabled(false) ? "on" : "off",
                user.tcpPort, user.coresNum, Service().GetContainerServiceStatus(false));
}

void InspectFile(Outcome& outcome) {
    if (!fs::exists(Board::SETTINGS_FILE)) {
        outcome.Add(", no file");
        return;
    }
    const std::string text = Board::Settings();
    const QxNJson::json settings = QxNJson::json::parse(text);
    if (settings.is_invalid()) {
        outcome.Add(", file %s", text.empty() ? "empty" : "broken");
        return;
    }
    const auto value = [&](const char* key) {
        return settings.contains(key) ? settings[key].dump() : std::string("none");
    };
    outcome.Add(", file %s %s %s state %s max %s", value("enabled") == "true" ? "on" : "off",
                value("tcp_port").c_str(), value("cores_num").c_str(), value("state").c_str(),
                value("max_cpu_core_count").c_str());
}

void InspectSettings(Outcome& outcome) {
    InspectMemory(outcome);
    InspectFile(outcome);
}

void PrepareCoreCounts() {
    Recording::TheScript().totalCores = 8;
    QxCCTESettings::GetInstance()->ExtractCpuCoreCounts();
    PrepareSettings();
    Recording::TheScript().totalCores = 16;
}

void ExtractCoreCounts(Outcome& outcome) {
    outcome.Add("%s", Word(QxCCTESettings::GetInstance()->ExtractCpuCoreCounts()));
}

void InspectCoreCounts(Outcome& outcome) {
    unsigned int total = 0;
    unsigned int usable = 0;
    unsigned int max = 0;
    int unused = 0;
    QxCCTESettings::GetInstance()->getCpuCoreCounts(total, usable, max, unused);
    outcome.Add(", cores %u %u %u %d", total, usable, max, unused);
    InspectFile(outcome);
}

// --- Life ---

void PrepareInit() {
    PrepareState(true, ContainerServiceState::NotInitialized);
    for (const char* path : {"/mnt/containers_tools", "/opt/cni", "/etc/containers", "/var/lib/containers",
                             "/mnt/cfdrive/containers/certs", "/userstorage1/container_rte"}) {
        fs::remove_all(path);
    }
    Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
    for (const char* path :
         {"/bin/crun", "/usr/bin/conmon", "/bin/docker-compose", "/run/QxContainerRTE.docker_host"}) {
        fs::remove(path);
    }
}

void InspectWriteCache(Outcome& outcome) {
    outcome.Add(", disk %s", Sandbox::ReadFile(Board::WriteCache).c_str());
}

bool MonitorIsSettled() {
    FailingCalls_Pause();
    bool settled = false;
    for (const std::string& event : Recording::Events()) {
        settled = settled || event.find("Spawned Podman correctly") != std::string::npos ||
                  event.find("clearMasterErrorList") != std::string::npos;
    }
    FailingCalls_Resume();
    return settled;
}

void StartAndStop(Outcome& outcome) {
    const bool started = Service().Start();
    outcome.Add("start %s state %d, ", Word(started), Service().GetContainerServiceStatus(false));
    if (started) {
        Sandbox::Eventually(MonitorIsSettled);
    }
    outcome.Add("stop %s", Word(Service().Stop()));
}

/// What a host does that caught an exception of Start() or Stop().
void StopAgain(Outcome& outcome) {
    outcome.Add(", stop again %s", Word(Service().Stop()));
    InspectWriteCache(outcome);
    InspectSettings(outcome);
}

/// A "/run" of its own: that of the sandbox has the socket of the scripted Podman service.
void FurnishRun() {
    FurnishBoard();
    mount("tmpfs", "/run", "tmpfs", 0, nullptr);
}

/// As after the board's start.
void PrepareNoSocketDirectory() {
    PrepareSettings();
    fs::remove_all(fs::path(Board::PODMAN_SOCKET).parent_path());
}

void FurnishTcp() {
    FurnishBoard();
    for (const char* file : {"/ca.crt", "/server.crt", "/server.key"}) {
        Sandbox::WriteFile(Board::CONTAINER_CERTS_DIR + file, "pem");
    }
}

pid_t spawned = -1;

void SpawnService(Outcome& outcome, unsigned int port) {
    spawned = -1;
    spawned = Service().SpawnPodmanService(port);
    outcome.Add("%s", spawned > 0 ? "spawned" : spawned == -1 ? "not spawned" : "WRONG id");
}

void InspectService(Outcome& outcome) {
    int status = 0;
    if (spawned > 0 && kill(spawned, SIGTERM) == 0 && waitpid(spawned, &status, 0) == spawned) {
        outcome.Add(", ended by signal %d", WTERMSIG(status));
    }
}

void InspectSocketDirectory(Outcome& outcome) {
    InspectService(outcome);
    const bool isThere = fs::is_directory(fs::path(Board::PODMAN_SOCKET).parent_path());
    outcome.Add(", %s", isThere ? "directory made" : "no directory");
}

// --- Requests ---

class CountingSocket : public QxNSmartWebApi::QxCWebSocket {
public:
    int sendBinary(QxCErrorListPool&, const unsigned char*, unsigned int length, int, bool) override {
        bytes += length;
        if (closes) {
            QxCContainer::LogStreamCloseHandler(nullptr, 0, this);
        }
        return 0;
    }
    unsigned int bytes = 0;
    bool closes = false;  ///< with the first message
};

CountingSocket logSocket;
std::shared_ptr<QxCContainer::QxSLogStreamSession> logSession;

struct RequestArguments {
    std::string endpoint = "/echo";
    std::string container = "clock";
    std::string terminal = "terminal";
    std::string file = "/upload";
    std::string none;
    std::vector<std::string> headers{"Accept: application/json",
                                     "X-Header: a value that does not fit into a short string"};
};

void FurnishRequests() {
    FurnishBoard();
    Sandbox::WriteFile("/upload", std::string(100000, 'u'));
}

void Request(Outcome& outcome, QxCCurlHandler::MethodType method, bool upload, bool writeThrough) {
    static const RequestArguments arguments;
    const PodmanResponse response =
        Service().ExecutePodmanRequest(arguments.endpoint, method, arguments.headers,
                                       upload ? arguments.file : arguments.none, writeThrough);
    outcome.Add("code %d, %zu bytes", response.httpCode, response.body.size());
}

struct StreamArguments {
    std::string container = "clock";
    std::string endpoint = "/logs";
    bool closes = false;
};

void Stream(Outcome& outcome, const StreamArguments& stream) {
    static const RequestArguments arguments;
    static QxCErrorListPool& errors = *QxCErrorManager::getSingleton()->createErrorList(0, 1, 20, 5, 300);
    logSocket.bytes = 0;
    logSocket.closes = stream.closes;
    struct Registration {
        ~Registration() { Service().UnregisterLogStreamSession(&logSocket); }
    } registration;
    const auto session = Service().RegisterLogStreamSession(&logSocket, stream.container);
    const PodmanResponse response = Service().StreamPodmanRequest(
        stream.endpoint, QxCCurlHandler::Get, arguments.headers, errors, session, &logSocket);
    outcome.Add("%scode %d, %u bytes%s", session->tty ? "tty, " : "", response.httpCode, logSocket.bytes,
                session->abortFlag ? ", aborted" : "");
}

void PrepareClose() {
    PrepareSettings();
    logSession = Service().RegisterLogStreamSession(&logSocket, "clock");
}

/// As the WebSocket layer calls it, also for what has no session.
void CloseStreams(Outcome& outcome) {
    static CountingSocket unknown;
    QxCContainer::LogStreamCloseHandler(nullptr, 0, nullptr);
    QxCContainer::LogStreamCloseHandler("text", 4, &unknown);
    outcome.Add("%s", logSession->abortFlag ? "TOO EARLY, " : "");
    QxCContainer::LogStreamCloseHandler("text", 4, &logSocket);
    outcome.Add("%s", logSession->abortFlag ? "aborted" : "goes on");
}

void ReleaseClose() {
    Service().UnregisterLogStreamSession(&logSocket);
    logSession.reset();
}

void Handler(Outcome& outcome) {
    static const std::string url = "http://localhost/echo";
    static const std::string payload(100, 'p');
    static const RequestArguments arguments;
    QxCCurlHandler handler;
    handler.SetTcpSocket(1);
    handler.SetUnixSocket(Board::PODMAN_SOCKET);
    handler.SetMethodType(QxCCurlHandler::Post);
    handler.SetUrl(url);
    handler.SetHeaders(arguments.headers);
    handler.SetPayload(payload);
    const std::string body = handler.Execute();
    outcome.Add("code %d, %zu bytes", handler.GetHttpCode(), body.size());
}

/// @param before  whether the request is aborted before it begins, not at the first bytes of the answer
void AbortedHandler(Outcome& outcome, bool before) {
    static const std::string url = "http://localhost/endless/logs";
    static std::atomic<bool> abort;
    static size_t bytes;
    abort = before;
    bytes = 0;
    QxCCurlHandler handler;
    handler.SetUnixSocket(Board::PODMAN_SOCKET);
    handler.SetMethodType(QxCCurlHandler::Get);
    handler.SetUrl(url);
    handler.SetStreamCallback([](const char*, size_t length) {
        bytes += length;
        abort = true;
        return length;
    });
    handler.SetAbortFlag(&abort);
    const std::string body = handler.Execute();
    outcome.Add("code %d, %zu bytes", handler.GetHttpCode(), bytes);
}

// --- Compose ---

void FurnishCompose() {
    FurnishBoard();
    Sandbox::WriteFile(Board::COMPOSE_FILES_PATH + "web.yaml", "services: {}\n");
}

std::function<void()> PrepareCompose(const std::string& before, const std::string& after) {
    return [=] {
        const auto line = [](const std::string& state) {
            return state.empty() ? std::string()
                                 : "echo '{\"Name\":\"web-server-number-1\",\"State\":\"" + state + "\"}'";
        };
        fs::remove("/commanded");
        Script("/bin/docker-compose", "case \"$*\" in\n*' ps '*) if [ -e /commanded ]; then :; " +
                                          line(after) + "\nelse :; " + line(before) +
                                          "\nfi;;\n*) : > /commanded;; esac");
    };
}

void Compose(Outcome& outcome, int (QxCContainer::*operation)(const char*, QxNJson::json&)) {
    QxNJson::json result;
    const int code = (Service().*operation)("web.yaml", result);
    FailingCalls_Pause();
    outcome.Add("code %d, %s", code, result.dump().c_str());
    FailingCalls_Resume();
}

// --- Plugins ---

std::unique_ptr<LoopDevices> loopDevices;  // for one run only: others on this machine wait for their turn
std::string pluginImage;

void MakePluginImage() {
    Sandbox::WriteFile("/image/init.sh", "echo init >> /initialised\n");
    pluginImage = PluginMaker::ImageOf("/image");
}

void FurnishPlugins() {
    OwnMounts();
    Board::MountUserStorage();
    Board::WriteSettings(R"({"enabled": true})");
    fs::create_directories("/userstorage1/container_rte");
    MakePluginImage();
}

/// Plugins that are delivered with the system, in a directory of their own.
void FurnishSystemPlugins() {
    FurnishPlugins();
    fs::create_directories(CRP::SYSTEM_PLUGIN_DIR);
    mount("tmpfs", CRP::SYSTEM_PLUGIN_DIR, "tmpfs", 0, nullptr);
}

/// A container system whose loop devices are those of the machine.
void FurnishInitWithPlugin() {
    OwnMounts();
    Board::MountUserStorage();
    Recording::TheScript().mounts = {{"/userstorage1", "/dev/sda1", 2}};
    FurnishPrograms();
    MakePluginImage();
}

void PlacePlugin(const std::string& directory) {
    fs::remove_all(Board::PLUGINS_DIR);
    if (directory != Board::PLUGINS_DIR) {
        fs::create_directory_symlink(directory, Board::PLUGINS_DIR);
    }
    CrpPluginHeader trailer = PluginMaker::Trailer("network", "1.0.0");
    PluginMaker::SetText(trailer.initCommand, "init.sh --once");
    trailer.imageSize = pluginImage.size();
    PluginMaker::Write(directory + "/network.crp", trailer, pluginImage);
}

void PrepareConfig() {
    PlacePlugin(Board::PLUGINS_DIR);
    Sandbox::WriteFile(Board::PLUGIN_CONFIG_FILE,
                       R"({"deactivated_plugins": [{"name": "other", "version": "2.0.0"}], "kept": 1})");
    Service().scanContainerPluginsDir();
}

void PrepareConfigWithEntry() {
    PrepareConfig();
    Service().addPluginToConfig("network", "1.0.0");
}

/// Only the system has a plugin; the user's directory is not there.
void PrepareNoPluginDirectory() {
    fs::remove_all(Board::PLUGINS_DIR);
    PluginMaker::Write(std::string(CRP::SYSTEM_PLUGIN_DIR) + "/network.crp",
                       PluginMaker::Trailer("network", "1.0.0"));
    Service().scanContainerPluginsDir();
}

void Deactivate(Outcome& outcome) {
    static const std::string name = "network";
    static const std::string version = "1.0.0";
    outcome.Add("code %d", Service().addPluginToConfig(name, version));
}

void InspectConfig(Outcome& outcome) {
    if (!fs::exists(Board::PLUGIN_CONFIG_FILE)) {
        outcome.Add(", no file");
        return;
    }
    const QxNJson::json config = QxNJson::json::parse(Sandbox::ReadFile(Board::PLUGIN_CONFIG_FILE));
    outcome.Add(", file %s", config.is_invalid() ? "broken" : config.dump().c_str());
}

void PrepareLoad() {
    fs::create_directories("/userstorage1/container_rte");
    fs::remove_all("/mnt/crp_network");
    fs::remove("/initialised");
    loopDevices = std::make_unique<LoopDevices>();
    PlacePlugin(loopDevices->Directory());
}

void Load(Outcome& outcome) {
    // Made here, so that a run does not find what an earlier one has loaded.
    CRP::QxCRPHandler handler(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
    handler.loadPlugins();
    outcome.Add("done");
}

void PrepareLoadDeactivated() {
    PrepareLoad();
    Sandbox::WriteFile(Board::PLUGIN_CONFIG_FILE,
                       R"({"deactivated_plugins": [{"name": "network", "version": "1.0.0"}]})");
}

void InspectLoad(Outcome& outcome) {
    outcome.Add(", %zu mounts, %zu devices, init command %s", LoopDevices::Mounts().size(),
                loopDevices->Bound().size(), fs::exists("/initialised") ? "ran" : "did not run");
}

void InspectInit(Outcome& outcome) {
    InspectSettings(outcome);
    InspectLoad(outcome);
}

/// Of each name one plugin of the user and one of the system: once the system's is newer, once the user's. A
/// third one, the newest of all, is for another release. The names do not fit into a short string.
void PrepareDuplicates() {
    struct Plugin {
        std::string directory;
        const char* name;
        const char* version;
        std::uint32_t priority;
        const char* compatibleOs;
    };
    for (const Plugin& plugin : {Plugin{Board::PLUGINS_DIR, "plant-floor-network", "1.0.0", 1, ""},
                                 {Board::PLUGINS_DIR, "plant-floor-storage", "2.0.0", 2, ""},
                                 {CRP::SYSTEM_PLUGIN_DIR, "plant-floor-network", "1.2.0", 1, ""},
                                 {CRP::SYSTEM_PLUGIN_DIR, "plant-floor-storage", "1.9.9", 2, ""},
                                 {CRP::SYSTEM_PLUGIN_DIR, "plant-floor-network", "3.0.0", 1, "no release"}}) {
        CrpPluginHeader trailer = PluginMaker::Trailer(plugin.name, plugin.version, plugin.compatibleOs);
        trailer.initPriority = plugin.priority;
        PluginMaker::Write(plugin.directory + "/" + plugin.name + "-" + plugin.version, trailer);
    }
}

void ScanDuplicates(Outcome& outcome) {
    CRP::QxCRPScanner scanner(Board::PLUGINS_DIR);
    const std::vector<CRP::PluginInfo> plugins = scanner.scan();
    outcome.Add("%zu plugins", plugins.size());
    for (const CRP::PluginInfo& plugin : plugins) {
        outcome.Add(", %s %s", plugin.header.name, plugin.header.version);
    }
}

void PrepareSkipped() {
    Sandbox::WriteFile(
        Board::PLUGIN_CONFIG_FILE,
        R"({"deactivated_plugins": ["", {"name": "plant-floor-network", "version": "1.0.0"}]})");
}

/// None of them is loaded, each for another reason. The deactivated one has a second reason, which shows where
/// the list is not known.
std::vector<CRP::PluginInfo> SkippedPlugins() {
    std::vector<CRP::PluginInfo> plugins{PluginMaker::Record("plant-floor-network", "1.0.0", false),
                                         PluginMaker::Record("plant-floor-storage", "1.0.0", false),
                                         PluginMaker::Record("plant-floor-display", "1.0.0")};
    plugins.back().header.pluginType = CRP_PLUGIN_TYPE_SQUASHFS + 1;
    return plugins;
}

void LoadSkipped(Outcome& outcome) {
    static const std::vector<CRP::PluginInfo> plugins = SkippedPlugins();
    CRP::QxCRPLoader loader;
    outcome.Add("init %s, ", Word(loader.init(Board::PLUGIN_CONFIG_FILE)));
    loader.loadPlugins(plugins);
    outcome.Add("%zu deactivated", loader.getDeactivatedPlugins().size());
}

std::vector<Operation> MakeOperations() {
    using Method = QxCCurlHandler;
    std::vector<Operation> all;
    const auto add = [&](Operation operation) { all.push_back(std::move(operation)); };

    add({"instance", FurnishBoard, [] { WriteSettings(true, 8080, ContainerServiceState::Stopped); },
         [](Outcome& o) {
             Service();
             o.Add("made");
             InspectMemory(o);
         },
         InspectFile, [] {}, true});
    add({"init", FurnishBoard, PrepareInit, [](Outcome& o) { o.Add("%s", Word(Service().init())); },
         InspectSettings});
    add({"init-plugin", FurnishInitWithPlugin,
         [] {
             PrepareInit();
             PrepareLoad();
         },
         [](Outcome& o) { o.Add("%s", Word(Service().init())); }, InspectInit, [] { loopDevices.reset(); }});
    add({"start-stop", FurnishBoard, PrepareSettings, StartAndStop, StopAgain});
    add({"start-stop-tcp", FurnishTcp,
         [] {
             PrepareSettings();
             Service().SetContainerServiceUserSettings({8080, 1});
         },
         StartAndStop, StopAgain});
    add({"start-stop-no-tls", FurnishTcp,
         [] {
             PrepareSettings();
             fs::remove(Board::CONTAINER_CERTS_DIR + "/server.key");
             Service().SetContainerServiceUserSettings({8080, 1});
         },
         StartAndStop, StopAgain});
    add({"start-stop-no-directory", FurnishRun, PrepareNoSocketDirectory, StartAndStop, StopAgain});
    add({"spawn-service", FurnishBoard, PrepareSettings, [](Outcome& o) { SpawnService(o, 0); },
         InspectService});
    add({"spawn-service-tcp", FurnishTcp, PrepareSettings, [](Outcome& o) { SpawnService(o, 8080); },
         InspectService});
    add({"spawn-service-no-tls", FurnishTcp,
         [] {
             PrepareSettings();
             fs::remove(Board::CONTAINER_CERTS_DIR + "/server.key");
         },
         [](Outcome& o) { SpawnService(o, 8080); }, InspectService});
    add({"spawn-service-no-directory", FurnishRun, PrepareNoSocketDirectory,
         [](Outcome& o) { SpawnService(o, 0); }, InspectSocketDirectory});
    add({"enable", FurnishBoard, PrepareDisabled,
         [](Outcome& o) { o.Add("%s", Word(Service().EnableContainerService())); }, InspectSettings});
    add({"disable", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().DisableContainerService())); }, InspectSettings});
    add({"user-settings", FurnishBoard, PrepareSettings, SetUserSettings, InspectSettings});
    add({"user-settings-no-directory", FurnishBoard, PrepareNoSettingsDirectory, SetUserSettings,
         InspectSettings});
    add({"user-settings-reread", FurnishBoard, PrepareChangedFile,
         [](Outcome& o) {
             const auto user = QxCCTESettings::GetInstance()->getServiceUserSettings(true);
             o.Add("port %u, %u cores", user.tcpPort, user.coresNum);
         },
         InspectMemory});
    add({"core-counts", FurnishBoard, PrepareCoreCounts, ExtractCoreCounts, InspectCoreCounts});
    add({"core-counts-unknown", FurnishBoard,
         [] {
             Recording::TheScript().coreCountFails = false;
             PrepareCoreCounts();
             Recording::TheScript().coreCountFails = true;
         },
         ExtractCoreCounts, InspectCoreCounts});
    add({"queries", FurnishBoard, PrepareChangedFile, [](Outcome& o) {
             const bool enabled = Service().IsContainerServiceEnabled(true);
             const int state = Service().GetContainerServiceStatus(true);
             o.Add("enabled %s, state %d, port %u, at most %u cores", Word(enabled), state,
                   Service().GetContainerServiceUserSettings().tcpPort,
                   Service().GetMaxAllowedCpuCoreCount());
         }});
    add({"is-container-system", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().IsContainerSystem())); }, InspectSettings});
    add({"user-storage", FurnishBoard, PrepareSettings, [](Outcome& o) {
             std::string reason;
             const bool valid = Service().HasValidUserStorage(&reason);
             o.Add("%s %s", Word(valid), reason.c_str());
         }});
    add({"cores", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().AssignCpuCores())); }});
    add({"docker-host", FurnishBoard, PrepareInit,
         [](Outcome& o) {
             Service().ConfigureDockerHost();
             o.Add("done");
         },
         [](Outcome& o) {
             o.Add(", file '%s'", Sandbox::ReadFile("/run/QxContainerRTE.docker_host").c_str());
         }});
    add({"start-all", FurnishBoard, PrepareSettings, [](Outcome& o) {
             Service().StartAllContainers();
             o.Add("done");
         }});
    add({"stop-all", FurnishBoard, PrepareSettings, [](Outcome& o) {
             Service().StopAllContainers();
             o.Add("done");
         }});
    add({"inventory", FurnishBoard,
         [] {
             fs::remove(Board::CONTAINER_TOOLS);
             Recording::TheScript().processes["QxInventoryManager"] = 7;
         },
         [](Outcome& o) { o.Add("%s", Word(Service().TriggerInventoryTreeScan())); }});

    add({"inventory-unknown", FurnishBoard,
         [] {
             fs::remove(Board::CONTAINER_TOOLS);
             Recording::TheScript().processes.clear();
         },
         [](Outcome& o) { o.Add("%s", Word(Service().TriggerInventoryTreeScan())); }});
    add({"inventory-image", FurnishBoard,
         [] {
             Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
             Recording::TheScript().processes["QxInventoryManager"] = 7;
         },
         [](Outcome& o) { o.Add("%s", Word(Service().TriggerInventoryTreeScan())); }});

    add({"get", FurnishRequests, PrepareSettings, [](Outcome& o) { Request(o, Method::Get, false, false); }});
    add({"delete", FurnishRequests, PrepareSettings,
         [](Outcome& o) { Request(o, Method::Delete, false, false); }});
    add({"upload", FurnishRequests, PrepareSettings,
         [](Outcome& o) { Request(o, Method::Post, true, false); }});
    add({"protected", FurnishRequests, PrepareSettings,
         [](Outcome& o) { Request(o, Method::Post, true, true); }, InspectWriteCache});
    add({"restore-write-back", FurnishBoard, [] { Sandbox::WriteFile(Board::WriteCache, "write through"); },
         [](Outcome& o) {
             QxNContainer::QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
             o.Add("done");
         },
         InspectWriteCache});
    add({"tty", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const RequestArguments arguments;
             o.Add("%s", Word(Service().IsContainerTty(arguments.container)));
         }});
    add({"tty-terminal", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const RequestArguments arguments;
             o.Add("%s", Word(Service().IsContainerTty(arguments.terminal)));
         }});
    add({"stream", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const StreamArguments arguments;
             Stream(o, arguments);
         }});
    add({"stream-terminal", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const StreamArguments arguments{"terminal", "/logs", false};
             Stream(o, arguments);
         }});
    add({"stream-closed", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const StreamArguments arguments{"clock", "/endless/logs", true};
             Stream(o, arguments);
         }});
    add({"stream-terminal-closed", FurnishRequests, PrepareSettings, [](Outcome& o) {
             static const StreamArguments arguments{"terminal", "/endless/logs", true};
             Stream(o, arguments);
         }});
    add({"close-handler", FurnishRequests, PrepareClose, CloseStreams, [](Outcome&) {}, ReleaseClose});
    add({"curl-handler", FurnishRequests, PrepareSettings, Handler});
    add({"curl-aborted", FurnishRequests, PrepareSettings, [](Outcome& o) { AbortedHandler(o, false); }});
    add({"curl-aborted-before", FurnishRequests, PrepareSettings,
         [](Outcome& o) { AbortedHandler(o, true); }});

    add({"compose-create", FurnishCompose, PrepareCompose("", "created"),
         [](Outcome& o) { Compose(o, &QxCContainer::CreateCompose); }});
    add({"compose-start", FurnishCompose, PrepareCompose("created", "running"),
         [](Outcome& o) { Compose(o, &QxCContainer::StartCompose); }});
    add({"compose-stop", FurnishCompose, PrepareCompose("running", "exited"),
         [](Outcome& o) { Compose(o, &QxCContainer::StopCompose); }});
    add({"compose-remove", FurnishCompose, PrepareCompose("exited", ""),
         [](Outcome& o) { Compose(o, &QxCContainer::RemoveCompose); }});

    add({"scan", FurnishPlugins, PrepareConfig, [](Outcome& o) {
             Service().scanContainerPluginsDir();
             o.Add("done");
         }});
    add({"scan-duplicates", FurnishSystemPlugins, PrepareDuplicates, ScanDuplicates});
    add({"list", FurnishPlugins, PrepareConfig, [](Outcome& o) {
             const QxNJson::json list = Service().listPlugins();
             o.Add("%zu plugins", list["plugins"].size());
         }});
    add({"deactivate", FurnishPlugins, PrepareConfig, Deactivate, InspectConfig});
    add({"deactivate-no-directory", FurnishSystemPlugins, PrepareNoPluginDirectory, Deactivate,
         InspectConfig});
    add({"activate", FurnishPlugins, PrepareConfigWithEntry,
         [](Outcome& o) {
             static const std::string name = "network";
             static const std::string version = "1.0.0";
             o.Add("code %d", Service().removePluginFromConfig(name, version));
         },
         InspectConfig});
    add({"activate-by-file", FurnishPlugins, PrepareConfigWithEntry,
         [](Outcome& o) {
             static const std::string file = "network.crp";
             o.Add("code %d", Service().removePluginFromConfigByFileName(file));
         },
         InspectConfig});
    add({"load", FurnishPlugins, PrepareLoad, Load, InspectLoad, [] { loopDevices.reset(); }});
    add({"load-deactivated", FurnishPlugins, PrepareLoadDeactivated, Load, InspectLoad,
         [] { loopDevices.reset(); }});
    add({"load-skipped", FurnishPlugins, PrepareSkipped, LoadSkipped});
    return all;
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = MakeOperations();
    return operations;
}

}  // namespace Torture
