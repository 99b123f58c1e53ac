#include <QtTest>

#include "../../src/runtime/qsovaringbuffer_p.h"
#include "qsovaringbuffer.h"

#include <unistd.h>

using QSova::RingBuffer;

// Probes that damage the self test's buffer: a write that breaks the mirror check, and a value
// in round 3 at offset 17.
static void breakMirror(RingBuffer<int>& b, int round, unsigned index)
{
    if (round == 0 && index == 100)
        b.data()[100] = -1;
}
static void corruptRound3(RingBuffer<int>& b, int round, unsigned)
{
    if (round == 3)
        b.readPointer()[17] = -7;
}

class tst_QSovaRingBuffer : public QObject
{
    Q_OBJECT
private slots:
    void vmAllocate_data()
    {
        const unsigned page = unsigned(sysconf(_SC_PAGESIZE));
        QTest::addColumn<unsigned>("request");
        QTest::addColumn<unsigned>("mapped");
        QTest::newRow("one byte") << 1u << page;
        QTest::newRow("one page") << page << page;
        QTest::newRow("8192") << 8192u << (8192 + page - 1) / page * page;
        QTest::newRow("page and a byte") << page + 1 << 2 * page;
    }
    void vmAllocate()
    {
        QFETCH(unsigned, request);
        QFETCH(unsigned, mapped);
        void* handle = &handle;
        const auto [base, size] = QSova::vm_allocate(request, &handle);
        QVERIFY(base);
        QCOMPARE(size, mapped);
        QCOMPARE(handle, nullptr);
        auto* bytes = static_cast<unsigned char*>(base);
        for (unsigned k : {0u, size / 2, size - 1}) { // the mirror, seen from both halves
            bytes[k] = 0x5a;
            QCOMPARE(bytes[size + k], 0x5a);
            bytes[size + k] = 0xa5;
            QCOMPARE(bytes[k], 0xa5);
        }
        QSova::vm_free(base, size, handle);
    }

    // After `before` elements went through, produce(n): where the write index lands.
    void produce_data()
    {
        QTest::addColumn<int>("before");
        QTest::addColumn<qint64>("n");
        QTest::addColumn<qint64>("index");
        const qint64 cap = RingBuffer<int>(16384).capacity();
        QTest::newRow("small") << 0 << qint64(10) << qint64(10);
        QTest::newRow("whole capacity lands on it") << 0 << cap << cap;
        QTest::newRow("capacity + 5 advances by 5") << 0 << cap + 5 << qint64(5);
        QTest::newRow("twice + 3") << 0 << 2 * cap + 3 << qint64(3);
        QTest::newRow("to the end from inside") << 100 << cap - 100 << cap;
        QTest::newRow("past the end wraps") << 100 << cap - 99 << qint64(1);
        QTest::newRow("from the end") << int(cap) << qint64(7) << qint64(7);
    }
    void produce()
    {
        QFETCH(int, before);
        QFETCH(qint64, n);
        QFETCH(qint64, index);
        RingBuffer<int> ring(16384);
        const qint64 cap = ring.capacity();
        ring.produce(unsigned(before));
        ring.consume(unsigned(before));
        ring.produce(unsigned(n));
        QCOMPARE(qint64(ring.writePointer() - ring.data()), index);
        const unsigned reduced = unsigned(n % cap ? n % cap : cap); // whole capacities dropped
        QCOMPARE(ring.available(), reduced);
        QCOMPARE(ring.freeSpace(), ring.capacity() - reduced);
        QCOMPARE(ring.totalProduced(), quint64(before) + reduced);
        ring.consume(unsigned(n)); // the read side follows the same rule
        QCOMPARE(ring.readPointer(), ring.writePointer());
        QCOMPARE(ring.available(), 0u);
        QCOMPARE(ring.totalConsumed(), ring.totalProduced());
    }

    // Blocks that straddle the seam arrive whole and in order.
    void acrossTheSeam()
    {
        RingBuffer<int> ring(4096);
        QVERIFY(ring.capacity() >= 1024);
        int next = 0, expected = 0;
        for (int round = 0; round < 40; ++round) {
            const unsigned block = 300 + unsigned(round) * 7 % 200;
            for (unsigned k = 0; k < block; ++k)
                ring.writePointer()[k] = next++;
            ring.produce(block);
            const unsigned take = ring.available() - (round % 3 ? 0 : 50);
            for (unsigned k = 0; k < take; ++k)
                QCOMPARE(ring.readPointer()[k], expected++);
            ring.consume(take);
        }
        QVERIFY(ring.totalConsumed() > 4 * ring.capacity());
    }

    void selftest_data()
    {
        QTest::addColumn<bool>("verbose");
        QTest::addColumn<void*>("probe");
        QTest::addColumn<bool>("passed");
        QTest::addColumn<QStringList>("log");
        const QString start = QStringLiteral("QSova::RingBuffer..."),
                      mirror = QStringLiteral("Testing virtual mirroring...");
        const QStringList verboseHead = {start, mirror, QStringLiteral("OK"),
                                         QStringLiteral("Testing full-buffer produce... "),
                                         QStringLiteral("OK\n")};
        QTest::newRow("quiet") << false << (void*)nullptr << true
                               << QStringList{start, QStringLiteral("PASSOU!\n")};
        QTest::newRow("verbose") << true << (void*)nullptr << true
                                 << verboseHead + QStringList{QStringLiteral("PASSOU!\n")};
        QTest::newRow("broken mirror, verbose") << true << (void*)&breakMirror << false
                                                << QStringList{start, mirror};
        QTest::newRow("bad value, quiet") << false << (void*)&corruptRound3 << false
                                          << QStringList{start, QStringLiteral("FALHOU!")};
        QTest::newRow("bad value, verbose")
            << true << (void*)&corruptRound3 << false
            << verboseHead + QStringList{QStringLiteral("3 round, 17 offset: Expected 3, got -7\n"),
                                         QStringLiteral("FALHOU!")};
    }
    void selftest()
    {
        QFETCH(bool, verbose);
        QFETCH(void*, probe);
        QFETCH(bool, passed);
        QFETCH(QStringList, log);
        for (const QString& line : log)
            QTest::ignoreMessage(QtDebugMsg, line.toUtf8().constData());
        const bool result = probe
            ? QSova::ringBufferSelftest(verbose, reinterpret_cast<QSova::SelftestProbe>(probe))
            : RingBuffer<int>::selftest(verbose);
        QCOMPARE(result, passed);
    }
};

QTEST_APPLESS_MAIN(tst_QSovaRingBuffer)
#include "tst_qsovaringbuffer.moc"
