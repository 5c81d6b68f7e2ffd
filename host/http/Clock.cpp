#include "http/Clock.h"

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

}  // namespace QxNHttp
