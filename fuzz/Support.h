#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
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

/// Puts an empty file system over a directory, for this process alone; takes root. To be called before there are
/// threads.
inline void Hide(const char* directory) {
    Require(unshare(CLONE_NEWNS) == 0);
    Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
    Require(mount("tmpfs", directory, "tmpfs", 0, "size=64m") == 0);
}

/// @return the descriptor that the next one will be: another than before when one was left open
inline int NextDescriptor() {
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Require(next >= 0 && close(next) == 0);
    return next;
}

}  // namespace Fuzz
