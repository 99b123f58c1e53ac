// A pipe owns its decoder: destroying the pipe deletes the Decoder at once, while the engine
// pipe, closed later on the disposer thread, still decodes through its own hold on the engine
// decoder. Meant to run under AddressSanitizer: a decoder freed under the closing pipe shows
// there as a use after free.
#include <QSovaAudioFormat>
#include <QSovaAudioSignal>
#include <QtTest>

#include <sova/audiostream.h>

#include <atomic>
#include <cmath>

namespace {

std::atomic<int> g_deleted {0};

class CountedDecoder : public QSovaAudioSignal::Decoder
{
public:
    using Decoder::Decoder;
    ~CountedDecoder() override { ++g_deleted; }
};

QVector<float> toneFrames(int frames)
{
    QVector<float> v(frames * 2);
    for (int i = 0; i < frames; ++i)
        v[2 * i] = v[2 * i + 1] = float(std::lround(9000.0 * std::sin(i * 0.03))) / 32768.0f;
    return v;
}

} // namespace

class tst_QSovaAudioPipeDecoder : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_flac;
    QByteArray m_mp3;
    static constexpr int kFrames = 120000;

    QByteArray encoded(const QString& format)
    {
        QSovaAudioSignal signal(QSovaAudioFormat(44100, 2, 16));
        QVector<float> frames = toneFrames(kFrames);
        signal.appendSamples(frames.data(), kFrames);
        const QString path = m_dir.filePath("stream." + format);
        if (!signal.save(path, format))
            return QByteArray();
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_flac = encoded("flac");
        m_mp3 = encoded("mp3");
        QVERIFY(m_flac.startsWith("fLaC"));
        QVERIFY(!m_mp3.isEmpty());
    }

    // The pipe is destroyed with most of the stream still inside the decoder (FLAC holds a
    // whole block, MP3 its reservoir): the disposer drains it after the Decoder is gone.
    void decoderDeletedWhileDisposerCloses_data()
    {
        QTest::addColumn<QString>("config");
        QTest::newRow("FLAC") << "FLAC";
        QTest::newRow("MP3") << "MP3";
    }
    void decoderDeletedWhileDisposerCloses()
    {
        QFETCH(QString, config);
        const QByteArray& stream = config == "FLAC" ? m_flac : m_mp3;
        QSovaAudioSignal signal(QSovaAudioFormat(44100, 2, 16));
        g_deleted = 0;
        auto* decoder = new CountedDecoder(config, stream.left(4096));
        QVERIFY(decoder->isValid());
        auto* pipe = new QSovaAudioSignal::Pipe(signal, 0, decoder);
        QVERIFY(pipe->isValid());
        pipe->appendBitStream(stream);
        const qint64 before = signal.numSamples();
        delete pipe;
        // Deleted by the pipe's destructor, not by the disposer.
        QCOMPARE(g_deleted.load(), 1);
        // The disposer still finishes the signal with what the decoder held (a FLAC block) or
        // with the MP3 encoder's padding trimmed: the whole stream, exactly.
        QTRY_COMPARE_WITH_TIMEOUT(signal.numSamples(), qint64(kFrames), 10000);
        QVERIFY(config != "FLAC" || before < kFrames);
        QCOMPARE(g_deleted.load(), 1);
    }

    // The same at the engine's level: the creator's handle goes first, the pipe decodes on.
    void engineDecoderDestroyedBeforePipe()
    {
        _audio_format format;
        _AUDIODECODER* decoder = AUDIODECOD_Create(&format, "FLAC");
        QVERIFY(decoder);
        int32_t length = 4096;
        QVERIFY(AUDIODECOD_ProbeStream(decoder, m_flac.constData(), &length));
        QSovaAudioSignal signal(QSovaAudioFormat(44100, 2, 16));
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(signal, 0, decoder);
        QVERIFY(pipe);
        AUDIODECOD_Destroy(decoder);
        QVERIFY(AUDIOSIGNAL_AppendBitStreamToPipe(pipe, m_flac.constData(), m_flac.size()) >= 0);
        QCOMPARE(AUDIOSIGNAL_ClosePipe(pipe), 1);
        QCOMPARE(signal.numSamples(), qint64(kFrames));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioPipeDecoder)
#include "tst_qsovaaudiopipedecoder.moc"
