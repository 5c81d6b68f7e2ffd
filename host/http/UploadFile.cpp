#include "http/UploadFile.h"

#include "http/Background.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace QxNHttp {

namespace {

constexpr mode_t FileMode = 0644;

Problem WriteProblem(const std::string& directory, int error) {
    if (error == ENOSPC || error == EDQUOT) {
        return {Status::insufficient_storage,
                "There is no room in " + directory +
                    "; remove images or files that are not needed. Nothing was kept."};
    }
    return {Status::internal_server_error, "Writing in " + directory + " fails: " + strerror(error)};
}

std::string DirectoryOf(const UploadedFile& file) {
    return std::filesystem::path(file.Path()).parent_path().string();
}

}  // namespace

bool WriteAll(int file, const char* data, size_t size) {
    while (size != 0) {
        const ssize_t count = write(file, data, size);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        const size_t written = count > 0 ? static_cast<size_t>(count) : 0;
        data += written;
        size -= written;
    }
    return true;
}

Task<bool> Place(UploadedFile& file, std::string path) {
    const bool replaces = co_await InBackground(DiskThread(), [&] {
        try {
            return file.MoveTo(path);
        } catch (const Problem&) {
            file.Remove();
            throw;
        }
    });
    co_return replaces;
}

Task<void> Discard(UploadedFile& file) {
    co_await InBackground(DiskThread(), [&] { file.Remove(); });
}

Task<void> UploadTarget::Begin(const std::string& directory, std::optional<std::uint64_t> expected) {
    co_await InBackground(DiskThread(), [&] {
        std::error_code ignored;
        std::filesystem::create_directories(directory, ignored);
        std::string path = directory + "/" + HiddenUploadPrefix + "XXXXXX";
        _output = QxNSupport::UniqueFd(mkostemp(path.data(), O_CLOEXEC));
        if (!_output.IsOpen()) {
            throw WriteProblem(directory, errno);
        }
        _file.emplace(path, 0);
        struct statvfs disk {};
        if (expected && fstatvfs(_output.Get(), &disk) == 0 && *expected / disk.f_frsize >= disk.f_bavail) {
            throw WriteProblem(directory, ENOSPC);
        }
    });
}

Task<void> UploadTarget::Write(const char* data, size_t size) {
    co_await InBackground(DiskThread(), [&] {
        if (!WriteAll(_output.Get(), data, size)) {
            throw WriteProblem(DirectoryOf(*_file), errno);
        }
    });
    _written += size;
}

Task<void> UploadTarget::Discard() {
    co_await InBackground(DiskThread(), [&] {
        _file.reset();
        _output.Reset();
    });
}

Task<UploadedFile> UploadTarget::Finish() {
    co_await InBackground(DiskThread(), [&] {
        if (fchmod(_output.Get(), FileMode) != 0 || TEMP_FAILURE_RETRY(fsync(_output.Get())) != 0) {
            throw WriteProblem(DirectoryOf(*_file), errno);
        }
    });
    _output.Reset();
    UploadedFile finished(_file->Release(), _written);
    co_return finished;
}

}  // namespace QxNHttp
