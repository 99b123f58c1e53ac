#include <QSovaOptions>
#include <QtTest>

#include <cmath>

using IntMatrix = QVector<QVector<int>>;
using DoubleMatrix = QVector<QVector<double>>;
Q_DECLARE_METATYPE(IntMatrix)
Q_DECLARE_METATYPE(DoubleMatrix)

class tst_QSovaOptions : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;

    QString writeConfig(const QByteArray& content)
    {
        const QString path = dir.filePath(QStringLiteral("config.json"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return QString();
        file.write(content);
        return path;
    }

    static void addOptions(QCommandLineParser& parser)
    {
        parser.addOption(QCommandLineOption(QStringLiteral("a"), QString(), QStringLiteral("v")));
        parser.addOption(QCommandLineOption(QStringLiteral("b"), QString(), QStringLiteral("v")));
        parser.addOption(QCommandLineOption(QStringLiteral("rate"), QString(),
                                            QStringLiteral("v")));
        parser.addOption(QCommandLineOption(QStringLiteral("mono"), QString(),
                                            QStringLiteral("v")));
    }

private slots:
    void integers_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("def");
        QTest::addColumn<int>("expected");
        QTest::newRow("present") << "sr=44100,nc=2" << "nc" << 16 << 2;
        QTest::newRow("absent gives the default") << "sr=44100,nc=2" << "nbits" << 16 << 16;
        QTest::newRow("not a number") << "nc=two" << "nc" << 7 << 7;
        QTest::newRow("last repeat wins") << "nc=1,nc=6" << "nc" << 0 << 6;
        QTest::newRow("blanks") << " sr = 8000 , nc = 1 " << "nc" << 0 << 1;
        QTest::newRow("negative") << "gain=-12" << "gain" << 0 << -12;
        QTest::newRow("empty options") << "" << "nc" << 3 << 3;
    }

    void integers()
    {
        QFETCH(QString, options);
        QFETCH(QString, key);
        QFETCH(int, def);
        QFETCH(int, expected);
        QCOMPARE(QSova::getIntegerValueFromString(options, key, def), expected);
    }

    void floatingPoint_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("key");
        QTest::addColumn<double>("expected");
        QTest::newRow("decimal") << "q=0.25" << "q" << 0.25;
        QTest::newRow("exponent") << "q=1e-3,r=2" << "q" << 1e-3;
        QTest::newRow("integer text") << "q=3" << "q" << 3.0;
        QTest::newRow("absent") << "r=2" << "q" << -1.0;
        QTest::newRow("garbage") << "q=1.5x" << "q" << -1.0;
    }

    void floatingPoint()
    {
        QFETCH(QString, options);
        QFETCH(QString, key);
        QFETCH(double, expected);
        QCOMPARE(QSova::getDoubleValueFromString(options, key, -1.0), expected);
        QCOMPARE(QSova::getFloatValueFromString(options, key, -1.0f), float(expected));
    }

    void booleans_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<bool>("def");
        QTest::addColumn<bool>("expected");
        QTest::newRow("1") << "x=1" << false << true;
        QTest::newRow("no") << "x=no" << true << false;
        QTest::newRow("On") << "x=On" << false << true;
        QTest::newRow("false") << "x=false" << true << false;
        QTest::newRow("unreadable keeps default") << "x=maybe" << true << true;
        QTest::newRow("absent keeps default") << "y=0" << true << true;
    }

    void booleans()
    {
        QFETCH(QString, options);
        QFETCH(bool, def);
        QFETCH(bool, expected);
        QCOMPARE(QSova::getBooleanValueFromString(options, QStringLiteral("x"), def), expected);
    }

    void strings_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("def");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << "name=piano,sr=8000" << "" << "piano";
        QTest::newRow("default longer than value") << "name=a" << "longer default" << "a";
        QTest::newRow("absent gives empty, not the default") << "sr=1" << "fallback" << "";
        QTest::newRow("empty value") << "name=" << "fallback" << "";
        QTest::newRow("quoted comma") << "name=\"a, b\",sr=1" << "" << "a, b";
        QTest::newRow("latin-1") << QString::fromLatin1("name=caf\xe9") << ""
                                 << QString::fromLatin1("caf\xe9");
    }

    void strings()
    {
        QFETCH(QString, options);
        QFETCH(QString, def);
        QFETCH(QString, expected);
        QCOMPARE(QSova::getStringValueFromString(options, QStringLiteral("name"), def), expected);
    }

    void vectors_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QVector<double>>("expected");
        QTest::newRow("three") << "v=[1, 2.5, -3]" << QVector<double>{1, 2.5, -3};
        QTest::newRow("scalar is one element") << "v=4" << QVector<double>{4};
        QTest::newRow("empty brackets") << "v=[]" << QVector<double>{};
        QTest::newRow("absent") << "w=[1]" << QVector<double>{};
        QTest::newRow("bad element") << "v=[1,x,3]" << QVector<double>{};
        QTest::newRow("unterminated") << "v=[1,2" << QVector<double>{};
    }

    void vectors()
    {
        QFETCH(QString, options);
        QFETCH(QVector<double>, expected);
        const QString key = QStringLiteral("v");
        QCOMPARE(QSova::getDoubleVectorFromString(options, key), expected);
        QVector<float> floats;
        QVector<int> ints;
        for (double v : expected) {
            floats << float(v);
            ints << int(v);
        }
        QCOMPARE(QSova::getFloatVectorFromString(options, key), floats);
        const bool integral = std::all_of(expected.begin(), expected.end(),
                                          [](double v) { return v == std::floor(v); });
        if (integral)
            QCOMPARE(QSova::getInt32VectorFromString(options, key), ints);
        else
            QVERIFY(QSova::getInt32VectorFromString(options, key).isEmpty());
    }

    void int32Range()
    {
        // Word readers store the low 32 bits: unsigned values above INT_MAX come back negative.
        const QString options = QStringLiteral("v=[4294967295, -2147483648, 0x10]");
        QCOMPARE(QSova::getInt32VectorFromString(options, QStringLiteral("v")),
                 (QVector<int>{-1, INT_MIN, 16}));
    }

    void matrices_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<IntMatrix>("ints");
        QTest::addColumn<DoubleMatrix>("doubles");
        QTest::newRow("2x2") << "m=[[1,2],[3,4]]" << IntMatrix{{1, 2}, {3, 4}}
                             << DoubleMatrix{{1, 2}, {3, 4}};
        QTest::newRow("1x3 from a vector")
            << "m=[1,2,3]" << IntMatrix{{1, 2, 3}} << DoubleMatrix{{1, 2, 3}};
        QTest::newRow("absent") << "n=[[1]]" << IntMatrix{} << DoubleMatrix{};
        QTest::newRow("ragged") << "m=[[1,2],[3]]" << IntMatrix{} << DoubleMatrix{};
        // Shape readable, values not: the rows stay, empty.
        QTest::newRow("half-integers") << "m=[[0.5,1],[2,3]]" << IntMatrix{{}, {}}
                                       << DoubleMatrix{{0.5, 1}, {2, 3}};
    }

    void matrices()
    {
        QFETCH(QString, options);
        QFETCH(IntMatrix, ints);
        QFETCH(DoubleMatrix, doubles);
        const QString key = QStringLiteral("m");
        QCOMPARE(QSova::getInt32MatrixFromString(options, key), ints);
        QCOMPARE(QSova::getDoubleMatrixFromString(options, key), doubles);
        const QVector<QVector<float>> floats = QSova::getFloatMatrixFromString(options, key);
        QCOMPARE(floats.size(), doubles.size());
        for (int r = 0; r < floats.size(); ++r) {
            QCOMPARE(floats[r].size(), doubles[r].size());
            for (int c = 0; c < floats[r].size(); ++c)
                QCOMPARE(floats[r][c], float(doubles[r][c]));
        }
    }

    void parseOptionsFillsUnsetOnly()
    {
        const QString config = writeConfig(R"({"a": 1.5, "b": "file", "mono": true})");
        QCommandLineParser parser;
        addOptions(parser);
        const QStringList arguments = {QStringLiteral("app"), QStringLiteral("--b=cli")};
        QVERIFY(QSova::parseOptions(config, arguments, &parser));
        QCOMPARE(parser.value(QStringLiteral("a")), QStringLiteral("1.5"));
        QCOMPARE(parser.value(QStringLiteral("b")), QStringLiteral("cli"));
        QCOMPARE(parser.value(QStringLiteral("mono")), QStringLiteral("true"));
        QVERIFY(!parser.isSet(QStringLiteral("rate")));
        QCOMPARE(parser.optionNames(), (QStringList{QStringLiteral("b"), QStringLiteral("a"),
                                                    QStringLiteral("mono")}));
    }

    void parseOptionsIgnoresInvalidJson()
    {
        const QString config = writeConfig("{ not json");
        QCommandLineParser parser;
        addOptions(parser);
        QVERIFY(QSova::parseOptions(
            config, {QStringLiteral("app"), QStringLiteral("--rate=8000")}, &parser));
        QCOMPARE(parser.optionNames(), QStringList{QStringLiteral("rate")});
        QCOMPARE(parser.value(QStringLiteral("rate")), QStringLiteral("8000"));
    }

    void parseOptionsMissingFile()
    {
        QCommandLineParser parser;
        addOptions(parser);
        QTest::ignoreMessage(QtWarningMsg, "Couldn't open config file.");
        QVERIFY(!QSova::parseOptions(dir.filePath(QStringLiteral("missing.json")),
                                     {QStringLiteral("app"), QStringLiteral("--a=1")}, &parser));
        QCOMPARE(parser.value(QStringLiteral("a")), QStringLiteral("1")); // processed all the same
    }
};

QTEST_GUILESS_MAIN(tst_QSovaOptions)
#include "tst_qsovaoptions.moc"
