// The log demultiplexer against the plainest way to do the same, with chunks cut by the input.

#include "podman/LogDemultiplexer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

/// What came out, and what is pending; the sink refuses after some payloads.
struct Outcome {
    std::vector<Bytes> payloads;
    Bytes pending;
    bool goesOn = true;

    bool Take(const unsigned char* data, size_t length, size_t accepted) {
        if (payloads.size() >= accepted) {
            return false;
        }
        payloads.emplace_back(data, data + length);
        return true;
    }
    bool operator==(const Outcome&) const = default;
};

/// Appends everything and cuts frames off the front.
void FeedPlainly(Outcome& outcome, const Bytes& chunk, size_t accepted) {
    Bytes& all = outcome.pending;
    all.insert(all.end(), chunk.begin(), chunk.end());
    while (all.size() >= 8 && outcome.goesOn) {
        const size_t length = size_t{all[4]} << 24 | size_t{all[5]} << 16 | size_t{all[6]} << 8 | all[7];
        if (all.size() - 8 < length) {
            return;
        }
        outcome.goesOn = length == 0 || outcome.Take(all.data() + 8, length, accepted);
        all.erase(all.begin(),
                  outcome.goesOn ? all.begin() + static_cast<std::ptrdiff_t>(8 + length) : all.end());
    }
}

}  // namespace

// The first byte says how many payloads are accepted; then chunks follow, each after a byte with its length.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t accepted = data[0] < 128 ? SIZE_MAX : data[0] - size_t{128};
    Outcome ours;
    Outcome plain;
    for (size_t at = 1; at < size && plain.goesOn;) {
        const size_t length = std::min<size_t>(data[at], size - at - 1);
        // A copy of exactly its size, so that the sanitizer sees every byte read beyond it.
        const Bytes chunk(data + at + 1, data + at + 1 + length);
        at += 1 + length;
        ours.goesOn = QxNContainer::QxNLogStream::Demultiplex(
            ours.pending, chunk.data(), chunk.size(),
            [&](const unsigned char* bytes, size_t count) { return ours.Take(bytes, count, accepted); });
        FeedPlainly(plain, chunk, accepted);
        if (!(ours == plain) || ours.pending.capacity() > 2 * size + 64) {
            abort();
        }
    }
    return 0;
}
