#pragma once

#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace QxNJson {

/// A JSON value that keeps the members of objects in the order in which they were inserted.
///
/// Element access, iteration, type tests, conversions (`get<T>()`) and building (`array()`, `object()`,
/// `push_back()`, initialiser lists) are those of nlohmann::ordered_json; only what differs is declared here.
/// A value that could not be parsed is *invalid*: every type test and contains() is false for it.
///
/// Errors: access of the wrong type raises the base type's exceptions (`type_error`, `out_of_range`).
/// Thread safety: as for standard containers.
class json : public nlohmann::ordered_json {
public:
    using Base = nlohmann::ordered_json;
    using Base::Base;

    /// What dump() does with bytes that are not UTF-8.
    enum class Utf8ErrorMode {
        Strict = 0,   ///< raise type_error
        Replace = 1,  ///< write U+FFFD instead
        Ignore = 2,   ///< leave them out
    };

    json() = default;
    json(const Base& other) : Base(other) {}
    json(Base&& other) noexcept : Base(std::move(other)) {}

    /// Deepest nesting of arrays and objects that is parsed; writing a value takes stack for every level.
    static constexpr int MaxDepth = 500;

    /// Parses a text. One that is nested deeper than MaxDepth counts as malformed, and so does one with a NUL, which
    /// would pass for the end of the text.
    /// @param text          the whole text; UTF-8
    /// @param throwOnError  whether malformed text raises `parse_error` instead of giving an invalid value
    static json parse(std::string_view text, bool throwOnError = false) {
        const bool isRefused = text.find('\0') != std::string_view::npos || isTooDeep(text);
        const std::string_view parsed = isRefused ? std::string_view() : text;
        return Base::parse(parsed.begin(), parsed.end(), nullptr, throwOnError);
    }

    /// Parses everything that is left in a file stream; malformed text or an unreadable stream gives an
    /// invalid value.
    static json parse(std::ifstream& stream) {
        // Through an inserter: it keeps a read error, such as that of a directory, from becoming an
        // exception.
        std::ostringstream text;
        text << stream.rdbuf();
        return parse(text.fail() ? std::string() : text.str());
    }

    /// @return whether this is the result of a failed parse
    bool is_invalid() const noexcept { return is_discarded(); }

    /// @param indent       blanks per level; -1 gives one compact line
    /// @param indentChar   character to indent with
    /// @param escapeAscii  whether every character outside ASCII is written as an escape
    /// @param onBadUtf8    what to do with bytes that are not UTF-8
    /// @return the text, without a line feed at its end
    std::string dump(int indent = -1, char indentChar = ' ', bool escapeAscii = false,
                     Utf8ErrorMode onBadUtf8 = Utf8ErrorMode::Replace) const {
        return Base::dump(indent, indentChar, escapeAscii, static_cast<Base::error_handler_t>(onBadUtf8));
    }

private:
    static bool isTooDeep(std::string_view text) {
        int depth = 0;
        bool inString = false;
        for (size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            if (inString) {
                i += c == '\\' ? 1 : 0;
                inString = c != '"';
            } else if (c == '"') {
                inString = true;
            } else if (c == '[' || c == '{') {
                if (++depth > MaxDepth) {
                    return true;
                }
            } else if (c == ']' || c == '}') {
                --depth;
            }
        }
        return false;
    }
};

// Found by the base type when one of these values is put into another: without them it would be taken for a
// range of values and be converted to an array.
inline void to_json(nlohmann::ordered_json& target, const json& value) {
    target = static_cast<const nlohmann::ordered_json&>(value);
}
inline void from_json(const nlohmann::ordered_json& source, json& value) { value = json(source); }

}  // namespace QxNJson
