#include <QSovaFft>
#include <QtTest>

#include <cmath>
#include <stdexcept>

using Config = QSovaFft::Config;

namespace {

QVector<float> sine(int length, double cycles, double amplitude = 1.0)
{
    QVector<float> samples(length);
    for (int i = 0; i < length; ++i)
        samples[i] = float(amplitude * std::sin(2.0 * M_PI * cycles * i / length));
    return samples;
}

template<typename F>
QString logicError(F f)
{
    try {
        f();
    } catch (const std::logic_error& e) {
        return QString::fromLatin1(e.what());
    }
    return QString();
}

} // namespace

class tst_QSovaFft : public QObject {
    Q_OBJECT

private slots:
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("fftLength");
        QTest::addColumn<int>("windowSize");
        QTest::addColumn<int>("windowType");
        QTest::addColumn<double>("dynamicRange");
        QTest::newRow("empty") << "" << 256 << 256 << 6 << 120.0;
        QTest::newRow("numbins") << "numbins=512" << 1024 << 256 << 6 << 120.0;
        QTest::newRow("numbins wins") << "fftlen=1000,numbins=100" << 200 << 256 << 6 << 120.0;
        QTest::newRow("odd length rounds down") << "fftlen=513" << 512 << 256 << 6 << 120.0;
        QTest::newRow("winsize ignores fftlen") << "fftlen=2048,winsize=1500" << 2048 << 1500 << 6
                                                << 120.0;
        QTest::newRow("renumbered window") << "wintype=GAUSSIAN" << 256 << 256 << 8 << 120.0;
        QTest::newRow("float precision") << "dynrange=90.1" << 256 << 256 << 6 << double(90.1f);
    }

    void parse()
    {
        QFETCH(QString, text);
        QFETCH(int, fftLength);
        QFETCH(int, windowSize);
        QFETCH(int, windowType);
        QFETCH(double, dynamicRange);
        const Config config(text);
        QCOMPARE(config.fftLength, fftLength);
        QCOMPARE(config.windowSize, windowSize);
        QCOMPARE(int(config.windowType), windowType);
        QCOMPARE(config.dynamicRange, dynamicRange);
        QCOMPARE(Config(QString(config)), config); // the text form reads back
    }

    void textForm()
    {
        QCOMPARE(QString(Config()),
                 QStringLiteral("fftlen=256,winsize=256,wintype=%1,dynrange=120")
                     .arg(QSovaFft::winTypeToString(QSovaFft::WinType(6))));
        Config nan;
        nan.dynamicRange = std::nan("");
        QVERIFY(nan != nan);
    }

    void windowNumbers()
    {
        const QStringList names = QSovaFft::getWindowNameList();
        QCOMPARE(names.size(), 11);
        QCOMPARE(QSet<QString>(names.begin(), names.end()).size(), 11);
        QCOMPARE(QSovaFft::defaultWinType(), QSovaFft::WinType(6));
        // 7, 8, 9 here are the DSP library's 9, 7, 8.
        const int dspb[11] = {0, 1, 2, 3, 4, 5, 6, 9, 7, 8, 10};
        for (int type = 0; type <= 10; ++type) {
            QCOMPARE(int(QSovaFft::winTypeFromDspbWinType(dspb[type])), type);
            QCOMPARE(int(QSovaFft::winTypeFromString(names[type])), type);
        }
        QCOMPARE(QSovaFft::winTypeToString(QSovaFft::FlatTop), names[7]);
    }

    void invalidWindows()
    {
        const QString dspb = QStringLiteral("Invalid DSPBWINDOWTYPE");
        QCOMPARE(logicError([] { QSovaFft::winTypeFromDspbWinType(11); }), dspb);
        QCOMPARE(logicError([] { QSovaFft::winTypeFromDspbWinType(-1); }), dspb);
        QCOMPARE(logicError([] { Config(QStringLiteral("wintype=triangle-ish")); }), dspb);
        Config bad;
        bad.windowType = QSovaFft::WinType(11);
        QCOMPARE(logicError([&] { QSovaFft(bad, false); }),
                 QStringLiteral("Invalid QSovaFft::WinType"));
    }

    void validity()
    {
        QVERIFY(!QSovaFft().isValid());
        QVERIFY(QSovaFft(Config(), true).isValid());
        Config tooShort;
        tooShort.fftLength = 1;
        QVERIFY(!QSovaFft(tooShort, false).isValid());
        QSovaFft copy;
        {
            QSovaFft original(Config(QStringLiteral("fftlen=512")), false);
            copy = original;
        }
        QVERIFY2(copy.isValid(), "a copy keeps the shared analyser alive");
        QCOMPARE(copy.config().fftLength, 512);
    }

    // A full-scale sine at a bin centre reads 0 dB at its bin, for every window and length.
    void sinePeak_data()
    {
        QTest::addColumn<int>("windowType");
        QTest::addColumn<int>("length");
        for (int type = 0; type <= 10; ++type) {
            for (int length : {1024, 1000})
                QTest::addRow("%s, %d", qPrintable(QSovaFft::winTypeToString(QSovaFft::WinType(type))),
                              length)
                    << type << length;
        }
    }

    void sinePeak()
    {
        QFETCH(int, windowType);
        QFETCH(int, length);
        Config config;
        config.fftLength = config.windowSize = length;
        config.windowType = QSovaFft::WinType(windowType);
        const QSovaFft analyser(config, true);
        QVERIFY(analyser.isValid());
        const int bin = length / 10;
        QVector<float> spectrum = sine(length, bin);
        analyser(spectrum); // in place
        QCOMPARE(spectrum.size(), length / 2 + 1);
        QVERIFY2(std::abs(spectrum[bin]) < 0.01f, qPrintable(QString::number(spectrum[bin])));
        QCOMPARE(int(std::max_element(spectrum.begin(), spectrum.end()) - spectrum.begin()), bin);
        QCOMPARE(*std::min_element(spectrum.begin(), spectrum.end()) >= -120.0f, true);
    }

    void shortBlocksArePadded()
    {
        const QSovaFft analyser(Config(QStringLiteral("fftlen=64,winsize=64,wintype=rectangular")),
                                false);
        QVector<float> block = sine(64, 4).mid(0, 40);
        QVector<float> padded = block;
        padded.resize(64);
        QCOMPARE(analyser(qAsConst(block)), analyser(qAsConst(padded)));
    }

    void accumulateAndAverage()
    {
        const QSovaFft power(Config(QStringLiteral("fftlen=128,winsize=128")), false);
        const QSovaFft decibels(Config(QStringLiteral("fftlen=128,winsize=128")), true);
        const QVector<float> frame = sine(128, 10, 0.5);
        const QVector<float> psd = power(frame);
        QVector<float> acc;
        QSovaFft::accPsd(acc, psd);
        QCOMPARE(acc, psd); // an empty accumulator takes the first spectrum
        QSovaFft::accPsd(acc, psd);
        QVector<float> averaged;
        decibels.convertPsdToDb(acc, &averaged, 0.5f);
        const QVector<float> direct = decibels(frame);
        QCOMPARE(averaged.size(), direct.size());
        for (int k = 0; k < direct.size(); ++k)
            QVERIFY(std::abs(averaged[k] - direct[k]) < 1e-3f);
        QVERIFY(std::abs(direct[10] - 20 * std::log10(0.5f)) < 0.01f);
        QVector<float> untouched{1.0f};
        decibels.convertPsdToDb(QVector<float>(), &untouched, 1.0f);
        QCOMPARE(untouched, QVector<float>{1.0f});
    }
};

QTEST_GUILESS_MAIN(tst_QSovaFft)
#include "tst_qsovafft.moc"
