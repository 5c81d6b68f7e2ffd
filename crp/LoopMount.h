#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// The steps of mounting an image file through a loop device (loop(4)). Each logs its failure.
namespace CRP::LoopMount {

/// Flags of a bound device, as the log shows them.
extern const std::uint32_t DeviceFlags;

/// Binds the start of a file to a free loop device, read-only.
/// @param sizeLimit  bytes of the file that the device shows; 0: the whole file
/// @return path of the device; nothing when a step failed, and then no device is bound
std::optional<std::string> bind(const std::string& file, std::uint64_t sizeLimit);

/// Mounts a bound device as squashfs, read-only, without set-user-ID programs and devices.
/// @return false when that failed; the device is free again then
bool mountDevice(const std::string& device, const std::string& mountPoint);

}  // namespace CRP::LoopMount
