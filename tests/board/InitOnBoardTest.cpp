#include "BoardTest.h"

#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace OnBoard;
using QxNContainer::QxCContainer;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

TEST(InitOnBoard, MountsTheImageAndLinksToolsThatRun) {
    WriteSettings(R"({"enabled": true})");

    ASSERT_TRUE(QxCContainer::GetInstance().init());

    EXPECT_THAT(Output("findmnt -n -o FSTYPE,OPTIONS /mnt/containers_tools"), HasSubstr("squashfs"));
    EXPECT_THAT(Output("findmnt -n -o OPTIONS /mnt/containers_tools"), HasSubstr("ro"));
    for (const char* command :
         {"podman --version", "crun --version", "conmon --version", "docker-compose version"}) {
        EXPECT_EQ(Shell("LD_LIBRARY_PATH=/mnt/containers_tools/lib " + std::string(command)).status, 0)
            << command;
    }
    EXPECT_EQ(fs::read_symlink("/var/lib/containers"), "/userstorage1/container_rte/containers");
    EXPECT_FALSE(fs::is_empty("/opt/cni/bin"));
    EXPECT_EQ(ReadFile("/run/QxContainerRTE.docker_host"), "unix:///run/podman/podman.sock");
    EXPECT_EQ(StateInFile(), ContainerServiceState::Initialized);
}

TEST(InitOnBoard, ASecondHostInTheSameBootFindsTheImageMounted) {
    WriteSettings(R"({"enabled": true})");
    {
        Daemon first({});
        ASSERT_TRUE(PodmanAnswers());
        ASSERT_EQ(first.Stop(), 0);
    }

    ASSERT_TRUE(QxCContainer::GetInstance().init());

    EXPECT_THAT(LogLines(), Contains("[INFO] Quolex Container Utils: Firmware File is already mounted"));
    EXPECT_EQ(Output("grep -c containers_tools /proc/mounts"), "1");
}

TEST(InitOnBoard, OfADisabledServiceChangesNothing) {
    WriteSettings(R"({"enabled": false})");

    EXPECT_FALSE(QxCContainer::GetInstance().init());

    EXPECT_FALSE(fs::exists(CONTAINER_TOOLS_MOUNTPOINT));
    EXPECT_FALSE(fs::exists("/bin/podman"));
    EXPECT_EQ(LogLines().back(), "[INFO] Quolex Container Utils: Container runtime initializing...");
}

TEST(InitOnBoard, WithoutTheImageAsksForAnUpdate) {
    WriteSettings(R"({"enabled": true})");
    fs::remove(CONTAINER_TOOLS);

    EXPECT_FALSE(QxCContainer::GetInstance().init());

    EXPECT_THAT(Messages(),
                Contains("3 Quolex Container Utils: If you recently activated the container runtime support "
                         "this is expected. Please perform an update to install the missing firmware "
                         "elements."));
    EXPECT_FALSE(fs::exists(CONTAINER_TOOLS_MOUNTPOINT));
}

TEST(InitOnBoard, ATruncatedImageIsReportedAndItsMountPointCountsAsMountedLater) {
    WriteSettings(R"({"enabled": true})");
    fs::resize_file(CONTAINER_TOOLS, 50000);
    QxCContainer& service = QxCContainer::GetInstance();

    EXPECT_FALSE(service.init());
    EXPECT_THAT(Messages(),
                Contains("3 Quolex Container Utils: Failed to mount the container firmware file"));

    EXPECT_THROW(service.init(), fs::filesystem_error) << "there are no CNI plugins to link";
    EXPECT_THAT(LogLines(), Contains("[INFO] Quolex Container Utils: Firmware File is already mounted"));
    EXPECT_EQ(StateInFile(), ContainerServiceState::NotInitialized);
}

}  // namespace
