// The ring's cost per call: the head search takes one byte per call, and the
// receive thread moves up to a read's worth of bytes (10240) at once.
#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>

#include "channel/ring_buf.hpp"

namespace {

constexpr uint32_t kChannelRing = 262144;

void BM_RingOneByteWriteRead(benchmark::State& state) {
    RingBuf ring{};
    if (initializeRingBuf(&ring, kChannelRing) != 0) {
        state.SkipWithError("ring init failed");
        return;
    }
    uint8_t in = 0x5A;
    uint8_t out = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(writeRingBuf(&ring, &in, 1));
        benchmark::DoNotOptimize(readRingBuf(&ring, &out, 1));
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()));
    releaseRingBuf(&ring);
}
BENCHMARK(BM_RingOneByteWriteRead);

void BM_RingBlockWriteRead(benchmark::State& state) {
    const auto block = static_cast<uint32_t>(state.range(0));
    RingBuf ring{};
    if (initializeRingBuf(&ring, kChannelRing) != 0) {
        state.SkipWithError("ring init failed");
        return;
    }
    std::vector<uint8_t> in(block, 0xA5);
    std::vector<uint8_t> out(block);
    for (auto _ : state) {
        benchmark::DoNotOptimize(writeRingBuf(&ring, in.data(), block));
        benchmark::DoNotOptimize(readRingBuf(&ring, out.data(), block));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * block);
    releaseRingBuf(&ring);
}
// 10240 does not divide the ring, so the positions pass the storage end.
BENCHMARK(BM_RingBlockWriteRead)->Arg(10240);

}  // namespace
