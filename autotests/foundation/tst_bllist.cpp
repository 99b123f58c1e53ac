// Lists, arenas (memory descriptors) and string lists.
#include <sova/bllist.h>

#include <QtTest>

#include <cstring>
#include <map>
#include <random>
#include <vector>

static int marks[3];
static std::vector<void*> released;

class TestBlList : public QObject
{
    Q_OBJECT

private slots:
    // Order and bounds; copied strings stay readable after popping, until the list goes (ASan
    // checks the reads).
    void list()
    {
        BLLIST* list = BLLIST_Create(nullptr);
        char source[] = "first";
        QVERIFY(BLLIST_AppendData(list, &marks[1]) && BLLIST_PrependData(list, &marks[0]));
        QVERIFY(BLLIST_AppendString(list, source) != source);
        source[0] = 'X';
        for (int i = 0; i < 2000; ++i)
            BLLIST_AppendString(list, QByteArray::number(i).constData());
        QCOMPARE(BLLIST_NumElements(list), 2003);
        QCOMPARE(BLLIST_GetData(list, 1), &marks[1]);
        QVERIFY(!BLLIST_GetData(list, 2003) && !BLLIST_GetData(list, -1));
        QVERIFY(BLLIST_PopFirstData(list) == &marks[0] && BLLIST_PopFirstData(list) == &marks[1]);
        QList<QByteArray> texts;
        while (void* data = BLLIST_PopFirstData(list))
            texts << static_cast<char*>(data);
        QCOMPARE(texts.size(), 2001);
        QVERIFY(texts.first() == "first" && texts.last() == "1999");
        QVERIFY(!BLLIST_AppendString(list, nullptr) && !BLLIST_AppendData(nullptr, marks));
        QCOMPARE(BLLIST_NumElements(nullptr), 0);
        BLLIST_DestroyEx(list, 1);
    }

    void destroyRelease_data()
    {
        QTest::addColumn<int>("releaseData");
        QTest::newRow("asked") << 1;
        QTest::newRow("not asked") << 0;
    }
    // Destroying releases what is still in the list, not what was popped, and only when asked.
    void destroyRelease()
    {
        QFETCH(int, releaseData);
        released.clear();
        BLLIST* list = BLLIST_Create([](void* data) { released.push_back(data); });
        for (int& mark : marks)
            BLLIST_AppendData(list, &mark);
        BLLIST_PopFirstData(list);
        BLLIST_DestroyEx(list, releaseData);
        const std::vector<void*> stillListed = {&marks[1], &marks[2]};
        QCOMPARE(released, releaseData ? stillListed : std::vector<void*>());
    }

    void arena_data()
    {
        QTest::addColumn<uint>("chunkSize");
        QTest::addColumn<uint>("alignment"); // 0 stands for 8
        QTest::newRow("default alignment") << 1024u << 0u;
        QTest::newRow("16, default chunk") << 0u << 16u;
        QTest::newRow("64, tiny chunk") << 1u << 64u;
        QTest::newRow("page") << 8192u << 4096u;
    }
    // Random sizes, some far beyond a chunk, and zero: every block aligned, unique, writable
    // over its size (ASan checks the writes and the freeing) and not overlapping the next.
    void arena()
    {
        QFETCH(uint, chunkSize);
        QFETCH(uint, alignment);
        // Alignments must be powers of two up to a page.
        QVERIFY(!BLMEM_CreateMemDescrEx("", chunkSize, 12)
            && !BLMEM_CreateMemDescrEx("", chunkSize, 8192));
        BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("test arena", chunkSize, alignment);
        std::mt19937 generator(alignment * 31 + chunkSize);
        std::map<unsigned char*, size_t> blocks; // by address
        size_t total = 0;
        for (int i = 0; i < 1500; ++i) {
            const size_t size = generator() % 50 ? generator() % 301 : generator() % 200001;
            auto* p = static_cast<unsigned char*>(BLMEM_NewEx(memory, size));
            QVERIFY(p && blocks.emplace(p, size).second);
            QCOMPARE(reinterpret_cast<uintptr_t>(p) % (alignment ? alignment : 8), 0u);
            std::memset(p, 0xA5, size);
            total += size;
        }
        for (auto b = blocks.begin(), next = std::next(b); next != blocks.end(); ++b, ++next)
            QVERIFY(b->first + b->second <= next->first);
        QCOMPARE(BLMEM_BytesAllocated(memory), total);
        QVERIFY(!BLMEM_NewEx(memory, SIZE_MAX - 8));
        BLMEM_DisposeMemDescr(memory);
    }

    // Copies of the texts, null ones skipped; no texts make an empty list.
    void stringList()
    {
        const char* texts[] = {nullptr, "a", "", nullptr, "bc"};
        BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("string lists", 1024, 8);
        BLSTRINGLIST list = BLSTRINGLIST_Create(memory, texts, 5);
        QCOMPARE(GetStringListLength(list), 3);
        QCOMPARE(QList<QByteArray>({GetStringInStringList(list, 0), GetStringInStringList(list, 1),
                     GetStringInStringList(list, 2)}),
            QList<QByteArray>({"a", "", "bc"}));
        QVERIFY(GetStringInStringList(list, 0) != texts[1]);
        QVERIFY(!GetStringInStringList(list, 3) && !GetStringInStringList(list, -1));
        BLSTRINGLIST empty = BLSTRINGLIST_Create(memory, nullptr, 0);
        QVERIFY(empty && !*empty && !BLSTRINGLIST_Create(memory, texts, -1));
        BLMEM_DisposeMemDescr(memory);
    }
};

QTEST_APPLESS_MAIN(TestBlList)

#include "tst_bllist.moc"
