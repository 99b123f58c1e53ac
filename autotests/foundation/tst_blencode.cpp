// Escape encoding and URL percent-encoding: the tables, malformed input and round trips.
#include <sova/blstring.h>

#include <QtTest>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

using Codec = char* (*)(const char*, char*);
Q_DECLARE_METATYPE(Codec)

namespace {

// Encodes (when given an encoder) and decodes through exactly sized blocks, so that ASan
// sees a read or a write one byte too far.
QByteArray run(char* (*encode)(const char*), Codec decode, const QByteArray& text)
{
    char* encoded = encode ? encode(text.constData()) : qstrdup(text.constData());
    if (!encoded)
        return "<null>";
    const size_t n = std::strlen(encoded);
    std::unique_ptr<char[]> in(new char[n + 1]), out(new char[n + 1]);
    std::memcpy(in.get(), encoded, n + 1);
    encode ? std::free(encoded) : delete[] encoded;
    return decode(in.get(), out.get()) == out.get() ? QByteArray(out.get()) : "<null>";
}

} // namespace

class TestBlEncode : public QObject
{
    Q_OBJECT

private slots:
    void encode_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("escaped");
        QTest::addColumn<QByteArray>("percent");
        QTest::newRow("unreserved")
            << QByteArray("AZaz09-._~") << QByteArray("AZaz09-._~") << QByteArray("AZaz09-._~");
        QTest::newRow("separators") << QByteArray("\\,=;#") << QByteArray("\\\\\\,\\=\\;\\#")
                                    << QByteArray("%5C%2C%3D%3B%23");
        QTest::newRow("quotes, brackets")
            << QByteArray("\"'[]") << QByteArray("\\\"\\'\\[\\]") << QByteArray("%22%27%5B%5D");
        QTest::newRow("controls") << QByteArray("\n\r\t\x01\x7f")
                                  << QByteArray("\\n\\r\\t\\x01\\x7f")
                                  << QByteArray("%0A%0D%09%01%7F");
        QTest::newRow("utf-8") << QByteArray("\xc3\xbc") << QByteArray("\xc3\xbc")
                               << QByteArray("%C3%BC");
        QTest::newRow("blank, percent, plus")
            << QByteArray(" %+") << QByteArray(" %+") << QByteArray("%20%25%2B");
        QTest::newRow("empty") << QByteArray("") << QByteArray("") << QByteArray("");
    }
    void encode()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, escaped);
        QFETCH(QByteArray, percent);
        char* e = BLSTRING_Encode(text.constData());
        char* p = BLUTILS_EncodeUrl(text.constData());
        QCOMPARE(QByteArray(e), escaped);
        QCOMPARE(QByteArray(p), percent);
        std::free(e);
        std::free(p);
    }

    void decodeMalformed_data()
    {
        QTest::addColumn<Codec>("decode");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("decoded");
        const auto escape = [](const char* name, const char* text, const char* decoded) {
            QTest::newRow(name) << Codec(BLSTRING_Decode) << QByteArray(text)
                                << QByteArray(decoded);
        };
        const auto url = [](const char* name, const char* text, const char* decoded) {
            QTest::newRow(name) << Codec(BLUTILS_UrlDecode) << QByteArray(text)
                                << QByteArray(decoded);
        };
        escape("unknown escape kept", "a\\q\\n", "a\\q\n");
        escape("trailing backslash", "ab\\", "ab\\");
        escape("short or bad hex", "\\x4 \\x4g \\X41", "\\x4 \\x4g \\X41");
        escape("nul escape kept", "\\x00", "\\x00");
        escape("upper-case hex digits", "\\x4A\\x41", "JA");
        escape("escaped backslash before x", "\\\\x41", "\\x41");
        url("lower-case hex", "%c3%bc", "\xc3\xbc");
        url("plus stays", "a+b", "a+b");
        url("lone or short percent", "% a%4", "% a%4");
        url("not hex", "%zz%4g", "%zz%4g");
        url("nul kept", "%00", "%00");
        url("percent before escape", "%%41", "%A");
    }
    void decodeMalformed()
    {
        QFETCH(Codec, decode);
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, decoded);
        QCOMPARE(run(nullptr, decode, text), decoded);
    }

    // Every byte next to itself and to the special ones, then random texts weighted towards
    // the bytes the encodings treat specially; arbitrary text also decodes without growing.
    void roundTrips()
    {
        QList<QByteArray> texts;
        for (int byte = 1; byte < 256; ++byte)
            texts << QByteArray(2, char(byte)) + "\\x%" + char(byte);
        std::mt19937 generator(20261122);
        static const char special[] = "\\,=\"'[];#\n\r\t%+x0aF";
        std::uniform_int_distribution<int> length(0, 40), kind(0, 2), byte(1, 255),
            pick(0, int(sizeof special) - 2);
        for (int i = 0; i < 3000; ++i) {
            QByteArray text;
            for (int n = length(generator); n > 0; --n)
                text += kind(generator) ? special[pick(generator)] : char(byte(generator));
            texts << text;
        }
        for (const QByteArray& text : texts) {
            QCOMPARE(run(BLSTRING_Encode, BLSTRING_Decode, text), text);
            QCOMPARE(run(BLUTILS_EncodeUrl, BLUTILS_UrlDecode, text), text);
            QVERIFY(run(nullptr, BLSTRING_Decode, text).size() <= text.size());
            QVERIFY(run(nullptr, BLUTILS_UrlDecode, text).size() <= text.size());
        }
    }
};

QTEST_APPLESS_MAIN(TestBlEncode)

#include "tst_blencode.moc"
