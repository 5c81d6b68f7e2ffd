#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "support/ChildProcess.h"
#include "support/Directory.h"
#include "support/Log.h"
#include "support/OutputFile.h"

#include <unistd.h>
#include <cstdlib>
#include <filesystem>

namespace QxNContainer {

namespace fs = std::filesystem;
using namespace QxNContainerPaths;

namespace {

constexpr const char* CniPluginLinks = "/opt/cni/bin";

/// Makes a link and leaves what already has its name as it is.
int Link(const std::string& name, const std::string& target) { return symlink(target.c_str(), name.c_str()); }

void CreateIfMissing(const fs::path& directory) {
    if (!fs::exists(directory)) {
        fs::create_directories(directory);
    }
}

}  // namespace

bool QxCContainer::MountFwFile() {
    if (_settings->getEnabled(false) && !fs::exists(CONTAINER_TOOLS)) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Error,
            "Quolex Container Utils: If you recently activated the container runtime support this is "
            "expected. Please perform an update to install the missing firmware elements.");
        return false;
    }
    if (fs::exists(CONTAINER_TOOLS_MOUNTPOINT)) {
        QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: Firmware File is already mounted");
        return true;
    }
    fs::create_directories(CONTAINER_TOOLS_MOUNTPOINT);
    fs::permissions(CONTAINER_TOOLS_MOUNTPOINT, fs::perms{0775});

    const std::string command =
        "mount -t squashfs -o ro " + CONTAINER_TOOLS + " " + CONTAINER_TOOLS_MOUNTPOINT;
    if (std::system(command.c_str()) != 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Utils: Failed to mount the container firmware file");
        return false;
    }
    return true;
}

int QxCContainer::SymlinkContainerTools() {
    Link("/bin/podman", PODMAN);
    Link("/bin/crun", CRUN);
    Link("/usr/bin/conmon", CONMON);
    Link("/bin/docker-compose", DOCKER_COMPOSE);

    CreateIfMissing(CniPluginLinks);
    QxNSupport::VisitDirectory(CNI_PLUGINS, [](const std::string& plugin) {
        Link(std::string(CniPluginLinks) + "/" + plugin, CNI_PLUGINS + "/" + plugin);
    });

    CreateIfMissing("/var/lib");
    CreateIfMissing("/userstorage1/container_rte/containers");
    CreateIfMissing("/userstorage1/container_rte/tmp");
    Link(CONTAINER_BASE_PATH, "/userstorage1/container_rte/containers");

    CreateIfMissing("/etc/containers");
    Link("/etc/containers/policy.json", POLICY);
    Link("/etc/containers/containers.conf", CONTAINERS_CONFIG);
    Link("/etc/containers/storage.conf", STORAGE_CONFIG);

    CreateIfMissing(CONTAINER_CERTS_DIR);
    // No execute bits: only root, whom they do not bind, looks into this directory.
    fs::permissions(CONTAINER_CERTS_DIR, fs::perms{0600});
    return Link("/etc/containers/certs", CONTAINER_CERTS_DIR);
}

void QxCContainer::ConfigureDockerHost() {
    const std::string address = "unix://" + PODMAN_SOCKET;
    QxNSupport::SetEnvironment("DOCKER_HOST", address);
    QxNSupport::OutputFile("/run/QxContainerRTE.docker_host") << address;
}

}  // namespace QxNContainer
