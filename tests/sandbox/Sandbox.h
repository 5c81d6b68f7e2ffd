#pragma once

#include <string>
#include <vector>

/// A world of its own for a test process: a copy-on-write view of the root file system in mount and process
/// namespaces that end with the process. Every absolute path of the product is real there, and empty at the
/// start.
namespace Sandbox {

/// Moves this process into a sandbox; called once, before there are threads. Ends the process with a message
/// when the machine does not allow it (root is needed). Returns in the sandbox; the caller's exit status
/// becomes that of the program.
void Enter();

/// Installs a program that records its call and then does what the script says.
/// @param path    where; an existing file is replaced
/// @param script  POSIX shell text; "$@" are the arguments. Empty: exit with 0.
void InstallProgram(const std::string& path, const std::string& script = {});

/// One call of a recording program.
struct ProgramCall {
    std::string path;                    ///< as installed
    std::vector<std::string> arguments;  ///< argument zero included
    std::vector<std::string> environment;

    /// @return arguments joined by blanks
    std::string CommandLine() const;
    /// @return the value of a variable, or "(unset)"
    std::string Variable(const std::string& name) const;
};

/// @return the calls recorded so far, in order
std::vector<ProgramCall> Calls();

/// Waits until a condition holds, looking every few milliseconds; at most 20 seconds.
/// @return whether it came to hold
template <typename Condition>
bool Eventually(Condition condition);

void WriteFile(const std::string& path, const std::string& content);  ///< creates missing directories
std::string ReadFile(const std::string& path);                        ///< empty when there is none

/// @return the open descriptors of this process
std::vector<std::string> OpenDescriptors();
/// @return the process ids of this process's children, zombies included
std::vector<int> Children();

bool SleepForPoll();

template <typename Condition>
bool Eventually(Condition condition) {
    for (int attempt = 0; attempt < 4000; ++attempt) {
        if (condition()) {
            return true;
        }
        SleepForPoll();
    }
    return condition();
}

}  // namespace Sandbox
