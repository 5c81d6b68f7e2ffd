#pragma once

#include "LogParser.h"

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// The place of a line in its container's log: its time, and how many lines with this time there are up to it. Lines
/// that a container writes at once have the same time.
struct LogMark {
    std::int64_t time = 0;    ///< nanoseconds since the epoch
    std::uint32_t index = 0;  ///< from 1

    bool operator==(const LogMark&) const = default;
};

/// Names a line of a log for a client that comes back; opaque to it.
struct LogCursor {
    std::string container;  ///< the beginning of the container's id
    LogMark mark;

    static constexpr size_t LongestText = 200;

    /// @return nothing when the text is no cursor
    static std::optional<LogCursor> Read(std::string_view text);
    std::string Write() const;
    bool IsOf(std::string_view containerId) const;
};

/// A line, or a part of a long one, as all viewers share it.
struct LogLine {
    LogMark mark;
    LogSource source;
    bool isPartial;    ///< the line goes on in the next one of this source
    std::string json;  ///< the object that clients get, with cursor, time, stream, text and partial

    /// @return bytes that it takes, with what the allocator and a shared pointer add
    size_t Cost() const;
};

using LogLinePtr = std::shared_ptr<const LogLine>;

/// Makes lines of the pieces of one stream, whose first one is the first with its time.
class LogLineMaker {
public:
    explicit LogLineMaker(std::string_view containerId);

    LogLinePtr Make(const LogParser::Piece& piece);

private:
    std::string _prefix;
    LogMark _last;
    std::string _json;
};
