#pragma once

#include <string>
#include <string_view>

namespace CRP {

/// @return the command up to its first blank
std::string_view firstWordOf(std::string_view initCommand);

/// @return whether the command's first word is a script, which runs through the shell, since files of the
/// image may lack the execute permission
bool runsThroughShell(std::string_view initCommand);

/// @return the shell command that runs a plugin's init command in its mount point
std::string initCommandLine(const std::string& mountPoint, const std::string& initCommand);

}  // namespace CRP
