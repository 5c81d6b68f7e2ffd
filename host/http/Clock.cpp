#include "http/Clock.h"

#include <algorithm>
#include <ctime>

namespace QxNHttp {

std::string TimeText(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto seconds = floor<std::chrono::seconds>(time);
    const auto millis = duration_cast<milliseconds>(time - seconds).count();
    const std::time_t whole = system_clock::to_time_t(seconds);
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char text[32];
    const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string fraction = std::to_string(1000 + millis);
    return std::string(text, length) + "." + fraction.substr(1) + "Z";
}

std::string DurationText(std::chrono::system_clock::duration time) {
    struct Unit {
        long long seconds;
        long long most;  ///< up to which it is told in this unit
        const char* name;
    };
    constexpr long long Minute = 60;
    constexpr long long Hour = 60 * Minute;
    constexpr long long Day = 24 * Hour;
    constexpr Unit Units[] = {
        {1, 2 * Minute, "second"}, {Minute, 2 * Hour, "minute"}, {Hour, 2 * Day, "hour"}};
    const long long seconds =
        std::max(0LL, static_cast<long long>(std::chrono::floor<std::chrono::seconds>(time).count()));
    for (const Unit& unit : Units) {
        if (seconds < unit.most) {
            const long long count = seconds / unit.seconds;
            return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
        }
    }
    return std::to_string(seconds / Day) + " days";
}

}  // namespace QxNHttp
