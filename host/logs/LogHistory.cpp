#include "LogHistory.h"

#include <algorithm>
#include <array>

void LogHistory::Add(LogLinePtr line) {
    if (!_last) {
        _firstTime = line->mark.time;
    }
    _last = line->mark;
    if (!line->isPartial) {
        ++_ends;
        // Podman counts an open line at the end as one; the end that follows it may then be from later.
        if (_ends < _asked || (_ends == _asked && !_wasPartial)) {
            _settled = _dropped + _lines.size() + 1;
        }
    }
    _wasPartial = line->isPartial;
    _bytes += line->Cost();
    _lines.push_back(std::move(line));
    for (; _bytes > _maxBytes; ++_dropped) {
        _bytes -= _lines.front()->Cost();
        _lines.pop_front();
    }
}

bool LogHistory::IsCut() const { return _ends + 1 >= _asked; }

LogHistory::Result LogHistory::Settle(bool isFinal) {
    Result result;
    result.last = _last;
    if (!IsCut() && !isFinal) {
        return result;
    }
    const size_t count = isFinal ? _dropped + _lines.size() : _settled;
    _lines.resize(count - std::min(count, _dropped));
    if (IsCut()) {
        DropBeginning();
    }
    result.lines.assign(_lines.begin(), _lines.end());
    if (!result.lines.empty()) {
        result.since = result.lines.back()->mark.time - 1;
    } else if (IsCut()) {
        result.since = _firstTime - 1;
    }
    return result;
}

void LogHistory::DropBeginning() {
    std::array<bool, 3> isOpen{};
    while (!_lines.empty()) {
        const LogLine& line = *_lines.front();
        bool& isContinued = isOpen[static_cast<size_t>(line.source)];
        if (line.mark.time != _firstTime && !isContinued) {
            return;
        }
        isContinued = line.isPartial;
        _lines.pop_front();
    }
}
