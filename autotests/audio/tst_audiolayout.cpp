// Channel layouts: 5.1 files made by ffmpeg with a tone in one channel at a time, remixed by
// the engine and checked per channel against BS.775 levels and ffmpeg's own down-mix; 5.1
// written through every codec that holds it and read back by ffprobe and ffmpeg; the layouts
// the readers report against ffprobe's.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <vector>

namespace {

struct Closer
{
    void operator()(AUDIOFILE* f) const { AUDIO_CloseFile(f); }
};
using File = std::unique_ptr<AUDIOFILE, Closer>;

// The tone: 100 Hz, so that the LFE channel of lossy codecs carries it too; amplitude 0.5.
constexpr double kToneDb = -9.03; // RMS of a sine of amplitude 0.5
const char* const kTone = "sine=frequency=100:sample_rate=48000:duration=1";

struct Decoded
{
    QString layout; // as ffprobe names it
    QVector<double> rmsDb; // per channel, as ffmpeg decodes them
};

double toDb(double energy, int64_t n)
{
    return n > 0 && energy > 0 ? 10.0 * std::log10(energy / double(n)) : -200.0;
}

class TestAudioLayout : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;
    QString ffmpeg_, ffprobe_;

    QString path(const QString& name) const { return dir_.filePath(name); }

    bool run(const QString& program, const QStringList& args, QByteArray* out = nullptr)
    {
        QProcess p;
        p.start(program, args);
        if (!p.waitForFinished(120000) || p.exitCode() != 0) {
            qWarning("%s failed: %s", qPrintable(program), p.readAllStandardError().constData());
            return false;
        }
        if (out)
            *out = p.readAllStandardOutput();
        return true;
    }

    // A 1 s file of `layout` with the tone in channel `channel` only (-1: channel c at
    // 0.5^(c+1), so that every channel is told apart by its level).
    bool make(const QString& file, const QString& layout, int channel, const QStringList& codec)
    {
        const int n = layout == "mono" ? 1 : layout == "stereo" ? 2 : 6;
        QString pan = layout;
        for (int c = 0; c < n; ++c)
            if (channel < 0)
                pan += QStringLiteral("|c%1=%2*c0").arg(c).arg(std::pow(0.5, c), 0, 'f', 6);
            else if (c == channel)
                pan += QStringLiteral("|c%1=c0").arg(c);
        QStringList args {"-v", "error", "-y", "-f", "lavfi", "-i", kTone, "-af",
            "volume=4.0," + QStringLiteral("pan=%1").arg(pan)};
        // lavfi's sine has amplitude 1/8: volume 4 makes it 0.5.
        return run(ffmpeg_, args + codec + QStringList {file});
    }

    Decoded decode(const QString& file)
    {
        Decoded d;
        QByteArray probe;
        if (!run(ffprobe_,
                {"-v", "error", "-select_streams", "a:0", "-show_entries",
                    "stream=channels,channel_layout", "-of", "default=nw=1", file},
                &probe))
            return d;
        int channels = 0;
        for (const QByteArray& line : probe.split('\n')) {
            if (line.startsWith("channels="))
                channels = line.mid(9).toInt();
            if (line.startsWith("channel_layout="))
                d.layout = QString::fromUtf8(line.mid(15));
        }
        QByteArray raw;
        if (channels < 1
            || !run(ffmpeg_, {"-v", "error", "-i", file, "-f", "f32le", "-c:a", "pcm_f32le", "-"},
                &raw))
            return d;
        const auto* s = reinterpret_cast<const float*>(raw.constData());
        const int64_t frames = raw.size() / int64_t(sizeof(float)) / channels;
        // Skip the first and last 0.1 s: encoder delay and edges.
        const int64_t from = std::min<int64_t>(4800, frames / 4), to = frames - from;
        for (int c = 0; c < channels; ++c) {
            double e = 0;
            for (int64_t i = from; i < to; ++i)
                e += double(s[i * channels + c]) * s[i * channels + c];
            d.rmsDb << toDb(e, to - from);
        }
        return d;
    }

    // Converts as `sova convert --channels N` does: the target format carries the count.
    bool convert(const QString& in, const QString& out, const char* format, int channels)
    {
        _audio_format fmt = AUDIO_FormatEx(48000, int16_t(channels), 16);
        return AUDIO_ConvertEx(nullptr, in.toUtf8().constData(), nullptr, out.toUtf8().constData(),
                   format, channels > 0 ? &fmt : nullptr)
            == 1;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        ffmpeg_ = QStandardPaths::findExecutable("ffmpeg");
        ffprobe_ = QStandardPaths::findExecutable("ffprobe");
        if (ffmpeg_.isEmpty() || ffprobe_.isEmpty())
            QSKIP("no ffmpeg/ffprobe on PATH");
    }

    void layoutNames_data()
    {
        QTest::addColumn<uint>("mask");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QString>("name");
        QTest::newRow("unspecified 6 is 5.1") << 0u << 6 << "5.1";
        QTest::newRow("side surrounds") << 0x60fu << 6 << "5.1(side)";
        QTest::newRow("7.1") << 0x63fu << 8 << "7.1";
        QTest::newRow("no name") << 0x10bu << 4 << "FL+FR+LFE+BC";
        QTest::newRow("mask of another count") << 0x3u << 1 << "mono";
    }

    void layoutNames()
    {
        QFETCH(uint, mask);
        QFETCH(int, channels);
        QFETCH(QString, name);
        QCOMPARE(QString::fromUtf8(AUDIO_ChannelLayoutName(mask, channels)), name);
    }

    // The mask lives beside the other codec information and names exactly numChannels.
    void maskInCodecInfo()
    {
        _audio_format f = AUDIO_FormatEx(48000, 6, 16);
        f.codecInfo = "bitrate=320,chmask=3";
        QCOMPARE(AUDIO_FormatChannelMask(&f), 0u); // 2 speakers for 6 channels: unspecified
        QVERIFY(AUDIO_SetFormatChannelMask(&f, 0x60f));
        QCOMPARE(QString(f.codecInfo), QStringLiteral("bitrate=320,chmask=1551"));
        QCOMPARE(AUDIO_FormatChannelMask(&f), 0x60fu);
        QVERIFY(!AUDIO_SetFormatChannelMask(&f, 0x3));
        QCOMPARE(AUDIO_FormatChannelMask(&f), 0x60fu);
        QVERIFY(AUDIO_SetFormatChannelMask(&f, 0));
        QCOMPARE(QString(f.codecInfo), QStringLiteral("bitrate=320"));
    }

    // Down-mixes of 5.1 with the tone in one channel, against BS.775 (centre and surrounds at
    // -3 dB, LFE left out, scaled by 1/(1 + 2 x 0.707) so that nothing clips) and ffmpeg -ac.
    void downmix_data()
    {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QVector<double>>("gains");
        const double k2 = 1.0 / (1.0 + 2.0 * M_SQRT1_2); // stereo scale
        const double k1 = 1.0 / (1.0 + 2.0 * M_SQRT1_2 + 1.0); // mono: L, R, C, Ls/2, Rs/2
        const QStringList names {"FL", "FR", "FC", "LFE", "BL", "BR"};
        const QVector<QVector<double>> stereo {{k2, 0}, {0, k2}, {k2 * M_SQRT1_2, k2 * M_SQRT1_2},
            {0, 0}, {k2 * M_SQRT1_2, 0}, {0, k2 * M_SQRT1_2}};
        const QVector<double> mono {k1 * M_SQRT1_2, k1 * M_SQRT1_2, k1, 0, k1 * 0.5, k1 * 0.5};
        for (int c = 0; c < 6; ++c) {
            QTest::addRow("5.1 %s to stereo", qPrintable(names[c])) << "5.1" << c << 2 << stereo[c];
            QTest::addRow("5.1 %s to mono", qPrintable(names[c]))
                << "5.1" << c << 1 << QVector<double> {mono[c]};
        }
        QTest::newRow("5.1(side) SL to stereo") << "5.1(side)" << 4 << 2 << stereo[4];
        QTest::newRow("stereo FL to mono") << "stereo" << 0 << 1 << QVector<double> {0.5};
    }

    void downmix()
    {
        QFETCH(QString, layout);
        QFETCH(int, channel);
        QFETCH(int, channels);
        QFETCH(QVector<double>, gains);
        const QString in = path("down-in.wav"), out = path("down-out.wav"),
                      ref = path("down-ref.wav");
        QVERIFY(make(in, layout, channel, {"-c:a", "pcm_s16le"}));
        QVERIFY2(convert(in, out, "wav", channels), BLERROR_LastMessage());
        const Decoded ours = decode(out);
        QVERIFY(run(ffmpeg_,
            {"-v", "error", "-y", "-i", in, "-ac", QString::number(channels), "-c:a", "pcm_s16le",
                ref}));
        const Decoded theirs = decode(ref);
        QCOMPARE(ours.rmsDb.size(), channels);
        QCOMPARE(theirs.rmsDb.size(), channels);
        for (int c = 0; c < channels; ++c) {
            const double want = gains[c] > 0 ? kToneDb + 20.0 * std::log10(gains[c]) : -200.0;
            const QString what
                = QStringLiteral("channel %1: ours %2 dB, BS.775 %3 dB, ffmpeg %4 dB")
                      .arg(c)
                      .arg(ours.rmsDb[c])
                      .arg(want)
                      .arg(theirs.rmsDb[c]);
            if (gains[c] > 0) {
                QVERIFY2(std::fabs(ours.rmsDb[c] - want) < 0.1, qPrintable(what));
                QVERIFY2(std::fabs(ours.rmsDb[c] - theirs.rmsDb[c]) < 0.2, qPrintable(what));
            } else {
                QVERIFY2(ours.rmsDb[c] < -80.0, qPrintable(what));
            }
        }
    }

    // Up-mixes put each channel at its own speaker: stereo into 5.1 leaves centre and LFE
    // silent, mono goes to the centre of 5.1 and to both channels of stereo.
    void upmix_data()
    {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QVector<double>>("gains");
        QTest::newRow("stereo right to 5.1 right, not LFE")
            << "stereo" << 1 << 6 << QVector<double> {0, 1, 0, 0, 0, 0};
        QTest::newRow("stereo left to 5.1 left, not centre")
            << "stereo" << 0 << 6 << QVector<double> {1, 0, 0, 0, 0, 0};
        QTest::newRow("mono to 5.1 centre")
            << "mono" << 0 << 6 << QVector<double> {0, 0, 1, 0, 0, 0};
        QTest::newRow("mono to both of stereo") << "mono" << 0 << 2 << QVector<double> {1, 1};
    }

    void upmix()
    {
        QFETCH(QString, layout);
        QFETCH(int, channel);
        QFETCH(int, channels);
        QFETCH(QVector<double>, gains);
        const QString in = path("up-in.wav"), out = path("up-out.wav");
        QVERIFY(make(in, layout, channel, {"-c:a", "pcm_s16le"}));
        QVERIFY2(convert(in, out, "wav", channels), BLERROR_LastMessage());
        const Decoded ours = decode(out);
        QCOMPARE(ours.rmsDb.size(), channels);
        if (channels == 6)
            QCOMPARE(ours.layout, QStringLiteral("5.1"));
        for (int c = 0; c < channels; ++c) {
            const QString what = QStringLiteral("channel %1: %2 dB").arg(c).arg(ours.rmsDb[c]);
            if (gains[c] > 0)
                QVERIFY2(std::fabs(ours.rmsDb[c] - kToneDb) < 0.1, qPrintable(what));
            else
                QVERIFY2(ours.rmsDb[c] < -80.0, qPrintable(what));
        }
    }

    // 5.1 with a level of its own per channel, through every codec that holds 5.1: ffprobe
    // names the layout, and ffmpeg finds every channel at its level.
    void roundTrip_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("layout");
        QTest::addColumn<double>("tolerance");
        QTest::newRow("wav") << "a.wav"
                             << "wav"
                             << "5.1" << 0.05;
        QTest::newRow("rf64") << "a.rf64"
                              << "rf64"
                              << "5.1" << 0.05;
        QTest::newRow("flac") << "a.flac"
                              << "flac"
                              << "5.1" << 0.05;
        // libsndfile's 8-bit FLAC is labelled by count, which FFmpeg reads as side surrounds.
        QTest::newRow("flac 8-bit") << "b.flac"
                                    << "flac[nbits=8]"
                                    << "5.1(side)" << 1.0;
        QTest::newRow("aac") << "a.m4a"
                             << "m4a"
                             << "5.1" << 0.5;
        QTest::newRow("alac") << "b.m4a"
                              << "m4a[codec=alac]"
                              << "5.1" << 0.05;
        // Vorbis lifts a quiet low tone in the LFE by 2 dB, with ffmpeg's own encoder too;
        // neighbouring channels differ by 6 dB, so a misplaced channel still shows.
        QTest::newRow("vorbis") << "a.ogg"
                                << "ogg"
                                << "5.1" << 2.5;
        QTest::newRow("opus") << "a.opus"
                              << "opus"
                              << "5.1" << 1.0;
        // AC-3's 3/2 mode: FFmpeg names its surrounds side.
        QTest::newRow("ac3") << "a.ac3"
                             << "ac3"
                             << "5.1(side)" << 0.5;
        QTest::newRow("wavpack") << "a.wv"
                                 << "wv"
                                 << "5.1" << 0.05;
        QTest::newRow("matroska flac") << "a.mka"
                                       << "mka"
                                       << "5.1" << 0.05;
        QTest::newRow("matroska vorbis") << "b.mka"
                                         << "mka[codec=vorbis]"
                                         << "5.1" << 2.5;
        QTest::newRow("matroska aac") << "c.mka"
                                      << "mka[codec=aac]"
                                      << "5.1" << 0.5;
        QTest::newRow("matroska ac3") << "d.mka"
                                      << "mka[codec=ac3]"
                                      << "5.1(side)" << 0.5;
    }

    void roundTrip()
    {
        QFETCH(QString, name);
        QFETCH(QString, format);
        QFETCH(QString, layout);
        QFETCH(double, tolerance);
        const QString in = path("levels51.wav"), out = path(name);
        if (!QFile::exists(in))
            QVERIFY(make(in, "5.1", -1, {"-c:a", "pcm_s24le"}));
        QVERIFY2(convert(in, out, format.toUtf8().constData(), 0), BLERROR_LastMessage());
        const Decoded got = decode(out);
        QCOMPARE(got.layout, layout);
        QCOMPARE(got.rmsDb.size(), 6);
        for (int c = 0; c < 6; ++c) {
            const double want = kToneDb + 20.0 * std::log10(std::pow(0.5, c));
            QVERIFY2(std::fabs(got.rmsDb[c] - want) < tolerance,
                qPrintable(QStringLiteral("channel %1: %2 dB, want %3")
                               .arg(c)
                               .arg(got.rmsDb[c])
                               .arg(want)));
        }
        // The engine reads back the layout it wrote, channels in place.
        File f(AUDIO_LoadFileEx2(out.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &fmt));
        QCOMPARE(QString(AUDIO_ChannelLayoutName(AUDIO_FormatChannelMask(&fmt), 6)), layout);
    }

    // Layouts of files made by ffmpeg, as the engine reads them: the name ffprobe gives, and
    // the tone in the centre channel (index 2 of every 5.1 order) where ffmpeg has it.
    void readers_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QStringList>("codec");
        QTest::newRow("wavex side") << "r.wav"
                                    << "5.1(side)" << QStringList {"-c:a", "pcm_s16le"};
        QTest::newRow("flac side") << "r.flac"
                                   << "5.1(side)" << QStringList {"-c:a", "flac"};
        QTest::newRow("flac back") << "s.flac"
                                   << "5.1" << QStringList {"-c:a", "flac"};
        QTest::newRow("ogg centre not in right") << "r.ogg"
                                                 << "5.1" << QStringList {"-c:a", "libvorbis"};
        QTest::newRow("opus centre not in right") << "r.opus"
                                                  << "5.1" << QStringList {"-c:a", "libopus"};
        QTest::newRow("aac") << "r.m4a"
                             << "5.1" << QStringList {"-c:a", "aac"};
        QTest::newRow("wavpack side") << "r.wv"
                                      << "5.1(side)" << QStringList {"-c:a", "wavpack"};
        QTest::newRow("7.1 wav") << "t.wav"
                                 << "7.1" << QStringList {"-c:a", "pcm_s16le"};
    }

    void readers()
    {
        QFETCH(QString, name);
        QFETCH(QString, layout);
        QFETCH(QStringList, codec);
        const QString file = path(name);
        QVERIFY(make(file, layout, 2, codec));
        const Decoded theirs = decode(file);
        QCOMPARE(theirs.layout, layout);
        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        _audio_format fmt;
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &fmt));
        const int n = fmt.numChannels;
        QCOMPARE(QString(AUDIO_ChannelLayoutName(AUDIO_FormatChannelMask(&fmt), n)), layout);
        std::vector<float> block(size_t(4096 * n));
        std::vector<double> energy(static_cast<size_t>(n), 0.0);
        int64_t got;
        while ((got = AUDIO_ReadIEEEFloat(f.get(), block.data(), 4096)) > 0)
            for (int64_t i = 0; i < got * n; ++i)
                energy[size_t(i % n)] += double(block[size_t(i)]) * block[size_t(i)];
        QVERIFY(got == 0);
        for (int c = 0; c < n; ++c)
            QVERIFY2((c == 2) == (energy[size_t(c)] > 1.0),
                qPrintable(QStringLiteral("channel %1: energy %2").arg(c).arg(energy[size_t(c)])));
    }

    // The "mix" effect and effect paths remix by layout too.
    void effectMix()
    {
        _audio_format in = AUDIO_FormatEx(48000, 6, 16);
        QVERIFY(AUDIO_SetFormatChannelMask(&in, 0x60f));
        _AUDIOFXPATH* fx = AUDIOFX_CreatePathEx(&in, -1, -1, 0, "mix[nch=2]");
        QVERIFY2(fx, BLERROR_LastMessage());
        const float frame[6] = {0, 0, 0, 0, 0, 1}; // SR
        float out[2] = {-1, -1};
        int64_t inCount = 1, outCount = 1;
        QVERIFY(AUDIOFX_ProcessSamples(fx, frame, &inCount, out, &outCount, 1));
        AUDIOFX_DestroyPath(fx);
        QCOMPARE(outCount, int64_t(1));
        QCOMPARE(out[0], 0.0f);
        QVERIFY(std::fabs(out[1] - M_SQRT1_2 / (1.0 + 2.0 * M_SQRT1_2)) < 1e-6);
    }
};

} // namespace

QTEST_GUILESS_MAIN(TestAudioLayout)
#include "tst_audiolayout.moc"
