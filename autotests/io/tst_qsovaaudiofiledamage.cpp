#include "../peertools.h"
#include <QSova>
#include <QSovaAudioFile>
#include <QSovaAudioSignal>

#include <QtTest>

// The Qt faces of true lengths and damage: QSovaAudioFile reads past a guessed length and says
// when its end is reached; QSovaAudioFile and QSovaAudioSignal report what was salvaged.
class tst_QSovaAudioFileDamage : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }

    static bool run(const QString& program, const QStringList& arguments)
    {
        QProcess p;
        p.start(program, arguments);
        return p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit
            && p.exitCode() == 0;
    }

private slots:
    void initTestCase()
    {
        QSova::initialize();
        QVERIFY(m_dir.isValid());
        // A loud start at a high bit rate, then a quiet part at a low one: the guess from the
        // first header is far too short.
        for (const auto& part : {std::make_pair("a", "192k"), std::make_pair("b", "64k")}) {
            const QString wav = path(QString::fromLatin1(part.first) + QStringLiteral(".wav"));
            QVERIFY(run(QStringLiteral("sox"),
                {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("48000"),
                    QStringLiteral("-c"), QStringLiteral("2"), wav, QStringLiteral("synth"),
                    QStringLiteral("1"), QStringLiteral("sine"), QStringLiteral("500")}));
            QVERIFY(run(QStringLiteral("ffmpeg"),
                {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), wav,
                    QStringLiteral("-c:a"), QStringLiteral("ac3"), QStringLiteral("-b:a"),
                    QString::fromLatin1(part.second),
                    path(QString::fromLatin1(part.first) + QStringLiteral(".ac3"))}));
        }
        QFile a(path(QStringLiteral("a.ac3"))), b(path(QStringLiteral("b.ac3"))),
            c(path(QStringLiteral("cat.ac3")));
        QVERIFY(a.open(QIODevice::ReadOnly) && b.open(QIODevice::ReadOnly)
            && c.open(QIODevice::WriteOnly));
        c.write(a.readAll() + b.readAll());
        c.close();
        QVERIFY(run(QStringLiteral("sox"),
            {path(QStringLiteral("a.wav")), path(QStringLiteral("x.flac"))}));
        QFile flac(path(QStringLiteral("x.flac"))), cut(path(QStringLiteral("cut.flac")));
        QVERIFY(flac.open(QIODevice::ReadOnly) && cut.open(QIODevice::WriteOnly));
        const QByteArray data = flac.readAll();
        cut.write(data.left(data.size() / 2));
    }
    void cleanupTestCase() { QSova::finalize(); }

    // A concatenated AC-3 stream: size() starts as a guess, reads go on to the real end, and
    // atEnd() is true only there.
    void readsPastAGuessedLength()
    {
        const QString file = path(QStringLiteral("cat.ac3"));
        QSovaAudioFile in(file, QString(), QSovaAudioFile::IEEEFloat);
        QVERIFY(in.open(QIODevice::ReadOnly));
        QVERIFY(!in.isLengthExact());
        const qint64 guess = in.numSamples();
        QVERIFY(!in.atEnd());
        const QByteArray all = in.readAll();
        const qint64 frames = all.size() / in.frameSize();
        QCOMPARE(frames, peer::ffmpegFrames(file));
        QVERIFY(frames > guess);
        QVERIFY(in.atEnd());
        QVERIFY(in.isLengthExact());
        QCOMPARE(in.numSamples(), frames);
        QCOMPARE(in.size(), all.size());
        QCOMPARE(in.damageReport().stretches, 0);
    }

    // countSamples() counts a guessed length without moving the read position.
    void countSamplesKeepsThePosition()
    {
        const QString file = path(QStringLiteral("cat.ac3"));
        QSovaAudioFile in(file, QString(), QSovaAudioFile::Int16);
        QVERIFY(in.open(QIODevice::ReadOnly));
        const QByteArray head = in.read(400);
        QCOMPARE(in.countSamples(), peer::ffmpegFrames(file));
        QVERIFY(in.isLengthExact());
        QSovaAudioFile again(file, QString(), QSovaAudioFile::Int16);
        QVERIFY(again.open(QIODevice::ReadOnly));
        QCOMPARE(again.read(400), head);
        QCOMPARE(in.read(400), again.read(400));
    }

    // A cut FLAC: the file and a signal read from it give back everything before the cut and
    // report the cut.
    void cutFileReported()
    {
        const QString file = path(QStringLiteral("cut.flac"));
        QSovaAudioFile in(file, QString(), QSovaAudioFile::IEEEFloat);
        QVERIFY(in.open(QIODevice::ReadOnly));
        const qint64 frames = in.readAll().size() / in.frameSize();
        QCOMPARE(frames, peer::ffmpegFrames(file));
        QCOMPARE(in.damageReport().truncated, 1);
        const QSovaAudioSignal signal(file);
        QVERIFY(signal.isValid());
        QCOMPARE(signal.numSamples(), frames);
        QCOMPARE(signal.damageReport().truncated, 1);
        QVERIFY(signal.damageReport().secondsLost > 0.0);
        QCOMPARE(QSovaAudioSignal(path(QStringLiteral("x.flac"))).damageReport().stretches, 0);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioFileDamage)
#include "tst_qsovaaudiofiledamage.moc"
