#include "podman/UserStorage.h"

#include "QxCContainer.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"

#include <sys/stat.h>
#include <cstdlib>
#include <cstring>

namespace QxNContainer {

namespace QxNUserStorage {

namespace {

template <size_t Size>
std::string_view TextOf(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

}  // namespace

void FreeDeleter::operator()(void* block) const { std::free(block); }

MountInfo ReadMountInfo(QxCErrorListPool& errors) {
    return MountInfo(QxCScannerBoardHw::getBlockDeviceMountInfo(errors));
}

const QxSBlockDeviceMount* FindUserStorage(const QxSBlockDeviceMountInfo& info) {
    for (std::uint32_t i = 0; i < info.count; ++i) {
        if (TextOf(info.entries[i].mountPoint) == MountPoint) {
            return &info.entries[i];
        }
    }
    return nullptr;
}

std::string_view DiskNameOf(std::string_view device) {
    const std::string_view partition = device.substr(device.find_last_of('/') + 1);
    const size_t lastNonDigit = partition.find_last_not_of("0123456789");
    if (lastNonDigit == std::string_view::npos || lastNonDigit + 1 == partition.size()) {
        return partition;
    }
    if (partition[lastNonDigit] == 'p' && partition.find("nvme") != std::string_view::npos) {
        return partition.substr(0, lastNonDigit);
    }
    return partition.substr(0, lastNonDigit + 1);
}

}  // namespace QxNUserStorage

namespace {

bool IsMountPoint(const char* path) {
    const std::string parent = std::string(path) + "/..";
    struct stat directory {};
    struct stat above {};
    return stat(path, &directory) == 0 && stat(parent.c_str(), &above) == 0 &&
           directory.st_dev != above.st_dev;
}

bool Refuse(std::string* reason, const char* text) {
    if (reason != nullptr) {
        *reason = text;
    }
    return false;
}

QxNUserStorage::MountInfo ReadMountInfoOnce() {
    QxNSupport::ErrorListScope errors;
    return QxNUserStorage::ReadMountInfo(errors.List());
}

}  // namespace

bool QxCContainer::HasValidUserStorage(std::string* reason) const {
    if (!IsMountPoint(QxNUserStorage::MountPoint)) {
        return Refuse(reason, "Container service requires a mounted userstorage1 device");
    }
    const QxNUserStorage::MountInfo info = ReadMountInfoOnce();
    if (info == nullptr) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Utils:Error: Could not parse device information\n");
        return Refuse(reason, "Container service could not determine the mounted block devices");
    }
    const QxSBlockDeviceMount* userStorage = QxNUserStorage::FindUserStorage(*info);
    if (userStorage == nullptr) {
        return Refuse(
            reason,
            "Container service could not find the userstorage1 device among the mounted block devices");
    }
    if (userStorage->filesystemType != QxNFilesystemType::Ext4) {
        return Refuse(reason, "Container service requires EXT4 filesystem type on user storage device");
    }
    return true;
}

}  // namespace QxNContainer
