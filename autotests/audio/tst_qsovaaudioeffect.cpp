#include <QSovaAudioEffect>
#include <QSovaAudioFormat>
#include <QtTest>

namespace {

// Declares itself invalid: every query must follow the overridden isValid().
class DisabledEffect : public QSovaAudioEffect
{
public:
    using QSovaAudioEffect::QSovaAudioEffect;
    bool isValid() const override { return false; }
};

} // namespace

class tst_QSovaAudioEffect : public QObject
{
    Q_OBJECT

private slots:
    void invalid_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<int>("rate");
        QTest::addColumn<bool>("subclass");
        QTest::newRow("unknown effect") << "chorus[depth=2]" << 44100 << false;
        QTest::newRow("unknown option") << "gain[loudness=3]" << 44100 << false;
        QTest::newRow("bad format") << "gain[db=-6]" << 0 << false;
        QTest::newRow("subclass says invalid") << "resample[sr=22050]" << 44100 << true;
    }
    void invalid()
    {
        QFETCH(QString, description);
        QFETCH(int, rate);
        QFETCH(bool, subclass);
        std::unique_ptr<QSovaAudioEffect> effect(subclass
                ? new DisabledEffect(description, QSovaAudioFormat(rate, 2, 16))
                : new QSovaAudioEffect(description, QSovaAudioFormat(rate, 2, 16)));
        QVERIFY(!effect->isValid());
        QCOMPARE(effect->inOutRatio(), 1.0);
        QVERIFY(effect->inputFormat() == QSovaAudioFormat());
        QVERIFY(effect->outputFormat() == QSovaAudioFormat());
        float in[8] = {}, out[8] = {};
        qint64 inCount = 4, outCount = 4;
        QVERIFY(!effect->process(in, inCount, out, outCount, false));
        QCOMPARE(inCount, qint64(4));
        QCOMPARE(outCount, qint64(4));
        QCOMPARE(effect->description(), description);
    }

    void formats_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("resolution");
        QTest::addColumn<int>("outRate");
        QTest::addColumn<int>("outChannels");
        QTest::addColumn<double>("ratio");
        QTest::newRow("gain") << "gain[db=-6]" << 44100 << 2 << 16 << 44100 << 2 << 1.0;
        QTest::newRow("halve the rate")
            << "resample[sr=22050]" << 44100 << 2 << 16 << 22050 << 2 << 0.5;
        QTest::newRow("24-bit input")
            << "resample[sr=22050]" << 44100 << 2 << 24 << 22050 << 2 << 0.5;
        QTest::newRow("mix to mono") << "mix[nch=1]" << 48000 << 2 << 16 << 48000 << 1 << 1.0;
        QTest::newRow("speed") << "speed[factor=2]" << 16000 << 1 << 16 << 16000 << 1 << 0.5;
        QTest::newRow("speed and rate")
            << "speed[factor=0.5];resample[sr=48000]" << 24000 << 1 << 16 << 48000 << 1 << 4.0;
    }
    void formats()
    {
        QFETCH(QString, description);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, resolution);
        QFETCH(int, outRate);
        QFETCH(int, outChannels);
        QFETCH(double, ratio);
        const QSovaAudioEffect effect(description, QSovaAudioFormat(rate, channels, resolution));
        QVERIFY(effect.isValid());
        QCOMPARE(effect.inputFormat().sampleRate(), rate);
        QCOMPARE(effect.inputFormat().numChannels(), channels);
        QCOMPARE(effect.outputFormat().sampleRate(), outRate);
        QCOMPARE(effect.outputFormat().numChannels(), outChannels);
        QCOMPARE(effect.outputFormat().mimeType(), QStringLiteral("application/octed-stream"));
        QCOMPARE(effect.inOutRatio(), ratio);
    }

    // A constant through a gain: counts come back as consumed and produced, and the flush
    // ends with nothing more to give.
    void process_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<float>("expected");
        QTest::newRow("-6 dB") << "gain[db=-6]" << float(0.5 * std::pow(10.0, -6.0 / 20.0));
        QTest::newRow("factor") << "gain[factor=0.5]" << 0.25f;
        QTest::newRow("chain") << "gain[factor=0.5];gain[factor=3]" << 0.75f;
    }
    void process()
    {
        QFETCH(QString, description);
        QFETCH(float, expected);
        QSovaAudioEffect effect(description, QSovaAudioFormat(8000, 2, 16));
        QVERIFY(effect.isValid());
        QVector<float> in(2 * 100, 0.5f), out(2 * 200, -9.0f);
        qint64 inCount = 100, outCount = 200;
        QVERIFY(effect.process(in.constData(), inCount, out.data(), outCount, false));
        QCOMPARE(inCount, qint64(100));
        QCOMPARE(outCount, qint64(100));
        for (int i = 0; i < 200; ++i)
            QVERIFY2(qAbs(out[i] - expected) < 1e-6f, qPrintable(QString::number(out[i])));
        inCount = 0;
        outCount = 200;
        QVERIFY(effect.process(nullptr, inCount, out.data(), outCount, true));
        QCOMPARE(outCount, qint64(0));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioEffect)
#include "tst_qsovaaudioeffect.moc"
