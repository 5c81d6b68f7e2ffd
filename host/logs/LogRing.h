#pragma once

#include "LogLine.h"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

/// The latest lines of a container's log, bounded by their number and by the memory that they take. Lines have
/// positions, which count from the first one that ever came. No thread safety of its own.
class LogRing {
public:
    LogRing(size_t lines, size_t bytes) : _maxLines(lines), _maxBytes(bytes) {}

    /// Drops the oldest lines as far as needed; the newest one always stays.
    void Append(LogLinePtr line);

    /// @return position of the oldest line
    std::uint64_t Begin() const { return _begin; }
    /// @return position of the next line that comes
    std::uint64_t End() const { return _begin + _entries.size(); }
    /// @param position  at least Begin() and below End()
    const LogLinePtr& At(std::uint64_t position) const;

    /// @return position of the first of the last lines; a line in several parts counts once, and not at all when its
    ///         beginning is gone
    std::uint64_t Tail(size_t lines) const;
    /// @return position behind a line; nothing when the line is not there
    std::optional<std::uint64_t> After(const LogMark& mark) const;

private:
    struct Entry {
        LogLinePtr line;
        bool isContinued;  ///< the line began in an earlier entry
    };

    const size_t _maxLines;
    const size_t _maxBytes;
    std::deque<Entry> _entries;
    std::uint64_t _begin = 0;
    size_t _bytes = 0;
    std::array<bool, 3> _isOpen{};  ///< by source: whether the latest line goes on
};
