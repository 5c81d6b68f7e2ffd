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
/// @param sink  called with (payload, length); false ends the walk
/// @param rest  receives where the incomplete rest begins; `end` when there is none
/// @return false when the sink ended the walk
template <typename Sink>
bool ForEachFrame(const unsigned char* bytes, const unsigned char* end, Sink& sink,
                  const unsigned char*& rest) {
    while (static_cast<size_t>(end - bytes) >= FrameHeaderSize) {
        const size_t payload = PayloadLengthOf(bytes);
        if (static_cast<size_t>(end - bytes) - FrameHeaderSize < payload) {
            break;
        }
        bytes += FrameHeaderSize;
        if (payload != 0 && !sink(bytes, payload)) {
            return false;
        }
        bytes += payload;
    }
    rest = bytes;
    return true;
}

/// @return whether there is more than an incomplete frame, which Demultiplex() itself never leaves
inline bool HoldsFrame(const std::vector<unsigned char>& pending) {
    return pending.size() >= FrameHeaderSize &&
           pending.size() - FrameHeaderSize >= PayloadLengthOf(pending.data());
}

/// Appends to `pending`, which holds no whole frame, what its frame still lacks, as far as the bytes have it.
/// @param bytes  receives where what was not taken begins
/// @return whether the frame is complete
inline bool CompleteFrame(std::vector<unsigned char>& pending, const unsigned char*& bytes,
                          const unsigned char* end) {
    const auto fillTo = [&](std::uint64_t size) {
        const std::uint64_t missing = size - pending.size();
        const unsigned char* const from = bytes;
        bytes += std::min<std::uint64_t>(missing, static_cast<std::uint64_t>(end - bytes));
        pending.insert(pending.end(), from, bytes);
        return pending.size() == size;
    };
    if (pending.size() < FrameHeaderSize && !fillTo(FrameHeaderSize)) {
        return false;
    }
    return fillTo(FrameHeaderSize + std::uint64_t{PayloadLengthOf(pending.data())});
}

/// Takes one chunk of the stream. Whole frames go to the sink straight from the chunk; only a frame that is
/// not complete yet is copied, so that a frame in many pieces costs each byte once, and memory grows with the
/// bytes that arrived, whatever a header claims.
/// @param pending  the incomplete frame at the end of what came before, or any bytes of the stream up to the
///                 chunk; afterwards the incomplete frame at the end of this chunk
/// @return false when the sink refused a payload; nothing is pending then
template <typename Sink>
bool Demultiplex(std::vector<unsigned char>& pending, const unsigned char* bytes, size_t length, Sink sink) {
    const unsigned char* const end = bytes + length;
    if (HoldsFrame(pending)) {
        const unsigned char* rest = nullptr;
        if (!ForEachFrame(pending.data(), pending.data() + pending.size(), sink, rest)) {
            pending.clear();
            return false;
        }
        pending.erase(pending.begin(), pending.begin() + (rest - pending.data()));
    }
    if (!pending.empty()) {
        if (!CompleteFrame(pending, bytes, end)) {
            return true;
        }
        const size_t payload = pending.size() - FrameHeaderSize;
        const bool goesOn = payload == 0 || sink(pending.data() + FrameHeaderSize, payload);
        pending.clear();
        if (!goesOn) {
            return false;
        }
    }
    const unsigned char* rest = nullptr;
    if (!ForEachFrame(bytes, end, sink, rest)) {
        return false;
    }
    if (rest != end) {
        pending.assign(rest, end);
    }
    return true;
}

}  // namespace QxNContainer::QxNLogStream
