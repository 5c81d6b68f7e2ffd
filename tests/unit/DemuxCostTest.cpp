#include "LogStreamClient.h"
#include "QxCContainer.h"
#include "ReplacedNew.h"
#include "podman/LogDemultiplexer.h"

#include <gmock/gmock.h>

using QxNContainer::QxCContainer;
using QxNContainer::QxNLogStream::Demultiplex;

namespace {

size_t allocations = 0;
size_t allocatedBytes = 0;

void* Allocate(size_t size) {
    ++allocations;
    allocatedBytes += size;
    return AllocateReally(size);
}

}  // namespace

namespace {

/// A WebSocket that only counts.
struct CountingClient : QxNSmartWebApi::QxCWebSocket {
    int sendBinary(QxCErrorListPool&, const unsigned char*, unsigned int length, int, bool) override {
        bytes += length;
        return 0;
    }
    size_t bytes = 0;
};

std::string Frames(size_t count, size_t size) {
    std::string stream;
    for (size_t i = 0; i < count; ++i) {
        stream += LogFrame(std::string(size, 'a'));
    }
    return stream;
}

TEST(DemuxCost, NoHeapAllocationInTheSteadyState) {
    QxCContainer& service = QxCContainer::GetInstance();
    const LogStreamErrors errors;
    QxCContainer::QxSLogStreamSession session;
    CountingClient client;
    const std::string stream = Frames(2000, 100);
    const auto feedAll = [&] {
        for (size_t at = 0; at < stream.size(); at += 1000) {
            const size_t length = std::min<size_t>(1000, stream.size() - at);
            service.DemuxAndForwardLogChunk(errors.list, session, &client, stream.data() + at, length);
        }
    };
    feedAll();
    const size_t before = allocations;

    feedAll();
    const size_t after = allocations;

    EXPECT_EQ(after - before, 0U);
    EXPECT_EQ(client.bytes, 400000U);
}

TEST(DemuxCost, OfAFrameInManyPiecesIsLinear) {
    constexpr size_t Size = 16 << 20;
    const std::string frame = LogFrame(std::string(Size, 'a'));
    const auto* bytes = reinterpret_cast<const unsigned char*>(frame.data());
    std::vector<unsigned char> pending;
    size_t received = 0;
    allocatedBytes = 0;

    for (size_t at = 0; at < frame.size(); at += 1024) {
        Demultiplex(pending, bytes + at, std::min<size_t>(1024, frame.size() - at),
                    [&](const unsigned char*, size_t length) {
                        received = length;
                        return true;
                    });
    }

    EXPECT_EQ(received, Size);
    // What was moved to a greater buffer was copied once more; together less than all buffers ever made.
    EXPECT_LT(allocatedBytes, 4 * Size);
}

TEST(DemuxCost, OfAChunkOnFrameBordersIsNoCopy) {
    const std::string stream = Frames(1000, 1000);
    std::vector<unsigned char> pending;
    const size_t before = allocations;
    size_t received = 0;

    Demultiplex(pending, reinterpret_cast<const unsigned char*>(stream.data()), stream.size(),
                [&](const unsigned char*, size_t length) {
                    received += length;
                    return true;
                });
    const size_t after = allocations;

    EXPECT_EQ(received, 1000000U);
    EXPECT_EQ(after - before, 0U);
}

}  // namespace
