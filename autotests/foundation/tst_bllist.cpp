// Lists, arenas (memory descriptors) and string lists.
#include <sova/bllist.h>

#include <QtTest>

#include <cstring>
#include <random>
#include <set>
#include <vector>

namespace {

std::vector<void*> released;
int marks[3];

void recordRelease(void* data)
{
    released.push_back(data);
}

} // namespace

class TestBlList : public QObject
{
    Q_OBJECT

private slots:
    void orderAndBounds()
    {
        BLLIST* list = BLLIST_Create(nullptr);
        QVERIFY(BLLIST_AppendData(list, &marks[1]) && BLLIST_AppendData(list, &marks[2]));
        QVERIFY(BLLIST_PrependData(list, &marks[0]));
        QCOMPARE(BLLIST_NumElements(list), 3);
        QCOMPARE(BLLIST_GetData(list, 2), &marks[2]);
        QVERIFY(!BLLIST_GetData(list, 3) && !BLLIST_GetData(list, -1));
        for (int& mark : marks)
            QCOMPARE(BLLIST_PopFirstData(list), &mark);
        QVERIFY(!BLLIST_PopFirstData(list));
        QCOMPARE(BLLIST_NumElements(nullptr), 0);
        QCOMPARE(BLLIST_AppendData(nullptr, &marks[0]), 0);
        BLLIST_DestroyEx(list, 1);
    }

    // Copies stay readable after popping, until the list goes (ASan checks the reads).
    void appendStringCopies()
    {
        BLLIST* list = BLLIST_Create(nullptr);
        char source[] = "first";
        QVERIFY(BLLIST_AppendString(list, source) != source);
        source[0] = 'X';
        for (int i = 0; i < 2000; ++i)
            BLLIST_AppendString(list, QByteArray::number(i).constData());
        std::vector<const char*> popped;
        while (void* data = BLLIST_PopFirstData(list))
            popped.push_back(static_cast<const char*>(data));
        QCOMPARE(int(popped.size()), 2001);
        QCOMPARE(QByteArray(popped[0]), QByteArray("first"));
        QCOMPARE(QByteArray(popped[2000]), QByteArray("1999"));
        QVERIFY(!BLLIST_AppendString(list, nullptr));
        BLLIST_DestroyEx(list, 0);
    }

    void destroyRelease_data()
    {
        QTest::addColumn<int>("pops");
        QTest::addColumn<int>("releaseData");
        QTest::addColumn<int>("releasedCount");
        QTest::newRow("release all") << 0 << 1 << 3;
        QTest::newRow("popped are not released") << 2 << 1 << 1;
        QTest::newRow("no release asked") << 0 << 0 << 0;
    }
    void destroyRelease()
    {
        QFETCH(int, pops);
        QFETCH(int, releaseData);
        QFETCH(int, releasedCount);
        released.clear();
        BLLIST* list = BLLIST_Create(recordRelease);
        for (int& mark : marks)
            BLLIST_AppendData(list, &mark);
        for (int i = 0; i < pops; ++i)
            BLLIST_PopFirstData(list);
        BLLIST_DestroyEx(list, releaseData);
        QCOMPARE(int(released.size()), releasedCount);
        for (int i = 0; i < releasedCount; ++i)
            QCOMPARE(released[size_t(i)], &marks[3 - releasedCount + i]);
    }

    void arena_data()
    {
        QTest::addColumn<uint>("chunkSize");
        QTest::addColumn<uint>("alignment"); // 0 stands for 8
        QTest::newRow("default alignment") << 1024u << 0u;
        QTest::newRow("bytes") << 100u << 1u;
        QTest::newRow("16, default chunk") << 0u << 16u;
        QTest::newRow("64, tiny chunk") << 1u << 64u;
        QTest::newRow("page") << 8192u << 4096u;
    }
    // Random sizes, some far beyond a chunk, and zero: every block aligned, unique, writable
    // over its size and not overlapping another; ASan checks the writes and the freeing.
    void arena()
    {
        QFETCH(uint, chunkSize);
        QFETCH(uint, alignment);
        BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("test arena", chunkSize, alignment);
        QVERIFY(memory);
        std::mt19937 generator(alignment * 31 + chunkSize);
        std::uniform_int_distribution<int> small(0, 300), large(0, 200000), which(0, 50);
        std::vector<std::pair<unsigned char*, size_t>> blocks;
        std::set<void*> unique;
        size_t total = 0;
        for (int i = 0; i < 1500; ++i) {
            const size_t size = size_t(which(generator) ? small(generator) : large(generator));
            auto* p = static_cast<unsigned char*>(BLMEM_NewEx(memory, size));
            QVERIFY(p && unique.insert(p).second);
            QCOMPARE(reinterpret_cast<uintptr_t>(p) % (alignment ? alignment : 8), 0u);
            std::memset(p, i & 0xFF, size);
            blocks.emplace_back(p, size);
            total += size;
        }
        QCOMPARE(BLMEM_BytesAllocated(memory), total);
        for (size_t i = 0; i < blocks.size(); ++i) {
            for (size_t k = 0; k < blocks[i].second; k += 97)
                QCOMPARE(int(blocks[i].first[k]), int(i & 0xFF));
        }
        QVERIFY(!BLMEM_NewEx(memory, SIZE_MAX - 8));
        BLMEM_DisposeMemDescr(memory);
    }

    void arenaRejectsAlignment()
    {
        for (uint alignment : {3u, 12u, 8192u, 0x80000000u, 0xFFFFFFFFu})
            QVERIFY(!BLMEM_CreateMemDescrEx("bad", 1024, alignment));
    }

    void stringList_data()
    {
        QTest::addColumn<QList<QByteArray>>("texts"); // null entries stand for null pointers
        QTest::addColumn<QList<QByteArray>>("expected");
        using L = QList<QByteArray>;
        QTest::newRow("three") << L {"a", "bc", ""} << L {"a", "bc", ""};
        QTest::newRow("nulls skipped") << L {QByteArray(), "x", QByteArray(), "y"} << L {"x", "y"};
        QTest::newRow("none") << L {} << L {};
    }
    void stringList()
    {
        QFETCH(QList<QByteArray>, texts);
        QFETCH(QList<QByteArray>, expected);
        std::vector<const char*> pointers;
        for (const QByteArray& text : texts)
            pointers.push_back(text.isNull() ? nullptr : text.constData());
        BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("QSovaIniFile (TempMemory)", 1024, 8);
        BLSTRINGLIST list = BLSTRINGLIST_Create(memory, pointers.data(), int(pointers.size()));
        QVERIFY(list);
        QCOMPARE(GetStringListLength(list), int(expected.size()));
        for (int i = 0; i < expected.size(); ++i) {
            QCOMPARE(QByteArray(GetStringInStringList(list, i)), expected[i]);
            QVERIFY(GetStringInStringList(list, i) != expected[i].constData());
        }
        QVERIFY(!GetStringInStringList(list, int(expected.size())));
        QVERIFY(!GetStringInStringList(list, -1));
        QVERIFY(!BLSTRINGLIST_Create(memory, pointers.data(), -1));
        BLMEM_DisposeMemDescr(memory);
    }
};

QTEST_APPLESS_MAIN(TestBlList)

#include "tst_bllist.moc"
