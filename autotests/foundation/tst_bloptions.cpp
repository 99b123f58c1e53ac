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
    // The 32-bit reader, or the 64-bit one; a failure leaves its reason in the error slot.
    void integer_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<qint64>("expected");
        QTest::addColumn<int>("code");
        QTest::addColumn<QByteArray>("message"); // null: not checked
        QTest::addColumn<bool>("wide");
        const auto row = [](const char* name, const char* options, qint64 expected, int code,
                             const char* message = nullptr, bool wide = false) {
            QTest::newRow(name) << QByteArray(options) << expected << code << QByteArray(message)
                                << wide;
        };
        const int absent = BLERR_KEY_NOT_FOUND, parse = BLERR_PARSE;
        row("absent gives default", "sr=44100,nc=2", -99, absent, "no option 'k'");
        row("key is not a prefix", "kk=3", -99, absent);
        row("key case ignored, last item wins", "k=1,b=2,K=3", 3, 0);
        row("blanks around", " \tk =\r\n 12 ,b=1", 12, 0);
        row("hex", "k=0X1f", 31, 0);
        row("signed hex", "k=-0x10", -16, 0);
        row("quoted, plus sign", "k=\" +42 \"", 42, 0);
        row("int32 min", "k=-2147483648", INT32_MIN, 0);
        row("int32 overflow", "k=2147483648", -99, parse);
        row("int64 min by hex", "k=-0x8000000000000000", INT64_MIN, 0, nullptr, true);
        row("int64 overflow", "k=9223372036854775808", -99, parse, nullptr, true);
        row("beyond uint64", "k=99999999999999999999999", -99, parse, nullptr, true);
        row("trailing junk", "k=12x", -99, parse, "value of 'k' is not a 32-bit integer: '12x'");
        row("bare key", "k", -99, parse);
        row("malformed last item", "k=1,k=\"2", -99, parse,
            "value of 'k' is malformed: unterminated quote");
        row("unterminated quote swallows the rest", "a=\"x,k=5", -99, absent);
        row("unterminated bracket swallows the rest", "a=[1,k=5", -99, absent);
        row("after a vector and a quoted comma", "a=[1,2],b='x,y',k=5", 5, 0);
        row("empty items skipped", ",, ,k=4,,", 4, 0);
    }
    void integer()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, message);
        QFETCH(bool, wide);
        const char* text = options.constData();
        BLERROR_Clear();
        QTEST(wide ? qint64(BLSTRING_GetInteger64ValueFromString(text, "k", -99))
                   : qint64(BLSTRING_GetIntegerValueFromString(text, "k", -99)),
            "expected");
        QTEST(BLERROR_LastCode(), "code");
        QVERIFY2(message.isNull() || message == BLERROR_LastMessage(), BLERROR_LastMessage());
    }

    // Each value read as a boolean (default 7), a double and a float (default -7).
    void scalars_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("boolean");
        QTest::addColumn<double>("number");
        QTest::addColumn<float>("single");
        const auto row = [](const char* name, const char* options, int boolean, double number = -7,
                             float single = -7) {
            QTest::newRow(name) << QByteArray(options) << boolean << number << single;
        };
        row("1", "v=1", 1, 1, 1);
        row("0", "v=0", 0, 0, 0);
        for (const char* word : {"true", "Yes", "ON", "'yes'"})
            row(word, QByteArray("v=" + QByteArray(word)), 1);
        for (const char* word : {"FALSE", "no", " off "})
            row(word, QByteArray("v=" + QByteArray(word)), 0);
        row("bare key is true", "x=0,v,y=0", 1);
        row("absent keeps default", "x=0", 7);
        row("empty value", "v=", 7);
        row("other number", "v=2", 7, 2, 2);
        row("word prefix", "v=truex", 7);
        row("exponent", "v=-2.5e3", 7, -2500, -2500);
        row("leading plus, blanks", "v= +0.25 ", 7, 0.25, 0.25);
        row("rounded per type", "v=0.1", 7, 0.1, 0.1f);
        row("infinity", "v=-Infinity", 7, -qInf(), float(-qInf()));
        row("float overflow only", "v=1e39", 7, 1e39);
        row("hex is not a float", "v=0x10", 7);
        row("sign after plus", "v=+-1", 7);
    }
    void scalars()
    {
        QFETCH(QByteArray, options);
        QTEST(BLSTRING_GetBooleanValueFromString(options, "v", 7), "boolean");
        QTEST(BLSTRING_GetDoubleValueFromString(options, "v", -7), "number");
        QTEST(BLSTRING_GetFloatValueFromString(options, "v", -7), "single");
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
        const char* o = options.constData();
        QCOMPARE(BLSTRING_KeyExistsInString(o, "s"), int(exists));
        QCOMPARE(BLSTRING_GetStringLengthFromString(o, "s"), length);
        // Reads into a buffer of the size given: nothing written past it, an empty text when the
        // value does not fit; the default stands in for an absent or unreadable value.
        std::vector<char> buffer(qMax(length, 8) + 9);
        const auto read = [&](const char* dflt, int size, int result, const char* text) {
            std::fill(buffer.begin(), buffer.end(), '#');
            QCOMPARE(BLSTRING_GetStringValueFromString(o, "s", dflt, buffer.data(), size), result);
            QCOMPARE(QByteArray(buffer.data()), QByteArray(text));
            QCOMPARE(QByteArray(buffer.data() + size + 1, 8), QByteArray(8, '#'));
        };
        if (length >= 0) {
            read("dflt", length, 1, value.constData());
            if (length > 0)
                read(nullptr, length - 1, 0, "");
        } else {
            read("dflt", 4, 1, "dflt");
            read("dflt", 3, 0, "");
            read(nullptr, 8, 0, "");
        }
    }

    // Every value read both as a vector and as a matrix.
    void arrays_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<int>("count"); // -1: not a vector
        QTest::addColumn<QList<int>>("shape"); // empty: not a matrix
        QTest::addColumn<bool>("converts");
        QTest::addColumn<Doubles>("values");
        const auto row = [](const char* name, const char* options, int count, QList<int> shape,
                             bool converts = true, const Doubles& values = {}) {
            QTest::newRow(name) << QByteArray(options) << count << shape << converts << values;
        };
        row("three", "a=[ 1 ,\t2.5,-3 ],w=3", 3, {1, 3}, true, {1, 2.5, -3});
        row("scalar is one element", "a=4.5", 1, {1, 1}, true, {4.5});
        row("quoted elements", "a=[\"1\", '2']", 2, {1, 2}, true, {1, 2});
        row("none", "a=[  ]", 0, {0, 0});
        row("empty value", "a=", 0, {0, 0});
        row("element does not convert", "a=[1,x]", 2, {1, 2}, false);
        row("quoted comma", "a=[\"1,5\",2]", 2, {1, 2}, false);
        row("bare key", "a", -1, {});
        row("empty element", "a=[1,,2]", -1, {});
        row("trailing comma", "a=[1,]", -1, {});
        row("text after quoted element", "a=['1'x]", -1, {});
        row("2x2", "a=[ [1 , 2] ,\n[3,4] ] ,x=1", -1, {2, 2}, true, {1, 2, 3, 4});
        row("3x1", "a=[[1],[2],[3]]", -1, {3, 1}, true, {1, 2, 3});
        row("rows of none", "a=[[],[]]", -1, {2, 0});
        row("ragged", "a=[[1,2],[3]]", -1, {});
        row("too deep", "a=[[[1]]]", -1, {});
        row("row and scalar", "a=[[1,2],3]", -1, {});
        row("unterminated", "a=[[1,2],[3,4]", -1, {});
    }
    void arrays()
    {
        QFETCH(QByteArray, options);
        QFETCH(int, count);
        QFETCH(QList<int>, shape);
        QFETCH(bool, converts);
        QFETCH(Doubles, values);
        const char* o = options.constData();
        int32_t size = -5, rows = -5, columns = -5;
        QCOMPARE(BLSTRING_GetVectorSizeFromString(o, "a", &size), int(count >= 0));
        QCOMPARE(size, count >= 0 ? count : -5);
        QCOMPARE(BLSTRING_GetMatrixSizeFromString(o, "a", &rows, &columns), int(!shape.isEmpty()));
        QCOMPARE(QList<int>({rows, columns}), shape.isEmpty() ? QList<int>({-5, -5}) : shape);
        // One element at least: none there fails. Values are compared when they convert.
        Doubles read(8, -7);
        QCOMPARE(BLSTRING_GetDoubleVectorValuesFromString(o, "a", read.data(), qMax(count, 1)),
            int(converts && count > 0));
        QVERIFY(!converts || count <= 0 || read.mid(0, count) == values);
        if (!shape.isEmpty()) {
            read.fill(-7);
            QCOMPARE(BLSTRING_GetDoubleMatrixValuesFromString(o, "a", read.data(), rows, columns),
                int(converts));
            QVERIFY(!converts || read.mid(0, values.size()) == values);
        }
    }

    void countAndShape_data()
    {
        QTest::addColumn<bool>("matrix");
        QTest::addColumn<int>("rows"); // the element count for the vector
        QTest::addColumn<int>("columns");
        QTest::addColumn<int>("result");
        const auto row = [](const char* name, bool matrix, int rows, int columns, int result) {
            QTest::newRow(name) << matrix << rows << columns << result;
        };
        // The vector is [1, 2, x]: at least the count asked for, the first ones convert.
        row("fewer than present", false, 2, 1, 1);
        row("reaches the bad element", false, 3, 1, 0);
        row("huge count", false, INT32_MAX, 1, 0);
        row("zero", false, 0, 1, 1);
        row("negative", false, -1, 1, 0);
        // The matrix is 2x3; only that shape reads.
        row("actual shape", true, 2, 3, 1);
        row("transposed", true, 3, 2, 0);
        row("fewer columns", true, 2, 2, 0);
        row("huge shape", true, INT32_MAX, INT32_MAX, 0);
        row("negative shape", true, -2, -3, 0);
    }
    void countAndShape()
    {
        QFETCH(bool, matrix);
        QFETCH(int, rows);
        QFETCH(int, columns);
        QFETCH(int, result);
        QVector<float> values(8, -1);
        QCOMPARE(matrix
                ? BLSTRING_GetFloatMatrixValuesFromString(
                    "m=[[1,2,3],[4,5,6]]", "m", values.data(), rows, columns)
                : BLSTRING_GetFloatVectorValuesFromString("v=[1, 2, x]", "v", values.data(), rows),
            result);
        if (result && rows > 0)
            QCOMPARE(values[rows * columns - 1], float(matrix ? 6 : rows));
        const int count = int(qBound(qint64(0), qint64(rows) * columns, qint64(8)));
        QCOMPARE(values.mid(count), QVector<float>(8 - count, -1)); // nothing beyond the count
    }

    void word32()
    {
        uint32_t words[4] = {};
        QVERIFY(BLSTRING_GetWord32VectorValuesFromString(
            "v=[-1, 4294967295, -2147483648, 0x10]", "v", words, 4));
        QCOMPARE(QList<uint32_t>(std::begin(words), std::end(words)),
            QList<uint32_t>({0xFFFFFFFF, 0xFFFFFFFF, 0x80000000, 16}));
        for (const char* bad : {"v=[4294967296]", "v=[-2147483649]", "v=[1.0]"})
            QVERIFY2(!BLSTRING_GetWord32VectorValuesFromString(bad, "v", words, 1), bad);
    }
};

QTEST_APPLESS_MAIN(TestBlOptions)

#include "tst_bloptions.moc"
