#include <QSova>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>
#include <QSovaFile>
#include <QtTest>

#include <cmath>

#include <cstdio>

namespace {

using Kind = QSovaAudioFile::SampleKind;
using Mode = QIODevice::OpenMode;

// Frame i of channel c: a ramp per channel, distinct in every sample.
qint16 ramp(int i, int c)
{
    return qint16((c ? -1 : 1) * (i * 30 - 15000) + c);
}

// A stereo 16-bit PCM WAV file of ramp() written by hand, independent of the engine's writer.
QByteArray stereoWav(int rate, int frames)
{
    QByteArray out;
    QDataStream s(&out, QIODevice::WriteOnly);
    s.setByteOrder(QDataStream::LittleEndian);
    s.writeRawData("RIFF", 4);
    s << quint32(36 + frames * 4);
    s.writeRawData("WAVEfmt ", 8);
    s << quint32(16) << quint16(1) << quint16(2) << quint32(rate) << quint32(rate * 4) << quint16(4)
      << quint16(16);
    s.writeRawData("data", 4);
    s << quint32(frames * 4);
    for (int i = 0; i < frames; ++i)
        s << ramp(i, 0) << ramp(i, 1);
    return out;
}

QString devicePath(QIODevice* device)
{
    char text[64];
    std::snprintf(text, sizeof text, "qiodevice://%p", static_cast<void*>(device));
    return QString::fromLatin1(text);
}

struct Exposed : QSovaAudioFile
{
    using QSovaAudioFile::QSovaAudioFile;
    using QSovaAudioFile::readData;
    using QSovaAudioFile::writeData;
};

} // namespace

Q_DECLARE_METATYPE(QIODevice::OpenMode)
Q_DECLARE_METATYPE(QSovaAudioFile::SampleKind)

class tst_QSovaAudioFile : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    QString stereo; // 1000 frames at 8000 Hz

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QCOMPARE(QSova::initialize(), 1);
        stereo = dir.filePath(QStringLiteral("stereo.wav"));
        QFile file(stereo);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(stereoWav(8000, 1000)) > 0);
    }

    void cleanupTestCase() { QCOMPARE(QSova::finalize(), 1); }

    void openModes_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<bool>("named");
        QTest::addColumn<bool>("opens");
        QTest::newRow("read") << Mode(QIODevice::ReadOnly) << true << true;
        QTest::newRow("write") << Mode(QIODevice::WriteOnly) << true << true;
        QTest::newRow("unnamed") << Mode(QIODevice::ReadOnly) << false << false;
        QTest::newRow("read-write") << Mode(QIODevice::ReadWrite) << true << false;
        QTest::newRow("read as text") << (QIODevice::ReadOnly | QIODevice::Text) << true << false;
        QTest::newRow("write truncated")
            << (QIODevice::WriteOnly | QIODevice::Truncate) << true << false;
    }

    void openModes()
    {
        QFETCH(Mode, mode);
        QFETCH(bool, named);
        QFETCH(bool, opens);
        QString name
            = mode & QIODevice::WriteOnly ? dir.filePath(QStringLiteral("new.wav")) : stereo;
        QSovaAudioFile file(
            named ? name : QString(), QStringLiteral("wav[sr=8000,nch=2]"), QSovaAudioFile::Int16);
        QCOMPARE(file.open(mode), opens);
        QCOMPARE(file.isOpen(), opens);
        QVERIFY(!file.open(mode)); // refused again, or already open
    }

    void kinds_data()
    {
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<int>("frameSize");
        QTest::addColumn<double>("scale"); // of a 16-bit sample in the byte stream
        QTest::newRow("int16") << QSovaAudioFile::Int16 << 4 << 1.0;
        QTest::newRow("float: 16-bit scale") << QSovaAudioFile::Float << 8 << 1.0;
        QTest::newRow("ieee float: unit scale") << QSovaAudioFile::IEEEFloat << 8 << 1 / 32768.0;
    }

    void kinds()
    {
        QFETCH(Kind, kind);
        QFETCH(int, frameSize);
        QFETCH(double, scale);
        QSovaAudioFile file(stereo, QString(), kind);
        QCOMPARE(file.numSamples(), qint64(-1));
        QCOMPARE(file.size(), qint64(-1));
        QCOMPARE(file.duration(), 0.0);
        QCOMPARE(file.sampleRate(), 0);
        QVERIFY2(file.open(QIODevice::ReadOnly), BLERROR_LastMessage());
        QCOMPARE(file.sampleRate(), 8000);
        QCOMPARE(file.numChannels(), 2);
        QCOMPARE(file.numSamples(), qint64(1000));
        QCOMPARE(file.size(), qint64(1000) * frameSize);
        QCOMPARE(file.duration(), 0.125);
        const QByteArray bytes = file.readAll();
        QCOMPARE(bytes.size(), 1000 * frameSize);
        for (int at : {0, 1, 999, 1998, 1999}) {
            const double sample = kind == QSovaAudioFile::Int16
                ? reinterpret_cast<const qint16*>(bytes.constData())[at]
                : reinterpret_cast<const float*>(bytes.constData())[at];
            QCOMPARE(sample, ramp(at / 2, at % 2) * scale);
        }
        file.close();
        QCOMPARE(file.frameSize(), frameSize); // from the format kept after close
        QCOMPARE(file.format().sampleRate(), 8000);
    }

    void partialFrames_data()
    {
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<qint64>("asked");
        QTest::addColumn<qint64>("moved");
        QTest::newRow("int16: nothing") << QSovaAudioFile::Int16 << 0ll << 0ll;
        QTest::newRow("int16: 3 bytes, no frame") << QSovaAudioFile::Int16 << 3ll << 0ll;
        QTest::newRow("int16: 7 bytes, 1 frame") << QSovaAudioFile::Int16 << 7ll << 4ll;
        QTest::newRow("int16: 8 bytes") << QSovaAudioFile::Int16 << 8ll << 8ll;
        QTest::newRow("float: 15 bytes") << QSovaAudioFile::Float << 15ll << 8ll;
        QTest::newRow("ieee: 17 bytes") << QSovaAudioFile::IEEEFloat << 17ll << 16ll;
    }

    void partialFrames()
    {
        QFETCH(Kind, kind);
        QFETCH(qint64, asked);
        QFETCH(qint64, moved);
        char bytes[32] = {};
        Exposed reader(stereo, QString(), kind);
        QCOMPARE(reader.readData(bytes, asked), asked ? -1ll : 0ll); // closed
        QVERIFY(reader.open(QIODevice::ReadOnly));
        QCOMPARE(reader.readData(bytes, asked), moved);
        // The next frame follows those moved: nothing was half-read.
        QCOMPARE(reader.readData(bytes, reader.frameSize()), qint64(reader.frameSize()));
        if (kind == QSovaAudioFile::Int16)
            QCOMPARE(reinterpret_cast<qint16*>(bytes)[0], ramp(int(moved / 4), 0));

        const QString target = dir.filePath(QStringLiteral("partial.wav"));
        Exposed writer(target, QStringLiteral("wav[sr=8000,nch=2]"), kind);
        QVERIFY(writer.open(QIODevice::WriteOnly));
        QCOMPARE(writer.writeData(bytes, asked), moved);
        writer.close();
        QSovaAudioFile written(target, QString(), kind);
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.size(), moved);
    }

    // A format given for writing decides rate and channels; the samples are IEEE floats.
    void writeInFormatThroughDevice()
    {
        QBuffer buffer;
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        {
            QSovaAudioFile writer(devicePath(&buffer), QStringLiteral("wav[dither=none]"),
                QSovaAudioFormat(11025, 1, 16));
            QCOMPARE(writer.sampleKind(), QSovaAudioFile::IEEEFloat);
            QVERIFY2(writer.open(QIODevice::WriteOnly), BLERROR_LastMessage());
            writer.writeSamples({0.5f, -0.25f, 1.0f / 32768, 0.0f});
        }
        QVERIFY(buffer.isOpen() && buffer.data().startsWith("RIFF"));
        QVERIFY(buffer.seek(0));
        QSovaAudioFile reader(devicePath(&buffer), QString(), QSovaAudioFile::Int16);
        QVERIFY2(reader.open(QIODevice::ReadOnly), BLERROR_LastMessage());
        QCOMPARE(reader.sampleRate(), 11025);
        QCOMPARE(reader.format().resolution(), 16);
        const QByteArray bytes = reader.readAll();
        QCOMPARE(bytes, QByteArray::fromHex("0040 00e0 0100 0000"));
    }

    // Every backend works through the Qt schemes: libsndfile and FFmpeg both read and write
    // a QBuffer ("qiodevice://") and a QFile ("qfile://").
    void schemes_data()
    {
        QTest::addColumn<bool>("buffer");
        QTest::addColumn<QString>("format");
        QTest::addColumn<bool>("lossless");
        QTest::newRow("buffer flac") << true << "flac" << true;
        QTest::newRow("buffer alac in m4a") << true << "m4a[codec=alac]" << true;
        QTest::newRow("buffer aac") << true << "m4a" << false;
        QTest::newRow("buffer vorbis") << true << "ogg" << false;
        QTest::newRow("qfile wav") << false << "wav" << true;
        QTest::newRow("qfile wavpack") << false << "wv" << true;
    }

    void schemes()
    {
        QFETCH(bool, buffer);
        QFETCH(QString, format);
        QFETCH(bool, lossless);
        QVector<float> samples(2 * 4800);
        for (int i = 0; i < samples.size(); ++i)
            samples[i] = float(qRound(8000.0 * std::sin(i * 0.01))) / 32768.0f;
        QBuffer device;
        QVERIFY(device.open(QIODevice::ReadWrite));
        const QString path = buffer ? devicePath(&device)
                                    : QStringLiteral("qfile://")
                                          + dir.filePath(QStringLiteral("scheme.audio"));
        {
            QSovaAudioFile writer(path, format, QSovaAudioFormat(48000, 2, 16));
            QVERIFY2(writer.open(QIODevice::WriteOnly), BLERROR_LastMessage());
            writer.writeSamples(samples);
        }
        QVERIFY(device.seek(0));
        QSovaAudioFile reader(path, QString(), QSovaAudioFile::IEEEFloat);
        QVERIFY2(reader.open(QIODevice::ReadOnly), BLERROR_LastMessage());
        QCOMPARE(reader.numChannels(), 2);
        const QByteArray bytes = reader.readAll();
        QVector<float> back(int(bytes.size() / 4));
        memcpy(back.data(), bytes.constData(), size_t(bytes.size()));
        if (lossless)
            QCOMPARE(back, samples);
        else // lossy coders may pad to whole codec frames
            QVERIFY2(qAbs(back.size() - samples.size()) <= 2 * 2048, qPrintable(
                QString::number(back.size())));
    }

    // A writer that gives up half-way leaves the target as it was and no stray file beside it.
    void abandon_data()
    {
        QTest::addColumn<bool>("existed");
        QTest::newRow("new target") << false;
        QTest::newRow("existing target") << true;
    }

    void abandon()
    {
        QFETCH(bool, existed);
        QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("out.wav"));
        if (existed) {
            QFile old(path);
            QVERIFY(old.open(QIODevice::WriteOnly));
            old.write("previous contents");
        }
        QSovaAudioFile writer(path, QString(), QSovaAudioFormat(8000, 1, 16));
        QVERIFY2(writer.open(QIODevice::WriteOnly), BLERROR_LastMessage());
        writer.writeSamples(QVector<float>(800, 0.25f));
        writer.abandon();
        QVERIFY(!writer.isOpen());
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
                 existed ? QStringList{QStringLiteral("out.wav")} : QStringList());
        if (existed) {
            QFile old(path);
            QVERIFY(old.open(QIODevice::ReadOnly));
            QCOMPARE(old.readAll(), QByteArray("previous contents"));
        }
    }

    void throughFoundationFile()
    {
        const QString path = dir.filePath(QStringLiteral("hosted.wav"));
        QSovaFile out(path);
        QVERIFY(out.open(QIODevice::ReadWrite));
        {
            QSovaAudioFile writer(
                &out, QStringLiteral("wav[sr=8000,nch=2]"), QSovaAudioFile::Int16);
            QVERIFY2(writer.open(QIODevice::WriteOnly), BLERROR_LastMessage());
            QCOMPARE(writer.write(stereoWav(8000, 300).mid(44)), qint64(1200));
        }
        out.close();
        QSovaFile in(path);
        QVERIFY(in.open(QIODevice::ReadOnly));
        QSovaAudioFile reader(&in, QString(), QSovaAudioFile::Int16);
        QVERIFY2(reader.open(QIODevice::ReadOnly), BLERROR_LastMessage());
        QCOMPARE(reader.readAll(), stereoWav(8000, 300).mid(44));
    }

    void convert_data()
    {
        QTest::addColumn<bool>("withSource");
        QTest::addColumn<QString>("targetFormat");
        QTest::addColumn<int>("rate"); // asked for (0: none) and found in the target
        QTest::addColumn<double>("duration");
        QTest::newRow("as it is") << true << "wav" << 0 << 0.125;
        QTest::newRow("into a format") << true << "wav" << 4000 << 0.125;
        QTest::newRow("no source: null name") << false << "wav" << 0 << -1.0;
        QTest::newRow("unknown target format") << true << "nosuchformat" << 0 << -1.0;
    }

    void convert()
    {
        QFETCH(bool, withSource);
        QFETCH(QString, targetFormat);
        QFETCH(int, rate);
        QFETCH(double, duration);
        const QString target = dir.filePath(QString::fromLatin1(QTest::currentDataTag()) + ".wav");
        const QString source = withSource ? stereo : QString();
        QSovaAudioFormat format(rate, 1, 16);
        QCOMPARE(rate ? QSovaAudioFile::convert(source, QString(), target, targetFormat, format)
                      : QSovaAudioFile::convert(source, QString(), target, targetFormat),
            duration > 0);
        QCOMPARE(QSovaAudioFile::duration(target, QString()), duration);
        QSovaAudioFile file(target, QString(), QSovaAudioFile::Int16);
        if (file.open(QIODevice::ReadOnly))
            QCOMPARE(file.sampleRate(), rate ? rate : 8000);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioFile)
#include "tst_qsovaaudiofile.moc"
