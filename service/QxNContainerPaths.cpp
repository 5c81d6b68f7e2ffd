#include "QxNContainerPaths.h"

namespace QxNContainer::QxNContainerPaths {

const std::string CONTAINER_TOOLS = "/mnt/cfdrive/QXx86_32_ContainerFirmware.bin";
// Comes before everything that is built from it: within a file, initialisation follows the order of the text.
const std::string CONTAINER_TOOLS_MOUNTPOINT = "/mnt/containers_tools";

const std::string PODMAN = CONTAINER_TOOLS_MOUNTPOINT + "/bin/podman";
const std::string PODMAN_LIBS = CONTAINER_TOOLS_MOUNTPOINT + "/lib/";
const std::string CRUN = CONTAINER_TOOLS_MOUNTPOINT + "/bin/crun";
const std::string CONMON = CONTAINER_TOOLS_MOUNTPOINT + "/bin/conmon";
const std::string DOCKER_COMPOSE = CONTAINER_TOOLS_MOUNTPOINT + "/bin/docker-compose";
const std::string CNI_PLUGINS = CONTAINER_TOOLS_MOUNTPOINT + "/bin/plugins";
const std::string POLICY = CONTAINER_TOOLS_MOUNTPOINT + "/configs/policy.json";
const std::string CONTAINERS_CONFIG = CONTAINER_TOOLS_MOUNTPOINT + "/configs/containers.conf";
const std::string STORAGE_CONFIG = CONTAINER_TOOLS_MOUNTPOINT + "/configs/storage.conf";

const std::string CONTAINER_BASE_PATH = "/var/lib/containers";
const std::string PODMAN_SOCKET = "/run/podman/podman.sock";
const std::string CONTAINER_CERTS_DIR = "/mnt/cfdrive/containers/certs";
const std::string IMAGES_STORAGE_DIR = "/userstorage1/container_rte/utilities/images";
const std::string SETTINGS_FILE = "/mnt/cfdrive/containers/container_rte_settings.json";
const std::string COMPOSE_FILES_PATH = "/userstorage1/container_rte/utilities/compose-files/";
const std::string PLUGINS_DIR = "/userstorage1/container_rte/plugins";
const std::string PLUGIN_CONFIG_FILE = "/userstorage1/container_rte/plugins/config.json";

}  // namespace QxNContainer::QxNContainerPaths

namespace QxNComposeFileHandler::ComposeTool {

const char* const Exe = "docker-compose";
const char* const Path = "/bin/docker-compose";

}  // namespace QxNComposeFileHandler::ComposeTool
