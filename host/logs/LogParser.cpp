#include "LogParser.h"

#include "LogText.h"

#include <algorithm>

namespace {

constexpr size_t SmallestLine = 64;
constexpr size_t LongestTime = 40;
constexpr size_t LongestBroken = 1024;

}  // namespace

LogParser::LogParser(bool hasTerminal, size_t lineBytes)
    : _hasTerminal(hasTerminal), _lineBytes(std::max(lineBytes, SmallestLine)) {}

bool LogParser::Take(std::string_view bytes, const Sink& sink) {
    while (!bytes.empty()) {
        if (_isBroken) {
            _broken += bytes.substr(0, LongestBroken - std::min(LongestBroken, _broken.size()));
            return false;
        }
        if (_markSize < MarkSize) {
            TakeMark(bytes);
        } else {
            TakePayload(bytes, sink);
        }
    }
    return !_isBroken;
}

void LogParser::TakeMark(std::string_view& bytes) {
    const size_t count = std::min(bytes.size(), MarkSize - _markSize);
    bytes.copy(_mark.data() + _markSize, count);
    bytes.remove_prefix(count);
    _markSize += count;
    CheckMark(bytes);
}

void LogParser::CheckMark(std::string_view& bytes) {
    constexpr char LastSource = 2;
    const std::string_view mark(_mark.data(), std::min<size_t>(_markSize, 4));
    if (mark[0] < 0 || mark[0] > LastSource ||
        mark.substr(1).find_first_not_of('\0') != std::string_view::npos) {
        _isBroken = true;
        _broken.assign(_mark.data(), _markSize);
        _broken += bytes.substr(0, LongestBroken);
        bytes = {};
        return;
    }
    if (_markSize < MarkSize) {
        return;
    }
    for (size_t i = 4; i < MarkSize; ++i) {
        _rest = _rest << 8 | static_cast<unsigned char>(_mark[i]);
    }
    _source = _hasTerminal ? LogSource::Tty : _mark[0] == LastSource ? LogSource::Stderr : LogSource::Stdout;
    _text.clear();
    _hasTime = false;
    if (_rest == 0) {
        _markSize = 0;
    }
}

void LogParser::TakePayload(std::string_view& bytes, const Sink& sink) {
    // One byte more than a piece may have tells whether only the line feed is missing.
    const size_t room = (_hasTime ? _lineBytes + 1 : LongestTime) - _text.size();
    const size_t count = std::min({bytes.size(), static_cast<size_t>(_rest), room});
    _text.append(bytes, 0, count);
    bytes.remove_prefix(count);
    _rest -= static_cast<std::uint32_t>(count);
    if (!_hasTime) {
        TakeTime();
    }
    if (_rest == 0) {
        FinishFrame(sink);
    } else if (_text.size() > _lineBytes) {
        GivePart(sink);
    }
}

void LogParser::TakeTime() {
    const size_t blank = _text.find(' ');
    if (blank == std::string::npos && _text.size() < LongestTime && _rest != 0) {
        return;
    }
    _hasTime = true;
    if (blank != std::string::npos) {
        const std::string_view text(_text.data(), blank);
        if (text == _timeText) {
            _text.erase(0, blank + 1);
        } else if (const auto time = LogText::ReadTime(text)) {
            _time = *time;
            _timeText = text;
            _text.erase(0, blank + 1);
        }
    }
    std::string& cut = _cut[static_cast<size_t>(_source)];
    if (!cut.empty()) {
        _text.insert(0, cut);
        cut.clear();
    }
}

void LogParser::FinishFrame(const Sink& sink) {
    _markSize = 0;
    const bool isPartial = _text.empty() || _text.back() != '\n';
    if (!isPartial) {
        _text.pop_back();
        if (_hasTerminal && !_text.empty() && _text.back() == '\r') {
            _text.pop_back();
        }
    }
    if (_text.size() > _lineBytes) {
        GivePart(sink);
    }
    if (!isPartial) {
        Give(sink, _text, false);
        return;
    }
    const size_t cut = LogText::IncompleteEnd(_text);
    _cut[static_cast<size_t>(_source)] = _text.substr(_text.size() - cut);
    _text.resize(_text.size() - cut);
    if (!_text.empty()) {
        Give(sink, _text, true);
    }
}

void LogParser::GivePart(const Sink& sink) {
    const std::string_view text = std::string_view(_text).substr(0, _lineBytes);
    const size_t length = text.size() - LogText::IncompleteEnd(text);
    Give(sink, text.substr(0, length), true);
    _text.erase(0, length);
}

void LogParser::Give(const Sink& sink, std::string_view text, bool isPartial) const {
    sink(Piece{_source, _time, _timeText, text, isPartial});
}
