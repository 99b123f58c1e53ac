// Saving a signal to a caller's device and through "qfile://": a device that takes nothing or
// stops taking bytes or seeks makes save() false with the reason recorded, never true with a
// cut file.
#include <QSova>
#include <QSovaAudioFormat>
#include <QSovaAudioSignal>
#include <QSovaFile>
#include <QtTest>

#include <cmath>

#include <sys/stat.h>

namespace {

// A random-access device in memory that stops taking bytes after `limit` of them, or refuses
// every seek once something was written.
class FailingDevice : public QIODevice
{
public:
    FailingDevice(qint64 limit, bool failSeeks)
        : m_limit(limit)
        , m_failSeeks(failSeeks)
    {
    }
    QByteArray data;

    bool seek(qint64 pos) override
    {
        if (m_failSeeks && !data.isEmpty())
            return false;
        return QIODevice::seek(pos);
    }
    qint64 size() const override { return data.size(); }

protected:
    qint64 readData(char* out, qint64 max) override
    {
        const qint64 n = qMax<qint64>(0, qMin<qint64>(max, data.size() - pos()));
        memcpy(out, data.constData() + pos(), size_t(n));
        return n;
    }
    qint64 writeData(const char* in, qint64 count) override
    {
        const qint64 room = m_limit < 0 ? count : qMin(count, m_limit - m_taken);
        if (room <= 0)
            return -1;
        const qint64 at = pos();
        if (data.size() < at + room)
            data.resize(int(at + room));
        memcpy(data.data() + at, in, size_t(room));
        m_taken += room;
        return room;
    }

private:
    qint64 m_limit;
    bool m_failSeeks;
    qint64 m_taken = 0;
};

QSovaAudioSignal tone(qint64 frames)
{
    QSovaAudioSignal signal(QSovaAudioFormat(44100, 2, 16));
    QVector<float> v(int(frames * 2));
    for (int i = 0; i < v.size(); ++i)
        v[i] = float(0.4 * std::sin((i / 2) * 0.02));
    signal.appendSamples(v.data(), frames);
    return signal;
}

bool isCharDevice(const char* path)
{
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISCHR(st.st_mode);
}

} // namespace

class tst_QSovaAudioSignalSave : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(QSova::initialize() > 0); }
    void cleanupTestCase() { QSova::finalize(); }

    void saveToDevice_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("device");
        QTest::addColumn<bool>("saved");
        for (const char* format : {"wav", "flac", "mp3"}) {
            QTest::addRow("%s: open buffer", format) << format << "open" << true;
            QTest::addRow("%s: closed buffer", format) << format << "closed" << false;
            QTest::addRow("%s: read-only buffer", format) << format << "read-only" << false;
            QTest::addRow("%s: takes nothing", format) << format << "limit 0" << false;
            QTest::addRow("%s: stops in the header", format) << format << "limit 20" << false;
            QTest::addRow("%s: stops in the audio", format) << format << "limit 30000" << false;
            if (QByteArray(format) != "mp3") // the MP3 writer never seeks back
                QTest::addRow("%s: refuses seeks", format) << format << "no seeks" << false;
        }
    }
    void saveToDevice()
    {
        QFETCH(QString, format);
        QFETCH(QString, device);
        QFETCH(bool, saved);
        const QSovaAudioSignal signal = tone(150000);
        QByteArray bytes;
        QBuffer buffer(&bytes);
        FailingDevice failing(
            device.startsWith("limit") ? device.mid(6).toLongLong() : -1, device == "no seeks");
        QIODevice* target = &buffer;
        if (device == "open")
            QVERIFY(buffer.open(QIODevice::ReadWrite));
        else if (device == "read-only")
            QVERIFY(buffer.open(QIODevice::ReadOnly));
        else if (device != "closed") {
            QVERIFY(failing.open(QIODevice::ReadWrite));
            target = &failing;
        }
        QCOMPARE(signal.save(target, format), saved);
        if (saved) {
            // The healthy device holds a file that reads back whole.
            QVERIFY(!bytes.isEmpty());
            QTemporaryDir dir;
            QFile file(dir.filePath("back." + format));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(bytes);
            file.close();
            const QSovaAudioSignal back(file.fileName());
            QVERIFY(qAbs(back.numSamples() - signal.numSamples()) < 2000);
        } else {
            QVERIFY2(QSova::lastErrorString().contains("qiodevice://"),
                qPrintable(QSova::lastErrorString()));
        }
    }

    // A QFile holds written bytes back: a full device shows only when they go out.
    void qfileOnFullDevice_data()
    {
        QTest::addColumn<QString>("format");
        QTest::newRow("wav") << "wav";
        QTest::newRow("flac") << "flac";
    }
    void qfileOnFullDevice()
    {
        QFETCH(QString, format);
        if (!isCharDevice("/dev/full"))
            QSKIP("no /dev/full");
        QVERIFY(!tone(50000).save(QStringLiteral("qfile:///dev/full"), format));
        QVERIFY2(!QSova::lastErrorString().isEmpty(), "no reason recorded");
        QVERIFY(isCharDevice("/dev/full"));
    }

    // A copy smaller than the I/O buffer meets the full device only when it is closed.
    void copyToFullDevice()
    {
        if (!isCharDevice("/dev/full"))
            QSKIP("no /dev/full");
        QTemporaryDir dir;
        const QString source = dir.filePath("source.wav");
        QVERIFY(tone(2000).save(source, "wav"));
        QSovaFile file(source);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.copyTo(QStringLiteral("/dev/full"), 0, -1), qint64(-1));
        QVERIFY(file.copyTo(dir.filePath("copy.wav"), 0, -1) > 0);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioSignalSave)
#include "tst_qsovaaudiosignalsave.moc"
