#pragma once

#include "LogLine.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

/// Finds out what of an answer to the request for the last lines of a log can be relied on.
///
/// While a container writes, Podman reads the last lines first and then from where the file has come to end by then:
/// between the two, lines may be missing. The first line's time may have lines that were cut off. Both matters to
/// those who go on from here, which is done by time and number.
class LogHistory {
public:
    /// @param asked  lines that Podman was asked for
    /// @param bytes  most memory to take; the latest lines are kept
    LogHistory(unsigned asked, size_t bytes) : _asked(asked), _maxBytes(bytes) {}

    void Add(LogLinePtr line);

    /// Where to go on in the log, and what lies before.
    struct Result {
        std::vector<LogLinePtr> lines;
        /// Everything later than this time is to be read; without it the whole log.
        std::optional<std::int64_t> since;
        std::optional<LogMark> last;  ///< the very last line that was seen
    };

    /// @param isFinal  whether nobody wrote meanwhile
    Result Settle(bool isFinal);

private:
    bool IsCut() const;
    /// Drops the lines with the first time, and what is left of a line that began among them.
    void DropBeginning();

    const size_t _asked;
    const size_t _maxBytes;
    std::deque<LogLinePtr> _lines;
    size_t _bytes = 0;
    size_t _dropped = 0;
    size_t _ends = 0;     ///< lines that have their end
    size_t _settled = 0;  ///< pieces that come from the one reading, those dropped included
    bool _wasPartial = false;
    std::int64_t _firstTime = 0;
    std::optional<LogMark> _last;
};
