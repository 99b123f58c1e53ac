#include <QSovaIniFile>
#include <QtTest>

class tst_QSovaIniFile : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;

    QString write(const QString& name, const QByteArray& content)
    {
        QFile file(dir.filePath(name));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return QString();
        file.write(content);
        return file.fileName();
    }

    static QByteArray read(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void values_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("integer") << "count" << QVariant(qlonglong(-42));
        QTest::newRow("hexadecimal") << "mask" << QVariant(qlonglong(31));
        QTest::newRow("text") << "name" << QVariant(QStringLiteral("Take one"));
        QTest::newRow("quoted") << "quoted" << QVariant(QStringLiteral(" 42 "));
        QTest::newRow("boolean is text") << "on" << QVariant(QStringLiteral("yes"));
        QTest::newRow("empty") << "nothing" << QVariant(QString());
        QTest::newRow("decimal") << "gain" << QVariant(1.5);
        QTest::newRow("decibels") << "level" << QVariant(-6.0);
        QTest::newRow("frequency") << "rate" << QVariant(44100.0);
        QTest::newRow("missing") << "missing" << QVariant(QStringLiteral("default"));
    }

    void values()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, expected);
        const QString path = write(QStringLiteral("values.ini"),
                                   "[take]\ncount = -42\nmask = 0x1F\nname = Take one\n"
                                   "quoted = \" 42 \"\non = yes\nnothing =\ngain = 1.5\n"
                                   "level = -6dB\nrate = 44.1kHz\n");
        QSovaIniFile ini(path);
        QVERIFY(ini.isValid());
        const QVariant value = ini.value(QStringLiteral("take"), key, QStringLiteral("default"));
        QCOMPARE(value.type(), expected.type());
        QCOMPARE(value, expected);
    }

    void setValueTypes_data()
    {
        QTest::addColumn<QVariant>("written");
        QTest::addColumn<QVariant>("readBack"); // invalid: nothing written
        QTest::newRow("bool") << QVariant(true) << QVariant(QStringLiteral("true"));
        QTest::newRow("int") << QVariant(7) << QVariant(qlonglong(7));
        QTest::newRow("long long narrowed")
            << QVariant((qlonglong(1) << 32) + 5) << QVariant(qlonglong(5));
        QTest::newRow("double") << QVariant(0.1) << QVariant(0.1);
        QTest::newRow("whole double stays double") << QVariant(2.0) << QVariant(2.0);
        QTest::newRow("numeric text stays text") << QVariant(QStringLiteral("42"))
                                                 << QVariant(QStringLiteral("42"));
        QTest::newRow("char") << QVariant(QChar(u'x')) << QVariant(QStringLiteral("x"));
        QTest::newRow("date") << QVariant(QDate(2026, 11, 22)) << QVariant(QStringLiteral("2026-11-22"));
        QTest::newRow("time not written") << QVariant(QTime(1, 2)) << QVariant();
        QTest::newRow("list not written") << QVariant(QStringList{"a"}) << QVariant();
    }

    void setValueTypes()
    {
        QFETCH(QVariant, written);
        QFETCH(QVariant, readBack);
        const QString path = dir.filePath(QStringLiteral("types.ini"));
        QFile::remove(path);
        {
            QSovaIniFile ini(path);
            QVERIFY(!ini.isValid());
            ini.setValue(QStringLiteral("s"), QStringLiteral("k"), written);
            QCOMPARE(ini.hasChanges(), readBack.isValid());
            QCOMPARE(ini.isValid(), true); // a handle is made even when nothing is written
        } // saved here when something was written
        QCOMPARE(QFile::exists(path), readBack.isValid());
        if (!readBack.isValid())
            return;
        QSovaIniFile again(path);
        const QVariant value = again.value(QStringLiteral("s"), QStringLiteral("k"));
        QCOMPARE(value.type(), readBack.type());
        QCOMPARE(value, readBack);
    }

    void listing()
    {
        const QString path = write(QStringLiteral("list.ini"),
                                   "; comment\n[b]\nz = 1\na = 2\n[a]\nk = 3\n");
        QSovaIniFile ini(path);
        QCOMPARE(ini.sections(), (QStringList{QStringLiteral("b"), QStringLiteral("a")}));
        QCOMPARE(ini.keys(QStringLiteral("b")), (QStringList{QStringLiteral("z"), QStringLiteral("a")}));
        QVERIFY(ini.keys(QStringLiteral("none")).isEmpty());
        QVERIFY(ini.contains(QStringLiteral("a")) && !ini.contains(QStringLiteral("c")));
        QVERIFY(ini.contains(QStringLiteral("a"), QStringLiteral("k")));
        QVERIFY(!ini.contains(QStringLiteral("a"), QStringLiteral("z")));
        QSovaIniFile none;
        QVERIFY(none.sections().isEmpty() && !none.contains(QStringLiteral("a")));
    }

    void saving()
    {
        const QByteArray original = "# keep me\n[s]\nk = 1\n";
        const QString path = write(QStringLiteral("save.ini"), original);
        {
            QSovaIniFile ini(path);
            QVERIFY(ini.save()); // nothing changed: true, file untouched
            QCOMPARE(read(path), original);
            ini.setValue(QStringLiteral("s"), QStringLiteral("k"), 2);
            QVERIFY(!ini.save(QString()));
            QVERIFY(ini.hasChanges());
            const QString copy = dir.filePath(QStringLiteral("copy.ini"));
            QVERIFY(ini.save(copy));
            QCOMPARE(ini.fileName(), copy);
            QVERIFY(!ini.hasChanges());
            QCOMPARE(read(copy), QByteArray("# keep me\n[s]\nk = 2\n"));
            ini.setValue(QStringLiteral("s"), QStringLiteral("k"), 3);
            ini.clear(); // dropped unsaved: nothing written at destruction
            QVERIFY(!ini.isValid());
            QVERIFY(ini.hasChanges());
            QVERIFY(!ini.save());
        }
        QCOMPARE(read(dir.filePath(QStringLiteral("copy.ini"))), QByteArray("# keep me\n[s]\nk = 2\n"));
        QCOMPARE(read(path), original);

        // A missing file is created by the save at destruction.
        const QString fresh = dir.filePath(QStringLiteral("fresh.ini"));
        {
            QSovaIniFile ini(fresh);
            ini.setValue(QStringLiteral("new"), QStringLiteral("key"), QStringLiteral("value"));
        }
        QCOMPARE(read(fresh), QByteArray("[new]\nkey = value\n"));
    }

    void notAnIniFile()
    {
        const QString path = write(QStringLiteral("binary.ini"), QByteArray("[s]\nk = \0\x01", 9));
        QSovaIniFile ini(path);
        QVERIFY(!ini.isValid());
        QCOMPARE(ini.value(QStringLiteral("s"), QStringLiteral("k"), 5), QVariant(5));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaIniFile)
#include "tst_qsovainifile.moc"
