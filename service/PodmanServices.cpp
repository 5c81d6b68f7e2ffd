#include "QxCContainer.h"
#include "QxCErrorManager.h"
#include "QxLinuxBaseUtils.h"
#include "QxNContainerPaths.h"
#include "service/PodmanProgram.h"
#include "support/ChildProcess.h"
#include "support/Directory.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"
#include "support/UniqueFd.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <new>
#include <thread>

namespace QxNContainer {

namespace fs = std::filesystem;

std::atomic<std::int32_t> QxCContainer::s_UnixPodmanPid{-1};
std::atomic<std::int32_t> QxCContainer::s_TcpPodmanPid{-1};

namespace {

constexpr unsigned int UnixSocketPort = 0;
constexpr std::chrono::seconds SettleTime{2};  // what a service gets to fail at once before it is watched

struct TlsFiles {
    std::string ca;
    std::string certificate;
    std::string key;
};

/// Decides whether the TCP service gets TLS, and tells the log.
bool IsTlsWanted(const fs::path& certificates, const TlsFiles& files) {
    if (fs::exists(files.ca) && fs::exists(files.certificate) && fs::exists(files.key)) {
        QxCRTE_LOG_Impl(RteLogLevel::Info,
                        "Quolex Container Utils: Certificates found, enabling TLS for Podman service.");
        return true;
    }
    if (fs::is_directory(certificates) && !QxNSupport::IsEmptyDirectory(certificates)) {
        QxCRTE_LOG_Impl(
            RteLogLevel::WarningNotify,
            "Quolex Container Utils: Certificates directory exists but not all required files (ca.crt, "
            "server.crt, server.key) are not found. TLS will not be enabled.");
    } else {
        QxCRTE_LOG_Impl(
            RteLogLevel::Info,
            "Quolex Container Utils: No certificates found. TLS is not be enabled for Podman service.");
    }
    return false;
}

std::vector<std::string> ServiceArguments(unsigned int port) {
    std::vector<std::string> arguments{"podman", "system", "service", "--time=0"};
    if (port == UnixSocketPort) {
        arguments.push_back("unix://" + QxNContainerPaths::PODMAN_SOCKET);
        return arguments;
    }
    static const std::string certificates = QxNContainerPaths::CONTAINER_CERTS_DIR;
    const TlsFiles tls{certificates + "/ca.crt", certificates + "/server.crt", certificates + "/server.key"};
    if (IsTlsWanted(certificates, tls)) {
        arguments.insert(arguments.end(),
                         {"--tls-client-ca", tls.ca, "--tls-cert", tls.certificate, "--tls-key", tls.key});
    }
    arguments.push_back("tcp:0.0.0.0:" + std::to_string(port));
    return arguments;
}

void ReportPodmanExit(pid_t pid, int status, const char* label) {
    if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) == 0) {
            QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                              "Quolex Container Utils: %s Podman service (PID: %d) exited normally", label,
                              pid);
        } else {
            QxCRTE_LOG_Impl(RteLogLevel::Error,
                            "Quolex Container Utils: %s Podman service (PID: %d) - Error code %d", label, pid,
                            WEXITSTATUS(status));
        }
    } else if (WIFSIGNALED(status)) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                          "Quolex Container Utils: %s Podman service (PID: %d) terminated by signal %d",
                          label, pid, WTERMSIG(status));
    }
}

/// A Podman service that the monitor thread waits for.
struct WatchedService {
    std::atomic<std::int32_t>* id;  ///< where its process id is published
    pid_t pid;
    const char* label;
    QxNSupport::UniqueFd pidfd;
};

/// Opens a process descriptor for every service.
/// @return false, with the cause in the log, when one cannot be opened
bool OpenProcessDescriptors(std::vector<WatchedService>& services) {
    for (WatchedService& service : services) {
        service.pidfd = QxNSupport::OpenPidfd(service.pid);
        if (!service.pidfd.IsOpen()) {
            QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: pidfd_open failed: %s",
                            strerror(errno));
            return false;
        }
    }
    return true;
}

/// @return the wait status of a child that has ended, which is left for somebody else to collect
int PeekStatus(pid_t pid) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return 0;
    }
    return info.si_code == CLD_EXITED ? (info.si_status & 0xff) << 8 : info.si_status & 0x7f;
}

void ReapAndReport(const WatchedService& service) {
    // Once a process is collected, its id can belong to another one. So the id is withdrawn first; where
    // Stop() has claimed it, it signals and then collects the process.
    std::int32_t ended = service.pid;
    int status = 0;
    if (service.id->compare_exchange_strong(ended, -1)) {
        waitpid(service.pid, &status, WNOHANG);
    } else {
        status = PeekStatus(service.pid);
    }
    ReportPodmanExit(service.pid, status, service.label);
}

/// Blocks until the first service ends, and reports it; of two that end together, the first in the list.
void WaitForFirstExit(const std::vector<WatchedService>& services) {
    std::array<pollfd, 2> polled{};
    for (size_t i = 0; i < services.size(); ++i) {
        polled[i] = {services[i].pidfd.Get(), POLLIN, 0};
    }
    while (poll(polled.data(), services.size(), -1) < 0) {
        if (errno != EINTR) {
            QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: poll on pidfds failed: %s",
                            strerror(errno));
            return;
        }
    }
    for (size_t i = 0; i < services.size(); ++i) {
        if ((polled[i].revents & POLLIN) != 0) {
            ReapAndReport(services[i]);
            return;
        }
    }
}

}  // namespace

pid_t QxCContainer::SpawnPodmanService(const unsigned int& port) {
    if (port == UnixSocketPort) {
        fs::create_directories(fs::path(QxNContainerPaths::PODMAN_SOCKET).parent_path());
    }
    const std::vector<std::string> arguments = ServiceArguments(port);
    SetPodmanEnvironment();
    const QxNSupport::SpawnResult podman = QxNSupport::Spawn(PodmanProgram, arguments);
    if (podman.error != 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: posix_spawn failed to execute: %s",
                        strerror(podman.error));
    }
    return podman.pid;
}

void* QxCContainer::ThreadHandler(void* container) {
    auto& service = *static_cast<QxCContainer*>(container);
    QxLinuxBaseUtils_CpuSetAttach(ContainerCpuSet, 0);
    const unsigned int port = service._settings->getServiceUserSettings(false).tcpPort;

    QxCErrorManager& manager = QxNSupport::ErrorManager();
    QxCErrorListPool* errors = manager.createErrorList(0, 1, 20, 5, 300);
    manager.setMasterErrorList(errors, -1, false);

    try {
        service.StartAllContainers();
        service.RunPodmanServices(port);
    } catch (const std::bad_alloc&) {
        // Above a thread nobody could catch it.
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Utils: Not enough memory for the Podman services");
    }

    manager.sendErrorList(errors, 0);
    manager.clearMasterErrorList(-1);
    manager.deleteErrorList(errors);
    return nullptr;
}

void QxCContainer::RunPodmanServices(unsigned int port) {
    if (port == 80 || port == 111) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: Invalid port number: %u", port);
        return;
    }
    if (!StartPodmanServices(port)) {
        return;
    }
    std::this_thread::sleep_for(SettleTime);  // signals do not shorten it

    const pid_t unixService = s_UnixPodmanPid;
    const pid_t tcpService = s_TcpPodmanPid;
    const bool tcpFailed = port != UnixSocketPort && tcpService < 0;
    if (unixService < 0 || tcpFailed) {
        const std::string failure = std::string("Failed to spawn Podman service: ") +
                                    (unixService < 0 ? "Unix socket service failed. " : "") +
                                    (tcpFailed ? "TCP service failed. " : "");
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: %s", failure.c_str());
        return;
    }

    std::vector<WatchedService> services;
    if (unixService > 0) {
        services.push_back({&s_UnixPodmanPid, unixService, "Unix socket", {}});
    }
    if (tcpService > 0) {
        services.push_back({&s_TcpPodmanPid, tcpService, "TCP", {}});
    }
    if (!OpenProcessDescriptors(services)) {
        // What is open already stays open.
        for (WatchedService& service : services) {
            service.pidfd.Release();
        }
        return;
    }
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: Spawned Podman correctly");
    if (!services.empty()) {
        WaitForFirstExit(services);
    }
}

bool QxCContainer::StartPodmanServices(unsigned int port) {
    if (port == UnixSocketPort) {
        QxCRTE_LOG_Impl(RteLogLevel::Info,
                        "Quolex Container Utils: Starting Podman service on Unix socket %s",
                        QxNContainerPaths::PODMAN_SOCKET.c_str());
    }
    if (!StartPodmanService(UnixSocketPort, s_UnixPodmanPid)) {
        return false;
    }
    return port == UnixSocketPort || StartPodmanService(port, s_TcpPodmanPid);
}

bool QxCContainer::StartPodmanService(unsigned int port, std::atomic<std::int32_t>& id) {
    if (_stopRequested) {
        return false;
    }
    id.exchange(SpawnPodmanService(port));
    if (!_stopRequested) {
        return true;
    }
    // Stop() may have looked before there was anything to signal; whoever claims the id ends the service.
    const pid_t unseen = id.exchange(-1);
    if (unseen > 0) {
        kill(unseen, SIGTERM);
        QxNSupport::ReapWithin(unseen, ReapTimeoutMs);
    }
    return false;
}

}  // namespace QxNContainer
