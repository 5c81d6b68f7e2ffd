#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "service/PodmanProgram.h"
#include "support/ChildProcess.h"
#include "support/Log.h"

#include <sys/wait.h>
#include <cstring>
#include <filesystem>

namespace QxNContainer {

namespace {

/// What differs between starting and stopping all containers.
struct BulkOperation {
    const char* verb;
    const char* announcement;
    const char* success;
    std::vector<std::string> arguments;
};

void RunPodman(const BulkOperation& operation) {
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: %s", operation.announcement);
    SetPodmanEnvironment();
    const QxNSupport::SpawnResult podman = QxNSupport::Spawn(PodmanProgram, operation.arguments);
    if (podman.error != 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: Failed to %s all containers: %s",
                        operation.verb, strerror(podman.error));
        return;
    }
    QxNSupport::WaitStatus wait{0};
    waitpid(podman.pid, &wait.status, 0);
    const int status = wait.WasKilled() ? -1 : wait.ExitCode();
    if (status == 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: %s", operation.success);
    } else {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: podman %s --all exited with status %d.",
                        operation.verb, status);
    }
}

}  // namespace

void QxCContainer::StartAllContainers() {
    RunPodman({"start",
               "Starting all containers with --restart=always policy...",
               "All containers with restart-policy=always started successfully.",
               {"podman", "start", "--all", "--filter", "restart-policy=always"}});
}

void QxCContainer::StopAllContainers() {
    RunPodman({"stop",
               "Stopping all running containers...",
               "All containers stopped successfully.",
               {"podman", "stop", "--all", "--time", "10"}});
}

bool QxCContainer::TriggerInventoryTreeScan() {
    constexpr int InventoryChanged = 28;
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::status(QxNContainerPaths::CONTAINER_TOOLS, error))) {
        QxCRTE_LOG_Impl(
            RteLogLevel::WarningNotify,
            "Quolex Container Service: a system reboot is required to enable the containers service.");
        return true;
    }
    const unsigned int inventoryManager = QxNRtosAbstraction::getProcessID("QxInventoryManager");
    if (!QxNRtosAbstraction::signalProcess(inventoryManager, InventoryChanged, 0)) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning,
                        "Quolex Container Service: Sending inventory manager notification failed");
        return false;
    }
    QxCRTE_LOG_Impl(
        RteLogLevel::WarningNotify,
        "Quolex Container Service: a system update is required to enable the containers service.");
    return true;
}

}  // namespace QxNContainer
