#include "IniText.h"

#include <ini.h>

#include <algorithm>
#include <mutex>

namespace QxNLinuxPlatform {

namespace {

/// The text that remains to be given to the parser.
struct Source {
    std::string_view rest;
    bool atLineStart = true;
};

/// Works as fgets does, but without the blanks before a line: the parser would take an indented option for a
/// continuation of the option before.
char* readLine(char* buffer, int size, void* stream) {
    Source& source = *static_cast<Source*>(stream);
    if (source.atLineStart) {
        source.rest.remove_prefix(std::min(source.rest.find_first_not_of(" \t"), source.rest.size()));
    }
    if (source.rest.empty() || size < 2) {
        return nullptr;
    }
    const std::size_t lineLength = std::min(source.rest.find('\n'), source.rest.size() - 1) + 1;
    const std::size_t length = std::min(lineLength, static_cast<std::size_t>(size) - 1);
    std::copy_n(source.rest.begin(), length, buffer);
    // A zero byte would end the line early for the parser and hide its line feed.
    std::replace(buffer, buffer + length, '\0', '?');
    buffer[length] = '\0';
    source.rest.remove_prefix(length);
    source.atLineStart = length == lineLength;
    return buffer;
}

using Sections = std::map<std::string, std::map<std::string, std::string>>;

int storeOption(void* user, const char* section, const char* name, const char* value) {
    // The parser is C and cannot be left by an exception.
    try {
        (*static_cast<Sections*>(user))[section][name] = value != nullptr ? value : "";
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

/// The parser's defaults end a line after 200 bytes. Its settings belong to the whole process; these only
/// let it take more.
void allowLongLines() {
    constexpr int LongestLine = 2 * 1024 * 1024;
    static std::once_flag once;
    std::call_once(once, [] {
        ini_max_line = LongestLine;
        ini_allow_realloc = true;
        ini_use_stack = false;
    });
}

}  // namespace

IniText IniText::parse(std::string_view text) {
    allowLongLines();
    IniText result;
    Source source{text};
    result._firstBadLine = ini_parse_stream(readLine, &source, storeOption, &result._sections);
    if (result._firstBadLine < 0) {
        throw std::bad_alloc();
    }
    return result;
}

std::optional<std::string> IniText::option(const std::string& section, const std::string& name) const {
    const auto options = _sections.find(section);
    if (options == _sections.end()) {
        return std::nullopt;
    }
    const auto value = options->second.find(name);
    if (value == options->second.end()) {
        return std::nullopt;
    }
    return value->second;
}

}  // namespace QxNLinuxPlatform
