// The log demultiplexer beside a loop that only hops from header to header, and beside a copy of the same
// bytes. The times are those of one frame, except for the comparison of chunk sizes.

#include "QxCContainer.h"
#include "QxCErrorManager.h"
#include "podman/LogDemultiplexer.h"

#include <benchmark/benchmark.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace {

using QxNContainer::QxCContainer;
using Bytes = std::vector<unsigned char>;

constexpr size_t LeastStreamSize = 1 << 20;
constexpr size_t LeastFrames = 256;
constexpr size_t CurlChunk = 16 << 10;

Bytes MakeStream(size_t payload) {
    Bytes stream;
    const size_t size = std::max(LeastStreamSize, LeastFrames * (8 + payload));
    while (stream.size() < size) {
        stream.insert(stream.end(), {1, 0, 0, 0});
        for (int shift = 24; shift >= 0; shift -= 8) {
            stream.push_back(static_cast<unsigned char>(payload >> shift));
        }
        stream.resize(stream.size() + payload, 'a');
    }
    return stream;
}

/// @return about a megabyte or more of frames with payloads of that size. The same memory for everybody: with large
///         payloads its pages decide how fast the headers come.
const Bytes& Stream(size_t payload) {
    static std::map<size_t, Bytes> streams;
    Bytes& stream = streams[payload];
    if (stream.empty()) {
        stream = MakeStream(payload);
    }
    return stream;
}

size_t PayloadOf(const benchmark::State& state) { return static_cast<size_t>(state.range(0)); }

benchmark::IterationCount FramesOf(const Bytes& stream, size_t payload) {
    return static_cast<benchmark::IterationCount>(stream.size() / (8 + payload));
}

constexpr auto Nothing = [](const unsigned char* data, size_t length) {
    benchmark::DoNotOptimize(data);
    benchmark::DoNotOptimize(length);
    return true;
};

void DemuxWhole(benchmark::State& state) {
    const Bytes& stream = Stream(PayloadOf(state));
    const auto frames = FramesOf(stream, PayloadOf(state));
    Bytes pending;
    while (state.KeepRunningBatch(frames)) {
        QxNContainer::QxNLogStream::Demultiplex(pending, stream.data(), stream.size(), Nothing);
    }
}

void HopOverHeaders(benchmark::State& state) {
    const Bytes& stream = Stream(PayloadOf(state));
    const auto frames = FramesOf(stream, PayloadOf(state));
    while (state.KeepRunningBatch(frames)) {
        const unsigned char* const end = stream.data() + stream.size();
        for (const unsigned char* header = stream.data(); header < end;) {
            std::uint32_t length = 0;
            std::memcpy(&length, header + 4, sizeof(length));
            length = __builtin_bswap32(length);
            Nothing(header + 8, length);
            header += 8 + length;
        }
    }
}

void CopyBytes(benchmark::State& state) {
    const Bytes& stream = Stream(PayloadOf(state));
    const auto frames = FramesOf(stream, PayloadOf(state));
    Bytes target(stream.size());
    while (state.KeepRunningBatch(frames)) {
        std::memcpy(target.data(), stream.data(), stream.size());
        benchmark::ClobberMemory();
    }
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
    for (const long payload : {16, 100, 1 << 10, 16 << 10, 64 << 10}) {
        benchmark->Arg(payload);
    }
}

BENCHMARK(DemuxWhole)->Name("DemuxBesideHops/ours")->Apply(Sizes);
BENCHMARK(HopOverHeaders)->Name("DemuxBesideHops/bare")->Apply(Sizes);
BENCHMARK(DemuxWhole)->Name("DemuxBesideCopy/ours")->Apply(Sizes);
BENCHMARK(CopyBytes)->Name("DemuxBesideCopy/bare")->Apply(Sizes);

// --- Pieces as libcurl delivers them, beside the whole at once ---

void DemuxInPieces(benchmark::State& state, size_t pieceSize) {
    const Bytes& stream = Stream(PayloadOf(state));
    Bytes pending;
    for (auto _ : state) {
        for (size_t at = 0; at < stream.size(); at += pieceSize) {
            const size_t length = std::min(pieceSize, stream.size() - at);
            QxNContainer::QxNLogStream::Demultiplex(pending, stream.data() + at, length, Nothing);
        }
    }
}

BENCHMARK_CAPTURE(DemuxInPieces, pieces, CurlChunk)->Name("DemuxPieces/ours")->Arg(16)->Arg(100)->Arg(1024);
BENCHMARK_CAPTURE(DemuxInPieces, whole, SIZE_MAX / 2)->Name("DemuxPieces/bare")->Arg(16)->Arg(100)->Arg(1024);

// --- The same pieces beside hops that also put every cut frame together ---

void DemuxChunks(benchmark::State& state) { DemuxInPieces(state, CurlChunk); }

/// Knows beforehand how long a cut frame is, and that none is cut twice.
void HopAndPutTogether(benchmark::State& state) {
    const Bytes& stream = Stream(PayloadOf(state));
    const size_t frame = 8 + PayloadOf(state);
    Bytes cut(frame);
    for (auto _ : state) {
        size_t kept = 0;
        for (size_t at = 0; at < stream.size(); at += CurlChunk) {
            const unsigned char* header = stream.data() + at;
            const unsigned char* const end = header + std::min(CurlChunk, stream.size() - at);
            if (kept != 0) {
                std::memcpy(cut.data() + kept, header, frame - kept);
                header += frame - kept;
                benchmark::ClobberMemory();
                Nothing(cut.data() + 8, PayloadOf(state));
            }
            while (static_cast<size_t>(end - header) >= frame) {
                std::uint32_t length = 0;
                std::memcpy(&length, header + 4, sizeof(length));
                length = __builtin_bswap32(length);
                Nothing(header + 8, length);
                header += 8 + length;
            }
            kept = static_cast<size_t>(end - header);
            std::memcpy(cut.data(), header, kept);
        }
    }
}

BENCHMARK(DemuxChunks)->Name("DemuxCutFrames/ours")->Arg(16)->Arg(100)->Arg(1024);
BENCHMARK(HopAndPutTogether)->Name("DemuxCutFrames/bare")->Arg(16)->Arg(100)->Arg(1024);

// --- Through the service, as a stream does it ---

struct SilentClient : QxNSmartWebApi::QxCWebSocket {
    int sendBinary(QxCErrorListPool&, const unsigned char* data, unsigned int length, int, bool) override {
        Nothing(data, length);
        return 0;
    }
};

void ForwardChunks(benchmark::State& state) {
    const Bytes& stream = Stream(PayloadOf(state));
    const auto frames = FramesOf(stream, PayloadOf(state));
    QxCContainer& service = QxCContainer::GetInstance();
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    QxCErrorListPool* errors = manager->createErrorList(0, 1, 20, 5, 300);
    QxCContainer::QxSLogStreamSession session;
    SilentClient client;
    while (state.KeepRunningBatch(frames)) {
        for (size_t at = 0; at < stream.size(); at += CurlChunk) {
            const size_t length = std::min(CurlChunk, stream.size() - at);
            service.DemuxAndForwardLogChunk(*errors, session, &client,
                                            reinterpret_cast<const char*>(stream.data() + at), length);
        }
    }
    manager->deleteErrorList(errors);
}

BENCHMARK(ForwardChunks)->Name("ForwardFrame/ours")->Arg(100);
BENCHMARK(HopOverHeaders)->Name("ForwardFrame/bare")->Arg(100);

}  // namespace
