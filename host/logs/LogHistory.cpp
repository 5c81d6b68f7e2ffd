#include "LogHistory.h"

#include <algorithm>

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
        const auto whole = std::find_if(_lines.begin(), _lines.end(), [&](const LogLinePtr& line) {
            return line->mark.time != _firstTime;
        });
        _lines.erase(_lines.begin(), whole);
    }
    result.lines.assign(_lines.begin(), _lines.end());
    if (!result.lines.empty()) {
        result.since = result.lines.back()->mark.time - 1;
    } else if (IsCut()) {
        result.since = _firstTime - 1;
    }
    return result;
}
