#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <mutex>
#include <optional>

namespace QxNSupport {

namespace {

std::mutex environmentMutex;

/// What a child has to be given besides its descriptors: SIGPIPE as programs expect it. libcurl ignores it in
/// the whole process while a transfer runs.
class SpawnAttributes {
public:
    SpawnAttributes() {
        struct sigaction current {};
        if (sigaction(SIGPIPE, nullptr, &current) != 0 || current.sa_handler != SIG_IGN) {
            return;
        }
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        posix_spawnattr_init(&_attributes.emplace());
        posix_spawnattr_setsigdefault(&*_attributes, &pipe);
        posix_spawnattr_setflags(&*_attributes, POSIX_SPAWN_SETSIGDEF);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() {
        if (_attributes) {
            posix_spawnattr_destroy(&*_attributes);
        }
    }

    /// @return null when there is nothing to change
    const posix_spawnattr_t* Get() const { return _attributes ? &*_attributes : nullptr; }

private:
    std::optional<posix_spawnattr_t> _attributes;
};

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
    const SpawnAttributes attributes;
    const std::lock_guard lock(environmentMutex);
    SpawnResult result;
    result.error = posix_spawn(&result.pid, path, actions, attributes.Get(), arguments, environ);
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
