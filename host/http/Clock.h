#pragma once

#include <chrono>
#include <string>

namespace QxNHttp {

/// @return ISO 8601 in UTC with milliseconds, such as "2026-11-21T19:04:05.123Z"
std::string TimeText(std::chrono::system_clock::time_point time);

/// @return a length of time for people, such as "3 minutes"; what is negative counts as nothing
std::string DurationText(std::chrono::system_clock::duration time);

}  // namespace QxNHttp
