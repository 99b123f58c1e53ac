// Decoding a 16-bit stereo WAV into floats: through QSovaAudioFile (and so the engine and the
// foundation's I/O layer) against libsndfile's sf_readf_float on the same file, in one run.
// The aim is a ratio of at least 0.95.
#include <QSova>
#include <QSovaAudioFile>

#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr int kSeconds = 60;
constexpr int kBlockFrames = 8192;

// A one-minute stereo file, written once per process.
const std::string& wavPath()
{
    static const std::string path = [] {
        char name[] = "/tmp/bench_qsovaaudiofile_XXXXXX.wav";
        const int fd = mkstemps(name, 4);
        if (fd >= 0)
            close(fd);
        SF_INFO info{};
        info.samplerate = kRate;
        info.channels = kChannels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* file = sf_open(name, SFM_WRITE, &info);
        std::vector<short> block(kBlockFrames * kChannels);
        for (int done = 0; done < kRate * kSeconds; done += kBlockFrames) {
            for (int i = 0; i < kBlockFrames; ++i)
                for (int ch = 0; ch < kChannels; ++ch)
                    block[i * kChannels + ch] =
                        short(12000.0 * std::sin(0.01 * (done + i) * (ch + 1)));
            sf_writef_short(file, block.data(), kBlockFrames);
        }
        sf_close(file);
        std::atexit([] { std::remove(wavPath().c_str()); });
        return std::string(name);
    }();
    return path;
}

void decodeWithSndfile(benchmark::State& state)
{
    std::vector<float> block(kBlockFrames * kChannels);
    int64_t frames = 0;
    for (auto _ : state) {
        SF_INFO info{};
        SNDFILE* file = sf_open(wavPath().c_str(), SFM_READ, &info);
        sf_count_t got;
        while ((got = sf_readf_float(file, block.data(), kBlockFrames)) > 0)
            frames += got;
        sf_close(file);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(frames);
}
BENCHMARK(decodeWithSndfile)->Unit(benchmark::kMillisecond);

void decodeWithQSovaAudioFile(benchmark::State& state)
{
    QSova::initialize();
    std::vector<float> block(kBlockFrames * kChannels);
    const qint64 bytes = qint64(block.size() * sizeof(float));
    int64_t frames = 0;
    for (auto _ : state) {
        QSovaAudioFile file(QString::fromStdString(wavPath()), QString(),
                            QSovaAudioFile::IEEEFloat);
        if (!file.open(QIODevice::ReadOnly)) {
            state.SkipWithError("cannot open the file");
            break;
        }
        qint64 got;
        while ((got = file.read(reinterpret_cast<char*>(block.data()), bytes)) > 0)
            frames += got / (kChannels * qint64(sizeof(float)));
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(frames);
    QSova::finalize();
}
BENCHMARK(decodeWithQSovaAudioFile)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
