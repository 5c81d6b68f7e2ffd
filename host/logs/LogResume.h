#pragma once

#include "LogLine.h"

#include <algorithm>
#include <cstdint>
#include <optional>

/// Passes over the lines of a stream that are known already, when it begins with the time of the last known line or
/// earlier.
class LogResume {
public:
    /// Adds a line to what is known.
    void Know(const LogMark& mark) {
        _isKnown = true;
        _last = mark;
        _latest = std::max(_latest, mark.time);
    }

    /// A new stream begins.
    void Restart() {
        _isBehind = _isKnown;
        _hasMet = false;
    }

    /// @return whether the stream's next line is new; it is known then
    bool IsNew(const LogMark& mark) {
        if (_isBehind && IsOld(mark)) {
            return false;
        }
        _isBehind = false;
        Know(mark);
        return true;
    }

    /// @return the time after which a stream is to begin, so that it begins with the last known line's; nothing when
    ///         no line is known
    std::optional<std::int64_t> Since() const {
        return _isKnown ? std::optional(_last.time - 1) : std::nullopt;
    }

private:
    /// The clock may have been set back within the log: then lines with later times lie before the last known one.
    bool IsOld(const LogMark& mark) {
        if (mark.time == _last.time) {
            _hasMet = true;
            return mark.index <= _last.index;
        }
        return !_hasMet && mark.time <= _latest;
    }

    bool _isKnown = false;
    bool _isBehind = false;
    bool _hasMet = false;
    LogMark _last;
    std::int64_t _latest = 0;
};
