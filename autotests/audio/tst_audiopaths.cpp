// Where the engine's writers put files (links kept, FIFOs written in place, region files
// alike), how a FIFO is read, and the registry of temporaries that a signal handler empties.
#include <sova/audio.h>
#include <sova/audioformats.h>

#include <QtTest>

#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kFrames = 4800;

// Writes kFrames of a stereo ramp; 1 when closed cleanly.
bool writeRamp(AUDIOFILE* file)
{
    std::vector<int16_t> samples(kFrames * 2);
    for (int i = 0; i < kFrames; ++i) {
        samples[size_t(2 * i)] = int16_t(i);
        samples[size_t(2 * i + 1)] = int16_t(-i);
    }
    const bool wrote = file && AUDIO_Write16(file, samples.data(), kFrames) == kFrames;
    return AUDIO_CloseFile(file) == 1 && wrote;
}

AUDIOFILE* create(const QString& path, const char* format)
{
    const _audio_format fmt = AUDIO_FormatEx(48000, 2, 16);
    return AUDIO_CreateFileEx2(
        QFile::encodeName(path).constData(), format, &fmt, -1, -1, 0, nullptr, 0);
}

int64_t framesIn(const QString& path)
{
    AUDIOFILE* file = AUDIO_LoadFileEx2(QFile::encodeName(path).constData(), nullptr, 0, 0, 0);
    if (!file)
        return -1;
    std::vector<float> block(4096 * 2);
    int64_t frames = 0, n;
    while ((n = AUDIO_ReadIEEEFloat(file, block.data(), 4096)) > 0)
        frames += n;
    AUDIO_CloseFile(file);
    return n < 0 ? -1 : frames;
}

QStringList hidden(const QString& dir)
{
    return QDir(dir).entryList({QStringLiteral(".*sova-*")}, QDir::Files | QDir::Hidden);
}

} // namespace

class tst_AudioPaths : public QObject
{
    Q_OBJECT

private slots:
    void linkKeptAndTargetReplaced_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("audio file") << "audio";
        QTest::newRow("region file") << "regions";
    }

    void linkKeptAndTargetReplaced()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("real")));
        const QString link = dir.filePath(QStringLiteral("link"));
        const QString target = dir.filePath(QStringLiteral("real/file"));
        QVERIFY(QFile::link(QStringLiteral("real/file"), link)); // dangling until written
        if (kind == QLatin1String("audio")) {
            QVERIFY(writeRamp(create(link, "wav")));
            QCOMPARE(framesIn(target), int64_t(kFrames));
        } else {
            _audio_region region {};
            region.end = 1.0;
            QCOMPARE(AUDIO_WriteRegions(
                         QFile::encodeName(link).constData(), "labels", &region, 1, nullptr),
                1);
            QVERIFY(QFileInfo(target).size() > 0);
        }
        QVERIFY(QFileInfo(link).isSymLink());
        QVERIFY(!QFileInfo(target).isSymLink());
        QVERIFY(hidden(dir.filePath(QStringLiteral("real"))).isEmpty());
        QVERIFY(hidden(dir.path()).isEmpty());
    }

    // A FIFO is written where it is, and read whole although it cannot seek: the WAV header
    // comes last from libsndfile, FLAC is streamed as made.
    void fifoBothWays_data()
    {
        QTest::addColumn<QByteArray>("format");
        QTest::newRow("wav") << QByteArray("wav");
        QTest::newRow("flac") << QByteArray("flac");
    }

    void fifoBothWays()
    {
        QFETCH(QByteArray, format);
        QTemporaryDir dir;
        const QString fifo = dir.filePath(QStringLiteral("fifo"));
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        int64_t frames = -2;
        std::thread reader([&] { frames = framesIn(fifo); });
        const bool wrote = writeRamp(create(fifo, format.constData()));
        reader.join();
        QVERIFY(wrote);
        QCOMPARE(frames, int64_t(kFrames));
        struct stat st;
        QVERIFY(::stat(QFile::encodeName(fifo).constData(), &st) == 0 && S_ISFIFO(st.st_mode));
    }

    // What a signal handler calls: the temporary of an unfinished file goes (a named one;
    // where the file system has unnamed ones there is nothing to remove), the file that was at
    // the target stays as it was.
    void removeTemporaryFilesLeavesTarget()
    {
        QTemporaryDir dir;
        const QString target = dir.filePath(QStringLiteral("out.wav"));
        QFile old(target);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("previous contents");
        old.close();
        AUDIOFILE* first = create(target, "wav");
        AUDIOFILE* second = create(dir.filePath(QStringLiteral("other.wav")), "wav");
        QVERIFY(first && second);
        const int named = int(hidden(dir.path()).size());
        QVERIFY(named == 0 || named == 2);
        QCOMPARE(AUDIO_RemoveTemporaryFiles(), named);
        QVERIFY(hidden(dir.path()).isEmpty());
        QCOMPARE(AUDIO_RemoveTemporaryFiles(), 0);
        AUDIO_AbandonFile(first);
        AUDIO_AbandonFile(second);
        QFile check(target);
        QVERIFY(check.open(QIODevice::ReadOnly));
        QCOMPARE(check.readAll(), QByteArray("previous contents"));
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("other.wav"))));
    }
};

QTEST_GUILESS_MAIN(tst_AudioPaths)
#include "tst_audiopaths.moc"
