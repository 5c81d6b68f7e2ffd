#include "MessageFile.h"

#include "FileAccess.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <thread>
#include <utility>

namespace QxNLinuxPlatform {

namespace {

// Longest wait for another writer. Afterwards the lines are written without the lock rather than lost: every
// line is a single appending write and stays whole, only the file is not renamed then.
constexpr std::chrono::milliseconds LockPatience{1000};

enum class Lock { Held, NotHeld };

Lock lockFile(const QxNSupport::UniqueFd& file) {
    const auto deadline = std::chrono::steady_clock::now() + LockPatience;
    while (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return Lock::NotHeld;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return Lock::Held;
}

QxNSupport::UniqueFd openForAppending(const std::string& path) {
    return QxNSupport::UniqueFd(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
}

/// Whether the path still names the opened file: another writer may have renamed it before the lock was had.
bool isCurrent(const std::string& path, const struct stat& opened) {
    struct stat named {};
    return ::stat(path.c_str(), &named) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

struct OpenedFile {
    int error = 0;
    QxNSupport::UniqueFd file;
    Lock lock = Lock::NotHeld;
};

OpenedFile openAndLock(const std::string& path, std::size_t maxBytes, std::size_t newBytes) {
    if (const int error = createParentDirectory(path); error != 0) {
        return {error, QxNSupport::UniqueFd(), Lock::NotHeld};
    }
    for (;;) {
        QxNSupport::UniqueFd file = openForAppending(path);
        if (!file.IsOpen()) {
            return {errno, QxNSupport::UniqueFd(), Lock::NotHeld};
        }
        const Lock lock = lockFile(file);
        struct stat status {};
        if (::fstat(file.Get(), &status) != 0) {
            return {errno, QxNSupport::UniqueFd(), Lock::NotHeld};
        }
        if (lock == Lock::NotHeld || !S_ISREG(status.st_mode)) {
            return {0, std::move(file), Lock::NotHeld};
        }
        if (!isCurrent(path, status)) {
            continue;
        }
        if (status.st_size == 0 || static_cast<std::size_t>(status.st_size) + newBytes <= maxBytes) {
            return {0, std::move(file), lock};
        }
        if (::rename(path.c_str(), (path + ".1").c_str()) != 0) {
            return {errno, QxNSupport::UniqueFd(), Lock::NotHeld};
        }
    }
}

int writeLine(const OpenedFile& opened, const std::string& line) {
    ssize_t count = 0;
    do {
        count = ::write(opened.file.Get(), line.data(), line.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        return errno;
    }
    if (static_cast<std::size_t>(count) == line.size()) {
        return 0;
    }
    if (opened.lock == Lock::Held) {
        struct stat status {};
        if (::fstat(opened.file.Get(), &status) != 0 ||
            ::ftruncate(opened.file.Get(), status.st_size - count) != 0) {
            return errno;
        }
    }
    return ENOSPC;
}

}  // namespace

MessageFile::MessageFile(std::string path, std::size_t maxBytes)
    : _path(std::move(path)), _maxBytes(maxBytes) {}

int MessageFile::append(const std::vector<std::string>& lines) {
    const std::size_t newBytes =
        std::accumulate(lines.begin(), lines.end(), std::size_t{0},
                        [](std::size_t sum, const std::string& line) { return sum + line.size(); });
    // The file's lock excludes threads, too, but waiting for it means polling.
    const std::lock_guard guard(_mutex);
    const OpenedFile opened = openAndLock(_path, _maxBytes, newBytes);
    if (opened.error != 0) {
        return opened.error;
    }
    for (const std::string& line : lines) {
        if (const int error = writeLine(opened, line); error != 0) {
            return error;
        }
    }
    return 0;
}

}  // namespace QxNLinuxPlatform
