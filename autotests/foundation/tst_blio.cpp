// The I/O layer: descriptors, buffering checked against a model, handlers, views, copies.
#include <sova/blio.h>

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

// A handler over strings in memory, so that the tests see what the layer asks of a handler.
struct MemStore
{
    std::map<std::string, std::string> files;
    int opens = 0, reads = 0, writes = 0;
    int64_t startPos = 0, posAtClose = -1;
    void* context = nullptr;
    std::string path;
} store;

using MemFile = std::pair<std::string*, int64_t>; // the data and the position

struct Mem
{
    static std::string name(const char* path) { return std::strstr(path, "://") + 3; }
    static std::string& data(void* h) { return *static_cast<MemFile*>(h)->first; }
    static int64_t& pos(void* h) { return static_cast<MemFile*>(h)->second; }
    static int64_t size(void* h) { return static_cast<int64_t>(data(h).size()); }
    static int64_t position(void* h) { return pos(h); }
    static int32_t isEOF(void* h) { return pos(h) >= size(h) ? 1 : 0; }
    static int32_t exists(const char* path) { return store.files.count(name(path)) ? 1 : 0; }
    static int32_t kind(void*, const char*) { return BLIO_KIND_HOSTED; }
    static void* open(void* context, const char* path, BLIOOPENMODE mode)
    {
        ++store.opens, store.context = context, store.path = path;
        if (!(mode & BLIO_MODE_WRITE) && !exists(path))
            return nullptr;
        std::string& data = store.files[name(path)];
        data.resize(mode & BLIO_MODE_TRUNCATE ? 0 : data.size());
        return new MemFile {&data, store.startPos};
    }
    static int32_t close(void* h)
    {
        store.posAtClose = pos(h);
        delete static_cast<MemFile*>(h);
        return 1;
    }
    static int64_t read(void* h, void* out, int64_t n)
    {
        const size_t got = pos(h) < size(h) ? data(h).copy(static_cast<char*>(out), n, pos(h)) : 0;
        pos(h) += got, ++store.reads;
        return got;
    }
    static int64_t write(void* h, const void* buffer, int64_t count)
    {
        data(h).resize(std::max(size(h), pos(h)), '\0');
        data(h).replace(pos(h), count, static_cast<const char*>(buffer), count);
        pos(h) += count, ++store.writes;
        return count;
    }
    static int32_t seek(void* h, int64_t offset, int32_t origin)
    {
        offset += origin == BLIO_SEEK_CUR ? pos(h) : origin == BLIO_SEEK_END ? size(h) : 0;
        return offset < 0 ? 0 : (pos(h) = offset, 1);
    }
};

BLIO_Handler memHandler(const char* scheme, uintptr_t flags = 30)
{
    return {scheme, &store, flags, Mem::open, Mem::close, Mem::read, Mem::write, Mem::seek,
        Mem::size, Mem::position, nullptr, Mem::isEOF, nullptr, nullptr, nullptr, nullptr, nullptr,
        nullptr, nullptr, nullptr, nullptr, Mem::exists, Mem::kind, nullptr};
}

// Takes a handler out again when the test leaves, passed or failed: records live on the stack.
using Registered = std::unique_ptr<BLIO_Handler, int32_t (*)(BLIO_Handler*)>;

struct Util
{
    static int byteAt(const std::string& s, int64_t i) { return static_cast<uchar>(s[i]); }
    static bool messageHas(const char* text) { return std::strstr(BLERROR_LastMessage(), text); }
    static std::string randomBytes(uint32_t seed, size_t n)
    {
        std::mt19937 rng(seed);
        std::string s(n, '\0');
        std::generate(s.begin(), s.end(), [&] { return static_cast<char>(rng()); });
        return s;
    }
    static std::string fileContent(const QByteArray& path)
    {
        QFile f(QString::fromUtf8(path));
        return f.open(QIODevice::ReadOnly) ? f.readAll().toStdString() : "<unreadable>";
    }
    static void writeFile(const QByteArray& path, const std::string& d)
    {
        QFile f(QString::fromUtf8(path));
        QVERIFY(f.open(QIODevice::WriteOnly) && f.write(d.data(), d.size()) == qint64(d.size()));
    }
};

// What the file should hold and where the handle should stand.
struct Model
{
    std::string data, pushed = {}; // pushed: bytes pushed back, served from pos on
    bool append = false;
    int64_t pos = 0;
    int next() const { return static_cast<uchar>(pushed.empty() ? data[pos] : pushed[0]); }
};

#define EXPECT_EQ(actual, expected) QCOMPARE(qint64(actual), qint64(expected))

// Drives the handle and the model through the same random operations.
template <typename Stored>
void runOps(_HFile* f, Model& m, quint32 seed, int64_t bufSize, Stored stored, int& step)
{
    std::mt19937 rng(seed);
    auto pick = [&](int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
    };
    int64_t run = 0; // bytes read one by one by the operation just before
    for (step = 0; step < 1500; ++step) {
        const int64_t size = static_cast<int64_t>(m.data.size()), charsRead = std::exchange(run, 0);
        const int64_t kind = pick(0, 2); // a few bytes, up to a buffer, or more
        const int64_t n = pick(kind == 2 ? bufSize : 1, kind == 0 ? 8 : (2 * kind - 1) * bufSize);
        switch (pick(0, 7)) {
        case 0: {
            const std::string bytes = Util::randomBytes(rng(), n);
            EXPECT_EQ(BLIO_WriteData(f, bytes.data(), n), n);
            m.pos = m.append ? size : m.pos;
            m.data.resize(std::max(size, m.pos));
            m.data.replace(m.pos, n, bytes);
            m.pos += n, m.pushed.clear();
            break;
        }
        case 1: {
            std::string got(n, '\0'), want = m.data.substr(std::min(m.pos, size), n);
            want.replace(0, m.pushed.size(), m.pushed.substr(0, want.size()));
            EXPECT_EQ(BLIO_ReadData(f, &got[0], n), qint64(want.size()));
            QVERIFY(got.compare(0, want.size(), want) == 0);
            m.pos += want.size(), m.pushed.erase(0, want.size());
            break;
        }
        case 2: { // near the position, the start or the end; origin 3 is unknown: from the start
            const int origin = static_cast<int>(pick(0, 3));
            const int64_t target = (pick(0, 2) ? m.pos : pick(0, 1) * size) + pick(-30, 30);
            const int64_t base = origin == 1 ? m.pos : origin == 2 ? size : 0;
            EXPECT_EQ(BLIO_Seek(f, target - base, origin == 3 ? 7 : origin), target >= 0 ? 1 : 0);
            if (target >= 0)
                m.pos = target, m.pushed.clear();
            break;
        }
        case 3:
            for (int64_t i = pick(1, 20); i > 0; --i) {
                const int expected = m.pos < size ? m.next() : -1;
                EXPECT_EQ(BLIO_ReadChar(f), expected);
                if (expected >= 0)
                    ++m.pos, ++run, m.pushed.erase(0, 1);
            }
            break;
        case 4: // pushes back some of the bytes just read, as they were or changed
            EXPECT_EQ(BLIO_UnReadChar(f, 256), 0);
            for (int64_t i = std::min<int64_t>(charsRead, pick(1, 8)); i > 0; --i, --m.pos) {
                const int c = pick(0, 1) ? Util::byteAt(m.data, m.pos - 1) : pick(0, 255);
                EXPECT_EQ(BLIO_UnReadChar(f, c), 1);
                m.pushed.insert(m.pushed.begin(), static_cast<char>(c));
            }
            break;
        case 5: { // files also tell their size in the information record; "mem" does not
            BLIO_FileInfo info {};
            QCOMPARE(QList<qint64>({BLIO_FileSize(f), BLIO_FilePosition(f),
                         BLIO_GetFileInfo(f, &info) ? info.Size : size, BLIO_IsEndOfFile(f)}),
                QList<qint64>({size, m.pos, size, m.pos >= size}));
            break;
        }
        case 6: { // copies the whole file, or a chunk (negative length: up to the end)
            const bool whole = pick(0, 3) == 0;
            const int64_t at = whole ? 0 : pick(0, size + 10),
                          length = whole ? -1 : pick(-1, 2) * n * 8;
            const int64_t copied
                = std::max<int64_t>(0, std::min(length < 0 ? size : length, size - at));
            _HFile* to = BLIO_Open("mem://copy", "w");
            EXPECT_EQ(whole ? BLIO_CopyHFileToHFile(f, to)
                            : BLIO_CopyHFileChunkToHFile(f, at, length, to),
                copied);
            QVERIFY(BLIO_CloseFile(to)
                && store.files["copy"] == m.data.substr(std::min(at, size), copied));
            m.pos = at + copied, m.pushed.clear();
            break;
        }
        default:
            EXPECT_EQ(BLIO_Flush(f), 1);
            QVERIFY(stored() == m.data);
        }
    }
}

} // namespace

class TestBlio : public QObject, Util
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    BLIO_Handler m_mem = memHandler("mem");
    QByteArray path(const char* name) const { return m_dir.filePath(QString(name)).toUtf8(); }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid() && BLIO_AddIOHandler(&m_mem)); }
    void cleanupTestCase() { QCOMPARE(BLIO_DelIOHandler(&m_mem), 1); }
    void init() { store = MemStore(); }

    // Parses the descriptor, then opens "hello" with it, writes "X" and reads a byte back.
    void descriptor_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QList<qint64>>("parsed"); // mode, buffered, buffer size; -1s: refused
        QTest::addColumn<QByteArray>("after");
        const auto row
            = [](const char* text, int mode, const char* after, int buf = 1, qint64 size = 65536) {
                  QTest::newRow(text)
                      << QByteArray(text)
                      << (mode ? QList<qint64>({mode, buf, size}) : QList<qint64>({-1, -1, -1}))
                      << QByteArray(after);
              };
        row("r", 2, "hello");
        row("rw", 6, "Xello");
        row("w", 14, "X");
        row("a", 22, "helloX");
        row("wo", 4, "Xello");
        row("r[buffered=0]", 2, "hello", 0);
        row("a[buffered=no, bufsize=4096]", 22, "helloX", 0, 4096);
        row("w[bufsize=512]", 14, "X", 1, 512);
        row("wo[bufsize=67108864]", 4, "Xello", 1, 64 << 20);
        row("r[buffered, colour=red]", 2, "hello");
        row("r[x=\"a]b\",bufsize=1024]", 2, "hello", 1, 1024);
        row("r[v=[1,2],bufsize=2048]", 2, "hello", 1, 2048);
        for (const char* bad : {"", "R", "rwx", "ro", "wa", "r[", "r[buffered=1]x", "r[x='open]",
                 "r[bufsize=511]", "r[bufsize=67108865]", "r[bufsize=abc]", "r[buffered=maybe]"})
            row(bad, 0, "hello");
    }
    void descriptor()
    {
        QFETCH(QByteArray, text);
        QFETCH(QList<qint64>, parsed);
        QFETCH(QByteArray, after);
        const int mode = qMax<int>(parsed[0], 0);
        BLIO_OpenOptions o {-1, -1, -1};
        QCOMPARE(BLIO_ParseOpenDescriptor(text.constData(), &o), mode ? 1 : 0);
        QCOMPARE(QList<qint64>({o.Mode, o.Buffered, o.BufferSize}), parsed);
        QVERIFY(mode || BLERROR_LastCode() == BLERR_BAD_DESCRIPTOR);
        writeFile(path("modes"), "hello");
        _HFile* f = BLIO_Open(path("modes").constData(), text.constData());
        QCOMPARE(f ? 0 : BLERROR_LastCode(), mode ? 0 : int(BLERR_BAD_DESCRIPTOR));
        if (f) {
            QCOMPARE(BLIO_WriteData(f, "X", 1), mode & BLIO_MODE_WRITE ? 1 : -1);
            QVERIFY((mode & BLIO_MODE_WRITE) || BLERROR_LastCode() == BLERR_NOT_WRITABLE);
            QVERIFY(BLIO_Seek(f, 0, BLIO_SEEK_SET));
            QCOMPARE(BLIO_ReadChar(f), mode & BLIO_MODE_READ ? int(after[0]) : -1);
            QVERIFY((mode & BLIO_MODE_READ) || BLERROR_LastCode() == BLERR_NOT_READABLE);
            QCOMPARE(BLIO_CloseFile(f), 1);
        }
        QCOMPARE(QByteArray::fromStdString(fileContent(path("modes"))), after);
    }

    void model_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QByteArray>("descriptor");
        QTest::addColumn<quint32>("seed");
        for (const char* target : {"file", "mem", "view"})
            for (const char* d : {"rw", "rw[buffered=0]", "rw[bufsize=512]", "w[bufsize=4096]", "a",
                     "a[buffered=0]", "a[bufsize=512]"})
                for (quint32 seed : {1u, 2u})
                    if (qstrcmp(target, "view") != 0 || d[0] != 'w') // a view never empties
                        QTest::addRow("%s %s %u", target, d, seed)
                            << QString(target) << QByteArray(d) << seed;
    }
    // A view's parent stays where it stood; with seed 2 it is closed first and waits for the view.
    void model()
    {
        QFETCH(QString, target);
        QFETCH(QByteArray, descriptor);
        QFETCH(quint32, seed);
        const std::string initial = randomBytes(seed, 3000);
        Model m {descriptor[0] == 'w' ? std::string() : initial, {}, descriptor[0] == 'a'};
        const QByteArray p = path("model");
        writeFile(p, initial);
        store.files["model"] = initial;
        char meta[BLIO_MAX_META_DESCR] = "mem://model";
        _HFile* parent = target == "view" ? BLIO_Open(p, "rw") : nullptr;
        QVERIFY(!parent
            || (BLIO_Seek(parent, 7, BLIO_SEEK_SET) && BLIO_ComposeMetaHFileDescr(meta, parent)));
        const QByteArray name = target == "file" ? p : QByteArray(meta);
        _HFile* f = BLIO_Open(name.constData(), descriptor.constData());
        QVERIFY2(f, BLERROR_LastMessage());
        QCOMPARE(BLIO_FileName(f), name.constData());
        QCOMPARE(BLIO_UnReadChar(f, 'x'), 0); // nothing read yet
        if (parent && seed == 2) { // the file stays open for the view, its address is gone
            QCOMPARE(BLIO_CloseFile(std::exchange(parent, nullptr)), 1);
            QVERIFY(!BLIO_Open(meta, "r") && !BLIO_FileExists(meta));
        }
        auto stored = [&] { return target == "mem" ? store.files["model"] : fileContent(p); };
        BLIO_OpenOptions o;
        QVERIFY(BLIO_ParseOpenDescriptor(descriptor.constData(), &o));
        int step = 0;
        runOps(f, m, seed, o.Buffered ? o.BufferSize : 512, stored, step);
        if (QTest::currentTestFailed())
            return qWarning("the model failed at step %d", step);
        QCOMPARE(BLIO_CloseFile(f), 1);
        QVERIFY(!parent || (BLIO_FilePosition(parent) == 7 && BLIO_CloseFile(parent)));
        QVERIFY(stored() == m.data);
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
        QVERIFY(::write(fds[1], "hello world", 11) == 11 && !::close(fds[1]) && !::close(fds[0]));
        QVERIFY(!BLIO_Seek(f, 0, BLIO_SEEK_SET) && BLERROR_LastCode() == BLERR_NOT_SEEKABLE);
        BLIO_FileInfo info {};
        QCOMPARE(QList<qint64>({BLIO_GetFileInfo(f, &info), info.RandomAccess, info.RegularFile,
                     BLIO_IsSeekable(f), BLIO_FileSize(f)}),
            QList<qint64>({1, 0, 0, 0, -1}));
        // IsEndOfFile reads ahead and keeps what it read; a copy starts where the stream stands.
        QCOMPARE(QList<int>({BLIO_ReadChar(f), BLIO_IsEndOfFile(f), BLIO_ReadChar(f)}),
            QList<int>({'h', 0, 'e'}));
        _HFile* out = BLIO_Open(path("from-pipe").constData(), "w");
        QCOMPARE(QList<qint64>({BLIO_CopyHFileToHFile(f, out), BLIO_IsEndOfFile(f),
                     BLIO_CloseFile(out), BLIO_CloseFile(f)}),
            QList<qint64>({9, 1, 1, 1}));
        QCOMPARE(fileContent(path("from-pipe")), std::string("llo world"));
    }

    // Paths of every kind: the handler chosen, what it is told, the error and its message.
    void open_data()
    {
        QTest::addColumn<QString>("where"); // %1: the temporary folder, %2 and %3: views of "d"
        QTest::addColumn<QByteArray>("descriptor"); // opened "r" and "wo"
        QTest::addColumn<int>("error"); // -1: opened through "mem", 0: by the layer's handlers
        QTest::addColumn<QString>("named"); // in the error message
        QTest::addColumn<QList<int>>("found"); // exists, kind
        const auto row = [](const char* name, const char* where, const char* descriptor, int error,
                             const char* named, int exists, int kind) {
            QTest::newRow(name) << where << QByteArray(descriptor) << error << named
                                << QList<int>({exists, kind});
        };
        const int local = BLIO_KIND_LOCAL, mem = BLIO_KIND_HOSTED, none = BLIO_KIND_NONE;
        const int refused = BLERR_MODE_NOT_SUPPORTED, absent = BLERR_NOT_FOUND;
        row("case ignored", "mEm://a", "r", -1, "", 1, mem);
        row("plain", "%1/d", "r", 0, "", 1, local);
        row("file scheme", "FILE://%1/d", "r", 0, "", 1, local);
        row("view", "%2", "r", 0, "", 1, local);
        row("view for writing of r", "%2", "rw", refused, "not open for writing", 1, local);
        row("view for reading of wo", "%3", "r", refused, "not open for reading", 1, local);
        row("unknown", "nosuch://a", "r", BLERR_UNKNOWN_SCHEME, "'nosuch'", 0, none);
        row("one slash is local", "mem:/a", "r", absent, "'mem:/a': No such file", 0, local);
        row("missing", "file://%1/none", "r", absent, "'file://%1/none': No such file", 0, local);
        row("folder for reading", "%1", "r", BLERR_OPEN_FAILED, "'%1': Is a directory", 1, local);
        row("folder for writing", "%1", "rw", BLERR_OPEN_FAILED, "'%1': Is a directory", 1, local);
        for (const char* meta : {"hfile://0x1234", "hfile://1234", "hfile://0x", "hfile://0XFA-",
                 "hfile://0xzz", "hfile://0x1ffffffffffffffff"})
            row(meta, meta, "r", absent, "no open file has that address", 0, none);
    }
    void open()
    {
        QFETCH(QString, where);
        QFETCH(QByteArray, descriptor);
        QFETCH(int, error);
        QFETCH(QString, named);
        store.files["a"] = "m";
        writeFile(path("d"), "f");
        _HFile* parents[] = {BLIO_Open(path("d"), "r"), BLIO_Open(path("d"), "wo")};
        char metas[2][BLIO_MAX_META_DESCR];
        QVERIFY(BLIO_ComposeMetaHFileDescr(metas[0], parents[0])
            && BLIO_ComposeMetaHFileDescr(metas[1], parents[1]));
        where.replace("%1", m_dir.path()).replace("%2", metas[0]).replace("%3", metas[1]);
        const QByteArray p = where.toUtf8();
        QTEST(QList<int>({BLIO_FileExists(p), BLIO_FileKind(p)}), "found");
        _HFile* f = BLIO_Open(p, descriptor);
        QCOMPARE(store.opens, error < 0 ? 1 : 0);
        if (error <= 0) {
            QCOMPARE(BLIO_ReadChar(f), int(error ? 'm' : 'f'));
            QCOMPARE(BLIO_FileName(f), p.constData());
            QCOMPARE(store.path, error ? p.toStdString() : std::string());
            QCOMPARE(store.context, error ? static_cast<void*>(&store) : nullptr);
            QCOMPARE(BLIO_CloseFile(f), 1);
        } else {
            const QByteArray message = named.replace("%1", m_dir.path()).toUtf8();
            QVERIFY(!f && BLERROR_LastCode() == error);
            QVERIFY2(messageHas(message), BLERROR_LastMessage());
            _HFile* later = BLIO_Open(path("d"), "r"); // leaves the error slot alone
            QVERIFY(later && messageHas(message) && BLIO_CloseFile(later));
        }
        QCOMPARE(BLIO_CloseFile(parents[0]) + BLIO_CloseFile(parents[1]), 2);
    }

    void registration_data()
    {
        QTest::addColumn<QByteArray>("scheme"); // "noopen", "noclose": a record without them
        QTest::addColumn<int>("error");
        QTest::newRow("no scheme") << QByteArray() << int(BLERR_HANDLER_INVALID);
        QTest::newRow("no open") << QByteArray("noopen") << int(BLERR_HANDLER_INVALID);
        QTest::newRow("no close") << QByteArray("noclose") << int(BLERR_HANDLER_INVALID);
        QTest::newRow("digit first") << QByteArray("1x") << int(BLERR_HANDLER_INVALID);
        QTest::newRow("colon") << QByteArray("a:") << int(BLERR_HANDLER_INVALID);
        QTest::newRow("taken") << QByteArray("File") << int(BLERR_HANDLER_EXISTS);
        QTest::newRow("good") << QByteArray("x+y.z-1") << 0;
    }
    void registration()
    {
        QFETCH(QByteArray, scheme);
        QFETCH(int, error);
        BLIO_Handler h = memHandler(scheme.isNull() ? nullptr : scheme.constData(), BLIO_MODE_READ);
        h.Open = scheme == "noopen" ? nullptr : h.Open;
        h.Close = scheme == "noclose" ? nullptr : h.Close;
        Registered guard(&h, BLIO_DelIOHandler);
        QCOMPARE(BLIO_AddIOHandler(&h), error ? 0 : 1);
        if (error) {
            QCOMPARE(BLERROR_LastCode(), error);
            QVERIFY(!BLIO_DelIOHandler(&h) && BLERROR_LastCode() == BLERR_HANDLER_NOT_FOUND);
            return;
        }
        QVERIFY(!BLIO_AddIOHandler(&h) && BLERROR_LastCode() == BLERR_HANDLER_EXISTS); // again
        store.files["r"] = "r";
        QVERIFY(!BLIO_Open("x+y.z-1://r", "rw") && BLERROR_LastCode() == BLERR_MODE_NOT_SUPPORTED);
        QCOMPARE(store.opens, 0); // refused by the flags, before Open
        _HFile* f = BLIO_Open("X+Y.Z-1://r", "r");
        QVERIFY(f && BLIO_DelIOHandler(&h));
        QCOMPARE(BLIO_ReadChar(f), int('r')); // still usable after removal
        QCOMPARE(BLIO_CloseFile(f), 1);
        QVERIFY(!BLIO_Open("x+y.z-1://r", "r") && BLERROR_LastCode() == BLERR_UNKNOWN_SCHEME);
        QCOMPARE(BLIO_DelIOHandler(&h), 0);
    }

    void bufferingOverHandler()
    {
        const std::string data = randomBytes(3, 100000);
        store.files["b"] = data;
        _HFile* f = BLIO_Open("mem://b", "r[bufsize=4096]");
        for (int64_t i = 0; i <= 100000; ++i)
            QCOMPARE(BLIO_ReadChar(f), i < 100000 ? byteAt(data, i) : -1);
        QVERIFY(BLIO_CloseFile(f) && store.reads <= 100000 / 4096 + 3);

        f = BLIO_Open("mem://w", "w[bufsize=4096]");
        for (int i = 0; i < 1000; ++i)
            QCOMPARE(BLIO_WriteData(f, "0123456789", 10), qint64(10));
        QVERIFY(BLIO_CloseFile(f) && store.writes <= 3 && store.files["w"].size() == 10000);

        // A seek back inside the buffer costs no handler read; the handler is left where the
        // reader stopped, not where read-ahead took it.
        f = BLIO_Open("mem://b", "r");
        char ten[10];
        store.reads = 0;
        QVERIFY(BLIO_ReadData(f, ten, 10) == 10 && BLIO_Seek(f, 3, BLIO_SEEK_SET));
        QCOMPARE(
            QList<qint64>({BLIO_ReadChar(f), store.reads, BLIO_CloseFile(f), store.posAtClose}),
            QList<qint64>({byteAt(data, 3), 1, 1, 4}));

        // Appends land at the end even when another writer grew the file meanwhile.
        store.files["log"] = "0";
        _HFile* first = BLIO_Open("mem://log", "a");
        _HFile* second = BLIO_Open("mem://log", "a[buffered=0]");
        QCOMPARE(QList<qint64>({BLIO_WriteData(first, "A", 1), BLIO_WriteData(second, "BB", 2),
                     BLIO_CloseFile(second), BLIO_WriteData(first, "C", 1), BLIO_CloseFile(first)}),
            QList<qint64>({1, 2, 1, 1, 1}));
        QCOMPARE(store.files["log"], std::string("0BBAC"));

        store.startPos = 100; // a device that already stands past its start
        f = BLIO_Open("mem://b", "r");
        QCOMPARE(QList<qint64>({BLIO_FilePosition(f), BLIO_ReadChar(f), BLIO_CloseFile(f)}),
            QList<qint64>({100, byteAt(data, 100), 1}));
    }

    void fileInfo()
    {
        const QByteArray p = path("info");
        writeFile(p, std::string(1200, 'i'));
        QFile file(QString::fromUtf8(p)); // Sunday 2021-03-14, day 73, local time
        QVERIFY(file.open(QIODevice::ReadOnly)
            && file.setFileTime(
                QDateTime({2021, 3, 14}, {15, 9, 26, 535}), QFile::FileModificationTime)
            && file.setFileTime(QDateTime({2021, 3, 14}, {14, 9, 26}), QFile::FileAccessTime));
        _HFile* f = BLIO_Open(p.constData(), "r");
        BLIO_FileInfo info {};
        QCOMPARE(QList<qint64>({BLIO_GetFileInfo(f, &info), info.Size, info.OriginalSize,
                     info.OwnerId, info.AllocatedSize >= 0}),
            QList<qint64>({1, 1200, 1200, ::getuid(), 1}));
        const BLtime& m = info.LastModification;
        QCOMPARE(QList<int>({m.Year, m.Month, m.Day, m.DayOfWeek, m.DayOfYear, m.Hour, m.Minute,
                     m.Second, m.Millisecond, info.LastAccess.Hour, info.RegularFile,
                     info.Directory, info.RandomAccess, info.ReadOnly, BLIO_CloseFile(f)}),
            QList<int>({2021, 3, 14, 7, 73, 15, 9, 26, 535, 14, 1, 0, 1, 0, 1}));
    }

    void pathOperations()
    {
        const QByteArray a = path("pa"), b = path("pb"), fileB = "file://" + b;
        writeFile(a, "x");
        store.files["m"] = "m";
        QCOMPARE(BLIO_RenameFile(a, fileB), 1);
        QCOMPARE(QList<int>({BLIO_FileExists(a), BLIO_FileExists(fileB)}), QList<int>({0, 1}));
        QVERIFY(!BLIO_RenameFile(b, "mem://z") && BLERROR_LastCode() == BLERR_INVALID_ARGUMENT);
        QVERIFY(!BLIO_RenameFile(a, b) && BLERROR_LastCode() == BLERR_NOT_FOUND && messageHas(a));
        QVERIFY(!BLIO_RemoveFile("mem://m") && BLERROR_LastCode() == BLERR_NOT_SUPPORTED);
        QVERIFY(BLIO_RemoveFile(b) && !QFile::exists(QString::fromUtf8(b)));
        QVERIFY(!BLIO_RemoveFile(b) && BLERROR_LastCode() == BLERR_NOT_FOUND);
        QVERIFY(messageHas(b) && messageHas("No such file"));
    }

    void nullHandles()
    {
        char c[BLIO_MAX_META_DESCR] = "junk";
        BLIO_FileInfo info {};
        QVERIFY(!BLIO_Open(nullptr, "r") && !BLIO_Open("x", nullptr) && !BLIO_CloseFile(nullptr));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
        QCOMPARE(
            QList<qint64>({BLIO_ReadData(nullptr, c, 1), BLIO_WriteData(nullptr, c, 1),
                BLIO_FileSize(nullptr), BLIO_FilePosition(nullptr), BLIO_ReadChar(nullptr),
                BLIO_CopyHFileToHFile(nullptr, nullptr),
                BLIO_CopyHFileChunkToHFile(nullptr, 0, 1, nullptr), BLIO_IsEndOfFile(nullptr),
                BLIO_Seek(nullptr, 0, 0), BLIO_Flush(nullptr), BLIO_UnReadChar(nullptr, 'a'),
                BLIO_IsSeekable(nullptr), BLIO_CurrentOpenMode(nullptr),
                BLIO_ComposeMetaHFileDescr(c, nullptr), c[0], BLIO_GetFileInfo(nullptr, &info),
                BLIO_FileExists(nullptr), BLIO_RemoveFile(nullptr), BLIO_RenameFile(nullptr, "x"),
                BLIO_AddIOHandler(nullptr), BLIO_DelIOHandler(nullptr), *BLIO_FileName(nullptr)}),
            QList<qint64>(
                {-1, -1, -1, -1, -1, -1, -1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
    }

    // Threads open files and views while handlers come and go.
    void concurrentOpen()
    {
        const QByteArray p = path("shared");
        writeFile(p, "s");
        std::atomic<int> failures {0};
        const auto openAndClose = [&] {
            for (int i = 0; i < 300; ++i) {
                char meta[BLIO_MAX_META_DESCR];
                _HFile* f = BLIO_Open(p, "r[bufsize=512]");
                _HFile* v = BLIO_ComposeMetaHFileDescr(meta, f) ? BLIO_Open(meta, "r") : nullptr;
                failures
                    += !v || BLIO_ReadChar(v) != 's' || !BLIO_CloseFile(f) || !BLIO_CloseFile(v);
            }
        };
        std::thread threads[] = {std::thread(openAndClose), std::thread(openAndClose),
            std::thread(openAndClose), std::thread(openAndClose)};
        for (int i = 0; i < 300; ++i) {
            BLIO_Handler h = memHandler("churn");
            Registered guard(&h, BLIO_DelIOHandler);
            QVERIFY(BLIO_AddIOHandler(&h) && BLIO_DelIOHandler(&h));
        }
        for (std::thread& t : threads)
            t.join();
        QCOMPARE(failures.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestBlio)
#include "tst_blio.moc"
