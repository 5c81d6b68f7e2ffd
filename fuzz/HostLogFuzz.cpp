// Any bytes as Podman's log stream to the daemon. The first byte says whether there is a terminal, the second how many
// bytes come at a time. The same bytes are taken as a time, as text for JSON and as a cursor.

#include "LogLine.h"
#include "LogParser.h"
#include "LogText.h"
#include "Support.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Fuzz::Require;
using nlohmann::json;

constexpr std::int64_t Second = 1'000'000'000;

// --- Times ---

bool IsOf(std::string_view text, std::string_view pattern) {
    return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                      [](char c, char place) { return place == '0' ? c >= '0' && c <= '9' : c == place; });
}

int NumberAt(std::string_view text, size_t at, size_t digits) {
    return std::stoi(std::string(text.substr(at, digits)));
}

bool IsOfAClock(std::string_view time, std::string_view offset) {
    return NumberAt(time, 11, 2) < 24 && NumberAt(time, 14, 2) < 60 && NumberAt(time, 17, 2) < 60 &&
           (offset == "Z" || (NumberAt(offset, 1, 2) < 24 && NumberAt(offset, 4, 2) < 60));
}

/// With the C library's calendar.
std::optional<std::int64_t> ReadTimePlainly(std::string_view text) {
    const std::string_view time = text.substr(0, 19);
    std::string_view rest = text.substr(time.size());
    std::string fraction;
    if (rest.starts_with('.')) {
        const size_t end = std::min(rest.find_first_not_of("0123456789", 1), rest.size());
        fraction = rest.substr(1, end - 1);
        rest.remove_prefix(end);
    }
    const bool isEast = IsOf(rest, "+00:00");
    if (!IsOf(time, "0000-00-00T00:00:00") || fraction.size() > 9 ||
        (rest != "Z" && !isEast && !IsOf(rest, "-00:00"))) {
        return {};
    }
    if (!IsOfAClock(time, rest)) {
        return {};
    }
    fraction.resize(9, '0');
    std::tm parts{};
    parts.tm_year = NumberAt(time, 0, 4) - 1900;
    parts.tm_mon = NumberAt(time, 5, 2) - 1;
    parts.tm_mday = NumberAt(time, 8, 2);
    const std::tm before = parts;
    parts.tm_hour = NumberAt(time, 11, 2);
    parts.tm_min = NumberAt(time, 14, 2);
    parts.tm_sec = NumberAt(time, 17, 2);
    std::int64_t seconds = timegm(&parts);
    const bool isDate =
        parts.tm_year == before.tm_year && parts.tm_mon == before.tm_mon && parts.tm_mday == before.tm_mday;
    const int offset = rest == "Z" ? 0 : NumberAt(rest, 1, 2) * 3600 + NumberAt(rest, 4, 2) * 60;
    seconds -= isEast ? offset : -offset;
    if (!isDate || seconds < 0 || before.tm_year < 70 || before.tm_year > 361) {
        return {};
    }
    return seconds * Second + std::stoll(fraction);
}

void CheckTime(std::string_view text) {
    const auto time = LogText::ReadTime(text);
    Require(time == ReadTimePlainly(text));
    Require(!time || *time >= 0);
    constexpr std::int64_t FirstOf2262 = 9214646400 * Second;
    if (time && *time < FirstOf2262) {
        Require(LogText::ReadTime(LogText::WriteTime(*time)) == time);
    }
}

// --- UTF-8 and JSON ---

/// @return whether the bytes are one whole character
bool IsCharacter(std::string_view bytes) {
    constexpr std::array<std::uint32_t, 5> Lowest{0, 0, 0x80, 0x800, 0x10000};
    constexpr std::array<unsigned, 5> Leads{0, 0, 0xc0, 0xe0, 0xf0};
    if (bytes.size() < 2 || bytes.size() > 4) {
        return false;
    }
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const unsigned mask = 0xff >> (bytes.size() + 1);
    std::uint32_t code = lead & mask;
    bool isGood = (lead & ~mask & 0xff) == Leads[bytes.size()];
    for (const char c : bytes.substr(1)) {
        isGood = isGood && (c & 0xc0) == 0x80;
        code = code << 6 | (c & 0x3f);
    }
    return isGood && code >= Lowest[bytes.size()] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
}

bool CanBecomeCharacter(const std::string& bytes) {
    for (const char next : {'\x80', '\x90', '\xa0', '\xbf'}) {
        const std::string more = bytes + next;
        if (IsCharacter(more) || (more.size() < 4 && CanBecomeCharacter(more))) {
            return true;
        }
    }
    return false;
}

size_t IncompleteEndPlainly(std::string_view bytes) {
    for (size_t length = std::min<size_t>(3, bytes.size()); length > 0; --length) {
        if (CanBecomeCharacter(std::string(bytes.substr(bytes.size() - length)))) {
            return length;
        }
    }
    return 0;
}

void CheckText(std::string_view bytes) {
    Require(LogText::IncompleteEnd(bytes) == IncompleteEndPlainly(bytes));
    const std::string cleaned = json(bytes).dump(-1, ' ', false, json::error_handler_t::replace);
    Require(json::parse(LogText::Quoted(bytes)) == json::parse(cleaned));
}

// --- Cursors ---

void CheckCursor(std::string_view text) {
    const auto cursor = LogCursor::Read(text);
    if (!cursor) {
        return;
    }
    Require(!cursor->container.empty() && cursor->container.size() <= 16 && cursor->mark.index > 0);
    Require(cursor->mark.time >= 0 && cursor->IsOf(cursor->container));
    const auto same = LogCursor::Read(cursor->Write());
    Require(same && same->container == cursor->container && same->mark == cursor->mark);
}

// --- The stream ---

/// A line or part of one, with texts of its own.
struct Line {
    LogSource source;
    std::int64_t time;
    std::string timeText;
    std::string text;
    bool isPartial;

    bool operator==(const Line&) const = default;
};

struct Parsed {
    std::vector<Line> lines;
    bool isBroken = false;
    std::string broken = {};
};

Parsed Parse(std::string_view bytes, bool hasTerminal, size_t lineBytes, size_t piece) {
    Parsed parsed;
    LogParser parser(hasTerminal, lineBytes);
    LogLineMaker maker("0123456789abcdef0123");
    for (size_t at = 0; at < bytes.size(); at += piece) {
        // A copy of exactly its size, so that the sanitizer sees every byte read beyond it.
        const std::vector<char> chunk(
            bytes.begin() + static_cast<std::ptrdiff_t>(at),
            bytes.begin() + static_cast<std::ptrdiff_t>(std::min(at + piece, bytes.size())));
        parsed.isBroken = !parser.Take({chunk.data(), chunk.size()}, [&](const LogParser::Piece& given) {
            Require(given.text.size() <= lineBytes);
            parsed.lines.push_back({given.source, given.time, std::string(given.timeText),
                                    std::string(given.text), given.isPartial});
            const auto line = maker.Make(given);
            const json object = json::parse(line->json);
            const auto cursor = LogCursor::Read(object["cursor"].get<std::string>());
            Require(cursor && cursor->mark == line->mark && cursor->IsOf("0123456789abcdef"));
            Require(object["time"] == given.timeText && object.contains("partial") == given.isPartial);
        });
    }
    parsed.broken = parser.Broken();
    Require(parsed.isBroken != parsed.broken.empty());
    return parsed;
}

/// Whole frames of the whole stream, and lines of any length.
Parsed ParsePlainly(std::string_view bytes, bool hasTerminal) {
    Parsed parsed;
    std::string timeText = "1970-01-01T00:00:00Z";
    std::int64_t time = 0;
    std::array<std::string, 3> cut;
    while (!bytes.empty()) {
        for (size_t i = 0; i < std::min<size_t>(4, bytes.size()); ++i) {
            parsed.isBroken =
                parsed.isBroken || (i == 0 ? static_cast<unsigned char>(bytes[0]) > 2 : bytes[i] != 0);
        }
        if (parsed.isBroken) {
            parsed.broken = bytes;
            return parsed;
        }
        if (bytes.size() < 8) {
            return parsed;
        }
        size_t length = 0;
        for (size_t i = 4; i < 8; ++i) {
            length = length * 256 + static_cast<unsigned char>(bytes[i]);
        }
        const LogSource source = hasTerminal     ? LogSource::Tty
                                 : bytes[0] == 2 ? LogSource::Stderr
                                                 : LogSource::Stdout;
        bytes.remove_prefix(8);
        if (length > bytes.size()) {
            return parsed;
        }
        std::string text(bytes.substr(0, length));
        bytes.remove_prefix(length);
        if (length == 0) {
            continue;
        }
        constexpr size_t LongestTime = 40;
        const std::string first = text.substr(0, std::min(text.find(' '), text.size()));
        const auto read = LogText::ReadTime(first);
        if (first.size() < std::min(LongestTime, text.size()) && (read || first == timeText)) {
            time = read.value_or(time);
            timeText = first;
            text.erase(0, first.size() + 1);
        }
        std::string& end = cut[static_cast<size_t>(source)];
        text.insert(0, end);
        end.clear();
        const bool isPartial = !text.ends_with('\n');
        if (isPartial) {
            end = text.substr(text.size() - IncompleteEndPlainly(text));
            text.resize(text.size() - end.size());
        } else {
            text.resize(text.size() - (hasTerminal && text.ends_with("\r\n") ? 2 : 1));
        }
        if (!isPartial || !text.empty()) {
            parsed.lines.push_back({source, time, timeText, text, isPartial});
        }
    }
    return parsed;
}

void CheckBroken(const std::string& left, const std::string& right) {
    constexpr size_t LongestBroken = 1024;
    constexpr size_t Mark = 8;
    Require(left.starts_with(right) || right.starts_with(left));
    Require(left.size() <= LongestBroken + Mark);
    Require(std::min(left.size(), LongestBroken) == std::min(right.size(), LongestBroken));
}

void CheckStream(std::string_view bytes, bool hasTerminal, size_t piece) {
    constexpr size_t Short = 64;
    const Parsed plain = ParsePlainly(bytes, hasTerminal);
    const Parsed whole = Parse(bytes, hasTerminal, bytes.size() + Short, bytes.size());
    Require(whole.lines == plain.lines && whole.isBroken == plain.isBroken);
    CheckBroken(whole.broken, plain.broken);
    const Parsed cut = Parse(bytes, hasTerminal, Short, bytes.size());
    const Parsed inPieces = Parse(bytes, hasTerminal, Short, piece);
    Require(inPieces.lines == cut.lines && inPieces.isBroken == cut.isBroken);
    CheckBroken(inPieces.broken, cut.broken);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    const std::string bytes(data + 2, data + size);
    CheckStream(bytes, (data[0] & 1) != 0, data[1] + size_t{1});
    CheckText(bytes);
    CheckCursor(bytes);
    for (size_t at = 0; at < bytes.size();) {
        const size_t end = std::min(bytes.find(' ', at), bytes.size());
        CheckTime(std::string_view(bytes).substr(at, end - at));
        at = end + 1;
    }
    return 0;
}
