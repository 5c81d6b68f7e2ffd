#pragma once

#include <string>

namespace QxNSupport {

/// @return the text without the blanks, tabs, line feeds and carriage returns at its ends
inline std::string Trimmed(const std::string& text) {
    constexpr const char* Blanks = " \t\n\r";
    const std::size_t first = text.find_first_not_of(Blanks);
    return first == std::string::npos ? std::string()
                                      : text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

}  // namespace QxNSupport
