#pragma once

#include "support/UniqueFd.h"

#include <sys/types.h>
#include <optional>
#include <string>
#include <vector>

/// The squashfs programs that the tool starts.
namespace Programs {

/// @return the path of a program, looked for as a shell does; nothing when it is not installed
std::optional<std::string> Find(const std::string& name);

/// Starts a program whose standard output goes where this tool's standard error goes.
/// @return process id
pid_t StartWithOutputOnError(const std::string& path, const std::vector<std::string>& arguments);

/// A started program and the descriptor from which its standard output is read. Its standard error is
/// discarded.
struct ReadProgram {
    pid_t pid;
    QxNSupport::UniqueFd output;
};
ReadProgram StartForReading(const std::string& path, const std::vector<std::string>& arguments);

}  // namespace Programs
