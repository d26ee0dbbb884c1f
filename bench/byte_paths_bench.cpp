// The hot byte paths: the head search takes one byte per ring call, a frame's
// rest goes through the ring in block copies, and every frame to the PC is
// covered by amt_crc32, up to 40952 bytes for the largest one.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "channel/ring_buf.hpp"
#include "protocol/pc_frame.hpp"

namespace {

class BenchRing {
public:
    explicit BenchRing(uint32_t size) { initializeRingBuf(&ring_, size); }
    ~BenchRing() { releaseRingBuf(&ring_); }
    BenchRing(const BenchRing&) = delete;
    BenchRing& operator=(const BenchRing&) = delete;
    RingBuf* get() { return &ring_; }

private:
    RingBuf ring_{};
};

constexpr uint32_t kRowRingSize = 262144;

void BM_RingOneByteWriteRead(benchmark::State& state) {
    BenchRing ring(kRowRingSize);
    uint8_t in = 0xAA;
    uint8_t out = 0;
    for (auto _ : state) {
        writeRingBuf(ring.get(), &in, 1);
        readRingBuf(ring.get(), &out, 1);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_RingOneByteWriteRead);

// 10240 bytes do not divide the ring, so the positions walk round it and
// some passes copy in two pieces.
void BM_RingBlockWriteRead(benchmark::State& state) {
    BenchRing ring(kRowRingSize);
    std::vector<uint8_t> in(10240, 0x5A);
    std::vector<uint8_t> out(in.size());
    for (auto _ : state) {
        writeRingBuf(ring.get(), in.data(), static_cast<uint32_t>(in.size()));
        readRingBuf(ring.get(), out.data(), static_cast<uint32_t>(out.size()));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_RingBlockWriteRead);

void BM_AmtCrc32LargestFrame(benchmark::State& state) {
    std::vector<uint8_t> frame(kPcFrameLenMax);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 31 + 7);
    for (auto _ : state) {
        benchmark::DoNotOptimize(amt_crc32(frame.data(), static_cast<int32_t>(frame.size())));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}
BENCHMARK(BM_AmtCrc32LargestFrame);

}  // namespace

BENCHMARK_MAIN();
