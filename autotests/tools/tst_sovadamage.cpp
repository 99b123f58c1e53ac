#include "../peertools.h"

#include <QtTest>

// Damaged inputs and guessed lengths through the sova tool: one warning naming the file, where
// and how much was lost, exit 0; under --strict exit 1 with OUT untouched; `info` marks a
// guessed length and counts it with --exact.
class tst_SovaDamage : public QObject
{
    Q_OBJECT

private:
    struct Result
    {
        int status;
        QString out;
        QString err;
    };

    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }

    static Result run(const QString& program, const QStringList& arguments)
    {
        QProcess process;
        process.start(program, arguments);
        if (!process.waitForFinished(60000))
            return {-1, QString(), QStringLiteral("did not finish")};
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
    }
    static Result sova(const QStringList& arguments)
    {
        return run(QStringLiteral(SOVA_BINARY), arguments);
    }
    static QByteArray contents(const QString& file)
    {
        QFile f(file);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QCOMPARE(run(QStringLiteral("sox"),
                     {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("16000"),
                         QStringLiteral("-c"), QStringLiteral("2"), QStringLiteral("-b"),
                         QStringLiteral("16"), path(QStringLiteral("x.flac")),
                         QStringLiteral("synth"), QStringLiteral("3"), QStringLiteral("sine"),
                         QStringLiteral("300"), QStringLiteral("gain"), QStringLiteral("-6")})
                     .status,
            0);
        QByteArray data = contents(path(QStringLiteral("x.flac")));
        QFile cut(path(QStringLiteral("cut.flac")));
        QVERIFY(cut.open(QIODevice::WriteOnly));
        cut.write(data.left(data.size() / 2));
        cut.close();
        QCOMPARE(run(QStringLiteral("ffmpeg"),
                     {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"),
                         path(QStringLiteral("x.flac")), QStringLiteral("-c:a"),
                         QStringLiteral("ac3"), path(QStringLiteral("x.ac3"))})
                     .status,
            0);
    }

    // Every reading command warns once about a cut input and succeeds; --strict fails and
    // leaves OUT as it was.
    void damagedInputWarnedOrRefused_data()
    {
        QTest::addColumn<QStringList>("arguments"); // IN and OUT are appended where named
        QTest::addColumn<bool>("writes");
        QTest::newRow("convert") << QStringList {QStringLiteral("convert"), QStringLiteral("-q"),
            QStringLiteral("IN"), QStringLiteral("OUT")}
                                 << true;
        QTest::newRow("fx") << QStringList {QStringLiteral("fx"), QStringLiteral("-q"),
            QStringLiteral("--chain"), QStringLiteral("gain[db=-1]"), QStringLiteral("IN"),
            QStringLiteral("OUT")}
                            << true;
        QTest::newRow("stats") << QStringList {QStringLiteral("stats"), QStringLiteral("IN")}
                               << false;
        QTest::newRow("spectrum") << QStringList {QStringLiteral("spectrum"), QStringLiteral("IN"),
            QStringLiteral("--csv"), QStringLiteral("OUT")}
                                  << true;
        QTest::newRow("vad") << QStringList {QStringLiteral("vad"), QStringLiteral("IN"),
            QStringLiteral("--labels"), QStringLiteral("OUT")}
                             << true;
        QTest::newRow("split") << QStringList {QStringLiteral("split"), QStringLiteral("IN"),
            QStringLiteral("OUT")}
                               << true;
        QTest::newRow("join") << QStringList {QStringLiteral("join"), QStringLiteral("IN"),
            QStringLiteral("OUT")}
                              << true;
    }
    void damagedInputWarnedOrRefused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, writes);
        const QString in = path(QStringLiteral("cut.flac"));
        const QString out = path(QStringLiteral("out-%1.wav").arg(QTest::currentDataTag()));
        arguments.replaceInStrings(QRegularExpression(QStringLiteral("^IN$")), in);
        arguments.replaceInStrings(QRegularExpression(QStringLiteral("^OUT$")), out);

        Result r = sova(arguments);
        QCOMPARE(r.status, 0);
        QCOMPARE(r.err.count(QStringLiteral("warning")), 1);
        QVERIFY2(r.err.contains(in) && r.err.contains(QStringLiteral("cut off at 00:00:01."))
                && r.err.contains(QStringLiteral("s of audio lost")),
            qPrintable(r.err));
        if (writes)
            QVERIFY(QFileInfo::exists(out));

        // Under --strict a damaged input is a failure, and OUT keeps what it held.
        QFile old(out);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("old");
        old.close();
        r = sova(QStringList(arguments) << QStringLiteral("--strict"));
        QCOMPARE(r.status, 1);
        QVERIFY2(
            r.err.contains(in) && r.err.contains(QStringLiteral("--strict")), qPrintable(r.err));
        QCOMPARE(contents(out), QByteArray("old"));
    }

    // A clean input: no warning, and --strict changes nothing.
    void cleanInputNotWarned()
    {
        const Result r = sova(
            {QStringLiteral("stats"), QStringLiteral("--strict"), path(QStringLiteral("x.flac"))});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.err.isEmpty(), qPrintable(r.err));
    }

    // `info` marks a length guessed from the bit rate; --exact counts what ffmpeg decodes.
    void infoMarksGuessedLengths()
    {
        const QString file = path(QStringLiteral("x.ac3"));
        Result r = sova({QStringLiteral("info"), file});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(QStringLiteral("frames      \u2248 "))
                && r.out.contains(QStringLiteral("(estimated)")),
            qPrintable(r.out));
        r = sova({QStringLiteral("info"), QStringLiteral("--exact"), file});
        QCOMPARE(r.status, 0);
        QVERIFY2(!r.out.contains(QStringLiteral("estimated")), qPrintable(r.out));
        QVERIFY2(r.out.contains(QStringLiteral("frames      %1\n").arg(peer::ffmpegFrames(file))),
            qPrintable(r.out));
        r = sova(
            {QStringLiteral("info"), QStringLiteral("--exact"), path(QStringLiteral("cut.flac"))});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(QStringLiteral("frames      %1\n")
                                    .arg(peer::ffmpegFrames(path(QStringLiteral("cut.flac")))))
                && r.out.contains(QStringLiteral("damage      ")),
            qPrintable(r.out));
    }
};

QTEST_GUILESS_MAIN(tst_SovaDamage)
#include "tst_sovadamage.moc"
