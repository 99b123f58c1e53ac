// Audio files through the engine: format strings, the sample kinds, dithering, the read window,
// on-the-fly conversion, whole-file conversion, atomic creation and hostile input.
#include <sova/audio.h>
#include <sova/blio.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

struct FileCloser {
    void operator()(AUDIOFILE* file) const { AUDIO_CloseFile(file); }
};
using File = std::unique_ptr<AUDIOFILE, FileCloser>;

QString lastError()
{
    return QString::fromUtf8(BLERROR_LastMessage());
}

// A 16-bit file of the given samples, written through the engine.
bool writeFile(const QString& path, const char* format, int rate, int channels,
               const std::vector<int16_t>& samples)
{
    const _audio_format fmt = AUDIO_FormatEx(rate, int16_t(channels), 16);
    AUDIOFILE* file = AUDIO_CreateFileEx2(path.toUtf8(), format, &fmt, -1, -1, 0, nullptr, 0);
    if (!file)
        return false;
    const int64_t frames = int64_t(samples.size()) / channels;
    const bool written = AUDIO_Write16(file, samples.data(), frames) == frames;
    return AUDIO_CloseFile(file) == 1 && written;
}

std::vector<int16_t> sine(int rate, int channels, int frames, double hz, double amplitude)
{
    std::vector<int16_t> out(size_t(frames) * channels);
    for (int f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c)
            out[size_t(f) * channels + c] =
                int16_t(std::lround(amplitude * std::sin(2 * M_PI * hz * f / rate)));
    return out;
}

// Every frame of a file as IEEE floats; fails the test on a read error.
std::vector<float> readAll(AUDIOFILE* file, int channels)
{
    std::vector<float> all, block(size_t(1000) * channels);
    int64_t n;
    while ((n = AUDIO_ReadIEEEFloat(file, block.data(), 1000)) > 0)
        all.insert(all.end(), block.begin(), block.begin() + n * channels);
    if (n < 0)
        qWarning("read failed: %s", BLERROR_LastMessage());
    return all;
}

int zeroCrossings(const std::vector<float>& mono)
{
    int count = 0;
    for (size_t i = 1; i < mono.size(); ++i)
        count += (mono[i - 1] < 0) != (mono[i] < 0);
    return count;
}

QStringList filesIn(const QString& dir)
{
    return QDir(dir).entryList(QDir::Files | QDir::Hidden);
}

} // namespace

class TestAudioFile : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }
    void cleanup()
    {
        AUDIODITHER_SetDefaultKind(AUDIODITHER_TRIANGULAR);
    }

    void formatStrings_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("error"); // 0 = success
        QTest::addColumn<uint>("container");
        QTest::addColumn<uint>("coder");
        QTest::addColumn<int>("bits");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        const uint be = AUDIO_CODEC_FLAG_BIGENDIAN;
        QTest::newRow("empty: from the extension") << "a.wav" << "" << 0
            << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM16) << 16 << 44100 << 2;
        QTest::newRow("container name wins over the extension") << "b.dat" << "aiff" << 0
            << uint(AUDIO_CONTAINER_AIFF) << (AUDIO_CODEC_PCM16 | be) << 16 << 44100 << 2;
        QTest::newRow("flac with nbits") << "c.flac" << "flac[nbits=24]" << 0
            << uint(AUDIO_CONTAINER_FLAC) << uint(AUDIO_CODEC_FLAC) << 24 << 44100 << 2;
        QTest::newRow("mono output form") << "d.wav" << "wav[sr=8000,nch=1]" << 0
            << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM16) << 16 << 8000 << 1;
        QTest::newRow("keys and names in any case, nc") << "e.wav" << " WAV[SR=22050,NC=1] "
            << 0 << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM16) << 16 << 22050 << 1;
        QTest::newRow("codec alone picks WAV") << "f.bin" << "pcm24" << 0
            << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM24) << 24 << 44100 << 2;
        QTest::newRow("codec option, float is 32-bit") << "g.wav" << "wav[codec=float]" << 0
            << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_FLOAT32) << 32 << 44100 << 2;
        QTest::newRow("nbits picks the PCM width") << "h.wav" << "wav[nbits=8]" << 0
            << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM_U8) << 8 << 44100 << 2;
        QTest::newRow("big-endian raw") << "i.raw" << "raw[endian=big]" << 0
            << uint(AUDIO_CONTAINER_RAW) << (AUDIO_CODEC_PCM16 | be) << 16 << 44100 << 2;
        QTest::newRow("ogg vorbis by codec name") << "j.ogg" << "vorbis[quality=5]" << 0
            << uint(AUDIO_CONTAINER_OGG_VORBIS) << uint(AUDIO_CODEC_VORBIS) << 16 << 44100 << 2;
        QTest::newRow("mp3 with kbps") << "k.mp3" << "mp3[kbps=192]" << 0
            << uint(AUDIO_CONTAINER_MPEG) << uint(AUDIO_CODEC_MPEG_L3) << 16 << 44100 << 2;

        const int unknown = AUDIOERR_UNKNOWN_FORMAT, invalid = AUDIOERR_INVALID_FORMAT;
        QTest::newRow("unknown name") << "x1.wav" << "wavv" << unknown << 0u << 0u << 0 << 0 << 0;
        QTest::newRow("unknown codec option") << "x2.wav" << "wav[codec=nope]" << unknown
                                              << 0u << 0u << 0 << 0 << 0;
        QTest::newRow("unclosed options") << "x3.wav" << "wav[sr=8000" << unknown << 0u << 0u
                                          << 0 << 0 << 0;
        QTest::newRow("no format, no extension") << "x4" << "" << unknown << 0u << 0u << 0 << 0
                                                 << 0;
        QTest::newRow("rate too low") << "x5.wav" << "wav[sr=5]" << invalid << 0u << 0u << 0
                                      << 0 << 0;
        QTest::newRow("rate not a number") << "x6.wav" << "wav[sr=fast]" << invalid << 0u << 0u
                                           << 0 << 0 << 0;
        QTest::newRow("no channels") << "x7.wav" << "wav[nch=0]" << invalid << 0u << 0u << 0
                                     << 0 << 0;
        QTest::newRow("odd resolution") << "x8.wav" << "wav[nbits=13]" << invalid << 0u << 0u
                                        << 0 << 0 << 0;
        QTest::newRow("unknown dither") << "x9.wav" << "wav[dither=blue]" << invalid << 0u << 0u
                                        << 0 << 0 << 0;
        QTest::newRow("unknown endian") << "x10.wav" << "wav[endian=middle]" << invalid << 0u
                                        << 0u << 0 << 0 << 0;
        QTest::newRow("quality out of range") << "x11.ogg" << "vorbis[quality=11]" << invalid
                                              << 0u << 0u << 0 << 0 << 0;
    }
    void formatStrings()
    {
        QFETCH(QString, name);
        QFETCH(QString, format);
        QFETCH(int, error);
        const _audio_format fmt = AUDIO_FormatEx(44100, 2, 16);
        BLERROR_Clear();
        File file(AUDIO_CreateFileEx2(path(name).toUtf8(), format.toUtf8(), &fmt, -1, -1, 0,
                                      nullptr, 0));
        if (error) {
            QVERIFY(!file);
            QCOMPARE(BLERROR_LastCode(), error);
            // The message quotes what was wrong: the format string, else the path.
            const QString quoted = format.trimmed().isEmpty() ? name : format.trimmed();
            QVERIFY2(lastError().contains(quoted), qPrintable(lastError()));
            QVERIFY(!QFile::exists(path(name)));
            return;
        }
        QVERIFY2(file, qPrintable(lastError()));
        _audio_format got;
        QVERIFY(AUDIO_GetAudioFileFormat(file.get(), &got));
        QTEST(got.container, "container");
        QTEST(got.coder, "coder");
        QTEST(int(got.bitsPerSample), "bits");
        QTEST(got.sampleRate, "rate");
        QTEST(int(got.numChannels), "channels");
        // Never written to: still a valid, empty file of that format (an MPEG stream without
        // frames is no more than an empty file).
        QCOMPARE(AUDIO_CloseFile(file.release()), 1);
        if (got.container == AUDIO_CONTAINER_MPEG)
            return;
        File back(AUDIO_LoadFileEx2(path(name).toUtf8(), format.toUtf8(), 0, 0, 0));
        QVERIFY2(back, qPrintable(lastError()));
        // Ogg's length comes from its last granule, which is not 0 for a stream that holds
        // only its headers: what reads back is what counts.
        std::vector<float> block(size_t(1024) * size_t(std::max<int>(got.numChannels, 1)));
        QCOMPARE(AUDIO_ReadIEEEFloat(back.get(), block.data(), 1024), int64_t(0));
    }

    // A float source saved with no codec named stays float where the container stores float.
    void floatSourceStaysFloat_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("format");
        QTest::addColumn<uint>("coder");
        const uint be = AUDIO_CODEC_FLAG_BIGENDIAN;
        QTest::newRow("wav") << "fl.wav" << "" << uint(AUDIO_CODEC_FLOAT32);
        QTest::newRow("aiff") << "fl.aiff" << "" << (AUDIO_CODEC_FLOAT32 | be);
        QTest::newRow("voc stores no float") << "fl.voc" << "" << uint(AUDIO_CODEC_PCM16);
        QTest::newRow("nbits asked for") << "fl2.wav" << "wav[nbits=16]" << uint(AUDIO_CODEC_PCM16);
    }
    void floatSourceStaysFloat()
    {
        QFETCH(QString, name);
        QFETCH(QString, format);
        _audio_format fmt = AUDIO_FormatEx(44100, 1, 32);
        fmt.coder = AUDIO_CODEC_FLOAT32;
        File file(AUDIO_CreateFileEx2(path(name).toUtf8(), format.toUtf8(), &fmt, -1, -1, 0,
                                      nullptr, 0));
        QVERIFY2(file, qPrintable(lastError()));
        _audio_format got;
        QVERIFY(AUDIO_GetAudioFileFormat(file.get(), &got));
        QTEST(got.coder, "coder");
    }

    // Float is IEEEFloat x 32768; Int16 round-trips exactly through a 16-bit WAV.
    void sampleKinds()
    {
        std::vector<int16_t> samples = {0, 1, -1, 32767, -32768, 12345, -23456, 2, 300, -300};
        const QString file = path("kinds.wav");
        QVERIFY2(writeFile(file, "", 8000, 2, samples), qPrintable(lastError()));

        File a(AUDIO_LoadFileEx2(file.toUtf8(), "", 0, 0, 0));
        QVERIFY2(a, qPrintable(lastError()));
        QCOMPARE(AUDIO_Length(a.get()), 5);
        std::vector<int16_t> ints(10);
        QCOMPARE(AUDIO_Read16(a.get(), ints.data(), 100), 5);
        QCOMPARE(ints, samples);
        QCOMPARE(AUDIO_Read16(a.get(), ints.data(), 100), 0);

        File b(AUDIO_LoadFileEx2(file.toUtf8(), "wav", 0, 0, 0));
        File c(AUDIO_LoadFileEx2(file.toUtf8(), nullptr, 0, 0, 0));
        std::vector<float> floats(10), ieee(10);
        QCOMPARE(AUDIO_ReadFloat(b.get(), floats.data(), 5), 5);
        QCOMPARE(AUDIO_ReadIEEEFloat(c.get(), ieee.data(), 5), 5);
        for (size_t i = 0; i < samples.size(); ++i) {
            QCOMPARE(floats[i], float(samples[i]));
            QCOMPARE(floats[i], ieee[i] * 32768.0f);
        }
    }

    void dither_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("kind"); // the kind that must be applied
        QTest::newRow("none") << "wav[dither=none]" << int(AUDIODITHER_NONE);
        QTest::newRow("rectangular") << "wav[dither=rectangular]"
                                     << int(AUDIODITHER_RECTANGULAR);
        QTest::newRow("triangular") << "wav[dither=TRIANGULAR]" << int(AUDIODITHER_TRIANGULAR);
        QTest::newRow("the default kind") << "wav" << int(AUDIODITHER_TRIANGULAR);
        QTest::newRow("a changed default") << "" << int(AUDIODITHER_NONE);
    }
    void dither()
    {
        QFETCH(QString, format);
        QFETCH(int, kind);
        if (format.isEmpty())
            QVERIFY(AUDIODITHER_SetDefaultKind(AUDIODITHER_NONE));
        const int frames = 20000;
        std::vector<float> signal(frames * 2);
        for (int f = 0; f < frames; ++f) {
            signal[2 * f] = float(0.3 * std::sin(f * 0.01)); // a waveform
            signal[2 * f + 1] = 0.25f / 32768;                // a quarter of a step
        }
        std::vector<float> scaled = signal;
        for (float& v : scaled)
            v *= 32768.0f;
        const QString file = path("dither.wav");
        const _audio_format fmt = AUDIO_FormatEx(44100, 2, 16);
        File out(AUDIO_CreateFileEx2(file.toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, 0));
        QVERIFY2(out, qPrintable(lastError()));
        for (int f = 0; f < frames; f += 1000)
            QCOMPARE(AUDIO_WriteFloat(out.get(), scaled.data() + 2 * f + 0, 1000), 1000);
        QCOMPARE(AUDIO_CloseFile(out.release()), 1);

        File in(AUDIO_LoadFileEx2(file.toUtf8(), "", 0, 0, 0));
        std::vector<int16_t> back(frames * 2);
        QCOMPARE(AUDIO_Read16(in.get(), back.data(), frames), frames);
        double maxError = 0, sumError = 0, sumQuarter = 0;
        for (int f = 0; f < frames; ++f) {
            const double error = back[2 * f] - 32768.0 * double(signal[2 * f]);
            if (kind == AUDIODITHER_NONE)
                QCOMPARE(back[2 * f], int16_t(std::floor(scaled[2 * f] + 0.5)));
            maxError = std::max(maxError, std::abs(error));
            sumError += error;
            sumQuarter += back[2 * f + 1];
        }
        const double meanError = sumError / frames, meanQuarter = sumQuarter / frames;
        QVERIFY2(std::abs(meanError) < 0.05, qPrintable(QString::number(meanError)));
        if (kind == AUDIODITHER_NONE) {
            QCOMPARE(meanQuarter, 0.0); // rounds away without dither
        } else {
            QVERIFY2(std::abs(meanQuarter - 0.25) < 0.05, qPrintable(QString::number(meanQuarter)));
            QVERIFY(maxError <= (kind == AUDIODITHER_TRIANGULAR ? 1.5 : 1.0) + 1e-6);
            QVERIFY(maxError > 0.5); // noise was added
        }
    }

    void window_data()
    {
        QTest::addColumn<qint64>("start");
        QTest::addColumn<qint64>("count");
        QTest::addColumn<qint64>("length"); // -2: the open fails
        QTest::newRow("all") << qint64(0) << qint64(0) << qint64(1000);
        QTest::newRow("from 100 to the end") << qint64(100) << qint64(0) << qint64(900);
        QTest::newRow("50 from 100") << qint64(100) << qint64(50) << qint64(50);
        QTest::newRow("cut by the end") << qint64(990) << qint64(50) << qint64(10);
        QTest::newRow("empty at the end") << qint64(1000) << qint64(0) << qint64(0);
        QTest::newRow("beyond the end") << qint64(1001) << qint64(0) << qint64(-2);
        QTest::newRow("negative start") << qint64(-1) << qint64(0) << qint64(-2);
        QTest::newRow("negative count") << qint64(0) << qint64(-5) << qint64(-2);
    }
    void window()
    {
        QFETCH(qint64, start);
        QFETCH(qint64, count);
        QFETCH(qint64, length);
        std::vector<int16_t> ramp(1000);
        for (int i = 0; i < 1000; ++i)
            ramp[i] = int16_t(i * 7);
        const QString file = path("ramp.wav");
        QVERIFY(writeFile(file, "", 8000, 1, ramp));
        File in(AUDIO_LoadFileEx2(file.toUtf8(), "", 0, start, count));
        if (length == -2) {
            QVERIFY(!in);
            QVERIFY(!lastError().isEmpty());
            return;
        }
        QVERIFY2(in, qPrintable(lastError()));
        QCOMPARE(AUDIO_Length(in.get()), length);
        QCOMPARE(AUDIO_Duration(in.get()), length / 8000.0);
        std::vector<int16_t> got(2000, -1);
        QCOMPARE(AUDIO_Read16(in.get(), got.data(), 2000), length);
        for (qint64 i = 0; i < length; ++i)
            QCOMPARE(got[i], ramp[start + i]);
        if (length > 3) {
            QVERIFY(AUDIO_Seek(in.get(), 3));
            QCOMPARE(AUDIO_Read16(in.get(), got.data(), 1), 1);
            QCOMPARE(got[0], ramp[start + 3]);
        }
        QVERIFY(!AUDIO_Seek(in.get(), length + 1));
    }

    // ":fmtconv[...]" converts while reading: a sine keeps its frequency, channels are mapped
    // as documented, nbits changes only the reported resolution.
    void fmtconv_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("bits");
        QTest::newRow("rate") << ":fmtconv[sr=8000]" << 8000 << 2 << 16;
        QTest::newRow("up, any case") << ":FMTCONV[SR=48000]" << 48000 << 2 << 16;
        QTest::newRow("mix-down") << ":fmtconv[nch=1]" << 22050 << 1 << 16;
        QTest::newRow("rate and channels") << ":FmtConv[sr=16000,nc=1,nbits=24]" << 16000 << 1
                                           << 24;
        QTest::newRow("more channels") << ":fmtconv[nc=3]" << 22050 << 3 << 16;
    }
    void fmtconv()
    {
        QFETCH(QString, suffix);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, bits);
        // Left: 441 Hz; right: its negative scaled by a half, so the mix is a quarter of left.
        const int frames = 22050;
        std::vector<int16_t> stereo(frames * 2);
        const std::vector<int16_t> left = sine(22050, 1, frames, 441, 16000);
        for (int f = 0; f < frames; ++f) {
            stereo[2 * f] = left[f];
            stereo[2 * f + 1] = int16_t(-left[f] / 2);
        }
        const QString file = path("conv.wav");
        QVERIFY(writeFile(file, "", 22050, 2, stereo));
        File in(AUDIO_LoadFileEx2((file + suffix).toUtf8(), "", 0, 0, 0));
        QVERIFY2(in, qPrintable(lastError()));
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(in.get(), &fmt));
        QCOMPARE(fmt.sampleRate, rate);
        QCOMPARE(int(fmt.numChannels), channels);
        QCOMPARE(int(fmt.bitsPerSample), bits);
        const qint64 expected = (qint64(frames) * rate + 22049) / 22050;
        QCOMPARE(AUDIO_Length(in.get()), expected);
        const std::vector<float> all = readAll(in.get(), channels);
        QCOMPARE(qint64(all.size()), expected * channels);
        std::vector<float> first(expected);
        for (qint64 f = 0; f < expected; ++f)
            first[f] = all[f * channels];
        QVERIFY(std::abs(zeroCrossings(first) - 2 * 441) <= 2);
        // Mid-file, where the resampler has settled, channels follow the mapping.
        for (qint64 f = expected / 3; f < expected / 3 + 50; ++f) {
            const float l = all[f * channels];
            if (channels == 1) {
                // The mono mix of (l, -l/2) is l/4: compare against the same time in left.
                const double t = double(f) / rate;
                QVERIFY(std::abs(l - 0.25 * 16000 / 32768.0 * std::sin(2 * M_PI * 441 * t))
                        < 0.01);
            } else if (channels == 3) {
                QCOMPARE(all[f * 3 + 2], 0.0f); // stereo into 3.0: the centre stays silent
            }
        }
        QVERIFY(!AUDIO_LoadFileEx2((file + ":fmtconv[sr=1]").toUtf8(), "", 0, 0, 0));
        QCOMPARE(BLERROR_LastCode(), int(AUDIOERR_INVALID_FORMAT));
    }

    void convert_data()
    {
        QTest::addColumn<QString>("source"); // a format string to write it with, or a path
        QTest::addColumn<QString>("targetFormat");
        QTest::addColumn<int>("cancelAfter"); // progress calls before a cancel, -1 never
        QTest::addColumn<int>("error");       // 0 = success, -1 any
        QTest::addColumn<int>("bits");
        QTest::newRow("to flac, mono, 16 kHz") << "wav" << "flac[sr=16000,nch=1]" << -1 << 0
                                               << 16;
        QTest::newRow("to wav by extension") << "wav" << "" << -1 << 0 << 16;
        QTest::newRow("float source to flac") << "wav[codec=float]" << "flac" << -1 << 0 << 24;
        QTest::newRow("float source to wav") << "wav[codec=float]" << "wav" << -1 << 0 << 32;
        QTest::newRow("unknown target format") << "wav" << "nosuch" << -1
                                               << int(AUDIOERR_UNKNOWN_FORMAT) << 0;
        QTest::newRow("cancelled") << "wav" << "wav" << 2 << int(AUDIOERR_CANCELLED) << 0;
        QTest::newRow("unreadable source") << "corrupt/random.bin" << "wav" << -1 << -1 << 0;
        QTest::newRow("missing source") << "nothing.wav" << "wav" << -1 << -1 << 0;
    }
    void convert()
    {
        QFETCH(QString, source);
        QFETCH(QString, targetFormat);
        QFETCH(int, cancelAfter);
        QFETCH(int, error);
        QTemporaryDir out;
        const bool made = source.startsWith("wav");
        const QString src = made ? path("src.wav") : QString(SOVA_TEST_DATA_DIR "/") + source;
        if (made)
            QVERIFY(writeFile(src, source.toUtf8(), 44100, 2, sine(44100, 2, 100000, 1000, 10000)));
        const QString target = out.filePath("target.wav");

        struct Calls { int count = 0, cancelAfter; double last = -1; bool monotonic = true; };
        Calls calls;
        calls.cancelAfter = cancelAfter;
        AUDIO_Progress progress;
        progress.user = &calls;
        progress.report = [](void* user, double fraction) -> int32_t {
            Calls* c = static_cast<Calls*>(user);
            c->monotonic = c->monotonic && fraction >= c->last && fraction <= 1.0;
            c->last = fraction;
            return ++c->count > c->cancelAfter && c->cancelAfter >= 0;
        };
        _audio_format fmt;
        AUDIO_NullFormat(&fmt);
        BLERROR_Clear();
        const int32_t ok = AUDIO_ConvertEx(&progress, src.toUtf8(), "", target.toUtf8(),
                                           targetFormat.toUtf8(), &fmt);
        if (error) {
            QCOMPARE(ok, 0);
            if (error > 0)
                QCOMPARE(BLERROR_LastCode(), error);
            QVERIFY(!lastError().isEmpty());
            QCOMPARE(filesIn(out.path()), QStringList()); // no target, no temporary file
            return;
        }
        QVERIFY2(ok == 1, qPrintable(lastError()));
        QVERIFY(calls.monotonic);
        QCOMPARE(calls.last, 1.0);
        QCOMPARE(filesIn(out.path()), QStringList{"target.wav"});
        File back(AUDIO_LoadFileEx2(target.toUtf8(), "", 0, 0, 0));
        QVERIFY2(back, qPrintable(lastError()));
        _audio_format got;
        QVERIFY(AUDIO_GetAudioFileFormat(back.get(), &got));
        QCOMPARE(got.sampleRate, fmt.sampleRate);
        QCOMPARE(got.numChannels, fmt.numChannels);
        QCOMPARE(got.container, fmt.container);
        QTEST(int(got.bitsPerSample), "bits");
        // Rounded up to whole frames of the target rate, no more.
        const double seconds = AUDIO_GetAudioFileDurationEx(src.toUtf8(), "");
        QCOMPARE(seconds, 100000 / 44100.0);
        QCOMPARE(AUDIO_Duration(back.get()), std::ceil(seconds * got.sampleRate) / got.sampleRate);
    }

    void convertNullArguments()
    {
        QCOMPARE(AUDIO_ConvertEx(nullptr, nullptr, "", "x.wav", "", nullptr), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
        QCOMPARE(AUDIO_ConvertEx(nullptr, "x.wav", "", nullptr, "", nullptr), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
    }

    // While written, the target holds what it held before (or does not exist); the close
    // moves the finished file into place with the mode a plain create would give.
    void atomicCreate_data()
    {
        QTest::addColumn<bool>("existing");
        QTest::newRow("new file") << false;
        QTest::newRow("replacing a file") << true;
    }
    void atomicCreate()
    {
        QFETCH(bool, existing);
        QTemporaryDir dir;
        const QString target = dir.filePath("atomic.wav");
        if (existing) {
            QFile old(target);
            QVERIFY(old.open(QIODevice::WriteOnly));
            old.write("old");
        }
        const _audio_format fmt = AUDIO_FormatEx(8000, 1, 16);
        File out(AUDIO_CreateFileEx2(target.toUtf8(), "", &fmt, -1, -1, 0, nullptr, 0));
        QVERIFY2(out, qPrintable(lastError()));
        const std::vector<int16_t> samples(4000, 1000);
        QCOMPARE(AUDIO_Write16(out.get(), samples.data(), 4000), 4000);
        QCOMPARE(QFile::exists(target), existing);
        QVERIFY(!existing || QFileInfo(target).size() == 3);
        QCOMPARE(AUDIO_Length(out.get()), 4000);
        QCOMPARE(AUDIO_CloseFile(out.release()), 1);
        QCOMPARE(filesIn(dir.path()), QStringList{"atomic.wav"});
        QCOMPARE(AUDIO_GetAudioFileDurationEx(target.toUtf8(), ""), 0.5);
        const mode_t mask = ::umask(0);
        ::umask(mask);
        struct stat st;
        QCOMPARE(::stat(target.toUtf8(), &st), 0);
        QCOMPARE(st.st_mode & 0777, 0666 & ~mask);
    }

    // Plain paths, "hfile://" views of an open handle and "file://" all reach the same bytes.
    void schemes()
    {
        const std::vector<int16_t> samples = sine(8000, 1, 800, 100, 5000);
        const QString file = path("scheme.wav");
        QVERIFY(writeFile(file, "", 8000, 1, samples));
        _HFile* handle = BLIO_Open(file.toUtf8(), "r");
        QVERIFY(handle);
        char view[BLIO_MAX_META_DESCR];
        QVERIFY(BLIO_ComposeMetaHFileDescr(view, handle));
        for (const QByteArray& where :
             {QByteArray(view), "file://" + file.toUtf8(), QByteArray(view) + ":fmtconv[nch=2]"}) {
            File in(AUDIO_LoadFileEx2(where, "", 0, 0, 0));
            QVERIFY2(in, qPrintable(lastError()));
            const int channels = where.endsWith(']') ? 2 : 1;
            std::vector<int16_t> got(1000 * channels);
            QCOMPARE(AUDIO_Read16(in.get(), got.data(), 1000), 800);
            for (int i = 0; i < 800; ++i)
                QCOMPARE(got[i * channels], samples[i]);
        }
        BLIO_CloseFile(handle);
        QCOMPARE(AUDIO_GetAudioFileDurationEx(path("absent.wav").toUtf8(), ""), -1.0);
    }

    // Corrupt and truncated files fail to open, or read to a clean end; always with bounded
    // work and a message on failure.
    void hostile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("suffix");
        const QStringList files = QDir(SOVA_TEST_DATA_DIR "/corrupt").entryList(QDir::Files);
        QVERIFY(files.size() >= 10);
        for (const QString& name : files) {
            QTest::newRow(qPrintable(name)) << name << "" << "";
            QTest::newRow(qPrintable(name + " as raw")) << name << "raw" << "";
            QTest::newRow(qPrintable(name + " converted"))
                << name << "" << ":fmtconv[sr=8000,nc=1]";
        }
    }
    void hostile()
    {
        QFETCH(QString, file);
        QFETCH(QString, format);
        QFETCH(QString, suffix);
        const QByteArray where =
            QByteArray(SOVA_TEST_DATA_DIR "/corrupt/") + file.toUtf8() + suffix.toUtf8();
        BLERROR_Clear();
        File in(AUDIO_LoadFileEx2(where, format.toUtf8(), 0, 0, 0));
        if (!in) {
            QVERIFY(BLERROR_LastCode() != BLERR_NONE);
            QVERIFY2(lastError().contains(file), qPrintable(lastError()));
            return;
        }
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(in.get(), &fmt));
        QVERIFY(fmt.numChannels >= 1 && fmt.sampleRate >= 1);
        std::vector<float> floats(size_t(256) * fmt.numChannels);
        std::vector<int16_t> ints(floats.size());
        int64_t total = 0, n = 0;
        for (int i = 0; i < 100000; ++i) {
            n = i % 3 == 0   ? AUDIO_Read16(in.get(), ints.data(), 256)
                : i % 3 == 1 ? AUDIO_ReadFloat(in.get(), floats.data(), 256)
                             : AUDIO_ReadIEEEFloat(in.get(), floats.data(), 256);
            if (n <= 0)
                break;
            total += n;
        }
        QVERIFY(n <= 0); // ended
        if (n < 0)
            QVERIFY(!lastError().isEmpty());
        QVERIFY(total < 10000000);
        AUDIO_Duration(in.get());
    }
};

QTEST_GUILESS_MAIN(TestAudioFile)
#include "tst_audiofile.moc"
