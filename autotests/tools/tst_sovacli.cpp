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

    // Writes a 16-bit PCM WAV of interleaved samples.
    static void writePcmWav(const QString& path, int rate, int channels,
                            const QVector<qint16>& samples)
    {
        QByteArray file;
        QDataStream s(&file, QIODevice::WriteOnly);
        s.setByteOrder(QDataStream::LittleEndian);
        const quint32 bytes = quint32(samples.size()) * 2;
        s.writeRawData("RIFF", 4);
        s << quint32(36 + bytes);
        s.writeRawData("WAVEfmt ", 8);
        s << quint32(16) << quint16(1) << quint16(channels) << quint32(rate)
          << quint32(rate * channels * 2) << quint16(channels * 2) << quint16(16);
        s.writeRawData("data", 4);
        s << bytes;
        for (qint16 v : samples)
            s << v;
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(file);
    }

    // A 16-bit PCM WAV of frames frames; channel c of frame i holds (i * (c + 1)) % 20000.
    static void writeWav(const QString& path, int rate, int channels, int frames)
    {
        QVector<qint16> samples;
        for (int i = 0; i < frames; ++i)
            for (int c = 0; c < channels; ++c)
                samples << qint16((i * (c + 1)) % 20000);
        writePcmWav(path, rate, channels, samples);
    }

    // The 16-bit samples of a WAV's data chunk.
    static QVector<qint16> wavSamples(const QString& path)
    {
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly))
            return {};
        const QByteArray all = f.readAll();
        const int at = all.indexOf("data");
        if (at < 0)
            return {};
        QVector<qint16> samples((all.size() - at - 8) / 2);
        memcpy(samples.data(), all.constData() + at + 8, size_t(samples.size()) * 2);
        return samples;
    }

    QTemporaryDir m_dir;
    QString path(const char* name) const { return m_dir.filePath(QLatin1String(name)); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        writeWav(path("stereo.wav"), 8000, 2, 8000);
        QFile text(path("notaudio.txt"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("just some words, no audio at all\n");
    }

    void audioCommands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("outPattern");
        QTest::addColumn<QString>("errPattern");
        const QString stereo = path("stereo.wav");
        QTest::newRow("info") << QStringList{"info", stereo} << 0
                              << "rate        8000 Hz\n  channels    2 (stereo)" << "";
        QTest::newRow("info frames") << QStringList{"info", stereo} << 0
                                     << "frames      8000\n  bit rate    256 kbps" << "";
        QTest::newRow("info missing") << QStringList{"info", path("missing.wav")} << 1 << ""
                                      << "missing.wav";
        QTest::newRow("info not audio") << QStringList{"info", path("notaudio.txt")} << 1 << ""
                                        << "notaudio.txt";
        QTest::newRow("info good and bad") << QStringList{"info", path("nope.wav"), stereo}
                                           << 1 << "codec       PCM 16-bit" << "nope.wav";
        QTest::newRow("info memory scheme") << QStringList{"info", "qiodevice://0x1234"} << 2
                                            << "" << "memory-address paths";
        QTest::newRow("convert unknown extension")
            << QStringList{"convert", "-q", stereo, path("out.xyz")} << 1 << "" << "out.xyz";
        QTest::newRow("convert missing input")
            << QStringList{"convert", "-q", path("missing.wav"), path("out.flac")} << 1 << ""
            << "missing.wav";
        QTest::newRow("convert bad rate") << QStringList{"convert", "--rate", "x", stereo,
                                                         path("o.wav")}
                                          << 2 << "" << "--rate x: not a whole number";
        QTest::newRow("split nine") << QStringList{"split", stereo, "1", "2", "3", "4", "5", "6",
                                                   "7", "8", "9"}
                                    << 2 << "" << "at most 8";
    }

    void audioCommands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, outPattern);
        QFETCH(QString, errPattern);
        const Result r = run(arguments);
        QCOMPARE(r.status, status);
        QVERIFY2(r.out.contains(outPattern), qPrintable(r.out));
        QVERIFY2(r.err.contains(errPattern), qPrintable(r.err));
        if (status != 0)
            QVERIFY(!QFileInfo::exists(path("out.xyz")) && !QFileInfo::exists(path("out.flac")));
    }

    // convert to FLAC and back, split into mono files and join them again: every step is
    // lossless, so the samples must come back exactly.
    void convertSplitJoinRoundTrip()
    {
        const QVector<qint16> original = wavSamples(path("stereo.wav"));
        QCOMPARE(original.size(), 16000);
        Result r = run({"convert", "-q", path("stereo.wav"), path("c.flac")});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        r = run({"convert", "-q", path("c.flac"), path("back.wav")});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        QCOMPARE(wavSamples(path("back.wav")), original);

        r = run({"split", path("back.wav"), path("left.wav"), path("right.wav"), path("x.wav")});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.err.contains(QStringLiteral("'%1' is not written").arg(path("x.wav"))),
                 qPrintable(r.err));
        QVERIFY(!QFileInfo::exists(path("x.wav")));
        const Result info = run({"info", path("right.wav")});
        QVERIFY2(info.out.contains(QStringLiteral("channels    1 (mono)")), qPrintable(info.out));
        QVERIFY2(info.out.contains(QStringLiteral("rate        8000 Hz")), qPrintable(info.out));

        r = run({"join", path("left.wav"), path("right.wav"), path("joined.wav")});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        QCOMPARE(wavSamples(path("joined.wav")), original);
        r = run({"join", path("left.wav"), path("notaudio.txt"), path("j2.wav")});
        QCOMPARE(r.status, 1);
        QVERIFY2(r.err.contains(QStringLiteral("notaudio.txt")), qPrintable(r.err));
        QVERIFY(!QFileInfo::exists(path("j2.wav")));
    }

    void demo()
    {
        QProcess process;
        process.start(QStringLiteral(SOVA_BINARY), {QStringLiteral("demo"), path("demo")});
        QVERIFY(process.waitForFinished(120000));
        const QString out = QString::fromUtf8(process.readAllStandardOutput());
        QVERIFY2(process.exitCode() == 0, qPrintable(out + process.readAllStandardError()));
        QVERIFY2(out.contains(QStringLiteral("FLAC 24-bit")) && out.contains(QStringLiteral("exact"))
                     && out.contains(QStringLiteral("M4A AAC")) && !out.contains(QStringLiteral("NOT")),
                 qPrintable(out));
        QVERIFY(QFileInfo::exists(path("demo/demo-01.wav")));
    }

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
                                 "selftest", "info", "convert", "split", "join", "demo",
                                 "stats", "spectrum", "vad", "fx", "decode", "formats"})
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
        QCOMPARE(selftest.out, QStringLiteral("ring buffer: PASS\nslice iterator: PASS\n"));
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

private:
    // A mono 16-bit WAV at 48 kHz: a tone of amplitude a at f Hz over an offset dc for
    // toneSeconds, then silenceSeconds of silence.
    void writeToneWav(const char* name, double f, double a, double dc, double toneSeconds,
                      double silenceSeconds = 0.0)
    {
        const int rate = 48000;
        QVector<qint16> samples;
        for (int i = 0; i < int((toneSeconds + silenceSeconds) * rate); ++i) {
            const double v = i < toneSeconds * rate ? dc + a * std::sin(2 * M_PI * f * i / rate) : 0.0;
            samples << qint16(std::lround(v * 32767.0));
        }
        writePcmWav(path(name), rate, 1, samples);
    }

    void writeToneFiles()
    {
        if (QFileInfo::exists(path("burst.wav")))
            return;
        writeToneWav("tone.wav", 1500.0, 0.5, 0.0, 2.0);
        writeToneWav("low.wav", 100.0, 0.5, 0.0, 2.0);
        writeToneWav("offset.wav", 1000.0, 0.25, 0.25, 2.0);
        writeToneWav("burst.wav", 1500.0, 0.5, 0.0, 1.0, 1.0);
    }

private slots:
    // Channel 1 of sova stats against values worked out from the tones; the A-weighted level
    // differs from the plain one by the weighting at the tone's frequency (0 dB at 1 kHz,
    // -19.1 dB at 100 Hz) and loses the DC offset.
    void stats_data()
    {
        writeToneFiles();
        QTest::addColumn<QString>("file");
        QTest::addColumn<QStringList>("selections");
        QTest::addColumn<double>("peak");
        QTest::addColumn<double>("rms");
        QTest::addColumn<double>("dc");
        QTest::addColumn<double>("weightedRms");
        QTest::addColumn<QString>("errPattern");
        // The analogue A-weighting curve, normalised to 0 dB at 1 kHz: the gain at f.
        auto aGain = [](double f) {
            const double f2 = f * f, a = 12194.0 * 12194.0;
            const double ra = a * f2 * f2
                / ((f2 + 20.6 * 20.6) * std::sqrt((f2 + 107.7 * 107.7) * (f2 + 737.9 * 737.9))
                   * (f2 + a));
            return ra * std::pow(10.0, 2.0 / 20.0);
        };
        const double r = 0.5 / std::sqrt(2.0), half = r / std::sqrt(2.0);
        QTest::newRow("1.5 kHz, half scale") << "tone.wav" << QStringList() << 0.5 << r << 0.0
                                             << r * aGain(1500) << "";
        QTest::newRow("100 Hz, A-weighted down") << "low.wav" << QStringList() << 0.5 << r << 0.0
                                                 << r * aGain(100) << "";
        QTest::newRow("DC offset") << "offset.wav" << QStringList() << 0.5
                                   << std::sqrt(0.0625 + 0.03125) << 0.25
                                   << 0.25 / std::sqrt(2.0) * aGain(1000) << "";
        QTest::newRow("whole burst") << "burst.wav" << QStringList() << 0.5 << half << 0.0
                                     << half * aGain(1500) << "";
        QTest::newRow("selection of the tone") << "burst.wav" << QStringList{"0-1"} << 0.5 << r
                                               << 0.0 << r * aGain(1500) << "";
        QTest::newRow("two selections, half silent")
            << "burst.wav" << QStringList{"0.5-1", "1-1.5"} << 0.5 << half << 0.0
            << half * aGain(1500) << "";
        QTest::newRow("selection cut at the end") << "burst.wav" << QStringList{"1.5-9"} << 0.0
                                                  << 0.0 << 0.0 << 0.0 << "cut to 1.500-2.000";
    }

    void stats()
    {
        QFETCH(QString, file);
        QFETCH(QStringList, selections);
        QFETCH(double, peak);
        QFETCH(double, rms);
        QFETCH(double, dc);
        QFETCH(double, weightedRms);
        QFETCH(QString, errPattern);
        QStringList arguments{QStringLiteral("stats"), m_dir.filePath(file)};
        for (const QString& s : selections)
            arguments << QStringLiteral("--selection") << s;
        const Result r = run(arguments);
        QVERIFY2(r.status == 0, qPrintable(r.err));
        QVERIFY2(r.err.contains(errPattern), qPrintable(r.err));
        const QRegularExpressionMatch row
            = QRegularExpression(QStringLiteral("^ +1 +(.*)$"), QRegularExpression::MultilineOption)
                  .match(r.out);
        QVERIFY2(row.hasMatch(), qPrintable(r.out));
        const QStringList f = row.captured(1).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        QCOMPARE(f.size(), 6); // peak, peak dB, RMS, RMS dB, DC, A-weighted dB
        QVERIFY2(std::fabs(f[0].toDouble() - peak) < 2e-4, qPrintable(r.out));
        QVERIFY2(std::fabs(f[2].toDouble() - rms) < 2e-3, qPrintable(r.out));
        QVERIFY2(std::fabs(f[4].toDouble() - dc) < 2e-4, qPrintable(r.out));
        if (rms == 0.0) {
            QCOMPARE(f[3], QStringLiteral("-inf"));
        } else {
            QVERIFY2(std::fabs(f[3].toDouble() - 20 * std::log10(rms)) < 0.05, qPrintable(r.out));
            QVERIFY2(std::fabs(f[5].toDouble() - 20 * std::log10(weightedRms)) < 0.3,
                     qPrintable(r.out));
        }
    }

    void analysisErrors_data()
    {
        writeToneFiles();
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("errPattern");
        const QString tone = path("tone.wav");
        QTest::newRow("no end") << QStringList{"stats", "-s", "1.5", tone} << 2 << "'1.5' is not BEGIN-END";
        QTest::newRow("inverted") << QStringList{"stats", "-s", "3-1", tone} << 2 << "does not end after";
        QTest::newRow("empty") << QStringList{"spectrum", "-s", "2-2", tone} << 2 << "does not end after";
        QTest::newRow("negative") << QStringList{"spectrum", "-s", "-1-2", tone} << 2 << "not BEGIN-END";
        QTest::newRow("words") << QStringList{"stats", "--selection", "a-b", tone} << 2 << "not BEGIN-END";
        QTest::newRow("odd fft") << QStringList{"spectrum", "--fft", "1023", tone} << 2 << "--fft";
        QTest::newRow("tiny fft") << QStringList{"spectrum", "--fft", "8", tone} << 2 << "--fft";
        QTest::newRow("zero step") << QStringList{"spectrum", "--step", "0", tone} << 2 << "--step";
        QTest::newRow("unknown window") << QStringList{"spectrum", "--window", "nope", tone} << 2
                                        << "unknown window 'nope'";
        QTest::newRow("stats missing") << QStringList{"stats", path("missing.wav")} << 1 << "missing.wav";
        QTest::newRow("spectrum not audio") << QStringList{"spectrum", path("notaudio.txt")} << 1
                                            << "notaudio.txt";
        QTest::newRow("past the end") << QStringList{"stats", "-s", "5-6", tone} << 1
                                      << "no selection lies within";
        QTest::newRow("shorter than a frame") << QStringList{"spectrum", "-s", "0-0.01", tone} << 1
                                              << "shorter than one frame of 4096";
        QTest::newRow("no such channel") << QStringList{"spectrum", "--channel", "2", tone} << 1
                                         << "not 2";
    }

    void analysisErrors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, errPattern);
        const Result r = run(arguments);
        QCOMPARE(r.status, status);
        QVERIFY2(r.err.contains(errPattern), qPrintable(r.err));
        QVERIFY2(r.out.isEmpty(), qPrintable(r.out));
    }

    // The CSV's loudest bin is the tone's (every tone lies on a bin centre, where the window
    // does not matter) at its level; the silent half of the burst halves the average power.
    void spectrumCsv_data()
    {
        writeToneFiles();
        QTest::addColumn<QString>("file");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("fft");
        QTest::addColumn<double>("level");
        QTest::newRow("defaults") << "tone.wav" << QStringList() << 4096 << -6.02;
        QTest::newRow("1024, default window") << "tone.wav" << QStringList{"--fft", "1024"} << 1024
                                              << -6.02;
        QTest::newRow("hann, step 512") << "tone.wav" << QStringList{"--fft", "2048", "--step", "512",
                                                                     "--window", "hann"}
                                        << 2048 << -6.02;
        QTest::newRow("flat-top") << "tone.wav" << QStringList{"--fft", "512", "--window", "Flat-Top"}
                                  << 512 << -6.02;
        QTest::newRow("selection of the tone") << "burst.wav" << QStringList{"--fft", "1024", "-s", "0-1"}
                                               << 1024 << -6.02;
        QTest::newRow("tone and silence") << "burst.wav" << QStringList{"--fft", "1024"} << 1024 << -9.03;
    }

    void spectrumCsv()
    {
        QFETCH(QString, file);
        QFETCH(QStringList, options);
        QFETCH(int, fft);
        QFETCH(double, level);
        const QString csv = path("spectrum.csv");
        const QStringList arguments = QStringList{"spectrum", m_dir.filePath(file)} + options;
        Result r = run(arguments + QStringList{"--csv", csv});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        QFile f(csv);
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QStringList lines = QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.value(0), QStringLiteral("frequency_hz,channel_1_db"));
        QCOMPARE(lines.size(), 1 + fft / 2 + 1);
        double loudestHz = -1.0, loudest = -1e9;
        for (const QString& line : lines.mid(1)) {
            const QStringList cells = line.split(QLatin1Char(','));
            QCOMPARE(cells.size(), 2);
            if (cells[1].toDouble() > loudest) {
                loudest = cells[1].toDouble();
                loudestHz = cells[0].toDouble();
            }
        }
        QCOMPARE(QString::number(lines.last().section(QLatin1Char(','), 0, 0).toDouble()),
                 QStringLiteral("24000"));
        QVERIFY2(std::fabs(loudestHz - 1500.0) <= 48000.0 / fft / 2, qPrintable(QString::number(loudestHz)));
        QVERIFY2(std::fabs(loudest - level) < 0.2, qPrintable(QString::number(loudest)));
        // Without outputs, the summary names the same peak first.
        r = run(arguments);
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(QStringLiteral("channel 1 peaks:  1500.0 Hz")), qPrintable(r.out));
    }

    // The chart is a well-formed PNG: signature, chunks whose CRCs hold, an IHDR of the
    // chart's size, and IDAT data that inflates to one filtered row per line.
    void spectrumPng()
    {
        writeToneFiles();
        const QString png = path("spectrum.png");
        const Result r = run({"spectrum", path("tone.wav"), "--png", png, "--csv", path("both.csv")});
        QVERIFY2(r.status == 0, qPrintable(r.err));
        QVERIFY(QFileInfo(path("both.csv")).size() > 0);
        QFile f(png);
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QByteArray bytes = f.readAll();
        QVERIFY(bytes.startsWith(QByteArray("\x89PNG\r\n\x1a\n", 8)));
        auto crc = [](const QByteArray& data) {
            quint32 c = 0xFFFFFFFFu;
            for (const char byte : data) {
                c ^= quint8(byte);
                for (int k = 0; k < 8; ++k)
                    c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
            }
            return ~c;
        };
        QStringList types;
        QByteArray header, idat;
        for (int at = 8; at < bytes.size();) {
            QVERIFY(at + 12 <= bytes.size());
            const quint32 length = qFromBigEndian<quint32>(bytes.constData() + at);
            const QByteArray body = bytes.mid(at + 4, 4 + int(length));
            QCOMPARE(qFromBigEndian<quint32>(bytes.constData() + at + 8 + length), crc(body));
            types << QString::fromLatin1(body.left(4));
            if (types.last() == QLatin1String("IHDR"))
                header = body.mid(4);
            if (types.last() == QLatin1String("IDAT"))
                idat += body.mid(4);
            at += 12 + int(length);
        }
        QCOMPARE(types.first(), QStringLiteral("IHDR"));
        QCOMPARE(types.last(), QStringLiteral("IEND"));
        QCOMPARE(header.size(), 13);
        const quint32 width = qFromBigEndian<quint32>(header.constData());
        const quint32 height = qFromBigEndian<quint32>(header.constData() + 4);
        QCOMPARE(width, 960u);
        QCOMPARE(height, 540u);
        QCOMPARE(int(header[8]), 8);
        QCOMPARE(int(header[9]), 2);
        QByteArray sized(4, 0);
        qToBigEndian(quint32(height * (1 + width * 3)), sized.data());
        QCOMPARE(quint32(qUncompress(sized + idat).size()), height * (1 + width * 3));
    }

    void demoWritesSpectrum()
    {
        const Result r = run({QStringLiteral("demo"), path("demo-spectrum")});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(QStringLiteral("written as demo-spectrum.csv and demo-spectrum.png")),
                 qPrintable(r.out));
        QVERIFY(QFileInfo(path("demo-spectrum/demo-spectrum.png")).size() > 1000);
        QFile csv(path("demo-spectrum/demo-spectrum.csv"));
        QVERIFY(csv.open(QIODevice::ReadOnly));
        QCOMPARE(csv.readLine(), QByteArray("frequency_hz,left_db\n"));
    }

private:
    // A mono 16-bit WAV of the samples (+-1.0) at rate.
    void writeMonoWav(const char* name, int rate, const QVector<float>& samples)
    {
        QVector<qint16> pcm;
        for (float v : samples)
            pcm << qint16(std::lround(v * 32767.0));
        writePcmWav(path(name), rate, 1, pcm);
    }

    // silence seconds of silence, then voiced seconds of a vowel-like sound: harmonics of a
    // pitch gliding around 140 Hz, with a syllable rhythm (a held pitch reads as a musical
    // note to the detector, as it should).
    static QVector<float> voice(int rate, double silence, double voiced)
    {
        QVector<float> v(int((silence + voiced) * rate), 0.0f);
        double phase = 0.0;
        for (int i = int(silence * rate); i < v.size(); ++i) {
            const double t = double(i) / rate;
            phase += 2.0 * M_PI * (140.0 + 30.0 * std::sin(2.0 * M_PI * 1.5 * t)) / rate;
            double sum = 0.0;
            for (int k = 1; k <= 12; ++k)
                sum += std::sin(k * phase) / k;
            v[i] = float(0.2 * sum * (0.7 + 0.3 * std::sin(2.0 * M_PI * 4.0 * t)));
        }
        return v;
    }

    // (sample rate, channels) from a WAV's fmt chunk; (0, 0) when there is none.
    static QPair<int, int> wavRateChannels(const QString& file)
    {
        QFile f(file);
        if (!f.open(QIODevice::ReadOnly))
            return {0, 0};
        const QByteArray all = f.readAll();
        const int at = all.indexOf("fmt ");
        if (at < 0 || all.size() < at + 16)
            return {0, 0};
        return {int(qFromLittleEndian<quint32>(all.constData() + at + 12)),
                int(qFromLittleEndian<quint16>(all.constData() + at + 10))};
    }

private slots:
    void vad_data()
    {
        writeMonoWav("quiet.wav", 16000, QVector<float>(32000, 0.0f));
        writeMonoWav("voice.wav", 16000, voice(16000, 1.0, 1.0));
        writeMonoWav("lowrate.wav", 4000, voice(4000, 0.5, 0.5));
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("segments");
        QTest::addColumn<QString>("stderrPattern");
        QTest::newRow("silence") << QStringList{"quiet.wav"} << 0 << 0 << "";
        QTest::newRow("voice after a second") << QStringList{"voice.wav"} << 0 << 1 << "";
        QTest::newRow("with parameters")
            << QStringList{"voice.wav", "--params", "aggressiveness=3,hangover=100"} << 0 << 1 << "";
        QTest::newRow("bad parameters") << QStringList{"voice.wav", "--params", "aggressiveness=9"}
                                        << 2 << 0 << "aggressiveness=9";
        QTest::newRow("rate too low") << QStringList{"lowrate.wav"} << 1 << 0 << "4000 Hz";
        QTest::newRow("not audio") << QStringList{"notaudio.txt"} << 1 << 0 << "notaudio.txt";
    }
    void vad()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(int, segments);
        QFETCH(QString, stderrPattern);
        const QString labels = path("labels.txt");
        QFile::remove(labels);
        QStringList args{QStringLiteral("vad"), path(qPrintable(arguments.first())),
                         QStringLiteral("--labels"), labels};
        const Result r = run(args + arguments.mid(1));
        QVERIFY2(r.status == status, qPrintable(r.err));
        QVERIFY2(r.err.contains(stderrPattern), qPrintable(r.err));
        if (status != 0)
            return;
        const QStringList lines = r.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), segments);
        QFile file(labels);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QString expected;
        for (const QString& line : lines) {
            QVERIFY2(QRegularExpression(QStringLiteral("^\\d+\\.\\d{3}\\t\\d+\\.\\d{3}$")).match(line).hasMatch(),
                     qPrintable(line));
            const double begin = line.section(QLatin1Char('\t'), 0, 0).toDouble();
            const double end = line.section(QLatin1Char('\t'), 1, 1).toDouble();
            QVERIFY2(begin >= 0.95 && begin <= 1.2 && end > 1.9 && end <= 2.0, qPrintable(line));
            expected += line + QStringLiteral("\tspeech\n");
        }
        QCOMPARE(QString::fromUtf8(file.readAll()), expected);
    }

    void fx_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<double>("gain"); // expected output over input, 0 when not checked
        QTest::newRow("gain") << QStringList{"--chain", "gain[factor=0.5]"} << 0 << 8000 << 2 << 0.5;
        QTest::newRow("resample and mix")
            << QStringList{"--chain", "resample[sr=16000];mix[nch=1]"} << 0 << 16000 << 1 << 0.0;
        QTest::newRow("bad chain") << QStringList{"--chain", "bogus[x=1]"} << 2 << 0 << 0 << 0.0;
        QTest::newRow("no chain") << QStringList{} << 2 << 0 << 0 << 0.0;
    }
    void fx()
    {
        QFETCH(QStringList, options);
        QFETCH(int, status);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(double, gain);
        const QString target = path("fx-out.wav");
        QFile::remove(target);
        const Result r = run(QStringList{QStringLiteral("fx"), path("stereo.wav"), target} + options);
        QVERIFY2(r.status == status, qPrintable(r.err));
        if (status != 0) {
            QVERIFY(!QFileInfo::exists(target));
            if (options.size() > 1)
                QVERIFY2(r.err.contains(options.at(1)), qPrintable(r.err));
            return;
        }
        QCOMPARE(wavRateChannels(target), qMakePair(rate, channels));
        if (gain > 0.0) {
            const QVector<qint16> in = wavSamples(path("stereo.wav"));
            const QVector<qint16> got = wavSamples(target);
            QCOMPARE(got.size(), in.size());
            for (int i = 0; i < in.size(); i += 97)
                QVERIFY2(qAbs(got[i] - in[i] * gain) <= 1.0, qPrintable(QString::number(i)));
        }
    }

    // A FLAC stream made by convert comes back exactly through decode.
    void decode_data()
    {
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("stderrPattern");
        QTest::newRow("by extension") << "s.flac" << QStringList{} << 0 << "";
        QTest::newRow("by option") << "s.bin" << QStringList{"--codec", "flac"} << 0 << "";
        QTest::newRow("unknown extension") << "s.bin" << QStringList{} << 2 << "--codec";
        QTest::newRow("unknown codec") << "s.flac" << QStringList{"--codec", "ogg"} << 2 << "ogg";
        QTest::newRow("wrong codec") << "s.flac" << QStringList{"--codec", "mp3"} << 1 << "MP3";
        QTest::newRow("missing") << "none.flac" << QStringList{} << 1 << "none.flac";
    }
    void decode()
    {
        QFETCH(QString, stream);
        QFETCH(QStringList, options);
        QFETCH(int, status);
        QFETCH(QString, stderrPattern);
        if (!QFileInfo::exists(path("s.bin"))) {
            QCOMPARE(run({QStringLiteral("convert"), path("stereo.wav"), path("s.flac")}).status, 0);
            QVERIFY(QFile::copy(path("s.flac"), path("s.bin")));
        }
        const QString target = path("decoded.wav");
        QFile::remove(target);
        const Result r = run(QStringList{QStringLiteral("decode"), path(qPrintable(stream)), target}
                             + options);
        QVERIFY2(r.status == status, qPrintable(r.err));
        QVERIFY2(r.err.contains(stderrPattern), qPrintable(r.err));
        if (status != 0) {
            QVERIFY(!QFileInfo::exists(target));
            return;
        }
        QVERIFY2(r.out.startsWith(QStringLiteral("FLAC: 8000 Hz, 2 channels, 8000 frames")),
                 qPrintable(r.out));
        QCOMPARE(wavSamples(target), wavSamples(path("stereo.wav")));
    }

    void demoAppliesEffectAndDetector()
    {
        QProcess process;
        process.start(QStringLiteral(SOVA_BINARY), {QStringLiteral("demo"), path("demo-fx")});
        QVERIFY(process.waitForFinished(120000));
        const QString out = QString::fromUtf8(process.readAllStandardOutput());
        QVERIFY2(out.contains(QStringLiteral("written as demo-fx.wav\n"))
                     && QRegularExpression(QStringLiteral("Voice activity on demo-fx.wav: \\d+\\.\\d% speech"))
                            .match(out).hasMatch(),
                 qPrintable(out));
        QCOMPARE(wavRateChannels(path("demo-fx/demo-fx.wav")), qMakePair(48000, 2));
    }

    // The catalogue listing: filters with their tags, narrowed by direction and format.
    void formats_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("present");
        QTest::addColumn<QString>("absent"); // a multi-line pattern that must not match
        QTest::newRow("everything") << QStringList{"formats"} << 0
                                    << "WAV  Microsoft RIFF WAVE  (wav wave)\n  rw  wav " << "";
        QTest::newRow("rates channels bits") << QStringList{"formats", "--read"} << 0
                                             << "channels 1,2,3,4,5,6,7,8  bits 8,16,24,32"
                                             << "^  .w  ";
        QTest::newRow("6 channels exclude mp3")
            << QStringList{"formats", "--write", "--format", "sr=48000,nc=6,nbits=24"} << 0
            << "  -w  flac " << "^  -w  (mp3|[a-z]+\\[codec=mp3\\])\\s|^  r";
        QTest::newRow("stereo includes mp3")
            << QStringList{"formats", "--write", "--format", "sr=44100,nc=2,nbits=16"} << 0
            << "  -w  mp3 " << "";
        QTest::newRow("7 Hz is out of range")
            << QStringList{"formats", "--write", "--format", "sr=7,nc=2"} << 2 << ""
            << "sr out of range";
        QTest::newRow("both directions") << QStringList{"formats", "--read", "--write"} << 2
                                         << "" << "\\S";
        QTest::newRow("format without channels")
            << QStringList{"formats", "--format", "sr=44100"} << 2 << "" << "\\S";
    }

    void formats()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, present);
        QFETCH(QString, absent);
        const Result r = run(arguments);
        QCOMPARE(r.status, status);
        QVERIFY2(r.out.contains(present), qPrintable(r.out + r.err));
        if (!absent.isEmpty()) {
            const QRegularExpression forbidden(absent, QRegularExpression::MultilineOption);
            const QRegularExpressionMatch match = forbidden.match(r.out);
            QVERIFY2(!match.hasMatch(), qPrintable(match.captured()));
        }
        QCOMPARE(r.err.isEmpty(), status == 0);
    }

    // --dialog prints one file-dialog line per file type; saving offers no more than opening.
    void formatsDialog()
    {
        const Result open = run({QStringLiteral("formats"), QStringLiteral("--dialog")});
        const Result save = run(
            {QStringLiteral("formats"), QStringLiteral("--dialog"), QStringLiteral("--write")});
        QCOMPARE(open.status, 0);
        QCOMPARE(save.status, 0);
        const QStringList openLines = open.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QStringList saveLines = save.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(openLines.first(), QStringLiteral("Microsoft RIFF WAVE (*.wav *.wave)"));
        QVERIFY(saveLines.contains(QStringLiteral("Microsoft RIFF WAVE (*.wav *.wave)")));
        const QRegularExpression line(QStringLiteral("^[^()]+.* \\((\\*\\.[^ ()]+ ?)+\\)$"));
        for (const QString& text : openLines)
            QVERIFY2(line.match(text).hasMatch(), qPrintable(text));
        for (const QString& text : saveLines)
            QVERIFY2(openLines.contains(text), qPrintable(text));
        QVERIFY(saveLines.size() < openLines.size()); // some types are read only
        QCOMPARE(saveLines.removeDuplicates(), 0);
    }

    // convert asks the catalogue first: a target that cannot hold the format is refused with
    // the first reason (channels, then rate, then resolution) and no file is written; when an
    // option asked for it, as a usage error.
    void convertCheckedAgainstCatalogue_data()
    {
        writeWav(path("six.wav"), 48000, 6, 4800);
        writeWav(path("hi.wav"), 96000, 2, 4800);
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("message"); // empty: the conversion succeeds
        const QString six = path("six.wav");
        const QString stereo = path("stereo.wav");
        QTest::newRow("6 channels to mp3") << QStringList{six} << "r1.mp3"
                                           << "MP3 holds at most 2 channels; the source has 6";
        QTest::newRow("format string names mp3")
            << QStringList{"--format", "mp3[kbps=128]", six} << "r2.bin"
            << "MP3 holds at most 2 channels; the source has 6";
        QTest::newRow("asked channels") << QStringList{"--channels", "6", stereo} << "r3.mp3"
                                        << "MP3 holds at most 2 channels; --channels asks for 6";
        QTest::newRow("channels before rate") << QStringList{"--rate", "96000", six} << "r4.mp3"
                                              << "MP3 holds at most 2 channels";
        QTest::newRow("rate") << QStringList{path("hi.wav")} << "r5.opus"
                              << "OPUS takes 8000, 12000, 16000, 24000 or 48000 Hz; the source "
                                 "is at 96000 Hz";
        QTest::newRow("resolution") << QStringList{"--bits", "24", stereo} << "r6.mp3"
                                    << "MP3 writes 16 bits; --bits asks for 24";
        QTest::newRow("exact tag") << QStringList{"--format", "wav[codec=gsm]", stereo}
                                   << "r7.wav" << "WAV holds at most 1 channel; the source has 2";
        QTest::newRow("6 channels to flac") << QStringList{six} << "ok1.flac" << "";
        QTest::newRow("mixed down to mp3") << QStringList{"--channels", "2", six} << "ok2.mp3"
                                           << "";
        QTest::newRow("gsm in mono") << QStringList{"--format", "wav[codec=gsm]", "--channels",
                                                    "1", stereo}
                                     << "ok3.wav" << "";
    }

    void convertCheckedAgainstCatalogue()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, target);
        QFETCH(QString, message);
        const QString out = m_dir.filePath(target);
        const Result r = run(QStringList{"convert", "-q"} + arguments + QStringList{out});
        // What an option asks for is a usage error; what the source holds is a failure.
        QCOMPARE(r.status, message.isEmpty() ? 0 : message.contains("asks for") ? 2 : 1);
        if (message.isEmpty()) {
            QVERIFY2(r.err.isEmpty(), qPrintable(r.err));
            QVERIFY(QFileInfo(out).size() > 0);
        } else {
            QVERIFY2(r.err.startsWith(QStringLiteral("sova: convert: ") + message),
                     qPrintable(r.err));
            QVERIFY(!QFileInfo::exists(out));
        }
    }
};

QTEST_GUILESS_MAIN(tst_SovaCli)
#include "tst_sovacli.moc"
