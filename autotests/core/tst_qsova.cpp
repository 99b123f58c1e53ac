#include <QSova>
#include <QtTest>

#include <sova/foundation.h>

// The library's start-up registers process-wide handlers, so each test leaves the counter at 0.
class tst_QSova : public QObject {
    Q_OBJECT

private:
    static bool qiodeviceSchemeWorks()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        const QByteArray path = QByteArray("qiodevice://")
                                + QByteArray::number(quintptr(&buffer), 16).prepend("0x");
        _HFile* file = BLIO_Open(path.constData(), "r");
        if (!file)
            return false;
        BLIO_CloseFile(file);
        return true;
    }

private slots:
    void nestedStartAndStop()
    {
        QVERIFY(!qiodeviceSchemeWorks());
        QCOMPARE(QTSOVACORE_Initialize(), 1);
        QVERIFY(qiodeviceSchemeWorks());
        QCOMPARE(QSova::initialize(), 2);
        QCOMPARE(QTSOVACORE_Finalize(), 1);
        QVERIFY2(qiodeviceSchemeWorks(), "an inner stop must not remove the handlers");
        QCOMPARE(QSova::finalize(), 1); // both handlers removed
        QVERIFY(!qiodeviceSchemeWorks());
        QCOMPARE(QTSOVACORE_Finalize(), 0);
        QCOMPARE(QTSOVACORE_Finalize(), 0);
        QCOMPARE(QTSOVACORE_Initialize(), 1); // an unmatched stop left the counter at 0
        QCOMPARE(QTSOVACORE_Finalize(), 1);
    }

    void failedRegistrationStillCounts()
    {
        // Another handler holding "qfile" makes the first start fail to register.
        static const char scheme[] = "qfile";
        BLIO_Handler squatter = {};
        squatter.Scheme = scheme;
        squatter.Flags = BLIO_MODE_READ;
        squatter.Open = [](void*, const char*, BLIOOPENMODE) -> void* { return nullptr; };
        squatter.Close = [](void*) -> int32_t { return 1; };
        QVERIFY(BLIO_AddIOHandler(&squatter));

        QCOMPARE(QTSOVACORE_Initialize(), 0);
        QVERIFY(!qiodeviceSchemeWorks()); // the second handler is not tried
        QCOMPARE(QTSOVACORE_Initialize(), 2);
        QCOMPARE(QTSOVACORE_Finalize(), 1);
        QCOMPARE(QTSOVACORE_Finalize(), 0); // nothing of ours to remove
        QCOMPARE(QTSOVACORE_Finalize(), 0);
        QVERIFY(BLIO_DelIOHandler(&squatter));
    }

    void versionNumber_data()
    {
        QTest::addColumn<int>("mask"); // which of major, minor, patch, build get a pointer
        QTest::newRow("none") << 0;
        QTest::newRow("minor only") << 2;
        QTest::newRow("major and build") << 9;
        QTest::newRow("all") << 15;
    }

    void versionNumber()
    {
        QFETCH(int, mask);
        int32_t values[4] = {-1, -1, -1, -1};
        const int32_t expected[4] = {3, 11, 5, 1};
        QtSovaCoreVersionNumber(mask & 1 ? &values[0] : nullptr, mask & 2 ? &values[1] : nullptr,
                                mask & 4 ? &values[2] : nullptr, mask & 8 ? &values[3] : nullptr);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(values[i], (mask & (1 << i)) ? expected[i] : -1);
    }

    void versionString()
    {
        const char* text = QtSovaCoreVersionString();
        QVERIFY(qstrlen(text) <= 255);
        const QRegularExpression form(QStringLiteral(
            "^libsovacore version 3\\.11\\.5\\.1 \\(built in [A-Z][a-z]{2} [ 123]\\d \\d{4}\\)$"));
        QVERIFY2(form.match(QString::fromLatin1(text)).hasMatch(), text);
        QCOMPARE(QtSovaCoreVersionString(), text); // one static buffer
        const QDate built = QLocale::c().toDate(QString::fromLatin1(text + 39, 11).simplified(),
                                                QStringLiteral("MMM d yyyy"));
        QVERIFY2(built.isValid(), text);
    }

    void limits()
    {
        QCOMPARE(QSova::minNumChannels(), 1);
        QCOMPARE(QSova::maxNumChannels(), 8);
        QCOMPARE(QSova::minSampleRate(), 10);
        QCOMPARE(QSova::maxSampleRate(), 500000);
    }
};

QTEST_GUILESS_MAIN(tst_QSova)
#include "tst_qsova.moc"
