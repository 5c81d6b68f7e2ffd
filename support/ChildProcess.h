#pragma once

#include <spawn.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace QxNSupport {

/// The outcome of starting a program.
struct SpawnResult {
    pid_t pid = -1;  ///< process id of the child, -1 when it could not be started
    int error = 0;   ///< error number of posix_spawn, 0 when the child was started
};

/// Starts a program without a shell, with this process's environment, and does not wait for it.
/// @param path       file to execute
/// @param arguments  argument words; the first is the program name
/// @param actions    what happens to descriptors in the child; null for nothing
SpawnResult Spawn(const char* path, const std::vector<std::string>& arguments,
                  const posix_spawn_file_actions_t* actions = nullptr);

/// The same with an argument vector that ends in a null pointer.
SpawnResult Spawn(const char* path, char* const* arguments, const posix_spawn_file_actions_t* actions = nullptr);

/// What a wait status says; the bits are those of waitpid(2).
struct WaitStatus {
    int status;

    bool WasKilled() const { return Signal() != 0; }
    int Signal() const { return status & 0x7f; }
    int ExitCode() const { return (status >> 8) & 0xff; }
};

}  // namespace QxNSupport
