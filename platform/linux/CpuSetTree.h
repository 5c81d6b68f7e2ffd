#pragma once

#include <string>

namespace QxNLinuxPlatform {

/// Gives a CPU set of version 1 other cores, whatever sets there are below it.
///
/// The kernel refuses to take cores from a set that one below it still has (EBUSY), also from those that
/// ended containers left behind. Sets below that are empty are therefore removed, and the others get the same
/// cores.
/// @param directory  the set's directory
/// @param cores      core list, such as "1,6-7"; empty for none
/// @return 0, or the error number of the step that failed
int redefineCores(const std::string& directory, const std::string& cores);

}  // namespace QxNLinuxPlatform
