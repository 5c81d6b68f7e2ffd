#include "api/Program.h"

#include "QxNContainerPaths.h"
#include "support/ProcessEnd.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

using QxNSupport::UniqueFd;

namespace {

constexpr size_t LongestOutput = 64 << 10;

/// A file in memory takes input and output of any length, so that nobody waits for anybody.
UniqueFd MemoryFile(const std::string& content) {
    UniqueFd file(memfd_create("qx-program", MFD_CLOEXEC));
    if (file.IsOpen() &&
        (write(file.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
         lseek(file.Get(), 0, SEEK_SET) != 0)) {
        file.Reset();
    }
    return file;
}

std::string Content(const UniqueFd& file) {
    std::string text(LongestOutput, '\0');
    const ssize_t count = pread(file.Get(), text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Not the environment of this process: the library may be changing that just now.
pid_t Start(const std::string& path, std::vector<std::string> arguments, int in, int out) {
    std::vector<std::string> variables{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                       "HOME=/root",
                                       "LD_LIBRARY_PATH=" + QxNContainer::QxNContainerPaths::PODMAN_LIBS};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path.c_str(), &actions, nullptr, Pointers(arguments).data(),
                                  Pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

}  // namespace

ProgramOutcome RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                          const std::string& input, std::chrono::milliseconds deadline) {
    ProgramOutcome outcome;
    const UniqueFd in = MemoryFile(input);
    const UniqueFd out = MemoryFile("");
    if (!in.IsOpen() || !out.IsOpen()) {
        return outcome;
    }
    const pid_t child = Start(path, arguments, in.Get(), out.Get());
    if (child < 0) {
        return outcome;
    }
    outcome.hasStarted = true;
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (!QxNSupport::AwaitEnd(process.Get(), std::chrono::steady_clock::now() + deadline)) {
        kill(child, SIGKILL);  // not collected yet, so it is still ours
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.output = Content(out);
    return outcome;
}
