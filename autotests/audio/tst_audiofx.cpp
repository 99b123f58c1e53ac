// Effect paths of the audio engine: each effect against the physics it should have (levels,
// attenuations, frequencies, lengths), streaming with awkward block sizes, the conversions a
// caller asks for, and the descriptions that must be refused.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <vector>

namespace {

struct PathDeleter
{
    void operator()(_AUDIOFXPATH* path) const { AUDIOFX_DestroyPath(path); }
};
using Path = std::unique_ptr<_AUDIOFXPATH, PathDeleter>;

Path newPath(const char* chain, int rate, int channels, int outRate = -1, int outChannels = -1)
{
    const _audio_format in = AUDIO_FormatEx(rate, int16_t(channels), 16);
    return Path(AUDIOFX_CreatePathEx(&in, outRate, outChannels, 0, chain));
}

// Interleaved sine of amplitude 0.5 on every channel.
std::vector<float> sine(double hz, int rate, double seconds, int channels = 1)
{
    const int64_t frames = int64_t(std::lround(rate * seconds));
    std::vector<float> out(size_t(frames * channels));
    for (int64_t f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c)
            out[size_t(f * channels + c)] = float(0.5 * std::sin(2 * M_PI * hz * f / rate));
    return out;
}

// Runs the whole input through the path, inBlock frames offered and outBlock frames of room
// per call, flushing at the end.
std::vector<float> runPath(_AUDIOFXPATH* path, const std::vector<float>& in, int64_t inBlock,
                           int64_t outBlock)
{
    const int inCh = AUDIOFX_GetInputFormat(path).numChannels;
    const int outCh = AUDIOFX_GetOutputFormat(path).numChannels;
    const int64_t frames = int64_t(in.size()) / inCh;
    // One frame more than the room, which the path must leave alone.
    std::vector<float> out, block(size_t((outBlock + 1) * outCh), 7.0f);
    int64_t pos = 0;
    for (int guard = 0; guard < 10000000; ++guard) {
        const int64_t offered = std::min(inBlock, frames - pos);
        int64_t n = offered, room = outBlock;
        const bool last = pos + n == frames;
        if (!AUDIOFX_ProcessSamples(path, in.data() + pos * inCh, &n, block.data(), &room,
                                    last ? 1 : 0)
            || n < 0 || n > offered || room < 0 || room > outBlock || block.back() != 7.0f)
            return {};
        pos += n;
        out.insert(out.end(), block.begin(), block.begin() + room * outCh);
        if (last && pos == frames && room == 0)
            break;
    }
    return out;
}

// RMS of one channel over the last half of the signal (past the filters' transients).
double tailRms(const std::vector<float>& x, int channels = 1, int channel = 0)
{
    const size_t frames = x.size() / size_t(channels);
    double sum = 0;
    for (size_t f = frames / 2; f < frames; ++f)
        sum += double(x[f * size_t(channels) + size_t(channel)]) * x[f * size_t(channels) + size_t(channel)];
    return std::sqrt(sum / double(frames - frames / 2));
}

// Frequency from the rising zero crossings (interpolated) between 10% and 90% of the signal.
double measuredHz(const std::vector<float>& x, int rate)
{
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = x.size() / 10; i + 1 < x.size() * 9 / 10; ++i)
        if (x[i] < 0 && x[i + 1] >= 0) {
            const double t = double(i) + x[i] / (x[i] - x[i + 1]);
            if (first < 0)
                first = t;
            last = t;
            ++crossings;
        }
    return crossings > 1 ? (crossings - 1) * rate / (last - first) : 0.0;
}

} // namespace

class TestAudioFx : public QObject
{
    Q_OBJECT

private slots:
    void levels_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<double>("hz");
        QTest::addColumn<double>("expectedDb");
        QTest::newRow("gain -6 dB") << "gain[db=-6]" << 1000.0 << -6.0;
        QTest::newRow("gain factor 0.25") << "gain[factor=0.25]" << 1000.0 << -12.0412;
        QTest::newRow("gain case and blanks") << " GAIN [ DB = 3 ] " << 1000.0 << 3.0;
        QTest::newRow("gains add") << "gain[db=-6];gain[db=-4]" << 1000.0 << -10.0;
        QTest::newRow("lowpass at the corner") << "lowpass[fc=1000]" << 1000.0 << -3.0103;
        QTest::newRow("lowpass 2 octaves up") << "lowpass[fc=1000]" << 4000.0 << -24.4764;
        QTest::newRow("lowpass order 4") << "lowpass[fc=1000,order=4]" << 4000.0 << -48.9219;
        QTest::newRow("lowpass passband") << "lowpass[fc=1000,order=4]" << 200.0 << 0.0;
        QTest::newRow("highpass an octave down") << "highpass[fc=80]" << 40.0 << -12.3046;
        QTest::newRow("highpass order 4") << "highpass[fc=80,order=4]" << 20.0 << -48.1652;
        QTest::newRow("highpass passband") << "highpass[fc=80]" << 1000.0 << -0.0002;
        QTest::newRow("dcblock passes 100 Hz") << "dcblock" << 100.0 << -0.0108;
        QTest::newRow("resample keeps level") << "resample[sr=22050]" << 1000.0 << 0.0;
    }
    void levels()
    {
        QFETCH(QString, chain);
        QFETCH(double, hz);
        QFETCH(double, expectedDb);
        Path path = newPath(chain.toUtf8().constData(), 48000, 2);
        QVERIFY2(path, BLERROR_LastMessage());
        const std::vector<float> out = runPath(path.get(), sine(hz, 48000, 2.0, 2), 4096, 4096);
        QVERIFY(!out.empty());
        const int ch = AUDIOFX_GetOutputFormat(path.get()).numChannels;
        for (int c = 0; c < ch; ++c) {
            const double db = 20 * std::log10(tailRms(out, ch, c) / (0.5 / std::sqrt(2.0)));
            QVERIFY2(std::fabs(db - expectedDb) < 0.05, qPrintable(QString::number(db)));
        }
    }

    void dcblockRemovesOffset()
    {
        Path path = newPath("dcblock", 8000, 1);
        QVERIFY(path);
        const std::vector<float> out = runPath(path.get(), std::vector<float>(16000, 0.5f), 512, 512);
        QCOMPARE(out.size(), size_t(16000));
        QVERIFY(std::fabs(out.back()) < 1e-4); // two seconds are 60 time constants
    }

    void timeAndRate_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<int>("outRate");
        QTest::addColumn<double>("scale"); // output length over input length, rate aside
        QTest::addColumn<double>("outHz"); // the 1 kHz input sine as it comes out
        QTest::newRow("resample down") << "resample[sr=22050]" << 22050 << 1.0 << 1000.0;
        QTest::newRow("resample up") << "resample[sr=48000]" << 48000 << 1.0 << 1000.0;
        QTest::newRow("speed up") << "speed[factor=1.25]" << 44100 << 0.8 << 1250.0;
        QTest::newRow("slow down") << "speed[factor=0.5]" << 44100 << 2.0 << 500.0;
        QTest::newRow("speed and resample")
            << "speed[factor=2];resample[sr=16000]" << 16000 << 0.5 << 2000.0;
        QTest::newRow("same rate") << "resample[sr=44100]" << 44100 << 1.0 << 1000.0;
    }
    void timeAndRate()
    {
        QFETCH(QString, chain);
        QFETCH(int, outRate);
        QFETCH(double, scale);
        QFETCH(double, outHz);
        Path path = newPath(chain.toUtf8().constData(), 44100, 1);
        QVERIFY2(path, BLERROR_LastMessage());
        QCOMPARE(AUDIOFX_GetOutputFormat(path.get()).sampleRate, outRate);
        QCOMPARE(AUDIOFX_GetScaleFactor(path.get()), scale);
        const std::vector<float> in = sine(1000, 44100, 1.0);
        const std::vector<float> out = runPath(path.get(), in, 1000, 777);
        const double expectedFrames = in.size() * scale * outRate / 44100.0;
        QVERIFY2(std::fabs(double(out.size()) - expectedFrames) <= 2,
                 qPrintable(QString::number(out.size())));
        QVERIFY(std::fabs(measuredHz(out, outRate) - outHz) < 0.05);
    }

    // Any split of the input and of the room gives the same samples as one big call.
    void blockSizes_data()
    {
        QTest::addColumn<qint64>("inBlock");
        QTest::addColumn<qint64>("outBlock");
        QTest::newRow("frame by frame") << qint64(1) << qint64(1);
        QTest::newRow("odd sizes") << qint64(7) << qint64(3);
        QTest::newRow("little room") << qint64(100000) << qint64(64);
        QTest::newRow("much room") << qint64(333) << qint64(100000);
    }
    void blockSizes()
    {
        QFETCH(qint64, inBlock);
        QFETCH(qint64, outBlock);
        const char* chain = "highpass[fc=50];resample[sr=32000];mix[nch=1];speed[factor=0.8]";
        const std::vector<float> in = sine(440, 44100, 0.5, 2);
        Path whole = newPath(chain, 44100, 2), split = newPath(chain, 44100, 2);
        QVERIFY(whole && split);
        const std::vector<float> expected = runPath(whole.get(), in, 1 << 20, 1 << 20);
        const std::vector<float> got = runPath(split.get(), in, inBlock, outBlock);
        QCOMPARE(got.size(), expected.size());
        for (size_t i = 0; i < got.size(); ++i)
            QVERIFY(std::fabs(got[i] - expected[i]) < 1e-6f);
        // After the flush the path starts afresh: a second run gives the same.
        QCOMPARE(runPath(split.get(), in, inBlock, outBlock).size(), expected.size());
    }

    void channels_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<int>("outChannels"); // -1: what the chain gives
        QTest::addColumn<QVector<float>>("frameIn");
        QTest::addColumn<QVector<float>>("frameOut");
        QTest::newRow("stereo to mono averages")
            << "mix[nch=1]" << -1 << QVector<float> {0.5f, -0.1f} << QVector<float> {0.2f};
        QTest::newRow("mono to stereo duplicates")
            << "mix[nch=2]" << -1 << QVector<float> {0.3f} << QVector<float> {0.3f, 0.3f};
        // 3.0 to stereo: the centre at -3 dB into both, scaled by 1 / (1 + 0.707).
        QTest::newRow("three to two folds the centre in")
            << "mix[nch=2]" << -1 << QVector<float> {0.1f, 0.2f, 0.3f}
            << QVector<float> {float((0.1 + M_SQRT1_2 * 0.3) / (1 + M_SQRT1_2)),
                   float((0.2 + M_SQRT1_2 * 0.3) / (1 + M_SQRT1_2))};
        QTest::newRow("two to three leaves the centre silent")
            << "mix[nch=3]" << -1 << QVector<float> {0.1f, 0.2f}
            << QVector<float> {0.1f, 0.2f, 0.0f};
        QTest::newRow("asked for by the caller")
            << "gain[factor=2]" << 1 << QVector<float> {0.1f, 0.3f} << QVector<float> {0.4f};
        QTest::newRow("empty chain")
            << "" << -1 << QVector<float> {0.1f, 0.3f} << QVector<float> {0.1f, 0.3f};
    }
    void channels()
    {
        QFETCH(QString, chain);
        QFETCH(int, outChannels);
        QFETCH(QVector<float>, frameIn);
        QFETCH(QVector<float>, frameOut);
        Path path = newPath(chain.toUtf8().constData(), 16000, frameIn.size(), -1, outChannels);
        QVERIFY2(path, BLERROR_LastMessage());
        QCOMPARE(int(AUDIOFX_GetOutputFormat(path.get()).numChannels), frameOut.size());
        std::vector<float> in;
        for (int f = 0; f < 10; ++f)
            in.insert(in.end(), frameIn.begin(), frameIn.end());
        const std::vector<float> out = runPath(path.get(), in, 4, 3);
        QCOMPARE(out.size(), size_t(10 * frameOut.size()));
        for (size_t i = 0; i < out.size(); ++i)
            QVERIFY(std::fabs(out[i] - frameOut[int(i % size_t(frameOut.size()))]) < 1e-6f);
    }

    void callerRate()
    {
        Path path = newPath("gain[db=0]", 44100, 2, 48000, 1);
        QVERIFY(path);
        const _audio_format out = AUDIOFX_GetOutputFormat(path.get());
        QCOMPARE(out.sampleRate, 48000);
        QCOMPARE(int(out.numChannels), 1);
        QCOMPARE(AUDIOFX_GetScaleFactor(path.get()), 1.0);
        QVERIFY(std::fabs(measuredHz(runPath(path.get(), sine(1000, 44100, 0.5, 2), 512, 512),
                                     48000) - 1000) < 0.05);
    }

    void refused_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QString>("named"); // the message must name it
        QTest::newRow("unknown effect") << "gain[db=1];wobble[x=1]" << 1 << "wobble";
        QTest::newRow("unknown option") << "gain[dbx=3]" << 1 << "dbx";
        QTest::newRow("option of another effect") << "lowpass[fc=100,sr=8000]" << 1 << "sr";
        QTest::newRow("dcblock takes none") << "dcblock[fc=3]" << 1 << "fc";
        QTest::newRow("both gains") << "gain[db=1,factor=2]" << 1 << "gain";
        QTest::newRow("not a number") << "gain[db=loud]" << 1 << "db";
        QTest::newRow("required rate") << "resample" << 1 << "sr";
        QTest::newRow("fractional rate") << "resample[sr=8000.5]" << 1 << "sr";
        QTest::newRow("odd order") << "lowpass[fc=100,order=3]" << 1 << "order";
        QTest::newRow("corner over half the rate")
            << "resample[sr=8000];lowpass[fc=5000]" << 1 << "lowpass";
        QTest::newRow("too many channels") << "mix[nch=9]" << 1 << "nch";
        QTest::newRow("speed zero") << "speed[factor=0]" << 1 << "factor";
        QTest::newRow("unbalanced") << "gain[db=1" << 1 << "gain";
        QTest::newRow("bad format") << "gain[db=1]" << 0 << "format";
    }
    void refused()
    {
        QFETCH(QString, chain);
        QFETCH(int, channels);
        QFETCH(QString, named);
        BLERROR_Clear();
        QVERIFY(!newPath(chain.toUtf8().constData(), 16000, channels));
        QVERIFY2(QString::fromUtf8(BLERROR_LastMessage()).contains(named),
                 BLERROR_LastMessage());
    }

    void nullAndBadArguments()
    {
        int64_t n = 1, room = 1;
        float x = 0;
        QCOMPARE(AUDIOFX_ProcessSamples(nullptr, &x, &n, &x, &room, 0), 0);
        QCOMPARE(AUDIOFX_GetScaleFactor(nullptr), 0.0);
        QCOMPARE(AUDIOFX_GetOutputFormat(nullptr).sampleRate, 0);
        AUDIOFX_DestroyPath(nullptr);
        Path path = newPath("gain[db=1]", 8000, 1);
        QVERIFY(path);
        n = -1;
        QCOMPARE(AUDIOFX_ProcessSamples(path.get(), &x, &n, &x, &room, 0), 0);
        n = 1;
        QCOMPARE(AUDIOFX_ProcessSamples(path.get(), nullptr, &n, &x, &room, 0), 0);
    }
};

QTEST_APPLESS_MAIN(TestAudioFx)
#include "tst_audiofx.moc"
