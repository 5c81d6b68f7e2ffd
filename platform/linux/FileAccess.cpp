#include "FileAccess.h"

#include "support/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace QxNLinuxPlatform {

namespace {

ssize_t readSome(int descriptor, char* buffer, std::size_t size) {
    ssize_t count = 0;
    do {
        count = ::read(descriptor, buffer, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

int writeAll(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        written += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return 0;
}

}  // namespace

FileContent readFileStart(const std::string& path, std::size_t limit) {
    // O_NONBLOCK: a named pipe at this place must not stop the caller.
    const QxNSupport::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.IsOpen()) {
        return {errno, {}};
    }
    FileContent content;
    std::array<char, 4096> buffer{};
    while (content.text.size() < limit) {
        const std::size_t wanted = std::min(buffer.size(), limit - content.text.size());
        const ssize_t count = readSome(file.Get(), buffer.data(), wanted);
        if (count < 0) {
            return {errno, {}};
        }
        if (count == 0) {
            break;
        }
        content.text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return content;
}

FileContent readFile(const std::string& path, std::size_t limit) {
    FileContent content = readFileStart(path, limit + 1);
    if (content.text.size() > limit) {
        return {EFBIG, {}};
    }
    return content;
}

int writeControlFile(const std::string& path, const std::string& text) {
    const QxNSupport::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.IsOpen()) {
        return errno;
    }
    const ssize_t count = ::write(file.Get(), text.data(), text.size());
    if (count < 0) {
        return errno;
    }
    return static_cast<std::size_t>(count) == text.size() ? 0 : EIO;
}

int replaceFile(const std::string& path, const std::string& text) {
    if (const int error = createParentDirectory(path); error != 0) {
        return error;
    }
    std::string temporary = path + ".XXXXXX";
    const QxNSupport::UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsOpen()) {
        return errno;
    }
    int error = writeAll(file.Get(), text);
    if (error == 0 && ::fchmod(file.Get(), 0644) != 0) {
        error = errno;
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
    }
    return error;
}

int createParentDirectory(const std::string& path) {
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (directory.empty()) {
        return 0;
    }
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return error.value();
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace QxNLinuxPlatform
