// Sample conversions through the SSE kernels, against the scalar loops they replace and against
// a plain memcpy of the same number of input bytes (the floor for touching that much memory).
#include "../src/dsp/qsovavector_p.h"
#include "qsovavector.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr unsigned kSamples = 64 * 1024;

struct Buffers
{
    QSovaVector<float, 16> floats{kSamples};
    QSovaVector<short, 16> shorts{kSamples};
    Buffers()
    {
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> dist(-1.2f, 1.2f);
        for (unsigned i = 0; i < kSamples; ++i) {
            floats[int(i)] = dist(rng);
            shorts[int(i)] = short(rng());
        }
    }
};

void BM_FloatToShort(benchmark::State& state)
{
    Buffers b;
    for (auto _ : state) {
        float_to_short(b.floats, b.shorts);
        benchmark::DoNotOptimize(b.shorts.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * sizeof(float));
}

void BM_FloatToShortScalar(benchmark::State& state)
{
    Buffers b;
    for (auto _ : state) {
        QSovaSimd::floatToShortScalar(b.shorts.data(), b.floats.constData(), kSamples);
        benchmark::DoNotOptimize(b.shorts.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * sizeof(float));
}

void BM_ShortToFloat(benchmark::State& state)
{
    Buffers b;
    for (auto _ : state) {
        short_to_float(b.shorts, b.floats);
        benchmark::DoNotOptimize(b.floats.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * sizeof(short));
}

void BM_ShortToFloatScalar(benchmark::State& state)
{
    Buffers b;
    for (auto _ : state) {
        QSovaSimd::shortToFloatScalar(b.floats.data(), b.shorts.constData(), kSamples);
        benchmark::DoNotOptimize(b.floats.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * sizeof(short));
}

// memcpy of bytes = the input size of one conversion.
void BM_Memcpy(benchmark::State& state)
{
    const auto bytes = size_t(state.range(0));
    std::vector<char> src(bytes, 1), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

} // namespace

BENCHMARK(BM_FloatToShort);
BENCHMARK(BM_FloatToShortScalar);
BENCHMARK(BM_Memcpy)->Arg(kSamples * sizeof(float))->Name("BM_Memcpy/float input");
BENCHMARK(BM_ShortToFloat);
BENCHMARK(BM_ShortToFloatScalar);
BENCHMARK(BM_Memcpy)->Arg(kSamples * sizeof(short))->Name("BM_Memcpy/short input");

BENCHMARK_MAIN();
