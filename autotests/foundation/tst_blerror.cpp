// The error slot: one per thread, the code table and message formatting.
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <QtTest>

#include <set>
#include <string>
#include <thread>

class TestBlError : public QObject
{
    Q_OBJECT

private slots:
    void codeTexts()
    {
        std::set<std::string> texts;
        for (int code = 0; code < BLERR_COUNT; ++code)
            texts.insert(BLERROR_CodeText(code));
        texts.insert("unknown error");
        // Every code says something of its own, none of them "unknown error" or "".
        QCOMPARE(int(texts.size()), int(BLERR_COUNT) + 1);
        QVERIFY(!texts.count(""));
        for (int code : {-1, int(BLERR_COUNT), 100000})
            QCOMPARE(QByteArray(BLERROR_CodeText(code)), QByteArray("unknown error"));
    }

    void formatting_data()
    {
        QTest::addColumn<QByteArray>("format"); // null: none
        QTest::addColumn<QByteArray>("message");
        const QByteArray codeText(BLERROR_CodeText(BLERR_OPEN_FAILED));
        // Every format takes the same arguments: "/x" and 2.
        QTest::newRow("formatted")
            << QByteArray("cannot open '%s': %d") << QByteArray("cannot open '/x': 2");
        QTest::newRow("long") << QByteArray(3000, 'a') + "%s%d" << QByteArray(3000, 'a') + "/x2";
        QTest::newRow("null format") << QByteArray() << codeText;
        QTest::newRow("empty format") << QByteArray("") << codeText;
    }
    void formatting()
    {
        QFETCH(QByteArray, format);
        QFETCH(QByteArray, message);
        BLERROR_Set(BLERR_OPEN_FAILED, format.isNull() ? nullptr : format.constData(), "/x", 2);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_OPEN_FAILED));
        QCOMPARE(QByteArray(BLERROR_LastMessage()), message);
        BLERROR_Clear();
        QCOMPARE(BLERROR_LastCode(), int(BLERR_NONE));
        QCOMPARE(QByteArray(BLERROR_LastMessage()), QByteArray(""));
    }

    // A failure in one thread is invisible in another, both ways; a new thread starts empty;
    // a call that succeeds leaves the slot as it was.
    void threadLocal()
    {
        BLERROR_Set(BLERR_IO, "main thread");
        int initialCode = -1, code = -1;
        QByteArray initialMessage("unset"), message;
        std::thread other([&] {
            initialCode = BLERROR_LastCode();
            initialMessage = BLERROR_LastMessage();
            BLSTRING_GetIntegerValueFromString("nc=x", "nc", 0);
            BLSTRING_GetIntegerValueFromString("nc=2", "nc", 0);
            code = BLERROR_LastCode();
            message = BLERROR_LastMessage();
        });
        other.join();
        QCOMPARE(initialCode, int(BLERR_NONE));
        QCOMPARE(initialMessage, QByteArray(""));
        QCOMPARE(code, int(BLERR_PARSE));
        QVERIFY(message.contains("'nc'"));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_IO));
        QCOMPARE(QByteArray(BLERROR_LastMessage()), QByteArray("main thread"));
    }
};

QTEST_APPLESS_MAIN(TestBlError)

#include "tst_blerror.moc"
