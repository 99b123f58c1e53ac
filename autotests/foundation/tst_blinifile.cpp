// Ini files: value types, byte-exact round trips, edits in place, typed writes, refusals.
#include <sova/blinifile.h>

#include <sova/blerror.h>
#include <sova/blio.h>

#include <QtTest>

#include <climits>
#include <cmath>
#include <limits>

namespace {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(bytes) == bytes.size();
}

bool sameDouble(double a, double b)
{
    return (std::isnan(a) && std::isnan(b)) || a == b;
}

const double inf = std::numeric_limits<double>::infinity();
const double notANumber = std::numeric_limits<double>::quiet_NaN();

// Comments of both kinds, blank and malformed lines, a global key, odd spacing, a repeat.
const QByteArray sample = "; leading comment\n# hash comment\ntop=1\n\n; about a\n[Alpha]\n  x=1\n"
                          "this line is malformed\nY   =   two  \n[ b ]   ; trailing comment\n"
                          "k = 1\nK = 2\n\n[empty]\n; last\n";

} // namespace

class TestBlIniFile : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    QString path(const char* name) const { return dir.filePath(QString::fromLatin1(name)); }

    // Opens an ini holding bytes; the caller closes it.
    BLINIFILE* openBytes(const QByteArray& bytes)
    {
        return !writeFile(path("in.ini"), bytes)
            ? nullptr
            : BLINIFILE_Open(path("in.ini").toUtf8().constData());
    }

private slots:
    void classify_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("type");
        QTest::addColumn<qlonglong>("integer"); // 777: the default, the value did not read
        QTest::addColumn<double>("real"); // -1.5: the default
        QTest::addColumn<QByteArray>("text");
        const auto row = [](const char* name, const QByteArray& v, int t, qlonglong i, double r,
                             const QByteArray& text = QByteArray()) {
            QTest::newRow(name) << v << t << i << r << (text.isNull() ? v : text);
        };
        row("0 empty", "", 0, 777, -1.5);
        row("1 text", "hello world", 1, 777, -1.5);
        row("2 quoted", "\"a \\\"b\\\"\\n\\t\\\\\"", 2, 777, -1.5, "a \"b\"\n\t\\");
        row("3 integer", "-42", 3, -42, -42.0);
        row("3 int64 min", "-9223372036854775808", 3, LLONG_MIN, -9223372036854775808.0);
        row("4 decimal", "-.25", 4, 0, -0.25);
        row("4 whole decimal", "1.0", 4, 1, 1.0);
        row("4 beyond int64", "9999999999999999999999", 4, 777, 1e22);
        row("5 scientific", "6.02E23", 5, 777, 6.02e23);
        row("5 with unit", "1e-3s", 8, 0, 0.001);
        row("6 percent", "50%", 6, 0, 0.5);
        row("6 blank before unit", "250 %", 6, 2, 2.5);
        row("7 decibels", "3.5 dB", 7, 3, 3.5);
        row("7 any case", "+6DB", 7, 6, 6.0);
        row("8 milliseconds", "1500ms", 8, 1, 1.5);
        row("8 microseconds", "250us", 8, 0, 0.00025);
        row("9 kilohertz", "44.1 kHz", 9, 44100, 44100.0);
        row("9 megahertz", "2MHz", 9, 2000000, 2e6);
        row("10 boolean", "Yes", 10, 777, -1.5);
        row("11 infinity", "-inf", 11, 777, -inf);
        row("11 nan", "NaN", 11, 777, notANumber);
        row("12 hexadecimal", "0x1F", 12, 31, 31.0);
        row("12 negative hex", "-0x10", 12, -16, -16.0);
        row("hex beyond int64", "0x8000000000000000", 1, 777, -1.5);
        row("word after true", "trueish", 1, 777, -1.5);
        row("quoted number", "\"42\"", 2, 777, -1.5, "42");
        row("unclosed quote", "\"abc", 1, 777, -1.5);
        row("bare quote inside", "\"a\"b\"", 1, 777, -1.5);
        row("unknown unit", "5 kg", 1, 777, -1.5);
        row("millihertz", "5mHz", 1, 777, -1.5);
        row("exponent without digits", "1e", 1, 777, -1.5);
    }
    void classify()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, type);
        QFETCH(qlonglong, integer);
        QFETCH(double, real);
        QFETCH(QByteArray, text);
        BLINIFILE* ini = openBytes("[s]\nk = " + value + "  \n");
        QVERIFY(ini);
        QCOMPARE(BLINIFILE_KeyType(ini, "s", "k"), type);
        QCOMPARE(qlonglong(BLINIFILE_ReadIntegerValue(ini, "s", "k", 777)), integer);
        const double read = BLINIFILE_ReadFloatValue(ini, "s", "k", -1.5);
        QVERIFY2(sameDouble(read, real), QByteArray::number(read, 'g', 17));
        QCOMPARE(QByteArray(BLINIFILE_ReadCStringValue(ini, "s", "k", nullptr)), text);
        BLINIFILE_Close(ini);
    }

    // Load and save give the same bytes; each edit changes only what it must.
    void edits_data()
    {
        QTest::addColumn<QByteArray>("source");
        QTest::addColumn<QByteArray>("section"); // null: no write
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char* name, const QByteArray& source, const char* section,
                             const char* key, const char* value, const QByteArray& expected) {
            QTest::newRow(name) << source << QByteArray(section) << QByteArray(key)
                                << QByteArray(value) << expected;
        };
        const auto with = [](QByteArray text, const char* from, const char* to) {
            return text.replace(from, to);
        };
        row("unchanged", sample, nullptr, "", "", sample);
        row("no final line end", "a=1\n;c", nullptr, "", "", "a=1\n;c");
        row("byte order mark", "\xEF\xBB\xBFk = v\n", nullptr, "", "", "\xEF\xBB\xBFk = v\n");
        row("crlf saved as lf", "[s]\r\nk = v\r\n", nullptr, "", "", "[s]\nk = v\n");
        row("spacing kept", sample, "alpha", "y", "three", with(sample, "two  ", "three"));
        row("empty value", sample, "Alpha", "X", "", with(sample, "  x=1", "  x="));
        row("repeated key: last", sample, "B", "k", "c", with(sample, "K = 2", "K = c"));
        row("new key after last", sample, "alpha", "z", "v",
            with(sample, "two  \n", "two  \nz = v\n"));
        row("new key, empty section", sample, "EMPTY", "z", "v",
            with(sample, "[empty]\n", "[empty]\nz = v\n"));
        row("new global key", "; file\n\n; about s\n[s]\n", "", "g", "x",
            "; file\ng = x\n\n; about s\n[s]\n");
        row("new section", sample, "New", "n", "v", sample + "\n[New]\nn = v\n");
        row("new section, no line end", "a=1", "s", "n", "", "a=1\n\n[s]\nn =\n");
    }
    void edits()
    {
        QFETCH(QByteArray, source);
        QFETCH(QByteArray, section);
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        QFETCH(QByteArray, expected);
        BLINIFILE* ini = openBytes(source);
        QVERIFY(ini);
        if (!section.isNull())
            QCOMPARE(BLINIFILE_WriteCStringValue(ini, section, key, value), 1);
        QCOMPARE(BLINIFILE_Save(ini, path("out.ini").toUtf8()), 1);
        BLINIFILE_Close(ini);
        QCOMPARE(readFile(path("out.ini")), expected);
    }

    // Names: case-insensitive, spelling kept, file order, each once; malformed lines ignored.
    void names()
    {
        BLINIFILE* ini = openBytes(sample);
        QVERIFY(ini);
        BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("tst_blinifile", 1024, 8);
        auto list = [](BLSTRINGLIST l) {
            QByteArrayList out;
            for (int i = 0; i < GetStringListLength(l); ++i)
                out << GetStringInStringList(l, i);
            return out.join('|');
        };
        QCOMPARE(list(BLINIFILE_ReadSectionsEx(ini, memory)), QByteArray("|Alpha|b|empty"));
        QCOMPARE(list(BLINIFILE_ReadSectionKeysEx(ini, "ALPHA", memory)), QByteArray("x|Y"));
        QCOMPARE(list(BLINIFILE_ReadSectionKeysEx(ini, "b", memory)), QByteArray("k"));
        QVERIFY(BLINIFILE_ReadSectionKeysEx(ini, "empty", memory));
        QVERIFY(!BLINIFILE_ReadSectionKeysEx(ini, "missing", memory));
        QCOMPARE(QByteArray(BLINIFILE_ReadCStringValue(ini, " alpha ", "y", "")), "two");
        QCOMPARE(BLINIFILE_ReadIntegerValue(ini, "B", "K", 0), 2);
        QVERIFY(BLINIFILE_ExistSection(ini, "EMPTY") && !BLINIFILE_ExistSection(ini, "none"));
        QVERIFY(!BLINIFILE_ExistSectionKey(ini, "alpha", "this line is malformed"));
        QCOMPARE(BLINIFILE_KeyType(ini, "alpha", "none"), -1);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_KEY_NOT_FOUND));
        BLMEM_DisposeMemDescr(memory);
        BLINIFILE_Close(ini);

        BLINIFILE* fresh = BLINIFILE_Create(nullptr);
        QVERIFY(!BLINIFILE_ExistSection(fresh, ""));
        BLINIFILE_WriteIntegerValue(fresh, "", "g", 1);
        QVERIFY(BLINIFILE_ExistSection(fresh, ""));
        BLINIFILE_Close(fresh);
    }

    // What each typed write puts in the file reads back, after a save, as the same type.
    void writes_data()
    {
        QTest::addColumn<char>("kind"); // s: text, f: float, i: integer, b: boolean
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<double>("number");
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("readBack");
        const auto row = [](const char* name, char kind, const QByteArray& text, double number,
                             int type, const QByteArray& readBack) {
            QTest::newRow(name) << kind << text << number << type << readBack;
        };
        row("text of a number", 's', "42", 0, 2, "42");
        row("text with blanks", 's', " x ", 0, 2, " x ");
        row("text with escapes", 's', "a\nb\t\"c\"\\\r", 0, 2, "a\nb\t\"c\"\\\r");
        row("text of a boolean", 's', "on", 0, 2, "on");
        row("text with a quote", 's', "\"x", 0, 2, "\"x");
        row("plain text", 's', "a = b ; c", 0, 1, "a = b ; c");
        row("empty text", 's', "", 0, 0, "");
        row("whole float", 'f', "", 1.0, 4, "1.0");
        row("negative zero", 'f', "", -0.0, 4, "-0.0");
        row("shortest float", 'f', "", 0.1, 4, "0.1");
        row("large float", 'f', "", 1e300, 5, "1e+300");
        row("infinity", 'f', "", -inf, 11, "-inf");
        row("nan", 'f', "", notANumber, 11, "nan");
        row("int64 min", 'i', "", -9223372036854775808.0, 3, "-9223372036854775808");
        row("boolean", 'b', "", 1.0, 10, "true");
    }
    void writes()
    {
        QFETCH(char, kind);
        QFETCH(QByteArray, text);
        QFETCH(double, number);
        QFETCH(int, type);
        QFETCH(QByteArray, readBack);
        BLINIFILE* ini = BLINIFILE_Create("mem");
        const char* s = "Sec";
        const int32_t ok = kind == 's' ? BLINIFILE_WriteCStringValue(ini, s, "k", text)
            : kind == 'f'              ? BLINIFILE_WriteFloatValue(ini, s, "k", number)
            : kind == 'i'              ? BLINIFILE_WriteIntegerValue(ini, s, "k", qint64(number))
                                       : BLINIFILE_WriteBooleanValue(ini, s, "k", int(number));
        QCOMPARE(ok, 1);
        QCOMPARE(BLINIFILE_Save(ini, path("w.ini").toUtf8()), 1);
        BLINIFILE_Close(ini);
        ini = BLINIFILE_Open(path("w.ini").toUtf8());
        QVERIFY(ini);
        QCOMPARE(BLINIFILE_KeyType(ini, s, "k"), type);
        QCOMPARE(QByteArray(BLINIFILE_ReadCStringValue(ini, s, "k", nullptr)), readBack);
        if (kind == 'f')
            QVERIFY(sameDouble(BLINIFILE_ReadFloatValue(ini, s, "k", 7), number)
                && std::signbit(BLINIFILE_ReadFloatValue(ini, s, "k", 7)) == std::signbit(number));
        if (kind == 'i')
            QCOMPARE(BLINIFILE_ReadIntegerValue(ini, s, "k", 7), qint64(number));
        if (kind == 'b')
            QCOMPARE(BLINIFILE_ReadBooleanValue(ini, s, "k", 0), 1);
        BLINIFILE_Close(ini);
    }

    void refusals_data()
    {
        QTest::addColumn<QByteArray>("section");
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("bracket in section")
            << QByteArray("a]") << QByteArray("k") << QByteArray("v");
        QTest::newRow("equals in key") << QByteArray("s") << QByteArray("a=b") << QByteArray("v");
        QTest::newRow("line break in key")
            << QByteArray("s") << QByteArray("a\nb") << QByteArray("v");
        QTest::newRow("comment key") << QByteArray("s") << QByteArray(";k") << QByteArray("v");
        QTest::newRow("blank key") << QByteArray("s") << QByteArray("  ") << QByteArray("v");
        QTest::newRow("invalid UTF-8") << QByteArray("s") << QByteArray("k") << QByteArray("\xC3(");
    }
    void refusals()
    {
        QFETCH(QByteArray, section);
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        BLINIFILE* ini = BLINIFILE_Create(nullptr);
        QCOMPARE(BLINIFILE_WriteCStringValue(ini, section, key, value), 0);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
        QCOMPARE(BLINIFILE_Save(ini, path("refused.ini").toUtf8()), 1);
        QCOMPARE(readFile(path("refused.ini")), QByteArray());
        BLINIFILE_Close(ini);
        // A null handle answers with failure values, never a crash.
        QCOMPARE(BLINIFILE_WriteIntegerValue(nullptr, "s", "k", 1), 0);
        QCOMPARE(BLINIFILE_ReadIntegerValue(nullptr, "s", "k", 5), 5);
        QCOMPARE(BLINIFILE_KeyType(nullptr, "s", "k"), -1);
        QCOMPARE(BLERROR_LastCode(), int(BLERR_INVALID_ARGUMENT));
    }

    void notAnIniFile_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("code");
        QTest::newRow("NUL byte") << QByteArray("k = a\0b\n", 8) << int(BLERR_PARSE);
        QTest::newRow("stray continuation") << QByteArray("k = \x80\n") << int(BLERR_PARSE);
        QTest::newRow("overlong") << QByteArray("k = \xC0\xAF\n") << int(BLERR_PARSE);
        QTest::newRow("surrogate") << QByteArray("k = \xED\xA0\x80\n") << int(BLERR_PARSE);
        QTest::newRow("cut at the end") << QByteArray("k = \xE2\x82") << int(BLERR_PARSE);
        QTest::newRow("missing file") << QByteArray() << int(BLERR_NOT_FOUND);
    }
    void notAnIniFile()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, code);
        QFile::remove(path("in.ini"));
        BLINIFILE* ini
            = bytes.isNull() ? BLINIFILE_Open(path("in.ini").toUtf8()) : openBytes(bytes);
        QVERIFY(!ini);
        QCOMPARE(BLERROR_LastCode(), code);
        if (code == BLERR_PARSE)
            QVERIFY(QByteArray(BLERROR_LastMessage()).contains("is not an ini file"));
    }

    // Saves replace the file whole and leave nothing behind; a failed save changes nothing.
    void atomicSave()
    {
        QTemporaryDir local;
        const QString target = local.filePath("t.ini");
        QVERIFY(writeFile(target, "old\n"));
        BLINIFILE* ini = BLINIFILE_Create(nullptr);
        BLINIFILE_WriteIntegerValue(ini, "s", "k", 1);
        QCOMPARE(BLINIFILE_Save(ini, target.toUtf8()), 1);
        BLINIFILE_WriteIntegerValue(ini, "s", "k", 2);
        QVERIFY(QDir(local.path()).mkdir("sub.ini"));
        QCOMPARE(BLINIFILE_Save(ini, local.filePath("sub.ini").toUtf8()), 0);
        QCOMPARE(BLINIFILE_Save(ini, local.filePath("missing/x.ini").toUtf8()), 0);
        QCOMPARE(readFile(target), QByteArray("[s]\nk = 1\n"));
        QCOMPARE(QDir(local.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
            QStringList({"sub.ini", "t.ini"}));
        QCOMPARE(BLINIFILE_Save(ini, ("file://" + target).toUtf8()), 1);
        BLINIFILE_Close(ini);
        ini = BLINIFILE_Open(("file://" + target).toUtf8());
        QCOMPARE(BLINIFILE_ReadIntegerValue(ini, "s", "k", 0), 2);
        BLINIFILE_Close(ini);
    }

    // Paths with another scheme go through the I/O layer, both ways.
    void throughIoLayer()
    {
        QVERIFY(writeFile(path("io.ini"), sample));
        _HFile* in = BLIO_Open(path("io.ini").toUtf8(), "r");
        char meta[BLIO_MAX_META_DESCR];
        QVERIFY(in && BLIO_ComposeMetaHFileDescr(meta, in));
        BLINIFILE* ini = BLINIFILE_Open(meta);
        BLIO_CloseFile(in);
        QVERIFY(ini);
        _HFile* out = BLIO_Open(path("io-out.ini").toUtf8(), "w");
        QVERIFY(out && BLIO_ComposeMetaHFileDescr(meta, out));
        QCOMPARE(BLINIFILE_Save(ini, meta), 1);
        QCOMPARE(BLIO_CloseFile(out), 1);
        BLINIFILE_Close(ini);
        QCOMPARE(readFile(path("io-out.ini")), sample);
        QVERIFY(!BLINIFILE_Open("nosuchscheme://x"));
        QCOMPARE(BLERROR_LastCode(), int(BLERR_UNKNOWN_SCHEME));
    }
};

QTEST_GUILESS_MAIN(TestBlIniFile)
#include "tst_blinifile.moc"
