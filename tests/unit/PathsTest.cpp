#include "QxNContainerPaths.h"

#include <gtest/gtest.h>

#include <type_traits>

using namespace QxNContainer::QxNContainerPaths;

namespace {

TEST(Paths, AreThoseOfTheBoard) {
    EXPECT_EQ(CONTAINER_TOOLS, "/mnt/cfdrive/QXx86_32_ContainerFirmware.bin");
    EXPECT_EQ(CONTAINER_TOOLS_MOUNTPOINT, "/mnt/containers_tools");
    EXPECT_EQ(PODMAN, "/mnt/containers_tools/bin/podman");
    EXPECT_EQ(PODMAN_LIBS, "/mnt/containers_tools/lib/");
    EXPECT_EQ(CRUN, "/mnt/containers_tools/bin/crun");
    EXPECT_EQ(CONMON, "/mnt/containers_tools/bin/conmon");
    EXPECT_EQ(DOCKER_COMPOSE, "/mnt/containers_tools/bin/docker-compose");
    EXPECT_EQ(CNI_PLUGINS, "/mnt/containers_tools/bin/plugins");
    EXPECT_EQ(POLICY, "/mnt/containers_tools/configs/policy.json");
    EXPECT_EQ(CONTAINERS_CONFIG, "/mnt/containers_tools/configs/containers.conf");
    EXPECT_EQ(STORAGE_CONFIG, "/mnt/containers_tools/configs/storage.conf");
    EXPECT_EQ(CONTAINER_BASE_PATH, "/var/lib/containers");
    EXPECT_EQ(PODMAN_SOCKET, "/run/podman/podman.sock");
    EXPECT_EQ(CONTAINER_CERTS_DIR, "/mnt/cfdrive/containers/certs");
    EXPECT_EQ(IMAGES_STORAGE_DIR, "/userstorage1/container_rte/utilities/images");
    EXPECT_EQ(SETTINGS_FILE, "/mnt/cfdrive/containers/container_rte_settings.json");
    EXPECT_EQ(COMPOSE_FILES_PATH, "/userstorage1/container_rte/utilities/compose-files/");
    EXPECT_EQ(PLUGINS_DIR, "/userstorage1/container_rte/plugins");
    EXPECT_EQ(PLUGIN_CONFIG_FILE, "/userstorage1/container_rte/plugins/config.json");
    EXPECT_STREQ(QxNComposeFileHandler::ComposeTool::Exe, "docker-compose");
    EXPECT_STREQ(QxNComposeFileHandler::ComposeTool::Path, "/bin/docker-compose");
}

TEST(Paths, AreReadOnly) {
    EXPECT_TRUE(std::is_const_v<decltype(CONTAINER_TOOLS)>);
    EXPECT_TRUE(std::is_const_v<decltype(PODMAN_LIBS)>);
    EXPECT_TRUE(std::is_const_v<decltype(SETTINGS_FILE)>);
    EXPECT_TRUE((std::is_same_v<decltype(QxNComposeFileHandler::ComposeTool::Path), const char* const>));
}

}  // namespace
