#pragma once

#include "MountTable.h"
#include "QxCScannerBoardHw.h"

#include <vector>

namespace QxNLinuxPlatform {

/// Picks the mounted block devices: what a path reaches, has a source in /dev and fits the fields of
/// QxSBlockDeviceMount. A text that does not fit is never cut, because it would name something else.
///
/// A device that something else is mounted over is left out whatever covers it: the mount point then does not
/// show that device any more, and the cover is no block device.
std::vector<MountEntry> blockDeviceMounts(const std::vector<MountEntry>& table);

/// @return the entries in one block of memory that the caller releases with free(); never null
QxSBlockDeviceMountInfo* makeMountInfo(const std::vector<MountEntry>& mounts);

}  // namespace QxNLinuxPlatform
