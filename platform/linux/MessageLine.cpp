#include "MessageLine.h"

#include "QxNJson.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace QxNLinuxPlatform {

namespace {

std::string isoTime(long long timeMs) {
    const std::time_t seconds = static_cast<std::time_t>(timeMs / 1000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text.data() + length, text.size() - length, ".%03lldZ", timeMs % 1000);
    return text.data();
}

}  // namespace

std::string messageLine(const QxSMessage& message) {
    const QxNJson::json line = {{"time", isoTime(message.timeMs)},
                                {"severity", message.severity},
                                {"number", message.number},
                                {"source", message.source},
                                {"text", message.text}};
    return line.dump() + '\n';
}

}  // namespace QxNLinuxPlatform
