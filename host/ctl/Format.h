#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Figures and times as people read them.

/// @return such as "312 B" or "4.2 MiB"
std::string SizeText(std::uint64_t bytes);

/// @param time  as in RFC 3339
/// @return the time at this machine's place, such as "2026-11-21 19:04:05"; what is no time is returned as it is
std::string LocalTimeText(std::string_view time);

/// @return such as "3 hours"; the unit is the greatest of which there is at least one
std::string DurationText(std::uint64_t seconds);

/// @return such as "1 line" or "2 lines"
std::string CountText(std::uint64_t count, std::string_view one);
