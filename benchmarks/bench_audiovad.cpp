// The voice activity detector on 10 s of a speech-like signal (a gliding harmonic vowel in
// bursts over white noise) at 16 kHz (no resampling), 44.1 kHz and 48 kHz: the time of one
// pass, and the "realtime" column: seconds of audio per second of work (aim: >= 200).
#include <sova/audio.h>

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

constexpr double kSeconds = 10.0;

std::vector<float> speechLike(int rate)
{
    std::vector<float> out(size_t(kSeconds * rate));
    std::mt19937 random(7);
    std::normal_distribution<float> noise(0.0f, 0.01f);
    double phase = 0.0;
    for (size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / rate;
        const double f0 = 120.0 + 30.0 * std::sin(2.0 * M_PI * 0.7 * t);
        phase += 2.0 * M_PI * f0 / rate;
        double v = 0.0;
        for (int h = 1; h <= 20; ++h)
            v += std::sin(h * phase) / h;
        const bool on = std::fmod(t, 1.0) < 0.6; // 600 ms bursts, 400 ms pauses
        out[i] = float((on ? 0.2 * v : 0.0) + noise(random));
    }
    return out;
}

void detect(benchmark::State& state)
{
    const int rate = int(state.range(0));
    const std::vector<float> signal = speechLike(rate);
    for (auto _ : state) {
        _AUDIOVAD* vad = AUDIO_VAD_Init(rate, nullptr);
        const int n = AUDIO_VAD_FrameNumSamples(vad);
        int64_t position = 0;
        int speech = 0;
        for (size_t at = 0; at + size_t(n) <= signal.size(); at += size_t(n)) {
            float value = 0.0f;
            speech += AUDIO_VAD_ProcessIEEEFloat(vad, &position, signal.data() + at, &value) > 0;
        }
        benchmark::DoNotOptimize(speech);
        AUDIO_VAD_Destroy(&vad);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(signal.size()));
    state.counters["realtime"] =
        benchmark::Counter(kSeconds * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(detect)->Arg(16000)->Arg(44100)->Arg(48000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
