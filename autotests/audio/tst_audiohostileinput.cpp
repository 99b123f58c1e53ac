// Text a user or a file supplies, as the engine meets it: memory-address paths inside CUE
// sheets (never handed on), and format strings with junk around their option list.
#include <sova/audio.h>
#include <sova/blerror.h>
#include <sova/blio.h>

#include <QtTest>

class TestAudioHostileInput : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void memoryAddressSchemes_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<bool>("memory");
        QTest::newRow("qiodevice") << QByteArray("qiodevice://0x1") << true;
        QTest::newRow("any case") << QByteArray("QIODevice://0x1") << true;
        QTest::newRow("hfile") << QByteArray("hfile://0x7f00") << true;
        QTest::newRow("with fmtconv") << QByteArray("hfile://0x1:fmtconv[sr=8000]") << true;
        QTest::newRow("qfile names a file") << QByteArray("qfile:///tmp/a.wav") << false;
        QTest::newRow("file") << QByteArray("file://qiodevice://0x1") << false;
        QTest::newRow("one slash is a local name") << QByteArray("qiodevice:/0x1") << false;
        QTest::newRow("prefix of a longer scheme") << QByteArray("hfilex://0x1") << false;
        QTest::newRow("local") << QByteArray("./hfile://0x1") << false;
        QTest::newRow("empty") << QByteArray("") << false;
    }

    void memoryAddressSchemes()
    {
        QFETCH(QByteArray, path);
        QFETCH(bool, memory);
        QCOMPARE(BLIO_NamesMemoryAddress(path.constData()) != 0, memory);
    }

    void cueFileLine_data()
    {
        QTest::addColumn<QByteArray>("fileLine");
        QTest::addColumn<bool>("refused");
        QTest::newRow("quoted address") << QByteArray("FILE \"qiodevice://0x1\" WAVE") << true;
        QTest::newRow("bare address") << QByteArray("file hfile://0x10 WAVE") << true;
        QTest::newRow("address, no type") << QByteArray("FILE \"QIODEVICE://0x2\"") << true;
        QTest::newRow("file name") << QByteArray("FILE \"song.wav\" WAVE") << false;
        QTest::newRow("quotes in the name") << QByteArray("FILE \"a \"b\".wav\" WAVE") << false;
        QTest::newRow("file scheme") << QByteArray("FILE \"file:///x/song.wav\" WAVE") << false;
    }

    // A sheet is not the program that formatted an address: the reader refuses it rather
    // than let an editor open "the audio file" of the sheet at a pointer from a download.
    void cueFileLine()
    {
        QFETCH(QByteArray, fileLine);
        QFETCH(bool, refused);
        const QString path = m_dir.filePath(QStringLiteral("sheet.cue"));
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(fileLine + "\n  TRACK 01 AUDIO\n    TITLE \"One\"\n    INDEX 01 00:01:00\n");
        f.close();
        _audio_region regions[2] = {};
        const int n = AUDIO_ReadRegions(path.toUtf8().constData(), "cue", regions, 2);
        QCOMPARE(n, refused ? -1 : 1);
        if (refused) {
            const QString message = QString::fromUtf8(BLERROR_LastMessage());
            QVERIFY2(message.contains(QStringLiteral("line 1")), qPrintable(message));
            QVERIFY2(message.contains(QStringLiteral("memory address")), qPrintable(message));
        }
    }

    void cueWriterRefusesAddress_data()
    {
        QTest::addColumn<QByteArray>("audioFile");
        QTest::addColumn<bool>("written");
        QTest::newRow("qiodevice") << QByteArray("qiodevice://0x55aa") << false;
        QTest::newRow("hfile") << QByteArray("HFILE://0x1") << false;
        QTest::newRow("file name") << QByteArray("take 1.wav") << true;
    }

    void cueWriterRefusesAddress()
    {
        QFETCH(QByteArray, audioFile);
        QFETCH(bool, written);
        const QString path = m_dir.filePath(QStringLiteral("out.cue"));
        QFile::remove(path);
        _audio_region r {1.0, 2.0, "x"};
        QCOMPARE(AUDIO_WriteRegions(path.toUtf8().constData(), "cue", &r, 1, audioFile.constData()),
            written ? 1 : 0);
        QCOMPARE(QFileInfo::exists(path), written);
    }

    void formatStrings_data()
    {
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("name") << QByteArray("wav") << true;
        QTest::newRow("options") << QByteArray("flac[nbits=24, sr=48000]") << true;
        QTest::newRow("only options") << QByteArray("[sr=8000,nch=1]") << true;
        QTest::newRow("quoted bracket") << QByteArray("wav[title=\"a]b\"]") << true;
        QTest::newRow("vector value") << QByteArray("wav[x=[1,2],nbits=16]") << true;
        QTest::newRow("bare key and empty item") << QByteArray("wav[big,]") << true;
        QTest::newRow("empty list") << QByteArray("wav[]") << true;
        QTest::newRow("nested brackets") << QByteArray("wav[[[]]]") << false;
        QTest::newRow("second list") << QByteArray("wav[sr=8000][nch=1]") << false;
        QTest::newRow("bracket in a value") << QByteArray("wav[codec=ulaw]]") << false;
        QTest::newRow("no name before =") << QByteArray("wav[=5]") << false;
        QTest::newRow("blank inside a name") << QByteArray("wav[s r=8000]") << false;
        QTest::newRow("unclosed quote") << QByteArray("wav[title=\"a]") << false;
        QTest::newRow("unclosed vector") << QByteArray("wav[x=[1,2]") << false;
        QTest::newRow("junk after quote") << QByteArray("wav[title=\"a\"b]") << false;
        QTest::newRow("unknown name") << QByteArray("zzz") << false;
        QTest::newRow("rate out of range") << QByteArray("wav[sr=99999999]") << false;
    }

    void formatStrings()
    {
        QFETCH(QByteArray, format);
        QFETCH(bool, accepted);
        QCOMPARE(AUDIO_CheckFormatString(format.constData()) != 0, accepted);
        if (!accepted) {
            const QString message = QString::fromUtf8(BLERROR_LastMessage());
            QVERIFY2(message.contains(QString::fromUtf8(format)), qPrintable(message));
        }
    }
};

QTEST_GUILESS_MAIN(TestAudioHostileInput)
#include "tst_audiohostileinput.moc"
