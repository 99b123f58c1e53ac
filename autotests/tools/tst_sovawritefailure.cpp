// The sova commands that write audio, run under a file size limit: each must exit 1 naming the
// reason, leave an existing OUT as it was and leave no temporary file behind.
#include <QtTest>

#include <csignal>
#include <cstring>

#include <sys/resource.h>

class tst_SovaWriteFailure : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // Runs sova in dir with writes limited to `limit` bytes per file (EFBIG past it).
    static int runLimited(
        const QString& dir, const QStringList& arguments, rlim_t limit, QString* errors)
    {
        QProcess process;
        process.setWorkingDirectory(dir);
        // The child inherits the limit and the ignored signal at its start; the test's own
        // writes are not limited.
        rlimit saved;
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit limited = saved;
        limited.rlim_cur = limit;
        const auto previous = std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limited);
        process.start(QStringLiteral(SOVA_BINARY), arguments);
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previous);
        if (!process.waitForFinished(120000))
            return -1;
        *errors = QString::fromUtf8(process.readAllStandardError());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    }

    static bool makeTone(const QString& file, int channels, double seconds)
    {
        return QProcess::execute(QStringLiteral("sox"),
                   {"-n", "-r", "44100", "-c", QString::number(channels), file, "synth",
                       QString::number(seconds), "sine", "440"})
            == 0;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (QStandardPaths::findExecutable("sox").isEmpty())
            QSKIP("no sox on PATH");
        QVERIFY(makeTone(path("stereo.wav"), 2, 5.0));
        QVERIFY(makeTone(path("a.wav"), 1, 3.0));
        QVERIFY(makeTone(path("b.wav"), 1, 3.0));
        QVERIFY(makeTone(path("short1.wav"), 1, 0.1));
        QVERIFY(makeTone(path("short2.wav"), 1, 0.1));
        QVERIFY(QProcess::execute(QStringLiteral("ffmpeg"),
                    {"-v", "error", "-y", "-i", path("stereo.wav"), "-c:a", "libmp3lame",
                        path("stream.mp3")})
            == 0);
    }

    void failedWriteKeepsOut_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("limit");
        QTest::newRow("convert to WAV")
            << QStringList {"convert", "stereo.wav", "out.wav"} << 100000;
        QTest::newRow("convert to FLAC")
            << QStringList {"convert", "stereo.wav", "out.flac"} << 100000;
        QTest::newRow("fx") << QStringList {"fx", "stereo.wav", "out.wav", "--chain", "gain[db=-1]"}
                            << 100000;
        // Fewer bytes than the I/O buffer holds: the failure only shows when OUT is closed.
        QTest::newRow("fx, failing at the close")
            << QStringList {"fx", "short1.wav", "out.wav", "--chain", "gain[db=-1]"} << 4000;
        QTest::newRow("join") << QStringList {"join", "a.wav", "b.wav", "out.wav"} << 100000;
        QTest::newRow("join, failing at the close")
            << QStringList {"join", "short1.wav", "short2.wav", "out.wav"} << 10000;
        QTest::newRow("split") << QStringList {"split", "stereo.wav", "out.wav", "out2.wav"}
                               << 100000;
        QTest::newRow("decode") << QStringList {"decode", "stream.mp3", "out.wav", "--codec", "MP3"}
                                << 100000;
    }
    void failedWriteKeepsOut()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, limit);
        // An OUT from an earlier run, which a failed run must not touch.
        QVERIFY(makeTone(path("out.wav"), 1, 0.1));
        QVERIFY(makeTone(path("out2.wav"), 1, 0.1));
        QFile::remove(path("out.flac"));
        QVERIFY(makeTone(path("out.flac"), 1, 0.1));
        const QByteArray before = [&] {
            QFile f(path("out.wav"));
            return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
        }();
        const QStringList files = QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden);
        QString errors;
        const int status = runLimited(m_dir.path(), arguments, rlim_t(limit), &errors);
        QCOMPARE(status, 1);
        QVERIFY2(errors.contains(QString::fromUtf8(std::strerror(EFBIG))), qPrintable(errors));
        QFile f(path("out.wav"));
        QVERIFY(f.open(QIODevice::ReadOnly));
        QCOMPARE(f.readAll(), before);
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden), files);
    }
};

QTEST_GUILESS_MAIN(tst_SovaWriteFailure)
#include "tst_sovawritefailure.moc"
