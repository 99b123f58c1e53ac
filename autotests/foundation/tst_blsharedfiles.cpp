// Two writers of one settings file or ini file in one process, each from its own read of the
// file: a save applies the writer's own changes to the file as it is then.
#include <sova/blerror.h>
#include <sova/blinifile.h>
#include <sova/blsettings.h>

#include <QtTest>

#include <memory>

using Store = std::unique_ptr<_BLSETTINGS, void (*)(_BLSETTINGS*)>;
using Ini = std::unique_ptr<BLINIFILE, void (*)(BLINIFILE*)>;

class tst_BlSharedFiles : public QObject
{
    Q_OBJECT

    static QByteArray contents(const QString& file)
    {
        QFile f(file);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    static void writeFile(const QString& file, const QByteArray& bytes)
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(bytes);
    }

private slots:
    void settingsKeepOthersChanges_data()
    {
        QTest::addColumn<QByteArray>("second"); // what the second store does: set, reset, delete
        QTest::addColumn<QByteArray>("expected"); // the file afterwards
        QTest::newRow("set") << QByteArray("set") << QByteArray("a = 1\nb = 2\nc = 3\nold = 0\n");
        QTest::newRow("reset") << QByteArray("reset") << QByteArray("a = 1\nc = 3\n");
        QTest::newRow("delete") << QByteArray("delete") << QByteArray("a = 1\nc = 3\n");
    }

    void settingsKeepOthersChanges()
    {
        QFETCH(QByteArray, second);
        QFETCH(QByteArray, expected);
        QTemporaryDir dir;
        const QString file = dir.filePath("user.conf");
        writeFile(file, "old = 0\n");
        const QByteArray name = QFile::encodeName(file);
        Store one(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        Store two(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        QVERIFY(BLSETTINGS_ChangeEx(one.get(), "a=1"));
        if (second == "set")
            QVERIFY(BLSETTINGS_ChangeEx(two.get(), "b=2"));
        else if (second == "reset")
            QVERIFY(BLSETTINGS_ResetValueEx(two.get(), "old"));
        else
            QVERIFY(BLSETTINGS_DeleteEx(two.get(), "old"));
        QVERIFY(BLSETTINGS_FlushEx(one.get(), 0));
        // A change made while the other store flushed is the third writer's.
        writeFile(file, contents(file) + "c = 3\n");
        QVERIFY(BLSETTINGS_FlushEx(two.get(), 0));
        QCOMPARE(contents(file), "# sova settings\n" + expected);
        // The store reads what the file holds once it wrote it, others' keys included.
        QCOMPARE(QByteArray(BLSETTINGS_GetStringEx(two.get(), "a=[none]")), QByteArray("1"));
        QCOMPARE(QByteArray(BLSETTINGS_GetStringEx(two.get(), "c=[none]")), QByteArray("3"));
    }

    // Secrets are kept beside the file: two stores each changing its own secret, the first
    // one creating the key file, keep both, and a deletion drops only its own.
    void secretsKeepOthersChanges()
    {
        QTemporaryDir dir;
        const QByteArray name = QFile::encodeName(dir.filePath("user.conf"));
        Store one(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        Store two(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        QVERIFY(BLSETTINGS_ChangeSecretEx(one.get(), "pw=first"));
        QVERIFY(BLSETTINGS_ChangeSecretEx(two.get(), "token=second"));
        QVERIFY(BLSETTINGS_ChangeSecretEx(one.get(), "gone=soon"));
        Store three(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        QCOMPARE(QByteArray(BLSETTINGS_GetSecretStringEx(three.get(), "pw=[none]")),
            QByteArray("first"));
        QCOMPARE(QByteArray(BLSETTINGS_GetSecretStringEx(three.get(), "token=[none]")),
            QByteArray("second"));
        QCOMPARE(QByteArray(BLSETTINGS_GetSecretStringEx(three.get(), "gone=[none]")),
            QByteArray("soon"));
        QVERIFY(BLSETTINGS_DeleteEx(one.get(), "gone"));
        Store four(BLSETTINGS_Create(name, nullptr), BLSETTINGS_Destroy);
        QCOMPARE(QByteArray(BLSETTINGS_GetSecretStringEx(four.get(), "gone=[none]")),
            QByteArray("none"));
        QCOMPARE(QByteArray(BLSETTINGS_GetSecretStringEx(four.get(), "token=[none]")),
            QByteArray("second"));
    }

    void iniKeepsOthersChanges_data()
    {
        QTest::addColumn<bool>("created"); // the second handle is made by Create, not Open
        QTest::addColumn<bool>("elsewhere"); // ...and saved under another name
        QTest::newRow("opened") << false << false;
        QTest::newRow("created for the file") << true << false;
        QTest::newRow("saved elsewhere") << false << true;
    }

    void iniKeepsOthersChanges()
    {
        QFETCH(bool, created);
        QFETCH(bool, elsewhere);
        QTemporaryDir dir;
        const QByteArray file = QFile::encodeName(dir.filePath("shared.ini"));
        writeFile(file, "; kept\n[s]\nold = 0\n");
        Ini one(BLINIFILE_Open(file), BLINIFILE_Close);
        Ini two(created ? BLINIFILE_Create(file) : BLINIFILE_Open(file), BLINIFILE_Close);
        QVERIFY(one && two);
        QVERIFY(BLINIFILE_WriteIntegerValue(one.get(), "s", "a", 1));
        QVERIFY(BLINIFILE_WriteIntegerValue(two.get(), "s", "old", 2));
        QVERIFY(BLINIFILE_Save(one.get(), file));
        const QByteArray other = QFile::encodeName(dir.filePath("other.ini"));
        QVERIFY(BLINIFILE_Save(two.get(), elsewhere ? other.constData() : file.constData()));
        if (elsewhere) {
            QCOMPARE(contents(file), QByteArray("; kept\n[s]\nold = 0\na = 1\n"));
            QCOMPARE(contents(other), QByteArray("; kept\n[s]\nold = 2\n"));
        } else {
            QCOMPARE(contents(file), QByteArray("; kept\n[s]\nold = 2\na = 1\n"));
        }
        // A save applies only what was written since the last one: the first handle's
        // earlier value of "a" does not come back over a later writer's.
        writeFile(file, "[s]\na = 9\n");
        QVERIFY(BLINIFILE_Save(one.get(), file));
        QCOMPARE(contents(file), QByteArray("[s]\na = 9\n"));
    }
};

QTEST_GUILESS_MAIN(tst_BlSharedFiles)
#include "tst_blsharedfiles.moc"
