// A host that keeps trying files must not grow: failed opens of damaged files and refused
// encoder opens, a thousand times each, leave the memory where it was. In a sanitizer tree the
// leak checker also sees every block a failed open leaves behind.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes' heap statistics (GCC installs no header for them).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#define SOVA_SANITIZED 1
#endif

namespace {

constexpr int kWarmUp = 50;
constexpr int kOpens = 1000;
// A leak of 3 KB per open is 3 MB over the loop; allocator noise after the warm-up stays
// well below this.
constexpr qint64 kMarginBytes = 1024 * 1024;

// Memory in use: resident pages; in a sanitizer tree the heap's live bytes instead, since
// freed blocks wait in ASan's quarantine (resident, up to 256 MB) before being reused.
qint64 memoryInUse()
{
#ifdef SOVA_SANITIZED
    return qint64(__sanitizer_get_current_allocated_bytes());
#else
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f)
        return -1;
    const int got = std::fscanf(f, "%ld %ld", &pages, &resident);
    std::fclose(f);
    return got == 2 ? qint64(resident) * 4096 : -1;
#endif
}

// Offset of the n-th Ogg page (0 = the first), -1 when there are fewer.
int oggPage(const QByteArray& bytes, int n)
{
    int at = -1;
    for (int i = 0; i <= n; ++i) {
        at = bytes.indexOf("OggS", at + 1);
        if (at < 0)
            return -1;
    }
    return at;
}

} // namespace

class TestAudioFailedOpens : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;

    QString path(const QString& name) const { return dir_.filePath(name); }

    // Runs open kWarmUp + kOpens times; it must fail every time, and memory stays flat.
    void expectFlat(const std::function<AUDIOFILE*()>& open)
    {
        auto once = [&] {
            AUDIOFILE* f = open();
            if (f) {
                AUDIO_CloseFile(f);
                return false;
            }
            return true;
        };
        for (int i = 0; i < kWarmUp; ++i)
            QVERIFY2(once(), "the open succeeded");
        const qint64 before = memoryInUse();
        QVERIFY(before > 0);
        for (int i = 0; i < kOpens; ++i)
            QVERIFY2(once(), "the open succeeded");
        const qint64 growth = memoryInUse() - before;
        QVERIFY2(growth < kMarginBytes,
            qPrintable(QStringLiteral("grew by %1 bytes over %2 failed opens")
                           .arg(growth)
                           .arg(kOpens)));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        // An Ogg Vorbis file made by the engine, from which the damaged ones are cut.
        _audio_format fmt = AUDIO_FormatEx(44100, 2, 16);
        AUDIOFILE* f = AUDIO_CreateFileEx2(
            path(QStringLiteral("good.ogg")).toUtf8(), "ogg", &fmt, -1, -1, 0, nullptr, 0);
        QVERIFY2(f, BLERROR_LastMessage());
        std::vector<float> tone(44100 * 2);
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.5f * float(std::sin(double(i / 2) * 0.06));
        QCOMPARE(AUDIO_WriteIEEEFloat(f, tone.data(), 44100), int64_t(44100));
        QCOMPARE(AUDIO_CloseFile(f), 1);
    }

    void damagedFiles_data()
    {
        QTest::addColumn<QString>("cut"); // where the file is cut off
        QTest::addColumn<QString>("format");
        QTest::newRow("vorbis cut after its id header") << "id" << "";
        QTest::newRow("vorbis cut inside its setup header") << "setup" << "";
        QTest::newRow("vorbis cut inside its setup header, read as ogg") << "setup" << "ogg";
    }

    // libsndfile keeps the Vorbis header state of an Ogg stream it cannot parse.
    void damagedFiles()
    {
        QFETCH(QString, cut);
        QFETCH(QString, format);
        QFile good(path(QStringLiteral("good.ogg")));
        QVERIFY(good.open(QIODevice::ReadOnly));
        QByteArray bytes = good.readAll();
        const int second = oggPage(bytes, 1), audio = oggPage(bytes, 2);
        QVERIFY(second > 0 && audio > second + 200);
        bytes.truncate(cut == QLatin1String("id") ? second + 40 : audio - 100);
        const QString name = path(QStringLiteral("cut.ogg"));
        QFile bad(name);
        QVERIFY(bad.open(QIODevice::WriteOnly) && bad.write(bytes) == bytes.size());
        bad.close();

        const QByteArray file = name.toUtf8(), fmt = format.toUtf8();
        expectFlat([&] { return AUDIO_LoadFileEx2(file, fmt, 0, 0, 0); });
        QVERIFY2(QByteArray(BLERROR_LastMessage()).contains(file), BLERROR_LastMessage());
    }

    void refusedEncoders_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("kbps");
        QTest::addColumn<QString>("reason"); // in the error message
        QTest::newRow("mp3 at 96 kHz") << "mp3" << 96000 << 2 << -1 << "96000 Hz";
        QTest::newRow("mp3 at 7001 Hz") << "mp3" << 7001 << 1 << -1 << "7001 Hz";
        QTest::newRow("mp3 at 6 kHz, 128 kbps") << "mp3" << 6000 << 2 << 128 << "6000 Hz";
        QTest::newRow("mp3 in 3 channels") << "mp3" << 44100 << 3 << -1 << "3";
        QTest::newRow("ogg vorbis at 384 kHz") << "ogg" << 384000 << 2 << -1 << "384000 Hz";
        QTest::newRow("mka mp3 in 3 channels") << "mka[codec=mp3]" << 44100 << 3 << -1 << "3";
    }

    // LAME keeps its state when libsndfile refuses its rate; the checks before the encoders
    // open must refuse first, naming the file and the reason.
    void refusedEncoders()
    {
        QFETCH(QString, format);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, kbps);
        QFETCH(QString, reason);
        const QByteArray file = path(QStringLiteral("out.bin")).toUtf8(), fmt = format.toUtf8();
        const _audio_format wanted = AUDIO_FormatEx(rate, int16_t(channels), 16);
        expectFlat([&] { return AUDIO_CreateFileEx2(file, fmt, &wanted, kbps, -1, 0, nullptr, 0); });
        const QByteArray message = BLERROR_LastMessage();
        QVERIFY2(message.contains(file) && message.contains(reason.toUtf8()), message);
        QVERIFY(!QFile::exists(QString::fromUtf8(file)));
    }
};

QTEST_GUILESS_MAIN(TestAudioFailedOpens)
#include "tst_audiofailedopens.moc"
