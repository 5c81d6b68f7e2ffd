#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace QxNLinuxPlatform {

/// @return the decimal number that `text` is from its first to its last character, if it fits
inline std::optional<unsigned int> parseNumber(std::string_view text) {
    unsigned int number = 0;
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || behind != end) {
        return std::nullopt;
    }
    return number;
}

}  // namespace QxNLinuxPlatform
