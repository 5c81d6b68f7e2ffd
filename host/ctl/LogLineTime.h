#pragma once

#include <chrono>
#include <optional>
#include <string_view>

/// Reads the time that a line of a log begins with: seconds since the epoch such as "1718000000.25", or a date as in
/// RFC 3339 such as "2024-06-10T06:13:20.25Z" or with "+02:00" at its end. The fraction may be missing.
/// @return nothing when the line begins with neither
std::optional<std::chrono::system_clock::time_point> TimeOfLogLine(std::string_view line);
