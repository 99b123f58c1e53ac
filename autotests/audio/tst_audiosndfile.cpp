// The libsndfile formats through the engine's public calls: round trips of every writable format,
// headerless reading, limits, and damaged files that must fail cleanly.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <vector>

namespace {

enum Check { Exact, MaxError, Snr };

struct Closer
{
    void operator()(AUDIOFILE* f) const { AUDIO_CloseFile(f); }
};
using File = std::unique_ptr<AUDIOFILE, Closer>;

// Two tones per channel, phase shifted by channel; quantised to `bits` when given (32-bit PCM
// at 24-bit steps: a float holds no more).
std::vector<float> signal(int rate, int channels, int64_t frames, int bits)
{
    std::vector<float> s(size_t(frames * channels));
    const double step = bits == 0 ? 0.0 : std::ldexp(1.0, std::min(bits, 24) - 1);
    for (int64_t i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c) {
            double v = 0.5 * std::sin(2 * M_PI * 1000.0 * double(i) / rate + 0.7 * c)
                + 0.25 * std::sin(2 * M_PI * 3100.0 * double(i) / rate);
            if (step > 0)
                v = std::round(v * step) / step;
            s[size_t(i * channels + c)] = float(v);
        }
    return s;
}

std::vector<float> readAll(AUDIOFILE* f, int channels)
{
    std::vector<float> out, block(size_t(4096 * channels));
    for (int guard = 0; guard < 100000; ++guard) {
        const int64_t n = AUDIO_ReadIEEEFloat(f, block.data(), 4096);
        if (n <= 0)
            break;
        out.insert(out.end(), block.begin(), block.begin() + n * channels);
    }
    return out;
}

// Signal-to-noise ratio of `got` against `want` in dB, after moving `got` by the encoder delay
// that correlates best (lossy encoders add up to a few thousand frames of lead-in).
double alignedSnr(const std::vector<float>& want, const std::vector<float>& got, int channels)
{
    const int64_t n = int64_t(want.size()) / channels, m = int64_t(got.size()) / channels;
    const int64_t span = std::min<int64_t>(n, 8192);
    auto at
        = [&](const std::vector<float>& v, int64_t i) { return double(v[size_t(i * channels)]); };
    int64_t best = 0;
    double bestCorr = -1e300;
    for (int64_t lag = 0; lag < 4000 && lag + span <= m; ++lag) {
        double corr = 0;
        for (int64_t i = 0; i < span; i += 3)
            corr += at(want, i) * at(got, i + lag);
        if (corr > bestCorr)
            bestCorr = corr, best = lag;
    }
    double sig = 0, noise = 0;
    for (int64_t i = 0; i + best < m && i < n; ++i)
        for (int c = 0; c < channels; ++c) {
            const double w = want[size_t(i * channels + c)];
            const double d = got[size_t((i + best) * channels + c)] - w;
            sig += w * w, noise += d * d;
        }
    return 10 * std::log10(sig / std::max(noise, 1e-20));
}

QByteArray wavHeader(int channels, int rate, int bits, uint32_t dataBytes)
{
    QByteArray h;
    auto u32 = [&h](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            h.append(char(v >> (8 * i)));
    };
    auto u16 = [&h](uint16_t v) { h.append(char(v)), h.append(char(v >> 8)); };
    h.append("RIFF"), u32(36 + dataBytes), h.append("WAVEfmt "), u32(16), u16(1), u16(channels);
    u32(rate), u32(rate * channels * bits / 8), u16(channels * bits / 8), u16(bits);
    h.append("data"), u32(dataBytes);
    return h;
}

} // namespace

class tst_AudioSndfile : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;

    QString path(const QString& name) const { return dir_.filePath(name); }

    void writeBytes(const QString& name, const QByteArray& bytes) const
    {
        QFile f(path(name));
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(bytes), qint64(bytes.size()));
    }

    // Writes `data` in blocks of odd size; fills *written with the format the writer reports.
    bool create(const QString& name, const QString& format, int rate, int channels, int bits,
        const std::vector<float>& data, _audio_format* written)
    {
        _audio_format fmt = AUDIO_FormatEx(rate, int16_t(channels), int16_t(bits));
        File f(
            AUDIO_CreateFileEx2(path(name).toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, 0));
        if (!f) {
            qWarning("%s", BLERROR_LastMessage());
            return false;
        }
        AUDIO_GetAudioFileFormat(f.get(), written);
        const int64_t frames = int64_t(data.size()) / channels;
        for (int64_t done = 0; done < frames;) {
            const int64_t n = std::min<int64_t>(1001, frames - done);
            if (AUDIO_WriteIEEEFloat(f.get(), data.data() + done * channels, n) != n)
                return false;
            done += n;
        }
        return AUDIO_CloseFile(f.release()) == 1;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        // Bit-exact rows write samples already on the target grid; dither would move them.
        AUDIODITHER_SetDefaultKind(AUDIODITHER_NONE);
    }

    void cleanupTestCase() { AUDIODITHER_SetDefaultKind(AUDIODITHER_TRIANGULAR); }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("format"); // to write
        QTest::addColumn<QString>("readFormat"); // to read back ("" detects)
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("bits"); // source grid, 0 for none
        QTest::addColumn<uint>("container");
        QTest::addColumn<uint>("coder"); // as read back, flag included
        QTest::addColumn<int>("check");
        QTest::addColumn<double>("bound"); // max error, or minimum SNR in dB

        const uint BE = AUDIO_CODEC_FLAG_BIGENDIAN;
        auto row = [](const char* name, const char* format, int rate, int channels, int bits,
                       uint container, uint coder, Check check, double bound,
                       const char* readFormat = "") {
            QTest::newRow(name) << QString(format) << QString(readFormat) << rate << channels
                                << bits << container << coder << int(check) << bound;
        };
        // Lossless: every sample back as written.
        row("wav 16", "wav", 44100, 2, 16, AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM16, Exact, 0);
        row("wav u8", "wav[nbits=8]", 22050, 1, 8, AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM_U8, Exact,
            0);
        row("wav 24", "wav[nbits=24]", 48000, 3, 24, AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM24, Exact,
            0);
        row("wav 32", "wav[nbits=32]", 48000, 2, 32, AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM32, Exact,
            0);
        row("wav float", "wav[codec=float]", 44100, 2, 0, AUDIO_CONTAINER_WAV, AUDIO_CODEC_FLOAT32,
            Exact, 0);
        row("wav double", "wav[codec=double]", 44100, 1, 0, AUDIO_CONTAINER_WAV,
            AUDIO_CODEC_FLOAT64, Exact, 0);
        row("wavex 24", "wavex[nbits=24]", 96000, 6, 24, AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM24,
            Exact, 0);
        row("rf64", "rf64", 44100, 2, 16, AUDIO_CONTAINER_RF64, AUDIO_CODEC_PCM16, Exact, 0);
        row("w64 24", "w64[nbits=24]", 44100, 2, 24, AUDIO_CONTAINER_W64, AUDIO_CODEC_PCM24, Exact,
            0);
        row("aiff big endian", "aiff", 44100, 2, 16, AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM16 | BE,
            Exact, 0);
        row("aiff 24", "aiff[nbits=24]", 44100, 2, 24, AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM24 | BE,
            Exact, 0);
        row("aiff s8", "aiff[nbits=8]", 8000, 1, 8, AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM_S8, Exact,
            0);
        row("aiff little endian", "aiff[endian=little]", 44100, 1, 16, AUDIO_CONTAINER_AIFF,
            AUDIO_CODEC_PCM16, Exact, 0);
        row("aifc float", "aifc[codec=float]", 44100, 2, 0, AUDIO_CONTAINER_AIFF,
            AUDIO_CODEC_FLOAT32 | BE, Exact, 0);
        row("au", "au", 8000, 1, 16, AUDIO_CONTAINER_AU, AUDIO_CODEC_PCM16 | BE, Exact, 0);
        row("au double", "au[codec=double]", 8000, 2, 0, AUDIO_CONTAINER_AU,
            AUDIO_CODEC_FLOAT64 | BE, Exact, 0);
        row("caf", "caf", 44100, 2, 16, AUDIO_CONTAINER_CAF, AUDIO_CODEC_PCM16 | BE, Exact, 0);
        row("caf alac 16", "caf[codec=alac]", 44100, 2, 16, AUDIO_CONTAINER_CAF, AUDIO_CODEC_ALAC,
            Exact, 0);
        row("caf alac 24", "caf[codec=alac,nbits=24]", 48000, 2, 24, AUDIO_CONTAINER_CAF,
            AUDIO_CODEC_ALAC, Exact, 0);
        row("caf alac 32", "caf[codec=alac,nbits=32]", 44100, 1, 32, AUDIO_CONTAINER_CAF,
            AUDIO_CODEC_ALAC, Exact, 0);
        row("aiff dwvw16", "aiff[codec=dwvw16]", 22050, 1, 16, AUDIO_CONTAINER_AIFF,
            AUDIO_CODEC_DWVW16, Exact, 0);
        row("flac 16", "flac", 44100, 2, 16, AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC, Exact, 0);
        row("flac 24", "flac[nbits=24]", 96000, 1, 24, AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC,
            Exact, 0);
        row("flac 8", "flac[nbits=8]", 8000, 1, 8, AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC, Exact,
            0);
        row("raw big endian", "raw[endian=big]", 16000, 2, 16, AUDIO_CONTAINER_RAW,
            AUDIO_CODEC_PCM16 | BE, Exact, 0, "raw[sr=16000,nch=2,endian=big]");
        row("voc", "voc", 22050, 1, 16, AUDIO_CONTAINER_VOC, AUDIO_CODEC_PCM16, Exact, 0);
        row("voc u8", "voc[nbits=8]", 8000, 1, 8, AUDIO_CONTAINER_VOC, AUDIO_CODEC_PCM_U8, Exact,
            0);
        row("ircam", "ircam", 44100, 2, 16, AUDIO_CONTAINER_IRCAM, AUDIO_CODEC_PCM16, Exact, 0);
        row("nist 24", "nist[nbits=24]", 16000, 1, 24, AUDIO_CONTAINER_NIST, AUDIO_CODEC_PCM24,
            Exact, 0);
        row("paf", "paf", 44100, 2, 16, AUDIO_CONTAINER_PAF, AUDIO_CODEC_PCM16 | BE, Exact, 0);
        row("avr", "avr", 22050, 2, 16, AUDIO_CONTAINER_AVR, AUDIO_CODEC_PCM16 | BE, Exact, 0);
        row("mat", "mat", 8000, 2, 16, AUDIO_CONTAINER_MAT, AUDIO_CODEC_PCM16, Exact, 0);
        row("mpc2k", "mpc2k", 44100, 2, 16, AUDIO_CONTAINER_MPC2K, AUDIO_CODEC_PCM16, Exact, 0);
        row("htk", "htk", 16000, 1, 16, AUDIO_CONTAINER_HTK, AUDIO_CODEC_PCM16 | BE, Exact, 0);
        // Companding: a step of the coarsest segment.
        row("wav ulaw", "wav[codec=ulaw]", 8000, 1, 0, AUDIO_CONTAINER_WAV, AUDIO_CODEC_ULAW,
            MaxError, 0.02);
        row("wav alaw", "wav[codec=alaw]", 8000, 2, 0, AUDIO_CONTAINER_WAV, AUDIO_CODEC_ALAW,
            MaxError, 0.02);
        row("aifc ulaw", "aifc[codec=ulaw]", 8000, 1, 0, AUDIO_CONTAINER_AIFF, AUDIO_CODEC_ULAW,
            MaxError, 0.02);
        row("au alaw", "au[codec=alaw]", 8000, 1, 0, AUDIO_CONTAINER_AU, AUDIO_CODEC_ALAW, MaxError,
            0.02);
        row("raw ulaw", "raw[codec=ulaw]", 8000, 1, 0, AUDIO_CONTAINER_RAW, AUDIO_CODEC_ULAW,
            MaxError, 0.02, "raw[sr=8000,codec=ulaw]");
        // ADPCM and speech codecs: waveform coders, compared sample by sample.
        row("wav ima", "wav[codec=ima-adpcm]", 44100, 2, 0, AUDIO_CONTAINER_WAV,
            AUDIO_CODEC_IMA_ADPCM, Snr, 15);
        row("wav ms adpcm", "wav[codec=ms-adpcm]", 44100, 2, 0, AUDIO_CONTAINER_WAV,
            AUDIO_CODEC_MS_ADPCM, Snr, 15);
        row("wav gsm", "wav[codec=gsm]", 8000, 1, 0, AUDIO_CONTAINER_WAV, AUDIO_CODEC_GSM610, Snr,
            8);
        row("wav nms", "wav[codec=nms-adpcm]", 8000, 1, 0, AUDIO_CONTAINER_WAV,
            AUDIO_CODEC_NMS_ADPCM, Snr, 10);
        row("au g721", "au[codec=g721]", 8000, 1, 0, AUDIO_CONTAINER_AU, AUDIO_CODEC_G721, Snr, 15);
        row("au g723 24", "au[codec=g723-24]", 8000, 1, 0, AUDIO_CONTAINER_AU, AUDIO_CODEC_G723_24,
            Snr, 10);
        row("au g723 40", "au[codec=g723-40]", 8000, 1, 0, AUDIO_CONTAINER_AU, AUDIO_CODEC_G723_40,
            Snr, 20);
        row("vox", "vox", 8000, 1, 0, AUDIO_CONTAINER_VOX, AUDIO_CODEC_VOX_ADPCM, Snr, 10,
            "vox[sr=8000]");
        // Perceptual codecs: after the encoder delay.
        row("ogg vorbis", "ogg", 44100, 2, 0, AUDIO_CONTAINER_OGG_VORBIS, AUDIO_CODEC_VORBIS, Snr,
            15);
        row("opus", "opus", 48000, 2, 0, AUDIO_CONTAINER_OGG_OPUS, AUDIO_CODEC_OPUS, Snr, 15);
        row("mp3 192", "mp3[kbps=192]", 44100, 2, 0, AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L3, Snr,
            15);
        row("mp3 mono 22 kHz", "mp3", 22050, 1, 0, AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L3, Snr,
            15);
    }

    void roundTrip()
    {
        QFETCH(QString, format);
        QFETCH(QString, readFormat);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, bits);
        QFETCH(uint, container);
        QFETCH(uint, coder);
        QFETCH(int, check);
        QFETCH(double, bound);

        const int64_t frames = rate; // one second
        const std::vector<float> data = signal(rate, channels, frames, bits);
        const QString name
            = QStringLiteral("rt_%1.bin").arg(QTest::currentDataTag()).replace(' ', '_');
        _audio_format written {};
        QVERIFY(create(name, format, rate, channels, bits ? bits : 16, data, &written));
        QCOMPARE(written.container, container);
        QCOMPARE(written.coder, coder);

        File f(AUDIO_LoadFileEx2(path(name).toUtf8(), readFormat.toUtf8(), 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format got {};
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &got));
        QCOMPARE(got.sampleRate, rate);
        QCOMPARE(int(got.numChannels), channels);
        QCOMPARE(got.container, container);
        QCOMPARE(got.coder, coder);
        QVERIFY(AUDIO_IsValidFormat(&got));
        const std::vector<float> back = readAll(f.get(), channels);

        if (check == Snr) {
            const double snr = alignedSnr(data, back, channels);
            QVERIFY2(snr > bound, qPrintable(QStringLiteral("SNR %1 dB").arg(snr)));
            QVERIFY(back.size() >= data.size() * 9 / 10);
            return;
        }
        QCOMPARE(back.size(), data.size());
        QCOMPARE(AUDIO_Length(f.get()), frames);
        double worst = 0;
        for (size_t i = 0; i < data.size(); ++i)
            worst = std::max(worst, double(std::fabs(back[i] - data[i])));
        QVERIFY2(worst <= bound, qPrintable(QStringLiteral("max error %1").arg(worst)));

        // Seeking lands on the same samples (libsndfile cannot seek in DWVW: refused).
        const bool seekable = (coder & AUDIO_CODEC_MASK) != AUDIO_CODEC_DWVW16;
        QCOMPARE(AUDIO_Seek(f.get(), frames / 3) != 0, seekable);
        if (!seekable)
            return;
        std::vector<float> part(size_t(100 * channels));
        QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), part.data(), 100), int64_t(100));
        for (int i = 0; i < 100 * channels; ++i)
            QCOMPARE(part[size_t(i)], back[size_t((frames / 3) * channels + i)]);
        // The integer path gives the same levels (resolutions above 16 bits are cut, not
        // rounded, hence the step of slack).
        if (check == Exact) {
            QVERIFY(AUDIO_Seek(f.get(), 0));
            std::vector<int16_t> ints(size_t(100 * channels));
            QCOMPARE(AUDIO_Read16(f.get(), ints.data(), 100), int64_t(100));
            const long slack = bits > 0 && bits <= 16 ? 0 : 1;
            for (int i = 0; i < 100 * channels; ++i)
                QVERIFY(
                    std::labs(ints[size_t(i)] - std::lround(data[size_t(i)] * 32768.0)) <= slack);
        }
    }

    // Lossy encoders at a constant rate report it while writing and store about that much.
    void constantBitRate_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("kbps");
        QTest::newRow("mp3 192") << "mp3[kbps=192]" << 44100 << 2 << 192;
        QTest::newRow("mp3 between steps") << "mp3[kbps=100]" << 48000 << 2 << 96;
        QTest::newRow("mp3 mpeg-2") << "mp3[kbps=64]" << 22050 << 1 << 64;
        QTest::newRow("opus 64") << "opus[kbps=64]" << 48000 << 2 << 64;
        QTest::newRow("opus mono 24 kHz") << "opus[kbps=32]" << 24000 << 1 << 32;
    }

    void constantBitRate()
    {
        QFETCH(QString, format);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, kbps);
        const QString name
            = QStringLiteral("cbr_%1.bin").arg(QTest::currentDataTag()).replace(' ', '_');
        _audio_format written {};
        QVERIFY(create(
            name, format, rate, channels, 16, signal(rate, channels, 3 * rate, 0), &written));
        QCOMPARE(QString(written.codecInfo), QStringLiteral("bitrate=%1").arg(kbps));
        File f(AUDIO_LoadFileEx2(path(name).toUtf8(), "", 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        const double measured = AUDIO_BitRate(f.get()) / 1000.0;
        QVERIFY2(std::fabs(measured - kbps) < 0.1 * kbps + 2,
            qPrintable(QStringLiteral("%1 kbit/s").arg(measured)));
    }

    // Headerless data: the format string says everything.
    void rawRead_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("format");
        QTest::addColumn<uint>("coder");
        QTest::addColumn<QList<float>>("samples");
        const uint BE = AUDIO_CODEC_FLAG_BIGENDIAN;
        QTest::newRow("s16 default") << QByteArray("\x00\x40\x00\xc0", 4) << "raw"
                                     << uint(AUDIO_CODEC_PCM16) << QList<float> {0.5f, -0.5f};
        QTest::newRow("s16 big") << QByteArray("\x40\x00\xc0\x00", 4) << "raw[endian=big]"
                                 << uint(AUDIO_CODEC_PCM16 | BE) << QList<float> {0.5f, -0.5f};
        QTest::newRow("u8") << QByteArray("\xc0\x40\x80", 3) << "raw[codec=pcm_u8]"
                            << uint(AUDIO_CODEC_PCM_U8) << QList<float> {0.5f, -0.5f, 0.0f};
        QTest::newRow("s8") << QByteArray("\x40\xc0", 2) << "raw[codec=pcm_s8]"
                            << uint(AUDIO_CODEC_PCM_S8) << QList<float> {0.5f, -0.5f};
        QTest::newRow("s24 stereo")
            << QByteArray("\x00\x00\x40\x00\x00\xe0", 6) << "raw[nbits=24,nch=2]"
            << uint(AUDIO_CODEC_PCM24) << QList<float> {0.5f, -0.25f};
        QTest::newRow("float") << QByteArray("\x00\x00\x00\x3f\x00\x00\x80\xbe", 8)
                               << "raw[codec=float]" << uint(AUDIO_CODEC_FLOAT32)
                               << QList<float> {0.5f, -0.25f};
        QTest::newRow("ulaw silence") << QByteArray("\xff\x7f", 2) << "raw[codec=ulaw]"
                                      << uint(AUDIO_CODEC_ULAW) << QList<float> {0.0f, 0.0f};
    }

    void rawRead()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, format);
        QFETCH(uint, coder);
        QFETCH(QList<float>, samples);
        writeBytes(QStringLiteral("in.raw"), bytes);
        File f(
            AUDIO_LoadFileEx2(path(QStringLiteral("in.raw")).toUtf8(), format.toUtf8(), 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format got {};
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &got));
        QCOMPARE(got.sampleRate, 44100);
        QCOMPARE(got.container, uint(AUDIO_CONTAINER_RAW));
        QCOMPARE(got.coder, coder);
        std::vector<float> back(16);
        const int64_t n = AUDIO_ReadIEEEFloat(f.get(), back.data(), 8);
        QCOMPARE(n * got.numChannels, int64_t(samples.size()));
        for (int i = 0; i < samples.size(); ++i)
            QCOMPARE(back[size_t(i)], samples[i]);
        QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), back.data(), 8), int64_t(0));
    }

    // Files the engine must refuse with a reason, not read as something else.
    void refusedRead_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("format"); // "wav" keeps other backends from trying
        QTest::addColumn<int>("code"); // -1: any
        QTest::addColumn<QString>("reason");
        const QByteArray pcm(64, '\0');
        QTest::newRow("16 channels") << wavHeader(16, 44100, 16, 64) + pcm << "wav"
                                     << int(AUDIOERR_UNSUPPORTED) << "16 channels";
        QTest::newRow("rate 5 Hz")
            << wavHeader(1, 5, 16, 64) + pcm << "wav" << int(AUDIOERR_CORRUPT) << "5 Hz";
        QTest::newRow("text") << QByteArray("just some words, nothing audible here at all.") << ""
                              << int(AUDIOERR_UNRECOGNISED) << "";
        QTest::newRow("wav header cut")
            << wavHeader(2, 44100, 16, 64).left(30) << "wav" << int(AUDIOERR_CORRUPT) << "";
        QTest::newRow("wav header cut, detected")
            << wavHeader(2, 44100, 16, 64).left(30) << "" << -1 << "";
    }

    void refusedRead()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, format);
        QFETCH(int, code);
        QFETCH(QString, reason);
        writeBytes(QStringLiteral("bad.wav"), bytes);
        BLERROR_Clear();
        File f(
            AUDIO_LoadFileEx2(path(QStringLiteral("bad.wav")).toUtf8(), format.toUtf8(), 0, 0, 0));
        QVERIFY(!f);
        const QString message = QString::fromUtf8(BLERROR_LastMessage());
        if (code >= 0)
            QCOMPARE(BLERROR_LastCode(), code);
        else
            QVERIFY(BLERROR_LastCode() != BLERR_NONE);
        QVERIFY2(message.contains(QStringLiteral("bad.wav")), qPrintable(message));
        QVERIFY2(message.contains(reason), qPrintable(message));
    }

    void refusedWrite_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QString>("reason");
        QTest::newRow("opus at 44.1 kHz") << "opus" << 44100 << 2 << "44100 Hz";
        QTest::newRow("gsm stereo") << "wav[codec=gsm]" << 8000 << 2 << "";
        QTest::newRow("voc 24-bit") << "voc[nbits=24]" << 44100 << 1 << "";
        QTest::newRow("mp3 4 channels") << "mp3" << 44100 << 4 << "";
        QTest::newRow("dwvw stereo") << "aiff[codec=dwvw16]" << 44100 << 2 << "1 channel";
    }

    void refusedWrite()
    {
        QFETCH(QString, format);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(QString, reason);
        _audio_format fmt = AUDIO_FormatEx(rate, int16_t(channels), 16);
        const QString target = path(QStringLiteral("refused.out"));
        File f(AUDIO_CreateFileEx2(target.toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, 0));
        QVERIFY(!f);
        QVERIFY(BLERROR_LastCode() == AUDIOERR_UNSUPPORTED
            || BLERROR_LastCode() == AUDIOERR_INVALID_FORMAT);
        const QString message = QString::fromUtf8(BLERROR_LastMessage());
        QVERIFY2(message.contains(QStringLiteral("refused.out")) && message.contains(reason),
            qPrintable(message));
        QVERIFY(!QFile::exists(target));
    }

    // Damaged copies of good files: cut short, or with bytes overwritten. Each either fails to
    // open with a reason or reads to an end; nothing crashes, hangs or reads without bound.
    void damaged_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("channels");
        QTest::newRow("wav") << "wav" << 2;
        QTest::newRow("aiff ima") << "aiff[codec=ima-adpcm]" << 1;
        QTest::newRow("wav ms adpcm") << "wav[codec=ms-adpcm]" << 2;
        QTest::newRow("caf alac") << "caf[codec=alac]" << 2;
        QTest::newRow("flac") << "flac" << 2;
        QTest::newRow("ogg") << "ogg" << 2;
        QTest::newRow("opus") << "opus" << 1;
        QTest::newRow("mp3") << "mp3" << 2;
        QTest::newRow("w64") << "w64" << 2;
        QTest::newRow("wav gsm") << "wav[codec=gsm]" << 1;
        QTest::newRow("au g721") << "au[codec=g721]" << 1;
        QTest::newRow("voc") << "voc" << 1;
        QTest::newRow("mat") << "mat" << 2;
        QTest::newRow("nist") << "nist" << 2;
        QTest::newRow("paf 24") << "paf[nbits=24]" << 2;
    }

    void damaged()
    {
        QFETCH(QString, format);
        QFETCH(int, channels);
        const int rate = 48000;
        const int64_t frames = rate / 2;
        _audio_format written {};
        QVERIFY(create(QStringLiteral("good.bin"), format, rate, channels, 16,
            signal(rate, channels, frames, 16), &written));
        QFile good(path(QStringLiteral("good.bin")));
        QVERIFY(good.open(QIODevice::ReadOnly));
        const QByteArray bytes = good.readAll();

        std::vector<float> block(size_t(4096 * 8));
        uint32_t seed = 12345;
        for (int variant = 0; variant < 60; ++variant) {
            QByteArray bad = bytes;
            seed = seed * 1103515245u + 12345u;
            if (variant < 20) {
                bad.truncate(int(int64_t(bytes.size()) * variant / 20));
            } else {
                // Overwrite a run of bytes, mostly inside the headers where sizes live.
                const int span = variant < 40 ? std::min(bytes.size(), 256) : bytes.size();
                const int at = int((seed >> 8) % uint32_t(span));
                for (int k = 0; k < 4 && at + k < bad.size(); ++k)
                    bad[at + k] = char(variant & 1 ? 0xff : (seed >> (k * 8)));
            }
            writeBytes(QStringLiteral("damaged.bin"), bad);
            BLERROR_Clear();
            File f(AUDIO_LoadFileEx2(path(QStringLiteral("damaged.bin")).toUtf8(), "", 0, 0, 0));
            if (!f) {
                QVERIFY(BLERROR_LastCode() != BLERR_NONE);
                QVERIFY(*BLERROR_LastMessage());
                continue;
            }
            _audio_format got {};
            QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &got));
            QVERIFY(got.numChannels >= 1 && got.numChannels <= 8);
            int64_t total = 0, n = 0;
            int guard = 0;
            while ((n = AUDIO_ReadIEEEFloat(f.get(), block.data(), 4096)) > 0 && ++guard < 2000)
                total += n;
            QVERIFY(n >= -1);
            QVERIFY2(guard < 2000, qPrintable(QStringLiteral("variant %1 reads on").arg(variant)));
        }
    }
};

QTEST_GUILESS_MAIN(tst_AudioSndfile)
#include "tst_audiosndfile.moc"
