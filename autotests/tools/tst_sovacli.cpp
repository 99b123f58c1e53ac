#include <QtTest>

// Runs the sova tool as a user would and checks what it prints and how it exits.
class tst_SovaCli : public QObject {
    Q_OBJECT

private:
    struct Result {
        int status;
        QString out;
        QString err;
    };

    static Result run(const QStringList& arguments,
                      const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(SOVA_BINARY), arguments);
        if (!process.waitForFinished(30000))
            return {-1, QString(), QStringLiteral("did not finish")};
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
                QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

private slots:
    void exitStatus_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("stderrPattern");
        QTest::newRow("no command") << QStringList{} << 2 << "";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2
                                         << "unknown command 'frobnicate'";
        QTest::newRow("help") << QStringList{"help"} << 0 << "";
        QTest::newRow("help of a command") << QStringList{"help", "options"} << 0 << "";
        QTest::newRow("help of nothing") << QStringList{"help", "nothing"} << 2
                                         << "unknown command 'nothing'";
        QTest::newRow("version with arguments") << QStringList{"version", "x"} << 2
                                                << "takes no arguments";
        QTest::newRow("unknown option") << QStringList{"--bogus"} << 2
                                        << "Unknown option 'bogus'";
        QTest::newRow("unknown option of a command") << QStringList{"version", "--short"} << 2
                                                     << "Unknown option 'short'";
        QTest::newRow("command --help") << QStringList{"options", "--help"} << 0 << "";
        QTest::newRow("options without key") << QStringList{"options", "a=1"} << 2
                                             << "needs an option string and a key";
    }

    void exitStatus()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, stderrPattern);
        const Result r = run(arguments);
        QCOMPARE(r.status, status);
        if (!stderrPattern.isEmpty())
            QVERIFY2(r.err.contains(stderrPattern), qPrintable(r.err));
        if (status == 0)
            QVERIFY2(r.err.isEmpty(), qPrintable(r.err));
    }

    void helpListsEveryCommand()
    {
        const Result r = run({QStringLiteral("help")});
        for (const char* name : {"help", "version", "options", "settings", "ini", "windows",
                                 "selftest"})
            QVERIFY2(r.out.contains(QRegularExpression(QStringLiteral("^  %1 ").arg(
                         QLatin1String(name)), QRegularExpression::MultilineOption)),
                     qPrintable(r.out));
    }

    void negativeValueAfterDoubleDash()
    {
        const Result r = run({QStringLiteral("options"), QStringLiteral("--"),
                              QStringLiteral("-gain=-3"), QStringLiteral("-gain")});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(QStringLiteral("integer: -3\n")), qPrintable(r.out));
    }


    void settings()
    {
        QTemporaryDir home;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
        const QString file = home.filePath(QStringLiteral("sova/settings.conf"));
        auto settings = [&](QStringList arguments) {
            return run(QStringList{QStringLiteral("settings")} + arguments, environment);
        };
        QCOMPARE(settings({"set", "audio.rate", "48000"}).status, 0);
        QVERIFY2(QFile::exists(file), "the user's file is created where the help says");
        QCOMPARE(settings({"set", "audio.name", "a = b, [c]"}).status, 0);
        QCOMPARE(settings({"get", "audio.rate"}).out, QStringLiteral("48000\n"));
        QCOMPARE(settings({"list", "audio."}).out,
                 QStringLiteral("audio.name=a = b, [c]\naudio.rate=48000\n"));
        QCOMPARE(settings({"reset", "audio.rate"}).status, 0);
        const Result missing = settings({"get", "audio.rate"});
        QCOMPARE(missing.status, 1);
        QVERIFY2(missing.err.contains(QStringLiteral("no setting 'audio.rate'")), qPrintable(missing.err));
        QVERIFY(settings({"reset", "audio.rate"}).err.contains(QStringLiteral("no value of its own")));
        QVERIFY(settings({"set", "bad key", "1"}).err.contains(QStringLiteral("not a valid key")));
        QCOMPARE(settings({"get"}).status, 2);
        QCOMPARE(settings({"frob"}).status, 2);

        const QString other = home.filePath(QStringLiteral("other.conf"));
        QCOMPARE(settings({"--file", other, "set", "x", "1"}).status, 0);
        QVERIFY(QFile::exists(other));
        QVERIFY(settings({"list"}).out.contains(QStringLiteral("audio.name=")));
        QVERIFY(!settings({"list"}).out.contains(QStringLiteral("x=1")));
    }

    void ini()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("take.ini"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("; the take\n[take]\nrate = 44.1kHz\nname = One\n[mix]\ngain = -6dB\n");
        file.close();
        auto ini = [&](QStringList arguments) {
            return run(QStringList{QStringLiteral("ini"), path} + arguments);
        };
        QCOMPARE(ini({}).out, QStringLiteral("[take]\nrate = 44100\nname = One\n\n[mix]\ngain = -6\n"));
        QCOMPARE(ini({"take", "name"}).out, QStringLiteral("One\n"));
        QCOMPARE(ini({"take", "count", "3"}).status, 0);
        QCOMPARE(ini({"take"}).out, QStringLiteral("rate = 44100\nname = One\ncount = 3\n"));
        file.open(QIODevice::ReadOnly);
        QVERIFY2(file.readAll().startsWith("; the take\n[take]\n"), "comments are kept");
        file.close();
        QVERIFY(ini({"none"}).err.contains(QStringLiteral("no section 'none'")));
        QVERIFY(ini({"take", "none"}).err.contains(QStringLiteral("no key 'none'")));
        const Result missing = run({QStringLiteral("ini"), dir.filePath(QStringLiteral("no.ini"))});
        QCOMPARE(missing.status, 1);
        QVERIFY2(missing.err.contains(QStringLiteral("does not exist")), qPrintable(missing.err));
        const QString binary = dir.filePath(QStringLiteral("binary.ini"));
        QFile b(binary);
        QVERIFY(b.open(QIODevice::WriteOnly));
        b.write(QByteArray("\0\1\2", 3));
        b.close();
        QVERIFY(run({QStringLiteral("ini"), binary}).err.contains(QStringLiteral("not an ini file")));
    }

    void windowsAndSelftest()
    {
        const Result windows = run({QStringLiteral("windows")});
        QCOMPARE(windows.status, 0);
        const QStringList lines = windows.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 11);
        QVERIFY2(lines[6].startsWith(QStringLiteral(" 6  ")) && lines[6].endsWith(QStringLiteral("(default)")),
                 qPrintable(lines[6]));
        const Result selftest = run({QStringLiteral("selftest")});
        QCOMPARE(selftest.status, 0);
        QCOMPARE(selftest.out, QStringLiteral("ring buffer: PASS\n"));
        QVERIFY2(selftest.err.isEmpty(), qPrintable(selftest.err));
    }

    void version()
    {
        const Result r = run({QStringLiteral("version")});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.startsWith(QStringLiteral("sova 3.11.5.1\nlibsovacore version 3.11.5.1 (")),
                 qPrintable(r.out));
    }

    void options()
    {
        const Result r = run({QStringLiteral("options"),
                              QStringLiteral("sr=44100,nc=2,name='a, b',g=[0.5,1]"),
                              QStringLiteral("nc"), QStringLiteral("name"), QStringLiteral("g"),
                              QStringLiteral("nbits")});
        QCOMPARE(r.status, 0);
        const QStringList blocks = r.out.split(QRegularExpression(QStringLiteral("\n(?=\\S)")));
        QCOMPARE(blocks.size(), 4);
        QVERIFY2(blocks[0].contains(QStringLiteral("integer: 2\n")), qPrintable(blocks[0]));
        QVERIFY2(blocks[0].contains(QStringLiteral("boolean: -\n")), qPrintable(blocks[0]));
        QVERIFY2(blocks[1].contains(QStringLiteral("text:    a, b\n")), qPrintable(blocks[1]));
        QVERIFY2(blocks[1].contains(QStringLiteral("integer: -\n")), qPrintable(blocks[1]));
        QVERIFY2(blocks[2].contains(QStringLiteral("vector:  [0.5,1] (2 elements)")),
                 qPrintable(blocks[2]));
        QVERIFY2(blocks[2].contains(QStringLiteral("matrix:  [[0.5,1]] (1 x 2)")),
                 qPrintable(blocks[2]));
        QVERIFY2(blocks[3].contains(QStringLiteral("text:    (absent or empty)")),
                 qPrintable(blocks[3]));
        QVERIFY2(blocks[3].contains(QStringLiteral("double:  -\n")), qPrintable(blocks[3]));
    }
};

QTEST_GUILESS_MAIN(tst_SovaCli)
#include "tst_sovacli.moc"
