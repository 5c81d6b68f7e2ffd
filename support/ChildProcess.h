#pragma once

#include "support/UniqueFd.h"

#include <spawn.h>
#include <sys/types.h>
#include <string>
#include <vector>

namespace QxNSupport {

/// Sets a variable of this process's own environment, which every later child inherits; overwrites.
///
/// Spawn() reads the environment and setenv(3) may move it, so the two exclude each other.
void SetEnvironment(const char* name, const std::string& value);

/// What happens to descriptors in a child before its program runs, in the order of the calls.
class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() { posix_spawn_file_actions_destroy(&_actions); }

    void Duplicate(int from, int to) { Keep(posix_spawn_file_actions_adddup2(&_actions, from, to)); }
    void Close(int descriptor) { Keep(posix_spawn_file_actions_addclose(&_actions, descriptor)); }
    /// Lets go of everything that the child writes there.
    void Discard(int descriptor);

    const posix_spawn_file_actions_t* Get() const { return &_actions; }
    /// @return error number of the first action for which there was no memory, 0 when all are there
    int Error() const { return _error; }

private:
    void Keep(int error) { _error = _error != 0 ? _error : error; }

    posix_spawn_file_actions_t _actions;
    int _error = 0;
};

/// @return an argument vector as exec(2) wants it; the words must outlive it
std::vector<char*> ArgumentVector(const std::vector<std::string>& words);

/// The outcome of starting a program.
struct SpawnResult {
    pid_t pid = -1;  ///< process id of the child, -1 when it could not be started
    int error = 0;   ///< error number of posix_spawn, 0 when the child was started
};

/// Starts a program without a shell, with this process's environment, and does not wait for it.
/// @param path       file to execute
/// @param arguments  argument words; the first is the program name
/// @param actions    what happens to descriptors in the child; null for nothing. When one of them is missing,
///                   the program is not started.
SpawnResult Spawn(const char* path, const std::vector<std::string>& arguments,
                  const SpawnActions* actions = nullptr);

/// The same with an argument vector that ends in a null pointer.
SpawnResult Spawn(const char* path, char* const* arguments, const SpawnActions* actions = nullptr);

/// Opens a descriptor that becomes readable when the process ends (pidfd_open(2), Linux 5.3).
/// @return an owner that is not open, with errno set, when that is not possible
UniqueFd OpenPidfd(pid_t pid);

/// Collects a child that is ending, so that it does not stay a zombie; blocks until it has ended, or for so
/// long.
/// @param pid        a child; one that is collected already is fine
/// @param timeoutMs  longest wait in milliseconds
void ReapWithin(pid_t pid, int timeoutMs);

/// What a wait status says; the bits are those of waitpid(2).
struct WaitStatus {
    int status;

    bool WasKilled() const { return Signal() != 0; }
    int Signal() const { return status & 0x7f; }
    int ExitCode() const { return (status >> 8) & 0xff; }
};

}  // namespace QxNSupport
