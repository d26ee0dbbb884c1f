// The frame CRC over the largest frame the PC link carries: 40960 bytes on the
// wire less the 8 bytes of head and frame_len.
#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>

#include "protocol/pc_frame.hpp"

namespace {

void BM_AmtCrc32(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    std::vector<uint8_t> data(static_cast<size_t>(n));
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
    for (auto _ : state) benchmark::DoNotOptimize(amt_crc32(data.data(), n));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_AmtCrc32)->Arg(static_cast<int64_t>(kPcFrameLenMax));

}  // namespace
