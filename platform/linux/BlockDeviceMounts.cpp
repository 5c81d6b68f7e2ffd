#include "BlockDeviceMounts.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

namespace QxNLinuxPlatform {

namespace {

bool isBlockDeviceMount(const MountEntry& mount) {
    return mount.source.starts_with("/dev/") && mount.source.size() < sizeof(QxSBlockDeviceMount::device) &&
           mount.target.size() < sizeof(QxSBlockDeviceMount::mountPoint);
}

}  // namespace

std::vector<MountEntry> blockDeviceMounts(const std::vector<MountEntry>& table) {
    const std::vector<MountEntry> visible = visibleMounts(table);
    std::vector<MountEntry> mounts;
    std::copy_if(visible.begin(), visible.end(), std::back_inserter(mounts), isBlockDeviceMount);
    return mounts;
}

QxSBlockDeviceMountInfo* makeMountInfo(const std::vector<MountEntry>& mounts) {
    const std::size_t size = sizeof(QxSBlockDeviceMountInfo) + mounts.size() * sizeof(QxSBlockDeviceMount);
    void* const memory = std::calloc(1, size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    auto* const info = static_cast<QxSBlockDeviceMountInfo*>(memory);
    info->count = static_cast<std::uint32_t>(mounts.size());
    for (std::size_t index = 0; index < mounts.size(); ++index) {
        const MountEntry& mount = mounts[index];
        QxSBlockDeviceMount& entry = info->entries[index];
        std::memcpy(entry.mountPoint, mount.target.data(), mount.target.size());
        std::memcpy(entry.device, mount.source.data(), mount.source.size());
        entry.filesystemType =
            mount.filesystem == "ext4" ? QxNFilesystemType::Ext4 : QxNFilesystemType::Other;
    }
    return info;
}

}  // namespace QxNLinuxPlatform
