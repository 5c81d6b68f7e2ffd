#include "TextFormat.h"

#include <array>
#include <cstdio>
#include <system_error>
#include <utility>

namespace QxNLinuxPlatform {

// The callers' formats are checked by the compiler where the arguments are.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::optional<std::string> formatText(const char* format, std::va_list arguments, std::size_t limit) {
    std::array<char, 1024> buffer{};
    std::va_list again;
    va_copy(again, arguments);
    // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the caller has begun it
    const int result =
        format != nullptr ? std::vsnprintf(buffer.data(), buffer.size(), format, arguments) : 0;
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    std::string text;
    if (result < 0) {
        text = format;
    }
    const std::size_t length = result < 0 ? text.size() : static_cast<std::size_t>(result);
    const bool fits = length <= limit;
    if (result >= 0 && length < buffer.size()) {
        text.assign(buffer.data(), length);
    } else if (result >= 0 && fits) {
        text.resize(length);
        std::vsnprintf(text.data(), length + 1, format, again);
    }
    va_end(again);
    return fits ? std::optional<std::string>(std::move(text)) : std::nullopt;
}
#pragma GCC diagnostic pop

void printNotice(const std::string& text) { std::fprintf(stderr, "Quolex platform: %s\n", text.c_str()); }

std::string errorText(int error) { return std::generic_category().message(error); }

}  // namespace QxNLinuxPlatform
