#pragma once

#include "QxCCTESettings.h"
#include "QxCComposeFileHandler.h"
#include "QxCCurlHandler.h"
#include "QxCErrorList.h"
#include "QxCRPHandler.h"
#include "QxCWebSocket.h"
#include "QxExport.h"
#include "QxNJson.h"
#include "QxNRtosAbstraction.h"

#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// What Podman answered.
struct PodmanResponse {
    std::string body;  ///< as received
    int httpCode = 0;  ///< HTTP status code; 0 when no response arrived
};

namespace QxNContainer {

/// The container service of the board: the one object through which a host drives the library.
///
/// A host calls GetInstance(), init() and, only if that returned true, Start(); at shutdown Stop(), before it
/// unloads the library. These belong to one control thread, one at a time, as do all other operations unless
/// they say otherwise; the service does not serialise them.
///
/// Errors: operations report failure by their result and one log line. Errors of the file-system steps
/// (creating and testing directories, changing permissions) are std::filesystem::filesystem_error and reach
/// the caller.
class QX_EXPORT QxCContainer {
public:
    /// A log stream to one WebSocket. Held by the session table and by the stream that uses it.
    struct QxSLogStreamSession {
        std::atomic<bool> abortFlag{false};  ///< set when the WebSocket closed; ends the stream
        std::vector<unsigned char>
            pending;       ///< incomplete tail of the multiplexed stream; used by the stream only
        bool tty = false;  ///< raw terminal output without frames
    };

    /// @return the service, made on first use and destroyed at process exit. The first call must come from
    ///         one thread. It reads settings and the plugins' deactivation list, and asks the board for its
    ///         cores.
    static QxCContainer& GetInstance();

    QxCContainer(const QxCContainer&) = delete;
    QxCContainer& operator=(const QxCContainer&) = delete;

    // --- Life ---

    /// Prepares the board for containers: mounts the firmware image, links the tools, loads the plugins and
    /// assigns the CPU cores. Blocks until the plugins' init commands have ended.
    /// @return false when the board is no container system, or the image or the cores cannot be had; steps
    ///         already done stay done
    bool init();

    /// Starts the thread that starts the containers and the Podman services and watches the services.
    /// @return false when there is no thread to be had; the state is then ContainerServiceState::Failed
    bool Start();

    /// Tells the board that no cores belong to containers any more, ends the Podman services, stops all
    /// containers, waits for the monitor thread and puts the user storage disk back into write-back mode. Without
    /// a Start() before it there is nothing to end or to wait for. Blocks until the containers have stopped.
    /// @return true
    bool Stop();

    /// @return whether the service is enabled and the board has usable user storage. Without the latter the
    ///         service is switched off in the settings until somebody enables it again.
    bool IsContainerSystem();

    /// @return whether the settings file was written
    bool EnableContainerService();
    /// @return whether the settings file was written
    bool DisableContainerService();

    // --- Settings ---

    /// May be called from any thread unless `reread` is true.
    /// @param reread  read the settings file again first
    bool IsContainerServiceEnabled(bool reread) const;
    /// May be called from any thread unless `reread` is true.
    /// @param reread  read the settings file again first
    /// @return one of ContainerServiceState
    int GetContainerServiceStatus(bool reread) const;
    /// @return the values in memory; the file is not read again
    QxCCTESettings::QxSUserSettings GetContainerServiceUserSettings() const;
    /// Takes effect at the next init() and Start(); not to be called while Start() has just been, since the
    /// monitor thread reads the values at its beginning.
    /// @return whether the settings file was written
    bool SetContainerServiceUserSettings(const QxCCTESettings::QxSUserSettings& settings);
    /// @return the most cores that containers may get, as counted last. May be called from any thread except
    ///         while the cores are counted anew.
    unsigned int GetMaxAllowedCpuCoreCount() const;

    // --- Steps of init() and Start() ---

    /// Mounts the firmware image read-only; an existing mount point counts as mounted.
    /// @return whether it is mounted
    bool MountFwFile();
    /// Links tools, CNI plugins and configuration files into the root file system; what exists stays as it
    /// is.
    /// @return the result of the last symlink(2)
    int SymlinkContainerTools();
    /// Publishes the address of the Podman socket: DOCKER_HOST and "/run/QxContainerRTE.docker_host".
    void ConfigureDockerHost();
    /// Gives the configured number of cores to the CPU set "libpod_parent": cores that nobody uses first,
    /// then those of Linux from 1 upwards.
    /// @return false when more cores are configured than allowed
    bool AssignCpuCores();
    /// Starts `podman system service`; does not wait for it.
    /// @param port  0: on the Unix socket; else on that TCP port, with TLS when the certificates are there
    /// @return process id, owned by the caller; -1 when it could not be started
    pid_t SpawnPodmanService(const unsigned int& port);
    /// The monitor thread: starts containers and services and reports the first service that ends.
    /// @param container  the QxCContainer
    /// @return null
    static void* ThreadHandler(void* container);

    // --- All containers ---

    /// Starts every container with the restart policy "always"; blocks until Podman has ended. Reports by log
    /// only.
    void StartAllContainers();
    /// Stops every running container, killing it after 10 seconds; blocks until Podman has ended. Reports by
    /// log only.
    void StopAllContainers();
    /// Tells the user whether a system update or a reboot is needed to enable the service; without a firmware
    /// image also signals the board's inventory manager.
    /// @return false when that signal could not be sent
    bool TriggerInventoryTreeScan();

    // --- User storage ---

    /// Looks at the mounts of this moment. May be called from any thread.
    /// @param reason  receives why not, when the result is false; may be null
    /// @return whether an ext4 file system is mounted at "/userstorage1"
    bool HasValidUserStorage(std::string* reason) const;

    // --- Compose projects; see QxCComposeFileHandler ---

    int CreateCompose(const char* name, QxNJson::json& result);
    int StartCompose(const char* name, QxNJson::json& result);
    int StopCompose(const char* name, QxNJson::json& result);
    int RemoveCompose(const char* name, QxNJson::json& result);

    // --- Plugins; see CRP::QxCRPHandler ---

    QxNJson::json listPlugins();
    int addPluginToConfig(const std::string& name, const std::string& version);
    int removePluginFromConfig(const std::string& name, const std::string& version);
    int removePluginFromConfigByFileName(const std::string& fileName);
    void scanContainerPluginsDir();

    // --- Podman requests; may be called from any thread ---

    /// Directs a handler to the Podman socket.
    /// @return the base of every URL
    std::string ConfigureCurlForPodman(QxCCurlHandler& curl);
    /// Performs one request; blocks until it is answered, without a time limit.
    /// @param endpoint        path behind the API version, with its leading slash; neither checked nor
    ///                        escaped
    /// @param method          HTTP method
    /// @param headers         whole header lines
    /// @param uploadFilePath  file sent as the request body; empty for none
    /// @param writeThrough    keep the user storage disk in write-through mode meanwhile
    /// @return what came back; code 0 when Podman was not reached
    PodmanResponse ExecutePodmanRequest(const std::string& endpoint, QxCCurlHandler::MethodType method,
                                        const std::vector<std::string>& headers,
                                        const std::string& uploadFilePath, bool writeThrough);
    /// @return whether Podman says that the container was created with a terminal; false when it cannot be
    ///         asked
    bool IsContainerTty(const std::string& containerId);

    // --- Container logs to WebSocket clients; may be called from any thread ---

    /// Registers a session for a WebSocket, replacing one that is there. Asks Podman about the container's
    /// terminal.
    /// @param ws           key of the session, not owned
    /// @param containerId  name or id of the container
    std::shared_ptr<QxSLogStreamSession> RegisterLogStreamSession(QxNSmartWebApi::QxCWebSocket* ws,
                                                                  const std::string& containerId);
    /// Forgets the session of a WebSocket; a running stream keeps it alive.
    void UnregisterLogStreamSession(QxNSmartWebApi::QxCWebSocket* ws);
    /// Close callback for the WebSocket layer: ends the stream of that WebSocket soon.
    /// @param data,length  ignored
    /// @param ws           the WebSocket that closed; null does nothing
    static void LogStreamCloseHandler(const void* data, unsigned int length,
                                      QxNSmartWebApi::QxCWebSocket* ws);
    /// Runs a streamed request and forwards what arrives; blocks until the stream ends or the session is
    /// aborted.
    /// @param endpoint,method,headers  as for ExecutePodmanRequest
    /// @param errors   receives the errors of the WebSocket
    /// @param session  of RegisterLogStreamSession
    /// @param ws       receives the log
    /// @return empty body and the HTTP code
    PodmanResponse StreamPodmanRequest(const std::string& endpoint, QxCCurlHandler::MethodType method,
                                       const std::vector<std::string>& headers, QxCErrorListPool& errors,
                                       std::shared_ptr<QxSLogStreamSession> session,
                                       QxNSmartWebApi::QxCWebSocket* ws);
    /// Forwards every complete frame of Podman's multiplexed stream; an incomplete tail waits in the session.
    /// @return `length` to go on, 0 to end the transfer
    size_t DemuxAndForwardLogChunk(QxCErrorListPool& errors, QxSLogStreamSession& session,
                                   QxNSmartWebApi::QxCWebSocket* ws, const char* data, size_t length);
    /// Forwards a piece of raw terminal output; result as for DemuxAndForwardLogChunk.
    size_t ForwardRawLogChunk(QxCErrorListPool& errors, QxSLogStreamSession& session,
                              QxNSmartWebApi::QxCWebSocket* ws, const char* data, size_t length);

private:
    QxCContainer();
    ~QxCContainer();

    void RunPodmanServices(unsigned int port);
    bool StartPodmanServices(unsigned int port);
    bool StartPodmanService(unsigned int port, std::atomic<std::int32_t>& id);

    // Process ids of the Podman services, -1 = none. The monitor thread sets them; whoever exchanges one with
    // -1 may signal the process.
    static std::atomic<std::int32_t> s_UnixPodmanPid;
    static std::atomic<std::int32_t> s_TcpPodmanPid;

    QxNRtosAbstraction::QxTThreadHandle _monitorThread = 0;
    QxCCTESettings* _settings;
    QxCComposeFileHandler _composeHandler;
    CRP::QxCRPHandler _pluginHandler;
    QxNRtosAbstraction::QxCMutex _sessionMutex;
    std::unordered_map<QxNSmartWebApi::QxCWebSocket*, std::shared_ptr<QxSLogStreamSession>>
        _logStreamSessions;
    // Tells a monitor thread that is still starting that Stop() has already looked for services to end.
    std::atomic<bool> _stopRequested{false};
};

}  // namespace QxNContainer
