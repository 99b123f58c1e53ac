#include <QtTest>

#include "../../src/dsp/qsovavector_p.h"
#include "qsovavector.h"

#include <cstring>
#include <random>
#include <vector>

using FloatVec = QSovaVector<float, 16>;
using ShortVec = QSovaVector<short, 16>;

static constexpr float kSentinel = -12345.0f;

static bool aligned(const void* p) { return quintptr(p) % 16 == 0; }

static std::vector<float> randomSamples(unsigned n, std::mt19937& rng)
{
    const float specials[] = {1.0f, -1.0f, 0.0f, -0.0f, 1e10f, -1e10f, 65535.5f / 32768.0f};
    std::vector<float> out(n);
    for (float& x : out) // up to ±4 on whole and half (tie) ticks of 1/32768, extremes, huge
        x = rng() % 4 ? (float(int(rng() % 262145) - 131072) + float(rng() % 2) / 2) / 32768
                      : specials[rng() % 7];
    return out;
}

enum Kernel { Fill, Scale, Offset, Multiply, Add, Madd, ToShort, ToFloat, Interleave2, Deinterleave2 };

// op on vectors of size and otherSize (zero(start, end), or zero() if equal) must change
// exactly the elements from first up to last.
struct Reach { const char* op; unsigned size, otherSize, start, end, first, last; };
struct Wrap { int shift; bool copyIfUnaligned, copied; }; // p = aligned + shift floats

static void ramp(FloatVec& v, float first) // first, first + 1, ..., then sentinels in the slack
{
    for (unsigned i = 0; i < v.size() + 16; ++i)
        v[int(i)] = i < v.size() ? first + float(i) : kSentinel;
}

Q_DECLARE_METATYPE(Reach)
Q_DECLARE_METATYPE(Wrap)

class tst_QSovaVector : public QObject
{
    Q_OBJECT
private slots:
    void simdMatchesScalar_data() // each SSE kernel and its scalar twin: same bits for n results
    {
        QTest::addColumn<int>("kernel"), QTest::addColumn<unsigned>("n");
        const auto names = QByteArray("fill scale offset multiply add madd floatToShort shortToFloat "
                                      "interleave2 deinterleave2").split(' ');
        for (int k = Fill; k <= Deinterleave2; ++k) // lengths: none, odd, whole blocks, long
            for (unsigned n : {0u, 1u, 3u, 4u, 5u, 7u, 8u, 9u, 16u, 17u, 31u, 64u, 1001u})
                QTest::addRow("%s/%u", names[k].constData(), n) << k << n;
    }
    void simdMatchesScalar()
    {
        using namespace QSovaSimd;
        QFETCH(int, kernel);
        QFETCH(unsigned, n);
        std::mt19937 rng(n * 7919u + unsigned(kernel));
        for (int round = 0; round < 20; ++round) {
            const std::vector<float> x = randomSamples(2 * n + 1, rng), y = randomSamples(2 * n + 1, rng);
            std::vector<short> s(n), refShort(n + 1);
            std::generate(s.begin(), s.end(), [&] { return short(rng()); });
            std::vector<float> ref(x), ref2(n + 1); // + 1: memcmp gets no null pointer at n = 0
            const FloatVec vx(x.data(), 2 * n), vy(y.data(), 2 * n);
            FloatVec simd(x.data(), 2 * n), simd2(ref2.data(), n);
            ShortVec vs(s.data(), n), simdShort(refShort.data(), n);
            const float k = y[0];
            float *a = simd.data(), *r = ref.data();
            switch (kernel) {
            case Fill: fill(a, k, n); fillScalar(r, k, n); break;
            case Scale: scale(a, k, n); scaleScalar(r, k, n); break;
            case Offset: offset(a, k, n); offsetScalar(r, k, n); break;
            case Multiply: multiply(a, vy.constData(), n); multiplyScalar(r, y.data(), n); break;
            case Add: add(a, vy.constData(), n); addScalar(r, y.data(), n); break;
            case Madd: madd(a, vy.constData(), k, n); maddScalar(r, y.data(), k, n); break;
            case ToShort: floatToShort(simdShort.data(), vx.constData(), n);
                          floatToShortScalar(refShort.data(), x.data(), n); break;
            case ToFloat: shortToFloat(a, vs.constData(), n); shortToFloatScalar(r, s.data(), n); break;
            case Interleave2: interleave2(a, vx.constData(), vy.constData(), n);
                              interleave2Scalar(r, x.data(), y.data(), n); break;
            case Deinterleave2: deinterleave2(a, simd2.data(), vy.constData(), n);
                                deinterleave2Scalar(r, ref2.data(), y.data(), n); break;
            }
            const unsigned count = kernel == Interleave2 ? 2 * n : n; // past it: block over-run
            QCOMPARE(std::memcmp(a, r, count * sizeof(float)), 0);
            QCOMPARE(std::memcmp(simd2.constData(), ref2.data(), n * sizeof(float)), 0);
            QCOMPARE(std::memcmp(simdShort.constData(), refShort.data(), n * sizeof(short)), 0);
        }
    }

    void conversions_data()
    {
        QTest::addColumn<float>("f"), QTest::addColumn<short>("s");
        QTest::newRow("1.0 saturates") << 1.0f << short(32767);
        QTest::newRow("2.0 saturates") << 2.0f << short(32767);
        QTest::newRow("-1.0") << -1.0f << short(-32768);
        QTest::newRow("-1.5 saturates") << -1.5f << short(-32768);
        QTest::newRow("0.5") << 0.5f << short(16384);
        QTest::newRow("1.5 ticks, tie to even") << 1.5f / 32768 << short(2);
        QTest::newRow("2.5 ticks, tie to even") << 2.5f / 32768 << short(2);
        QTest::newRow("-0.5 ticks, tie to even") << -0.5f / 32768 << short(0);
        QTest::newRow("beyond int32") << 1e10f << short(-32768);
    }
    void conversions()
    {
        QFETCH(float, f);
        QFETCH(short, s);
        ShortVec shorts(1);
        FloatVec floats(&f, 1), back(1);
        float_to_short(floats, shorts);
        QCOMPARE(shorts[0], s);
        short_to_float(shorts, back);
        if (float(s) / 32768 == f) // exact: the way back gives it again
            QCOMPARE(back[0], f);
    }

    // Which elements an operation changes, up to 16 past the size: block loops reach their
    // bound rounded up to the block (4 floats, 8 shorts) and never further; zero() is exact.
    void reach_data()
    {
        QTest::addColumn<Reach>("r");
        for (const char* op : {"assign", "scale", "offset", "mulvec", "addvec", "madd"}) {
            QTest::addRow("%s/5", op) << Reach{op, 5, 5, 0, 0, 0, 8};
            QTest::addRow("%s/8", op) << Reach{op, 8, 8, 0, 0, 0, 8};
        }
        QTest::newRow("mulvec/shorter other") << Reach{"mulvec", 13, 5, 0, 0, 0, 8};
        QTest::newRow("addvec/shorter self") << Reach{"addvec", 5, 13, 0, 0, 0, 8};
        QTest::newRow("madd/longer other") << Reach{"madd", 5, 13, 0, 0, 0, 8};
        QTest::newRow("float_to_short/9") << Reach{"float_to_short", 9, 9, 0, 0, 0, 16};
        QTest::newRow("short_to_float/9") << Reach{"short_to_float", 9, 9, 0, 0, 0, 16};
        QTest::newRow("zero/all") << Reach{"zero", 10, 10, 0, 0, 0, 10};
        QTest::newRow("zero/end past size") << Reach{"zero", 10, 10, 3, 100, 3, 10};
        QTest::newRow("zero/start at size") << Reach{"zero", 10, 10, 10, 12, 0, 0};
        QTest::newRow("zero/inner") << Reach{"zero", 10, 10, 2, 5, 2, 5};
        QTest::newRow("zero/reversed") << Reach{"zero", 10, 10, 5, 3, 0, 0};
    }
    void reach()
    {
        QFETCH(Reach, r);
        const QByteArray op = r.op;
        FloatVec v(r.size), other(r.otherSize);
        ShortVec s(r.size);
        ramp(v, 1.0f), ramp(other, 2.0f), std::fill(s.data(), s.data() + r.size + 16, short(-7));
        if (op == "assign") v = 0.5f;
        else if (op == "scale") v *= 3.0f;
        else if (op == "offset") v += 3.0f;
        else if (op == "mulvec") v *= other;
        else if (op == "addvec") v += other;
        else if (op == "madd") v.madd(3.0f, other);
        else if (op == "float_to_short") float_to_short(v, s);
        else if (op == "short_to_float") short_to_float(s, v);
        else r.start == r.end ? v.zero() : v.zero(r.start, r.end);
        QCOMPARE(v.size(), r.size);
        for (unsigned i = 0; i < r.size + 16; ++i) {
            const bool changed = op == "float_to_short" ? s[int(i)] != -7
                                 : v[int(i)] != (i < r.size ? 1.0f + float(i) : kSentinel);
            QVERIFY2(changed == (i >= r.first && i < r.last), qPrintable(QString::number(i)));
        }
    }

    void ownership_data() // a wrapper must not free p (ASan would report it); copies are deep
    {
        QTest::addColumn<Wrap>("w");
        QTest::newRow("aligned, copy requested") << Wrap{0, true, false};
        QTest::newRow("unaligned, copy requested") << Wrap{1, true, true};
        QTest::newRow("unaligned, wrapped") << Wrap{1, false, false};
    }
    void ownership()
    {
        QFETCH(Wrap, w);
        FloatVec backing(12);
        ramp(backing, 1.0f);
        float* p = backing.data() + w.shift;
        {
            FloatVec v(p, 7, w.copyIfUnaligned);
            QVERIFY((v.data() != p) == w.copied && (aligned(v.data()) || !w.copied));
            FloatVec deep(v);
            QVERIFY(aligned(deep.data()) && deep.size() == 7 && deep.data() != v.data());
            deep = 9.0f;
            QVERIFY(std::equal(v.begin(), v.end(), p) && p[6] == float(7 + w.shift));
        }
    }

    void interleaving_data()
    {
        QTest::addColumn<unsigned>("nch"), QTest::addColumn<unsigned>("frames");
        for (unsigned nch : {1u, 2u, 3u, 5u})
            for (unsigned frames : {2u, 7u, 8u})
                QTest::addRow("%u ch/%u frames", nch, frames) << nch << frames;
    }
    void interleaving()
    {
        QFETCH(unsigned, nch);
        QFETCH(unsigned, frames);
        std::vector<FloatVec> in, back;
        in.reserve(nch), back.reserve(nch); // no reallocation: copies drop the slack sentinels
        for (unsigned c = 0; c < nch; ++c)
            ramp(in.emplace_back(frames), 100.0f * float(c)), back.emplace_back(frames);
        FloatVec mixed(frames * nch);
        interleave(in.data(), mixed, nch); // c0[0], c1[0], ..., c0[1], c1[1], ...
        for (unsigned i = 0; i < frames * nch; ++i)
            QCOMPARE(mixed[int(i)], 100.0f * float(i % nch) + float(i / nch));
        de_interleave(mixed, back.data(), nch);
        for (unsigned c = 0; c < nch; ++c)
            QVERIFY(std::equal(back[c].begin(), back[c].end(), in[c].begin()));
        const std::vector<float> before(mixed.begin(), mixed.end());
        interleave(in.data(), mixed, 0); // no channels: nothing written
        QVERIFY(std::equal(before.begin(), before.end(), mixed.begin()));
    }
};

QTEST_APPLESS_MAIN(tst_QSovaVector)
#include "tst_qsovavector.moc"
