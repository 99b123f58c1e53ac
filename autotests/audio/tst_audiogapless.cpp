// Gapless stream decoding through decoders and pipes: MP3 streams made by ffmpeg (and by lame
// when it is installed) decode to exactly the samples ffmpeg decodes from the same file, with
// the tag frame, the encoder's delay and its padding gone, however the stream is split. ADTS
// AAC keeps every frame, as ffmpeg does for a raw .aac.
#include <sova/audio.h>
#include <sova/audiosignal.h>
#include <sova/audiostream.h>

#include <QtTest>

#include <cmath>
#include <cstring>
#include <vector>

namespace {

// Runs a program; its standard output, or a null array when it fails.
QByteArray run(const QString& program, const QStringList& arguments)
{
    QProcess p;
    p.start(program, arguments);
    if (!p.waitForFinished(60000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return QByteArray();
    const QByteArray out = p.readAllStandardOutput();
    return out.isNull() ? QByteArray("") : out;
}

struct Decoded
{
    int rate = 0, channels = 0;
    std::vector<float> samples; // interleaved
};

// Feeds the stream in pieces of `chunk` bytes (0: whole) through a decoder and a pipe.
Decoded decodeThroughPipe(const QByteArray& stream, const char* config, int chunk)
{
    Decoded out;
    _audio_format format;
    _AUDIODECODER* decoder = AUDIODECOD_Create(&format, config);
    int32_t length = int32_t(std::min<qsizetype>(stream.size(), 8192));
    if (!decoder || !AUDIODECOD_ProbeStream(decoder, stream.constData(), &length)
        || !AUDIODECOD_GetAudioFormat(decoder, &format)) {
        AUDIODECOD_Destroy(decoder);
        return out;
    }
    _AUDIOSIGNAL* signal
        = AUDIOSIGNAL_NewEx(AUDIO_FormatEx(format.sampleRate, format.numChannels, 32));
    _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(signal, 0, decoder);
    const int step = chunk > 0 ? chunk : int(stream.size());
    for (int at = 0; at < stream.size(); at += step)
        AUDIOSIGNAL_AppendBitStreamToPipe(
            pipe, stream.constData() + at, std::min<int64_t>(step, stream.size() - at));
    AUDIOSIGNAL_ClosePipe(pipe);
    AUDIODECOD_Destroy(decoder);
    out.rate = format.sampleRate;
    out.channels = format.numChannels;
    const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
    out.samples.resize(size_t(frames * out.channels));
    if (frames > 0)
        AUDIOSIGNAL_GetSamplesEx(signal, 0, out.samples.data(), frames, 1);
    AUDIOSIGNAL_Destroy(signal);
    return out;
}

} // namespace

class tst_AudioGapless : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_ffmpeg;
    QString m_lame;
    QHash<QString, QByteArray> m_references; // ffmpeg's decoding of each stream

    // A sine of `samples` frames at rate and channels, as WAV.
    QString makeWav(const QString& name, int rate, int channels, int samples)
    {
        const QString path = m_dir.filePath(name + ".wav");
        run(m_ffmpeg,
            {"-v", "error", "-y", "-f", "lavfi", "-i", QString("sine=f=440:r=%1").arg(rate), "-af",
                QString("atrim=end_sample=%1").arg(samples), "-ac", QString::number(channels),
                path});
        return path;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_ffmpeg = QStandardPaths::findExecutable("ffmpeg");
        m_lame = QStandardPaths::findExecutable("lame");
        if (m_ffmpeg.isEmpty())
            QSKIP("no ffmpeg on PATH");
    }

    void matchesFfmpeg_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("maker"); // ffmpeg, lame, or ffmpeg twice joined
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("samples");
        QTest::addColumn<QString>("codec"); // MP3 or AAC
        QTest::addColumn<bool>("exact"); // ffmpeg gives back the source's samples
        QTest::addColumn<int>("chunk"); // bytes per pipe call, 0: all at once
        struct Source
        {
            const char* name;
            const char* maker;
            QStringList options;
            int rate, channels, samples;
            const char* codec;
            bool exact;
        };
        const QStringList lame = {"-c:a", "libmp3lame"};
        const Source sources[] = {
            {"1 s", "ffmpeg", lame, 44100, 2, 44100, "MP3", true},
            {"1.5 s", "ffmpeg", lame, 44100, 2, 66150, "MP3", true},
            {"odd count, MPEG-2 mono", "ffmpeg", lame, 22050, 1, 33333, "MP3", true},
            {"odd count, MPEG-2.5", "ffmpeg", lame, 8000, 1, 12345, "MP3", true},
            {"VBR", "ffmpeg", lame + QStringList {"-q:a", "2"}, 48000, 2, 71111, "MP3", true},
            {"no ID3 tag", "ffmpeg", lame + QStringList {"-id3v2_version", "0"}, 44100, 2, 50001,
                "MP3", true},
            {"no Xing tag", "ffmpeg", lame + QStringList {"-write_xing", "0"}, 44100, 2, 50001,
                "MP3", false},
            {"two files joined", "joined", lame, 44100, 2, 30000, "MP3", false},
            {"lame CBR", "lame", {"-b", "128"}, 44100, 2, 66150, "MP3", true},
            {"lame VBR", "lame", {"-V", "2"}, 44100, 2, 77777, "MP3", true},
            {"ADTS AAC", "ffmpeg", {"-c:a", "aac", "-f", "adts"}, 44100, 2, 66150, "AAC", false},
        };
        int index = 0;
        for (const Source& s : sources) {
            ++index;
            for (int chunk : {0, 1, 7, 417, 4096})
                QTest::addRow("%s, %s", s.name,
                    chunk ? qPrintable(QString("pieces of %1").arg(chunk)) : "whole")
                    << QString("source%1").arg(index) << s.maker << s.options << s.rate
                    << s.channels << s.samples << s.codec << s.exact << chunk;
        }
    }
    void matchesFfmpeg()
    {
        QFETCH(QString, file);
        QFETCH(QString, maker);
        QFETCH(QStringList, options);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, samples);
        QFETCH(QString, codec);
        QFETCH(bool, exact);
        QFETCH(int, chunk);
        if (maker == "lame" && m_lame.isEmpty())
            QSKIP("no lame on PATH");
        const QString stream = m_dir.filePath(file + (codec == "AAC" ? ".aac" : ".mp3"));
        if (!QFile::exists(stream)) {
            const QString wav = makeWav(file, rate, channels, samples);
            if (maker == "lame") {
                QVERIFY(!run(m_lame, QStringList {"--quiet"} + options + QStringList {wav, stream})
                             .isNull());
            } else {
                QVERIFY(!run(m_ffmpeg,
                    QStringList {"-v", "error", "-y", "-i", wav} + options + QStringList {stream})
                             .isNull());
                if (maker == "joined") {
                    QFile joined(stream);
                    QVERIFY(joined.open(QIODevice::ReadWrite));
                    const QByteArray once = joined.readAll();
                    joined.write(once);
                }
            }
        }
        QFile in(stream);
        QVERIFY(in.open(QIODevice::ReadOnly));
        const QByteArray bytes = in.readAll();
        // A raw .aac is named as such: ffmpeg's guess would be the same, but not by contract.
        const QStringList demuxer = codec == "AAC" ? QStringList {"-f", "aac"} : QStringList {};
        const QStringList args = QStringList {"-v", "quiet"} + demuxer
            + QStringList {"-i", stream, "-f", "f32le", "-acodec", "pcm_f32le", "-"};
        if (!m_references.contains(stream))
            m_references.insert(stream, run(m_ffmpeg, args));
        const QByteArray reference = m_references.value(stream);
        QVERIFY(!reference.isNull());
        const qint64 expected = reference.size() / qint64(sizeof(float) * channels);

        const Decoded got = decodeThroughPipe(bytes, qPrintable(codec), chunk);
        QCOMPARE(got.channels, channels);
        QCOMPARE(qint64(got.samples.size()) / channels, expected);
        // Same samples in the same places, not only as many.
        std::vector<float> ref(size_t(reference.size()) / sizeof(float));
        std::memcpy(ref.data(), reference.constData(), ref.size() * sizeof(float));
        double worst = 0.0;
        for (size_t i = 0; i < ref.size(); ++i)
            worst = std::max(worst, double(std::fabs(ref[i] - got.samples[i])));
        QVERIFY2(worst < 1e-4, qPrintable(QString("largest difference %1").arg(worst)));
        if (exact)
            QCOMPARE(expected, qint64(samples));
    }
};

QTEST_GUILESS_MAIN(tst_AudioGapless)
#include "tst_audiogapless.moc"
