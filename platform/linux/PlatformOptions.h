#pragma once

#include <optional>
#include <string>

namespace QxNLinuxPlatform {

/// Where the board's custom configuration lies.
inline constexpr const char* ConfigurationFile = "/etc/quolex/platform.ini";

/// Values that a numeric option may have.
struct NumberRange {
    unsigned int lowest;
    unsigned int highest;
};

/// @return the option's text, or the default when it is not set or empty
std::string readTextOption(const char* section, const char* option, const char* defaultValue);

/// @return the option's number; nothing when it is not set, or when it is no number of the range, which is
///         said once on the standard error output
std::optional<unsigned int> readNumberOption(const char* section, const char* option, NumberRange range);

/// The same with a default.
unsigned int readNumberOption(const char* section, const char* option, unsigned int defaultValue,
                              NumberRange range);

}  // namespace QxNLinuxPlatform
