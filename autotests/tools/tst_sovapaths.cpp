#include <QtTest>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

// Where sova's outputs land: standard streams, FIFOs, devices, links, the inputs themselves,
// missing directories, and what a signal leaves behind. Audio is checked by ffmpeg.
class tst_SovaPaths : public QObject
{
    Q_OBJECT

private:
    struct Result
    {
        int status;
        QString err;
    };

    static Result run(const QStringList& arguments)
    {
        QProcess process;
        process.start(QStringLiteral(SOVA_BINARY), arguments);
        if (!process.waitForFinished(60000))
            return {-1, QStringLiteral("did not finish")};
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            QString::fromUtf8(process.readAllStandardError())};
    }

    // A 16-bit stereo WAV of frames frames of a ramp.
    static void writeWav(const QString& path, int rate, int frames)
    {
        QByteArray file;
        QDataStream s(&file, QIODevice::WriteOnly);
        s.setByteOrder(QDataStream::LittleEndian);
        const quint32 bytes = quint32(frames) * 4;
        s.writeRawData("RIFF", 4);
        s << quint32(36 + bytes);
        s.writeRawData("WAVEfmt ", 8);
        s << quint32(16) << quint16(1) << quint16(2) << quint32(rate) << quint32(rate * 4)
          << quint16(4) << quint16(16);
        s.writeRawData("data", 4);
        s << bytes;
        for (int i = 0; i < frames; ++i)
            s << qint16(i % 20000) << qint16(-(i % 20000));
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(file), qint64(file.size()));
    }

    static QByteArray contents(const QString& path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    // Starts ffmpeg decoding path ("-": its standard input) to 16-bit mono on its output.
    static void startDecoder(QProcess& ffmpeg, const QString& path)
    {
        ffmpeg.start(
            QStringLiteral("ffmpeg"), {"-v", "error", "-i", path, "-f", "s16le", "-ac", "1", "-"});
    }

    // Frames that a started decoder gives, -1 when it fails.
    static qint64 decodedFrames(QProcess& ffmpeg)
    {
        if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitCode() != 0)
            return -1;
        return ffmpeg.readAllStandardOutput().size() / 2;
    }

    static qint64 ffmpegFrames(const QString& path)
    {
        QProcess ffmpeg;
        startDecoder(ffmpeg, path);
        return decodedFrames(ffmpeg);
    }

    // Hidden temporaries the engine left in dir.
    static QStringList temporaries(const QString& dir)
    {
        return QDir(dir).entryList({QStringLiteral(".*sova-*")}, QDir::Files | QDir::Hidden);
    }

    // Whether process pid has a file of dir open: its output, named or not (an unnamed
    // temporary reads as "dir/#inode (deleted)").
    static bool writesInto(qint64 pid, const QString& dir)
    {
        for (int fd = 0; fd < 1024; ++fd) {
            char target[4096];
            const QByteArray link
                = QByteArray("/proc/") + QByteArray::number(pid) + "/fd/" + QByteArray::number(fd);
            const ssize_t n = ::readlink(link.constData(), target, sizeof target - 1);
            if (n > 0 && QByteArray(target, int(n)).startsWith(QFile::encodeName(dir + '/')))
                return true;
        }
        return false;
    }

    static bool isCharDevice(const QString& path)
    {
        struct stat st;
        return ::stat(QFile::encodeName(path).constData(), &st) == 0 && S_ISCHR(st.st_mode);
    }

    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }
    static constexpr int kFrames = 44100;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        writeWav(path("in.wav"), 44100, kFrames);
        // Long enough that a signal arrives while it is still being encoded.
        writeWav(path("long.wav"), 44100, 44100 * 120);
    }

    void sameFileIsRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("join a a a")
            << QStringList {"join", "a.wav", "a.wav", "a.wav"} << "both an input and the output";
        QTest::newRow("convert a a")
            << QStringList {"convert", "a.wav", "a.wav"} << "both an input and the output";
        QTest::newRow("through a symlink")
            << QStringList {"convert", "a.wav", "sym.wav"} << "same file as the input 'a.wav'";
        QTest::newRow("through a hard link")
            << QStringList {"convert", "hard.wav", "a.wav"} << "same file as the input";
        QTest::newRow("read through fmtconv") << QStringList {"fx", "--chain", "gain[db=-6]",
            "a.wav:fmtconv[sr=8000]", "a.wav"} << "same file as the input";
        QTest::newRow("split to one name twice")
            << QStringList {"split", "in.wav", "l.wav", "./l.wav"} << "named twice";
    }

    void sameFileIsRefused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        QDir::setCurrent(m_dir.path());
        QFile::remove(path("a.wav"));
        QFile::remove(path("hard.wav"));
        QFile::remove(path("sym.wav"));
        QVERIFY(QFile::copy(path("in.wav"), path("a.wav")));
        QCOMPARE(::link("a.wav", "hard.wav"), 0);
        QVERIFY(QFile::link(QStringLiteral("a.wav"), path("sym.wav")));
        const QByteArray before = contents(path("a.wav"));

        const Result r = run(arguments);
        QCOMPARE(r.status, 2);
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
        QCOMPARE(contents(path("a.wav")), before);
        QVERIFY(!QFileInfo::exists(path("l.wav")));
        QVERIFY(temporaries(m_dir.path()).isEmpty());
    }

    void outputDirectoryIsChecked_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("message");
        QTest::newRow("missing directory") << "nowhere/out.wav"
                                           << "the directory 'nowhere' does not exist";
        QTest::newRow("a file as directory") << "in.wav/out.wav"
                                             << "'in.wav' is not a directory";
        QTest::newRow("a directory as output") << "."
                                               << "'.': it is a directory";
        QTest::newRow("link into a missing directory")
            << "tonowhere.wav"
            << "'tonowhere.wav': No such file or directory (the directory 'nowhere' does not exist)";
    }

    void outputDirectoryIsChecked()
    {
        QFETCH(QString, output);
        QFETCH(QString, message);
        QDir::setCurrent(m_dir.path());
        QFile::remove(path("tonowhere.wav"));
        QVERIFY(QFile::link(QStringLiteral("nowhere/x.wav"), path("tonowhere.wav")));
        const Result r = run({"convert", "-q", "in.wav", output});
        QCOMPARE(r.status, 1);
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
    }

    // A FIFO gets the stream; it is not replaced by a regular file.
    void fifoIsWrittenInPlace()
    {
        const QString fifo = path("fifo");
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        qint64 frames = -2;
        QThread* reader = QThread::create([&] { frames = ffmpegFrames(fifo); });
        reader->start();
        const Result r = run({"convert", "-q", path("in.wav"), fifo, "--format", "wav"});
        QVERIFY(reader->wait(60000));
        delete reader;
        QCOMPARE(r.status, 0);
        QCOMPARE(frames, qint64(kFrames));
        QVERIFY(QFileInfo(fifo).exists() && !QFileInfo(fifo).isFile());
    }

    void deviceIsWrittenInPlace_data()
    {
        QTest::addColumn<bool>("throughLink");
        QTest::newRow("/dev/null") << false;
        QTest::newRow("link to /dev/null") << true;
    }

    void deviceIsWrittenInPlace()
    {
        QFETCH(bool, throughLink);
        const QString link = path("null.wav");
        QFile::remove(link);
        if (throughLink)
            QVERIFY(QFile::link(QStringLiteral("/dev/null"), link));
        const QString target = throughLink ? link : QStringLiteral("/dev/null");
        const Result r = run({"convert", "-q", path("in.wav"), target, "--format", "flac"});
        QCOMPARE(r.status, 0);
        QVERIFY(isCharDevice(QStringLiteral("/dev/null")));
        if (throughLink)
            QCOMPARE(QFileInfo(link).symLinkTarget(), QStringLiteral("/dev/null"));
        QVERIFY(temporaries(m_dir.path()).isEmpty());
    }

    void symlinkIsKept_data()
    {
        QTest::addColumn<QStringList>("links"); // name -> next, the last one's target
        QTest::addColumn<bool>("targetExists");
        QTest::newRow("to a file") << QStringList {"link.flac", "target.flac"} << true;
        QTest::newRow("dangling") << QStringList {"link.flac", "target.flac"} << false;
        QTest::newRow("chain") << QStringList {"link.flac", "middle.flac", "sub/target.flac"}
                               << true;
    }

    void symlinkIsKept()
    {
        QFETCH(QStringList, links);
        QFETCH(bool, targetExists);
        QDir work(path("links"));
        work.removeRecursively();
        QVERIFY(work.mkpath(QStringLiteral("sub")));
        const QString target = work.filePath(links.last());
        if (targetExists) {
            QFile junk(target);
            QVERIFY(junk.open(QIODevice::WriteOnly));
            junk.write("not audio");
        }
        for (int i = 0; i + 1 < links.size(); ++i)
            QVERIFY(QFile::link(links.at(i + 1), work.filePath(links.at(i))));

        const Result r = run({"convert", "-q", path("in.wav"), work.filePath(links.first())});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        for (int i = 0; i + 1 < links.size(); ++i)
            QVERIFY2(QFileInfo(work.filePath(links.at(i))).isSymLink(), qPrintable(links.at(i)));
        QVERIFY(QFileInfo(target).isFile() && !QFileInfo(target).isSymLink());
        QCOMPARE(ffmpegFrames(target), qint64(kFrames));
        QVERIFY(temporaries(work.path()).isEmpty());
        QVERIFY(temporaries(work.filePath(QStringLiteral("sub"))).isEmpty());
    }

    // sova writes standard output and ffmpeg reads the pipe: every frame arrives, and
    // nothing the command prints gets mixed in.
    void standardOutput_data()
    {
        QTest::addColumn<QStringList>("arguments");
        const QString in = path("in.wav");
        const QStringList to = {"-", "--format"};
        // WAV and AIFF finish their headers last (spooled); the others stream as made.
        for (const char* format : {"wav", "aiff", "flac", "m4a[codec=alac]", "mka"})
            QTest::newRow(format) << QStringList {"convert", "-q", in} + to + QStringList(format);
        QTest::newRow("fx") << QStringList {"fx", "--chain", "gain[db=0]", in} + to
                + QStringList("wav");
        QTest::newRow("join") << QStringList {"join", in, in} + to + QStringList("flac");
        QTest::newRow("split") << QStringList {"split", in} + to + QStringList("wav");
    }

    void standardOutput()
    {
        QFETCH(QStringList, arguments);
        QProcess sova, ffmpeg;
        sova.setStandardOutputProcess(&ffmpeg);
        sova.start(QStringLiteral(SOVA_BINARY), arguments);
        startDecoder(ffmpeg, QStringLiteral("-"));
        const qint64 frames = decodedFrames(ffmpeg);
        QVERIFY(sova.waitForFinished(60000));
        QCOMPARE(sova.exitCode(), 0);
        QCOMPARE(frames, qint64(kFrames));
    }

    // Standard output carries one WAV file and nothing else: a command's report goes to
    // standard error.
    void standardOutputHoldsOnlyAudio_data()
    {
        QTest::addColumn<QStringList>("arguments");
        const QString in = path("in.wav");
        const QStringList to = {"-", "--format", "wav"};
        QTest::newRow("convert") << QStringList {"convert", in} + to;
        QTest::newRow("fx") << QStringList {"fx", "--chain", "gain[db=0]", in} + to;
        QTest::newRow("split") << QStringList {"split", in} + to;
    }

    void standardOutputHoldsOnlyAudio()
    {
        QFETCH(QStringList, arguments);
        QProcess sova;
        sova.start(QStringLiteral(SOVA_BINARY), arguments);
        QVERIFY(sova.waitForFinished(60000));
        QCOMPARE(sova.exitCode(), 0);
        const QByteArray bytes = sova.readAllStandardOutput();
        QVERIFY(bytes.startsWith("RIFF") && bytes.size() > 8);
        quint32 riffSize = 0;
        memcpy(&riffSize, bytes.constData() + 4, 4);
        QCOMPARE(qint64(riffSize) + 8, qint64(bytes.size()));
    }

    void standardOutputNeedsFormat()
    {
        const Result r = run({"convert", path("in.wav"), "-"});
        QCOMPARE(r.status, 2);
        QVERIFY2(r.err.contains("needs --format"), qPrintable(r.err));
    }

    // ffmpeg writes a pipe and sova reads it: commands that open their input twice included.
    void standardInput_data()
    {
        QTest::addColumn<QString>("piped"); // what ffmpeg writes into the pipe
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("output");
        QTest::newRow("convert flac")
            << "flac" << QStringList {"convert", "-q", "-", "piped.wav"} << "piped.wav";
        QTest::newRow("split wav")
            << "wav" << QStringList {"split", "-", "left.flac"} << "left.flac";
        QTest::newRow("info wav") << "wav" << QStringList {"info", "-"} << "";
    }

    void standardInput()
    {
        QFETCH(QString, piped);
        QFETCH(QStringList, arguments);
        QFETCH(QString, output);
        QDir::setCurrent(m_dir.path());
        QProcess ffmpeg, sova;
        ffmpeg.setStandardOutputProcess(&sova);
        ffmpeg.start(
            QStringLiteral("ffmpeg"), {"-v", "error", "-i", path("in.wav"), "-f", piped, "-"});
        sova.start(QStringLiteral(SOVA_BINARY), arguments);
        QVERIFY(ffmpeg.waitForFinished(60000) && sova.waitForFinished(60000));
        const QString err = QString::fromUtf8(sova.readAllStandardError());
        QVERIFY2(sova.exitCode() == 0, qPrintable(err));
        if (output.isEmpty())
            QVERIFY(sova.readAllStandardOutput().contains("frames      44100"));
        else
            QCOMPARE(ffmpegFrames(path(output)), qint64(kFrames));
    }

    void signalRemovesTemporary_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("SIGTERM") << int(SIGTERM);
        QTest::newRow("SIGINT") << int(SIGINT);
        QTest::newRow("SIGHUP") << int(SIGHUP);
    }

    void signalRemovesTemporary()
    {
        QFETCH(int, signal);
        QDir out(path("signalled"));
        out.removeRecursively();
        QVERIFY(out.mkpath(QStringLiteral(".")));
        QProcess sova;
        sova.start(QStringLiteral(SOVA_BINARY),
            {"convert", "-q", path("long.wav"), out.filePath(QStringLiteral("out.mp3"))});
        QVERIFY(sova.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(writesInto(sova.processId(), out.path()), 20000);
        QCOMPARE(::kill(pid_t(sova.processId()), signal), 0);
        QVERIFY(sova.waitForFinished(20000));
        QCOMPARE(sova.exitStatus(), QProcess::NormalExit);
        QCOMPARE(sova.exitCode(), 128 + signal);
        QCOMPARE(out.entryList(QDir::Files | QDir::Hidden), QStringList());
    }
};

QTEST_GUILESS_MAIN(tst_SovaPaths)
#include "tst_sovapaths.moc"
