#include <QtTest>

#include <cmath>

// sova convert and info on 5.1 files made by ffmpeg, as a user would run them.
class tst_SovaLayout : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_ffmpeg;

    QString path(const char* name) const { return m_dir.filePath(QLatin1String(name)); }

    static bool run(const QString& program, const QStringList& arguments, QByteArray* out = nullptr,
        QByteArray* err = nullptr)
    {
        QProcess process;
        process.start(program, arguments);
        if (!process.waitForFinished(60000))
            return false;
        if (out)
            *out = process.readAllStandardOutput();
        if (err)
            *err = process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    }

    // RMS in dB per channel of a file as ffmpeg decodes it.
    QVector<double> levels(const QString& file, int channels)
    {
        QByteArray raw;
        if (!run(m_ffmpeg, {"-v", "error", "-i", file, "-f", "f32le", "-c:a", "pcm_f32le", "-"},
                &raw))
            return {};
        const auto* s = reinterpret_cast<const float*>(raw.constData());
        const qint64 frames = raw.size() / qint64(sizeof(float)) / channels;
        QVector<double> db;
        for (int c = 0; c < channels; ++c) {
            double e = 0;
            for (qint64 i = 0; i < frames; ++i)
                e += double(s[i * channels + c]) * s[i * channels + c];
            db << (e > 0 ? 10.0 * std::log10(e / double(frames)) : -200.0);
        }
        return db;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_ffmpeg = QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
        if (m_ffmpeg.isEmpty())
            QSKIP("no ffmpeg on PATH");
        // Dialogue in the centre only, side surrounds.
        QVERIFY(run(m_ffmpeg,
            {"-v", "error", "-y", "-f", "lavfi", "-i",
                "sine=frequency=300:sample_rate=48000:duration=1", "-af", "pan=5.1(side)|c2=c0",
                "-c:a", "pcm_s16le", path("centre.wav")}));
    }

    // The centre once came out as two silent channels.
    void centreDialogueToStereoIsHeard()
    {
        QByteArray err;
        QVERIFY2(run(QStringLiteral(SOVA_BINARY),
                     {"convert", "-q", path("centre.wav"), path("stereo.wav"), "--channels", "2"},
                     nullptr, &err),
            err.constData());
        QVERIFY(run(m_ffmpeg,
            {"-v", "error", "-y", "-i", path("centre.wav"), "-ac", "2", "-c:a", "pcm_s16le",
                path("ffstereo.wav")}));
        const QVector<double> ours = levels(path("stereo.wav"), 2);
        const QVector<double> theirs = levels(path("ffstereo.wav"), 2);
        QCOMPARE(ours.size(), 2);
        QCOMPARE(theirs.size(), 2);
        for (int c = 0; c < 2; ++c)
            QVERIFY2(std::fabs(ours[c] - theirs[c]) < 0.2,
                qPrintable(QStringLiteral("channel %1: %2 dB, ffmpeg %3 dB")
                               .arg(c)
                               .arg(ours[c])
                               .arg(theirs[c])));
    }

    void infoShowsLayout()
    {
        QByteArray out;
        QVERIFY(run(QStringLiteral(SOVA_BINARY), {"info", path("centre.wav")}, &out));
        QVERIFY2(out.contains("  layout      5.1(side)\n"), out.constData());
    }

    // AC-3 and ALAC list 5.1 by the catalogue's 5.1 flag; convert once refused them.
    void fivePointOneIntoCodecsWithTheFlag_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("format");
        QTest::newRow("ac3") << "out.ac3"
                             << "";
        QTest::newRow("alac") << "out.m4a"
                              << "m4a[codec=alac]";
    }

    void fivePointOneIntoCodecsWithTheFlag()
    {
        QFETCH(QString, name);
        QFETCH(QString, format);
        const QString out = m_dir.filePath(name);
        QStringList args {"convert", "-q", path("centre.wav"), out};
        if (!format.isEmpty())
            args << "--format" << format;
        QByteArray err;
        QVERIFY2(run(QStringLiteral(SOVA_BINARY), args, nullptr, &err), err.constData());
        const QVector<double> db = levels(out, 6);
        QCOMPARE(db.size(), 6);
        for (int c = 0; c < 6; ++c)
            QVERIFY2((c == 2) == (db[c] > -40.0),
                qPrintable(QStringLiteral("channel %1: %2 dB").arg(c).arg(db[c])));
    }
};

QTEST_GUILESS_MAIN(tst_SovaLayout)
#include "tst_sovalayout.moc"
