#include "LogText.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <limits>

namespace {

using std::chrono::day;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr int EarliestYear = 1970;
constexpr int LatestYear = 2261;
constexpr int FractionDigits = 9;
constexpr std::int64_t Second = 1'000'000'000;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

/// Takes pieces off the front of a text and remembers whether one was missing.
class Reader {
public:
    explicit Reader(std::string_view text) : _text(text) {}

    int Number(size_t digits, int greatest = std::numeric_limits<int>::max()) {
        int number = 0;
        for (size_t i = 0; i < digits; ++i) {
            number = number * 10 + (Has(i) && IsDigit(_text[i]) ? _text[i] - '0' : Fail());
        }
        Skip(digits);
        return number <= greatest ? number : Fail();
    }

    bool TakeIf(char c) {
        const bool is = Has(0) && _text[0] == c;
        Skip(is ? 1 : 0);
        return is;
    }

    void Character(char c) {
        if (!TakeIf(c)) {
            Fail();
        }
    }

    /// Digits behind a point, as nanoseconds.
    std::int64_t Fraction() {
        std::int64_t value = 0;
        int digits = 0;
        for (; Has(0) && IsDigit(_text[0]); Skip(1)) {
            value = value * 10 + (_text[0] - '0');
            if (++digits > FractionDigits) {
                return Fail();
            }
        }
        for (; digits < FractionDigits; ++digits) {
            value *= 10;
        }
        return value;
    }

    bool IsRead() const { return _isGood && _text.empty(); }

private:
    bool Has(size_t index) const { return index < _text.size(); }
    void Skip(size_t count) { _text.remove_prefix(std::min(count, _text.size())); }
    int Fail() {
        _isGood = false;
        return 0;
    }

    std::string_view _text;
    bool _isGood = true;
};

std::int64_t ReadOffset(Reader& reader) {
    if (reader.TakeIf('Z')) {
        return 0;
    }
    const bool isEast = reader.TakeIf('+');
    if (!isEast) {
        reader.Character('-');
    }
    const int hours = reader.Number(2, 23);
    reader.Character(':');
    const std::int64_t seconds = hours * 3600 + reader.Number(2, 59) * 60;
    return isEast ? seconds : -seconds;
}

/// How the bytes of a UTF-8 character may go on after its first one.
struct Lead {
    int more = 0;  ///< bytes that follow; 0: this byte begins no character of several bytes
    unsigned char lowest = 0x80;
    unsigned char highest = 0xbf;  ///< of the first byte that follows
};

constexpr Lead LeadOf(unsigned char byte) {
    switch (byte) {
        case 0xe0:
            return {2, 0xa0, 0xbf};
        case 0xed:
            return {2, 0x80, 0x9f};
        case 0xf0:
            return {3, 0x90, 0xbf};
        case 0xf4:
            return {3, 0x80, 0x8f};
        default:
            break;
    }
    if (byte >= 0xc2 && byte <= 0xdf) {
        return {1};
    }
    if (byte >= 0xe1 && byte <= 0xef) {
        return {2};
    }
    return byte >= 0xf1 && byte <= 0xf3 ? Lead{3} : Lead{};
}

/// A character of several bytes, or what is there of it.
struct Character {
    size_t length;  ///< bytes that belong together
    bool isWhole;
};

Character CharacterAt(std::string_view bytes) {
    const Lead lead = LeadOf(static_cast<unsigned char>(bytes[0]));
    size_t length = 1;
    for (int i = 0; i < lead.more; ++i, ++length) {
        const auto byte = length < bytes.size() ? static_cast<unsigned char>(bytes[length]) : 0;
        const bool isFirst = i == 0;
        if (byte < (isFirst ? lead.lowest : 0x80) || byte > (isFirst ? lead.highest : 0xbf)) {
            return {length, false};
        }
    }
    return {length, lead.more != 0};
}

constexpr bool IsPlain(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
}

void AppendEscape(std::string& json, char c) {
    constexpr std::string_view Short = "\"\"\\\\\bb\ff\nn\rr\tt";
    for (size_t i = 0; i < Short.size(); i += 2) {
        if (Short[i] == c) {
            json += '\\';
            json += Short[i + 1];
            return;
        }
    }
    std::array<char, 8> escape{};
    snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    json += escape.data();
}

}  // namespace

namespace LogText {

std::optional<std::int64_t> ReadTime(std::string_view text) {
    Reader reader(text);
    const int years = reader.Number(4);
    reader.Character('-');
    const int months = reader.Number(2);
    reader.Character('-');
    const int days = reader.Number(2);
    reader.Character('T');
    const int hours = reader.Number(2, 23);
    reader.Character(':');
    const int minutes = reader.Number(2, 59);
    reader.Character(':');
    const int seconds = reader.Number(2, 59);
    const std::int64_t fraction = reader.TakeIf('.') ? reader.Fraction() : 0;
    const std::int64_t offset = ReadOffset(reader);
    const year_month_day date(year(years), month(static_cast<unsigned>(months)),
                              day(static_cast<unsigned>(days)));
    if (!reader.IsRead() || years < EarliestYear || years > LatestYear || !date.ok()) {
        return {};
    }
    const std::int64_t day = sys_days(date).time_since_epoch().count();
    const std::int64_t time = ((day * 24 + hours) * 60 + minutes) * 60 + seconds - offset;
    return time < 0 ? std::nullopt : std::optional(time * Second + fraction);
}

std::string WriteTime(std::int64_t time) {
    constexpr std::int64_t Day = 24LL * 3600 * Second;
    const year_month_day date{sys_days(std::chrono::days(time / Day))};
    const auto seconds = static_cast<int>(time % Day / Second);
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%09dZ", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), seconds / 3600,
             seconds / 60 % 60, seconds % 60, static_cast<int>(time % Second));
    return text.data();
}

size_t IncompleteEnd(std::string_view bytes) {
    for (size_t length = 1; length <= std::min<size_t>(3, bytes.size()); ++length) {
        const std::string_view end = bytes.substr(bytes.size() - length);
        if (LeadOf(static_cast<unsigned char>(end[0])).more != 0) {
            const Character character = CharacterAt(end);
            return !character.isWhole && character.length == length ? length : 0;
        }
    }
    return 0;
}

void AppendJson(std::string& json, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto* const special = std::find_if_not(bytes.begin(), bytes.end(), IsPlain);
        json.append(bytes.begin(), special);
        bytes.remove_prefix(static_cast<size_t>(special - bytes.begin()));
        if (bytes.empty()) {
            return;
        }
        size_t length = 1;
        if (static_cast<unsigned char>(bytes[0]) < 0x80) {
            AppendEscape(json, bytes[0]);
        } else {
            const Character character = CharacterAt(bytes);
            length = character.length;
            json += character.isWhole ? bytes.substr(0, length) : "\xef\xbf\xbd";
        }
        bytes.remove_prefix(length);
    }
}

std::string Quoted(std::string_view bytes) {
    std::string json = "\"";
    AppendJson(json, bytes);
    return json + '"';
}

}  // namespace LogText
