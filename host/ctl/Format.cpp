#include "Format.h"

#include "LogLineTime.h"
#include "Text.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string SizeText(std::uint64_t bytes) {
    constexpr std::array<const char*, 5> Units{"KiB", "MiB", "GiB", "TiB", "PiB"};
    constexpr double Step = 1024;
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes) / Step;
    size_t unit = 0;
    // What would be rounded to 1024.0 is one of the next unit.
    while (value >= Step - 0.05 && unit + 1 < Units.size()) {
        value /= Step;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.1f %s", value, Units[unit]);
    return text;
}

std::string LocalTimeText(std::string_view time) {
    const auto point = TimeOfLogLine(time);
    if (!point) {
        return Printable(time);
    }
    const time_t seconds = std::chrono::system_clock::to_time_t(*point);
    tm fields{};
    char text[64];
    if (localtime_r(&seconds, &fields) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &fields) == 0) {
        return Printable(time);
    }
    return text;
}

std::string DurationText(std::uint64_t seconds) {
    struct Unit {
        std::uint64_t seconds;
        const char* name;
    };
    constexpr std::array<Unit, 3> Units{{{86400, "day"}, {3600, "hour"}, {60, "minute"}}};
    for (const Unit& unit : Units) {
        if (seconds >= unit.seconds) {
            return CountText(seconds / unit.seconds, unit.name);
        }
    }
    return CountText(seconds, "second");
}

std::string CountText(std::uint64_t count, std::string_view one) {
    return std::to_string(count) + " " + std::string(one) + (count == 1 ? "" : "s");
}
