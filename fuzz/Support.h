#pragma once

#include <sys/mman.h>
#include <unistd.h>
#include <cstdint>
#include <cstdlib>
#include <string>

/// What several fuzz targets need.
namespace Fuzz {

/// Ends the process, which is a finding.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// A file in memory, written anew for every input.
class MemoryFile {
public:
    MemoryFile() : _file(memfd_create("input", MFD_CLOEXEC)) { Require(_file >= 0); }
    void Write(const std::uint8_t* data, std::size_t size) const {
        Require(ftruncate(_file, 0) == 0);
        Require(pwrite(_file, data, size, 0) == static_cast<ssize_t>(size));
    }
    std::string Content() const {
        std::string content(static_cast<std::size_t>(lseek(_file, 0, SEEK_END)), '\0');
        Require(pread(_file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
        return content;
    }
    std::string Path() const { return "/proc/self/fd/" + std::to_string(_file); }

private:
    int _file;
};

}  // namespace Fuzz
