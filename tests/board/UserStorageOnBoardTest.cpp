#include "BoardTest.h"
#include "QxCWriteThroughCacheGuard.h"

#include <sys/mount.h>

using namespace OnBoard;
using QxNContainer::QxCContainer;
using QxNContainer::QxCWriteThroughCacheGuard;
using testing::Contains;

namespace {

constexpr const char* WriteCache = "/sys/block/sda/queue/write_cache";

bool EnabledInFile() { return ReadFile(SETTINGS_FILE).find("\"enabled\": true") != std::string::npos; }

TEST(UserStorageOnBoard, IsUsable) {
    std::string reason;
    EXPECT_TRUE(QxCContainer::GetInstance().HasValidUserStorage(&reason)) << reason;
}

TEST(UserStorageOnBoard, NotMountedSwitchesTheServiceOff) {
    WriteSettings(R"({"enabled": true})");
    ASSERT_EQ(umount("/userstorage1"), 0);
    QxCContainer& service = QxCContainer::GetInstance();
    std::string reason;

    EXPECT_FALSE(service.init());

    EXPECT_FALSE(service.HasValidUserStorage(&reason));
    EXPECT_EQ(reason, "Container service requires a mounted userstorage1 device");
    EXPECT_FALSE(EnabledInFile());
}

TEST(UserStorageOnBoard, OfAnotherFileSystemSwitchesTheServiceOff) {
    WriteSettings(R"({"enabled": true})");
    ASSERT_EQ(umount("/userstorage1"), 0);
    Output(
        "dd if=/dev/zero of=/mnt/cfdrive/disk bs=1M count=4 2>/dev/null; mke2fs -q -t ext2 "
        "/mnt/cfdrive/disk; "
        "mount -t ext2 -o loop /mnt/cfdrive/disk /userstorage1 || "
        "mount -t squashfs -o loop " +
        CONTAINER_TOOLS + " /userstorage1");
    QxCContainer& service = QxCContainer::GetInstance();
    std::string reason;

    EXPECT_FALSE(service.init());

    EXPECT_FALSE(service.HasValidUserStorage(&reason));
    EXPECT_EQ(reason, "Container service requires EXT4 filesystem type on user storage device");
    EXPECT_FALSE(EnabledInFile());
}

TEST(UserStorageOnBoard, HiddenByAnotherMountIsNotUsable) {
    ASSERT_EQ(mount("tmpfs", "/userstorage1", "tmpfs", 0, nullptr), 0);

    EXPECT_FALSE(QxCContainer::GetInstance().HasValidUserStorage(nullptr));
}

TEST(WriteCacheOnBoard, IsReallySwitchedForAGuardsLifetime) {
    ASSERT_EQ(Output("cat " + std::string(WriteCache)), "write back");
    {
        const auto guard = QxCWriteThroughCacheGuard::Create(true);
        EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write through");
    }
    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
}

TEST(WriteCacheOnBoard, StaysWhileARealtimeApplicationIsLoaded) {
    WriteFile("/run/quolex/board-status", "[Status]\nRealtimeApplicationLoaded=1\n");

    const auto guard = QxCWriteThroughCacheGuard::Create(true);

    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
}

TEST(WriteCacheOnBoard, IsRestoredByStop) {
    Output("echo 'write through' > " + std::string(WriteCache));
    ASSERT_EQ(Output("cat " + std::string(WriteCache)), "write through");

    QxCContainer::GetInstance().Stop();

    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
}

}  // namespace
