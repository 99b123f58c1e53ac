#include <sova/dsp.h>

#include <QtTest>

#include <atomic>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

// A unit sine with bin periods in length samples, through the window w if given.
std::vector<float> sine(int length, double bin, const float* w = nullptr)
{
    std::vector<float> x(static_cast<size_t>(length));
    for (int n = 0; n < length; ++n)
        x[size_t(n)] = float(std::sin(2.0 * M_PI * bin * n / length) * (w ? w[n] : 1.0f));
    return x;
}

// The power spectrum of x, empty on failure; proc null makes a processor of x's length.
std::vector<float> psd(const std::vector<float>& x, DSPB_FFTPROC* proc = nullptr)
{
    DSPB_FFTPROC* own = proc ? nullptr : DSPB_FFTProcCreate(int(x.size()));
    std::vector<float> out(x.size() / 2 + 1, -1.0f);
    if (DSPB_FFTProcExecutePSDEx(proc ? proc : own, x.data(), out.data(), 0) != int(out.size()))
        out.clear();
    DSPB_FFTProcDestroy(own);
    return out;
}

int argmax(const std::vector<float>& v)
{
    return int(std::max_element(v.begin(), v.end()) - v.begin());
}

// A unit sine at a bin centre must give (length/2)^2 of power at that bin, its peak.
bool sineSpectrumOk(DSPB_FFTPROC* proc, int bin)
{
    const int length = DSPB_FFTProcLength(proc);
    const std::vector<float> p = psd(sine(length, bin), proc);
    const double expected = double(length) * length / 4.0;
    return !p.empty() && argmax(p) == bin && std::fabs(p[size_t(bin)] - expected) < 1e-3 * expected;
}

} // namespace

class tst_Dspb : public QObject {
    Q_OBJECT

    static void windowRows()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("name");
        // ENBW in bins; gaussian via erf (edges at 2.5 sigma), kaiser by numerical integration
        QTest::addColumn<double>("enbw");
        QTest::newRow("rectangular") << DSPB_WINDOW_RECTANGULAR << "rectangular" << 1.0;
        QTest::newRow("hann") << DSPB_WINDOW_HANN << "hann" << 1.5;
        QTest::newRow("hamming") << DSPB_WINDOW_HAMMING << "hamming" << 1.3628;
        QTest::newRow("blackman") << DSPB_WINDOW_BLACKMAN << "blackman" << 1.7268;
        QTest::newRow("bartlett") << DSPB_WINDOW_BARTLETT << "bartlett" << 4.0 / 3.0;
        QTest::newRow("welch") << DSPB_WINDOW_WELCH << "welch" << 1.2;
        QTest::newRow("blackman-harris") << DSPB_WINDOW_BLACKMAN_HARRIS << "blackman-harris"
                                         << 2.0044;
        QTest::newRow("gaussian") << DSPB_WINDOW_GAUSSIAN << "gaussian" << 1.4457;
        QTest::newRow("kaiser") << DSPB_WINDOW_KAISER << "kaiser" << 1.7214;
        QTest::newRow("flat-top") << DSPB_WINDOW_FLATTOP << "flat-top" << 3.7702;
        QTest::newRow("nuttall") << DSPB_WINDOW_NUTTALL << "nuttall" << 2.0212;
    }

private slots:
    void sineAtBinCentreReadsZeroDb_data() { windowRows(); }
    void sineAtBinCentreReadsZeroDb()
    {
        QFETCH(int, type);
        const int cases[][2] = {{1024, 100}, {1000, 50}};
        for (const auto& c : cases) {
            const int length = c[0], bin = c[1];
            std::vector<float> w(static_cast<size_t>(length));
            QVERIFY(DSPB_CreateWindow(type, w.data(), length));
            std::vector<float> db = psd(sine(length, bin, w.data()));
            DSPB_PSDtoDB(length, db.data(), db.data(), 0,
                         DSPB_GetWindowNormFactor(w.data(), length), 200.0);
            QCOMPARE(argmax(db), bin);
            QVERIFY2(std::fabs(db[size_t(bin)]) < 0.01, qPrintable(QString::number(db[bin])));
        }
    }

    void windowShape_data() { windowRows(); }
    void windowShape()
    {
        QFETCH(int, type);
        QFETCH(QString, name);
        QFETCH(double, enbw);

        QCOMPARE(QString::fromLatin1(DSPB_GetWindowName(type)), name);
        QCOMPARE(DSPB_GetWindowType(name.toLatin1().constData()), type);
        QCOMPARE(DSPB_GetWindowType(name.toUpper().toLatin1().constData()), type);

        for (int size : {1025, 64, 1}) {
            std::vector<float> w(size_t(size) + 1, 42.0f);
            QVERIFY(DSPB_CreateWindow(type, w.data(), size));
            QCOMPARE(w[size_t(size)], 42.0f); // nothing written past the end
            double sum = 0.0, sumSq = 0.0;
            for (int n = 0; n < size; ++n) {
                QVERIFY(std::fabs(w[size_t(n)] - w[size_t(size - 1 - n)]) < 1e-6);
                QVERIFY(w[size_t(n)] > -0.1f && w[size_t(n)] <= 1.0f + 1e-6f); // flat-top < 0
                sum += w[size_t(n)];
                sumSq += double(w[size_t(n)]) * w[size_t(n)];
            }
            QCOMPARE(DSPB_GetWindowNormFactor(w.data(), size), sum * sum / 4.0);
            if (size % 2) // every shape peaks at 1 in the middle (and is 1 for one coefficient)
                QVERIFY(std::fabs(w[size_t(size / 2)] - 1.0f) < 1e-5f);
            if (size > 1000) // a long window comes close to the continuous shape's bandwidth
                QVERIFY(std::fabs(size * sumSq / (sum * sum) / enbw - 1.0) < 0.01);
        }
    }

    void badArguments()
    {
        QCOMPARE(DSPB_GetWindowType("hanning"), DSPB_WINDOW_INVALID);
        QCOMPARE(DSPB_GetWindowType(nullptr), DSPB_WINDOW_INVALID);
        float w[4] = {7, 7, 7, 7};
        for (int type : {-1, DSPB_WINDOW_COUNT}) {
            QVERIFY(!DSPB_GetWindowName(type));
            QCOMPARE(DSPB_CreateWindow(type, w, 4), 0);
        }
        QCOMPARE(DSPB_CreateWindow(DSPB_WINDOW_HANN, nullptr, 4), 0);
        QCOMPARE(DSPB_CreateWindow(DSPB_WINDOW_HANN, w, 0), 0);
        QCOMPARE(DSPB_GetWindowNormFactor(nullptr, 8), 16.0);
        QCOMPARE(DSPB_GetWindowNormFactor(w, 0), 1.0);

        QVERIFY(!DSPB_FFTProcCreate(1));
        DSPB_FFTPROC* proc = DSPB_FFTProcCreate(4);
        QCOMPARE(DSPB_FFTProcLength(proc), 4);
        QCOMPARE(DSPB_FFTProcExecutePSDEx(nullptr, w, w, 0), 0);
        QCOMPARE(DSPB_FFTProcExecutePSDEx(proc, nullptr, w, 0), 0);
        QCOMPARE(DSPB_FFTProcExecutePSDEx(proc, w, nullptr, 0), 0);
        QCOMPARE(DSPB_FFTProcExecutePSDEx(proc, w, w, 1), 0);
        DSPB_FFTProcDestroy(proc);
        DSPB_PSDtoDB(1, w, w, 0, 1.0, 100.0);
        DSPB_PSDtoDB(4, nullptr, w, 0, 1.0, 100.0);
        DSPB_PSDtoDB(4, w, nullptr, 0, 1.0, 100.0);
        QCOMPARE(w[0], 7.0f);
    }

    void decibels_data()
    {
        QTest::addColumn<float>("power");
        QTest::addColumn<double>("norm");
        QTest::addColumn<float>("expected");
        QTest::newRow("zero power") << 0.0f << 1.0 << -120.0f;
        QTest::newRow("negative power") << -5.0f << 1.0 << -120.0f;
        QTest::newRow("NaN power") << float(qQNaN()) << 1.0 << -120.0f;
        QTest::newRow("below the range") << 1e-13f << 1.0 << -120.0f;
        QTest::newRow("ten times the norm") << 2560.0f << 256.0 << 10.0f;
        QTest::newRow("100 dB down") << 1e-10f << 1.0 << -100.0f;
    }
    void decibels()
    {
        QFETCH(float, power);
        QFETCH(double, norm);
        QFETCH(float, expected);
        float v[3] = {power, power, power};
        DSPB_PSDtoDB(4, v, v, 0, norm, 120.0);
        for (float db : v)
            QVERIFY2(std::fabs(db - expected) < 1e-4f, qPrintable(QString::number(db)));
    }

    void parseval_data()
    {
        QTest::addColumn<int>("length");
        QTest::newRow("two") << 2;
        QTest::newRow("256") << 256;
        QTest::newRow("1000") << 1000;
        QTest::newRow("prime 1009") << 1009;
        QTest::newRow("4097") << 4097;
    }
    void parseval()
    {
        QFETCH(int, length);
        std::mt19937 rng(static_cast<uint32_t>(length));
        std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
        std::vector<float> x(static_cast<size_t>(length));
        double energy = 0.0;
        for (float& v : x) {
            v = noise(rng);
            energy += double(v) * v;
        }
        const std::vector<float> p = psd(x);
        std::vector<float> inPlace = x;
        DSPB_FFTPROC* proc = DSPB_FFTProcCreate(length);
        QCOMPARE(DSPB_FFTProcExecutePSDEx(proc, inPlace.data(), inPlace.data(), 0), length / 2 + 1);
        DSPB_FFTProcDestroy(proc);
        QCOMPARE(int(p.size()), length / 2 + 1);

        double spectral = 0.0;
        for (int k = 0; k <= length / 2; ++k) {
            const bool single = k == 0 || 2 * k == length;
            spectral += (single ? 1.0 : 2.0) * p[size_t(k)];
            QCOMPARE(inPlace[size_t(k)], p[size_t(k)]);
        }
        QVERIFY(std::fabs(spectral - length * energy) < 1e-3 * length * energy);
    }

    // Several threads, each with its own processors, computing spectra of different sines at
    // once: on one shared plan, and racing to plan lengths that no other test uses.
    void concurrentProcessors_data()
    {
        QTest::addColumn<int>("threads");
        QTest::addColumn<QVector<int>>("lengths");
        QTest::newRow("one length") << 4 << QVector<int>{1024};
        QTest::newRow("planning race") << 8 << QVector<int>{1536, 1537, 2310, 3000};
    }
    void concurrentProcessors()
    {
        QFETCH(int, threads);
        QFETCH(QVector<int>, lengths);
        std::atomic<int> failures{0};
        std::vector<std::thread> running;
        // Read only through a const reference: the non-const operator[] would detach the
        // vector (it shares its data with the test table) from every thread at once.
        const QVector<int>& sizes = lengths;
        for (int t = 0; t < threads; ++t) {
            running.emplace_back([&failures, &sizes, t] {
                for (int i = 0; i < 100; ++i) {
                    DSPB_FFTPROC* proc = DSPB_FFTProcCreate(sizes.at((t + i) % sizes.size()));
                    failures += !proc || !sineSpectrumOk(proc, 16 * (t + 1) + i % 8);
                    DSPB_FFTProcDestroy(proc);
                }
            });
        }
        for (std::thread& th : running)
            th.join();
        QCOMPARE(failures.load(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_Dspb)
#include "tst_dspb.moc"
