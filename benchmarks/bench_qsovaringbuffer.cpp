// Streaming 1000-element int blocks through the mirrored ring buffer (copy in at the write
// pointer, produce, copy out at the read pointer, consume) against the same two copies into and
// out of a plain array: the ring buffer's bookkeeping and its mapping should cost next to
// nothing over the copies themselves.
#include "qsovaringbuffer.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr unsigned kBlock = 1000;

void BM_RingBuffer(benchmark::State& state)
{
    QSova::RingBuffer<int> ring(64 * 1024);
    std::vector<int> in(kBlock, 7), out(kBlock);
    for (auto _ : state) {
        std::memcpy(ring.writePointer(), in.data(), kBlock * sizeof(int));
        ring.produce(kBlock);
        std::memcpy(out.data(), ring.readPointer(), kBlock * sizeof(int));
        ring.consume(kBlock);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kBlock);
}

void BM_PlainArray(benchmark::State& state)
{
    std::vector<int> buffer(64 * 1024 / sizeof(int)), in(kBlock, 7), out(kBlock);
    unsigned offset = 0;
    for (auto _ : state) {
        // Same walk through the same amount of memory, restarting where a block would not fit.
        if (offset + kBlock > buffer.size())
            offset = 0;
        std::memcpy(buffer.data() + offset, in.data(), kBlock * sizeof(int));
        std::memcpy(out.data(), buffer.data() + offset, kBlock * sizeof(int));
        offset += kBlock;
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kBlock);
}

} // namespace

BENCHMARK(BM_RingBuffer);
BENCHMARK(BM_PlainArray);

BENCHMARK_MAIN();
