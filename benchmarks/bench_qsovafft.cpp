// Power spectrum per frame: QSovaFft::psd against FFTW called directly with the same window.
// psd_vs_numpy.sh runs the first of these next to numpy.fft.rfft on the same frames.
#include <QSovaFft>

#include <fftw3.h>

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

constexpr int kFrames = 64;

std::vector<QVector<float>> makeFrames(int length)
{
    std::mt19937 random(42);
    std::normal_distribution<float> noise(0.0f, 0.3f);
    std::vector<QVector<float>> frames(kFrames, QVector<float>(length));
    for (auto& frame : frames)
        for (float& sample : frame)
            sample = noise(random);
    return frames;
}

void qsovaFftPsd(benchmark::State& state)
{
    const int length = int(state.range(0));
    QSovaFft::Config config;
    config.fftLength = config.windowSize = length;
    const QSovaFft analyser(config, false);
    const auto frames = makeFrames(length);
    QVector<float> out;
    size_t i = 0;
    for (auto _ : state) {
        analyser.psd(frames[i++ % kFrames], &out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(qsovaFftPsd)->Arg(256)->Arg(1024)->Arg(4096)->Arg(1000);

// The same work by hand: window, real FFT, |X|^2, with the analyser's own window coefficients.
void fftwDirectPsd(benchmark::State& state)
{
    const int length = int(state.range(0));
    // The analyser's default window (4-term Blackman-Harris), computed the same way.
    std::vector<float> window(length);
    const double a0 = 0.35875, a1 = 0.48829, a2 = 0.14128, a3 = 0.01168;
    for (int n = 0; n < length; ++n) {
        const double x = 2.0 * M_PI * n / (length - 1);
        window[n] = float(a0 - a1 * std::cos(x) + a2 * std::cos(2 * x) - a3 * std::cos(3 * x));
    }
    float* in = fftwf_alloc_real(length);
    fftwf_complex* spectrum = fftwf_alloc_complex(length / 2 + 1);
    const fftwf_plan plan = fftwf_plan_dft_r2c_1d(length, in, spectrum, FFTW_ESTIMATE);
    const auto frames = makeFrames(length);
    QVector<float> out;
    size_t i = 0;
    for (auto _ : state) {
        const QVector<float>& frame = frames[i++ % kFrames];
        for (int n = 0; n < length; ++n)
            in[n] = frame[n] * window[n];
        fftwf_execute(plan);
        out.resize(length / 2 + 1);
        for (int k = 0; k <= length / 2; ++k)
            out[k] = spectrum[k][0] * spectrum[k][0] + spectrum[k][1] * spectrum[k][1];
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
    fftwf_destroy_plan(plan);
    fftwf_free(spectrum);
    fftwf_free(in);
}
BENCHMARK(fftwDirectPsd)->Arg(256)->Arg(1024)->Arg(4096)->Arg(1000);

} // namespace

BENCHMARK_MAIN();
