#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

/// Cutting Podman's multiplexed log stream into frames. No I/O: bytes in memory go in, payloads go to a sink.
///
/// A frame is a header of 8 bytes (stream, three reserved bytes, payload length as unsigned 32-bit
/// big-endian) and its payload, as in Podman's REST API for attaching to and reading the logs of a container.
namespace QxNContainer::QxNLogStream {

inline constexpr size_t FrameHeaderSize = 8;

/// @param header  the 8 bytes of a frame's header
inline std::uint32_t PayloadLengthOf(const unsigned char* header) {
    std::uint32_t length = 0;
    std::memcpy(&length, header + 4, sizeof(length));
    return __builtin_bswap32(length);
}

/// Hands every complete frame in the bytes to the sink; a frame without payload is passed over.
/// @param sink      called with (payload, length); false ends the walk
/// @param consumed  receives the bytes of the complete frames
/// @return false when the sink ended the walk
template <typename Sink>
bool ForEachFrame(const unsigned char* bytes, size_t length, Sink& sink, size_t& consumed) {
    consumed = 0;
    while (length - consumed >= FrameHeaderSize) {
        const unsigned char* frame = bytes + consumed;
        const std::uint32_t payload = PayloadLengthOf(frame);
        if (length - consumed - FrameHeaderSize < payload) {
            break;
        }
        if (payload != 0 && !sink(frame + FrameHeaderSize, payload)) {
            return false;
        }
        consumed += FrameHeaderSize + payload;
    }
    return true;
}

/// Appends to `pending` what is still missing of its first frame, as far as the chunk has it.
/// @return how many bytes of the chunk were taken
inline size_t CompleteFirstFrame(std::vector<unsigned char>& pending, const unsigned char* bytes,
                                 size_t length) {
    size_t taken = 0;
    const auto take = [&](std::uint64_t wanted) {
        const std::uint64_t missing = wanted > pending.size() ? wanted - pending.size() : 0;
        const auto part = static_cast<size_t>(std::min<std::uint64_t>(missing, length - taken));
        pending.insert(pending.end(), bytes + taken, bytes + taken + part);
        taken += part;
    };
    take(FrameHeaderSize);
    if (pending.size() >= FrameHeaderSize) {
        take(FrameHeaderSize + std::uint64_t{PayloadLengthOf(pending.data())});
    }
    return taken;
}

/// Takes one chunk of the stream. Whole frames go to the sink straight from the chunk; only a frame that is
/// not complete yet is copied, so that a frame in many pieces costs each byte once, and memory grows with the
/// bytes that arrived, whatever a header claims.
/// @param pending  the incomplete frame at the end of what came before; afterwards that at the end of this
/// chunk
/// @return false when the sink refused a payload; nothing is pending then
template <typename Sink>
bool Demultiplex(std::vector<unsigned char>& pending, const unsigned char* bytes, size_t length, Sink sink) {
    size_t consumed = 0;
    if (!pending.empty()) {
        const size_t taken = CompleteFirstFrame(pending, bytes, length);
        if (!ForEachFrame(pending.data(), pending.size(), sink, consumed)) {
            pending.clear();
            return false;
        }
        if (consumed == 0) {
            return true;
        }
        pending.clear();
        bytes += taken;
        length -= taken;
    }
    if (!ForEachFrame(bytes, length, sink, consumed)) {
        return false;
    }
    pending.assign(bytes + consumed, bytes + length);
    return true;
}

}  // namespace QxNContainer::QxNLogStream
