#include "BlockDeviceMounts.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>

using namespace QxNLinuxPlatform;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

std::vector<int> visibleIds(const std::vector<MountEntry>& table) {
    std::vector<int> ids;
    for (const MountEntry& mount : visibleMounts(table)) {
        ids.push_back(mount.id);
    }
    return ids;
}

MountEntry entry(int id, int parent, const std::string& target, const std::string& source = "/dev/sda1",
                 const std::string& filesystem = "ext4") {
    return {id, parent, source, target, filesystem, "rw"};
}

TEST(VisibleMounts, AreAllThatNothingCovers) {
    EXPECT_THAT(
        visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 21, "/a/b"), entry(23, 20, "/ab")}),
        ElementsAre(20, 21, 22, 23));
}

TEST(VisibleMounts, ShowTheUppermostOfAMountPoint) {
    EXPECT_THAT(
        visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 21, "/a"), entry(23, 22, "/a")}),
        ElementsAre(20, 23));
}

TEST(VisibleMounts, DoNotDependOnTheOrderOfTheTable) {
    EXPECT_THAT(
        visibleIds({entry(23, 22, "/a"), entry(22, 21, "/a"), entry(21, 20, "/a"), entry(20, 1, "/")}),
        ElementsAre(23, 20));
}

TEST(VisibleMounts, LeaveOutWhatLiesBelowACover) {
    EXPECT_THAT(
        visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 21, "/a/b"), entry(23, 21, "/a")}),
        ElementsAre(20, 23))
        << "/a/b is within the mount that is covered";
    EXPECT_THAT(visibleIds({entry(20, 1, "/"), entry(21, 20, "/a/b"), entry(22, 20, "/a")}),
                ElementsAre(20, 22))
        << "/a/b was there before its parent directory was covered";
}

TEST(VisibleMounts, ShowWhatIsMountedOnTheCover) {
    EXPECT_THAT(visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 21, "/a/b"),
                            entry(23, 21, "/a"), entry(24, 23, "/a/b")}),
                ElementsAre(20, 23, 24));
}

TEST(VisibleMounts, LeaveOutACoverOfTheRootThatNoPathEnters) {
    EXPECT_THAT(visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 20, "/"), entry(23, 22, "/b")}),
                ElementsAre(20, 21));
}

TEST(VisibleMounts, ShowTheLastOfSeveralOnTheSamePlaceOfTheSameParent) {
    EXPECT_THAT(visibleIds({entry(20, 1, "/"), entry(21, 20, "/a"), entry(22, 20, "/a")}),
                ElementsAre(20, 22));
}

TEST(VisibleMounts, TakeARootThatIsItsOwnParent) {
    EXPECT_THAT(visibleIds({entry(1, 1, "/"), entry(2, 1, "/a")}), ElementsAre(1, 2));
}

TEST(VisibleMounts, EndOnATableThatRunsInCircles) {
    EXPECT_THAT(visibleIds({entry(2, 3, "/a"), entry(3, 2, "/b")}), IsEmpty());
}

TEST(BlockDeviceMounts, AreThoseWithASourceInDev) {
    const auto mounts =
        blockDeviceMounts({entry(20, 1, "/", "/dev/sda1"), entry(21, 20, "/proc", "proc", "proc"),
                           entry(22, 20, "/a", "/device"), entry(23, 20, "/b", "")});

    ASSERT_EQ(mounts.size(), 1U);
    EXPECT_EQ(mounts[0].target, "/");
}

TEST(BlockDeviceMounts, LeaveOutADeviceThatIsCovered) {
    EXPECT_THAT(
        blockDeviceMounts({entry(21, 1, "/userstorage1"), entry(22, 21, "/userstorage1", "tmpfs", "tmpfs")}),
        IsEmpty());
}

TEST(BlockDeviceMounts, LeaveOutWhatDoesNotFitTheFields) {
    const std::string fits = std::string("/").append(126, 'm');
    const std::string deviceFits = std::string("/dev/").append(378, 'd');

    const auto mounts =
        blockDeviceMounts({entry(21, 1, fits), entry(22, 1, fits + "m"), entry(23, 1, "/a", deviceFits),
                           entry(24, 1, "/b", deviceFits + "d")});

    ASSERT_EQ(mounts.size(), 2U);
    EXPECT_EQ(mounts[0].target, fits);
    EXPECT_EQ(mounts[1].source, deviceFits);
}

TEST(BlockDeviceMounts, LeaveOutADeviceBelowACoverThatDoesNotFit) {
    const std::string tooLong = std::string("/dev/").append(500, 'd');

    EXPECT_THAT(blockDeviceMounts({entry(21, 1, "/a"), entry(22, 21, "/a", tooLong)}), IsEmpty());
}

TEST(MountInfo, HasTheLayoutThatItsReadersExpect) {
    const std::unique_ptr<QxSBlockDeviceMountInfo, Free> info(
        makeMountInfo({entry(1, 1, "/a", "/dev/sda1", "ext4"), entry(2, 1, "/b", "/dev/sdb2", "vfat")}));
    const void* const start = info.get();
    const std::string bytes(static_cast<const char*>(start), 4 + 2 * 520);
    const auto text = [&bytes](std::size_t offset, std::size_t size) { return bytes.substr(offset, size); };

    EXPECT_EQ(text(0, 4), std::string("\x02\0\0\0", 4));
    EXPECT_EQ(text(4, 128), "/a" + std::string(126, '\0'));
    EXPECT_EQ(text(4 + 128, 384), "/dev/sda1" + std::string(375, '\0'));
    EXPECT_EQ(text(4 + 512, 8), std::string("\x02\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(text(4 + 520, 128), "/b" + std::string(126, '\0'));
    EXPECT_EQ(text(4 + 520 + 128, 384), "/dev/sdb2" + std::string(375, '\0'));
    EXPECT_EQ(text(4 + 520 + 512, 8), std::string(8, '\0'));
}

TEST(MountInfo, OfNoMountsIsJustTheCount) {
    const std::unique_ptr<QxSBlockDeviceMountInfo, Free> info(makeMountInfo({}));

    EXPECT_EQ(info->count, 0U);
}

}  // namespace
