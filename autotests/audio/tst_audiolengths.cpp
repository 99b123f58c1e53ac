// True lengths and salvaged damage: files made by ffmpeg and sox (VBR MP3 without a Xing
// header, concatenated streams, gapless MP3/M4A/Opus, byte-flipped and cut files), read through
// the engine and checked against what the ffmpeg command line decodes from the same file.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct Closer
{
    void operator()(AUDIOFILE* f) const { AUDIO_CloseFile(f); }
};
using File = std::unique_ptr<AUDIOFILE, Closer>;

constexpr int kChannels = 2;

// Every frame a handle gives, as interleaved floats; ok is false when a read failed.
std::vector<float> readAll(AUDIOFILE* f, bool* ok)
{
    std::vector<float> out, block(4096 * kChannels);
    int64_t n;
    while ((n = AUDIO_ReadIEEEFloat(f, block.data(), 4096)) > 0)
        out.insert(out.end(), block.begin(), block.begin() + n * kChannels);
    *ok = n == 0;
    return out;
}

// RMS in dB of channel c over the first `frames` frames.
double levelDb(const std::vector<float>& s, int c, size_t frames)
{
    double sum = 0;
    frames = std::min(frames, s.size() / kChannels);
    for (size_t i = 0; i < frames; ++i)
        sum += double(s[i * kChannels + c]) * s[i * kChannels + c];
    return 10.0 * std::log10(std::max(sum / std::max<size_t>(frames, 1), 1e-20));
}

} // namespace

class TestAudioLengths : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }

    static bool tool(const QString& program, const QStringList& arguments)
    {
        QProcess p;
        p.start(program, arguments);
        return p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit
            && p.exitCode() == 0;
    }
    bool ffmpeg(const QStringList& arguments) const
    {
        return tool(QStringLiteral("ffmpeg"),
            QStringList {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")}
                + arguments);
    }
    // What the ffmpeg command line decodes from a file, as interleaved floats; complained is
    // set when it reported errors on the way.
    static std::vector<float> ffmpegDecode(const QString& file, bool* complained = nullptr)
    {
        QProcess p;
        p.start(QStringLiteral("ffmpeg"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), file,
                QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-acodec"),
                QStringLiteral("pcm_f32le"), QStringLiteral("-")});
        p.waitForFinished(60000);
        const QByteArray bytes = p.readAllStandardOutput();
        if (complained)
            *complained = !p.readAllStandardError().trimmed().isEmpty();
        std::vector<float> out(size_t(bytes.size()) / sizeof(float));
        std::memcpy(out.data(), bytes.constData(), out.size() * sizeof(float));
        return out;
    }
    void cat(const QStringList& parts, const QString& target) const
    {
        QByteArray all;
        for (const QString& part : parts) {
            QFile f(path(part));
            QVERIFY(f.open(QIODevice::ReadOnly));
            all += f.readAll();
        }
        QFile out(path(target));
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(all);
    }
    // A copy with one byte flipped at `where` (a fraction of the size), or cut there.
    void damage(const QString& source, const QString& target, double where, bool cut) const
    {
        QFile f(path(source));
        QVERIFY(f.open(QIODevice::ReadOnly));
        QByteArray data = f.readAll();
        const int at = int(data.size() * where);
        if (cut)
            data.truncate(at);
        else
            data[at] = char(data[at] ^ 0x55);
        QFile out(path(target));
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(data);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // One loud second, then three quiet ones: a reader that stops early loses the level
        // of the quiet part, and a bit-rate guess from the loud start is far off.
        QVERIFY(tool(QStringLiteral("sox"),
            {QStringLiteral("-R"), QStringLiteral("-n"), QStringLiteral("-r"),
                QStringLiteral("44100"), QStringLiteral("-c"), QStringLiteral("2"),
                QStringLiteral("-b"), QStringLiteral("16"), path(QStringLiteral("loud.wav")),
                QStringLiteral("synth"), QStringLiteral("1"), QStringLiteral("whitenoise"),
                QStringLiteral("gain"), QStringLiteral("-3")}));
        QVERIFY(tool(QStringLiteral("sox"),
            {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("44100"),
                QStringLiteral("-c"), QStringLiteral("2"), QStringLiteral("-b"),
                QStringLiteral("16"), path(QStringLiteral("quiet.wav")), QStringLiteral("synth"),
                QStringLiteral("3"), QStringLiteral("sine"), QStringLiteral("440"),
                QStringLiteral("gain"), QStringLiteral("-30")}));
        QVERIFY(tool(QStringLiteral("sox"),
            {path(QStringLiteral("loud.wav")), path(QStringLiteral("quiet.wav")),
                path(QStringLiteral("x.wav"))}));
        const QString x = path(QStringLiteral("x.wav"));
        const auto enc = [&](const QString& in, const QString& out, const QStringList& codec) {
            return ffmpeg(QStringList {QStringLiteral("-i"), in} + codec + QStringList {path(out)});
        };
        const QString q = QStringLiteral("-q:a"), b = QStringLiteral("-b:a"),
                      c = QStringLiteral("-c:a");
        QVERIFY(enc(x, QStringLiteral("vbr.mp3"),
            {c, QStringLiteral("libmp3lame"), q, QStringLiteral("2"), QStringLiteral("-write_xing"),
                QStringLiteral("0")}));
        QVERIFY(enc(x, QStringLiteral("lame.mp3"),
            {c, QStringLiteral("libmp3lame"), q, QStringLiteral("2")}));
        QVERIFY(enc(x, QStringLiteral("x.m4a"),
            {c, QStringLiteral("aac"), b, QStringLiteral("128k"), QStringLiteral("-movflags"),
                QStringLiteral("+faststart")}));
        QVERIFY(enc(
            x, QStringLiteral("x.opus"), {c, QStringLiteral("libopus"), b, QStringLiteral("96k")}));
        QVERIFY(enc(
            x, QStringLiteral("x.ogg"), {c, QStringLiteral("libvorbis"), q, QStringLiteral("4")}));
        QVERIFY(enc(x, QStringLiteral("x.flac"), {}));
        // Concatenations whose halves differ in bit rate: a guess from the first header is
        // far off.
        const QString loud = path(QStringLiteral("loud.wav")),
                      quiet = path(QStringLiteral("quiet.wav"));
        QVERIFY(enc(loud, QStringLiteral("a.mp3"), {b, QStringLiteral("256k")}));
        QVERIFY(enc(quiet, QStringLiteral("b.mp3"), {b, QStringLiteral("64k")}));
        QVERIFY(enc(
            loud, QStringLiteral("a.ac3"), {c, QStringLiteral("ac3"), b, QStringLiteral("192k")}));
        QVERIFY(enc(
            quiet, QStringLiteral("b.ac3"), {c, QStringLiteral("ac3"), b, QStringLiteral("96k")}));
        QVERIFY(enc(
            loud, QStringLiteral("a.aac"), {c, QStringLiteral("aac"), b, QStringLiteral("192k")}));
        QVERIFY(enc(
            quiet, QStringLiteral("b.aac"), {c, QStringLiteral("aac"), b, QStringLiteral("48k")}));
        cat({QStringLiteral("a.mp3"), QStringLiteral("b.mp3")}, QStringLiteral("cat.mp3"));
        cat({QStringLiteral("a.ac3"), QStringLiteral("b.ac3")}, QStringLiteral("cat.ac3"));
        cat({QStringLiteral("a.aac"), QStringLiteral("b.aac")}, QStringLiteral("cat.aac"));
        for (const char* name : {"x.flac", "lame.mp3", "x.ogg", "x.opus", "x.m4a"}) {
            const QString file = QString::fromLatin1(name);
            const QString stem = file.section(QLatin1Char('.'), 0, 0),
                          ext = file.section(QLatin1Char('.'), 1);
            damage(file, stem + QStringLiteral("-flipped.") + ext, 0.5, false);
            damage(file, stem + QStringLiteral("-cut.") + ext, 0.6, true);
        }
    }

    // Clean files: every frame ffmpeg decodes (gapless trimming included), at its levels, no
    // damage reported; a guessed length says so until the end has been read.
    void cleanFilesReadToTheEnd_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("guessed");
        QTest::newRow("VBR MP3 without Xing header") << "vbr.mp3" << true;
        QTest::newRow("MP3 with LAME delay and padding") << "lame.mp3" << true;
        QTest::newRow("concatenated MP3") << "cat.mp3" << true;
        QTest::newRow("concatenated AC-3") << "cat.ac3" << true;
        QTest::newRow("concatenated ADTS AAC") << "cat.aac" << true;
        QTest::newRow("M4A with an edit list") << "x.m4a" << false;
        QTest::newRow("Opus with pre-skip") << "x.opus" << false;
        QTest::newRow("Ogg Vorbis") << "x.ogg" << false;
        QTest::newRow("FLAC") << "x.flac" << false;
    }
    void cleanFilesReadToTheEnd()
    {
        QFETCH(QString, file);
        QFETCH(bool, guessed);
        const std::vector<float> want = ffmpegDecode(path(file));
        QVERIFY(!want.empty());
        File f(AUDIO_LoadFileEx2(path(file).toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        QCOMPARE(AUDIO_LengthIsExact(f.get()) == 0, guessed);
        bool ok = false;
        const std::vector<float> got = readAll(f.get(), &ok);
        QVERIFY2(ok, BLERROR_LastMessage());
        QCOMPARE(got.size() / kChannels, want.size() / kChannels);
        QVERIFY(AUDIO_LengthIsExact(f.get()));
        QCOMPARE(AUDIO_Length(f.get()), int64_t(got.size() / kChannels));
        // Levels of the loud start and of the whole file, per channel.
        for (int c = 0; c < kChannels; ++c) {
            QVERIFY(std::fabs(levelDb(got, c, 44100) - levelDb(want, c, 44100)) < 0.01);
            QVERIFY(std::fabs(levelDb(got, c, got.size()) - levelDb(want, c, want.size())) < 0.01);
        }
        AUDIO_DamageReport report;
        QVERIFY(AUDIO_GetDamageReport(f.get(), &report));
        QCOMPARE(report.stretches, 0);
        QCOMPARE(report.truncated, 0);
    }

    // Damaged and cut files: at least every frame ffmpeg recovers, at its levels, and the
    // damage reported (where it starts, and a cut as a cut).
    void damagedFilesSalvaged_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("cut");
        // Whether the damage is always seen: FLAC frames and Ogg pages carry checksums, cuts
        // show; a flipped bit in AAC may decode without a complaint, from ffmpeg too.
        QTest::addColumn<bool>("checked");
        QTest::newRow("FLAC, one byte flipped") << "x-flipped.flac" << false << true;
        QTest::newRow("FLAC, cut") << "x-cut.flac" << true << true;
        QTest::newRow("MP3 with Xing count, cut") << "lame-cut.mp3" << true << true;
        QTest::newRow("Ogg Vorbis, one byte flipped") << "x-flipped.ogg" << false << true;
        QTest::newRow("Ogg Vorbis, cut") << "x-cut.ogg" << true << true;
        QTest::newRow("Opus, one byte flipped") << "x-flipped.opus" << false << true;
        QTest::newRow("Opus, cut") << "x-cut.opus" << true << true;
        QTest::newRow("M4A, one byte flipped") << "x-flipped.m4a" << false << false;
        QTest::newRow("M4A, cut") << "x-cut.m4a" << true << true;
    }
    void damagedFilesSalvaged()
    {
        QFETCH(QString, file);
        QFETCH(bool, cut);
        QFETCH(bool, checked);
        bool complained = false;
        const std::vector<float> want = ffmpegDecode(path(file), &complained);
        QVERIFY(!want.empty());
        File f(AUDIO_LoadFileEx2(path(file).toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY2(f, BLERROR_LastMessage());
        bool ok = false;
        const std::vector<float> got = readAll(f.get(), &ok);
        QVERIFY2(ok, BLERROR_LastMessage());
        QVERIFY(got.size() >= want.size());
        for (int c = 0; c < kChannels; ++c)
            QVERIFY(std::fabs(levelDb(got, c, want.size() / kChannels)
                        - levelDb(want, c, want.size() / kChannels))
                < 0.05);
        AUDIO_DamageReport report;
        QVERIFY(AUDIO_GetDamageReport(f.get(), &report));
        if (!checked && !complained && report.stretches == 0)
            return;
        QVERIFY(report.stretches >= 1);
        QVERIFY2((report.truncated != 0) == cut,
            qPrintable(QStringLiteral("%1 stretches from %2 s, %3 s lost, truncated %4")
                           .arg(report.stretches)
                           .arg(report.firstSeconds)
                           .arg(report.secondsLost)
                           .arg(report.truncated)));
        _audio_format format;
        QVERIFY(AUDIO_GetAudioFileFormat(f.get(), &format));
        const double seconds = double(got.size() / kChannels) / format.sampleRate;
        QVERIFY(report.firstSeconds >= 0.0 && report.firstSeconds <= seconds + 0.001);
        QVERIFY(report.secondsLost >= 0.0);
        QCOMPARE(report.framesLost, int64_t(std::llround(report.secondsLost * format.sampleRate)));
    }

    // Seeking back over damage decodes it again: it is counted once.
    void damageCountedOnceAcrossSeeks()
    {
        File f(AUDIO_LoadFileEx2(
            path(QStringLiteral("x-flipped.flac")).toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY(f);
        bool ok = false;
        readAll(f.get(), &ok);
        QVERIFY(AUDIO_Seek(f.get(), 0));
        readAll(f.get(), &ok);
        AUDIO_DamageReport report;
        QVERIFY(AUDIO_GetDamageReport(f.get(), &report));
        QCOMPARE(report.stretches, 1);
    }

    // Counting decodes a guessed length to the end and puts the read position back.
    void countFramesKeepsThePosition()
    {
        const QByteArray name = path(QStringLiteral("cat.ac3")).toUtf8();
        File f(AUDIO_LoadFileEx2(name.constData(), nullptr, 0, 0, 0));
        File g(AUDIO_LoadFileEx2(name.constData(), nullptr, 0, 0, 0));
        QVERIFY(f && g);
        std::vector<float> first(1000 * kChannels), again(1000 * kChannels);
        QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), first.data(), 1000), int64_t(1000));
        QCOMPARE(AUDIO_ReadIEEEFloat(g.get(), again.data(), 1000), int64_t(1000));
        const int64_t total = AUDIO_CountFrames(f.get());
        QCOMPARE(total, int64_t(ffmpegDecode(QString::fromUtf8(name)).size() / kChannels));
        QVERIFY(AUDIO_LengthIsExact(f.get()));
        QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), first.data(), 1000), int64_t(1000));
        QCOMPARE(AUDIO_ReadIEEEFloat(g.get(), again.data(), 1000), int64_t(1000));
        QVERIFY(first == again);
    }

    // A seek beyond the real end of a guessed length reads nothing, and makes no length of it.
    void seekPastTheEndOfAGuessMakesNoLength()
    {
        const QString file = path(QStringLiteral("cat.ac3"));
        File f(AUDIO_LoadFileEx2(file.toUtf8().constData(), nullptr, 0, 0, 0));
        QVERIFY(f);
        const int64_t real = int64_t(ffmpegDecode(file).size() / kChannels);
        std::vector<float> block(1000 * kChannels);
        if (AUDIO_Seek(f.get(), 2 * real))
            QCOMPARE(AUDIO_ReadIEEEFloat(f.get(), block.data(), 1000), int64_t(0));
        QVERIFY(!AUDIO_LengthIsExact(f.get()));
        QCOMPARE(AUDIO_CountFrames(f.get()), real);
        QCOMPARE(AUDIO_Length(f.get()), real);
    }

    // A signal read from a damaged file keeps its report; one made in memory has none.
    void signalKeepsTheDamageReport()
    {
        _AUDIOSIGNAL* signal = AUDIOSIGNAL_OpenEx(
            path(QStringLiteral("x-cut.flac")).toUtf8().constData(), nullptr, 0, 0, 0, nullptr);
        QVERIFY2(signal, BLERROR_LastMessage());
        AUDIO_DamageReport report;
        QVERIFY(AUDIOSIGNAL_GetDamageReport(signal, &report));
        QCOMPARE(report.truncated, 1);
        QCOMPARE(AUDIOSIGNAL_NumSamples(signal),
            int64_t(ffmpegDecode(path(QStringLiteral("x-cut.flac"))).size() / kChannels));
        AUDIOSIGNAL_Destroy(signal);
        signal = AUDIOSIGNAL_NewEx(AUDIO_FormatEx(44100, 2, 16));
        QVERIFY(AUDIOSIGNAL_GetDamageReport(signal, &report));
        QCOMPARE(report.stretches, 0);
        QCOMPARE(report.firstSeconds, -1.0);
        AUDIOSIGNAL_Destroy(signal);
    }
};

QTEST_GUILESS_MAIN(TestAudioLengths)
#include "tst_audiolengths.moc"
