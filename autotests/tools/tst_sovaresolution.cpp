// sova split, join, convert and fx on 24-bit and hot float sources made by ffmpeg: what they
// write keeps the source's resolution and kind, says what it clipped, and switches a WAV that
// passes the size limit to RF64. Checked with ffprobe and ffmpeg's decode, not our reader.
#include "../peertools.h"

#include <QtTest>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

using peer::Run;
using peer::run;

Run ffmpeg(const QStringList& arguments)
{
    return run(QStringLiteral("ffmpeg"),
        QStringList {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")}
            + arguments);
}

QString probeValue(const QString& path, const QString& entry)
{
    const Run r = run(QStringLiteral("ffprobe"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
            QStringLiteral("a:0"), QStringLiteral("-show_entries"), entry, QStringLiteral("-of"),
            QStringLiteral("csv=p=0"), path});
    return QString::fromUtf8(r.out).trimmed();
}

// ffmpeg's decode as interleaved doubles, and the channel count.
std::vector<double> decode(const QString& path, int* channels)
{
    *channels = probeValue(path, QStringLiteral("stream=channels")).toInt();
    const Run r = ffmpeg({QStringLiteral("-i"), path, QStringLiteral("-f"), QStringLiteral("f64le"),
        QStringLiteral("-")});
    std::vector<double> samples(size_t(r.out.size()) / sizeof(double));
    if (r.status == 0)
        std::memcpy(samples.data(), r.out.constData(), samples.size() * sizeof(double));
    return samples;
}

} // namespace

class TestSovaResolution : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void commands_data();
    void commands();
    void sizeLimit_data();
    void sizeLimit();

private:
    QString path(const QString& name) const { return dir_.filePath(name); }
    // A stereo source of a codec with left at amplitude amp and right at amp / 2, and its two
    // channels as mono files of the same codec (name-L.wav, name-R.wav).
    void makeSource(const QString& name, const QString& codec, double amp, double seconds);
    QTemporaryDir dir_;
};

void TestSovaResolution::makeSource(
    const QString& name, const QString& codec, double amp, double seconds)
{
    const QString expr = QStringLiteral("aevalsrc=%1*sin(2*PI*441*t)|%2*sin(2*PI*660*t):"
                                        "s=48000:d=%3")
                             .arg(amp)
                             .arg(amp / 2)
                             .arg(seconds);
    const QString file = path(name + QStringLiteral(".wav"));
    Run r = ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), expr,
        QStringLiteral("-c:a"), codec, file});
    QVERIFY2(r.status == 0, r.err.constData());
    for (const char* side : {"L", "R"}) {
        const QString pan = QStringLiteral("pan=mono|c0=c%1").arg(side[0] == 'L' ? 0 : 1);
        r = ffmpeg({QStringLiteral("-i"), file, QStringLiteral("-af"), pan, QStringLiteral("-c:a"),
            codec, path(QStringLiteral("%1-%2.wav").arg(name, QLatin1String(side)))});
        QVERIFY2(r.status == 0, r.err.constData());
    }
}

void TestSovaResolution::initTestCase()
{
    QVERIFY(dir_.isValid());
    for (const char* tool : {"ffmpeg", "ffprobe", "soxi"})
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            QSKIP("ffmpeg, ffprobe and soxi are needed");
    makeSource(QStringLiteral("s24"), QStringLiteral("pcm_s24le"), 0.9, 0.5);
    makeSource(QStringLiteral("hot"), QStringLiteral("pcm_f32le"), 1.6, 0.5);
    makeSource(QStringLiteral("long"), QStringLiteral("pcm_s16le"), 0.5, 3.0);
}

void TestSovaResolution::commands_data()
{
    QTest::addColumn<QStringList>("arguments"); // "@x" names a file in the test folder
    QTest::addColumn<QString>("source"); // the stereo source the outputs are compared with
    QTest::addColumn<QStringList>("outputs"); // several: output i is channel i; one: all
    QTest::addColumn<QString>("codec"); // ffprobe's codec_name of every output
    QTest::addColumn<int>("bits"); // integer resolution written, 0 for float
    QTest::addColumn<double>("gain");
    QTest::addColumn<QString>("warning"); // a line expected on stderr, "" for none

    const QString none;
    QTest::newRow("split keeps 24 bits")
        << QStringList {"split", "@s24.wav", "@a.wav", "@b.wav"} << "s24"
        << QStringList {"a.wav", "b.wav"} << "pcm_s24le" << 24 << 1.0 << none;
    QTest::newRow("split keeps float beyond full scale")
        << QStringList {"split", "@hot.wav", "@c.wav", "@d.wav"} << "hot"
        << QStringList {"c.wav", "d.wav"} << "pcm_f32le" << 0 << 1.0 << none;
    QTest::newRow("split to 24 bits as asked warns of clipping")
        << QStringList {"split", "--format", "wav[nbits=24]", "@hot.wav", "@e.wav", "@f.wav"}
        << "hot" << QStringList {"e.wav", "f.wav"} << "pcm_s24le" << 24 << 1.0
        << "sova: split: '@e.wav': {n} samples beyond full scale clipped (peak +4.1 dBFS)";
    QTest::newRow("join keeps 24 bits")
        << QStringList {"join", "@s24-L.wav", "@s24-R.wav", "@g.wav"} << "s24"
        << QStringList {"g.wav"} << "pcm_s24le" << 24 << 1.0 << none;
    QTest::newRow("join keeps float")
        << QStringList {"join", "@hot-L.wav", "@hot-R.wav", "@h.wav"} << "hot"
        << QStringList {"h.wav"} << "pcm_f32le" << 0 << 1.0 << none;
    QTest::newRow("join into flac warns of clipping")
        << QStringList {"join", "@hot-L.wav", "@hot-R.wav", "@i.flac"} << "hot"
        << QStringList {"i.flac"} << "flac" << 24 << 1.0
        << "sova: join: '@i.flac': {n} samples beyond full scale clipped (peak +4.1 dBFS)";
    QTest::newRow("convert keeps float")
        << QStringList {"convert", "-q", "@hot.wav", "@j.wav"} << "hot" << QStringList {"j.wav"}
        << "pcm_f32le" << 0 << 1.0 << none;
    QTest::newRow("convert keeps 24 bits in flac")
        << QStringList {"convert", "-q", "@s24.wav", "@k.flac"} << "s24" << QStringList {"k.flac"}
        << "flac" << 24 << 1.0 << none;
    QTest::newRow("convert to 24 bits warns of clipping")
        << QStringList {"convert", "-q", "--bits", "24", "@hot.wav", "@l.wav"} << "hot"
        << QStringList {"l.wav"} << "pcm_s24le" << 24 << 1.0
        << "sova: convert: '@l.wav': {n} samples beyond full scale clipped (peak +4.1 dBFS)";
    QTest::newRow("fx keeps float")
        << QStringList {"fx", "-q", "--chain", "gain[db=-3]", "@hot.wav", "@m.wav"} << "hot"
        << QStringList {"m.wav"} << "pcm_f32le" << 0 << std::pow(10.0, -3.0 / 20.0) << none;
    QTest::newRow("fx keeps 24 bits")
        << QStringList {"fx", "-q", "--chain", "gain[db=-3]", "@s24.wav", "@n.wav"} << "s24"
        << QStringList {"n.wav"} << "pcm_s24le" << 24 << std::pow(10.0, -3.0 / 20.0) << none;
}

// Each command writes the source's resolution and kind, with the samples ffmpeg decodes from
// the source (clipped only where an integer target was asked for, and then said so).
void TestSovaResolution::commands()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, source);
    QFETCH(QStringList, outputs);
    QFETCH(QString, codec);
    QFETCH(int, bits);
    QFETCH(double, gain);
    QFETCH(QString, warning);
    const QString at = dir_.path() + QLatin1Char('/');
    for (QString& a : arguments)
        if (a.startsWith(QLatin1Char('@')))
            a = at + a.mid(1);
    const Run r = run(QStringLiteral(SOVA_BINARY), arguments);
    QVERIFY2(r.status == 0, r.err.constData());
    int sourceChannels = 0;
    const std::vector<double> reference
        = decode(path(source + QStringLiteral(".wav")), &sourceChannels);
    QCOMPARE(sourceChannels, 2);

    // The count is ffmpeg's: samples of the source beyond full scale (all in the left channel).
    const auto beyond = std::count_if(
        reference.begin(), reference.end(), [](double x) { return std::fabs(x) > 1.0; });
    const QString err = QString::fromUtf8(r.err);
    if (warning.isEmpty())
        QVERIFY2(!err.contains(QLatin1String("clipped")), qPrintable(err));
    else
        QVERIFY2(err.contains(QString(warning)
                                  .replace(QLatin1Char('@'), at)
                                  .replace(QLatin1String("{n}"), QString::number(beyond))),
            qPrintable(err));
    const double step = bits ? std::ldexp(1.0, 1 - bits) : 0.0;
    for (int o = 0; o < outputs.size(); ++o) {
        const QString file = path(outputs.at(o));
        QCOMPARE(probeValue(file, QStringLiteral("stream=codec_name")), codec);
        if (bits)
            QCOMPARE(probeValue(file, QStringLiteral("stream=bits_per_raw_sample")).toInt(), bits);
        int channels = 0;
        const std::vector<double> got = decode(file, &channels);
        const bool perChannel = outputs.size() > 1;
        QCOMPARE(channels, perChannel ? 1 : 2);
        QCOMPARE(got.size() * size_t(perChannel ? 2 : 1), reference.size());
        double worst = 0.0;
        for (size_t i = 0; i < got.size(); ++i) {
            double want = reference[perChannel ? 2 * i + size_t(o) : i] * gain;
            if (bits)
                want = std::clamp(want, -1.0, 1.0 - step);
            worst = std::max(worst, std::fabs(got[i] - want));
        }
        // Integers round to their step; a gain is applied in single precision, which may
        // move a sample to the neighbouring step.
        const double tolerance = (bits ? step * 0.5001 : 0.0) + (gain != 1.0 ? 2e-7 : 0.0);
        QVERIFY2(worst <= tolerance,
            qPrintable(QStringLiteral("%1 off by %2").arg(outputs.at(o)).arg(worst)));
    }
}

void TestSovaResolution::sizeLimit_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("target"); // checked after the run
    QTest::addColumn<qint64>("frames"); // 0: refused
    // 3 s of 16-bit stereo at 48 kHz are 576000 bytes, each channel 288000.
    QTest::newRow("convert to wav switches to rf64")
        << QStringList {"convert", "-q", "@long.wav", "@big.wav"} << "big.wav" << qint64(144000);
    QTest::newRow("join to wav switches to rf64")
        << QStringList {"join", "@long-L.wav", "@long-R.wav", "@joined.wav"} << "joined.wav"
        << qint64(144000);
    QTest::newRow("fx to wav switches to rf64")
        << QStringList {"fx", "-q", "--chain", "gain[db=-1]", "@long.wav", "@fx.wav"} << "fx.wav"
        << qint64(144000);
    QTest::newRow("convert to aiff is refused")
        << QStringList {"convert", "-q", "@long.wav", "@big.aiff"} << "big.aiff" << qint64(0);
    QTest::newRow("split to au is refused")
        << QStringList {"split", "@long.wav", "@left.au", "@right.au"} << "left.au" << qint64(0);
}

// With the size limit lowered (the engine's test hook), a WAV that would pass it is RF64 that
// ffprobe and soxi read to the end; AIFF and AU refuse and name formats that would hold it.
void TestSovaResolution::sizeLimit()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, target);
    QFETCH(qint64, frames);
    const QString at = dir_.path() + QLatin1Char('/');
    for (QString& a : arguments)
        if (a.startsWith(QLatin1Char('@')))
            a = at + a.mid(1);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("SOVA_TEST_SIZE_LIMIT"), QStringLiteral("200000"));
    const Run r = run(QStringLiteral(SOVA_BINARY), arguments, environment);
    const QString file = path(target);
    if (frames == 0) {
        QCOMPARE(r.status, 1);
        QVERIFY2(r.err.contains("rf64, w64 or caf"), r.err.constData());
        QVERIFY(!QFileInfo::exists(file));
        return;
    }
    QVERIFY2(r.status == 0, r.err.constData());
    QFile f(file);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.read(4), QByteArray("RF64"));
    QCOMPARE(probeValue(file, QStringLiteral("stream=duration_ts")).toLongLong(), frames);
    const Run soxi = run(QStringLiteral("soxi"), {QStringLiteral("-s"), file});
    QCOMPARE(soxi.out.trimmed().toLongLong(), frames);
}

QTEST_GUILESS_MAIN(TestSovaResolution)
#include "tst_sovaresolution.moc"
