#pragma once

#include "QxCErrorList.h"

#include <cstdint>

/// One mounted block device in the answer of QxCScannerBoardHw::getBlockDeviceMountInfo.
struct QxSBlockDeviceMount {
    char mountPoint[128];          ///< zero-terminated, such as "/userstorage1"
    char device[384];              ///< zero-terminated path of the device node
    std::uint32_t filesystemType;  ///< QxNFilesystemType
    std::uint32_t reserved;
};
static_assert(sizeof(QxSBlockDeviceMount) == 520);

/// The answer of QxCScannerBoardHw::getBlockDeviceMountInfo: `count` entries right behind the count.
struct QxSBlockDeviceMountInfo {
    std::uint32_t count;
    QxSBlockDeviceMount entries[];
};
static_assert(sizeof(QxSBlockDeviceMountInfo) == 4);

/// Codes of QxSBlockDeviceMount::filesystemType.
namespace QxNFilesystemType {
inline constexpr std::uint32_t Other = 0;
inline constexpr std::uint32_t Ext4 = 2;
}  // namespace QxNFilesystemType

/// What the board knows of its hardware. Thread safety: may be called from any thread.
class QX_PLATFORM_API QxCScannerBoardHw {
public:
    /// Reads the board's core figures.
    /// @param errors    receives an error when the figures cannot be had; the figures are undefined then
    /// @param total     number of cores of the board
    /// @param usable    number of cores that Linux uses
    /// @param isolated  number of Linux cores set apart for real-time applications
    static void getCnCoreCount(QxCErrorListPool& errors, unsigned int& total, unsigned int& usable,
                               unsigned int& isolated);

    /// Records how many of the Linux cores the container runtime uses.
    static void setContainerRteCoresCount(unsigned int count);

    /// Reads which block devices are mounted where.
    /// @param errors  receives an error when the mount table cannot be read
    /// @return one block of memory that the caller releases with free(); null on failure
    static QxSBlockDeviceMountInfo* getBlockDeviceMountInfo(QxCErrorListPool& errors);
};
