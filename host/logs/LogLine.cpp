#include "LogLine.h"

#include "LogText.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr size_t IdLength = 16;
constexpr std::string_view Names[] = {"stdout", "stderr", "tty"};

bool IsIdCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '.';
}

template <typename Number>
void AppendHex(std::string& text, Number number) {
    std::array<char, 2 * sizeof(Number)> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
    text.append(digits.data(), end);
}

/// Takes a number and what ends it off the front.
template <typename Number>
bool TakeHex(std::string_view& text, Number& number, std::string_view ending) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
    if (error != std::errc() || text[0] == '-') {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(rest - text.data()));
    if (!text.starts_with(ending)) {
        return false;
    }
    text.remove_prefix(ending.size());
    return true;
}

void AppendCursor(std::string& text, std::string_view prefix, const LogMark& mark) {
    text += prefix;
    text += '-';
    AppendHex(text, mark.time);
    text += '-';
    AppendHex(text, mark.index);
}

}  // namespace

std::optional<LogCursor> LogCursor::Read(std::string_view text) {
    LogCursor cursor;
    const size_t length = text.substr(0, LongestText).find('-');
    if (text.size() > LongestText || length == std::string_view::npos || length == 0 || length > IdLength) {
        return {};
    }
    cursor.container = text.substr(0, length);
    text.remove_prefix(length + 1);
    const bool isId = std::all_of(cursor.container.begin(), cursor.container.end(), IsIdCharacter);
    if (!isId || !TakeHex(text, cursor.mark.time, "-") || !TakeHex(text, cursor.mark.index, "") ||
        !text.empty() || cursor.mark.index == 0) {
        return {};
    }
    return cursor;
}

std::string LogCursor::Write() const {
    std::string text;
    AppendCursor(text, std::string_view(container).substr(0, IdLength), mark);
    return text;
}

bool LogCursor::IsOf(std::string_view containerId) const {
    return containerId.substr(0, IdLength) == container;
}

size_t LogLine::Cost() const {
    constexpr size_t Allocation = 16;
    constexpr size_t Counters = 16;
    return sizeof(LogLine) + Counters + json.capacity() + 2 * Allocation + sizeof(LogLinePtr);
}

LogLineMaker::LogLineMaker(std::string_view containerId) : _prefix(containerId.substr(0, IdLength)) {}

LogLinePtr LogLineMaker::Make(const LogParser::Piece& piece) {
    _last = {piece.time, piece.time == _last.time ? _last.index + 1 : 1};
    _json = R"({"cursor":")";
    AppendCursor(_json, _prefix, _last);
    _json += R"(","time":")";
    _json += piece.timeText;
    _json += R"(","stream":")";
    _json += Names[static_cast<size_t>(piece.source)];
    _json += R"(","text":")";
    LogText::AppendJson(_json, piece.text);
    _json += piece.isPartial ? R"(","partial":true})" : R"("})";
    return std::make_shared<const LogLine>(
        LogLine{.mark = _last, .source = piece.source, .isPartial = piece.isPartial, .json = _json});
}
