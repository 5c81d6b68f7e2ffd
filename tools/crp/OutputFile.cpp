#include "OutputFile.h"

#include "ToolError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// @return the file that is meant, links followed
std::string ResolveOutput(const std::string& path) {
    std::error_code error;
    const fs::path target = fs::is_symlink(path, error) ? fs::canonical(path, error) : fs::path(path);
    if (error && fs::is_symlink(path)) {
        throw ToolError(ExitCode::InputOutput, "'" + path + "' is a link that leads nowhere; remove it");
    }
    const fs::file_status status = fs::status(target, error);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw ToolError(ExitCode::InputOutput,
                        "'" + path + "' is there and no regular file; name another output");
    }
    return target.string();
}

mode_t DefaultMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666U & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : _path(ResolveOutput(path)) {
    const fs::path directory = fs::path(_path).parent_path();
    std::string pattern = (directory.empty() ? fs::path(".") : directory) / ".crp-XXXXXX";
    _file = QxNSupport::UniqueFd(mkostemp(pattern.data(), O_CLOEXEC));
    if (!_file.IsOpen()) {
        ThrowSystemError("cannot write beside '" + path + "'");
    }
    _temporaryPath = pattern;
}

OutputFile::~OutputFile() {
    if (!_temporaryPath.empty()) {
        unlink(_temporaryPath.c_str());
    }
}

std::uint64_t OutputFile::Size() const {
    struct stat status {};
    if (fstat(_file.Get(), &status) != 0) {
        ThrowSystemError("cannot measure '" + _temporaryPath + "'");
    }
    return static_cast<std::uint64_t>(status.st_size);
}

void OutputFile::Append(std::string_view bytes) {
    if (lseek(_file.Get(), 0, SEEK_END) < 0) {
        ThrowSystemError("cannot write '" + _path + "'");
    }
    while (!bytes.empty()) {
        const ssize_t written = write(_file.Get(), bytes.data(), bytes.size());
        if (written < 0) {
            ThrowSystemError("cannot write '" + _path + "'");
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void OutputFile::Commit() {
    if (fchmod(_file.Get(), DefaultMode()) != 0 || fsync(_file.Get()) != 0 ||
        rename(_temporaryPath.c_str(), _path.c_str()) != 0) {
        ThrowSystemError("cannot write '" + _path + "'");
    }
    _temporaryPath.clear();
}
