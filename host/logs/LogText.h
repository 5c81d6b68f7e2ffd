#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Text of logs: times, UTF-8 and JSON. Bytes in memory only.
namespace LogText {

/// Reads a whole time as in RFC 3339, such as "2026-01-31T10:00:00.123456789Z" or with "+01:00" at its end.
/// @return nanoseconds since the epoch; nothing when it is no such time or not within the years 1970 to 2261
std::optional<std::int64_t> ReadTime(std::string_view text);

/// @param time  nanoseconds since the epoch, not negative
/// @return the time as in RFC 3339, in UTC and with nine digits behind the point
std::string WriteTime(std::int64_t time);

/// @return how many bytes at the end are the beginning of a UTF-8 character that may still go on: 0 to 3
size_t IncompleteEnd(std::string_view bytes);

/// Appends bytes as the inside of a JSON string; what is not UTF-8 becomes U+FFFD.
void AppendJson(std::string& json, std::string_view bytes);

/// @return a JSON string, with its quotes
std::string Quoted(std::string_view bytes);

}  // namespace LogText
