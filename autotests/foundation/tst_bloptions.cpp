// Option-string readers: syntax, conversions, sizes, malformed input and the error slot.
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <QtTest>

#include <cmath>
#include <vector>

using Doubles = QVector<double>;

class TestBlOptions : public QObject
{
    Q_OBJECT

private slots:
    void integer_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<bool>("wide"); // read with the 64-bit reader
        QTest::addColumn<qint64>("expected");
        const auto row
            = [](const char* name, const char* options, qint64 expected, bool wide = false) {
                  QTest::newRow(name) << QByteArray(options) << wide << expected;
              };
        row("absent gives default", "sr=44100,nc=2", -99);
        row("key is not a prefix", "kk=3", -99);
        row("key case ignored, last item wins", "k=1,b=2,K=3", 3);
        row("blanks around", " \tk =\r\n 12 ,b=1", 12);
        row("hex", "k=0X1f", 31);
        row("signed hex", "k=-0x10", -16);
        row("quoted, plus sign", "k=\" +42 \"", 42);
        row("int32 min", "k=-2147483648", INT32_MIN);
        row("int32 overflow", "k=2147483648", -99);
        row("int64 min by hex", "k=-0x8000000000000000", INT64_MIN, true);
        row("int64 overflow", "k=9223372036854775808", -99, true);
        row("beyond uint64", "k=99999999999999999999999", -99, true);
        row("trailing junk", "k=12x", -99);
        row("inner blank", "k=1 2", -99);
        row("hex prefix only", "k=0x", -99);
        row("bare key", "k", -99);
        row("malformed last item", "k=1,k=\"2", -99);
        row("unterminated quote swallows the rest", "a=\"x,k=5", -99);
        row("unterminated bracket swallows the rest", "a=[1,k=5", -99);
        row("after a vector and a quoted comma", "a=[1,2],b='x,y',k=5", 5);
        row("escaped comma does not split", "a=x\\,k=5", -99);
        row("empty items skipped", ",, ,k=4,,", 4);
    }
    void integer()
    {
        QFETCH(QByteArray, options);
        QFETCH(bool, wide);
        QFETCH(qint64, expected);
        const char* text = options.constData();
        QCOMPARE(wide ? qint64(BLSTRING_GetInteger64ValueFromString(text, "k", -99))
                      : qint64(BLSTRING_GetIntegerValueFromString(text, "k", -99)),
            expected);
    }

    void boolean_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("defaultValue");
        QTest::addColumn<int>("expected");
        for (const char* word : {"1", "true", "Yes", "ON"})
            QTest::newRow(word) << QByteArray("b=") + word << 0 << 1;
        for (const char* word : {"0", "FALSE", "no", " off "})
            QTest::newRow(word) << QByteArray("b=") + word << 1 << 0;
        QTest::newRow("quoted") << QByteArray("b='yes'") << 0 << 1;
        QTest::newRow("bare key is true") << QByteArray("x=0,b,y=0") << 0 << 1;
        QTest::newRow("absent keeps default") << QByteArray("x=0") << 1 << 1;
        QTest::newRow("empty value") << QByteArray("b=") << 1 << 1;
        QTest::newRow("other number") << QByteArray("b=2") << 0 << 0;
        QTest::newRow("word prefix") << QByteArray("b=truex") << 0 << 0;
    }
    void boolean()
    {
        QFETCH(QByteArray, options);
        QFETCH(int, defaultValue);
        QFETCH(int, expected);
        QCOMPARE(
            BLSTRING_GetBooleanValueFromString(options.constData(), "b", defaultValue), expected);
    }

    void floating_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<double>("expected");
        QTest::addColumn<float>("expectedFloat");
        QTest::newRow("exponent") << QByteArray("f=-2.5e3") << -2500.0 << -2500.0f;
        QTest::newRow("leading plus, blanks") << QByteArray("f= +0.25 ") << 0.25 << 0.25f;
        QTest::newRow("rounded per type") << QByteArray("f=0.1") << 0.1 << 0.1f;
        QTest::newRow("infinity") << QByteArray("f=-Infinity") << -qInf() << float(-qInf());
        QTest::newRow("float overflow only") << QByteArray("f=1e39") << 1e39 << -7.0f;
        QTest::newRow("hex is not a float") << QByteArray("f=0x10") << -7.0 << -7.0f;
        QTest::newRow("sign after plus") << QByteArray("f=+-1") << -7.0 << -7.0f;
    }
    void floating()
    {
        QFETCH(QByteArray, options);
        QFETCH(double, expected);
        QFETCH(float, expectedFloat);
        QCOMPARE(BLSTRING_GetDoubleValueFromString(options.constData(), "f", -7.0), expected);
        QCOMPARE(BLSTRING_GetFloatValueFromString(options.constData(), "f", -7.0f), expectedFloat);
        QVERIFY(std::isnan(BLSTRING_GetDoubleValueFromString("f=NaN", "f", 0)));
    }

    void string_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<bool>("exists");
        QTest::addColumn<int>("length"); // -1: absent or unreadable
        QTest::addColumn<QByteArray>("value");
        const auto row = [](const char* name, const char* options, bool exists, int length,
                             const char* value) {
            QTest::newRow(name) << QByteArray(options) << exists << length << QByteArray(value);
        };
        row("blanks trimmed", "s=  a b  ,x", true, 3, "a b");
        row("quotes hold , and =", "s=\"a,b=c\",x=1", true, 5, "a,b=c");
        row("escapes in quotes", "s='a\\\"b\\\\c\\''", true, 6, "a\"b\\c'");
        row("quoted blanks kept", "s=\"  x  \"", true, 5, "  x  ");
        row("apostrophe inside a word", "s=Don't,x=1", true, 5, "Don't");
        row("escaped separators stay raw", "s=a\\,b\\=c,x=1", true, 7, "a\\,b\\=c");
        row("vector as text", "s=[1, 2]", true, 6, "[1, 2]");
        row("empty quoted", "s=\"\"", true, 0, "");
        row("bare key", "s", true, 0, "");
        row("absent", "x=1,ss=2", false, -1, nullptr);
        row("inside another's quotes", "x=\"s=1\"", false, -1, nullptr);
        row("inside another's brackets", "x=[1,s]", false, -1, nullptr);
        row("unterminated quote", "s=\"abc,x=1", true, -1, nullptr);
        row("escape before the end", "s=\"abc\\", true, -1, nullptr);
        row("text after quote", "s=\"a\"b", true, -1, nullptr);
    }
    void string()
    {
        QFETCH(QByteArray, options);
        QFETCH(bool, exists);
        QFETCH(int, length);
        QFETCH(QByteArray, value);
        QCOMPARE(BLSTRING_KeyExistsInString(options.constData(), "s"), int(exists));
        QCOMPARE(BLSTRING_GetStringLengthFromString(options.constData(), "s"), length);
        if (length >= 0) {
            // A caller passes exactly the length it was told.
            std::vector<char> buffer(size_t(length) + 1, 'X');
            QCOMPARE(BLSTRING_GetStringValueFromString(
                         options.constData(), "s", nullptr, buffer.data(), length),
                1);
            QCOMPARE(QByteArray(buffer.data()), value);
        }
    }

    void stringBuffer_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("defaultValue"); // null: none
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("result");
        QTest::addColumn<QByteArray>("text");
        const auto row = [](const char* name, const char* options, const char* defaultValue,
                             int size, int result, const char* text) {
            QTest::newRow(name) << QByteArray(options) << QByteArray(defaultValue) << size << result
                                << QByteArray(text);
        };
        row("one byte short", "k=abc", nullptr, 2, 0, "");
        row("empty value, size 0", "k=", nullptr, 0, 1, "");
        row("default fits", "x=1", "dflt", 4, 1, "dflt");
        row("default too long", "x=1", "dflt", 3, 0, "");
        row("no default", "x=1", nullptr, 8, 0, "");
        row("malformed reads as absent", "k=\"ab", "d", 5, 1, "d");
    }
    void stringBuffer()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, defaultValue);
        QFETCH(int, size);
        QFETCH(int, result);
        QFETCH(QByteArray, text);
        std::vector<char> buffer(size_t(size) + 9, '#');
        QCOMPARE(
            BLSTRING_GetStringValueFromString(options.constData(), "k",
                defaultValue.isNull() ? nullptr : defaultValue.constData(), buffer.data(), size),
            result);
        QCOMPARE(QByteArray(buffer.data()), text);
        QCOMPARE(QByteArray(buffer.data() + size + 1, 8), QByteArray(8, '#'));
    }

    void vector_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("count"); // -1: the size query fails
        QTest::addColumn<bool>("converts");
        QTest::addColumn<Doubles>("values");
        const auto row = [](const char* name, const char* options, int count, bool converts,
                             const Doubles& values = {}) {
            QTest::newRow(name) << QByteArray(options) << count << converts << values;
        };
        row("three", "v=[ 1 ,\t2.5,-3 ],w=3", 3, true, {1, 2.5, -3});
        row("scalar is one element", "v=4.5", 1, true, {4.5});
        row("quoted elements", "v=[\"1\", '2']", 2, true, {1, 2});
        row("none", "v=[  ]", 0, true);
        row("empty value", "v=", 0, true);
        row("element does not convert", "v=[1,x]", 2, false);
        row("quoted comma", "v=[\"1,5\",2]", 2, false);
        row("bare key", "v", -1, false);
        row("empty element", "v=[1,,2]", -1, false);
        row("trailing comma", "v=[1,]", -1, false);
        row("matrix", "v=[[1,2]]", -1, false);
        row("unterminated", "v=[1,2", -1, false);
        row("text after quoted element", "v=['1'x]", -1, false);
    }
    void vector()
    {
        QFETCH(QByteArray, options);
        QFETCH(int, count);
        QFETCH(bool, converts);
        QFETCH(Doubles, values);
        int32_t size = -5;
        QCOMPARE(
            BLSTRING_GetVectorSizeFromString(options.constData(), "v", &size), int(count >= 0));
        QCOMPARE(size, count >= 0 ? count : -5);
        Doubles read(qMax(count, 1));
        QCOMPARE(BLSTRING_GetDoubleVectorValuesFromString(
                     options.constData(), "v", read.data(), qMax(count, 1)),
            int(converts && count > 0));
        if (converts && count > 0)
            QCOMPARE(read, values);
    }

    void countAndShape_data()
    {
        QTest::addColumn<bool>("matrix");
        QTest::addColumn<int>("rows"); // the element count for the vector
        QTest::addColumn<int>("columns");
        QTest::addColumn<int>("result");
        const auto vector = [](const char* name, int count, int result) {
            QTest::newRow(name) << false << count << 1 << result;
        };
        const auto matrix = [](const char* name, int rows, int columns, int result) {
            QTest::newRow(name) << true << rows << columns << result;
        };
        // The vector is [1, 2, x]: at least the count asked for, the first ones convert.
        vector("fewer than present", 2, 1);
        vector("reaches the bad element", 3, 0);
        vector("more than present", 4, 0);
        vector("huge count", INT32_MAX, 0);
        vector("zero", 0, 1);
        vector("negative", -1, 0);
        // The matrix is 2x3; only that shape reads.
        matrix("actual shape", 2, 3, 1);
        matrix("transposed", 3, 2, 0);
        matrix("flattened", 1, 6, 0);
        matrix("fewer columns", 2, 2, 0);
        matrix("huge shape", INT32_MAX, INT32_MAX, 0);
        matrix("negative shape", -2, -3, 0);
    }
    void countAndShape()
    {
        QFETCH(bool, matrix);
        QFETCH(int, rows);
        QFETCH(int, columns);
        QFETCH(int, result);
        float values[8];
        std::fill(std::begin(values), std::end(values), -1.0f);
        QCOMPARE(matrix ? BLSTRING_GetFloatMatrixValuesFromString(
                     "m=[[1,2,3],[4,5,6]]", "m", values, rows, columns)
                        : BLSTRING_GetFloatVectorValuesFromString("v=[1, 2, x]", "v", values, rows),
            result);
        if (result && rows > 0)
            QCOMPARE(values[rows * columns - 1], float(matrix ? 6 : rows));
        // Nothing at or beyond the count given is touched.
        for (int i = int(qBound(qint64(0), qint64(rows) * columns, qint64(8))); i < 8; ++i)
            QCOMPARE(values[i], -1.0f);
    }

    void word32()
    {
        uint32_t words[4] = {};
        QVERIFY(BLSTRING_GetWord32VectorValuesFromString(
            "v=[-1, 4294967295, -2147483648, 0x10]", "v", words, 4));
        QCOMPARE(words[0], 0xFFFFFFFFu);
        QCOMPARE(words[1], 0xFFFFFFFFu);
        QCOMPARE(words[2], 0x80000000u);
        QCOMPARE(words[3], 16u);
        for (const char* bad : {"v=[4294967296]", "v=[-2147483649]", "v=[1.0]"})
            QVERIFY2(!BLSTRING_GetWord32VectorValuesFromString(bad, "v", words, 1), bad);
    }

    void matrix_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("rows"); // -1: the size query fails
        QTest::addColumn<int>("columns");
        QTest::addColumn<Doubles>("values");
        const auto row = [](const char* name, const char* options, int rows, int columns,
                             const Doubles& values = {}) {
            QTest::newRow(name) << QByteArray(options) << rows << columns << values;
        };
        row("2x2", "m=[ [1 , 2] ,\n[3,4] ] ,x=1", 2, 2, {1, 2, 3, 4});
        row("3x1", "m=[[1],[2],[3]]", 3, 1, {1, 2, 3});
        row("vector is one row", "m=[1,2]", 1, 2, {1, 2});
        row("scalar is 1x1", "m=7", 1, 1, {7});
        row("empty", "m=[]", 0, 0);
        row("rows of none", "m=[[],[]]", 2, 0);
        row("ragged", "m=[[1,2],[3]]", -1, 0);
        row("ragged first row", "m=[[1],[2,3]]", -1, 0);
        row("too deep", "m=[[[1]]]", -1, 0);
        row("row and scalar", "m=[[1,2],3]", -1, 0);
        row("scalar and row", "m=[1,[2]]", -1, 0);
        row("unterminated", "m=[[1,2],[3,4]", -1, 0);
    }
    void matrix()
    {
        QFETCH(QByteArray, options);
        QFETCH(int, rows);
        QFETCH(int, columns);
        QFETCH(Doubles, values);
        int32_t r = -5, c = -5;
        QCOMPARE(
            BLSTRING_GetMatrixSizeFromString(options.constData(), "m", &r, &c), int(rows >= 0));
        if (rows < 0)
            return;
        QCOMPARE(r, rows);
        QCOMPARE(c, columns);
        Doubles read(rows * columns);
        QVERIFY(
            BLSTRING_GetDoubleMatrixValuesFromString(options.constData(), "m", read.data(), r, c));
        QCOMPARE(read, values);
    }

    void errorSlot_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("code");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("absent key")
            << QByteArray("a=1") << int(BLERR_KEY_NOT_FOUND) << QByteArray("no option 'nc'");
        QTest::newRow("not an integer") << QByteArray("nc=x") << int(BLERR_PARSE)
                                        << QByteArray("value of 'nc' is not a 32-bit "
                                                      "integer: 'x'");
        QTest::newRow("unterminated") << QByteArray("nc=[2") << int(BLERR_PARSE)
                                      << QByteArray("value of 'nc' is malformed: "
                                                    "unterminated bracket");
    }
    void errorSlot()
    {
        QFETCH(QByteArray, options);
        QFETCH(int, code);
        QFETCH(QByteArray, message);
        BLERROR_Clear();
        QCOMPARE(BLSTRING_GetIntegerValueFromString(options.constData(), "nc", 16), 16);
        QCOMPARE(BLERROR_LastCode(), code);
        QCOMPARE(QByteArray(BLERROR_LastMessage()), message);
    }
};

QTEST_APPLESS_MAIN(TestBlOptions)

#include "tst_bloptions.moc"
