#include <QSovaFile>
#include <QtTest>

#include <cstring>

namespace {

// A scheme over one in-memory file that records what the layer asks of it: the mode code of
// the last open and the size of the first handler read, which shows the buffering chosen.
struct Recorder
{
    QByteArray data = "abcdefghijklmnopqrstuvwxyz";
    int mode = -1;
    qint64 firstRead = -1;
    int32_t closeResult = 1;
    int32_t seekable = 1;
} rec;

qint64& posOf(void* handle)
{
    return *static_cast<qint64*>(handle);
}

BLIO_Handler recordingHandler()
{
    BLIO_Handler r {};
    r.Scheme = "rec";
    r.Flags = 30;
    r.Open = [](void*, const char*, BLIOOPENMODE mode) -> void* {
        rec.mode = mode;
        return new qint64(0);
    };
    r.Close = [](void* handle) {
        delete &posOf(handle);
        return rec.closeResult;
    };
    r.Read = [](void* handle, void* out, int64_t n) -> int64_t {
        rec.firstRead = rec.firstRead < 0 ? n : rec.firstRead;
        const QByteArray part = rec.data.mid(int(posOf(handle)), int(n));
        std::memcpy(out, part.constData(), size_t(part.size()));
        posOf(handle) += part.size();
        return qint64(part.size());
    };
    r.Seek = [](void* handle, int64_t offset, int32_t) {
        posOf(handle) = offset;
        return 1;
    };
    r.Size = [](void*) -> int64_t { return rec.data.size(); };
    r.Position = [](void* handle) -> int64_t { return posOf(handle); };
    r.IsSeekable = [](void*) { return rec.seekable; };
    return r;
}

BLIO_Handler recHandler = recordingHandler();
const QString recName = QStringLiteral("rec://file");
const QByteArray alphabet = Recorder().data;
using Mode = QIODevice::OpenMode;

struct Exposed : QSovaFile
{
    using QSovaFile::QSovaFile;
    using QSovaFile::readData;
    using QSovaFile::writeData;
};

} // namespace

Q_DECLARE_METATYPE(QIODevice::OpenMode)

class tst_QSovaFile : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QCOMPARE(BLIO_AddIOHandler(&recHandler), 1);
    }

    void cleanupTestCase() { QCOMPARE(BLIO_DelIOHandler(&recHandler), 1); }
    void init() { rec = Recorder(); }

    void descriptors_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("meta");
        QTest::addColumn<int>("code"); // the mode code the handler received
        QTest::addColumn<qint64>("firstRead"); // -1: nothing read at open
        const Mode r = QIODevice::ReadOnly, w = QIODevice::WriteOnly, a = QIODevice::Append;
        const Mode rw = QIODevice::ReadWrite;
        QTest::newRow("read: buffered, prefetched") << r << "" << 2 << qint64(65536);
        QTest::newRow("read as text: no prefetch") << (r | QIODevice::Text) << "" << 2 << -1ll;
        QTest::newRow("read-write wins over append") << (rw | a) << "" << 6 << -1ll;
        QTest::newRow("write wins over append") << (w | a) << "" << 14 << -1ll;
        QTest::newRow("truncate adds nothing") << (w | QIODevice::Truncate) << "" << 14 << -1ll;
        QTest::newRow("append") << a << "" << 22 << -1ll;
        QTest::newRow("read options wrapped") << r << "bufsize=1024" << 2 << qint64(1024);
        QTest::newRow("unbuffered read") << r << "buffered=0" << 2 << qint64(1);
        QTest::newRow("read descriptor kept") << r << "r[bufsize=2048]" << 2 << qint64(2048);
        QTest::newRow("descriptor wins over mode") << r << "rw[bufsize=512]" << 6 << qint64(512);
        QTest::newRow("append options wrapped") << a << "buffered=0" << 22 << -1ll;
    }

    void descriptors()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, meta);
        QFETCH(int, code);
        QFETCH(qint64, firstRead);
        QSovaFile file(recName);
        QVERIFY2(file.open(mode, meta), BLERROR_LastMessage());
        QCOMPARE(rec.mode, code);
        QCOMPARE(rec.firstRead, firstRead);
        QCOMPARE(file.openMode(), mode);
        if (code == 2)
            QCOMPARE(file.readAll(), alphabet); // the prefetched byte is not lost
        QVERIFY(!file.open(mode, meta));
    }

    // The layer names a descriptor it refuses: that shows the text built.
    void refusedDescriptors_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("meta");
        QTest::addColumn<QString>("descriptor");
        QTest::newRow("read-write") << Mode(QIODevice::ReadWrite) << "bufsize=1"
                                    << "rw[bufsize=1]";
        QTest::newRow("write") << Mode(QIODevice::WriteOnly) << "bufsize=1"
                               << "w[bufsize=1]";
        QTest::newRow("bracket third") << Mode(QIODevice::ReadOnly) << "zz[1]"
                                       << "zz[1]";
        QTest::newRow("two bytes are wrapped") << Mode(QIODevice::ReadOnly) << "r["
                                               << "r[r[]";
    }

    void refusedDescriptors()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, meta);
        QFETCH(QString, descriptor);
        QSovaFile file(recName);
        QVERIFY(!file.open(mode, meta));
        QVERIFY2(QString::fromUtf8(BLERROR_LastMessage()).contains('\'' + descriptor + '\''),
            BLERROR_LastMessage());
        QVERIFY(!file.isOpen());
        QVERIFY(!file.internalFilePointer());
    }

    void closedAndUnnamed()
    {
        QVERIFY(!QSovaFile().open(QIODevice::ReadOnly));
        Exposed file(recName, QStringLiteral("bufsize=1024"));
        char byte = 0;
        QCOMPARE(file.readData(&byte, 0), qint64(0));
        QCOMPARE(file.readData(&byte, 1), qint64(-1));
        QCOMPARE(file.writeData(&byte, 1), qint64(-1));
        QVERIFY(!file.seek(0));
        QCOMPARE(file.size(), qint64(0));
        QCOMPARE(file.copyTo(dir.filePath(QStringLiteral("none")), 0, -1), qint64(-1));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(rec.firstRead, qint64(65536)); // the constructor's meta is not used
    }

    void closing_data()
    {
        QTest::addColumn<int>("closeResult");
        QTest::addColumn<int>("seekable");
        QTest::newRow("closed") << 1 << 1;
        QTest::newRow("failed close keeps the device open") << 0 << 0;
    }

    void closing()
    {
        QFETCH(int, closeResult);
        QFETCH(int, seekable);
        rec.closeResult = closeResult;
        rec.seekable = seekable;
        QSovaFile file(recName);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QCOMPARE(file.isSequential(), !seekable);
        file.close();
        QVERIFY(!file.internalFilePointer());
        QCOMPARE(file.isOpen(), !closeResult);
        file.QIODevice::close();
        QVERIFY(file.open(QIODevice::ReadOnly)); // the handle is gone: it opens again by name
    }

    void wrappedHandles_data()
    {
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<bool>("owns");
        QTest::newRow("read, owned") << QByteArray("r") << Mode(QIODevice::ReadOnly) << true;
        QTest::newRow("read, borrowed") << QByteArray("r") << Mode(QIODevice::ReadOnly) << false;
        QTest::newRow("write only") << QByteArray("wo") << Mode(QIODevice::WriteOnly) << false;
        QTest::newRow("read-write") << QByteArray("rw") << Mode(QIODevice::ReadWrite) << true;
        QTest::newRow("bare truncate") << QByteArray("w") << Mode(QIODevice::Truncate) << false;
        QTest::newRow("bare append") << QByteArray("a") << Mode(QIODevice::Append) << true;
    }

    void wrappedHandles()
    {
        QFETCH(QByteArray, descriptor);
        QFETCH(Mode, mode);
        QFETCH(bool, owns);
        _HFile* handle = BLIO_Open("rec://file", descriptor.constData());
        QVERIFY(handle);
        {
            QSovaFile file(handle, owns);
            QCOMPARE(file.openMode(), mode);
            QCOMPARE(static_cast<_HFile*>(file), handle);
            if (mode == QIODevice::ReadOnly)
                QCOMPARE(file.readAll(), alphabet);
            QVERIFY(!file.open(mode));
            file.close();
            QVERIFY(!file.isOpen());
            QCOMPARE(file.internalFilePointer() == handle, !owns);
            // A borrowed handle reopens logically, in its own mode only.
            QVERIFY(!file.open(mode | QIODevice::Text));
            QCOMPARE(file.open(mode), !owns);
        }
        if (!owns)
            QCOMPARE(BLIO_CloseFile(handle), 1); // still the caller's, and alive
    }

    void copyTo_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<qint64>("copied");
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("whole") << 0ll << -1ll << 26ll << alphabet;
        QTest::newRow("from 10 to the end") << 10ll << -1ll << 16ll << alphabet.mid(10);
        QTest::newRow("chunk") << 5ll << 3ll << 3ll << QByteArray("fgh");
        QTest::newRow("past the end") << 20ll << 50ll << 6ll << alphabet.mid(20);
        QTest::newRow("nothing: created empty") << 0ll << 0ll << -1ll << QByteArray();
    }

    void copyTo()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(qint64, copied);
        QFETCH(QByteArray, content);
        QSovaFile file(recName);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.seek(3)); // the copy does not depend on where the device stands
        const QString target = dir.filePath(QString::fromLatin1(QTest::currentDataTag()));
        QCOMPARE(file.copyTo(target, offset, length), copied);
        QFile result(target);
        QVERIFY(result.open(QIODevice::ReadOnly));
        QCOMPARE(result.readAll(), content);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaFile)
#include "tst_qsovafile.moc"
