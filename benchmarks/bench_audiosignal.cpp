// Signals in memory: inserting one second in the middle of a 1-minute and of a 60-minute
// stereo 48 kHz signal (an edit should cost the same whatever the signal's length: the aim is
// a ratio under 2), and reading a whole 1-minute signal against memcpy of the same bytes.
// Prints, after the table, the ratios of the best times.
#include <sova/audio.h>

#include "bestreporter.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;

// One second of a stereo tone.
const std::vector<int16_t>& oneSecond()
{
    static const std::vector<int16_t> data = [] {
        std::vector<int16_t> out(size_t(kRate) * kChannels);
        for (int f = 0; f < kRate; ++f)
            for (int c = 0; c < kChannels; ++c)
                out[size_t(f) * kChannels + c] = int16_t(12000.0 * std::sin(0.01 * f * (c + 1)));
        return out;
    }();
    return data;
}

// A 16-bit stereo signal of the given minutes, built once per process and kept.
_AUDIOSIGNAL* signalOf(int minutes)
{
    static std::map<int, _AUDIOSIGNAL*> made;
    _AUDIOSIGNAL*& signal = made[minutes];
    if (!signal) {
        signal = AUDIOSIGNAL_NewEx(AUDIO_FormatEx(kRate, kChannels, 16));
        for (int s = 0; s < minutes * 60; ++s)
            AUDIOSIGNAL_AppendSamples16(signal, oneSecond().data(), kRate);
    }
    return signal;
}

void insertSecondInMiddle(benchmark::State& state)
{
    _AUDIOSIGNAL* signal = signalOf(int(state.range(0)));
    const int64_t middle = AUDIOSIGNAL_NumSamples(signal) / 2 + 12345;
    for (auto _ : state) {
        if (AUDIOSIGNAL_InsertSamples16(signal, oneSecond().data(), middle, kRate) != kRate) {
            state.SkipWithError("insert failed");
            break;
        }
        state.PauseTiming();
        AUDIOSIGNAL_DeleteSamples(signal, middle, kRate);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRate);
}
BENCHMARK(insertSecondInMiddle)->Arg(1)->Arg(60)->Unit(benchmark::kMicrosecond);

void getSamplesOfMinute(benchmark::State& state)
{
    _AUDIOSIGNAL* signal = signalOf(1);
    const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
    std::vector<float> out(size_t(frames) * kChannels);
    for (auto _ : state) {
        if (AUDIOSIGNAL_GetSamplesEx(signal, 0, out.data(), frames, 0) != frames) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t(out.size() * sizeof(float)));
}
BENCHMARK(getSamplesOfMinute)->Unit(benchmark::kMillisecond);

void getSamples16OfMinute(benchmark::State& state)
{
    _AUDIOSIGNAL* signal = signalOf(1);
    const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
    std::vector<int16_t> out(size_t(frames) * kChannels);
    for (auto _ : state) {
        if (AUDIOSIGNAL_GetSamples16Ex(signal, 0, out.data(), frames, 0) != frames) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t(out.size() * sizeof(int16_t)));
}
BENCHMARK(getSamples16OfMinute)->Unit(benchmark::kMillisecond);

// memcpy of as many bytes as the reads above deliver: range(0) bytes per sample.
void memcpyOfMinute(benchmark::State& state)
{
    const size_t bytes = size_t(kRate) * 60 * kChannels * size_t(state.range(0));
    std::vector<char> from(bytes, 1), to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t(bytes));
}
BENCHMARK(memcpyOfMinute)->Arg(4)->Arg(2)->Unit(benchmark::kMillisecond);

void printRatios(const BestTimeReporter& r)
{
    auto ratio = [&](const char* label, const std::string& a, const std::string& b) {
        if (const double x = r.timeRatio(a, b))
            std::printf("%-52s time ratio %.2f\n", label, x);
    };
    ratio("insert 1 s: 60-minute / 1-minute signal (aim < 2)", "insertSecondInMiddle/60",
        "insertSecondInMiddle/1");
    ratio("read 1 minute as floats / memcpy of the same bytes", "getSamplesOfMinute/",
        "memcpyOfMinute/4");
    ratio("read 1 minute as int16 / memcpy of the same bytes", "getSamples16OfMinute/",
        "memcpyOfMinute/2");
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    BestTimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatios(reporter);
    benchmark::Shutdown();
    return 0;
}
