#include "PlatformTest.h"
#include "QxCScannerBoardHw.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

using namespace PlatformTest;
namespace fs = std::filesystem;

namespace {

struct Mount {
    std::string device;
    std::uint32_t type;
    bool operator==(const Mount&) const = default;
};

/// @return what a reader that takes the first match finds
std::optional<Mount> find(const std::string& mountPoint) {
    const auto errors = newErrorList();
    QxSBlockDeviceMountInfo* const info = QxCScannerBoardHw::getBlockDeviceMountInfo(*errors);
    EXPECT_EQ(errors->getErrorCount(), 0U);
    std::optional<Mount> found;
    for (std::uint32_t i = 0; info != nullptr && i < info->count && !found; ++i) {
        if (info->entries[i].mountPoint == mountPoint) {
            found = Mount{info->entries[i].device, info->entries[i].filesystemType};
        }
    }
    std::free(info);
    return found;
}

void mountTmpfs(const std::string& source, const std::string& target) {
    fs::create_directories(target);
    ASSERT_EQ(::mount(source.c_str(), target.c_str(), "tmpfs", 0, nullptr), 0) << target;
}

/// A block device with an ext4 file system, kept in a file.
class Ext4Disk {
public:
    Ext4Disk() {
        const std::string image = "/run/ext4-image";
        Sandbox::WriteFile(image, "");
        fs::resize_file(image, 4 * 1024 * 1024);
        if (std::system(("mkfs.ext4 -q -F " + image + " 2>/dev/null").c_str()) != 0) {
            throw std::runtime_error("cannot make an ext4 file system");
        }
        const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        const int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
        // Another process may take the free device in between.
        for (int attempt = 0; attempt < 20 && _loop < 0; ++attempt) {
            const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
            _device = "/dev/loop" + std::to_string(number);
            const int loop = ::open(_device.c_str(), O_RDWR | O_CLOEXEC);
            loop_config config{};
            config.fd = static_cast<std::uint32_t>(file);
            config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (loop >= 0 && ::ioctl(loop, LOOP_CONFIGURE, &config) == 0) {
                _loop = loop;
            } else if (loop >= 0) {
                ::close(loop);
            }
        }
        ::close(control);
        ::close(file);
        if (_loop < 0) {
            throw std::runtime_error("cannot have a loop device");
        }
    }
    Ext4Disk(const Ext4Disk&) = delete;
    Ext4Disk& operator=(const Ext4Disk&) = delete;
    ~Ext4Disk() {
        ::umount2("/userstorage1", MNT_DETACH);
        ::close(_loop);
    }

    void mountAt(const char* target) const {
        fs::create_directories(target);
        ASSERT_EQ(::mount(_device.c_str(), target, "ext4", 0, nullptr), 0);
    }
    const std::string& device() const { return _device; }

private:
    std::string _device;
    int _loop = -1;
};

TEST(BoardMounts, ShowAnExt4Device) {
    const Ext4Disk disk;

    disk.mountAt("/userstorage1");

    EXPECT_EQ(find("/userstorage1"), (Mount{disk.device(), QxNFilesystemType::Ext4}));
}

TEST(BoardMounts, ShowNoDeviceThatSomethingElseCovers) {
    const Ext4Disk disk;
    disk.mountAt("/userstorage1");

    mountTmpfs("tmpfs", "/userstorage1");

    EXPECT_EQ(find("/userstorage1"), std::nullopt);
    ::umount("/userstorage1");
    EXPECT_TRUE(find("/userstorage1").has_value()) << "to be seen again";
}

TEST(BoardMounts, ShowTheUppermostDevice) {
    const Ext4Disk disk;
    mountTmpfs("/dev/other1", "/userstorage1");
    ASSERT_EQ(find("/userstorage1"), (Mount{"/dev/other1", QxNFilesystemType::Other}));

    disk.mountAt("/userstorage1");
    EXPECT_EQ(find("/userstorage1"), (Mount{disk.device(), QxNFilesystemType::Ext4}));

    mountTmpfs("/dev/other2", "/userstorage1");
    EXPECT_EQ(find("/userstorage1"), (Mount{"/dev/other2", QxNFilesystemType::Other}));
    ::umount("/userstorage1");
}

TEST(BoardMounts, ShowAMovedMountWhereItIsNow) {
    mountTmpfs("/dev/older", "/run/elsewhere");
    mountTmpfs("/dev/newer", "/run/here");

    ASSERT_EQ(::mount("/run/elsewhere", "/run/here", nullptr, MS_MOVE, nullptr), 0);

    EXPECT_EQ(find("/run/here"), (Mount{"/dev/older", QxNFilesystemType::Other}));
    EXPECT_EQ(find("/run/elsewhere"), std::nullopt);
}

TEST(BoardMounts, ShowNoDeviceBelowACoveredDirectory) {
    mountTmpfs("/dev/disk1", "/run/a/b");

    mountTmpfs("tmpfs", "/run/a");

    EXPECT_EQ(find("/run/a/b"), std::nullopt);
}

TEST(BoardMounts, TakeBlanksInNames) {
    mountTmpfs("/dev/disk 1", "/run/mount point");

    EXPECT_EQ(find("/run/mount point"), (Mount{"/dev/disk 1", QxNFilesystemType::Other}));
}

TEST(BoardMounts, LeaveOutAMountPointThatDoesNotFit) {
    const std::string tooLong = "/run/" + std::string(123, 'm');
    mountTmpfs("/dev/disk1", tooLong);

    EXPECT_EQ(find(tooLong), std::nullopt);
    EXPECT_EQ(find(tooLong.substr(0, 127)), std::nullopt);
}

TEST(BoardMounts, AreReportedWhenTheTableCannotBeRead) {
    const auto errors = newErrorList();
    mountTmpfs("tmpfs", "/proc");

    EXPECT_EQ(QxCScannerBoardHw::getBlockDeviceMountInfo(*errors), nullptr);

    EXPECT_EQ(errors->getErrorCount(), 1U);
    ::umount("/proc");
}

TEST(BoardMounts, KeepNoDescriptorOpen) {
    find("/");
    const auto before = Sandbox::OpenDescriptors();

    for (int i = 0; i < 20; ++i) {
        find("/");
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

}  // namespace
