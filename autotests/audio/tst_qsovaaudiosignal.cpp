#include <QSova>
#include <QSovaAudioFormat>
#include <QSovaAudioSignal>
#include <QtTest>

using Signal = QSovaAudioSignal;
Q_DECLARE_METATYPE(QSovaAudioSignal)

namespace {

// Stereo 16-bit at 1000 Hz: left i, right -i.
Signal stereoRamp(int frames)
{
    Signal signal(QSovaAudioFormat(1000, 2, 16));
    QVector<short> data;
    for (int i = 0; i < frames; ++i)
        data << short(i) << short(-i);
    signal.appendSamples(data.data(), frames);
    return signal;
}

// Every sample of a mono 16-bit signal.
QVector<short> contents(const Signal& signal)
{
    return signal.samples16(0, signal.numSamples());
}

enum Read { Interleaved, Interleaved16, Active, Active16, Channel, Channel16, Vector, ChannelVector };

} // namespace

class tst_QSovaAudioSignal : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(QSova::initialize() > 0); }
    void cleanupTestCase() { QSova::finalize(); }

    void invalid_data()
    {
        QTest::addColumn<Signal>("signal");
        QTest::newRow("default") << Signal();
        QTest::newRow("rejected format") << Signal(QSovaAudioFormat(8000, 0, 16));
        QTest::newRow("missing file") << Signal(QStringLiteral("/nonexistent/x.wav"));
        QTest::newRow("duplicate of invalid") << Signal().duplicate();
    }

    void invalid()
    {
        QFETCH(Signal, signal);
        QVERIFY(!signal.isValid());
        QVERIFY(signal == nullptr);
        QCOMPARE(signal.numSamples(), qint64(0));
        QCOMPARE(signal.duration(), 0.0);
        QCOMPARE(signal.numChannels(), 0);
        QCOMPARE(signal.toSeconds(100), -1.0);
        QCOMPARE(signal.toSamples(1.0), qint64(-1));
        QCOMPARE(signal.rms(0), 0.0);
        QVERIFY(signal.samples(0, 10).isEmpty());
        QVERIFY(signal.channelSamples(0, 0, 10).isEmpty());
        short buffer[20] = {};
        QCOMPARE(signal.getSamples16(buffer, 0, 10), qint64(0));
        signal.appendSamples(QVector<short>(10, 1));
        QCOMPARE(signal.numSamples(), qint64(0));
        QTemporaryDir dir;
        QVERIFY(!signal.save(dir.filePath(QStringLiteral("x.wav"))));
    }

    void readGuards_data()
    {
        QTest::addColumn<int>("read");
        QTest::addColumn<qint64>("pos");
        QTest::addColumn<qint64>("count");
        QTest::addColumn<int>("arg"); // step or channel
        QTest::addColumn<qint64>("delivered");
        QTest::newRow("16 at the end") << int(Interleaved16) << qint64(60) << qint64(10) << 0 << qint64(10);
        QTest::newRow("16 past the end") << int(Interleaved16) << qint64(61) << qint64(10) << 0 << qint64(0);
        QTest::newRow("partly before") << int(Interleaved) << qint64(-5) << qint64(10) << 1 << qint64(10);
        QTest::newRow("ends at start") << int(Interleaved) << qint64(-10) << qint64(10) << 1 << qint64(10);
        QTest::newRow("wholly before") << int(Interleaved) << qint64(-11) << qint64(10) << 1 << qint64(0);
        QTest::newRow("step 0") << int(Interleaved) << qint64(0) << qint64(10) << 0 << qint64(0);
        QTest::newRow("step 3") << int(Interleaved) << qint64(0) << qint64(10) << 3 << qint64(10);
        QTest::newRow("count 0") << int(Interleaved) << qint64(0) << qint64(0) << 1 << qint64(0);
        QTest::newRow("active") << int(Active) << qint64(55) << qint64(10) << 0 << qint64(10);
        QTest::newRow("active16 past") << int(Active16) << qint64(70) << qint64(10) << 0 << qint64(0);
        QTest::newRow("channel 1") << int(Channel) << qint64(0) << qint64(10) << 1 << qint64(10);
        QTest::newRow("channel 2") << int(Channel) << qint64(0) << qint64(10) << 2 << qint64(0);
        QTest::newRow("channel -1") << int(Channel16) << qint64(0) << qint64(10) << -1 << qint64(0);
        QTest::newRow("vector past data") << int(Vector) << qint64(0) << qint64(100) << 0 << qint64(100);
        QTest::newRow("vector past end") << int(Vector) << qint64(61) << qint64(5) << 0 << qint64(0);
        QTest::newRow("vector channel 2") << int(ChannelVector) << qint64(0) << qint64(10) << 2 << qint64(0);
        QTest::newRow("vector channel 1") << int(ChannelVector) << qint64(-3) << qint64(10) << 1 << qint64(10);
    }

    void readGuards()
    {
        QFETCH(int, read);
        QFETCH(qint64, pos);
        QFETCH(qint64, count);
        QFETCH(int, arg);
        QFETCH(qint64, delivered);
        const Signal s = stereoRamp(60);
        QVector<float> f(400);
        QVector<short> i(400);
        qint64 result = -1;
        switch (Read(read)) {
        case Interleaved: result = s.getSamples(f.data(), pos, count, arg); break;
        case Interleaved16: result = s.getSamples16(i.data(), pos, count); break;
        case Active: result = s.getActiveSamples(f.data(), pos, count); break;
        case Active16: result = s.getActiveSamples16(i.data(), pos, count); break;
        case Channel: result = s.getChannelSamples(f.data(), arg, pos, count); break;
        case Channel16: result = s.getChannelSamples(i.data(), arg, pos, count); break;
        case Vector:
            result = s.samples(pos, count).size() / 2;
            QCOMPARE(s.samples16(pos, count).size(), int(2 * delivered));
            break;
        case ChannelVector:
            result = s.channelSamples(arg, pos, count).size();
            QCOMPARE(s.channelSamples16(arg, pos, count).size(), int(delivered));
            break;
        }
        QCOMPARE(result, delivered);
        QCOMPARE(s.getSamples(static_cast<float*>(nullptr), 0, 10), qint64(0));
    }

    void values()
    {
        Signal s = stereoRamp(60);
        QCOMPARE(s.samples16(58, 4), (QVector<short>{58, -58, 59, -59, 0, 0, 0, 0}));
        QCOMPARE(s.channelSamples16(1, -2, 4), (QVector<short>{0, 0, 0, -1}));
        QCOMPARE(s.channelSamples(0, 30, 1), QVector<float>{30 / 32768.0f});
        QVector<float> stepped(6);
        QCOMPARE(s.getSamples(stepped.data(), 1, 3, 3), qint64(3));
        for (float& v : stepped)
            v *= 32768.0f;
        QCOMPARE(stepped, (QVector<float>{1, -1, 4, -4, 7, -7}));
        short three[3] = {};
        QCOMPARE(s.getChannelSamples(three, 1, 10, 3), qint64(3));
        QCOMPARE(QVector<short>(three, three + 3), (QVector<short>{-10, -11, -12}));
        QVERIFY(AUDIOSIGNAL_SetChannelActive(s, 0, 0));
        QCOMPARE(s.numActiveChannels(), 1);
        QVERIFY(!s.channelIsActive(0));
        QVERIFY(s.channelIsActive(1));
        short active[2] = {};
        QCOMPARE(s.getActiveSamples16(active, 5, 2), qint64(2));
        QCOMPARE(QVector<short>(active, active + 2), (QVector<short>{-5, -6}));
    }

    void writes_data()
    {
        QTest::addColumn<int>("op");
        QTest::addColumn<QVector<short>>("expected");
        const QVector<short> base = {0, 1, 2, 3};
        QTest::newRow("empty float vector") << 0 << base;
        QTest::newRow("null data") << 1 << base;
        QTest::newRow("negative count") << 2 << base;
        QTest::newRow("float vector at 2") << 3 << QVector<short>{0, 1, 16384, -16384, 2, 3};
        QTest::newRow("short vector appended") << 4 << QVector<short>{0, 1, 2, 3, 100, 101};
        QTest::newRow("insert before start") << 5 << QVector<short>{7, 0, 1, 2, 3};
        QTest::newRow("float pointer appended") << 6 << QVector<short>{0, 1, 2, 3, 8192};
    }

    void writes()
    {
        QFETCH(int, op);
        QFETCH(QVector<short>, expected);
        Signal s(QSovaAudioFormat(1000, 1, 16));
        s.appendSamples(QVector<short>{0, 1, 2, 3});
        short seven = 7;
        float quarter = 0.25f;
        switch (op) {
        case 0: s.appendSamples(QVector<float>(0)); break;
        case 1: s.insertSamples(static_cast<short*>(nullptr), 0, 10); break;
        case 2: s.appendSamples(&quarter, -1); break;
        case 3: s.insertSamples(QVector<float>{0.5f, -0.5f}, 2); break;
        case 4: s.appendSamples(QVector<short>{100, 101}); break;
        case 5: s.insertSamples(&seven, -5, 1); break;
        case 6: s.appendSamples(&quarter, 1); break;
        }
        QCOMPARE(contents(s), expected);
    }

    // Regression: the vector forms count frames, so on a stereo signal the engine used to read
    // past the end of the vector. The samples given come first, silence fills the rest.
    void vectorWriteOnStereoStaysInBounds()
    {
        Signal s(QSovaAudioFormat(1000, 2, 16));
        s.appendSamples(QVector<short>{1, 2, 3, 4});
        s.insertSamples(QVector<float>{0.5f, -0.5f}, 0);
        QCOMPARE(s.numSamples(), qint64(6));
        QCOMPARE(s.samples16(0, 6),
                 (QVector<short>{16384, -16384, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0}));
    }

    void identity()
    {
        _AUDIOSIGNAL* handle = AUDIOSIGNAL_NewEx(QSovaAudioFormat(1000, 1, 16));
        QVERIFY(handle);
        Signal a(handle);
        QVERIFY(a.isMono() && !a.isStereo());
        QCOMPARE(a.sampleRate(), 1000);
        QCOMPARE(a.bitsPerSample(), 16);
        QCOMPARE(a.toSamples(1.5), qint64(1500));
        QCOMPARE(a.toSeconds(250), 0.25);
        {
            const Signal b = a;
            Signal c;
            c = b;
            c = c;
            QVERIFY(a == b && b == c);
            QVERIFY(c == handle);
            c.appendSamples(QVector<short>(5, 1)); // copies share the engine signal
        }
        QCOMPARE(a.numSamples(), qint64(5));
        Signal copy = a.duplicate();
        QVERIFY(copy.isValid());
        QVERIFY(copy != a);
        QVERIFY(copy != static_cast<const void*>(handle));
        copy.appendSamples(QVector<short>(3, 2));
        QCOMPARE(copy.numSamples(), qint64(8));
        QCOMPARE(a.numSamples(), qint64(5));
    }

    void rms_data()
    {
        QTest::addColumn<QString>("transform");
        QTest::addColumn<int>("channel");
        QTest::addColumn<double>("expected");
        QTest::newRow("plain") << QString() << 0 << 0.5;
        QTest::newRow("none") << QStringLiteral("none") << 0 << 0.5;
        QTest::newRow("dc removed") << QStringLiteral("dcblock") << 0 << 0.0;
        QTest::newRow("unknown transform") << QStringLiteral("bogus") << 0 << -1.0;
        QTest::newRow("bad channel") << QString() << 3 << 0.0;
    }

    void rms()
    {
        QFETCH(QString, transform);
        QFETCH(int, channel);
        QFETCH(double, expected);
        Signal s(QSovaAudioFormat(1000, 1, 16));
        s.appendSamples(QVector<short>(500, 16384));
        const double value = transform.isNull() ? s.rms(channel) : s.rms(transform, channel);
        QVERIFY2(qAbs(value - expected) < 1e-6, qPrintable(QString::number(value)));
    }

    void saveAndReopen_data()
    {
        QTest::addColumn<int>("bits");
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<bool>("viaDevice");
        QTest::newRow("wav by extension") << 16 << QString() << "a.wav" << false;
        QTest::newRow("flac") << 16 << "flac" << "a.flac" << false;
        QTest::newRow("float wav") << 32 << "wav[codec=float]" << "f.wav" << false;
        QTest::newRow("wav into a device") << 16 << "wav" << "d.wav" << true;
        QTest::newRow("flac into a device") << 16 << "flac" << "d.flac" << true;
    }

    void saveAndReopen()
    {
        QFETCH(int, bits);
        QFETCH(QString, format);
        QFETCH(QString, fileName);
        QFETCH(bool, viaDevice);
        Signal s(QSovaAudioFormat(22050, 2, bits));
        QVector<float> data;
        for (int i = 0; i < 3000; ++i)
            data << (i % 200 - 100) / 128.0f << (i % 37) / -64.0f;
        s.appendSamples(data.data(), 3000);
        QTemporaryDir dir;
        const QString path = dir.filePath(fileName);
        if (viaDevice) {
            QBuffer buffer;
            QVERIFY(buffer.open(QIODevice::ReadWrite));
            QVERIFY(s.save(&buffer, format));
            QVERIFY(buffer.isOpen());
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QCOMPARE(file.write(buffer.data()), buffer.size());
        } else {
            QVERIFY(s.save(path, format));
        }
        const Signal reopened(path);
        QVERIFY(reopened.isValid());
        QCOMPARE(reopened.sampleRate(), 22050);
        QCOMPARE(reopened.numChannels(), 2);
        QCOMPARE(reopened.numSamples(), qint64(3000));
        QCOMPARE(reopened.samples(0, 3000), s.samples(0, 3000));
        QVERIFY(!s.save(dir.filePath(QStringLiteral("no/such/dir.wav")), format));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioSignal)
#include "tst_qsovaaudiosignal.moc"
