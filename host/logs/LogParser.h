#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/// Where a container wrote a line. With a terminal there is only one way out.
enum class LogSource : std::uint8_t { Stdout, Stderr, Tty };

/// Cuts the log stream of Podman's own interface, with its marks and with times, into lines. No I/O: bytes in memory
/// go in, lines go to a sink.
///
/// The stream consists of frames: a mark of 8 bytes (source, three zeros, length as unsigned 32-bit big-endian) and
/// "TIME TEXT\n", where the line feed is missing when the line goes on in the source's next frame. Chunks may be cut
/// anywhere. Memory is bounded by the longest line. Any bytes are survived: what has no time gets the one before, and
/// with a wrong mark the stream is broken for good.
class LogParser {
public:
    /// A line or a part of one; the texts are the parser's and gone after the call.
    struct Piece {
        LogSource source;
        std::int64_t time;          ///< nanoseconds since the epoch
        std::string_view timeText;  ///< as received, without blanks
        std::string_view text;      ///< bytes without their line feed
        bool isPartial;             ///< the line goes on in the source's next piece
    };
    using Sink = std::function<void(const Piece&)>;

    /// @param hasTerminal  all lines are the terminal's, and end with a carriage return and a line feed
    /// @param lineBytes    longest text of a piece; at least 64 are allowed
    LogParser(bool hasTerminal, size_t lineBytes);

    /// Takes the next bytes of the stream.
    /// @return false when the stream is broken
    bool Take(std::string_view bytes, const Sink& sink);

    /// @return what came instead of the stream, such as the text of an error; its beginning only
    const std::string& Broken() const { return _broken; }

private:
    static constexpr size_t MarkSize = 8;

    void TakeMark(std::string_view& bytes);
    void CheckMark(std::string_view& bytes);
    void TakePayload(std::string_view& bytes, const Sink& sink);
    void TakeTime();
    void FinishFrame(const Sink& sink);
    void GivePart(const Sink& sink);
    void Give(const Sink& sink, std::string_view text, bool isPartial) const;

    const bool _hasTerminal;
    const size_t _lineBytes;
    std::array<char, MarkSize> _mark{};
    size_t _markSize = 0;
    std::uint32_t _rest = 0;  ///< bytes of the frame that are still to come
    bool _hasTime = false;    ///< of this frame; the text is then without it
    std::string _text;
    std::int64_t _time = 0;
    std::string _timeText = "1970-01-01T00:00:00Z";
    /// Ends of pieces that cut a character, by source, for the next piece.
    std::array<std::string, 3> _cut;
    LogSource _source = LogSource::Stdout;
    bool _isBroken = false;
    std::string _broken;
};
