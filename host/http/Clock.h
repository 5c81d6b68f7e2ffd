#pragma once

#include <chrono>
#include <string>

namespace QxNHttp {

/// @return ISO 8601 in UTC with milliseconds, such as "2026-11-21T19:04:05.123Z"
std::string TimeText(std::chrono::system_clock::time_point time);

}  // namespace QxNHttp
