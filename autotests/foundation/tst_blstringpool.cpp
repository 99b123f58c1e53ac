// The pool of persistent strings: identity, lookup-only mode and concurrent interning.
#include <sova/blstring.h>

#include <QtTest>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

class TestBlStringPool : public QObject
{
    Q_OBJECT

private slots:
    void identity_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("word") << QByteArray("identity-word");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("just over a quarter block") << QByteArray(16 * 1024 + 1, 'Q');
        QTest::newRow("larger than a block") << QByteArray(200 * 1024, 'L');
    }
    void identity()
    {
        QFETCH(QByteArray, text);
        QVERIFY(!GetBString(text.constData(), 0));
        const std::string copy(text.constData(), size_t(text.size())); // equal, elsewhere
        const char* pooled = GetBString(text.constData(), 1);
        QVERIFY(pooled && pooled != text.constData());
        QCOMPARE(QByteArray(pooled), text);
        QCOMPARE(GetBString(copy.c_str(), 1), pooled);
        QCOMPARE(GetBString(copy.c_str(), 0), pooled);
        QVERIFY(!GetBString((copy + "-other").c_str(), 0)); // lookups do not add
        QVERIFY(!GetBString(nullptr, 1));
    }

    // Threads intern overlapping sets in different orders, half of them looking up first,
    // while the pool grows by thousands of blocks' worth: one pointer per text, seen by all,
    // still holding its text at the end.
    void concurrentInterning()
    {
        const int threads = 4, texts = 20000;
        std::vector<std::vector<const char*>> seen(threads, std::vector<const char*>(texts));
        std::atomic<int> ready {0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                for (++ready; ready < threads;) { }
                for (int k = 0; k < texts; ++k) {
                    const int i = (t % 2) ? texts - 1 - k : (k * 7 + t) % texts;
                    const std::string text = "race-" + std::to_string(i);
                    const char* pooled = t >= 2 ? GetBString(text.c_str(), 0) : nullptr;
                    seen[size_t(t)][size_t(i)] = pooled ? pooled : GetBString(text.c_str(), 1);
                }
            });
        }
        for (auto& worker : workers)
            worker.join();
        for (int i = 0; i < texts; ++i) {
            const std::string text = "race-" + std::to_string(i);
            const char* expected = GetBString(text.c_str(), 0);
            QCOMPARE(QByteArray(expected), QByteArray(text.c_str()));
            for (int t = 0; t < threads; ++t)
                QCOMPARE(seen[size_t(t)][size_t(i)], expected);
        }
    }
};

QTEST_APPLESS_MAIN(TestBlStringPool)

#include "tst_blstringpool.moc"
