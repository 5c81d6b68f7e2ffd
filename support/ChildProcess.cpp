#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <mutex>

namespace QxNSupport {

namespace {

std::mutex environmentMutex;

}  // namespace

void SetEnvironment(const char* name, const std::string& value) {
    const std::lock_guard lock(environmentMutex);
    setenv(name, value.c_str(), 1);
}

void SpawnActions::Discard(int descriptor) {
    posix_spawn_file_actions_addopen(&_actions, descriptor, "/dev/null", O_WRONLY, 0);
}

std::vector<char*> ArgumentVector(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    return arguments;
}

SpawnResult Spawn(const char* path, const std::vector<std::string>& arguments,
                  const posix_spawn_file_actions_t* actions) {
    return Spawn(path, ArgumentVector(arguments).data(), actions);
}

SpawnResult Spawn(const char* path, char* const* arguments, const posix_spawn_file_actions_t* actions) {
    const std::lock_guard lock(environmentMutex);
    SpawnResult result;
    result.error = posix_spawn(&result.pid, path, actions, nullptr, arguments, environ);
    if (result.error != 0) {
        result.pid = -1;
    }
    return result;
}

UniqueFd OpenPidfd(pid_t pid) { return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))); }

void ReapWithin(pid_t pid, int timeoutMs) {
    const UniqueFd pidfd = OpenPidfd(pid);
    if (pidfd.IsOpen()) {
        pollfd ended{pidfd.Get(), POLLIN, 0};
        poll(&ended, 1, timeoutMs);
    }
    waitpid(pid, nullptr, WNOHANG);
}

}  // namespace QxNSupport
