// Region (marker) files of the engine: the format records, label text and CUE sheets written
// and read back, files of other writers, CUE frame rounding, malformed files that must fail
// with the file and line named, regions that cannot be written, and the caller's capacity.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <cstring>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(std::vector<_audio_region>)

namespace {

_audio_region region(double begin, double end, const QString& label)
{
    _audio_region r {};
    r.begin = begin;
    r.end = end;
    const QByteArray utf8 = label.toUtf8();
    std::memcpy(r.label, utf8.constData(), size_t(std::min(utf8.size(), 255)));
    return r;
}

using Regions = std::vector<_audio_region>;

void compareRegions(const Regions& actual, const Regions& expected, double tolerance)
{
    QCOMPARE(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        const QByteArray where = QByteArray("region ") + QByteArray::number(int(i));
        QVERIFY2(std::fabs(actual[i].begin - expected[i].begin) <= tolerance, where);
        QVERIFY2(std::fabs(actual[i].end - expected[i].end) <= tolerance, where);
        QCOMPARE(QString::fromUtf8(actual[i].label), QString::fromUtf8(expected[i].label));
    }
}

} // namespace

class TestAudioRegions : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString file(const char* name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    static void writeBytes(const QString& path, const QByteArray& bytes)
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(f.write(bytes), qint64(bytes.size()));
    }

    static QByteArray readBytes(const QString& path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    static Regions read(const QString& path, const char* tag, int capacity = 200)
    {
        Regions out(size_t(std::max(capacity, 1)));
        const int n = AUDIO_ReadRegions(path.toUtf8().constData(), tag, out.data(), capacity);
        out.resize(size_t(std::max(n, 0)));
        return out;
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void filters_data()
    {
        QTest::addColumn<bool>("nullArray");
        QTest::addColumn<int>("capacity");
        QTest::addColumn<QStringList>("tags");
        QTest::newRow("null array") << true << 32 << QStringList();
        QTest::newRow("no room") << false << 0 << QStringList();
        QTest::newRow("negative room") << false << -4 << QStringList();
        QTest::newRow("room for one") << false << 1 << QStringList {QStringLiteral("labels")};
        QTest::newRow("room for all")
            << false << 32 << QStringList {QStringLiteral("labels"), QStringLiteral("cue")};
    }

    void filters()
    {
        QFETCH(bool, nullArray);
        QFETCH(int, capacity);
        QFETCH(QStringList, tags);
        const _sAUDIORegionFilter* records[32] = {};
        const int n = AUDIO_GetExternalRegionFilters(nullArray ? nullptr : records, capacity);
        QCOMPARE(n, tags.size());
        for (int i = 0; i < n; ++i) {
            QVERIFY(records[i]);
            QCOMPARE(QString::fromUtf8(records[i]->tagName), tags[i]);
            QCOMPARE(records[i]->version, 1u);
            QCOMPARE(records[i]->kind,
                uint32_t(i == 0 ? AUDIOREGION_KIND_LABELS : AUDIOREGION_KIND_CUE));
            QCOMPARE(records[i]->flags,
                uint32_t(AUDIOREGION_READ | AUDIOREGION_WRITE | AUDIOREGION_LISTED));
            QVERIFY(records[i]->filter);
            // The filter names the extension the format's files carry.
            QVERIFY(QString::fromUtf8(records[i]->filter)
                        .contains(i == 0 ? QLatin1String("*.txt") : QLatin1String("*.cue")));
        }
        for (int i = std::max(n, 0); i < 32; ++i)
            QVERIFY(!records[i]);
    }

    void roundTrip_data()
    {
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<Regions>("written");
        QTest::addColumn<Regions>("expected");
        QTest::addColumn<double>("tolerance");

        const Regions plain {region(0.0, 1.5, QStringLiteral("intro")),
            region(1.5, 2.25, QStringLiteral("verse")), region(10.0, 10.0, QStringLiteral("hit"))};
        QTest::newRow("labels plain") << QByteArray("labels") << plain << plain << 5e-7;
        const Regions tricky {region(0.000001, 3600.123456, QStringLiteral("a\tb\tc")),
            region(2.0, 3.0, QStringLiteral("\tleading tab")),
            region(4.0, 5.0, QStringLiteral("  leading blanks")), region(5.0, 6.0, QString()),
            region(6.0, 7.0, QStringLiteral("Grüße – 日本語 🎵")),
            region(7.0, 8.0, QStringLiteral("\\ not a frequency line"))};
        QTest::newRow("labels tabs and UTF-8") << QByteArray("labels") << tricky << tricky << 5e-7;
        const Regions longLabel {region(1.0, 2.0, QString(127, QChar(0x00E9)) + QLatin1Char('x'))};
        QTest::newRow("labels 255 bytes") << QByteArray("labels") << longLabel << longLabel << 5e-7;
        QTest::newRow("labels none") << QByteArray("labels") << Regions() << Regions() << 0.0;

        // A CUE sheet keeps starts only: each region ends where the next begins, the last one
        // has no length.
        const Regions cue {region(0.0, 9.0, QStringLiteral("Intro")),
            region(62.0 + 5.0 / 75, 99.0, QStringLiteral("Grüße \"live\"")),
            region(3725.0, 3800.0, QStringLiteral("a\tb"))};
        const Regions cueBack {region(0.0, 62.0 + 5.0 / 75, QStringLiteral("Intro")),
            region(62.0 + 5.0 / 75, 3725.0, QStringLiteral("Grüße \"live\"")),
            region(3725.0, 3725.0, QStringLiteral("a\tb"))};
        QTest::newRow("cue") << QByteArray("cue") << cue << cueBack << 1e-9;
        QTest::newRow("cue none") << QByteArray("cue") << Regions() << Regions() << 0.0;
        Regions full, fullBack;
        for (int i = 0; i < 99; ++i) {
            full.push_back(region(i * 2.0, i * 2.0 + 1.0, QString::number(i)));
            fullBack.push_back(
                region(i * 2.0, i < 98 ? i * 2.0 + 2.0 : i * 2.0, QString::number(i)));
        }
        QTest::newRow("cue 99 tracks") << QByteArray("cue") << full << fullBack << 1e-9;
    }

    void roundTrip()
    {
        QFETCH(QByteArray, tag);
        QFETCH(Regions, written);
        QFETCH(Regions, expected);
        QFETCH(double, tolerance);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("marks.") + QString::fromLatin1(tag));
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), tag.constData(), written.data(),
                     int(written.size()), "take 1.wav"),
            1);
        // The temporary file was renamed over the target: nothing else is left behind.
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
            QStringList {QFileInfo(path).fileName()});
        compareRegions(read(path, tag.constData()), expected, tolerance);
        if (tag == "cue")
            QVERIFY(readBytes(path).startsWith("FILE \"take 1.wav\" WAVE\n"));
    }

    void cueFrames_data()
    {
        QTest::addColumn<double>("begin");
        QTest::addColumn<QByteArray>("index");
        QTest::addColumn<int>("frames");
        QTest::newRow("zero") << 0.0 << QByteArray("00:00:00") << 0;
        QTest::newRow("one frame") << 1.0 / 75 << QByteArray("00:00:01") << 1;
        QTest::newRow("under half a frame") << 0.006 << QByteArray("00:00:00") << 0;
        QTest::newRow("over half a frame") << 0.007 << QByteArray("00:00:01") << 1;
        QTest::newRow("last frame of a minute") << 59.99 << QByteArray("00:59:74") << 4499;
        QTest::newRow("rounds into the next minute") << 59.995 << QByteArray("01:00:00") << 4500;
        QTest::newRow("over an hour") << 3725.5 << QByteArray("62:05:38") << 279413;
    }

    void cueFrames()
    {
        QFETCH(double, begin);
        QFETCH(QByteArray, index);
        QFETCH(int, frames);
        const QString path = file("frames.cue");
        const _audio_region r = region(begin, begin + 1.0, QStringLiteral("x"));
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), "cue", &r, 1, nullptr), 1);
        const QByteArray text = readBytes(path);
        QVERIFY2(text.contains("    INDEX 01 " + index + "\n"), text.constData());
        QVERIFY(text.startsWith("FILE \"frames.wav\" WAVE\n  TRACK 01 AUDIO\n    TITLE \"x\"\n"));
        const Regions back = read(path, "cue");
        QCOMPARE(back.size(), size_t(1));
        QCOMPARE(back[0].begin, frames / 75.0);
    }

    void readForeign_data()
    {
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<Regions>("expected");

        QTest::newRow("voice activity labels")
            << QByteArray("labels") << QByteArray("0.500\t1.250\tspeech\n3.000\t4.125\tspeech\n")
            << Regions {region(0.5, 1.25, QStringLiteral("speech")),
                   region(3.0, 4.125, QStringLiteral("speech"))};
        QTest::newRow("blanks, CRLF, BOM, no final break")
            << QByteArray("labels")
            << QByteArray("\xEF\xBB\xBF  1   2.5   two words\r\n\r\n\t3 4\r\n5e-1 1E1 x")
            << Regions {region(1.0, 2.5, QStringLiteral("two words")), region(3.0, 4.0, QString()),
                   region(0.5, 10.0, QStringLiteral("x"))};
        QTest::newRow("frequency lines skipped")
            << QByteArray("labels")
            << QByteArray("1.0\t2.0\tlow\n\\\t100.0\t2000.0\n3.0\t4.0\thigh\n\\\t-1\t-1\n")
            << Regions {region(1.0, 2.0, QStringLiteral("low")),
                   region(3.0, 4.0, QStringLiteral("high"))};
        QTest::newRow("long label cut at a character")
            << QByteArray("labels") << QByteArray("0\t1\t") + QString(300, QChar(0x00E9)).toUtf8()
            << Regions {region(0.0, 1.0, QString(127, QChar(0x00E9)))};

        QTest::newRow("cue of a ripper")
            << QByteArray("cue")
            << QByteArray("REM GENRE Rock\nPERFORMER \"Band\"\nTITLE \"Album\"\n"
                          "FILE \"album.flac\" WAVE\n  TRACK 01 AUDIO\n    TITLE \"One\"\n"
                          "    PERFORMER \"Band\"\n    INDEX 01 00:00:00\n"
                          "  track 02 audio\n    title Two Words\n    PREGAP 00:02:00\n"
                          "    INDEX 00 01:58:00\n    index 01 02:00:15\n"
                          "  TRACK 03 AUDIO\n    FLAGS DCP\n    INDEX 1 02:30:00\n")
            << Regions {region(0.0, 120.2, QStringLiteral("One")),
                   region(120.2, 150.0, QStringLiteral("Two Words")),
                   region(150.0, 150.0, QString())};
        QTest::newRow("cue without tracks")
            << QByteArray("cue") << QByteArray("REM nothing\nFILE \"a.wav\" WAVE\n") << Regions();
    }

    void readForeign()
    {
        QFETCH(QByteArray, tag);
        QFETCH(QByteArray, content);
        QFETCH(Regions, expected);
        const QString path = file("foreign");
        writeBytes(path, content);
        compareRegions(read(path, tag.constData()), expected, 1e-9);
    }

    void malformed_data()
    {
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("line");

        QTest::newRow("label: no number")
            << QByteArray("labels") << QByteArray("1\t2\tok\nabc\t1\tx\n") << 2;
        QTest::newRow("label: one number") << QByteArray("labels") << QByteArray("1.0\n") << 1;
        QTest::newRow("label: word as end") << QByteArray("labels") << QByteArray("1.0 abc\n") << 1;
        QTest::newRow("label: number glued to text")
            << QByteArray("labels") << QByteArray("1.0 2.0x\n") << 1;
        QTest::newRow("label: ends before it begins")
            << QByteArray("labels") << QByteArray("\n\n2.0\t1.0\tx\n") << 3;
        QTest::newRow("label: negative") << QByteArray("labels") << QByteArray("-1\t1\tx\n") << 1;
        QTest::newRow("label: nan") << QByteArray("labels") << QByteArray("nan\t1\tx\n") << 1;
        QTest::newRow("label: infinite end")
            << QByteArray("labels") << QByteArray("1\tinf\tx\n") << 1;
        QTest::newRow("label: line too long")
            << QByteArray("labels") << QByteArray("1\t2\t") + QByteArray(5000, 'a') << 1;
        QTest::newRow("label: not UTF-8")
            << QByteArray("labels") << QByteArray("1\t2\tok\n1\t2\t\xC3\x28\n") << 2;
        QTest::newRow("label: overlong UTF-8")
            << QByteArray("labels") << QByteArray("1\t2\t\xC0\xAF\n") << 1;
        QTest::newRow("label: NUL byte")
            << QByteArray("labels") << QByteArray("1\t2\ta\0b\n", 8) << 1;

        QTest::newRow("cue: track 0") << QByteArray("cue") << QByteArray("TRACK 00 AUDIO\n") << 1;
        QTest::newRow("cue: track 100")
            << QByteArray("cue") << QByteArray("FILE \"a\" WAVE\nTRACK 100 AUDIO\n") << 2;
        QTest::newRow("cue: track without number")
            << QByteArray("cue") << QByteArray("TRACK\n") << 1;
        QTest::newRow("cue: no INDEX 01")
            << QByteArray("cue")
            << QByteArray("TRACK 01 AUDIO\nINDEX 01 00:00:00\nTRACK 02 AUDIO\nINDEX 00 00:01:00\n")
            << 3;
        QTest::newRow("cue: 60 seconds")
            << QByteArray("cue") << QByteArray("TRACK 01 AUDIO\nINDEX 01 00:60:00\n") << 2;
        QTest::newRow("cue: 75 frames")
            << QByteArray("cue") << QByteArray("TRACK 01 AUDIO\nINDEX 01 00:00:75\n") << 2;
        QTest::newRow("cue: garbled time")
            << QByteArray("cue") << QByteArray("TRACK 01 AUDIO\nINDEX 01 0:x:0\n") << 2;
        QTest::newRow("cue: index before any track")
            << QByteArray("cue") << QByteArray("INDEX 01 00:00:00\n") << 1;
        QTest::newRow("cue: going backwards")
            << QByteArray("cue")
            << QByteArray("TRACK 01 AUDIO\nINDEX 01 00:10:00\nTRACK 02 AUDIO\nINDEX 01 00:09:00\n")
            << 4;
        QTest::newRow("cue: second FILE")
            << QByteArray("cue") << QByteArray("FILE \"a\" WAVE\nFILE \"b\" WAVE\n") << 2;
        QTest::newRow("cue: unterminated title")
            << QByteArray("cue") << QByteArray("TRACK 01 AUDIO\nTITLE \"abc\n") << 2;
        QByteArray many;
        for (int i = 1; i <= 100; ++i)
            many += "TRACK " + QByteArray::number(i % 99 + 1) + " AUDIO\nINDEX 01 00:00:00\n";
        QTest::newRow("cue: 100 tracks") << QByteArray("cue") << many << 199;
    }

    void malformed()
    {
        QFETCH(QByteArray, tag);
        QFETCH(QByteArray, content);
        QFETCH(int, line);
        const QString path = file("broken.txt");
        writeBytes(path, content);
        _audio_region out[4];
        QCOMPARE(AUDIO_ReadRegions(path.toUtf8().constData(), tag.constData(), out, 4), -1);
        const QString message = QString::fromUtf8(BLERROR_LastMessage());
        QVERIFY2(message.contains(path), qPrintable(message));
        QVERIFY2(message.contains(QStringLiteral("line %1:").arg(line)), qPrintable(message));
        QVERIFY(BLERROR_LastCode() >= AUDIOERR_FIRST);
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<Regions>("regions");
        QTest::addColumn<int>("count");
        QTest::addColumn<QByteArray>("audioFile");

        const Regions ok {region(0, 1, QStringLiteral("a"))};
        QTest::newRow("unknown format") << QByteArray("srt") << ok << 1 << QByteArray();
        QTest::newRow("negative count") << QByteArray("labels") << ok << -1 << QByteArray();
        for (const char* tag : {"labels", "cue"}) {
            const QByteArray t(tag);
            QTest::addRow("%s: negative begin", tag)
                << t << Regions {region(-0.5, 1, QString())} << 1 << QByteArray();
            QTest::addRow("%s: ends before it begins", tag)
                << t << Regions {region(2, 1, QString())} << 1 << QByteArray();
            QTest::addRow("%s: NaN end", tag)
                << t << Regions {region(1, std::nan(""), QString())} << 1 << QByteArray();
            QTest::addRow("%s: label with a line break", tag)
                << t << Regions {ok[0], region(1, 2, QStringLiteral("two\nlines"))} << 2
                << QByteArray();
            _audio_region bad = region(1, 2, QString());
            std::strcpy(bad.label, "\xFF\xFE");
            QTest::addRow("%s: label not UTF-8", tag) << t << Regions {bad} << 1 << QByteArray();
            std::memset(bad.label, 'a', sizeof bad.label);
            QTest::addRow("%s: label not terminated", tag)
                << t << Regions {bad} << 1 << QByteArray();
        }
        QTest::newRow("cue: 100 tracks")
            << QByteArray("cue") << Regions(100, ok[0]) << 100 << QByteArray();
        QTest::newRow("cue: begins out of order")
            << QByteArray("cue") << Regions {region(5, 6, QString()), region(4, 5, QString())} << 2
            << QByteArray();
        QTest::newRow("cue: file name with a line break")
            << QByteArray("cue") << ok << 1 << QByteArray("a\nb.wav");
    }

    void refused()
    {
        QFETCH(QByteArray, tag);
        QFETCH(Regions, regions);
        QFETCH(int, count);
        QFETCH(QByteArray, audioFile);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("keep.txt"));
        writeBytes(path, "1\t2\tbefore\n");
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), tag.constData(), regions.data(),
                     count, audioFile.isNull() ? nullptr : audioFile.constData()),
            0);
        QVERIFY(BLERROR_LastCode() != BLERR_NONE);
        QVERIFY(QString::fromUtf8(BLERROR_LastMessage()).contains(path));
        // A refused write leaves the old file as it was and nothing beside it.
        QCOMPARE(readBytes(path), QByteArray("1\t2\tbefore\n"));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
            QStringList {QStringLiteral("keep.txt")});
    }

    void capacity_data()
    {
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<int>("capacity");
        QTest::addColumn<int>("expected");
        for (const char* tag : {"labels", "cue"}) {
            QTest::addRow("%s: none", tag) << QByteArray(tag) << 0 << 0;
            QTest::addRow("%s: fewer", tag) << QByteArray(tag) << 3 << 3;
            QTest::addRow("%s: exact", tag) << QByteArray(tag) << 5 << 5;
            QTest::addRow("%s: more", tag) << QByteArray(tag) << 9 << 5;
        }
    }

    void capacity()
    {
        QFETCH(QByteArray, tag);
        QFETCH(int, capacity);
        QFETCH(int, expected);
        const QString path = file("five");
        Regions five;
        for (int i = 0; i < 5; ++i)
            five.push_back(region(i, i + 1, QStringLiteral("r%1").arg(i)));
        QCOMPARE(
            AUDIO_WriteRegions(path.toUtf8().constData(), tag.constData(), five.data(), 5, nullptr),
            1);
        Regions out(10, region(-7, -7, QStringLiteral("untouched")));
        QCOMPARE(AUDIO_ReadRegions(path.toUtf8().constData(), tag.constData(),
                     capacity ? out.data() : nullptr, capacity),
            expected);
        for (int i = 0; i < 10; ++i) {
            if (i < expected) {
                QCOMPARE(out[size_t(i)].begin, double(i));
                QCOMPARE(QString::fromUtf8(out[size_t(i)].label), QStringLiteral("r%1").arg(i));
            } else {
                QCOMPARE(out[size_t(i)].begin, -7.0);
            }
        }
    }

    void badArguments_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<int>("capacity");
        QTest::addColumn<bool>("nullRegions");
        QTest::newRow("missing file")
            << file("nothing-here.txt") << QByteArray("labels") << 4 << false;
        QTest::newRow("unknown format") << file("five") << QByteArray("LABELS") << 4 << false;
        QTest::newRow("null format") << file("five") << QByteArray() << 4 << false;
        QTest::newRow("negative capacity") << file("five") << QByteArray("labels") << -1 << false;
        QTest::newRow("room without array") << file("five") << QByteArray("labels") << 4 << true;
        QTest::newRow("unknown scheme")
            << QStringLiteral("nosuch://x") << QByteArray("cue") << 4 << false;
    }

    void badArguments()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, tag);
        QFETCH(int, capacity);
        QFETCH(bool, nullRegions);
        writeBytes(file("five"), "1\t2\tx\n");
        _audio_region out[4];
        QCOMPARE(
            AUDIO_ReadRegions(path.toUtf8().constData(), tag.isNull() ? nullptr : tag.constData(),
                nullRegions ? nullptr : out, capacity),
            -1);
        QVERIFY(BLERROR_LastCode() != BLERR_NONE);
    }

    void replacesTheFileWhole()
    {
        // The new text goes into a new file renamed over the old one: a second name of the old
        // file keeps the old text, and the old file's permissions carry over.
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("marks.txt"));
        const QString other = dir.filePath(QStringLiteral("old.txt"));
        writeBytes(path, "1\t2\told\n");
        QCOMPARE(::link(qPrintable(path), qPrintable(other)), 0);
        QCOMPARE(::chmod(qPrintable(path), 0640), 0);
        const _audio_region r = region(3, 4, QStringLiteral("new"));
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), "labels", &r, 1, nullptr), 1);
        QCOMPARE(readBytes(path), QByteArray("3.000000\t4.000000\tnew\n"));
        QCOMPARE(readBytes(other), QByteArray("1\t2\told\n"));
        struct stat info;
        QCOMPARE(::stat(qPrintable(path), &info), 0);
        QCOMPARE(int(info.st_mode & 0777), 0640);
    }

    void writeIntoMissingDirectory()
    {
        const _audio_region r = region(0, 1, QStringLiteral("x"));
        const QString path = file("no/such/dir/marks.txt");
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), "labels", &r, 1, nullptr), 0);
        QVERIFY(QString::fromUtf8(BLERROR_LastMessage()).contains(path));
    }
};

QTEST_GUILESS_MAIN(TestAudioRegions)
#include "tst_audioregions.moc"
