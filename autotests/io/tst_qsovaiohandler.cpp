#include <QSova>
#include <QSovaIOHandler>
#include <QtTest>

#include <sova/foundation.h>

#include <cstring>

namespace {

// The handle the Qt handlers give the I/O layer: the device and whether the handle owns it.
struct QtIOHandle {
    QIODevice* device;
    bool owned;
};

QByteArray devicePath(QIODevice* device)
{
    char text[64];
    std::snprintf(text, sizeof text, "qiodevice://%p", static_cast<void*>(device));
    return QByteArray(text);
}

QByteArray filePath(const QString& name)
{
    return "qfile://" + name.toUtf8();
}

} // namespace

class tst_QSovaIOHandler : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;

    QString writeFile(const QString& name, const QByteArray& content)
    {
        const QString path = dir.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            return QString();
        return path;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QCOMPARE(QSova::initialize(), 1);
    }

    void cleanupTestCase() { QCOMPARE(QSova::finalize(), 1); }

    void records()
    {
        QCOMPARE(QTSOVA_QFileHandler.Scheme, "qfile");
        QCOMPARE(QTSOVA_QIODeviceHandler.Scheme, "qiodevice");
        for (const BLIO_Handler* record : {&QTSOVA_QFileHandler, &QTSOVA_QIODeviceHandler}) {
            QCOMPARE(record->Flags, uintptr_t(30));
            QVERIFY(!record->Context);
            QVERIFY(record->Kind);
            QCOMPARE(record->Kind(nullptr, nullptr), 2);
        }
        // Offered only for real files.
        QVERIFY(QTSOVA_QFileHandler.Flush && !QTSOVA_QIODeviceHandler.Flush);
        QVERIFY(QTSOVA_QFileHandler.GetFileInfo && !QTSOVA_QIODeviceHandler.GetFileInfo);
        QVERIFY(QTSOVA_QFileHandler.Exists && !QTSOVA_QIODeviceHandler.Exists);
    }

    void openModes_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("qtMode"); // 0: the open fails
        QTest::addColumn<qint64>("sizeAfterOpen"); // of a 10-byte file
        QTest::newRow("read") << 2 << int(QIODevice::ReadOnly) << qint64(10);
        QTest::newRow("write only opens read-only") << 4 << int(QIODevice::ReadOnly) << qint64(10);
        QTest::newRow("read-write") << 6 << int(QIODevice::ReadWrite) << qint64(10);
        // A create empties the file: a shorter file written over it keeps no stale tail.
        QTest::newRow("write") << 14 << int(QIODevice::ReadWrite) << qint64(0);
        QTest::newRow("append") << 22 << int(QIODevice::Append | QIODevice::WriteOnly)
                                << qint64(10);
        QTest::newRow("unknown 8") << 8 << 0 << qint64(10);
        QTest::newRow("unknown 0") << 0 << 0 << qint64(10);
        QTest::newRow("unknown -1") << -1 << 0 << qint64(10);
    }

    void openModes()
    {
        QFETCH(int, mode);
        QFETCH(int, qtMode);
        QFETCH(qint64, sizeAfterOpen);
        const QString existing = writeFile(QStringLiteral("modes.bin"), "0123456789");
        auto* handle = static_cast<QtIOHandle*>(
            QTSOVA_QFileHandler.Open(nullptr, filePath(existing).constData(), mode));
        QCOMPARE(handle != nullptr, qtMode != 0);
        if (handle) {
            QVERIFY(handle->owned);
            QCOMPARE(int(handle->device->openMode()), qtMode);
            QCOMPARE(QTSOVA_QFileHandler.Close(handle), 1);
        }
        QCOMPARE(QFileInfo(existing).size(), sizeAfterOpen);
        // A refused mode creates nothing.
        const QString missing = dir.filePath(QStringLiteral("created-%1").arg(mode));
        void* created = QTSOVA_QFileHandler.Open(nullptr, filePath(missing).constData(), mode);
        if (created)
            QTSOVA_QFileHandler.Close(created);
        if (qtMode == 0)
            QVERIFY(!QFile::exists(missing));
    }

    void readRealFileThroughLayer()
    {
        const QByteArray content = "RIFF....WAVEfmt ";
        const QString path = writeFile(QStringLiteral("a.wav"), content);
        QVERIFY(path.startsWith(QLatin1Char('/'))); // "qfile://" + "/..." keeps the slash
        _HFile* file = BLIO_Open(filePath(path).constData(), "r");
        QVERIFY2(file, BLERROR_LastMessage());
        QByteArray read(64, '\0');
        QCOMPARE(BLIO_ReadData(file, read.data(), read.size()), qint64(content.size()));
        QCOMPARE(read.left(content.size()), content);
        QCOMPARE(BLIO_IsEndOfFile(file), 1);
        QCOMPARE(BLIO_CloseFile(file), 1);
    }

    void qiodeviceRoundTrip()
    {
        QBuffer buffer;
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        _HFile* file = BLIO_Open(devicePath(&buffer).constData(), "w");
        QVERIFY2(file, BLERROR_LastMessage());
        QCOMPARE(BLIO_WriteData(file, "hello world", 11), qint64(11));
        QCOMPARE(BLIO_Seek(file, 6, BLIO_SEEK_SET), 1);
        QCOMPARE(BLIO_WriteData(file, "sova!", 5), qint64(5));
        QCOMPARE(BLIO_FileSize(file), qint64(11));
        QCOMPARE(BLIO_Seek(file, -11, BLIO_SEEK_END), 1);
        char head[5];
        QCOMPARE(BLIO_ReadData(file, head, 5), qint64(5));
        QCOMPARE(QByteArray(head, 5), QByteArray("hello"));
        QCOMPARE(BLIO_CloseFile(file), 1);
        QCOMPARE(buffer.data(), QByteArray("hello sova!"));
        QVERIFY2(buffer.isOpen(), "the caller's device stays open");
    }

    void deviceOpenedWriteOnly()
    {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::WriteOnly));
        const QIODevice::OpenMode ownersMode = buffer.openMode();
        void* handle = QTSOVA_QIODeviceHandler.Open(nullptr, devicePath(&buffer).constData(), 2);
        QVERIFY(handle); // the layer's mode is not consulted
        QCOMPARE(QTSOVA_QIODeviceHandler.Write(handle, "abc", 3), qint64(3));
        QCOMPARE(QTSOVA_QIODeviceHandler.Close(handle), 1);
        QCOMPARE(bytes, QByteArray("abc"));
        QCOMPARE(buffer.openMode(), ownersMode);
    }

    void badDevicePaths_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("zero pointer") << QByteArray("qiodevice://0x0");
        QTest::newRow("nil") << QByteArray("qiodevice://(nil)");
        QTest::newRow("no pointer") << QByteArray("qiodevice://");
        QTest::newRow("not a number") << QByteArray("qiodevice://zz");
        QTest::newRow("other scheme") << QByteArray("qfile://0x1234");
    }

    void badDevicePaths()
    {
        QFETCH(QByteArray, path);
        QVERIFY(!QTSOVA_QIODeviceHandler.Open(nullptr, path.constData(), 2));
        QVERIFY(!QTSOVA_QIODeviceHandler.Open(nullptr, nullptr, 2));
        QVERIFY(!QTSOVA_QFileHandler.Open(nullptr, nullptr, 2));
    }

    void closeOwnership()
    {
        QBuffer buffer;
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        void* borrowed = QTSOVA_QIODeviceHandler.Open(nullptr, devicePath(&buffer).constData(), 2);
        QVERIFY(borrowed);
        QCOMPARE(QTSOVA_QIODeviceHandler.Close(borrowed), 1);
        QVERIFY(buffer.isOpen());

        const QString path = writeFile(QStringLiteral("owned.bin"), "x");
        auto* owned = static_cast<QtIOHandle*>(
            QTSOVA_QFileHandler.Open(nullptr, filePath(path).constData(), 2));
        QVERIFY(owned);
        const QPointer<QIODevice> file(owned->device);
        QCOMPARE(QTSOVA_QFileHandler.Close(owned), 1);
        QVERIFY2(file.isNull(), "closing a qfile handle deletes its QFile");
    }

    void seekOrigins_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<int>("origin");
        QTest::addColumn<qint64>("position"); // -1: the seek fails
        QTest::newRow("start") << qint64(3) << 0 << qint64(3);
        QTest::newRow("current") << qint64(2) << 1 << qint64(6);
        QTest::newRow("ten before the end") << qint64(-10) << 2 << qint64(90);
        QTest::newRow("unknown origin is the start") << qint64(7) << 9 << qint64(7);
        QTest::newRow("before the start") << qint64(-1) << 0 << qint64(-1);
    }

    void seekOrigins()
    {
        QFETCH(qint64, offset);
        QFETCH(int, origin);
        QFETCH(qint64, position);
        QBuffer buffer;
        buffer.setData(QByteArray(100, 'x'));
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        QVERIFY(buffer.seek(4));
        void* handle = QTSOVA_QIODeviceHandler.Open(nullptr, devicePath(&buffer).constData(), 2);
        if (position < 0)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("seek")));
        QCOMPARE(QTSOVA_QIODeviceHandler.Seek(handle, offset, origin), position < 0 ? 0 : 1);
        QCOMPARE(QTSOVA_QIODeviceHandler.Position(handle), position < 0 ? qint64(4) : position);
        QCOMPARE(QTSOVA_QIODeviceHandler.IsEOF(handle), 0);
        QVERIFY(QTSOVA_QIODeviceHandler.Seek(handle, 0, 2));
        QCOMPARE(QTSOVA_QIODeviceHandler.IsEOF(handle), 1);
        QCOMPARE(QTSOVA_QIODeviceHandler.Size(handle), qint64(100));
        QTSOVA_QIODeviceHandler.Close(handle);
    }

    void nullHandles()
    {
        // A handle whose device is null behaves like no handle at all.
        QtIOHandle empty{nullptr, false};
        for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&empty)}) {
            char byte;
            QCOMPARE(QTSOVA_QFileHandler.Read(handle, &byte, 1), qint64(-1));
            QCOMPARE(QTSOVA_QFileHandler.Write(handle, &byte, 1), qint64(-1));
            QCOMPARE(QTSOVA_QFileHandler.Seek(handle, 0, 0), 0);
            QCOMPARE(QTSOVA_QFileHandler.Size(handle), qint64(-1));
            QCOMPARE(QTSOVA_QFileHandler.Position(handle), qint64(-1));
            QCOMPARE(QTSOVA_QFileHandler.IsEOF(handle), 1);
            QCOMPARE(QTSOVA_QFileHandler.Flush(handle), 0);
            BLIO_FileInfo info;
            QCOMPARE(QTSOVA_QFileHandler.GetFileInfo(handle, &info), 0);
            QCOMPARE(QTSOVA_QFileHandler.Close(handle), 0);
        }
    }

    void fileInformation()
    {
        const QString path = writeFile(QStringLiteral("info.bin"), QByteArray(1234, 'i'));
        QFile::setPermissions(path, QFile::ReadOwner);
        auto* handle = QTSOVA_QFileHandler.Open(nullptr, filePath(path).constData(), 2);
        QVERIFY(handle);
        BLIO_FileInfo info;
        std::memset(&info, 0xAB, sizeof info);
        QCOMPARE(QTSOVA_QFileHandler.GetFileInfo(handle, nullptr), 0);
        QCOMPARE(QTSOVA_QFileHandler.GetFileInfo(handle, &info), 1);
        const QFileInfo fi(path);
        QCOMPARE(info.OwnerId, fi.ownerId());
        QCOMPARE(info.GroupId, fi.groupId());
        QCOMPARE(info.Size, qint64(1234));
        QCOMPARE(info.AllocatedSize, qint64(1234));
        QCOMPARE(info.OriginalSize, qint64(1234));
        const QDateTime modified = fi.lastModified();
        for (const BLtime* t : {&info.LastModification, &info.LastStatusChange}) {
            QCOMPARE(int(t->Year), modified.date().year());
            QCOMPARE(int(t->Month), modified.date().month());
            QCOMPARE(int(t->Day), modified.date().day());
            QCOMPARE(int(t->DayOfWeek), modified.date().dayOfWeek());
            QCOMPARE(int(t->DayOfYear), modified.date().dayOfYear());
            QCOMPARE(int(t->Hour), modified.time().hour());
            QCOMPARE(int(t->Minute), modified.time().minute());
            QCOMPARE(int(t->Second), modified.time().second());
            QCOMPARE(int(t->Millisecond), modified.time().msec());
        }
        QCOMPARE(int(info.LastAccess.Year), fi.lastRead().date().year());
        QCOMPARE(info.ReadOnly, uint8_t(fi.isWritable() ? 0 : 1)); // root may write anyway
        QCOMPARE(info.RandomAccess, uint8_t(1));
        QCOMPARE(info.RegularFile, uint8_t(1));
        QCOMPARE(info.Creation.Year, uint16_t(0xABAB)); // not Qt's to fill
        QCOMPARE(info.Directory, uint8_t(0xAB));
        QCOMPARE(QTSOVA_QFileHandler.Flush(handle), 1);
        QTSOVA_QFileHandler.Close(handle);

        QBuffer buffer;
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        void* memory = QTSOVA_QIODeviceHandler.Open(nullptr, devicePath(&buffer).constData(), 6);
        QCOMPARE(QTSOVA_QFileHandler.GetFileInfo(memory, &info), 0);
        QCOMPARE(QTSOVA_QFileHandler.Flush(memory), 0);
        QTSOVA_QIODeviceHandler.Close(memory);
    }

    void exists_data()
    {
        QTest::addColumn<QByteArray>("prefix");
        QTest::addColumn<bool>("present");
        QTest::addColumn<int>("result");
        QTest::newRow("qfile, present") << QByteArray("qfile://") << true << 1;
        QTest::newRow("qfile, missing") << QByteArray("qfile://") << false << 0;
        QTest::newRow("any scheme") << QByteArray("other://") << true << 1;
        QTest::newRow("single slash") << QByteArray("qfile:/") << true << 0;
        QTest::newRow("no scheme") << QByteArray("") << true << 0;
    }

    void exists()
    {
        QFETCH(QByteArray, prefix);
        QFETCH(bool, present);
        QFETCH(int, result);
        const QString path = present ? writeFile(QStringLiteral("here.txt"), "x")
                                     : dir.filePath(QStringLiteral("nowhere.txt"));
        QCOMPARE(QTSOVA_QFileHandler.Exists((prefix + path.toUtf8()).constData()), result);
        QCOMPARE(QTSOVA_QFileHandler.Exists("qfile://"), 0);
        QCOMPARE(QTSOVA_QFileHandler.Exists(nullptr), 0);
    }

    void appendThroughLayer()
    {
        const QString path = writeFile(QStringLiteral("log.txt"), "one\n");
        _HFile* file = BLIO_Open(filePath(path).constData(), "a");
        QVERIFY2(file, BLERROR_LastMessage());
        QCOMPARE(BLIO_WriteData(file, "two\n", 4), qint64(4));
        QCOMPARE(BLIO_CloseFile(file), 1);
        QFile check(path);
        QVERIFY(check.open(QIODevice::ReadOnly));
        QCOMPARE(check.readAll(), QByteArray("one\ntwo\n"));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaIOHandler)
#include "tst_qsovaiohandler.moc"
