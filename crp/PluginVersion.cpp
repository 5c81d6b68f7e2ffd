#include "crp/PluginVersion.h"

#include <algorithm>
#include <limits>

namespace CRP {

namespace {

using Limits = std::numeric_limits<std::int32_t>;

bool startsWithDigit(std::string_view text) {
    return !text.empty() && text.front() >= '0' && text.front() <= '9';
}

/// Takes one number from the front of the text.
/// @return whether there was one
bool takeNumber(std::string_view& text, std::int32_t& number) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (!startsWithDigit(text)) {
        return false;
    }
    constexpr std::int64_t Ceiling = std::int64_t{Limits::max()} + 1;  // the magnitude of the lowest number
    std::int64_t value = 0;
    for (; startsWithDigit(text); text.remove_prefix(1)) {
        value = std::min(value * 10 + (text.front() - '0'), Ceiling);
    }
    value = std::min<std::int64_t>(isNegative ? -value : value, Limits::max());
    number = static_cast<std::int32_t>(value);
    return true;
}

}  // namespace

bool beginsWithNumber(std::string_view version) {
    std::int32_t number = 0;
    return takeNumber(version, number);
}

PluginVersion parseVersion(std::string_view text) {
    PluginVersion version;
    text = text.substr(0, text.find('\0'));
    if (!takeNumber(text, version.major)) {
        return version;
    }
    for (std::int32_t* number : {&version.minor, &version.patch}) {
        if (!text.starts_with('.')) {
            break;
        }
        text.remove_prefix(1);
        if (!takeNumber(text, *number)) {
            break;
        }
    }
    return version;
}

}  // namespace CRP
