// Resampling 60 s of stereo from 44.1 kHz to 48 kHz through an effect path against soxr called
// directly with the same quality, on the same block. The aim: the path at 0.9 of soxr's speed
// or better (direct time over path time).
#include "bestreporter.h"

#include <sova/audio.h>

#include <soxr.h>

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

constexpr int kInRate = 44100, kOutRate = 48000, kChannels = 2;
constexpr int64_t kFrames = int64_t(kInRate) * 60;
constexpr int64_t kBlockFrames = 16384;

const std::vector<float>& input()
{
    static const std::vector<float> block = [] {
        std::vector<float> x(size_t(kFrames * kChannels));
        for (int64_t f = 0; f < kFrames; ++f) {
            x[size_t(f * 2)] = float(0.5 * std::sin(2 * M_PI * 440.0 * f / kInRate));
            x[size_t(f * 2 + 1)] = float(0.3 * std::sin(2 * M_PI * 1234.5 * f / kInRate));
        }
        return x;
    }();
    return block;
}

void resampleWithSoxr(benchmark::State& state)
{
    const std::vector<float>& in = input();
    std::vector<float> out(size_t(kBlockFrames * 2 * kChannels));
    int64_t produced = 0;
    for (auto _ : state) {
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
        soxr_t soxr = soxr_create(kInRate, kOutRate, kChannels, nullptr, &io, &quality, nullptr);
        int64_t pos = 0;
        for (;;) {
            const int64_t n = std::min(kBlockFrames, kFrames - pos);
            size_t used = 0, made = 0;
            soxr_process(soxr, n > 0 ? in.data() + pos * kChannels : nullptr, size_t(n), &used,
                         out.data(), size_t(kBlockFrames * 2), &made);
            pos += int64_t(used);
            produced += int64_t(made);
            if (n == 0 && made == 0)
                break;
        }
        soxr_delete(soxr);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(produced);
}
BENCHMARK(resampleWithSoxr)->Unit(benchmark::kMillisecond);

void resampleWithEffectPath(benchmark::State& state)
{
    const std::vector<float>& in = input();
    std::vector<float> out(size_t(kBlockFrames * 2 * kChannels));
    const _audio_format format = AUDIO_FormatEx(kInRate, kChannels, 16);
    int64_t produced = 0;
    for (auto _ : state) {
        _AUDIOFXPATH* path = AUDIOFX_CreatePathEx(&format, -1, -1, 0, "resample[sr=48000]");
        if (!path) {
            state.SkipWithError("no path");
            break;
        }
        int64_t pos = 0;
        for (;;) {
            int64_t n = std::min(kBlockFrames, kFrames - pos), room = kBlockFrames * 2;
            AUDIOFX_ProcessSamples(path, in.data() + pos * kChannels, &n, out.data(), &room,
                                   pos + n == kFrames);
            pos += n;
            produced += room;
            if (pos == kFrames && room == 0)
                break;
        }
        AUDIOFX_DestroyPath(path);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(produced);
}
BENCHMARK(resampleWithEffectPath)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    BestTimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double ratio = reporter.timeRatio("resampleWithSoxr/", "resampleWithEffectPath/");
    if (ratio > 0)
        std::printf("effect path speed relative to soxr directly: %.3f (aim >= 0.9)\n", ratio);
    benchmark::Shutdown();
    return 0;
}
