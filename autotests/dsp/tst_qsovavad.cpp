#include "../../src/dsp/qsovavad_p.h"

#include <QSovaAudioFormat>
#include <QSovaVad>
#include <QtTest>

#include <cmath>
#include <stdexcept>

namespace {

enum Form { Int16, Float16Scale, IEEE };

// Frames of silence, then a voiced vowel-like sound (harmonics of 140 Hz with a slow tremolo).
QVector<float> speechLike(int rate, double silence, double voiced)
{
    // Harmonics of a pitch gliding around 140 Hz with a syllable rhythm: a held pitch would
    // read as a musical note, which the detector rightly does not call speech.
    const int quiet = int(silence * rate), loud = int(voiced * rate);
    QVector<float> v(quiet + loud, 0.0f);
    double phase = 0.0;
    for (int i = 0; i < loud; ++i) {
        const double t = double(i) / rate;
        phase += 2.0 * M_PI * (140.0 + 30.0 * std::sin(2.0 * M_PI * 1.5 * t)) / rate;
        double s = 0.0;
        for (int h = 1; h <= 12; ++h)
            s += std::sin(h * phase) / h;
        v[quiet + i] = float(0.2 * s * (0.7 + 0.3 * std::sin(2.0 * M_PI * 4.0 * t)));
    }
    return v;
}

} // namespace

class tst_QSovaVad : public QObject
{
    Q_OBJECT

    // The state codes of one run over samples, in the given sample form; empty when a frame
    // leaves the position or the score wrong.
    static QVector<int> run(QSova::Vad& vad, const QVector<float>& samples, Form form)
    {
        const int n = vad.frameNumSamples();
        QVector<int> states;
        qint64 position = 0;
        QVector<short> s16(n);
        QVector<float> f(n);
        for (int at = 0; at + n <= samples.size(); at += n) {
            float value = -1.0f;
            for (int i = 0; i < n; ++i) {
                s16[i] = short(std::lround(samples[at + i] * 32767.0f));
                f[i] = form == IEEE ? s16[i] / 32767.0f : float(s16[i]);
            }
            const qint64 before = position;
            const int state = form == Int16 ? vad.process16(position, s16.constData(), value)
                : form == IEEE              ? vad.processIEEEFloat(position, f.constData(), value)
                                            : vad.processFloat(position, f.constData(), value);
            if (position != before + n || value < 0.0f || value > 1.0f)
                return {};
            states.append(state);
        }
        return states;
    }

private slots:
    void stateMapping_data()
    {
        QTest::addColumn<int>("engine");
        QTest::addColumn<int>("state"); // -1: throws
        QTest::newRow("no history") << -1 << 0;
        QTest::newRow("silence") << 0 << 1;
        QTest::newRow("speech") << 1 << 2;
        QTest::newRow("onset") << 2 << 3;
        QTest::newRow("3") << 3 << -1;
        QTest::newRow("-2") << -2 << -1;
        QTest::newRow("huge") << 0x7fffffff << -1;
    }
    void stateMapping()
    {
        QFETCH(int, engine);
        QFETCH(int, state);
        if (state >= 0) {
            QCOMPARE(QSova::vadStateFromEngine(engine), state);
            return;
        }
        try {
            QSova::vadStateFromEngine(engine);
            QFAIL("no exception");
        } catch (const std::logic_error& e) {
            QCOMPARE(QByteArray(e.what()), QByteArray("Invalid Vad State"));
        }
    }

    void frames_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("samples");
        QTest::newRow("8 kHz") << 8000 << 160;
        QTest::newRow("44.1 kHz") << 44100 << 882;
        QTest::newRow("192 kHz") << 192000 << 3840;
        QTest::newRow("too low") << 7999 << 0;
        QTest::newRow("too high") << 192001 << 0;
    }
    void frames()
    {
        QFETCH(int, rate);
        QFETCH(int, samples);
        QSova::Vad vad(QString(), QSovaAudioFormat(rate, 1, 16));
        QCOMPARE(vad.frameNumSamples(), samples);
        QCOMPARE(vad.frameDuration(), 0.02);
        vad.reset(); // tries again, with the same outcome
        QCOMPARE(vad.frameNumSamples(), samples);
    }

    void badParameters()
    {
        QSova::Vad vad(QStringLiteral("aggressiveness=9"), QSovaAudioFormat(16000, 1, 16));
        QCOMPARE(vad.frameNumSamples(), 0);
    }

    // The same sound in any of the three forms gives the same answers: no history first,
    // silence over the quiet part, then an onset followed by speech.
    void detects_data()
    {
        QTest::addColumn<int>("form");
        QTest::addColumn<int>("rate");
        QTest::newRow("16-bit") << int(Int16) << 16000;
        QTest::newRow("float, 16-bit scale") << int(Float16Scale) << 16000;
        QTest::newRow("IEEE float") << int(IEEE) << 16000;
        QTest::newRow("IEEE float, 48 kHz") << int(IEEE) << 48000;
    }
    void detects()
    {
        QFETCH(int, form);
        QFETCH(int, rate);
        QSova::Vad vad(QStringLiteral("aggressiveness=1"), QSovaAudioFormat(rate, 1, 16));
        const QVector<float> sound = speechLike(rate, 1.0, 1.0);
        const QVector<int> states = run(vad, sound, Form(form));
        QCOMPARE(states.size(), 100);
        QCOMPARE(states.first(), 0);
        QCOMPARE(states.at(40), 1);
        const int onset = states.indexOf(3);
        QVERIFY2(onset >= 50 && onset < 60, qPrintable(QString::number(onset)));
        QCOMPARE(states.count(3), 1);
        QCOMPARE(states.last(), 2);
        // A reset clears the history: the same run gives the same answers again.
        vad.reset();
        QCOMPARE(run(vad, sound, Form(form)), states);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaVad)
#include "tst_qsovavad.moc"
