// The FFmpeg formats through the engine's public calls: round trips of every writable format,
// sample-accurate seeking, damaged files, and files written by the ffmpeg command line.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

namespace {

struct Closer
{
    void operator()(AUDIOFILE* f) const { AUDIO_CloseFile(f); }
};
using File = std::unique_ptr<AUDIOFILE, Closer>;

constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr int64_t kFrames = 44100;

// A rising sweep (so that cross-correlation finds one lag only) plus a tone, different per
// channel, on the 16-bit grid so that lossless codecs must give it back exactly.
std::vector<float> signal()
{
    std::vector<float> s(size_t(kFrames * kChannels));
    for (int64_t i = 0; i < kFrames; ++i) {
        const double t = double(i) / kRate;
        for (int c = 0; c < kChannels; ++c) {
            const double v = 0.4 * std::sin(2 * M_PI * (200.0 + 1500.0 * t) * t * (c + 1))
                + 0.2 * std::sin(2 * M_PI * 660.0 * t + c);
            s[size_t(i * kChannels + c)] = float(std::round(v * 32768.0) / 32768.0);
        }
    }
    return s;
}

// Everything a file yields, in blocks; at most `limit` frames, so a reader that never ends
// fails the test instead of hanging it. `ok` is false when a read reported an error.
std::vector<float> readAll(AUDIOFILE* f, int channels, bool* ok = nullptr, int64_t limit = 1 << 22)
{
    std::vector<float> out, block(size_t(1000 * channels));
    int64_t n = 0, total = 0;
    while (total < limit && (n = AUDIO_ReadIEEEFloat(f, block.data(), 1000)) > 0) {
        out.insert(out.end(), block.begin(), block.begin() + n * channels);
        total += n;
    }
    if (ok)
        *ok = n == 0;
    return out;
}

// SNR in dB of `got` against `want` over frames [from, to) of `want`, after shifting by the
// encoder delay that correlates best.
double alignedSnr(
    const std::vector<float>& want, const std::vector<float>& got, int64_t from, int64_t to)
{
    const int64_t n = int64_t(want.size()) / kChannels, m = int64_t(got.size()) / kChannels;
    auto at
        = [](const std::vector<float>& v, int64_t i) { return double(v[size_t(i * kChannels)]); };
    int64_t best = 0;
    double bestCorr = -1e300;
    for (int64_t lag = -3000; lag <= 3000; ++lag) {
        double corr = 0;
        for (int64_t i = 10000; i < 18000; i += 2)
            if (i + lag >= 0 && i + lag < m)
                corr += at(want, i) * at(got, i + lag);
        if (corr > bestCorr)
            bestCorr = corr, best = lag;
    }
    double sig = 0, noise = 0;
    for (int64_t i = from; i < std::min(to, n); ++i)
        for (int c = 0; c < kChannels; ++c) {
            const int64_t j = i + best;
            const double w = want[size_t(i * kChannels + c)];
            const double d = (j >= 0 && j < m ? got[size_t(j * kChannels + c)] : 0.0) - w;
            sig += w * w, noise += d * d;
        }
    return 10 * std::log10(sig / std::max(noise, 1e-20));
}

bool write(const QString& path, const char* format, const std::vector<float>& samples,
    const char* metadata = nullptr)
{
    const _audio_format fmt = AUDIO_FormatEx(kRate, kChannels, 16);
    File f(AUDIO_CreateFileEx2(path.toUtf8().constData(), format, &fmt, -1, -1, 0, metadata, 0));
    if (!f)
        return false;
    const int64_t n = AUDIO_WriteIEEEFloat(f.get(), samples.data(), kFrames);
    return n == kFrames && AUDIO_CloseFile(f.release()) == 1;
}

QByteArray readBytes(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(bytes), qint64(bytes.size()));
}

} // namespace

class TestAudioFfmpeg : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir_;
    std::vector<float> signal_ = signal();
    QString path(const QString& name) const { return dir_.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        // Lossless rows compare bit for bit: the samples are on the 16-bit grid already.
        AUDIODITHER_SetDefaultKind(AUDIODITHER_NONE);
    }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<uint>("container");
        QTest::addColumn<uint>("codec");
        QTest::addColumn<int>("frameSlack"); // decoded length may differ by this much
        QTest::addColumn<double>("minSnr"); // 0: bit-exact
        QTest::addColumn<bool>("optional"); // the encoder may be missing from the build
        const uint mp4 = AUDIO_CONTAINER_MP4, mkv = AUDIO_CONTAINER_MKV;
        QTest::newRow("m4a") << "m4a" << mp4 << uint(AUDIO_CODEC_AAC) << 1024 << 15.0 << false;
        QTest::newRow("aac 96k") << "aac[kbps=96]" << mp4 << uint(AUDIO_CODEC_AAC) << 1024 << 15.0
                                 << false;
        QTest::newRow("alac") << "m4a[codec=alac]" << mp4 << uint(AUDIO_CODEC_ALAC) << 0 << 0.0
                              << false;
        QTest::newRow("wma") << "wma" << uint(AUDIO_CONTAINER_ASF) << uint(AUDIO_CODEC_WMA_V2)
                             << 2048 << 15.0 << false;
        QTest::newRow("ac3") << "ac3" << uint(AUDIO_CONTAINER_AC3) << uint(AUDIO_CODEC_AC3) << 1536
                             << 15.0 << false;
        QTest::newRow("wavpack") << "wv" << uint(AUDIO_CONTAINER_WAVPACK)
                                 << uint(AUDIO_CODEC_WAVPACK) << 0 << 0.0 << false;
        QTest::newRow("tta") << "tta" << uint(AUDIO_CONTAINER_TTA) << uint(AUDIO_CODEC_TTA) << 0
                             << 0.0 << false;
        QTest::newRow("mka flac") << "mka" << mkv << uint(AUDIO_CODEC_FLAC) << 0 << 0.0 << false;
        QTest::newRow("mka vorbis")
            << "mka[codec=vorbis]" << mkv << uint(AUDIO_CODEC_VORBIS) << 2048 << 15.0 << true;
        QTest::newRow("mp2") << "mp2" << uint(AUDIO_CONTAINER_MPEG) << uint(AUDIO_CODEC_MPEG_L2)
                             << 1152 << 15.0 << false;
    }

    void roundTrip()
    {
        QFETCH(QString, format);
        QFETCH(uint, container);
        QFETCH(uint, codec);
        QFETCH(int, frameSlack);
        QFETCH(double, minSnr);
        QFETCH(bool, optional);
        const QString file = path(QString("rt_%1").arg(QTest::currentDataTag()).replace(' ', '_'));
        if (!write(file, format.toUtf8().constData(), signal_)) {
            if (optional && BLERROR_LastCode() == AUDIOERR_UNSUPPORTED)
                QSKIP("encoder not in this build");
            QFAIL(BLERROR_LastMessage());
        }

        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &fmt));
        QCOMPARE(fmt.container, container);
        QCOMPARE(fmt.coder, codec);
        QCOMPARE(fmt.sampleRate, kRate);
        QCOMPARE(int(fmt.numChannels), kChannels);
        QVERIFY(fmt.mimeType && *fmt.mimeType);
        bool ok = false;
        const std::vector<float> got = readAll(f.get(), kChannels, &ok);
        QVERIFY2(ok, BLERROR_LastMessage());
        const int64_t frames = int64_t(got.size()) / kChannels;
        QVERIFY2(std::llabs(frames - kFrames) <= frameSlack, qPrintable(QString::number(frames)));
        if (minSnr == 0.0) {
            QCOMPARE(frames, kFrames);
            QVERIFY(got == signal_);
            QCOMPARE(AUDIO_Length(f.get()), kFrames);
        } else {
            // The start and the end too, which an encoder or decoder must not drop (the last
            // few hundred frames suffer the pre-echo of the cut to silence, the first frame
            // that of the onset).
            for (auto [from, to] : {std::pair<int64_t, int64_t>(1100, 2000), {4000, kFrames - 4000},
                     {kFrames - 1000, kFrames - 700}}) {
                const double snr = alignedSnr(signal_, got, from, to);
                QVERIFY2(snr > minSnr,
                    qPrintable(QString("SNR %1 dB in frames %2 to %3").arg(snr).arg(from).arg(to)));
            }
        }
    }

    // A read after AUDIO_Seek(f) equals a read from the start that skipped f frames, in
    // whatever order the seeks come.
    void seek_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<double>("tolerance");
        QTest::newRow("alac") << "m4a[codec=alac]" << 0.0;
        QTest::newRow("aac") << "m4a" << 1e-3;
        QTest::newRow("mka flac") << "mka" << 0.0; // millisecond timestamps
        QTest::newRow("wavpack") << "wv" << 0.0;
        QTest::newRow("ac3") << "ac3" << 1e-3;
        QTest::newRow("wma") << "wma" << 1e-3;
    }

    void seek()
    {
        QFETCH(QString, format);
        QFETCH(double, tolerance);
        const QString file
            = path(QString("seek_%1").arg(QTest::currentDataTag()).replace(' ', '_'));
        QVERIFY2(write(file, format.toUtf8().constData(), signal_), BLERROR_LastMessage());
        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        const std::vector<float> all = readAll(f.get(), kChannels);
        const int64_t total = int64_t(all.size()) / kChannels;
        const int64_t block = 700;
        for (int64_t target : {int64_t(30000), int64_t(0), int64_t(1), int64_t(1023), int64_t(1024),
                 int64_t(4097), int64_t(2000), int64_t(2001), int64_t(25000), total - 100}) {
            QVERIFY2(AUDIO_Seek(f.get(), target), BLERROR_LastMessage());
            std::vector<float> got(size_t(block * kChannels));
            const int64_t n = AUDIO_ReadIEEEFloat(f.get(), got.data(), block);
            QCOMPARE(n, std::min(block, total - target));
            double worst = 0;
            for (int64_t i = 0; i < n * kChannels; ++i)
                worst = std::max(
                    worst, std::fabs(double(got[size_t(i)]) - all[size_t(target * kChannels + i)]));
            QVERIFY2(worst <= tolerance,
                qPrintable(QString("frame %1: off by %2").arg(target).arg(worst)));
        }
        QVERIFY2(AUDIO_Seek(f.get(), total), BLERROR_LastMessage()); // the end: reads give 0
        float tail[2];
        QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), tail, 1), int64_t(0));
    }

    // Damaged files: opening fails with a message naming the file, or reading gives at most
    // what was written and then ends or fails; never a crash or a hang.
    void damaged_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("damage");
        QTest::addColumn<bool>("mustFailOpen");
        QTest::newRow("m4a cut in half") << "m4a"
                                         << "half" << false;
        QTest::newRow("alac cut in half") << "m4a[codec=alac]"
                                          << "half" << false;
        QTest::newRow("garbage after mp4 header") << "m4a"
                                                  << "garbage" << true;
        QTest::newRow("m4a samples overwritten") << "m4a"
                                                 << "stomp" << false;
        QTest::newRow("mka cut in half") << "mka"
                                         << "half" << false;
        QTest::newRow("mka samples overwritten") << "mka"
                                                 << "stomp" << false;
        QTest::newRow("wavpack cut in half") << "wv"
                                             << "half" << false;
        QTest::newRow("ac3 cut in half") << "ac3"
                                         << "half" << false;
        QTest::newRow("wma samples overwritten") << "wma"
                                                 << "stomp" << false;
    }

    void damaged()
    {
        QFETCH(QString, format);
        QFETCH(QString, damage);
        QFETCH(bool, mustFailOpen);
        const QString name = QString("bad_%1").arg(QTest::currentDataTag()).replace(' ', '_');
        const QString file = path(name);
        QVERIFY2(write(file, format.toUtf8().constData(), signal_), BLERROR_LastMessage());
        QByteArray bytes = readBytes(file);
        QVERIFY(bytes.size() > 4096);
        if (damage == "half") {
            bytes.truncate(bytes.size() / 2);
        } else if (damage == "garbage") {
            // The leading ftyp box stays; what follows is noise.
            const int keep = 32;
            for (int i = keep; i < bytes.size(); ++i)
                bytes[i] = char((i * 7919 + 13) ^ (i >> 3));
        } else {
            for (int i = bytes.size() / 3; i < bytes.size() / 3 + 2000; ++i)
                bytes[i] = char(0xff ^ (i & 0x5a));
        }
        writeBytes(file, bytes);

        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        if (!f) {
            QVERIFY(BLERROR_LastCode() != 0);
            QVERIFY2(QString(BLERROR_LastMessage()).contains(name), BLERROR_LastMessage());
            return;
        }
        QVERIFY2(!mustFailOpen, "opened a file that is no audio");
        bool ok = false;
        const std::vector<float> got = readAll(f.get(), kChannels, &ok, 4 * kFrames);
        QVERIFY(int64_t(got.size()) / kChannels <= kFrames + 4096);
        if (!ok)
            QVERIFY2(QString(BLERROR_LastMessage()).contains(name), BLERROR_LastMessage());
        for (float v : got)
            QVERIFY(std::isfinite(v));
    }

    // Files made by the ffmpeg command line in containers the engine only reads.
    void foreignFiles_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("args");
        QTest::addColumn<uint>("container");
        QTest::addColumn<uint>("codec");
        QTest::addColumn<int>("rate");
        const uint mkv = AUDIO_CONTAINER_MKV, mp4 = AUDIO_CONTAINER_MP4;
        QTest::newRow("aac in mp4") << "a.mp4"
                                    << "-c:a aac" << mp4 << uint(AUDIO_CODEC_AAC) << 44100;
        QTest::newRow("aac adts") << "a.aac"
                                  << "-c:a aac" << uint(AUDIO_CONTAINER_RAW)
                                  << uint(AUDIO_CODEC_AAC) << 44100;
        QTest::newRow("alac in m4a") << "a.m4a"
                                     << "-c:a alac" << mp4 << uint(AUDIO_CODEC_ALAC) << 44100;
        QTest::newRow("opus in webm") << "a.webm"
                                      << "-c:a libopus" << mkv << uint(AUDIO_CODEC_OPUS) << 48000;
        QTest::newRow("eac3") << "a.eac3"
                              << "-c:a eac3" << uint(AUDIO_CONTAINER_AC3) << uint(AUDIO_CODEC_EAC3)
                              << 44100;
        QTest::newRow("wmav2 in asf")
            << "a.wma"
            << "-c:a wmav2" << uint(AUDIO_CONTAINER_ASF) << uint(AUDIO_CODEC_WMA_V2) << 44100;
        QTest::newRow("dts") << "a.dts"
                             << "-c:a dca -strict -2 -ar 48000" << uint(AUDIO_CONTAINER_DTS)
                             << uint(AUDIO_CODEC_DTS) << 48000;
        QTest::newRow("mp2 in mka") << "a.mka"
                                    << "-c:a mp2" << mkv << uint(AUDIO_CODEC_MPEG_L2) << 44100;
        QTest::newRow("wavpack 24-bit")
            << "a.wv"
            << "-c:a wavpack -sample_fmt s32p" << uint(AUDIO_CONTAINER_WAVPACK)
            << uint(AUDIO_CODEC_WAVPACK) << 44100;
    }

    void foreignFiles()
    {
        QFETCH(QString, name);
        QFETCH(QString, args);
        QFETCH(uint, container);
        QFETCH(uint, codec);
        QFETCH(int, rate);
        const QString ffmpeg = QStandardPaths::findExecutable("ffmpeg");
        if (ffmpeg.isEmpty())
            QSKIP("no ffmpeg on PATH");
        const QString file = path(name);
        QStringList argv {"-v", "error", "-y", "-f", "lavfi", "-i",
            "sine=frequency=440:sample_rate=44100:duration=1", "-ac", "2"};
        argv << args.split(' ') << file;
        QProcess p;
        p.start(ffmpeg, argv);
        QVERIFY(p.waitForFinished(60000));
        if (p.exitCode() != 0)
            QSKIP(qPrintable("ffmpeg cannot make it: " + p.readAllStandardError()));

        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &fmt));
        QCOMPARE(fmt.container, container);
        QCOMPARE(fmt.coder, codec);
        QCOMPARE(fmt.sampleRate, rate);
        QCOMPARE(int(fmt.numChannels), 2);
        bool ok = false;
        const std::vector<float> got = readAll(f.get(), 2, &ok);
        QVERIFY2(ok, BLERROR_LastMessage());
        const double seconds = double(got.size()) / 2 / rate;
        QVERIFY2(std::fabs(seconds - 1.0) < 0.1, qPrintable(QString::number(seconds)));
        double energy = 0;
        for (float v : got)
            energy += double(v) * v;
        QVERIFY(energy / double(got.size()) > 0.003); // the tone (amplitude 1/8), not silence
    }

    void tags()
    {
        const QString ffprobe = QStandardPaths::findExecutable("ffprobe");
        if (ffprobe.isEmpty())
            QSKIP("no ffprobe on PATH");
        const QString file = path("tags.m4a");
        QVERIFY2(write(file, "m4a", signal_, "title='A, B',artist=Someone,date=2024"),
            BLERROR_LastMessage());
        QProcess p;
        p.start(ffprobe,
            {"-v", "error", "-show_entries", "format_tags=title,artist,date", "-of",
                "default=noprint_wrappers=1", file});
        QVERIFY(p.waitForFinished(60000));
        const QString out = p.readAllStandardOutput();
        QVERIFY2(out.contains("TAG:title=A, B"), qPrintable(out));
        QVERIFY2(out.contains("TAG:artist=Someone"), qPrintable(out));
        QVERIFY2(out.contains("TAG:date=2024"), qPrintable(out));
    }
};

QTEST_GUILESS_MAIN(TestAudioFfmpeg)
#include "tst_audioffmpeg.moc"
