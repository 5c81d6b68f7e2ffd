#include "Board.h"
#include "QxCContainer.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace fs = std::filesystem;
using QxNContainer::QxCContainer;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* MissingLine =
    "[ERROR] Quolex Container Utils: If you recently activated the container runtime support this is "
    "expected. Please "
    "perform an update to install the missing firmware elements.";

QxCContainer& Service() {
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

int PermissionsOf(const std::string& path) {
    return static_cast<int>(fs::status(path).permissions() & fs::perms::mask);
}

// --- Mounting ---

TEST(FirmwareImage, IsMountedReadOnlyThroughTheShell) {
    Board::WriteSettings(R"({"enabled": true})");
    Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
    Sandbox::InstallProgram("/usr/bin/mount");
    umask(077);

    EXPECT_TRUE(Service().MountFwFile());

    ASSERT_EQ(Sandbox::Calls().size(), 1U);
    EXPECT_EQ(Sandbox::Calls()[0].CommandLine(),
              "mount -t squashfs -o ro /mnt/cfdrive/QXx86_32_ContainerFirmware.bin /mnt/containers_tools");
    EXPECT_EQ(PermissionsOf(Board::CONTAINER_TOOLS_MOUNTPOINT), 0775) << "whatever the umask";
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(FirmwareImage, IsTakenAsMountedWhenTheMountPointExists) {
    Board::WriteSettings(R"({"enabled": true})");
    Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
    fs::create_directories(Board::CONTAINER_TOOLS_MOUNTPOINT);
    Sandbox::InstallProgram("/usr/bin/mount");

    EXPECT_TRUE(Service().MountFwFile());

    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[INFO] Quolex Container Utils: Firmware File is already mounted"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

TEST(FirmwareImage, MissingWithTheServiceEnabledIsAnErrorAndCreatesNothing) {
    Board::WriteSettings(R"({"enabled": true})");
    Sandbox::InstallProgram("/usr/bin/mount");

    EXPECT_FALSE(Service().MountFwFile());

    EXPECT_THAT(Recording::Logs(), ElementsAre(MissingLine));
    EXPECT_FALSE(fs::exists(Board::CONTAINER_TOOLS_MOUNTPOINT));
    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
}

TEST(FirmwareImage, MissingIsLookedForBeforeTheMountPoint) {
    Board::WriteSettings(R"({"enabled": true})");
    fs::create_directories(Board::CONTAINER_TOOLS_MOUNTPOINT);

    EXPECT_FALSE(Service().MountFwFile());
    EXPECT_THAT(Recording::Logs(), ElementsAre(MissingLine));
}

TEST(FirmwareImage, IsNotLookedForWhenTheServiceIsDisabled) {
    Sandbox::InstallProgram("/usr/bin/mount");

    EXPECT_TRUE(Service().MountFwFile());

    EXPECT_EQ(Sandbox::Calls().size(), 1U) << "the mount is tried all the same";
}

TEST(FirmwareImage, GetsAMountPointWithAllItsParents) {
    Sandbox::InstallProgram("/usr/bin/mount");
    QxCContainer& service = Service();
    fs::remove_all("/mnt");

    EXPECT_TRUE(service.MountFwFile());
    EXPECT_TRUE(fs::is_directory(Board::CONTAINER_TOOLS_MOUNTPOINT));
}

TEST(FirmwareImage, EnabledFlagIsTakenFromMemory) {
    QxCContainer& service = Service();
    Board::WriteSettings(R"({"enabled": true})");
    Sandbox::InstallProgram("/usr/bin/mount");

    EXPECT_TRUE(service.MountFwFile());
}

TEST(FirmwareImage, AFailedMountIsAnErrorAndTheLeftMountPointCountsAsMountedLater) {
    Board::WriteSettings(R"({"enabled": true})");
    Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
    Sandbox::InstallProgram("/usr/bin/mount", "exit 32");
    QxCContainer& service = Service();

    EXPECT_FALSE(service.MountFwFile());
    EXPECT_TRUE(service.MountFwFile());

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Failed to mount the container firmware file",
                            "[INFO] Quolex Container Utils: Firmware File is already mounted"));
    EXPECT_EQ(Sandbox::Calls().size(), 1U);
}

TEST(FirmwareImage, AMountPointThatCannotBeMadeReachesTheCaller) {
    QxCContainer& service = Service();
    fs::create_directories("/mnt");
    ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_RDONLY, nullptr), 0);

    EXPECT_THROW(service.MountFwFile(), fs::filesystem_error);
}

// --- Links ---

TEST(ToolLinks, PointIntoTheImageAndTheUserStorage) {
    fs::create_directories(Board::CNI_PLUGINS + "/subdirectory");
    Sandbox::WriteFile(Board::CNI_PLUGINS + "/bridge", "");
    fs::remove_all("/opt");

    EXPECT_EQ(Service().SymlinkContainerTools(), 0);

    const std::pair<const char*, const char*> links[] = {
        {"/bin/podman", "/mnt/containers_tools/bin/podman"},
        {"/bin/crun", "/mnt/containers_tools/bin/crun"},
        {"/usr/bin/conmon", "/mnt/containers_tools/bin/conmon"},
        {"/bin/docker-compose", "/mnt/containers_tools/bin/docker-compose"},
        {"/opt/cni/bin/bridge", "/mnt/containers_tools/bin/plugins/bridge"},
        {"/opt/cni/bin/subdirectory", "/mnt/containers_tools/bin/plugins/subdirectory"},
        {"/var/lib/containers", "/userstorage1/container_rte/containers"},
        {"/etc/containers/policy.json", "/mnt/containers_tools/configs/policy.json"},
        {"/etc/containers/containers.conf", "/mnt/containers_tools/configs/containers.conf"},
        {"/etc/containers/storage.conf", "/mnt/containers_tools/configs/storage.conf"},
        {"/etc/containers/certs", "/mnt/cfdrive/containers/certs"},
    };
    for (const auto& [name, target] : links) {
        EXPECT_TRUE(fs::is_symlink(name)) << name;
        EXPECT_EQ(fs::read_symlink(name), target);
    }
    EXPECT_THAT(NamesIn("/opt/cni/bin"), UnorderedElementsAre("bridge", "subdirectory"));
    EXPECT_THAT(NamesIn("/etc/containers"),
                UnorderedElementsAre("policy.json", "containers.conf", "storage.conf", "certs"));
    EXPECT_TRUE(fs::is_directory("/userstorage1/container_rte/containers"));
    EXPECT_TRUE(fs::is_directory("/userstorage1/container_rte/tmp"));
    EXPECT_TRUE(fs::is_directory("/mnt/cfdrive/containers/certs"));
    EXPECT_EQ(PermissionsOf("/mnt/cfdrive/containers/certs"), 0600);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(ToolLinks, GetTheDirectoriesThatTheyNeed) {
    fs::create_directories(Board::CNI_PLUGINS);
    QxCContainer& service = Service();
    ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, nullptr), 0);
    fs::remove_all("/mnt/cfdrive");

    EXPECT_EQ(service.SymlinkContainerTools(), 0);

    EXPECT_TRUE(fs::is_symlink("/var/lib/containers"));
    EXPECT_TRUE(fs::is_directory("/mnt/cfdrive/containers/certs"));
}

TEST(ToolLinks, LeaveWhatExistsAsItIs) {
    fs::create_directories(Board::CNI_PLUGINS);
    Sandbox::WriteFile("/bin/podman", "own");
    fs::create_symlink("/elsewhere", "/bin/crun");
    fs::create_directories("/etc/containers/certs");

    EXPECT_EQ(Service().SymlinkContainerTools(), -1) << "the result of the last link";

    EXPECT_EQ(Sandbox::ReadFile("/bin/podman"), "own");
    EXPECT_EQ(fs::read_symlink("/bin/crun"), "/elsewhere");
    EXPECT_TRUE(fs::is_symlink("/usr/bin/conmon")) << "later links are made all the same";
}

TEST(ToolLinks, ReplaceThePermissionsOfTheCertificates) {
    fs::create_directories(Board::CNI_PLUGINS);
    fs::create_directories(Board::CONTAINER_CERTS_DIR);
    fs::permissions(Board::CONTAINER_CERTS_DIR, fs::perms{0777});

    Service().SymlinkContainerTools();

    EXPECT_EQ(PermissionsOf(Board::CONTAINER_CERTS_DIR), 0600);
}

TEST(ToolLinks, AnEmptyPluginDirectoryLeavesTheLinkDirectoryEmpty) {
    fs::create_directories(Board::CNI_PLUGINS);

    Service().SymlinkContainerTools();

    EXPECT_THAT(NamesIn("/opt/cni/bin"), IsEmpty());
}

TEST(ToolLinks, AMissingPluginDirectoryReachesTheCaller) {
    EXPECT_THROW(Service().SymlinkContainerTools(), fs::filesystem_error);

    EXPECT_TRUE(fs::is_symlink("/bin/docker-compose")) << "steps before stay done";
    EXPECT_TRUE(fs::is_directory("/opt/cni/bin"));
    EXPECT_FALSE(fs::exists("/etc/containers"));
}

TEST(ToolLinks, ADirectoryThatCannotBeMadeReachesTheCaller) {
    fs::create_directories(Board::CNI_PLUGINS);
    QxCContainer& service = Service();
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", MS_RDONLY, nullptr), 0);

    EXPECT_THROW(service.SymlinkContainerTools(), fs::filesystem_error);

    EXPECT_TRUE(fs::is_symlink("/var/lib/containers")) << "the storage comes before the configuration";
    EXPECT_FALSE(fs::exists(Board::CONTAINER_CERTS_DIR));
}

// --- DOCKER_HOST ---

TEST(DockerHost, IsPublishedInEnvironmentAndFile) {
    setenv("DOCKER_HOST", "old", 1);
    Sandbox::WriteFile("/run/QxContainerRTE.docker_host",
                       "something longer than the address that it will hold");

    Service().ConfigureDockerHost();

    EXPECT_STREQ(getenv("DOCKER_HOST"), "unix:///run/podman/podman.sock");
    EXPECT_EQ(Sandbox::ReadFile("/run/QxContainerRTE.docker_host"), "unix:///run/podman/podman.sock");
}

TEST(DockerHost, AFileThatCannotBeWrittenIsNotReported) {
    fs::create_directories("/run/QxContainerRTE.docker_host");

    Service().ConfigureDockerHost();

    EXPECT_STREQ(getenv("DOCKER_HOST"), "unix:///run/podman/podman.sock");
    EXPECT_THAT(Recording::Events(), IsEmpty());
}

}  // namespace
