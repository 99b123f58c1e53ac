// What the engine writes, checked with FFmpeg's tools rather than with our own reader: the codec
// every catalogue extension gets, resolution and float kept through a conversion, the count of
// clipped samples, and the 32-bit size limits (RF64 switch, refusals).
#include <sova/audio.h>
#include <sova/blerror.h>

#include "../peertools.h"

#include <QtTest>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <unistd.h>

namespace {

// The limit the engine is started with (SOVA_TEST_SIZE_LIMIT): small enough to pass in a test,
// far above every other file written here.
constexpr qint64 kSizeLimit = 1000000;

using peer::Run;
using peer::run;

// ffprobe's view of the first audio stream and the container: key=value pairs.
QMap<QString, QString> probe(const QString& path)
{
    const Run r = run(QStringLiteral("ffprobe"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
            QStringLiteral("a:0"), QStringLiteral("-show_entries"),
            QStringLiteral("stream=codec_name,sample_fmt,bits_per_raw_sample,duration_ts,"
                           "channel_layout:"
                           "format=format_name"),
            QStringLiteral("-of"), QStringLiteral("default=nw=1"), path});
    QMap<QString, QString> values;
    if (r.status != 0)
        return values;
    for (const QByteArray& line : r.out.split('\n')) {
        const int eq = line.indexOf('=');
        if (eq > 0)
            values.insert(QString::fromUtf8(line.left(eq)), QString::fromUtf8(line.mid(eq + 1)));
    }
    return values;
}

// FFmpeg's decode of a file as interleaved 32-bit floats (unclipped).
std::vector<float> decode(const QString& path)
{
    const Run r = run(QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
            QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-")});
    std::vector<float> samples(size_t(r.out.size()) / sizeof(float));
    if (r.status == 0)
        std::memcpy(samples.data(), r.out.constData(), samples.size() * sizeof(float));
    return samples;
}

// A sine of amplitude amp at 441 Hz, interleaved; channel c at amp / (c + 1).
std::vector<float> sine(int rate, int channels, int frames, double amp)
{
    std::vector<float> s(size_t(frames) * size_t(channels));
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            s[size_t(i) * size_t(channels) + size_t(c)]
                = float(amp / (c + 1) * std::sin(2.0 * M_PI * 441.0 * i / rate));
    return s;
}

// Samples that the target stores exactly (bits 0: float, any value), distinct from one block
// of 48000 frames to the next: a sine under a ramp, channel c at amp / (c + 1).
std::vector<float> onGrid(int channels, qint64 frames, int bits, double amp)
{
    std::vector<float> s(size_t(frames) * size_t(channels));
    const double scale = bits ? std::ldexp(1.0, bits - 1) : 0.0;
    for (qint64 i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c) {
            const double x = amp / (c + 1) * double(i % 100003) / 100003.0
                * std::sin(2.0 * M_PI * 441.0 * double(i) / 48000.0);
            s[size_t(i) * size_t(channels) + size_t(c)]
                = float(bits ? std::round(x * scale) / scale : x);
        }
    return s;
}

// Temporary files the writer left beside a target.
QStringList namedTemporariesOf(const QString& target)
{
    const QFileInfo info(target);
    return info.dir().entryList({QLatin1Char('.') + info.fileName() + QLatin1String(".sova-*")},
        QDir::Files | QDir::Hidden);
}

// The temporaries beside target, named or unnamed: an unnamed one (O_TMPFILE) is only seen
// through this process's descriptors, as "dir/#inode (deleted)".
QStringList temporariesOf(const QString& target)
{
    QStringList found = namedTemporariesOf(target);
    const QByteArray prefix = QFile::encodeName(QFileInfo(target).dir().canonicalPath()) + "/#";
    for (int fd = 0; fd < 1024; ++fd) {
        char text[4096];
        const ssize_t n = ::readlink(
            ("/proc/self/fd/" + QByteArray::number(fd)).constData(), text, sizeof text);
        const QString link = QString::fromUtf8(text, n > 0 ? int(n) : 0);
        if (link.startsWith(QString::fromUtf8(prefix)) && link.endsWith(" (deleted)")
            && !found.contains(link))
            found << link;
    }
    return found;
}

QByteArray head(const QString& path, int bytes)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.read(bytes) : QByteArray();
}

// What a catalogue extension must write: ffprobe's codec and container names (empty where
// ffprobe does not read the container), and the engine's codes.
struct Expected
{
    const char* extension;
    const char* codec;
    const char* container;
    uint32_t engineContainer;
    uint32_t engineCodec;
};

const Expected kExpected[] = {
    {"wav", "pcm_s16le", "wav", AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM16},
    {"wave", "pcm_s16le", "wav", AUDIO_CONTAINER_WAV, AUDIO_CODEC_PCM16},
    {"w64", "pcm_s16le", "w64", AUDIO_CONTAINER_W64, AUDIO_CODEC_PCM16},
    {"rf64", "pcm_s16le", "wav", AUDIO_CONTAINER_RF64, AUDIO_CODEC_PCM16},
    {"aif", "pcm_s16be", "aiff", AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM16},
    {"aiff", "pcm_s16be", "aiff", AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM16},
    {"aifc", "pcm_s16be", "aiff", AUDIO_CONTAINER_AIFF, AUDIO_CODEC_PCM16},
    {"au", "pcm_s16be", "au", AUDIO_CONTAINER_AU, AUDIO_CODEC_PCM16},
    {"snd", "pcm_s16be", "au", AUDIO_CONTAINER_AU, AUDIO_CODEC_PCM16},
    {"caf", "pcm_s16be", "caf", AUDIO_CONTAINER_CAF, AUDIO_CODEC_PCM16},
    {"flac", "flac", "flac", AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC},
    {"wv", "wavpack", "wv", AUDIO_CONTAINER_WAVPACK, AUDIO_CODEC_WAVPACK},
    {"tta", "tta", "tta", AUDIO_CONTAINER_TTA, AUDIO_CODEC_TTA},
    {"m4a", "aac", "mp4", AUDIO_CONTAINER_MP4, AUDIO_CODEC_AAC},
    {"mp4", "aac", "mp4", AUDIO_CONTAINER_MP4, AUDIO_CODEC_AAC},
    {"m4b", "aac", "mp4", AUDIO_CONTAINER_MP4, AUDIO_CODEC_AAC},
    {"mp3", "mp3", "mp3", AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L3},
    {"mp2", "mp2", "mp3", AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L2},
    {"mpa", "mp2", "mp3", AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L2},
    {"ogg", "vorbis", "ogg", AUDIO_CONTAINER_OGG_VORBIS, AUDIO_CODEC_VORBIS},
    {"oga", "vorbis", "ogg", AUDIO_CONTAINER_OGG_VORBIS, AUDIO_CODEC_VORBIS},
    {"opus", "opus", "ogg", AUDIO_CONTAINER_OGG_OPUS, AUDIO_CODEC_OPUS},
    {"mka", "flac", "matroska", AUDIO_CONTAINER_MKV, AUDIO_CODEC_FLAC},
    {"mkv", "flac", "matroska", AUDIO_CONTAINER_MKV, AUDIO_CODEC_FLAC},
    {"webm", "opus", "webm", AUDIO_CONTAINER_MKV, AUDIO_CODEC_OPUS},
    {"wma", "wmav2", "asf", AUDIO_CONTAINER_ASF, AUDIO_CODEC_WMA_V2},
    {"asf", "wmav2", "asf", AUDIO_CONTAINER_ASF, AUDIO_CODEC_WMA_V2},
    {"ac3", "ac3", "ac3", AUDIO_CONTAINER_AC3, AUDIO_CODEC_AC3},
    {"sph", "pcm_s16le", "nistsphere", AUDIO_CONTAINER_NIST, AUDIO_CODEC_PCM16},
    {"nist", "pcm_s16le", "nistsphere", AUDIO_CONTAINER_NIST, AUDIO_CODEC_PCM16},
    {"sf", "pcm_s16le", "ircam", AUDIO_CONTAINER_IRCAM, AUDIO_CODEC_PCM16},
    {"ircam", "pcm_s16le", "ircam", AUDIO_CONTAINER_IRCAM, AUDIO_CODEC_PCM16},
    {"paf", "pcm_s16be", "epaf", AUDIO_CONTAINER_PAF, AUDIO_CODEC_PCM16},
    {"voc", "pcm_s16le", "voc", AUDIO_CONTAINER_VOC, AUDIO_CODEC_PCM16},
    {"avr", "pcm_s16be", "avr", AUDIO_CONTAINER_AVR, AUDIO_CODEC_PCM16},
    // ffprobe reads none of these.
    {"htk", "", "", AUDIO_CONTAINER_HTK, AUDIO_CODEC_PCM16},
    {"mat", "", "", AUDIO_CONTAINER_MAT, AUDIO_CODEC_PCM16},
    {"mpc2k", "", "", AUDIO_CONTAINER_MPC2K, AUDIO_CODEC_PCM16},
    {"wsig", "", "", AUDIO_CONTAINER_WSIG, AUDIO_CODEC_FLOAT32},
    {"raw", "", "", AUDIO_CONTAINER_RAW, AUDIO_CODEC_PCM16},
    {"pcm", "", "", AUDIO_CONTAINER_RAW, AUDIO_CODEC_PCM16},
    {"sam", "", "", AUDIO_CONTAINER_RAW, AUDIO_CODEC_PCM16},
    {"vox", "", "", AUDIO_CONTAINER_VOX, AUDIO_CODEC_VOX_ADPCM},
};

} // namespace

class TestAudioWriteFormat : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void extensions_data();
    void extensions();
    void refusals_data();
    void refusals();
    void keptResolution_data();
    void keptResolution();
    void sizeLimits_data();
    void sizeLimits();
    void effectOutputWritesFloat();

private:
    QString path(const QString& name) const { return dir_.filePath(name); }
    QTemporaryDir dir_;
};

void TestAudioWriteFormat::initTestCase()
{
    QVERIFY(dir_.isValid());
    // Read once, at the first file created: before anything is written.
    qputenv("SOVA_TEST_SIZE_LIMIT", QByteArray::number(kSizeLimit));
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty()
        || QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty()
        || QStandardPaths::findExecutable(QStringLiteral("soxi")).isEmpty())
        QSKIP("ffmpeg, ffprobe and soxi are needed");
}

void TestAudioWriteFormat::extensions_data()
{
    QTest::addColumn<QString>("extension");
    QTest::addColumn<int>("filter");
    for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i) {
        const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(i);
        bool writes = false;
        for (int32_t t = 0; t < f->tagCount; ++t)
            writes = writes || (f->tags[t].direction & AUDIOTAG_WRITE);
        if (!writes)
            continue;
        for (const QString& ext : QString::fromLatin1(f->extensions).split(QLatin1Char('|')))
            QTest::newRow(qPrintable(ext)) << ext << int(i);
    }
}

// Every extension the catalogue offers for writing writes, from the extension alone, the codec a
// user expects in a container that allows it.
void TestAudioWriteFormat::extensions()
{
    QFETCH(QString, extension);
    QFETCH(int, filter);
    const Expected* expected = nullptr;
    for (const Expected& e : kExpected)
        if (extension == QLatin1String(e.extension))
            expected = &e;
    QVERIFY2(expected, "a writable extension without an expectation: add it to kExpected");

    const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(filter);
    int rate = 0;
    for (int hz : {48000, 44100, 16000, 8000}) {
        const _audio_format probeFormat = AUDIO_FormatEx(hz, 1, 16);
        if (!rate && (!f->formatCheck || f->formatCheck(&probeFormat)))
            rate = hz;
    }
    QVERIFY(rate);
    const QString target = path(QStringLiteral("ext.") + extension);
    const _audio_format fmt = AUDIO_FormatEx(rate, 1, 16);
    AUDIOFILE* w = AUDIO_CreateFileEx2(target.toUtf8(), "", &fmt, -1, -1, 0, nullptr, 0);
    QVERIFY2(w, BLERROR_LastMessage());
    _audio_format written;
    QVERIFY(AUDIO_GetAudioFileFormat(w, &written));
    const std::vector<float> samples = sine(rate, 1, rate / 4, 0.5);
    QCOMPARE(AUDIO_WriteIEEEFloat(w, samples.data(), rate / 4), int64_t(rate / 4));
    QVERIFY2(AUDIO_CloseFile(w), BLERROR_LastMessage());
    QCOMPARE(written.container, expected->engineContainer);
    QCOMPARE(written.coder & AUDIO_CODEC_MASK, expected->engineCodec);

    if (!*expected->codec)
        return;
    const QMap<QString, QString> p = probe(target);
    QCOMPARE(p.value(QStringLiteral("codec_name")), QString::fromLatin1(expected->codec));
    QVERIFY2(p.value(QStringLiteral("format_name")).contains(QLatin1String(expected->container)),
        qPrintable(p.value(QStringLiteral("format_name"))));
    // ffprobe names Matroska and WebM alike; a WebM file says so in its EBML doctype.
    const bool webmDoctype = head(target, 64).contains("webm");
    QCOMPARE(webmDoctype, extension == QLatin1String("webm"));
}

void TestAudioWriteFormat::refusals_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("reason");
    QTest::newRow("mp1 has no encoder") << "x.mp1"
                                        << ""
                                        << "Layer I";
    QTest::newRow("mp1 by name") << "x.mpeg"
                                 << "mp1"
                                 << "Layer I";
    QTest::newRow("flac in webm") << "x.webm"
                                  << "webm[codec=flac]"
                                  << "WebM holds Opus or Vorbis";
    QTest::newRow("aac in webm") << "x.webm"
                                 << "webm[codec=aac]"
                                 << "WebM holds Opus or Vorbis";
}

// Formats the engine cannot write properly are refused before anything is written.
void TestAudioWriteFormat::refusals()
{
    QFETCH(QString, name);
    QFETCH(QString, format);
    QFETCH(QString, reason);
    const QString target = path(name);
    const _audio_format fmt = AUDIO_FormatEx(48000, 2, 16);
    AUDIOFILE* w
        = AUDIO_CreateFileEx2(target.toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, 0);
    if (w)
        AUDIO_AbandonFile(w);
    QVERIFY(!w);
    QVERIFY2(QString::fromUtf8(BLERROR_LastMessage()).contains(reason), BLERROR_LastMessage());
    QVERIFY(!QFileInfo::exists(target));
    // Nor a temporary file beside it.
    QCOMPARE(QDir(dir_.path())
                 .entryList(QStringList(QStringLiteral(".x.*")), QDir::Hidden | QDir::Files)
                 .size(),
        0);
}

void TestAudioWriteFormat::keptResolution_data()
{
    QTest::addColumn<QString>("source"); // ffmpeg codec of the source
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<QString>("target"); // file name (extension decides)
    QTest::addColumn<QString>("codec"); // ffprobe codec_name of the target
    QTest::addColumn<int>("bits"); // resolution kept: 0 float (values exact), else integer
    QTest::newRow("24-bit to wav") << "pcm_s24le" << 0.9 << "a.wav"
                                   << "pcm_s24le" << 24;
    QTest::newRow("24-bit to flac") << "pcm_s24le" << 0.9 << "a.flac"
                                    << "flac" << 24;
    QTest::newRow("24-bit to aiff") << "pcm_s24le" << 0.9 << "a.aiff"
                                    << "pcm_s24be" << 24;
    QTest::newRow("24-bit to w64") << "pcm_s24le" << 0.9 << "a.w64"
                                   << "pcm_s24le" << 24;
    QTest::newRow("float to wav") << "pcm_f32le" << 0.9 << "b.wav"
                                  << "pcm_f32le" << 0;
    QTest::newRow("hot float to wav") << "pcm_f32le" << 1.7 << "c.wav"
                                      << "pcm_f32le" << 0;
    QTest::newRow("hot float to caf") << "pcm_f32le" << 1.7 << "c.caf"
                                      << "pcm_f32be" << 0;
    QTest::newRow("hot float to aiff") << "pcm_f32le" << 1.7 << "c.aiff"
                                       << "pcm_f32be" << 0;
    QTest::newRow("hot double to wav") << "pcm_f64le" << 1.7 << "d.wav"
                                       << "pcm_f64le" << 0;
    QTest::newRow("hot float to flac") << "pcm_f32le" << 1.7 << "e.flac"
                                       << "flac" << 24;
    QTest::newRow("hot float to 24-bit wav") << "pcm_f32le" << 1.7 << "e.wav[nbits=24]"
                                             << "pcm_s24le" << 24;
    QTest::newRow("hot float to 16-bit wav") << "pcm_f32le" << 1.3 << "f.wav[nbits=16]"
                                             << "pcm_s16le" << 16;
}

// A conversion keeps the source's resolution and kind; what an integer target clips is counted,
// and the peak reported, against FFmpeg's own decode of the source.
void TestAudioWriteFormat::keptResolution()
{
    QFETCH(QString, source);
    QFETCH(double, amplitude);
    QFETCH(QString, target);
    QFETCH(QString, codec);
    QFETCH(int, bits);
    const QString in = path(QStringLiteral("src-%1-%2.wav").arg(source).arg(amplitude));
    if (!QFileInfo::exists(in)) {
        const QString expr = QStringLiteral("aevalsrc=%1*sin(2*PI*441*t)|%2*sin(2*PI*441*t):"
                                            "s=48000:d=0.5")
                                 .arg(amplitude)
                                 .arg(amplitude / 2);
        const Run made = run(QStringLiteral("ffmpeg"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"),
                QStringLiteral("lavfi"), QStringLiteral("-i"), expr, QStringLiteral("-c:a"), source,
                in});
        QVERIFY2(made.status == 0, made.err.constData());
    }
    QString out = target;
    QString format;
    if (target.contains(QLatin1Char('['))) {
        out = target.section(QLatin1Char('['), 0, 0);
        format = QStringLiteral("[") + target.section(QLatin1Char('['), 1);
    }
    out = path(out);
    QVERIFY2(AUDIO_ConvertEx(nullptr, in.toUtf8(), "", out.toUtf8(), format.toUtf8(), nullptr),
        BLERROR_LastMessage());
    int64_t clipped = -1;
    double peak = -1.0;
    QVERIFY(AUDIO_GetLastClipReport(&clipped, &peak));

    const QMap<QString, QString> p = probe(out);
    QCOMPARE(p.value(QStringLiteral("codec_name")), codec);
    if (bits > 16)
        QCOMPARE(p.value(QStringLiteral("bits_per_raw_sample")).toInt(), bits);

    const std::vector<float> original = decode(in);
    const std::vector<float> copy = decode(out);
    QVERIFY(!original.empty());
    QCOMPARE(copy.size(), original.size());
    // FFmpeg's decode of the source is the reference for both the samples and the report.
    const double top = bits ? 1.0 - std::ldexp(1.0, 1 - bits) : 0.0;
    const double step = bits ? std::ldexp(1.0, 1 - bits) : 0.0;
    int64_t beyond = 0;
    double highest = 0.0;
    double worst = 0.0;
    for (size_t i = 0; i < original.size(); ++i) {
        const double x = original[i];
        highest = std::max(highest, std::fabs(x));
        if (std::fabs(x) > 1.0)
            ++beyond;
        const double want = bits ? std::clamp(x, -1.0, top) : x;
        worst = std::max(worst, std::fabs(copy[i] - want));
    }
    // Integer targets round to their step (dither at 16 bits adds at most one more step).
    const double tolerance = bits == 0 ? 0.0 : bits == 24 ? step * 0.5001 : step * 1.5001;
    QVERIFY2(worst <= tolerance, qPrintable(QStringLiteral("off by %1").arg(worst)));
    QCOMPARE(clipped, bits ? beyond : int64_t(0));
    QVERIFY(std::fabs(peak - highest) < 1e-6);
    if (amplitude > 1.0 && bits)
        QVERIFY(clipped > 0);
}

void TestAudioWriteFormat::sizeLimits_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<qint64>("hint"); // expected frames given to the writer
    QTest::addColumn<qint64>("frames"); // frames then written
    QTest::addColumn<QString>("outcome"); // "rf64", "wav", "refused", "fails", "written",
                                          // "interrupted" (temporaries removed as by a signal)
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("bits"); // of the samples given, all on the target's grid; 0 float
    // Stereo 16-bit: 4 bytes a frame, so 300000 frames pass the test limit.
    QTest::newRow("wav known to pass becomes rf64")
        << "a.wav" << qint64(300000) << qint64(300000) << "rf64"
        << "" << 2 << 16;
    QTest::newRow("wav of 5 GiB announced becomes rf64")
        << "b.wav" << qint64(1400000000) << qint64(4800) << "rf64"
        << "" << 2 << 16;
    QTest::newRow("wav within the limit stays wav")
        << "c.wav" << qint64(200000) << qint64(200000) << "wav"
        << "" << 2 << 16;
    QTest::newRow("aiff known to pass is refused")
        << "d.aiff" << qint64(300000) << qint64(0) << "refused"
        << "" << 2 << 16;
    QTest::newRow("au known to pass is refused")
        << "e.au" << qint64(300000) << qint64(0) << "refused"
        << "" << 2 << 16;
    QTest::newRow("voc known to pass is refused")
        << "f.voc" << qint64(300000) << qint64(0) << "refused"
        << "" << 2 << 16;
    QTest::newRow("aiff without a hint fails at the limit")
        << "g.aiff" << qint64(0) << qint64(300000) << "fails"
        << "" << 2 << 16;
    QTest::newRow("w64 has no such limit")
        << "i.w64" << qint64(300000) << qint64(300000) << "written"
        << "" << 2 << 16;
    // Without a length given, the WAV turns into RF64 when the write that would pass the limit
    // comes: every sample before and after the switch is there.
    QTest::newRow("16-bit wav without a hint becomes rf64")
        << "h.wav" << qint64(0) << qint64(300000) << "rf64"
        << "" << 2 << 16;
    QTest::newRow("wav with too short a hint becomes rf64")
        << "j.wav" << qint64(1000) << qint64(300000) << "rf64"
        << "" << 2 << 16;
    QTest::newRow("24-bit wav without a hint becomes rf64")
        << "k.wav" << qint64(0) << qint64(300000) << "rf64"
        << "wav[nbits=24]" << 2 << 24;
    QTest::newRow("float wav without a hint becomes rf64")
        << "l.wav" << qint64(0) << qint64(300000) << "rf64"
        << "wav[codec=float]" << 2 << 0;
    QTest::newRow("double wav without a hint becomes rf64")
        << "m.wav" << qint64(0) << qint64(300000) << "rf64"
        << "wav[codec=float,nbits=64]" << 1 << 0;
    QTest::newRow("8-bit 6-channel wav without a hint becomes rf64")
        << "n.wav" << qint64(0) << qint64(300000) << "rf64"
        << "wav[nbits=8,chmask=1551]" << 6 << 8;
    QTest::newRow("temporary of a switched wav removed by a signal")
        << "o.wav" << qint64(0) << qint64(300000) << "interrupted"
        << "" << 2 << 16;
}

// Containers with 32-bit sizes never get sizes that wrap: WAV turns into RF64, the others
// refuse, and the switched file reads to its full length in ffprobe and soxi.
void TestAudioWriteFormat::sizeLimits()
{
    QFETCH(QString, name);
    QFETCH(qint64, hint);
    QFETCH(qint64, frames);
    QFETCH(QString, outcome);
    QFETCH(QString, format);
    QFETCH(int, channels);
    QFETCH(int, bits);
    const QString target = path(name);
    const _audio_format fmt = AUDIO_FormatEx(48000, int16_t(channels), 16);
    AUDIOFILE* w
        = AUDIO_CreateFileEx2(target.toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, hint);
    if (outcome == QLatin1String("refused")) {
        QVERIFY(!w);
        const QString message = QString::fromUtf8(BLERROR_LastMessage());
        QVERIFY2(message.contains(QLatin1String("rf64, w64 or caf"))
                && message.contains(QString::number(kSizeLimit)),
            qPrintable(message));
        QVERIFY(!QFileInfo::exists(target));
        return;
    }
    QVERIFY2(w, BLERROR_LastMessage());
    const std::vector<float> samples = onGrid(channels, frames, bits, bits ? 0.9 : 1.5);
    qint64 done = 0;
    bool failed = false;
    while (done < frames) {
        const int64_t n = std::min<qint64>(48000, frames - done);
        if (AUDIO_WriteIEEEFloat(w, samples.data() + done * channels, n) != n) {
            failed = true;
            break;
        }
        done += n;
    }
    const QString message = QString::fromUtf8(BLERROR_LastMessage());
    if (!failed && frames > 0)
        QCOMPARE(temporariesOf(target).size(), 1);
    if (outcome == QLatin1String("interrupted")) {
        QVERIFY2(!failed, qPrintable(message));
        // A named temporary is the handler's to remove; an unnamed one goes with the process.
        QCOMPARE(AUDIO_RemoveTemporaryFiles(), int(namedTemporariesOf(target).size()));
        QVERIFY(namedTemporariesOf(target).isEmpty());
        AUDIO_AbandonFile(w);
        QVERIFY(temporariesOf(target).isEmpty());
        QVERIFY(!QFileInfo::exists(target));
        return;
    }
    const bool closed = AUDIO_CloseFile(w) == 1;
    if (outcome == QLatin1String("fails")) {
        QVERIFY(failed);
        QVERIFY(!closed);
        QVERIFY2(message.contains(QLatin1String("rf64, w64 or caf")), qPrintable(message));
        QVERIFY(!QFileInfo::exists(target));
        return;
    }
    QVERIFY(!failed);
    QVERIFY2(closed, BLERROR_LastMessage());
    const QByteArray magic = head(target, 4);
    if (outcome == QLatin1String("rf64"))
        QCOMPARE(magic, QByteArray("RF64"));
    else if (outcome == QLatin1String("wav"))
        QCOMPARE(magic, QByteArray("RIFF"));
    QVERIFY(temporariesOf(target).isEmpty());
    const QMap<QString, QString> p = probe(target);
    QCOMPARE(p.value(QStringLiteral("format_name")), QFileInfo(name).suffix());
    QCOMPARE(p.value(QStringLiteral("duration_ts")).toLongLong(), frames);
    if (!name.endsWith(QLatin1String(".w64"))) {
        const Run soxi = run(QStringLiteral("soxi"), {QStringLiteral("-s"), target});
        QCOMPARE(soxi.out.trimmed().toLongLong(), frames);
    }
    if (outcome == QLatin1String("rf64")) {
        // A layout beyond stereo is the one a short file of the same format gets.
        if (channels > 2) {
            const QString small = path(QLatin1String("small-") + name);
            AUDIOFILE* s
                = AUDIO_CreateFileEx2(small.toUtf8(), format.toUtf8(), &fmt, -1, -1, 0, nullptr, 0);
            QVERIFY(s && AUDIO_WriteIEEEFloat(s, samples.data(), 100) == 100);
            QVERIFY(AUDIO_CloseFile(s));
            QCOMPARE(p.value(QStringLiteral("channel_layout")),
                probe(small).value(QStringLiteral("channel_layout")));
        }
        const std::vector<float> decoded = decode(target);
        QCOMPARE(decoded.size(), samples.size());
        const auto diff = std::mismatch(decoded.begin(), decoded.end(), samples.begin());
        QVERIFY2(diff.first == decoded.end(),
            qPrintable(
                QStringLiteral("sample %1 differs").arg(qint64(diff.first - decoded.begin()))));
    }
}

// The effect path's output format said 32-bit integers, so a file written in it clipped the
// effect's float output.
void TestAudioWriteFormat::effectOutputWritesFloat()
{
    const _audio_format in = AUDIO_FormatEx(48000, 2, 16);
    _AUDIOFXPATH* fx = AUDIOFX_CreatePathEx(&in, -1, -1, 0, "gain[db=6]");
    QVERIFY2(fx, BLERROR_LastMessage());
    const _audio_format out = AUDIOFX_GetOutputFormat(fx);
    AUDIOFX_DestroyPath(fx);
    const QString target = path(QStringLiteral("fx.wav"));
    AUDIOFILE* w = AUDIO_CreateFileEx2(target.toUtf8(), "", &out, -1, -1, 0, nullptr, 0);
    QVERIFY2(w, BLERROR_LastMessage());
    const float hot[2] = {1.5f, -1.25f};
    QCOMPARE(AUDIO_WriteIEEEFloat(w, hot, 1), int64_t(1));
    QVERIFY(AUDIO_CloseFile(w));
    QCOMPARE(probe(target).value(QStringLiteral("codec_name")), QStringLiteral("pcm_f32le"));
    const std::vector<float> back = decode(target);
    QCOMPARE(back, std::vector<float>(hot, hot + 2));
}

QTEST_GUILESS_MAIN(TestAudioWriteFormat)
#include "tst_audiowriteformat.moc"
