#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QxNLinuxPlatform {

/// What the kernel tells of a process, without the parts that could not be read.
struct ProcessFacts {
    std::vector<std::string> arguments;  ///< beginning with the one that names the program
    std::string executable;              ///< target of the exe link
    std::string comm;                    ///< the kernel's thread name, at most 15 bytes
};

/// @return whether the process runs the program of that name
bool hasName(const ProcessFacts& process, const std::string& name);

/// Whether a process can be signalled in the sense of a program's name.
/// @param stat  content of /proc/<pid>/stat
/// @return false for zombies and kernel threads, and for a text that is no such content
bool isRunningProgram(std::string_view stat);

}  // namespace QxNLinuxPlatform
