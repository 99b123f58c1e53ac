// Command lines an attacker or a careless user types: memory addresses as paths, outputs
// that are inputs, numbers past every limit, malformed format strings, unwritable targets.
// Each must be refused with its exit status and a message naming what was wrong, and leave
// every file in the working folder as it was.
#include "../peertools.h"

#include <QtTest>

#include <unistd.h>

class tst_SovaHostile : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();

    static void write(const QString& name, const QByteArray& bytes)
    {
        QFile f(name);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(f.write(bytes), qint64(bytes.size()));
    }

    // A second of 16-bit mono at 16 kHz: a ramp.
    static QByteArray wav()
    {
        QByteArray file;
        QDataStream s(&file, QIODevice::WriteOnly);
        s.setByteOrder(QDataStream::LittleEndian);
        const quint32 frames = 16000, bytes = frames * 2;
        s.writeRawData("RIFF", 4);
        s << quint32(36 + bytes);
        s.writeRawData("WAVEfmt ", 8);
        s << quint32(16) << quint16(1) << quint16(1) << quint32(16000) << quint32(32000)
          << quint16(2) << quint16(16);
        s.writeRawData("data", 4);
        s << bytes;
        for (quint32 i = 0; i < frames; ++i)
            s << qint16(i % 20000);
        return file;
    }

    // Every entry under the working folder: name -> content (a link: its target; a folder:
    // nothing).
    QMap<QString, QByteArray> snapshot() const
    {
        QMap<QString, QByteArray> entries;
        QDirIterator it(m_dir.path(),
            QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
            QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QFileInfo info(path);
            QFile f(path);
            entries.insert(path,
                info.isSymLink()                  ? info.symLinkTarget().toUtf8()
                    : info.isDir()                ? QByteArray()
                    : f.open(QIODevice::ReadOnly) ? f.readAll()
                                                  : QByteArray("?"));
        }
        return entries;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(QDir::setCurrent(m_dir.path()));
        write(QStringLiteral("a.wav"), wav());
        write(QStringLiteral("b.wav"), wav());
        write(QStringLiteral("settings.conf"), "# sova settings\nkey = 1\n");
        write(QStringLiteral("song.ini"), "[s]\nk = 1\n");
        QVERIFY(QDir().mkdir(QStringLiteral("folder")));
        QCOMPARE(::link("a.wav", "hard.wav"), 0);
        QVERIFY(QFile::link(QStringLiteral("a.wav"), QStringLiteral("sym.wav")));
        m_environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath("config"));
    }

    void refused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        const QString memory = QStringLiteral(
            "sova: 'qiodevice://0x1': memory-address paths come from programs, not from users");
        const auto row = [](const char* name, const QString& line, int status, const QString& m) {
            QTest::newRow(name) << line.split(QLatin1Char(' ')) << status << m;
        };

        // Memory addresses, from every kind of argument (ini and demo crashed on them).
        row("ini file", "ini qiodevice://0x1 s k v", 2, memory);
        row("ini read", "ini qiodevice://0x1", 2, memory);
        row("demo folder", "demo qiodevice://0x1", 2, memory);
        row("settings file", "settings --file qiodevice://0x1 set a.b 1", 2, memory);
        row("info among files", "info a.wav qiodevice://0x1", 2, memory);
        row("convert output", "convert a.wav qiodevice://0x1", 2, memory);
        row("input with fmtconv", "convert qiodevice://0x1:fmtconv[sr=8000] o.wav", 2,
            "'qiodevice://0x1:fmtconv[sr=8000]': memory-address");
        row("hfile in any case", "stats HFILE://0x10", 2, "'HFILE://0x10': memory-address");
        row("labels output", "vad a.wav --labels hfile://0x1", 2, "memory-address");
        row("csv output", "spectrum a.wav --csv qiodevice://0x1", 2, memory);

        // Outputs that are inputs, side outputs included, in every spelling.
        row("labels over input", "vad a.wav --labels a.wav", 2, "'a.wav' is both an input");
        row("csv over input", "spectrum b.wav --csv b.wav", 2, "'b.wav' is both an input");
        row("png over input by ./", "spectrum b.wav --png ./b.wav", 2,
            "'./b.wav' is the same file as the input 'b.wav'");
        row("png over input by hard link", "spectrum a.wav --png hard.wav", 2,
            "'hard.wav' is the same file as the input 'a.wav'");
        row("csv over input by symlink", "spectrum a.wav --csv sym.wav", 2,
            "'sym.wav' is the same file as the input 'a.wav'");
        row("csv and png one file", "spectrum a.wav --csv x.csv --png ./x.csv", 2,
            "'./x.csv' is named twice");
        row("output by file://", "convert a.wav file://a.wav", 2,
            "'file://a.wav' is the same file as the input 'a.wav'");
        row("output by qfile://", "convert a.wav qfile://sym.wav", 2,
            "'qfile://sym.wav' is the same file as the input 'a.wav'");
        row("join over an input", "join a.wav b.wav ./b.wav", 2, "'./b.wav' is the same file");
        row("missing input as output", "convert new.wav ./new.wav", 2,
            "'./new.wav' is the same file as the input 'new.wav'");

        // Numbers in full, before any narrowing (65537 channels wrote mono).
        row("channels wrap", "convert a.wav o.wav --channels 65537", 2,
            "sova: --channels 65537: out of range (1\u20138)");
        row("bits wrap", "convert a.wav o.wav --bits 65560", 2, "--bits 65560: out of range (3,");
        row("rate too high", "convert a.wav o.wav --rate 99999999", 2,
            "--rate 99999999: out of range (10\u2013500000)");
        row("rate too low", "convert a.wav o.wav --rate 1", 2, "--rate 1: out of range");
        row("nine channels", "convert a.wav o.wav --channels 9", 2, "--channels 9: out of range");
        row("seven bits", "convert a.wav o.wav --bits 7", 2, "--bits 7: out of range");
        row("beyond 64 bits", "convert a.wav o.wav -r 18446744073709551617", 2,
            "--rate 18446744073709551617: out of range");
        row("negative", "convert a.wav o.wav --channels -1", 2, "--channels -1: out of range");
        row("not a number", "convert a.wav o.wav --bits 16x", 2, "--bits 16x: not a whole number");
        row("fft wraps to 16", "spectrum a.wav --fft 4294967312", 2,
            "--fft 4294967312: out of range (16\u20131048576)");
        row("odd fft", "spectrum a.wav --fft 17", 2, "--fft 17: not even");
        row("no step", "spectrum a.wav --step 0", 2, "--step 0: out of range");
        row("channel wraps to 1", "spectrum a.wav --channel 65537", 2,
            "--channel 65537: out of range (1\u20138)");
        row("endless selection", "stats a.wav --selection 0-" + QString(400, QLatin1Char('9')), 2,
            "out of range (seconds, finite)");
        row("formats channels wrap", "formats --format sr=48000,nc=65537", 2,
            "--format 'sr=48000,nc=65537': nc out of range (1\u20138)");
        row("formats bits wrap", "formats --format sr=48000,nc=2,nbits=65560", 2,
            "nbits out of range");

        // Format strings are usage errors, named by their option.
        row("nested brackets", "convert a.wav o.wav --format wav[[[]]]", 2,
            "--format 'wav[[[]]]': ");
        row("unknown name", "convert a.wav o.wav --format zzz", 2,
            "--format 'zzz': unknown format name");
        row("input format", "convert a.wav o.wav --in-format raw[sr=8000", 2, "--in-format");
        row("info format", "info --format wav] a.wav", 2, "--format 'wav]'");
        row("stats format", "stats a.wav --format wav[sr=1]", 2, "--format 'wav[sr=1]'");
        row("fx format", "fx a.wav o.wav --chain gain[db=1] --format flac[x=[1]", 2, "--format");
        row("decode format", "decode a.wav o.wav --codec MP3 --format wav[nch=9]", 2,
            "--format 'wav[nch=9]'");
        row("split format", "split a.wav o.wav --format zzz", 2, "--format 'zzz'");
        row("fmtconv", "convert a.wav:fmtconv[nch=9] o.wav", 2, "bad :fmtconv suffix");

        // A target that cannot be written says why.
        row("missing folder", "convert a.wav nodir/o.wav", 1,
            "cannot write 'nodir/o.wav': No such file or directory");
        row("labels into a missing folder", "vad a.wav --labels nodir/l.txt", 1,
            "cannot write 'nodir/l.txt': No such file or directory");
        row("ini into a missing folder", "ini nodir/x.ini s k v", 1,
            "'nodir/x.ini': No such file or directory");
        row("settings in a folder", "settings --file folder get key", 1,
            "cannot read 'folder': it is a directory");
    }

    void refused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, message);
        const QMap<QString, QByteArray> before = snapshot();
        const peer::Run r = peer::run(QStringLiteral(SOVA_BINARY), arguments, m_environment);
        const QString err = QString::fromUtf8(r.err);
        QVERIFY2(r.status == status, qPrintable(QStringLiteral("%1: %2").arg(r.status).arg(err)));
        QVERIFY2(err.contains(message), qPrintable(err));
        QCOMPARE(snapshot(), before);
    }
};

QTEST_GUILESS_MAIN(tst_SovaHostile)
#include "tst_sovahostile.moc"
