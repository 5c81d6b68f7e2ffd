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

void FurnishBoard() {
    OwnMounts();
    Board::ProvideContainerSystem();
    Script("/bin/podman", "case \"$1\" in system) exec sleep 1000;; esac");
    Script("/usr/bin/mount",
           "mkdir -p /mnt/containers_tools/bin/plugins; : > /mnt/containers_tools/bin/plugins/bridge");
}

void PrepareSettings() { Board::WriteSettings(R"({"enabled": true, "tcp_port": 0, "cores_num": 3})"); }

void InspectSettings(Outcome& outcome) {
    const QxNJson::json settings = QxNJson::json::parse(Board::Settings());
    outcome.Add(", file %s", settings.is_invalid() ? "broken" : "whole");
}

// --- Life ---

void PrepareInit() {
    PrepareSettings();
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
    outcome.Add("start %s, ", Word(started));
    if (started) {
        Sandbox::Eventually(MonitorIsSettled);
    }
    outcome.Add("stop %s", Word(Service().Stop()));
}

/// What a host does that caught an exception of Start() or Stop().
void StopAgain(Outcome& outcome) {
    outcome.Add(", stop again %s", Word(Service().Stop()));
    InspectWriteCache(outcome);
    outcome.Add(", state %d", Service().GetContainerServiceStatus(false));
}

void FurnishTcp() {
    FurnishBoard();
    for (const char* file : {"/ca.crt", "/server.crt", "/server.key"}) {
        Sandbox::WriteFile(Board::CONTAINER_CERTS_DIR + file, "pem");
    }
}

// --- Requests ---

class CountingSocket : public QxNSmartWebApi::QxCWebSocket {
public:
    int sendBinary(QxCErrorListPool&, const unsigned char*, unsigned int length, int, bool) override {
        bytes += length;
        return 0;
    }
    unsigned int bytes = 0;
};

struct RequestArguments {
    std::string endpoint = "/echo";
    std::string container = "clock";
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

void Stream(Outcome& outcome) {
    static const RequestArguments arguments;
    static const std::string endpoint = "/logs";
    static CountingSocket socket;
    static QxCErrorListPool& errors = *QxCErrorManager::getSingleton()->createErrorList(0, 1, 20, 5, 300);
    socket.bytes = 0;
    struct Registration {
        ~Registration() { Service().UnregisterLogStreamSession(&socket); }
    } registration;
    const auto session = Service().RegisterLogStreamSession(&socket, arguments.container);
    const PodmanResponse response = Service().StreamPodmanRequest(
        endpoint, QxCCurlHandler::Get, arguments.headers, errors, session, &socket);
    outcome.Add("code %d, %u bytes", response.httpCode, socket.bytes);
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

void FurnishPlugins() {
    OwnMounts();
    Board::MountUserStorage();
    Board::WriteSettings(R"({"enabled": true})");
    fs::create_directories("/userstorage1/container_rte");
    Sandbox::WriteFile("/image/init.sh", "echo init >> /initialised\n");
    pluginImage = PluginMaker::ImageOf("/image");
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

void InspectConfig(Outcome& outcome) {
    const QxNJson::json config = QxNJson::json::parse(Sandbox::ReadFile(Board::PLUGIN_CONFIG_FILE));
    outcome.Add(", file %s", config.is_invalid() ? "broken" : config.dump().c_str());
}

void PrepareLoad() {
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

void InspectLoad(Outcome& outcome) {
    outcome.Add(", %zu mounts, %zu devices, init command %s", LoopDevices::Mounts().size(),
                loopDevices->Bound().size(), fs::exists("/initialised") ? "ran" : "did not run");
}

std::vector<Operation> MakeOperations() {
    using Method = QxCCurlHandler;
    std::vector<Operation> all;
    const auto add = [&](Operation operation) { all.push_back(std::move(operation)); };

    add({"instance", FurnishBoard, PrepareSettings,
         [](Outcome& o) {
             Service();
             o.Add("made");
         },
         InspectSettings, [] {}, true});
    add({"init", FurnishBoard, PrepareInit, [](Outcome& o) { o.Add("%s", Word(Service().init())); },
         [](Outcome& o) {
             o.Add(", state %d", Service().GetContainerServiceStatus(false));
             InspectSettings(o);
         }});
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
    add({"enable", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().EnableContainerService())); }, InspectSettings});
    add({"disable", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().DisableContainerService())); }, InspectSettings});
    add({"user-settings", FurnishBoard, PrepareSettings,
         [](Outcome& o) {
             o.Add("%s", Word(Service().SetContainerServiceUserSettings({8080, 2})));
         },
         InspectSettings});
    add({"queries", FurnishBoard, PrepareSettings, [](Outcome& o) {
             const bool enabled = Service().IsContainerServiceEnabled(true);
             const int state = Service().GetContainerServiceStatus(true);
             o.Add("enabled %s, state %d, port %u, at most %u cores", Word(enabled), state,
                   Service().GetContainerServiceUserSettings().tcpPort,
                   Service().GetMaxAllowedCpuCoreCount());
         }});
    add({"is-container-system", FurnishBoard, PrepareSettings,
         [](Outcome& o) { o.Add("%s", Word(Service().IsContainerSystem())); },
         [](Outcome& o) { o.Add(", enabled %s", Word(Service().IsContainerServiceEnabled(false))); }});
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
    add({"stream", FurnishRequests, PrepareSettings, Stream});
    add({"curl-handler", FurnishRequests, PrepareSettings, Handler});

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
    add({"list", FurnishPlugins, PrepareConfig, [](Outcome& o) {
             const QxNJson::json list = Service().listPlugins();
             o.Add("%zu plugins", list["plugins"].size());
         }});
    add({"deactivate", FurnishPlugins, PrepareConfig,
         [](Outcome& o) {
             static const std::string name = "network";
             static const std::string version = "1.0.0";
             o.Add("code %d", Service().addPluginToConfig(name, version));
         },
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
    return all;
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = MakeOperations();
    return operations;
}

}  // namespace Torture
