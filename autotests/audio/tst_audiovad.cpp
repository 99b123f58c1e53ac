// The voice activity detector: parameters and rates accepted or refused, frame lengths,
// decisions on silence, a voiced vowel and steady noise at several rates, the three sample
// forms, and the null handle.
#include <sova/audio.h>

#include <QtTest>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

enum Kind { Silence, Vowel, Noise, Notes };

// Seconds of a mono signal (IEEE scale). A vowel: the harmonics of a gliding pitch shaped by
// formants at 700, 1200 and 2600 Hz, swelling and fading, after 0.5 s of faint noise; noise:
// steady white noise at -26 dBFS; notes: chords of three harmonic tones, decaying, a new one
// every 0.6 s.
std::vector<float> make(Kind kind, int rate, double seconds)
{
    std::vector<float> out(size_t(seconds * rate), 0.0f);
    std::mt19937 random(3);
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    if (kind == Noise) {
        for (float& v : out)
            v = 0.05f * gauss(random);
        return out;
    }
    if (kind == Silence)
        return out;
    if (kind == Notes) {
        const double roots[] = {220.0, 196.0, 261.6, 174.6, 246.9, 293.7, 164.8};
        for (size_t i = 0; i < out.size(); ++i) {
            const double t = double(i) / rate;
            const int chord = int(t / 0.6);
            const double since = t - 0.6 * chord, root = roots[chord % 7];
            double v = 0;
            for (double ratio : {1.0, 1.26, 1.5})
                for (int h = 1; h <= 6 && h * root * ratio < rate / 2.0; ++h)
                    v += std::sin(2 * M_PI * h * root * ratio * since) / std::pow(h, 1.5);
            out[i] = float(0.03 * v * std::exp(-2.0 * since));
        }
        return out;
    }
    // Formant gains by harmonic number for the pitch of the moment.
    const double formants[][2] = {{700, 80}, {1200, 90}, {2600, 120}};
    auto gain = [&](double f) {
        double g = 0;
        for (const auto& fm : formants)
            g += 1.0 / (1.0 + std::pow((f - fm[0]) / fm[1], 2));
        return g;
    };
    double phase = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / rate;
        double v = 0.001 * gauss(random);
        if (t >= 0.5) {
            // Pitch gliding 100..160 Hz, loudness swinging with a 4 Hz syllable rhythm.
            const double f0 = 130.0 + 30.0 * std::sin(2 * M_PI * 1.5 * t);
            phase += 2 * M_PI * f0 / rate;
            const double level = 0.05 * (0.65 + 0.35 * std::sin(2 * M_PI * 4.0 * t));
            for (int h = 1; h * f0 < std::min(4000.0, rate / 2.0); ++h)
                v += level * gain(h * f0) * std::sin(h * phase);
        }
        out[i] = float(v);
    }
    return out;
}

std::vector<int> run(_AUDIOVAD* vad, const std::vector<float>& signal)
{
    std::vector<int> results;
    const int n = AUDIO_VAD_FrameNumSamples(vad);
    int64_t position = 0;
    for (size_t at = 0; at + size_t(n) <= signal.size(); at += size_t(n)) {
        float value = -1.0f;
        const int r = AUDIO_VAD_ProcessIEEEFloat(vad, &position, signal.data() + at, &value);
        if (value < 0.0f || value > 1.0f || position != int64_t(at) + n)
            return {};
        results.push_back(r);
    }
    return results;
}

} // namespace

class TestAudioVad : public QObject
{
    Q_OBJECT

private slots:
    void create_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<QString>("parameters");
        QTest::addColumn<int>("frame"); // samples per frame, 0 when refused
        QTest::newRow("8 kHz, defaults") << 8000 << QString() << 160;
        QTest::newRow("11025 Hz rounds") << 11025 << QString() << 221;
        QTest::newRow("44.1 kHz, all keys") << 44100
                                            << "aggressiveness=3, hangover=0, minspeech=20,"
                                               " MinSilence=500" << 882;
        QTest::newRow("192 kHz") << 192000 << "" << 3840;
        QTest::newRow("rate too low") << 7999 << QString() << 0;
        QTest::newRow("rate too high") << 192001 << QString() << 0;
        QTest::newRow("aggressiveness 4") << 16000 << "aggressiveness=4" << 0;
        QTest::newRow("negative hangover") << 16000 << "hangover=-1" << 0;
        QTest::newRow("not a number") << 16000 << "minspeech=abc" << 0;
        QTest::newRow("unknown key") << 16000 << "hangovr=100" << 0;
    }
    void create()
    {
        QFETCH(int, rate);
        QFETCH(QString, parameters);
        QFETCH(int, frame);
        const QByteArray p = parameters.toUtf8();
        _AUDIOVAD* vad = AUDIO_VAD_Init(rate, parameters.isNull() ? nullptr : p.constData());
        QCOMPARE(vad != nullptr, frame != 0);
        QCOMPARE(AUDIO_VAD_FrameNumSamples(vad), frame);
        AUDIO_VAD_Destroy(&vad);
        QVERIFY(!vad);
    }

    void decisions_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("rate");
        QTest::addColumn<double>("minSpeech"); // bounds of the speech share after 1 s
        QTest::addColumn<double>("maxSpeech");
        for (int rate : {8000, 16000, 44100, 192000}) {
            const QByteArray r = QByteArray::number(rate);
            QTest::newRow("silence " + r) << int(Silence) << rate << 0.0 << 0.0;
            QTest::newRow("vowel " + r) << int(Vowel) << rate << 0.95 << 1.0;
            QTest::newRow("noise " + r) << int(Noise) << rate << 0.0 << 0.05;
            QTest::newRow("notes " + r) << int(Notes) << rate << 0.0 << 0.7;
        }
    }
    void decisions()
    {
        QFETCH(int, kind);
        QFETCH(int, rate);
        QFETCH(double, minSpeech);
        QFETCH(double, maxSpeech);
        _AUDIOVAD* vad = AUDIO_VAD_Init(rate, nullptr);
        QVERIFY(vad);
        const std::vector<int> r = run(vad, make(Kind(kind), rate, 4.0));
        AUDIO_VAD_Destroy(&vad);
        QCOMPARE(int(r.size()), 200);
        // Some -1 first, then never again.
        const auto settled = std::find_if(r.begin(), r.end(), [](int v) { return v >= 0; });
        QVERIFY(settled != r.begin() && settled - r.begin() <= 25);
        QVERIFY(std::find(settled, r.end(), -1) == r.end());
        // An onset opens every segment of speech, and only then.
        for (size_t i = size_t(settled - r.begin()); i < r.size(); ++i) {
            const int before = i > 0 ? r[i - 1] : 0;
            QVERIFY2((r[i] == 2) == (r[i] > 0 && before <= 0), qPrintable(QString::number(i)));
        }
        const double speech
            = double(std::count_if(r.begin() + 50, r.end(), [](int v) { return v > 0; })) / 150;
        QVERIFY2(speech >= minSpeech && speech <= maxSpeech, qPrintable(QString::number(speech)));
        // The vowel starts at frame 25; a clear onset is taken at once, not after minspeech
        // (three frames), give or take the resampler's delay, longest at 8 kHz.
        const auto first = std::find(r.begin(), r.end(), 2) - r.begin();
        const int latest = rate == 16000 ? 25 : rate == 8000 ? 28 : 26;
        if (kind == Vowel)
            QVERIFY2(first >= 25 && first <= latest, qPrintable(QString::number(first)));
    }

    void sampleForms_data()
    {
        QTest::addColumn<int>("rate");
        QTest::newRow("16 kHz") << 16000;
        QTest::newRow("48 kHz") << 48000;
    }
    void sampleForms()
    {
        QFETCH(int, rate);
        const std::vector<float> signal = make(Vowel, rate, 2.0);
        std::vector<int16_t> s16(signal.size());
        std::vector<float> scaled(signal.size()), ieee(signal.size());
        for (size_t i = 0; i < signal.size(); ++i) {
            s16[i] = int16_t(std::lround(signal[i] * 32768.0f));
            scaled[i] = float(s16[i]);
            ieee[i] = float(s16[i]) / 32768.0f;
        }
        _AUDIOVAD* vads[3] = {AUDIO_VAD_Init(rate, nullptr), AUDIO_VAD_Init(rate, nullptr),
                              AUDIO_VAD_Init(rate, nullptr)};
        const int n = AUDIO_VAD_FrameNumSamples(vads[0]);
        int64_t positions[3] = {0, 0, 0};
        int onsets = 0;
        for (size_t at = 0; at + size_t(n) <= signal.size(); at += size_t(n)) {
            float v[3];
            const int a = AUDIO_VAD_Process16(vads[0], &positions[0], &s16[at], &v[0]);
            const int b = AUDIO_VAD_ProcessFloat(vads[1], &positions[1], &scaled[at], &v[1]);
            const int c = AUDIO_VAD_ProcessIEEEFloat(vads[2], &positions[2], &ieee[at], &v[2]);
            QCOMPARE(b, a);
            QCOMPARE(c, a);
            QCOMPARE(v[1], v[0]);
            QCOMPARE(v[2], v[0]);
            onsets += a == 2;
        }
        QCOMPARE(onsets, 1);
        for (_AUDIOVAD*& vad : vads)
            AUDIO_VAD_Destroy(&vad);
    }

    void nullHandle()
    {
        int64_t position = 5;
        float value = 0.5f;
        const int16_t s16[4] = {};
        const float f[4] = {};
        QCOMPARE(AUDIO_VAD_Process16(nullptr, &position, s16, &value), 0);
        QCOMPARE(AUDIO_VAD_ProcessFloat(nullptr, &position, f, &value), 0);
        QCOMPARE(AUDIO_VAD_ProcessIEEEFloat(nullptr, &position, f, &value), 0);
        QCOMPARE(position, int64_t(5));
        QCOMPARE(AUDIO_VAD_FrameNumSamples(nullptr), 0);
        QCOMPARE(AUDIO_VAD_FrameDuration(), 0.02);
        AUDIO_VAD_Destroy(nullptr);
    }
};

QTEST_GUILESS_MAIN(TestAudioVad)
#include "tst_audiovad.moc"
