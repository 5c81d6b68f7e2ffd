#pragma once

#include "QxCErrorList.h"
#include "QxCScannerBoardHw.h"

#include <memory>
#include <string>
#include <string_view>

namespace QxNContainer::QxNUserStorage {

/// Mount point of the user storage.
inline constexpr const char* MountPoint = "/userstorage1";

struct FreeDeleter {
    void operator()(void* block) const;
};

/// The board's mount information as its caller owns it.
using MountInfo = std::unique_ptr<QxSBlockDeviceMountInfo, FreeDeleter>;

/// @return the mount information; null when the board cannot tell
MountInfo ReadMountInfo(QxCErrorListPool& errors);

/// @return the first entry for the user storage; null when there is none
const QxSBlockDeviceMount* FindUserStorage(const QxSBlockDeviceMountInfo& info);

/// @param device  path of a partition's device node, or its name alone
/// @return the name of the disk, within `device`: without the partition number, and for nvme names without the "p" before
///         it
std::string_view DiskNameOf(std::string_view device);

}  // namespace QxNContainer::QxNUserStorage
