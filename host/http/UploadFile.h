#pragma once

#include "http/Message.h"

#include <optional>
#include <string>

namespace QxNHttp {

/// How the names of files begin that are not finished yet; six letters and digits follow.
inline constexpr const char* HiddenUploadPrefix = ".qxcontainerd-upload-";

/// Writes all of it, also when signals interrupt that. Blocks as long as the disk takes.
/// @return whether that was possible; `errno` tells why not
bool WriteAll(int file, const char* data, size_t size);

/// Puts an uploaded file at its place, on the thread for disks.
/// @return whether there was one before
/// @throws Problem when that is not possible; the file is gone then
Task<bool> Place(UploadedFile& file, std::string path);

/// Removes an uploaded file on the thread for disks: releasing gigabytes takes a disk its time.
Task<void> Discard(UploadedFile& file);

/// The file that a body is written to, on a thread for disks so that a slow one holds up nobody else. Goes when it is
/// not finished, on the thread of whoever gives it up; Discard() is the way for files that may be large.
class UploadTarget {
public:
    /// Makes the file; to be called before all others.
    /// @param directory  made when it is missing
    /// @param expected   bytes to come, when they are known
    /// @throws Problem when the file cannot be made, or when the expected bytes do not fit
    Task<void> Begin(const std::string& directory, std::optional<std::uint64_t> expected);

    /// @throws Problem when the disk is full or fails
    Task<void> Write(const char* data, size_t size);
    /// @return the file, safe on the disk
    Task<UploadedFile> Finish();
    /// Removes it now, on the thread for disks.
    Task<void> Discard();

private:
    QxNSupport::UniqueFd _output;
    std::optional<UploadedFile> _file;
    std::uint64_t _written = 0;
};

}  // namespace QxNHttp
