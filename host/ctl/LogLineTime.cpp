#include "LogLineTime.h"

#include <charconv>
#include <ctime>
#include <string>

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr int LongestFraction = 9;

/// Takes a number of that many digits off the front; of any number of digits when it is 0.
std::optional<long long> TakeNumber(std::string_view& text, size_t digits = 0) {
    long long number = 0;
    const char* const end = text.data() + (digits != 0 ? std::min(digits, text.size()) : text.size());
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const auto length = static_cast<size_t>(rest - text.data());
    if (error != std::errc() || number < 0 || (digits != 0 && length != digits)) {
        return {};
    }
    text.remove_prefix(length);
    return number;
}

bool TakeCharacter(std::string_view& text, char character) {
    if (text.empty() || text[0] != character) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

/// Takes a fraction of a second off the front, where there is one.
nanoseconds TakeFraction(std::string_view& text) {
    long long value = 0;
    int digits = 0;
    if (TakeCharacter(text, '.')) {
        for (; !text.empty() && text[0] >= '0' && text[0] <= '9'; text.remove_prefix(1)) {
            if (digits < LongestFraction) {
                value = value * 10 + (text[0] - '0');
                ++digits;
            }
        }
    }
    for (; digits < LongestFraction; ++digits) {
        value *= 10;
    }
    return nanoseconds(value);
}

std::optional<seconds> TakeOffset(std::string_view& text) {
    if (TakeCharacter(text, 'Z')) {
        return seconds(0);
    }
    const bool isEast = TakeCharacter(text, '+');
    if (!isEast && !TakeCharacter(text, '-')) {
        return {};
    }
    const auto hours = TakeNumber(text, 2);
    const auto minutes = hours && TakeCharacter(text, ':') ? TakeNumber(text, 2) : std::nullopt;
    if (!minutes) {
        return {};
    }
    return seconds((isEast ? 60 : -60) * (*hours * 60 + *minutes));
}

std::optional<system_clock::time_point> TimeOfDate(std::string_view line) {
    constexpr size_t Length = sizeof("2024-06-10T06:13:20") - 1;
    tm fields{};
    const std::string date(line.substr(0, Length));
    if (date.size() != Length ||
        strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &fields) != date.c_str() + Length) {
        return {};
    }
    line.remove_prefix(Length);
    const nanoseconds fraction = TakeFraction(line);
    const auto offset = TakeOffset(line);
    if (!offset) {
        return {};
    }
    return system_clock::from_time_t(timegm(&fields)) + fraction - *offset;
}

}  // namespace

std::optional<system_clock::time_point> TimeOfLogLine(std::string_view line) {
    if (const auto time = TimeOfDate(line)) {
        return time;
    }
    // A number with fewer digits is something else: it would be a time before 2001.
    constexpr long long Earliest = 1000000000;
    constexpr long long Latest = 9999999999;
    const auto epoch = TakeNumber(line);
    if (!epoch || *epoch < Earliest || *epoch > Latest) {
        return {};
    }
    const nanoseconds fraction = TakeFraction(line);
    return system_clock::time_point(seconds(*epoch) + fraction);
}
