#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
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
    Keep(posix_spawn_file_actions_addopen(&_actions, descriptor, "/dev/null", O_WRONLY, 0));
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

SpawnResult Spawn(const char* path, const std::vector<std::string>& arguments, const SpawnActions* actions) {
    return Spawn(path, ArgumentVector(arguments).data(), actions);
}

SpawnResult Spawn(const char* path, char* const* arguments, const SpawnActions* actions) {
    SpawnResult result;
    if (actions != nullptr && actions->Error() != 0) {
        result.error = actions->Error();
        return result;
    }
    const SpawnAttributes attributes;
    const std::lock_guard lock(environmentMutex);
    result.error = posix_spawn(&result.pid, path, actions != nullptr ? actions->Get() : nullptr,
                               attributes.Get(), arguments, environ);
    if (result.error != 0) {
        result.pid = -1;
    }
    return result;
}

UniqueFd OpenPidfd(pid_t pid) { return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))); }

void ReapWithin(pid_t pid, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const UniqueFd pidfd = OpenPidfd(pid);
    for (Clock::time_point now = Clock::now(); waitpid(pid, nullptr, WNOHANG) == 0 && now < deadline;
         now = Clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
        // Without a descriptor this only waits a while; a signal ends it early.
        pollfd ended{pidfd.Get(), POLLIN, 0};
        poll(&ended, 1, static_cast<int>(pidfd.IsOpen() ? left : std::min<decltype(left)>(left, 10)));
    }
}

}  // namespace QxNSupport
