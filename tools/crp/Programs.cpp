#include "Programs.h"

#include "ToolError.h"
#include "support/ChildProcess.h"

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace Programs {

namespace {

pid_t Start(const std::string& path, const std::vector<std::string>& arguments,
            const QxNSupport::SpawnActions& actions) {
    const QxNSupport::SpawnResult program = QxNSupport::Spawn(path.c_str(), arguments, &actions);
    if (program.error != 0) {
        errno = program.error;
        ThrowSystemError("cannot start '" + path + "'");
    }
    return program.pid;
}

}  // namespace

std::optional<std::string> Find(const std::string& name) {
    const char* searchPath = getenv("PATH");
    std::istringstream directories(searchPath != nullptr ? searchPath : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::filesystem::path candidate = std::filesystem::path(directory) / name;
        if (std::filesystem::is_regular_file(candidate) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

pid_t StartWithOutputOnError(const std::string& path, const std::vector<std::string>& arguments) {
    QxNSupport::SpawnActions actions;
    actions.Duplicate(STDERR_FILENO, STDOUT_FILENO);
    return Start(path, arguments, actions);
}

ReadProgram StartForReading(const std::string& path, const std::vector<std::string>& arguments) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        ThrowSystemError("cannot make a pipe");
    }
    QxNSupport::UniqueFd output(ends[0]);
    const QxNSupport::UniqueFd input(ends[1]);
    QxNSupport::SpawnActions actions;
    actions.Duplicate(input.Get(), STDOUT_FILENO);
    actions.Discard(STDERR_FILENO);
    return {Start(path, arguments, actions), std::move(output)};
}

}  // namespace Programs
