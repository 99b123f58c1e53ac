#include "../peertools.h"

#include <QtTest>

#include <csignal>
#include <memory>
#include <random>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

// Writers of settings, ini and audio files at the same time, killed at any moment, or given a
// file that is not theirs: no update lost, nothing left behind, nothing destroyed.
class tst_SovaWriters : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    static constexpr qint64 kFrames = 44100 * 30;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // The command line that sets key to value in file: a settings file or an ini file.
    static QStringList setCommand(
        const QString& kind, const QString& file, const QString& key, const QString& value)
    {
        if (kind == QLatin1String("settings"))
            return {"settings", "--file", file, "set", key, value};
        return {"ini", file, "section", key, value};
    }

    static QByteArray contents(const QString& file)
    {
        QFile f(file);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    static void writeFile(const QString& file, const QByteArray& bytes)
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(f.write(bytes), qint64(bytes.size()));
    }

    // Everything in dir, hidden files included, sorted.
    static QStringList entries(const QString& dir)
    {
        QStringList names = QDir(dir).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        names.sort();
        return names;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const peer::Run made = peer::run(QStringLiteral("ffmpeg"),
            {"-v", "error", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100", "-ac", "2",
                "-t", "30", "-c:a", "pcm_s16le", path("long.wav")});
        QVERIFY2(made.status == 0, made.err.constData());
        QCOMPARE(peer::ffmpegFrames(path("long.wav")), kFrames);
    }

    void concurrentWritersLoseKeys_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("settings") << "settings";
        QTest::newRow("ini") << "ini";
    }

    // Ten processes started together, each setting its own key: all ten keys are kept.
    void concurrentWritersLoseKeys()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("shared.conf"));
        std::vector<std::unique_ptr<QProcess>> writers;
        for (int i = 0; i < 10; ++i) {
            writers.push_back(std::make_unique<QProcess>());
            writers.back()->start(QStringLiteral(SOVA_BINARY),
                setCommand(
                    kind, file, QStringLiteral("key%1").arg(i), QStringLiteral("v%1").arg(i)));
        }
        for (auto& writer : writers) {
            QVERIFY(writer->waitForFinished(60000));
            QVERIFY2(writer->exitStatus() == QProcess::NormalExit && writer->exitCode() == 0,
                writer->readAllStandardError().constData());
        }
        const QByteArray text = contents(file);
        for (int i = 0; i < 10; ++i)
            QVERIFY2(
                text.contains(QStringLiteral("key%1 = v%1\n").arg(i).toUtf8()), text.constData());
        QCOMPARE(entries(dir.path()), QStringList({".shared.conf.lock", "shared.conf"}));
    }

    void heldLock_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("settings") << "settings";
        QTest::newRow("ini") << "ini";
    }

    // A writer that cannot have the lock gives up after a bounded wait, says so and leaves the
    // file as it was; once the lock is free the same write goes through.
    void heldLock()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("held.conf"));
        const QByteArray before = "[section]\nold = 1\n";
        writeFile(file, before);
        const QByteArray lockName
            = QFile::encodeName(dir.filePath(QStringLiteral(".held.conf.lock")));
        const int fd = ::open(lockName.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        QVERIFY(fd >= 0);
        QCOMPARE(::flock(fd, LOCK_EX), 0);
        const QStringList command = setCommand(kind, file, "new", "2");
        const peer::Run refused = peer::run(QStringLiteral(SOVA_BINARY), command);
        ::close(fd);
        QCOMPARE(refused.status, 1);
        QVERIFY2(
            refused.err.contains(QString("'%1' is locked by another writer").arg(file).toUtf8()),
            refused.err.constData());
        QCOMPARE(contents(file), before);
        const peer::Run done = peer::run(QStringLiteral(SOVA_BINARY), command);
        QVERIFY2(done.status == 0, done.err.constData());
        QVERIFY(contents(file).contains("new = 2\n"));
    }

    void foreignFileIsKept_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("name");
        QTest::newRow("settings over audio") << "settings"
                                             << "song.wav";
        QTest::newRow("ini over audio") << "ini"
                                        << "song.wav";
        QTest::newRow("settings over binary") << "settings"
                                              << "blob";
        QTest::newRow("ini over binary") << "ini"
                                         << "blob";
    }

    // A target that does not read as text fails naming it, byte for byte as it was.
    void foreignFileIsKept()
    {
        QFETCH(QString, kind);
        QFETCH(QString, name);
        QTemporaryDir dir;
        const QString file = dir.filePath(name);
        if (name == QLatin1String("blob"))
            writeFile(file, QByteArray("a = 1\n\0\x01\x02 b = 2\n", 17));
        else
            QVERIFY(QFile::copy(path("long.wav"), file));
        const QByteArray before = contents(file);
        const peer::Run r
            = peer::run(QStringLiteral(SOVA_BINARY), setCommand(kind, file, "a.b", "1"));
        QCOMPARE(r.status, 1);
        QVERIFY2(r.err.contains(("'" + file + "'").toUtf8()), r.err.constData());
        QVERIFY(contents(file) == before);
    }

    void killedWriterLeavesNothing_data()
    {
        QTest::addColumn<QStringList>("command"); // "OUT" stands for the target
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("rounds");
        QTest::newRow("convert to flac")
            << QStringList {"convert", "-q", path("long.wav"), "OUT"} << "out.flac" << 8;
        QTest::newRow("convert to wav")
            << QStringList {"convert", "-q", path("long.wav"), "OUT"} << "out.wav" << 8;
        QTest::newRow("settings set")
            << QStringList {"settings", "--file", "OUT", "set", "marker", "x"} << "big.conf" << 20;
        QTest::newRow("ini write")
            << QStringList {"ini", "OUT", "section", "marker", "x"} << "big.ini" << 20;
    }

    // SIGKILL at random moments of a run over an existing target: the target stays whole (old
    // or new) and the directory holds nothing else but the lock file of a settings or ini file,
    // and for a kill in the instant before the final rename, a whole copy under a hidden name,
    // which the next writer removes.
    void killedWriterLeavesNothing()
    {
        QFETCH(QStringList, command);
        QFETCH(QString, target);
        QFETCH(int, rounds);
        QTemporaryDir dir;
        const QString out = dir.filePath(target);
        command.replaceInStrings(QRegularExpression("^OUT$"), out);
        const bool audio = command.first() == QLatin1String("convert");
        if (!audio) {
            QByteArray big = "[section]\n";
            for (int i = 0; i < 40000; ++i)
                big += "pad" + QByteArray::number(i) + " = " + QByteArray(24, 'p') + "\n";
            writeFile(out, big);
        }
        // A full run first: the target exists from then on, and the run's length bounds the
        // moments of the kills.
        QElapsedTimer timer;
        timer.start();
        const peer::Run first = peer::run(QStringLiteral(SOVA_BINARY), command);
        QVERIFY2(first.status == 0, first.err.constData());
        const int length = int(timer.elapsed());
        QStringList expected {target};
        if (!audio)
            expected << "." + target + ".lock";
        expected.sort();
        std::mt19937 random(20261125);
        int killed = 0;
        for (int round = 0; round < rounds; ++round) {
            QProcess sova;
            sova.start(QStringLiteral(SOVA_BINARY), command);
            QVERIFY(sova.waitForStarted());
            QThread::msleep(std::uniform_int_distribution<unsigned>(0, length)(random));
            ::kill(pid_t(sova.processId()), SIGKILL);
            QVERIFY(sova.waitForFinished(60000));
            killed += sova.exitStatus() == QProcess::CrashExit;
            QStringList left = entries(dir.path());
            for (const QString& name : entries(dir.path())) {
                if (expected.contains(name))
                    continue;
                // A kill between linking the finished file under a hidden name and renaming it
                // over the target leaves that link: a whole file, never a partial one.
                QVERIFY2(name.startsWith("." + target + ".sova-"), qPrintable(name));
                const QString link = dir.filePath(name);
                if (audio)
                    QCOMPARE(peer::ffmpegFrames(link), kFrames);
                else
                    QVERIFY(
                        contents(link).contains("pad39999 = ") && contents(link).endsWith('\n'));
                left.removeOne(name);
            }
            QCOMPARE(left, expected);
            if (audio) {
                QCOMPARE(peer::ffmpegFrames(out), kFrames);
            } else {
                const QByteArray text = contents(out);
                QVERIFY(text.contains("pad39999 = ") && text.endsWith('\n'));
            }
        }
        QVERIFY(killed > 0); // the kills met running writers, not only finished ones
        // The next writer removes the copies dead ones left.
        const peer::Run last = peer::run(QStringLiteral(SOVA_BINARY), command);
        QVERIFY2(last.status == 0, last.err.constData());
        QCOMPARE(entries(dir.path()), expected);
    }
};

QTEST_GUILESS_MAIN(tst_SovaWriters)
#include "tst_sovawriters.moc"
