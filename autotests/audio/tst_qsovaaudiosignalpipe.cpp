#include <QSovaAudioFormat>
#include <QSovaAudioSignal>
#include <QtTest>

#include <atomic>
#include <cmath>

namespace {

std::atomic<int> g_decodersDeleted {0};

// Counts its deletions: the pipe must delete the decoder it owns exactly once.
class CountedDecoder : public QSovaAudioSignal::Decoder
{
public:
    using Decoder::Decoder;
    ~CountedDecoder() override { ++g_decodersDeleted; }
};

// 16-bit grid samples of a stereo ramp and tone, so lossless codecs give them back exactly.
QVector<float> testFrames(int frames)
{
    QVector<float> v(frames * 2);
    for (int i = 0; i < frames; ++i) {
        v[2 * i] = float(std::lround(8000.0 * std::sin(i * 0.05))) / 32768.0f;
        v[2 * i + 1] = float((i * 7) % 20000 - 10000) / 32768.0f;
    }
    return v;
}

} // namespace

class tst_QSovaAudioSignalPipe : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QVector<float> m_frames = testFrames(30000);
    QByteArray m_flac;

    QSovaAudioSignal stereoSignal() const
    {
        return QSovaAudioSignal(QSovaAudioFormat(44100, 2, 16));
    }
    CountedDecoder* flacDecoder() const
    {
        return new CountedDecoder(QStringLiteral("FLAC"), m_flac.left(8192));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QSovaAudioSignal signal = stereoSignal();
        QVector<float> frames = m_frames;
        signal.appendSamples(frames.data(), frames.size() / 2);
        const QString path = m_dir.filePath(QStringLiteral("stream.flac"));
        QVERIFY(signal.save(path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        m_flac = file.readAll();
        QVERIFY(m_flac.startsWith("fLaC"));
    }

    void configFromMimeType_data()
    {
        QTest::addColumn<QString>("mime");
        QTest::addColumn<QString>("config");
        QTest::newRow("aac") << "audio/aac"
                             << "AAC";
        QTest::newRow("upper case") << "Audio/AAC" << QString();
        QTest::newRow("aacp") << "audio/aacp" << QString();
        QTest::newRow("mpeg") << "audio/mpeg" << QString();
        QTest::newRow("empty") << "" << QString();
    }
    void configFromMimeType()
    {
        QFETCH(QString, mime);
        QFETCH(QString, config);
        const QString got = QSovaAudioSignal::Decoder::configFromMimeType(mime);
        QCOMPARE(got, config);
        QCOMPARE(got.isNull(), config.isNull());
    }

    void invalidDecoder_data()
    {
        QTest::addColumn<QString>("config");
        QTest::addColumn<QByteArray>("header");
        QTest::newRow("unknown codec") << "VORBIS" << m_flac.left(8192);
        QTest::newRow("garbage") << "FLAC" << QByteArray(4096, 'x');
        QTest::newRow("empty header") << "AAC" << QByteArray();
        QTest::newRow("wrong codec") << "MP3" << QByteArray(4096, '\0');
    }
    void invalidDecoder()
    {
        QFETCH(QString, config);
        QFETCH(QByteArray, header);
        const QSovaAudioSignal::Decoder decoder(config, header);
        QVERIFY(!decoder.isValid());
        QVERIFY(!decoder.internalPointer());
        QCOMPARE(decoder.minSamplesPerFrame(), 0);
        QCOMPARE(decoder.maxSamplesPerFrame(), 0);
        QCOMPARE(decoder.minStreamLength(), 0);
        QCOMPARE(decoder.maxStreamLength(), 0);
        QVERIFY(decoder.format() == QSovaAudioFormat());
    }

    void flacDecoderFormat()
    {
        const QSovaAudioSignal::Decoder decoder(QStringLiteral("flac"), m_flac.left(8192));
        QVERIFY(decoder.isValid());
        const QSovaAudioFormat format = decoder.format();
        QCOMPARE(format.sampleRate(), 44100);
        QCOMPARE(format.numChannels(), 2);
        QCOMPARE(format.mimeType(), QStringLiteral("application/octed-stream"));
        QVERIFY(decoder.minSamplesPerFrame() > 0);
        QVERIFY(decoder.minSamplesPerFrame() <= decoder.maxSamplesPerFrame());
        QVERIFY(decoder.maxStreamLength() > 0);
    }

    // The stream in chunks that split frames anywhere comes back sample for sample.
    void decodeThroughPipe_data()
    {
        QTest::addColumn<int>("chunk");
        QTest::newRow("whole") << 1;
        QTest::newRow("odd chunks") << 777;
        QTest::newRow("tiny chunks") << 13;
    }
    void decodeThroughPipe()
    {
        QFETCH(int, chunk);
        QSovaAudioSignal signal = stereoSignal();
        {
            QSovaAudioSignal::Pipe pipe(signal, 0, flacDecoder());
            QVERIFY(pipe.isValid());
            const int step = chunk == 1 ? m_flac.size() : chunk;
            for (int at = 0; at < m_flac.size(); at += step)
                pipe.appendBitStream(m_flac.mid(at, step));
            pipe.close();
            QVERIFY(!pipe.isValid());
        }
        QCOMPARE(signal.numSamples(), qint64(m_frames.size() / 2));
        QCOMPARE(signal.samples(0, signal.numSamples()), m_frames);
    }

    void appendAndOverlap_data()
    {
        QTest::addColumn<bool>("overlap");
        QTest::addColumn<qint64>("start");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<float>("atStart"); // left channel at start after writing 0.25s
        QTest::newRow("append at end") << false << qint64(100) << qint64(110) << 0.25f;
        QTest::newRow("append inside") << false << qint64(40) << qint64(110) << 0.25f;
        QTest::newRow("overlap inside") << true << qint64(40) << qint64(100) << 0.75f;
        QTest::newRow("overlap past end") << true << qint64(95) << qint64(105) << 0.75f;
    }
    void appendAndOverlap()
    {
        QFETCH(bool, overlap);
        QFETCH(qint64, start);
        QFETCH(qint64, length);
        QFETCH(float, atStart);
        QSovaAudioSignal signal = stereoSignal();
        QVector<float> base(200, 0.5f);
        signal.appendSamples(base.data(), 100);
        QVector<float> block(20, 0.25f); // 10 frames
        QSovaAudioSignal::Pipe pipe(signal, start, nullptr);
        QVERIFY(pipe.isValid());
        if (overlap)
            pipe.overlapSamples(block.data(), 10);
        else
            pipe.appendSamples(block.data(), 10);
        QCOMPARE(pipe.startPosition(), start);
        QCOMPARE(pipe.position(), start + 10);
        QVERIFY(qAbs(pipe.duration() - 10.0 / 44100.0) < 1e-9);
        pipe.close();
        QCOMPARE(signal.numSamples(), length);
        QCOMPARE(signal.samples(start, 1).value(0), atStart);
    }

    void closeTwiceAndWriteAfterClose()
    {
        QSovaAudioSignal signal = stereoSignal();
        g_decodersDeleted = 0;
        QSovaAudioSignal::Pipe pipe(signal, 0, flacDecoder());
        QVector<float> block(20, 0.25f);
        pipe.appendSamples(block.data(), 10);
        pipe.close();
        pipe.close();
        QCOMPARE(g_decodersDeleted.load(), 1);
        pipe.appendSamples(block.data(), 10); // a null pipe for the engine: ignored
        pipe.appendBitStream(m_flac);
        QCOMPARE(pipe.position(), qint64(0));
        QCOMPARE(signal.numSamples(), qint64(10));
    }

    // Whichever way the pipe ends, its decoder is deleted once; an open pipe is finished on
    // another thread and the signal is complete once that thread is done.
    void destroyPipe_data()
    {
        QTest::addColumn<bool>("closeFirst");
        QTest::newRow("closed, then destroyed") << true;
        QTest::newRow("destroyed open") << false;
    }
    void destroyPipe()
    {
        QFETCH(bool, closeFirst);
        g_decodersDeleted = 0;
        QSovaAudioSignal signal = stereoSignal();
        {
            QSovaAudioSignal::Pipe pipe(signal, 0, flacDecoder());
            pipe.appendBitStream(m_flac);
            if (closeFirst) {
                pipe.close();
                QCOMPARE(g_decodersDeleted.load(), 1);
            }
        }
        QTRY_COMPARE(g_decodersDeleted.load(), 1);
        QTRY_COMPARE(signal.numSamples(), qint64(m_frames.size() / 2));
        QCOMPARE(signal.samples(0, signal.numSamples()), m_frames);
        // The disposer deletes itself through this thread's event loop.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(g_decodersDeleted.load(), 1);
    }

    void invalidPipe()
    {
        g_decodersDeleted = 0;
        {
            QSovaAudioSignal::Pipe pipe(QSovaAudioSignal(), 0, flacDecoder());
            QVERIFY(!pipe.isValid());
        }
        QCOMPARE(g_decodersDeleted.load(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioSignalPipe)
#include "tst_qsovaaudiosignalpipe.moc"
