#pragma once

#include <cstddef>
#include <string>

namespace QxNLinuxPlatform {

/// What was read of a file.
struct FileContent {
    int error = 0;  ///< 0, or the errno of the failure
    std::string text;
};

/// Reads a regular file, a procfs or a sysfs file.
/// @param path       the file
/// @param limit      more than this many bytes is an error (EFBIG)
FileContent readFile(const std::string& path, std::size_t limit = 1024UL * 1024);

/// Reads at most `limit` bytes from the beginning of a file.
FileContent readFileStart(const std::string& path, std::size_t limit);

/// Writes `text` to an existing file with one write(2), as the kernel's control files want it.
/// @return 0, or the errno of the failure
int writeControlFile(const std::string& path, const std::string& text);

/// Replaces a file by one with the content `text`, so that a reader finds either the old or the new text.
/// Missing directories are created.
/// @return 0, or the errno of the failure
int replaceFile(const std::string& path, const std::string& text);

/// Creates the directory in which `path` lies, with its missing ancestors.
/// @return 0, or the errno of the failure
int createParentDirectory(const std::string& path);

/// @return the part of `path` behind its last slash
std::string baseName(const std::string& path);

}  // namespace QxNLinuxPlatform
