// Escape encoding and URL percent-encoding: the tables, malformed input and round trips.
#include <sova/blstring.h>

#include <QtTest>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

using Codec = char* (*)(const char*, char*);

namespace {

// Encodes (when given an encoder) and decodes through exactly sized blocks, so that ASan
// sees a read or a write one byte too far.
QByteArray run(char* (*encode)(const char*), Codec decode, const QByteArray& text)
{
    std::unique_ptr<char, void (*)(void*)> encoded(encode ? encode(text) : strdup(text), std::free);
    const size_t n = std::strlen(encoded.get()) + 1;
    std::unique_ptr<char[]> in(new char[n]), out(new char[n]);
    std::memcpy(in.get(), encoded.get(), n);
    return decode(in.get(), out.get()) == out.get() ? QByteArray(out.get()) : "<null>";
}

} // namespace

class TestBlEncode : public QObject
{
    Q_OBJECT

private slots:
    // Each text with its escaped and percent-encoded forms: the encoders give them (when
    // "encodes") and the decoders give the text back from them, malformed escapes kept.
    void codecs_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("escaped");
        QTest::addColumn<QByteArray>("percent");
        QTest::addColumn<bool>("encodes");
        const auto row = [](const char* name, const char* text, const char* escaped,
                             const char* percent, bool encodes = true) {
            QTest::newRow(name) << QByteArray(text) << QByteArray(escaped ? escaped : text)
                                << QByteArray(percent ? percent : text) << encodes;
        };
        row("unreserved", "AZaz09-._~", nullptr, nullptr);
        row("specials", "\\,=;#\"'[]", "\\\\\\,\\=\\;\\#\\\"\\'\\[\\]",
            "%5C%2C%3D%3B%23%22%27%5B%5D");
        row("controls", "\n\r\t\x01\x7f", "\\n\\r\\t\\x01\\x7f", "%0A%0D%09%01%7F");
        row("utf-8", "\xc3\xbc", nullptr, "%C3%BC");
        row("blank, percent, plus", " %+", nullptr, "%20%25%2B");
        row("unknown or trailing escape kept", "a\\q\nbJ\\", "a\\q\\nb\\x4A\\", nullptr, false);
        row("bad hex or nul escape kept", "\\x4 \\x4g\\X41\\x00", nullptr, nullptr, false);
        row("lower-case hex", "\xc3\xbc", nullptr, "%c3%bc", false);
        row("plus, bad hex or nul kept", "a+b% a%zz%4g%00%4", nullptr, nullptr, false);
        row("percent before escape", "%A", nullptr, "%%41", false);
    }
    void codecs()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, escaped);
        QFETCH(QByteArray, percent);
        QFETCH(bool, encodes);
        if (encodes) {
            std::unique_ptr<char, void (*)(void*)> e(BLSTRING_Encode(text), std::free),
                p(BLUTILS_EncodeUrl(text), std::free);
            QCOMPARE(QByteArray(e.get()), escaped);
            QCOMPARE(QByteArray(p.get()), percent);
        }
        QCOMPARE(run(nullptr, BLSTRING_Decode, escaped), text);
        QCOMPARE(run(nullptr, BLUTILS_UrlDecode, percent), text);
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
        for (int i = 0; i < 3000; ++i) {
            QByteArray text;
            for (int n = generator() % 41; n > 0; --n)
                text += generator() % 3 ? special[generator() % (sizeof special - 1)]
                                        : char(1 + generator() % 255);
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
