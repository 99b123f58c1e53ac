#include <QSovaSetting>
#include <QtTest>

#include <sova/blsettings.h>

class Listener : public QObject {
    Q_OBJECT
public:
    int calls = 0;
public slots:
    void onSettingChanged() { ++calls; }
};

class tst_QSovaSetting : public QObject {
    Q_OBJECT

private:
    _BLSETTINGS* store = nullptr;
    QSovaSetting setting; // bound to store

private slots:
    void initTestCase()
    {
        QVERIFY(QSovaSetting::global().isNull());
        store = BLSETTINGS_Create(nullptr, nullptr);
        QVERIFY(store);
        QVERIFY(setting.changeSettingsData(store));
    }

    void cleanupTestCase() { BLSETTINGS_Destroy(store); }

    void binding()
    {
        QSovaSetting unbound;
        QSovaSetting copy(unbound);
        QVERIFY(copy == unbound && copy.isNull());
        QVERIFY(copy.changeSettingsData(store));
        QVERIFY2(!unbound.isNull(), "copies share one record");
        QVERIFY(unbound == setting);
        _BLSETTINGS* other = BLSETTINGS_Create(nullptr, nullptr);
        QVERIFY(!unbound.changeSettingsData(other));
        QVERIFY(copy == setting);
        BLSETTINGS_Destroy(other);
        {
            QSovaSetting scoped(copy);
        }
        QVERIFY2(!copy.isNull(), "destroying a copy keeps the record");
        QVERIFY(QSovaSetting() != setting);
    }

    // What each write sends, seen through the text the store then holds.
    void writeRequests_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("stored");
        QTest::newRow("int") << QVariant(-5) << "-5";
        QTest::newRow("uint goes signed") << QVariant(4294967295u) << "-1";
        QTest::newRow("bool") << QVariant(true) << "1";
        QTest::newRow("double, 64 digits") << QVariant(0.1) << QString::number(0.1, 'g', 64);
        QTest::newRow("string with =,[]") << QVariant("a=b,[c]") << "a=b,[c]";
        QTest::newRow("date") << QVariant(QDate(2026, 2, 7)) << "2026-02-07";
        QTest::newRow("date-time") << QVariant(QDateTime(QDate(2026, 2, 7), QTime(8, 9, 10)))
                                   << "2026-02-07T08:09:10";
        QTest::newRow("long long as text") << QVariant(qlonglong(1) << 40) << "1099511627776";
        QTest::newRow("map as its (empty) text") << QVariant(QVariantMap{{"a", 1}}) << "";
    }

    void writeRequests()
    {
        QFETCH(QVariant, value);
        QFETCH(QString, stored);
        QVERIFY(setting.change(QStringLiteral("w.key"), value));
        QCOMPARE(setting.getString(QStringLiteral("w.key"), QString()), stored);
        QVERIFY(!setting.isDefault(QStringLiteral("w.key")));
    }

    void defaultsAndReads()
    {
        QVERIFY(setting.setDefault(QStringLiteral("d.real"), 0.1));
        QCOMPARE(setting.getString(QStringLiteral("d.real"), QString()), QStringLiteral("0.1"));
        QVERIFY(setting.setDefault(QStringLiteral("d.real"), 2.0 / 3.0));
        QCOMPARE(setting.getString(QStringLiteral("d.real"), QString()), QStringLiteral("0.666667"));
        QVERIFY(setting.isDefault(QStringLiteral("d.real")));
        QVERIFY(setting.setDefault(QStringLiteral("d.count"), 7u));
        QVERIFY(setting.change(QStringLiteral("d.count"), 9));
        QCOMPARE(setting.getInt(QStringLiteral("d.count"), 1), 9);
        QVERIFY(setting.reset(QStringLiteral("d.count")));
        QCOMPARE(setting.getInt(QStringLiteral("d.count"), 1), 7);
        QVERIFY(setting.remove(QStringLiteral("d.count")));
        QVERIFY(!setting.exists(QStringLiteral("d.count")));
        QVERIFY(!setting.remove(QStringLiteral("d.count")));

        // Absent keys: the default travels in the request and comes back from the store.
        const QString absent = QStringLiteral("d.absent");
        QCOMPARE(setting.getInt(absent, -5), -5);
        QCOMPARE(setting.getUInt(absent, 4000000000u), 4000000000u);
        QCOMPARE(setting.getBool(absent, true), true);
        QCOMPARE(setting.getFloat(absent, 1.25), 1.25);
        QCOMPARE(setting.getFloat(absent, 1.0 / 3.0), 0.333333); // sent with 6 digits
        QVERIFY(setting.getString(absent, QString()).isNull()); // bare key: null
        QCOMPARE(setting.getString(absent, QStringLiteral("x")), QStringLiteral("x"));
        const char* empty = setting.getCString(absent, QString()); // "d.absent=[]"
        QVERIFY(empty && !*empty);
        QCOMPARE(setting.getDate(absent, QDate(2020, 1, 2)), QDate(2020, 1, 2));
        QVERIFY(setting.change(QStringLiteral("d.when"), QStringLiteral("not a date")));
        QVERIFY(!setting.getDate(QStringLiteral("d.when"), QDate(2020, 1, 2)).isValid());
        QVERIFY(!setting.change(QStringLiteral("bad key!"), 1));
    }

    void readsFallBackToProcessWideStore()
    {
        QVERIFY(QSovaSetting::global().change(QStringLiteral("shared.only"), 42));
        QCOMPARE(setting.getInt(QStringLiteral("shared.only"), 0), 42);
        QVERIFY2(!setting.exists(QStringLiteral("shared.only")), "exists asks the own store");
        QVERIFY(setting.change(QStringLiteral("shared.only"), 43));
        QCOMPARE(setting.getInt(QStringLiteral("shared.only"), 0), 43);
        QCOMPARE(QSovaSetting::global().getInt(QStringLiteral("shared.only"), 0), 42);
    }

    void secrets()
    {
        QVERIFY(setting.changeSecret(QStringLiteral("s.token"), QStringLiteral("hunter2")));
        QCOMPARE(setting.getSecretString(QStringLiteral("s.token"), QString()),
                 QStringLiteral("hunter2"));
        for (const QString& line : setting.query(QString()))
            QVERIFY2(!line.contains(QStringLiteral("hunter2")), qPrintable(line));
    }

    void query()
    {
        QVERIFY(setting.change(QStringLiteral("q.b"), 2));
        QVERIFY(setting.change(QStringLiteral("q.a"), QStringLiteral("x,y")));
        QVERIFY(setting.change(QStringLiteral("qq"), 3));
        QCOMPARE(setting.query(QStringLiteral("q.")),
                 (QStringList{QStringLiteral("q.a=x,y"), QStringLiteral("q.b=2")}));
        QVERIFY(setting.query(QString()).contains(QStringLiteral("qq=3")));
        QVERIFY(setting.query(QStringLiteral("nothing.")).isEmpty());
    }

    void notification()
    {
        Listener listener;
        QSovaSetting copy(setting);
        copy.setHandler(&listener);
        QVERIFY(setting.change(QStringLiteral("n.a"), 1));
        QVERIFY(setting.setDefault(QStringLiteral("n.b"), 2));
        QVERIFY(!setting.change(QStringLiteral("=no key"), 3));
        QCOMPARE(listener.calls, 0); // queued, not direct
        QCoreApplication::processEvents();
        QCOMPARE(listener.calls, 2); // one per successful write
        setting.setHandler(nullptr);
        QVERIFY(setting.change(QStringLiteral("n.a"), 2));
        QCoreApplication::processEvents();
        QCOMPARE(listener.calls, 2);
    }

    void flushToFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("user.conf"));
        _BLSETTINGS* own = BLSETTINGS_Create(path.toUtf8().constData(), nullptr);
        QSovaSetting s;
        QVERIFY(s.changeSettingsData(own));
        QVERIFY(s.change(QStringLiteral("f.text"), QStringLiteral(" two\nlines ")));
        QVERIFY(s.flush(false));
        QVERIFY(QFile::exists(path));
        BLSETTINGS_Destroy(own);

        _BLSETTINGS* again = BLSETTINGS_Create(path.toUtf8().constData(), nullptr);
        QSovaSetting t;
        QVERIFY(t.changeSettingsData(again));
        QCOMPARE(t.getString(QStringLiteral("f.text"), QString()), QStringLiteral(" two\nlines "));
        BLSETTINGS_Destroy(again);
        QVERIFY2(!setting.flush(true), "a store without a file cannot flush");
    }
};

QTEST_GUILESS_MAIN(tst_QSovaSetting)
#include "tst_qsovasetting.moc"
