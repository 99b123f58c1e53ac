// The I/O layer: descriptors, buffering checked against a model, handlers, views, copies.
#include <sova/blio.h>

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A handler over strings in memory, so that the tests see what the layer asks of a handler.
struct MemStore
{
    std::map<std::string, std::string> files;
    int opens = 0, reads = 0, writes = 0, closes = 0;
    void* context = nullptr;
    std::string path;
    int64_t startPos = 0;
    int64_t posAtClose = -1;
};
MemStore* g_store = nullptr; // Exists gets no context

struct MemFile
{
    std::string* data;
    int64_t pos;
};

std::string memName(const char* path)
{
    const char* p = std::strstr(path, "://");
    return p ? p + 3 : path;
}

void* memOpen(void* context, const char* path, BLIOOPENMODE mode)
{
    auto* s = static_cast<MemStore*>(context);
    ++s->opens;
    s->context = context;
    s->path = path;
    const std::string name = memName(path);
    if (!(mode & BLIO_MODE_WRITE) && !s->files.count(name))
        return nullptr;
    std::string& data = s->files[name];
    if (mode & BLIO_MODE_TRUNCATE)
        data.clear();
    return new MemFile {&data, s->startPos};
}

int32_t memClose(void* h)
{
    g_store->posAtClose = static_cast<MemFile*>(h)->pos;
    ++g_store->closes;
    delete static_cast<MemFile*>(h);
    return 1;
}

int64_t memRead(void* h, void* buffer, int64_t count)
{
    auto* f = static_cast<MemFile*>(h);
    ++g_store->reads;
    const int64_t size = static_cast<int64_t>(f->data->size());
    const int64_t n = f->pos < size ? std::min(count, size - f->pos) : 0;
    std::memcpy(buffer, f->data->data() + f->pos, static_cast<size_t>(n));
    f->pos += n;
    return n;
}

int64_t memWrite(void* h, const void* buffer, int64_t count)
{
    auto* f = static_cast<MemFile*>(h);
    ++g_store->writes;
    if (f->pos > static_cast<int64_t>(f->data->size()))
        f->data->resize(static_cast<size_t>(f->pos), '\0');
    f->data->replace(static_cast<size_t>(f->pos), static_cast<size_t>(count),
        static_cast<const char*>(buffer), static_cast<size_t>(count));
    f->pos += count;
    return count;
}

int32_t memSeek(void* h, int64_t offset, int32_t origin)
{
    auto* f = static_cast<MemFile*>(h);
    const int64_t base = origin == BLIO_SEEK_CUR ? f->pos
        : origin == BLIO_SEEK_END                ? static_cast<int64_t>(f->data->size())
                                                 : 0;
    if (base + offset < 0)
        return 0;
    f->pos = base + offset;
    return 1;
}

// The short callbacks.
struct Mem
{
    static MemFile* of(void* h) { return static_cast<MemFile*>(h); }
    static int64_t size(void* h) { return static_cast<int64_t>(of(h)->data->size()); }
    static int64_t position(void* h) { return of(h)->pos; }
    static int32_t isEOF(void* h) { return position(h) >= size(h) ? 1 : 0; }
    static int32_t exists(const char* path) { return g_store->files.count(memName(path)) ? 1 : 0; }
    static int32_t kind(void*, const char*) { return BLIO_KIND_HOSTED; }
};

BLIO_Handler memHandler(const char* scheme, MemStore* store)
{
    BLIO_Handler h {};
    h.Scheme = scheme;
    h.Context = store;
    h.Flags = 30;
    h.Open = memOpen;
    h.Close = memClose;
    h.Read = memRead;
    h.Write = memWrite;
    h.Seek = memSeek;
    h.Size = Mem::size;
    h.Position = Mem::position;
    h.IsEOF = Mem::isEOF;
    h.Exists = Mem::exists;
    h.Kind = Mem::kind;
    return h;
}

std::string randomBytes(std::mt19937& rng, size_t n)
{
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(rng() & 0xFF);
    return s;
}

std::string fileContent(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return "<unreadable>";
    return f.readAll().toStdString();
}

void writeFile(const QString& path, const std::string& data)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(data.data(), static_cast<qint64>(data.size())), qint64(data.size()));
}

// Takes a handler out again when the test leaves, passed or failed: records live on the stack.
struct Registered
{
    BLIO_Handler* handler;
    ~Registered() { BLIO_DelIOHandler(handler); }
};

QByteArray lastMessage()
{
    return QByteArray(BLERROR_LastMessage());
}

// What the file should hold and where the handle should stand. pushed: a byte pushed back that
// differs from the file's, served at pos by the next read.
struct Model
{
    std::string data;
    int64_t pos = 0;
    int pushed = -1;
    bool append = false;
};

#define EXPECT_EQ(actual, expected)                                                                \
    do {                                                                                           \
        const qint64 a_ = (actual), e_ = (expected);                                               \
        if (a_ != e_)                                                                              \
            QFAIL(qPrintable(QString::asprintf("step %d (op %d): %s is %lld, expected %lld", step, \
                op, #actual, static_cast<long long>(a_), static_cast<long long>(e_))));            \
    } while (0)

// Drives the handle and the model through the same random operations.
template <typename Stored>
void runOps(_HFile* f, Model& m, quint32 seed, int steps, int64_t bufSize, Stored stored)
{
    std::mt19937 rng(seed);
    auto pick = [&](int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
    };
    auto blockSize = [&]() {
        const int64_t kind = pick(0, 2);
        return kind == 0 ? pick(1, 8) : kind == 1 ? pick(1, bufSize) : pick(bufSize, 3 * bufSize);
    };
    int lastChar = -1;
    for (int step = 0; step < steps; ++step) {
        const int op = static_cast<int>(pick(0, 9));
        const int64_t size = static_cast<int64_t>(m.data.size());
        if (op != 4 && op != 3)
            lastChar = -1;
        switch (op) {
        case 0: {
            const std::string bytes = randomBytes(rng, static_cast<size_t>(blockSize()));
            EXPECT_EQ(BLIO_WriteData(f, bytes.data(), bytes.size()), qint64(bytes.size()));
            if (m.append) {
                m.data += bytes;
                m.pos = static_cast<int64_t>(m.data.size());
            } else {
                if (m.pos > size)
                    m.data.resize(static_cast<size_t>(m.pos), '\0');
                m.data.replace(static_cast<size_t>(m.pos), bytes.size(), bytes);
                m.pos += static_cast<int64_t>(bytes.size());
            }
            m.pushed = -1;
            break;
        }
        case 1: {
            const int64_t n = blockSize();
            std::string got(static_cast<size_t>(n), '\0');
            const int64_t expected = std::max<int64_t>(0, std::min(n, size - m.pos));
            EXPECT_EQ(BLIO_ReadData(f, got.data(), n), expected);
            std::string want = expected ? m.data.substr(static_cast<size_t>(m.pos), expected) : "";
            if (expected && m.pushed >= 0)
                want[0] = static_cast<char>(m.pushed);
            QVERIFY2(got.compare(0, want.size(), want) == 0, qPrintable(QString::number(step)));
            m.pos += expected;
            if (expected)
                m.pushed = -1;
            break;
        }
        case 2: {
            const int origin = static_cast<int>(pick(0, 3));
            const int64_t base = origin == 1 ? m.pos : origin == 2 ? size : 0;
            const int64_t target = pick(-20, size + 100);
            EXPECT_EQ(BLIO_Seek(f, target - base, origin == 3 ? 7 : origin), target >= 0 ? 1 : 0);
            if (target >= 0) {
                m.pos = target;
                m.pushed = -1;
            }
            break;
        }
        case 3:
            for (int64_t i = pick(1, 20); i > 0; --i) {
                const int expected = m.pos >= size ? -1
                    : m.pushed >= 0                ? m.pushed
                                                   : static_cast<unsigned char>(m.data[m.pos]);
                lastChar = BLIO_ReadChar(f);
                EXPECT_EQ(lastChar, expected);
                if (expected >= 0) {
                    ++m.pos;
                    m.pushed = -1;
                }
            }
            break;
        case 4:
            if (lastChar >= 0) {
                const int c = pick(0, 1) ? lastChar : lastChar ^ 0x5A;
                EXPECT_EQ(BLIO_UnReadChar(f, c), 1);
                --m.pos;
                m.pushed = c != static_cast<unsigned char>(m.data[m.pos]) ? c : -1;
                lastChar = -1;
            }
            break;
        case 5:
            EXPECT_EQ(BLIO_FileSize(f), size);
            break;
        case 6:
            EXPECT_EQ(BLIO_FilePosition(f), m.pos);
            break;
        case 7:
            EXPECT_EQ(BLIO_IsEndOfFile(f), m.pos >= size ? 1 : 0);
            break;
        case 8:
            EXPECT_EQ(BLIO_Flush(f), 1);
            QVERIFY2(stored() == m.data, qPrintable(QString("step %1: flushed data").arg(step)));
            break;
        default:
            break;
        }
    }
}

} // namespace

class TestBlio : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    MemStore m_store;
    BLIO_Handler m_mem = memHandler("mem", &m_store);
    QString path(const char* name) const { return m_dir.filePath(QString::fromLatin1(name)); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        g_store = &m_store;
        QCOMPARE(BLIO_AddIOHandler(&m_mem), 1);
    }
    void cleanupTestCase() { QCOMPARE(BLIO_DelIOHandler(&m_mem), 1); }
    void init() { m_store = MemStore(); }

    void descriptor_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("mode"); // 0: refused
        QTest::addColumn<int>("buffered");
        QTest::addColumn<qint64>("bufsize");
        QTest::newRow("r") << QByteArray("r") << 2 << 1 << qint64(65536);
        QTest::newRow("rw") << QByteArray("rw") << 6 << 1 << qint64(65536);
        QTest::newRow("w") << QByteArray("w") << 14 << 1 << qint64(65536);
        QTest::newRow("a") << QByteArray("a") << 22 << 1 << qint64(65536);
        QTest::newRow("wo") << QByteArray("wo") << 4 << 1 << qint64(65536);
        QTest::newRow("empty options") << QByteArray("r[]") << 2 << 1 << qint64(65536);
        QTest::newRow("unbuffered") << QByteArray("r[buffered=0]") << 2 << 0 << qint64(65536);
        QTest::newRow("bare key") << QByteArray("rw[buffered]") << 6 << 1 << qint64(65536);
        QTest::newRow("words") << QByteArray("a[buffered=no, bufsize=4096]") << 22 << 0
                               << qint64(4096);
        QTest::newRow("smallest") << QByteArray("w[bufsize=512]") << 14 << 1 << qint64(512);
        QTest::newRow("largest") << QByteArray("wo[bufsize=67108864]") << 4 << 1
                                 << qint64(64 << 20);
        QTest::newRow("hex") << QByteArray("r[bufsize=0x1000]") << 2 << 1 << qint64(4096);
        QTest::newRow("unknown key") << QByteArray("r[colour=red]") << 2 << 1 << qint64(65536);
        QTest::newRow("quoted bracket")
            << QByteArray("r[x=\"a]b\",bufsize=1024]") << 2 << 1 << qint64(1024);
        QTest::newRow("vector value")
            << QByteArray("r[v=[1,2],bufsize=2048]") << 2 << 1 << qint64(2048);
        for (const char* bad :
            {"", "x", "R", " r", "r ", "rwx", "ro", "wa", "r[", "r[buffered=1", "r[buffered=1]x",
                "r]", "r[a]]", "r[[]", "[r]", "r[x='open]", "r[bufsize=511]", "r[bufsize=67108865]",
                "r[bufsize=-1]", "r[bufsize=abc]", "r[bufsize]", "r[buffered=maybe]"})
            QTest::newRow(bad) << QByteArray(bad) << 0 << 0 << qint64(0);
    }
    void descriptor()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, mode);
        BLIO_OpenOptions o {-1, -1, -1};
        QCOMPARE(BLIO_ParseOpenDescriptor(text.constData(), &o), mode ? 1 : 0);
        if (!mode) {
            QCOMPARE(BLERROR_LastCode(), int(BLERR_BAD_DESCRIPTOR));
            QVERIFY(BLIO_Open(path("never").toUtf8().constData(), text.constData()) == nullptr);
            QCOMPARE(BLERROR_LastCode(), int(BLERR_BAD_DESCRIPTOR));
            QVERIFY(!QFile::exists(path("never")));
            return;
        }
        QTEST(int(o.Mode), "mode");
        QTEST(int(o.Buffered), "buffered");
        QTEST(qint64(o.BufferSize), "bufsize");
    }

    void modes_data()
    {
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<bool>("canRead");
        QTest::addColumn<bool>("canWrite");
        QTest::addColumn<QByteArray>("after"); // "hello" once "X" has been written at open
        QTest::newRow("r") << QByteArray("r") << true << false << QByteArray("hello");
        QTest::newRow("rw") << QByteArray("rw") << true << true << QByteArray("Xello");
        QTest::newRow("w") << QByteArray("w") << true << true << QByteArray("X");
        QTest::newRow("a") << QByteArray("a") << true << true << QByteArray("helloX");
        QTest::newRow("wo") << QByteArray("wo") << false << true << QByteArray("Xello");
        QTest::newRow("wo unbuffered")
            << QByteArray("wo[buffered=0]") << false << true << QByteArray("Xello");
    }
    void modes()
    {
        QFETCH(QByteArray, descriptor);
        QFETCH(bool, canRead);
        QFETCH(bool, canWrite);
        const QString p = path("modes");
        writeFile(p, "hello");
        _HFile* f = BLIO_Open(p.toUtf8().constData(), descriptor.constData());
        QVERIFY(f);
        QCOMPARE(BLIO_WriteData(f, "X", 1), canWrite ? 1 : -1);
        if (!canWrite)
            QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_WRITABLE));
        QVERIFY(BLIO_Seek(f, 0, BLIO_SEEK_SET));
        char c = 0;
        QCOMPARE(BLIO_ReadData(f, &c, 1), canRead ? 1 : -1);
        if (!canRead) {
            QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_READABLE));
            QCOMPARE(BLIO_ReadChar(f), -1);
        }
        QCOMPARE(BLIO_CloseFile(f), 1);
        QTEST(QByteArray::fromStdString(fileContent(p)), "after");
    }

    void model_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<quint32>("seed");
        const char* plain[] = {"rw", "rw[buffered=0]", "rw[bufsize=512]", "w[bufsize=4096]", "a",
            "a[buffered=0]", "a[bufsize=512]"};
        for (const char* target : {"file", "mem", "view"}) {
            for (const char* d : plain) {
                if (QByteArray(target) == "view" && d[0] == 'w')
                    continue; // a view never empties its file
                for (quint32 seed : {1u, 2u})
                    QTest::addRow("%s %s %u", target, d, seed)
                        << QString(target) << QByteArray(d) << seed;
            }
        }
    }
    void model()
    {
        QFETCH(QString, target);
        QFETCH(QByteArray, descriptor);
        QFETCH(quint32, seed);
        std::mt19937 rng(seed);
        Model m;
        const std::string initial = randomBytes(rng, 3000);
        m.data = descriptor.startsWith('w') ? std::string() : initial;
        m.append = descriptor.startsWith('a');
        const QString p = path("model");
        writeFile(p, initial);
        m_store.files["model"] = initial;
        _HFile* parent = nullptr;
        _HFile* f = nullptr;
        if (target == "mem") {
            f = BLIO_Open("mem://model", descriptor.constData());
        } else if (target == "view") {
            parent = BLIO_Open(p.toUtf8().constData(), "rw");
            QVERIFY(parent && BLIO_Seek(parent, 7, BLIO_SEEK_SET));
            char meta[BLIO_MAX_META_DESCR];
            QCOMPARE(BLIO_ComposeMetaHFileDescr(meta, parent), 1);
            f = BLIO_Open(meta, descriptor.constData());
        } else {
            f = BLIO_Open(p.toUtf8().constData(), descriptor.constData());
        }
        QVERIFY2(f, BLERROR_LastMessage());
        auto stored = [&] { return target == "mem" ? m_store.files["model"] : fileContent(p); };
        BLIO_OpenOptions o;
        QVERIFY(BLIO_ParseOpenDescriptor(descriptor.constData(), &o));
        runOps(f, m, seed, 1500, o.Buffered ? o.BufferSize : 512, stored);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(BLIO_CloseFile(f), 1);
        if (parent) {
            QCOMPARE(BLIO_FilePosition(parent), qint64(7));
            QCOMPARE(BLIO_CloseFile(parent), 1);
        }
        QVERIFY(stored() == m.data);
    }

    void unreadChar_data()
    {
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<int>("readCount");
        QTest::addColumn<int>("pushCount");
        QTest::addColumn<bool>("differ");
        QTest::newRow("inside buffer") << QByteArray("r[bufsize=512]") << 100 << 1 << false;
        QTest::newRow("buffer exhausted") << QByteArray("r[bufsize=512]") << 512 << 1 << false;
        QTest::newRow("across buffer start") << QByteArray("r[bufsize=512]") << 513 << 2 << false;
        QTest::newRow("many at start") << QByteArray("r[bufsize=512]") << 520 << 16 << false;
        QTest::newRow("other byte") << QByteArray("r[bufsize=512]") << 100 << 1 << true;
        QTest::newRow("other at start") << QByteArray("r[bufsize=512]") << 513 << 1 << true;
        QTest::newRow("other before start") << QByteArray("r[bufsize=512]") << 513 << 3 << true;
        QTest::newRow("unbuffered") << QByteArray("r[buffered=0]") << 5 << 1 << false;
        QTest::newRow("unbuffered many") << QByteArray("r[buffered=0]") << 50 << 8 << true;
    }
    void unreadChar()
    {
        QFETCH(QByteArray, descriptor);
        QFETCH(int, readCount);
        QFETCH(int, pushCount);
        QFETCH(bool, differ);
        std::string data(2000, '\0');
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<char>(i * 7 + 3);
        const QString p = path("unread");
        writeFile(p, data);
        _HFile* f = BLIO_Open(p.toUtf8().constData(), descriptor.constData());
        QVERIFY(f);
        QCOMPARE(BLIO_UnReadChar(f, 'x'), 0); // nothing read yet
        for (int i = 0; i < readCount; ++i)
            QCOMPARE(BLIO_ReadChar(f), int(static_cast<unsigned char>(data[i])));
        auto pushed = [&](int at) {
            return int(static_cast<unsigned char>(data[at] ^ (differ ? 0xFF : 0)));
        };
        for (int i = 1; i <= pushCount; ++i)
            QCOMPARE(BLIO_UnReadChar(f, pushed(readCount - i)), 1);
        QCOMPARE(BLIO_FilePosition(f), qint64(readCount - pushCount));
        QCOMPARE(BLIO_IsEndOfFile(f), 0);
        for (int i = readCount - pushCount; i < readCount; ++i)
            QCOMPARE(BLIO_ReadChar(f), pushed(i));
        QCOMPARE(BLIO_ReadChar(f), int(static_cast<unsigned char>(data[readCount])));
        // A seek forgets pushed-back bytes, also inside the buffer.
        QVERIFY(BLIO_Seek(f, readCount - pushCount, BLIO_SEEK_SET));
        std::string rest(600, '\0');
        QCOMPARE(BLIO_ReadData(f, rest.data(), 600), qint64(600));
        QVERIFY(rest == data.substr(readCount - pushCount, 600));
        QCOMPARE(BLIO_UnReadChar(f, 256), 0);
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void streams_data()
    {
        QTest::addColumn<QByteArray>("descriptor");
        QTest::newRow("buffered") << QByteArray("r");
        QTest::newRow("unbuffered") << QByteArray("r[buffered=0]");
    }
    void streams()
    {
        QFETCH(QByteArray, descriptor);
        int fds[2];
        QCOMPARE(::pipe(fds), 0);
        const QByteArray name = "/proc/self/fd/" + QByteArray::number(fds[0]);
        _HFile* f = BLIO_Open(name.constData(), descriptor.constData());
        QVERIFY2(f, BLERROR_LastMessage());
        QCOMPARE(::write(fds[1], "hello world", 11), ssize_t(11));
        ::close(fds[1]);
        ::close(fds[0]);
        QCOMPARE(BLIO_IsSeekable(f), 0);
        QCOMPARE(BLIO_Seek(f, 0, BLIO_SEEK_SET), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_SEEKABLE));
        QCOMPARE(BLIO_FileSize(f), qint64(-1));
        BLIO_FileInfo info {};
        QCOMPARE(BLIO_GetFileInfo(f, &info), 1);
        QCOMPARE(int(info.RandomAccess), 0);
        QCOMPARE(int(info.RegularFile), 0);
        QCOMPARE(BLIO_ReadChar(f), int('h'));
        QCOMPARE(BLIO_IsEndOfFile(f), 0); // reads ahead and keeps what it read
        QCOMPARE(BLIO_ReadChar(f), int('e'));
        const QString copy = path("from-pipe");
        _HFile* out = BLIO_Open(copy.toUtf8().constData(), "w");
        QCOMPARE(BLIO_CopyHFileToHFile(f, out), qint64(9)); // from where the stream stands
        QCOMPARE(BLIO_IsEndOfFile(f), 1);
        QCOMPARE(BLIO_CloseFile(out), 1);
        QCOMPARE(BLIO_CloseFile(f), 1);
        QCOMPARE(fileContent(copy), std::string("llo world"));
    }

    void copies_data()
    {
        QTest::addColumn<qint64>("offset"); // -1: BLIO_CopyHFileToHFile
        QTest::addColumn<qint64>("length");
        QTest::addColumn<qint64>("copied");
        const qint64 size = (5 << 19) + 3;
        QTest::newRow("whole") << qint64(-1) << qint64(0) << size;
        QTest::newRow("chunk to end") << qint64(0) << qint64(-1) << size;
        QTest::newRow("from offset to end") << qint64(10) << qint64(-1) << size - 10;
        QTest::newRow("middle") << qint64(100) << qint64(1000) << qint64(1000);
        QTest::newRow("across blocks") << qint64(1000) << qint64(3 << 19) << qint64(3 << 19);
        QTest::newRow("ends early") << size - 5 << qint64(100) << qint64(5);
        QTest::newRow("past the end") << size + 10 << qint64(5) << qint64(0);
        QTest::newRow("nothing") << qint64(0) << qint64(0) << qint64(0);
    }
    void copies()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(qint64, copied);
        std::mt19937 rng(7);
        const std::string data = randomBytes(rng, (5 << 19) + 3);
        writeFile(path("source"), data);
        _HFile* src = BLIO_Open(path("source").toUtf8().constData(), "r");
        _HFile* dst = BLIO_Open(path("copy").toUtf8().constData(), "w");
        QVERIFY(src && dst);
        char skip[17];
        QCOMPARE(BLIO_ReadData(src, skip, 17), qint64(17));
        const qint64 n = offset < 0 ? BLIO_CopyHFileToHFile(src, dst)
                                    : BLIO_CopyHFileChunkToHFile(src, offset, length, dst);
        QCOMPARE(n, copied);
        QCOMPARE(BLIO_CloseFile(dst), 1);
        QCOMPARE(BLIO_CloseFile(src), 1);
        const size_t from = static_cast<size_t>(std::max<qint64>(offset, 0));
        QVERIFY(fileContent(path("copy")) == (from < data.size() ? data.substr(from, copied) : ""));
    }

    void viewModes_data()
    {
        QTest::addColumn<QByteArray>("parent");
        QTest::addColumn<QByteArray>("view");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("r of r") << QByteArray("r") << QByteArray("r") << true;
        QTest::newRow("rw of r") << QByteArray("r") << QByteArray("rw") << false;
        QTest::newRow("wo of r") << QByteArray("r") << QByteArray("wo") << false;
        QTest::newRow("r of wo") << QByteArray("wo") << QByteArray("r") << false;
        QTest::newRow("wo of wo") << QByteArray("wo") << QByteArray("wo") << true;
        QTest::newRow("a of rw") << QByteArray("rw") << QByteArray("a") << true;
        QTest::newRow("r of a") << QByteArray("a") << QByteArray("r") << true;
    }
    void viewModes()
    {
        QFETCH(QByteArray, parent);
        QFETCH(QByteArray, view);
        QFETCH(bool, allowed);
        writeFile(path("viewmodes"), "data");
        _HFile* p = BLIO_Open(path("viewmodes").toUtf8().constData(), parent.constData());
        char meta[BLIO_MAX_META_DESCR];
        QCOMPARE(BLIO_ComposeMetaHFileDescr(meta, p), 1);
        QVERIFY(QByteArray(meta).startsWith("hfile://0x"));
        _HFile* v = BLIO_Open(meta, view.constData());
        QCOMPARE(v != nullptr, allowed);
        if (v)
            QCOMPARE(BLIO_CloseFile(v), 1);
        else
            QCOMPARE(BLERROR_LastCode(), int(BLERR_MODE_NOT_SUPPORTED));
        QCOMPARE(BLIO_CloseFile(p), 1);
    }

    void viewLifetime()
    {
        m_store.files["v"] = "0123456789";
        _HFile* p = BLIO_Open("mem://v", "rw");
        QVERIFY(p && BLIO_Seek(p, 5, BLIO_SEEK_SET));
        char meta[BLIO_MAX_META_DESCR];
        QVERIFY(BLIO_ComposeMetaHFileDescr(meta, p));
        _HFile* v = BLIO_Open(meta, "rw");
        QVERIFY(v);
        QCOMPARE(BLIO_FileName(v), static_cast<const char*>(meta));
        QCOMPARE(BLIO_FilePosition(v), qint64(0));
        QCOMPARE(BLIO_ReadChar(v), int('0'));
        QCOMPARE(BLIO_FilePosition(p), qint64(5));
        QCOMPARE(BLIO_ReadChar(p), int('5'));
        QCOMPARE(BLIO_WriteData(v, "AB", 2), qint64(2));
        QVERIFY(BLIO_Flush(v));
        QVERIFY(BLIO_Seek(p, 1, BLIO_SEEK_SET));
        QCOMPARE(BLIO_ReadChar(p), int('A'));
        QCOMPARE(BLIO_CloseFile(p), 1); // waits for the view
        QCOMPARE(m_store.closes, 0);
        QVERIFY(BLIO_Open(meta, "r") == nullptr);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_FOUND));
        QCOMPARE(BLIO_FileExists(meta), 0);
        QVERIFY(BLIO_Seek(v, -1, BLIO_SEEK_END));
        QCOMPARE(BLIO_ReadChar(v), int('9'));
        QCOMPARE(BLIO_CloseFile(v), 1);
        QCOMPARE(m_store.closes, 1);
        QCOMPARE(m_store.files["v"], std::string("0AB3456789"));
    }

    void bogusMeta_data()
    {
        QTest::addColumn<QByteArray>("meta");
        for (const char* m : {"hfile://0x0", "hfile://0x1234", "hfile://0xffffffffffffffff",
                 "hfile://0x1ffffffffffffffff", "hfile://", "hfile://1234", "hfile://0x",
                 "hfile://0xzz", "hfile://0x10 ", "HFILE://0x10"})
            QTest::newRow(m) << QByteArray(m);
    }
    void bogusMeta()
    {
        QFETCH(QByteArray, meta);
        QVERIFY(BLIO_Open(meta.constData(), "r") == nullptr);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_FOUND));
        QCOMPARE(BLIO_FileExists(meta.constData()), 0);
    }

    void dispatch_data()
    {
        QTest::addColumn<QString>("where");
        QTest::addColumn<bool>("toMem");
        QTest::addColumn<int>("error");
        QTest::addColumn<QString>("named"); // in the error message
        QTest::newRow("mem") << "mem://a" << true << 0 << "";
        QTest::newRow("upper") << "MEM://a" << true << 0 << "";
        QTest::newRow("mixed") << "mEm://a" << true << 0 << "";
        QTest::newRow("unknown") << "nosuch://a" << false << int(BLERR_UNKNOWN_SCHEME)
                                 << "'nosuch'";
        QTest::newRow("plain") << "%1/d" << false << 0 << "";
        QTest::newRow("file scheme") << "file://%1/d" << false << 0 << "";
        QTest::newRow("file upper") << "FILE://%1/d" << false << 0 << "";
        QTest::newRow("one slash is local")
            << "mem:/a" << false << int(BLERR_NOT_FOUND) << "'mem:/a'";
        QTest::newRow("missing") << "file://%1/none" << false << int(BLERR_NOT_FOUND)
                                 << "'file://%1/none'";
    }
    void dispatch()
    {
        QFETCH(QString, where);
        QFETCH(bool, toMem);
        QFETCH(int, error);
        QFETCH(QString, named);
        m_store.files["a"] = "m";
        writeFile(path("d"), "f");
        const QByteArray p = QString(where).replace("%1", m_dir.path()).toUtf8();
        _HFile* f = BLIO_Open(p.constData(), "r");
        QCOMPARE(m_store.opens, toMem ? 1 : 0);
        if (error) {
            QVERIFY(!f);
            QCOMPARE(BLERROR_LastCode(), error);
            QVERIFY2(lastMessage().contains(named.replace("%1", m_dir.path()).toUtf8()),
                BLERROR_LastMessage());
            return;
        }
        QVERIFY(f);
        QCOMPARE(BLIO_ReadChar(f), int(toMem ? 'm' : 'f'));
        QCOMPARE(BLIO_FileName(f), p.constData());
        if (toMem) {
            QCOMPARE(m_store.path, p.toStdString());
            QCOMPARE(m_store.context, static_cast<void*>(&m_store));
        }
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void registration_data()
    {
        QTest::addColumn<QByteArray>("scheme");
        QTest::addColumn<int>("missing"); // 1: no Open, 2: no Close
        QTest::addColumn<int>("error");
        QTest::newRow("no scheme") << QByteArray() << 0 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("no open") << QByteArray("x1") << 1 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("no close") << QByteArray("x2") << 2 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("empty") << QByteArray("") << 0 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("digit first") << QByteArray("1x") << 0 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("blank") << QByteArray("a b") << 0 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("colon") << QByteArray("a:") << 0 << int(BLERR_HANDLER_INVALID);
        QTest::newRow("taken") << QByteArray("MEM") << 0 << int(BLERR_HANDLER_EXISTS);
        QTest::newRow("built in") << QByteArray("File") << 0 << int(BLERR_HANDLER_EXISTS);
        QTest::newRow("views") << QByteArray("hfile") << 0 << int(BLERR_HANDLER_EXISTS);
        QTest::newRow("good") << QByteArray("x+y.z-1") << 0 << 0;
    }
    void registration()
    {
        QFETCH(QByteArray, scheme);
        QFETCH(int, missing);
        QFETCH(int, error);
        BLIO_Handler h = memHandler(scheme.isNull() ? nullptr : scheme.constData(), &m_store);
        if (missing == 1)
            h.Open = nullptr;
        if (missing == 2)
            h.Close = nullptr;
        QCOMPARE(BLIO_AddIOHandler(&h), error ? 0 : 1);
        Registered guard {&h};
        if (error) {
            QCOMPARE(BLERROR_LastCode(), error);
            QCOMPARE(BLIO_DelIOHandler(&h), 0);
            QCOMPARE(BLERROR_LastCode(), int(BLERR_HANDLER_NOT_FOUND));
            return;
        }
        QCOMPARE(BLIO_AddIOHandler(&h), 0); // the same record twice
        QCOMPARE(BLERROR_LastCode(), int(BLERR_HANDLER_EXISTS));
        m_store.files["r"] = "r";
        _HFile* f = BLIO_Open("X+Y.Z-1://r", "r");
        QVERIFY(f);
        QCOMPARE(BLIO_DelIOHandler(&h), 1);
        QCOMPARE(BLIO_ReadChar(f), int('r')); // still usable after removal
        QCOMPARE(BLIO_CloseFile(f), 1);
        QVERIFY(!BLIO_Open("x+y.z-1://r", "r"));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_UNKNOWN_SCHEME));
        QCOMPARE(BLIO_DelIOHandler(&h), 0);
        QCOMPARE(BLIO_AddIOHandler(nullptr), 0);
        QCOMPARE(BLIO_DelIOHandler(nullptr), 0);
    }

    void handlerFlags()
    {
        BLIO_Handler h = memHandler("ro", &m_store);
        h.Flags = BLIO_MODE_READ;
        QVERIFY(BLIO_AddIOHandler(&h));
        Registered guard {&h};
        m_store.files["f"] = "x";
        QVERIFY(!BLIO_Open("ro://f", "rw"));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_MODE_NOT_SUPPORTED));
        QCOMPARE(m_store.opens, 0);
        _HFile* f = BLIO_Open("ro://f", "r");
        QVERIFY(f);
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void bufferingOverHandler()
    {
        std::mt19937 rng(3);
        const std::string data = randomBytes(rng, 100000);
        m_store.files["b"] = data;
        _HFile* f = BLIO_Open("mem://b", "r[bufsize=4096]");
        for (size_t i = 0; i < data.size(); ++i)
            QCOMPARE(BLIO_ReadChar(f), int(static_cast<unsigned char>(data[i])));
        QCOMPARE(BLIO_ReadChar(f), -1);
        QVERIFY(m_store.reads <= 100000 / 4096 + 3);
        QCOMPARE(BLIO_CloseFile(f), 1);

        f = BLIO_Open("mem://w", "w[bufsize=4096]");
        for (int i = 0; i < 1000; ++i)
            QCOMPARE(BLIO_WriteData(f, "0123456789", 10), qint64(10));
        QCOMPARE(BLIO_FileSize(f), qint64(10000)); // pending bytes count
        QCOMPARE(BLIO_CloseFile(f), 1);
        QVERIFY(m_store.writes <= 3);
        QCOMPARE(m_store.files["w"].size(), size_t(10000));

        // The handler is put back where the reader stopped, not where read-ahead left it.
        f = BLIO_Open("mem://b", "r");
        char ten[10];
        QCOMPARE(BLIO_ReadData(f, ten, 10), qint64(10));
        QCOMPARE(BLIO_CloseFile(f), 1);
        QCOMPARE(m_store.posAtClose, qint64(10));

        // Seeking back inside the buffer costs no handler read.
        f = BLIO_Open("mem://b", "r");
        QCOMPARE(BLIO_ReadData(f, ten, 10), qint64(10));
        const int reads = m_store.reads;
        QVERIFY(BLIO_Seek(f, 3, BLIO_SEEK_SET));
        QCOMPARE(BLIO_ReadChar(f), int(static_cast<unsigned char>(data[3])));
        QCOMPARE(m_store.reads, reads);
        QCOMPARE(BLIO_CloseFile(f), 1);

        // Appends land at the end even when another writer grew the file meanwhile.
        m_store.files["log"] = "0";
        _HFile* first = BLIO_Open("mem://log", "a");
        QCOMPARE(BLIO_WriteData(first, "A", 1), qint64(1));
        _HFile* second = BLIO_Open("mem://log", "a[buffered=0]");
        QCOMPARE(BLIO_WriteData(second, "BB", 2), qint64(2));
        QCOMPARE(BLIO_CloseFile(second), 1);
        QCOMPARE(BLIO_WriteData(first, "C", 1), qint64(1));
        QCOMPARE(BLIO_CloseFile(first), 1);
        QCOMPARE(m_store.files["log"], std::string("0BBAC"));

        m_store.startPos = 100; // a device that already stands past its start
        f = BLIO_Open("mem://b", "r");
        QCOMPARE(BLIO_FilePosition(f), qint64(100));
        QCOMPARE(BLIO_ReadChar(f), int(static_cast<unsigned char>(data[100])));
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void fileInfo()
    {
        const QString p = path("info");
        writeFile(p, std::string(1200, 'i'));
        // 2021-03-14 (a Sunday, day 73) 15:09:26.535 local time.
        struct tm tm
        {
        };
        tm.tm_year = 121, tm.tm_mon = 2, tm.tm_mday = 14, tm.tm_hour = 15, tm.tm_min = 9,
        tm.tm_sec = 26, tm.tm_isdst = -1;
        struct timespec times[2] = {{mktime(&tm) - 3600, 0}, {mktime(&tm), 535000000}};
        QCOMPARE(::utimensat(AT_FDCWD, p.toUtf8().constData(), times, 0), 0);
        _HFile* f = BLIO_Open(p.toUtf8().constData(), "r");
        BLIO_FileInfo info {};
        QCOMPARE(BLIO_GetFileInfo(f, &info), 1);
        QCOMPARE(info.Size, qint64(1200));
        QCOMPARE(info.OriginalSize, qint64(1200));
        QVERIFY(info.AllocatedSize >= 0);
        QCOMPARE(info.OwnerId, uint32_t(::getuid()));
        const BLtime& m = info.LastModification;
        QCOMPARE(QList<int>({m.Year, m.Month, m.Day, m.DayOfWeek, m.DayOfYear, m.Hour, m.Minute,
                     m.Second, m.Millisecond}),
            QList<int>({2021, 3, 14, 7, 73, 15, 9, 26, 535}));
        QCOMPARE(int(info.LastAccess.Hour), 14);
        QCOMPARE(int(info.RegularFile), 1);
        QCOMPARE(int(info.Directory), 0);
        QCOMPARE(int(info.RandomAccess), 1);
        QCOMPARE(int(info.ReadOnly), 0);
        QCOMPARE(BLIO_CloseFile(f), 1);

        f = BLIO_Open(p.toUtf8().constData(), "a");
        QCOMPARE(BLIO_WriteData(f, "xyz", 3), qint64(3));
        QCOMPARE(BLIO_GetFileInfo(f, &info), 1); // pending bytes go out first
        QCOMPARE(info.Size, qint64(1203));
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void pathOperations()
    {
        const QByteArray a = path("pa").toUtf8(), b = path("pb").toUtf8();
        writeFile(path("pa"), "x");
        m_store.files["m"] = "m";
        QCOMPARE(BLIO_FileExists(a.constData()), 1);
        QCOMPARE(BLIO_FileExists(("file://" + a).constData()), 1);
        QCOMPARE(BLIO_FileExists(b.constData()), 0);
        QCOMPARE(BLIO_FileExists("mem://m"), 1);
        QCOMPARE(BLIO_FileExists("mem://n"), 0);
        QCOMPARE(BLIO_FileExists("nosuch://m"), 0);
        QCOMPARE(BLIO_FileKind(a.constData()), int(BLIO_KIND_LOCAL));
        QCOMPARE(BLIO_FileKind("MEM://m"), int(BLIO_KIND_HOSTED));
        QCOMPARE(BLIO_FileKind("nosuch://m"), int(BLIO_KIND_NONE));
        QCOMPARE(BLIO_RenameFile(a.constData(), ("file://" + b).constData()), 1);
        QCOMPARE(BLIO_FileExists(a.constData()), 0);
        QCOMPARE(BLIO_FileExists(b.constData()), 1);
        QCOMPARE(BLIO_RenameFile(b.constData(), "mem://z"), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
        QCOMPARE(BLIO_RenameFile(a.constData(), b.constData()), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_FOUND));
        QVERIFY(lastMessage().contains(a));
        QCOMPARE(BLIO_RemoveFile("mem://m"), 0); // the handler offers no removal
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_SUPPORTED));
        QCOMPARE(BLIO_RemoveFile(b.constData()), 1);
        QVERIFY(!QFile::exists(path("pb")));
        QCOMPARE(BLIO_RemoveFile(b.constData()), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NOT_FOUND));
        QVERIFY(lastMessage().contains(b) && lastMessage().contains("No such file"));
    }

    void openErrors_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<int>("error");
        QTest::addColumn<QByteArray>("reason");
        QTest::newRow("missing") << "none" << QByteArray("r") << int(BLERR_NOT_FOUND)
                                 << QByteArray("No such file");
        QTest::newRow("missing folder")
            << "no/f" << QByteArray("w") << int(BLERR_NOT_FOUND) << QByteArray("No such file");
        QTest::newRow("folder for reading")
            << "" << QByteArray("r") << int(BLERR_OPEN_FAILED) << QByteArray("Is a directory");
        QTest::newRow("folder for writing")
            << "" << QByteArray("rw") << int(BLERR_OPEN_FAILED) << QByteArray("Is a directory");
    }
    void openErrors()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, descriptor);
        QFETCH(QByteArray, reason);
        const QByteArray p = (name.isEmpty() ? m_dir.path() : path(qPrintable(name))).toUtf8();
        QVERIFY(!BLIO_Open(p.constData(), descriptor.constData()));
        QTEST(BLERROR_LastCode(), "error");
        QVERIFY2(
            lastMessage().contains(p) && lastMessage().contains(reason), BLERROR_LastMessage());
        // A later success leaves the slot alone.
        writeFile(path("ok"), "");
        _HFile* f = BLIO_Open(path("ok").toUtf8().constData(), "r");
        QVERIFY(f);
        QVERIFY(lastMessage().contains(p));
        QCOMPARE(BLIO_CloseFile(f), 1);
    }

    void nullHandles()
    {
        char c[BLIO_MAX_META_DESCR] = "junk";
        BLIO_FileInfo info {};
        QCOMPARE(BLIO_CloseFile(nullptr), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
        QCOMPARE(BLIO_ReadData(nullptr, c, 1), qint64(-1));
        QCOMPARE(BLIO_WriteData(nullptr, c, 1), qint64(-1));
        QCOMPARE(BLIO_Seek(nullptr, 0, 0), 0);
        QCOMPARE(BLIO_FileSize(nullptr), qint64(-1));
        QCOMPARE(BLIO_FilePosition(nullptr), qint64(-1));
        QCOMPARE(BLIO_IsEndOfFile(nullptr), 1);
        QCOMPARE(BLIO_Flush(nullptr), 0);
        QCOMPARE(BLIO_ReadChar(nullptr), -1);
        QCOMPARE(BLIO_UnReadChar(nullptr, 'a'), 0);
        QCOMPARE(BLIO_IsSeekable(nullptr), 0);
        QCOMPARE(BLIO_CurrentOpenMode(nullptr), 0);
        QCOMPARE(BLIO_FileName(nullptr), "");
        QCOMPARE(BLIO_CopyHFileToHFile(nullptr, nullptr), qint64(-1));
        QCOMPARE(BLIO_CopyHFileChunkToHFile(nullptr, 0, 1, nullptr), qint64(-1));
        QCOMPARE(BLIO_ComposeMetaHFileDescr(c, nullptr), 0);
        QCOMPARE(c[0], '\0');
        QCOMPARE(BLIO_GetFileInfo(nullptr, &info), 0);
        QVERIFY(!BLIO_Open(nullptr, "r"));
        QVERIFY(!BLIO_Open("x", nullptr));
        QCOMPARE(BLIO_FileExists(nullptr), 0);
        QCOMPARE(BLIO_RemoveFile(nullptr), 0);
        QCOMPARE(BLIO_RenameFile(nullptr, "x"), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
    }

    void concurrentOpen()
    {
        writeFile(path("shared"), "s");
        const QByteArray p = path("shared").toUtf8();
        std::atomic<int> failures {0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 300; ++i) {
                    _HFile* f = BLIO_Open(p.constData(), "r[bufsize=512]");
                    char meta[BLIO_MAX_META_DESCR];
                    BLIO_ComposeMetaHFileDescr(meta, f);
                    _HFile* v = BLIO_Open(meta, "r");
                    if (!f || !v || BLIO_ReadChar(v) != 's' || !BLIO_CloseFile(f)
                        || !BLIO_CloseFile(v))
                        ++failures;
                }
            });
        }
        for (int i = 0; i < 300; ++i) {
            BLIO_Handler h = memHandler("churn", &m_store);
            Registered guard {&h};
            QVERIFY(BLIO_AddIOHandler(&h));
            QVERIFY(BLIO_DelIOHandler(&h));
        }
        for (std::thread& t : threads)
            t.join();
        QCOMPARE(failures.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestBlio)
#include "tst_blio.moc"
