// Write failures on every path: a handler that stops taking bytes, refuses seeks or flushes,
// and a full device. Each save, conversion or region file must fail with the reason and leave
// nothing at the target that looks complete. (Plain paths under a file size limit: the CLI
// tests.)
#include <sova/audio.h>
#include <sova/audioformats.h>
#include <sova/audiosignal.h>
#include <sova/blerror.h>
#include <sova/blio.h>

#include <QtTest>

#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

// An in-memory file of the "failing" scheme ("failing://NAME"): writes stop after `limit`
// bytes, seeks fail once anything was written, flushes fail.
struct Store
{
    std::vector<char> bytes;
    int64_t limit = -1; // -1: no limit
    bool failSeeks = false;
    bool failFlush = false;
    bool exists = false;
};
Store g_store;

struct Handle
{
    int64_t pos = 0;
    int64_t written = 0;
};

void* failOpen(void*, const char*, BLIOOPENMODE mode)
{
    if (mode & BLIO_MODE_TRUNCATE)
        g_store.bytes.clear();
    g_store.exists = true;
    return new Handle;
}
int32_t failClose(void* h)
{
    delete static_cast<Handle*>(h);
    return 1;
}
int64_t failRead(void* h, void* buffer, int64_t count)
{
    auto* f = static_cast<Handle*>(h);
    const int64_t n
        = std::max<int64_t>(0, std::min<int64_t>(count, int64_t(g_store.bytes.size()) - f->pos));
    std::memcpy(buffer, g_store.bytes.data() + f->pos, size_t(n));
    f->pos += n;
    return n;
}
int64_t failWrite(void* h, const void* buffer, int64_t count)
{
    auto* f = static_cast<Handle*>(h);
    int64_t n = count;
    if (g_store.limit >= 0)
        n = std::min(count, g_store.limit - f->written);
    if (n <= 0)
        return -1;
    if (int64_t(g_store.bytes.size()) < f->pos + n)
        g_store.bytes.resize(size_t(f->pos + n));
    std::memcpy(g_store.bytes.data() + f->pos, buffer, size_t(n));
    f->pos += n;
    f->written += n;
    return n;
}
int32_t failSeek(void* h, int64_t offset, int32_t origin)
{
    auto* f = static_cast<Handle*>(h);
    if (g_store.failSeeks && f->written > 0)
        return 0;
    const int64_t base = origin == BLIO_SEEK_CUR ? f->pos
        : origin == BLIO_SEEK_END                ? int64_t(g_store.bytes.size())
                                                 : 0;
    if (base + offset < 0)
        return 0;
    f->pos = base + offset;
    return 1;
}
int64_t failSize(void*)
{
    return int64_t(g_store.bytes.size());
}
int64_t failPosition(void* h)
{
    return static_cast<Handle*>(h)->pos;
}
int32_t failFlush(void*)
{
    return g_store.failFlush ? 0 : 1;
}
int32_t failRemove(void*, const char*)
{
    g_store.bytes.clear();
    g_store.exists = false;
    return 1;
}

BLIO_Handler g_failing = {"failing", nullptr,
    BLIO_MODE_READ | BLIO_MODE_WRITE | BLIO_MODE_TRUNCATE | BLIO_MODE_APPEND, failOpen, failClose,
    failRead, failWrite, failSeek, failSize, failPosition, nullptr, nullptr, nullptr, nullptr,
    failFlush, nullptr, failRemove, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

_AUDIOSIGNAL* toneSignal(int64_t frames)
{
    _AUDIOSIGNAL* s = AUDIOSIGNAL_NewEx(AUDIO_FormatEx(44100, 2, 16));
    std::vector<float> v(size_t(frames * 2));
    for (int64_t i = 0; i < frames * 2; ++i)
        v[size_t(i)] = float(0.5 * std::sin(double(i / 2) * 0.03));
    AUDIOSIGNAL_AppendSamples(s, v.data(), frames);
    return s;
}

bool isCharDevice(const char* path)
{
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISCHR(st.st_mode);
}

} // namespace

class tst_AudioWriteFailure : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(BLIO_AddIOHandler(&g_failing));
    }
    void cleanupTestCase() { BLIO_DelIOHandler(&g_failing); }

    // The layer itself: a loss in the buffered writes or a refused seek or flush shows at close.
    void closeReportsLoss_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<bool>("failSeeks");
        QTest::addColumn<bool>("failFlush");
        QTest::addColumn<bool>("seekBack");
        QTest::addColumn<QString>("reason");
        QTest::newRow("healthy") << -1 << false << false << true << QString();
        QTest::newRow("write refused at once") << 0 << false << false << false << "write to";
        QTest::newRow("short write mid-buffer") << 1000 << false << false << false << "write to";
        QTest::newRow("seek back refused") << -1 << true << false << true << "seek in";
        QTest::newRow("flush refused") << -1 << false << true << false << "flush";
    }
    void closeReportsLoss()
    {
        QFETCH(int, limit);
        QFETCH(bool, failSeeks);
        QFETCH(bool, failFlush);
        QFETCH(bool, seekBack);
        QFETCH(QString, reason);
        g_store = Store {};
        g_store.limit = limit;
        g_store.failSeeks = failSeeks;
        g_store.failFlush = failFlush;
        _HFile* f = BLIO_Open("failing://x", "w");
        QVERIFY(f);
        const std::vector<char> block(100000, 'a');
        // The buffer takes the bytes: a failing handler is only met when they go out.
        QCOMPARE(BLIO_WriteData(f, block.data(), 3000), int64_t(3000));
        if (seekBack) {
            QCOMPARE(BLIO_WriteData(f, block.data(), int64_t(block.size())), int64_t(block.size()));
            BLIO_Seek(f, 0, BLIO_SEEK_SET); // a header rewrite; the failure must not vanish
            BLIO_WriteData(f, "RIFF", 4);
        }
        if (failFlush)
            QCOMPARE(BLIO_Flush(f), 0);
        BLERROR_Clear();
        const int32_t closed = BLIO_CloseFile(f);
        QCOMPARE(closed, reason.isEmpty() ? 1 : 0);
        if (!reason.isEmpty()) {
            const QString message = QString::fromUtf8(BLERROR_LastMessage());
            QVERIFY2(
                message.contains(reason) && message.contains("failing://x"), qPrintable(message));
        }
    }

    // Signal saves and conversions through a handler that fails at some point of the file.
    void saveFailsOnHandler_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("limit");
        QTest::addColumn<bool>("failSeeks");
        const char* formats[] = {"wav", "flac", "aiff", "mp3", "m4a"};
        for (const char* format : formats) {
            QTest::addRow("%s: no byte taken", format) << format << 0 << false;
            QTest::addRow("%s: header only", format) << format << 30 << false;
            QTest::addRow("%s: cut in the audio", format) << format << 20000 << false;
            // The MP3 writer never seeks back.
            if (std::strcmp(format, "mp3") != 0)
                QTest::addRow("%s: seeks refused", format) << format << -1 << true;
        }
    }
    void saveFailsOnHandler()
    {
        QFETCH(QString, format);
        QFETCH(int, limit);
        QFETCH(bool, failSeeks);
        _AUDIOSIGNAL* s = toneSignal(200000);
        g_store = Store {};
        g_store.limit = limit;
        g_store.failSeeks = failSeeks;
        BLERROR_Clear();
        const int32_t saved
            = AUDIOSIGNAL_SaveEx(s, "failing://out", format.toUtf8().constData(), 0, 0);
        AUDIOSIGNAL_Destroy(s);
        QCOMPARE(saved, 0);
        QVERIFY2(BLERROR_LastCode() != BLERR_NONE, BLERROR_LastMessage());
        QVERIFY2(
            QByteArray(BLERROR_LastMessage()).contains("failing://out"), BLERROR_LastMessage());
        QVERIFY2(!g_store.exists, "the half-written target was left in place");
    }

    // ENOSPC on a device written in place, through both the signal save and the conversion.
    void fullDevice_data()
    {
        QTest::addColumn<QString>("format");
        QTest::newRow("wav") << "wav";
        QTest::newRow("flac") << "flac";
        QTest::newRow("mp3") << "mp3";
    }
    void fullDevice()
    {
        QFETCH(QString, format);
        if (!isCharDevice("/dev/full"))
            QSKIP("no /dev/full");
        const QString source = m_dir.filePath("source.wav");
        _AUDIOSIGNAL* s = toneSignal(100000);
        QCOMPARE(AUDIOSIGNAL_SaveEx(s, source.toUtf8().constData(), "wav", 0, 0), 1);
        BLERROR_Clear();
        QCOMPARE(AUDIOSIGNAL_SaveEx(s, "file:///dev/full", format.toUtf8().constData(), 0, 0), 0);
        AUDIOSIGNAL_Destroy(s);
        QVERIFY2(QByteArray(BLERROR_LastMessage()).contains(std::strerror(ENOSPC)),
            BLERROR_LastMessage());
        BLERROR_Clear();
        QCOMPARE(AUDIO_ConvertEx(nullptr, source.toUtf8().constData(), "", "file:///dev/full",
                     format.toUtf8().constData(), nullptr),
            0);
        QVERIFY2(QByteArray(BLERROR_LastMessage()).contains(std::strerror(ENOSPC)),
            BLERROR_LastMessage());
        // A failed write never removes a device.
        QVERIFY(isCharDevice("/dev/full"));
    }

    // Region files: a handler that stops taking bytes and a full device.
    void regionFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("handler refuses") << "failing://regions.txt";
        QTest::newRow("full device") << "file:///dev/full";
    }
    void regionFile()
    {
        QFETCH(QString, path);
        if (path.contains("/dev/full") && !isCharDevice("/dev/full"))
            QSKIP("no /dev/full");
        g_store = Store {};
        g_store.limit = 0;
        _audio_region regions[1] = {};
        regions[0].begin = 1.0;
        regions[0].end = 2.0;
        std::strcpy(regions[0].label, "speech");
        BLERROR_Clear();
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), "labels", regions, 1, nullptr), 0);
        QVERIFY2(BLERROR_LastCode() != BLERR_NONE, BLERROR_LastMessage());
        QVERIFY(!g_store.exists || !path.startsWith("failing"));
        QVERIFY(!path.contains("/dev/full") || isCharDevice("/dev/full"));
    }
};

QTEST_GUILESS_MAIN(tst_AudioWriteFailure)
#include "tst_audiowritefailure.moc"
