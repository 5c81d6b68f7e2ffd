#include "LogRing.h"

#include <algorithm>
#include <utility>

void LogRing::Append(LogLinePtr line) {
    bool& isOpen = _isOpen[static_cast<size_t>(line->source)];
    const bool isContinued = std::exchange(isOpen, line->isPartial);
    _bytes += line->Cost();
    _entries.push_back({std::move(line), isContinued});
    while (_entries.size() > 1 && (_entries.size() > _maxLines || _bytes > _maxBytes)) {
        _bytes -= _entries.front().line->Cost();
        _entries.pop_front();
        ++_begin;
    }
}

const LogLinePtr& LogRing::At(std::uint64_t position) const {
    return _entries[static_cast<size_t>(position - _begin)].line;
}

std::uint64_t LogRing::Tail(size_t lines) const {
    std::uint64_t first = End();
    for (std::uint64_t position = End(); lines != 0 && position != _begin;) {
        --position;
        if (!_entries[static_cast<size_t>(position - _begin)].isContinued) {
            first = position;
            --lines;
        }
    }
    return first;
}

std::optional<std::uint64_t> LogRing::After(const LogMark& mark) const {
    const auto found = std::find_if(_entries.rbegin(), _entries.rend(),
                                    [&](const Entry& entry) { return entry.line->mark == mark; });
    if (found == _entries.rend()) {
        return {};
    }
    return End() - static_cast<std::uint64_t>(found - _entries.rbegin());
}
