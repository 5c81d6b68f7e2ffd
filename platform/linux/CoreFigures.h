#pragma once

#include <optional>

namespace QxNLinuxPlatform {

/// @return the number that the section of the core figures sets for an option, if it does
std::optional<unsigned int> readCoreOption(const char* option);

}  // namespace QxNLinuxPlatform
