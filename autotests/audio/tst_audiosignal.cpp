// Signals of the audio engine: edits against a plain vector, every read form, duplicates,
// files, levels and filters, and the null handle.
#include <sova/audio.h>
#include <sova/blio.h>

#include <QtTest>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace {

struct SignalDeleter
{
    void operator()(_AUDIOSIGNAL* signal) const { AUDIOSIGNAL_Destroy(signal); }
};
using Signal = std::unique_ptr<_AUDIOSIGNAL, SignalDeleter>;

Signal newSignal(int bits, int channels, int rate = 48000)
{
    return Signal(AUDIOSIGNAL_NewEx(AUDIO_FormatEx(rate, int16_t(channels), int16_t(bits))));
}

// Distinct values for every frame and channel; seed tells runs apart.
std::vector<int16_t> pattern(int64_t frames, int channels, int seed)
{
    std::vector<int16_t> out(size_t(frames * channels));
    for (int64_t f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c)
            out[size_t(f * channels + c)]
                = int16_t((f * 7 + c * 1009 + seed * 131) % 65536 - 32768);
    return out;
}

// Inserts 16-bit values through the integer call, or through the float call as exact floats.
int64_t insertInto(
    _AUDIOSIGNAL* signal, const std::vector<int16_t>& data, int64_t pos, bool asFloat, bool append)
{
    const int64_t frames = int64_t(data.size()) / AUDIOSIGNAL_NumChannels(signal);
    if (!asFloat)
        return append ? AUDIOSIGNAL_AppendSamples16(signal, data.data(), frames)
                      : AUDIOSIGNAL_InsertSamples16(signal, data.data(), pos, frames);
    std::vector<float> f(data.size());
    for (size_t i = 0; i < data.size(); ++i)
        f[i] = data[i] / 32768.0f;
    return append ? AUDIOSIGNAL_AppendSamples(signal, f.data(), frames)
                  : AUDIOSIGNAL_InsertSamples(signal, f.data(), pos, frames);
}

std::vector<int16_t> contents(_AUDIOSIGNAL* signal)
{
    const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
    std::vector<int16_t> out(size_t(frames * AUDIOSIGNAL_NumChannels(signal)));
    if (frames > 0 && AUDIOSIGNAL_GetSamples16Ex(signal, 0, out.data(), frames, 0) != frames)
        out.clear();
    return out;
}

// A signal of identical sines (plus a constant) on every channel.
Signal sineSignal(int channels, double hz, double amplitude, double dc = 0, int frames = 48000)
{
    Signal s = newSignal(32, channels);
    std::vector<float> data(size_t(frames) * channels);
    for (int f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c)
            data[size_t(f) * channels + c]
                = float(dc + amplitude * std::sin(2 * M_PI * hz * f / 48000));
    AUDIOSIGNAL_AppendSamples(s.get(), data.data(), frames);
    return s;
}

} // namespace

class TestAudioSignal : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    // "a:N" appends, "i:P:N" inserts, "d:P:N" deletes; "r:SEED:STEPS" makes random edits.
    void edits_data()
    {
        QTest::addColumn<int>("bits");
        QTest::addColumn<QString>("ops");
        const QList<QPair<const char*, const char*>> rows = {
            {"appends across blocks", "a:70000 a:70000 a:1 a:65535"},
            {"insert at the start", "a:1000 i:0:500"},
            {"insert inside a block", "a:100000 i:30000:10"},
            {"insert at a block boundary", "a:131072 i:65536:7"},
            {"large insert over a boundary", "a:131072 i:65530:200000"},
            {"insert at the end", "a:1000 i:1000:5"},
            {"insert positions clamp", "a:10 i:-5:3 i:999:4"},
            {"delete across blocks", "a:200000 d:60000:70000"},
            {"delete ranges clip", "a:100 d:-10:20 d:85:1000 d:500:3 d:0:0"},
            {"delete all, grow again", "a:70000 d:0:70000 a:5 i:0:3"},
            {"many small edits merge", "r:1:300"},
            {"random large edits", "r:2:40"},
            {"random mixed edits", "r:3:80"},
        };
        for (int bits : {16, 32})
            for (const auto& row : rows)
                QTest::addRow("%s, %d-bit", row.first, bits) << bits << row.second;
    }
    void edits()
    {
        QFETCH(int, bits);
        QFETCH(QString, ops);
        const int ch = 2;
        Signal s = newSignal(bits, ch);
        std::vector<int16_t> model;
        QStringList steps = ops.split(' ');
        if (ops.startsWith("r:")) {
            const QStringList p = ops.split(':');
            std::mt19937 rng(p[1].toUInt());
            const bool small = p[1] == "1";
            steps = QStringList {"a:150000"};
            for (int i = 0; i < p[2].toInt(); ++i) {
                const int size = small ? int(rng() % 50 + 1) : int(rng() % 140000 + 1);
                const int kind = int(rng() % 3);
                const int at = int(rng() % 400000);
                steps << (kind == 0 ? QString("a:%1").arg(size)
                        : kind == 1 ? QString("i:%1:%2").arg(at).arg(size)
                                    : QString("d:%1:%2").arg(at).arg(size));
            }
        }
        int seed = 0;
        for (const QString& step : steps) {
            const QStringList p = step.split(':');
            const int64_t frames = int64_t(model.size()) / ch;
            const int64_t pos = p.size() > 2 ? p[1].toLongLong() : frames;
            const int64_t n = p.last().toLongLong();
            if (p[0] == "d") {
                const int64_t from = qBound<int64_t>(0, pos, frames),
                              to = qBound<int64_t>(0, pos + n, frames);
                QCOMPARE(
                    AUDIOSIGNAL_DeleteSamples(s.get(), pos, n), std::max<int64_t>(0, to - from));
                if (to > from)
                    model.erase(model.begin() + from * ch, model.begin() + to * ch);
            } else {
                const std::vector<int16_t> data = pattern(n, ch, ++seed);
                QCOMPARE(insertInto(s.get(), data, pos, bits == 32, p[0] == "a"), n);
                const int64_t at = qBound<int64_t>(0, pos, frames);
                model.insert(model.begin() + at * ch, data.begin(), data.end());
            }
            QCOMPARE(AUDIOSIGNAL_NumSamples(s.get()), int64_t(model.size()) / ch);
            QVERIFY2(contents(s.get()) == model, qPrintable(step));
        }
    }

    void reads_data()
    {
        QTest::addColumn<int>("bits");
        QTest::addColumn<QString>("kind"); // all, step, active, channel
        QTest::addColumn<qint64>("pos");
        QTest::addColumn<qint64>("count");
        QTest::addColumn<int>("arg"); // step; mask of inactive channels; channel
        QTest::addColumn<int>("flags");
        QTest::addColumn<qint64>("delivered");
        for (int bits : {16, 32}) {
            auto row = [bits](const char* name) -> QTestData& {
                return QTest::addRow("%s, %d-bit", name, bits) << bits;
            };
            row("inside") << "all" << 10LL << 1000LL << 1 << 0 << 1000LL;
            row("across a block boundary") << "all" << 65000LL << 2000LL << 1 << 0 << 2000LL;
            row("before the start, clipped") << "all" << -5LL << 10LL << 1 << 0 << 5LL;
            row("before the start, padded") << "all" << -5LL << 10LL << 1 << 1 << 10LL;
            row("past the end, clipped") << "all" << 99995LL << 10LL << 1 << 0 << 5LL;
            row("past the end, padded") << "all" << 99995LL << 10LL << 1 << 1 << 10LL;
            row("outside, clipped") << "all" << 200000LL << 10LL << 1 << 0 << 0LL;
            row("outside, padded") << "all" << -200000LL << 10LL << 1 << 1 << 10LL;
            row("count 0") << "all" << 0LL << 0LL << 1 << 1 << 0LL;
            row("step 3") << "step" << 1LL << 100LL << 3 << 0 << 100LL;
            row("step over the end") << "step" << 99990LL << 10LL << 3 << 0 << 4LL;
            row("step from before the start") << "step" << -7LL << 5LL << 3 << 0 << 2LL;
            row("step from before the start, padded") << "step" << -7LL << 5LL << 3 << 1 << 5LL;
            row("step over whole blocks") << "step" << 0LL << 3LL << 70000 << 0 << 2LL;
            row("step 0 is rejected") << "step" << 0LL << 3LL << 0 << 0 << 0LL;
            row("active: all") << "active" << 65530LL << 20LL << 0 << 0 << 20LL;
            row("active: first and last") << "active" << 65530LL << 20LL << 2 << 0 << 20LL;
            row("active: last only, padded") << "active" << -3LL << 20LL << 3 << 1 << 20LL;
            row("channel 1") << "channel" << 65530LL << 20LL << 1 << 0 << 20LL;
            row("channel 2, past the end") << "channel" << 99990LL << 20LL << 2 << 0 << 10LL;
            row("channel 3 is rejected") << "channel" << 0LL << 20LL << 3 << 1 << 0LL;
            row("channel -1 is rejected") << "channel" << 0LL << 20LL << -1 << 1 << 0LL;
        }
    }
    void reads()
    {
        QFETCH(int, bits);
        QFETCH(QString, kind);
        QFETCH(qint64, pos);
        QFETCH(qint64, count);
        QFETCH(int, arg);
        QFETCH(int, flags);
        QFETCH(qint64, delivered);
        const int ch = 3;
        const int64_t frames = 100000;
        const std::vector<int16_t> data = pattern(frames, ch, 0);
        Signal s = newSignal(bits, ch);
        QCOMPARE(insertInto(s.get(), data, 0, bits == 32, true), frames);

        // The expected delivery, frame by frame.
        std::vector<int> channels;
        for (int c = 0; c < ch; ++c)
            if (kind == "channel" ? c == arg : kind != "active" || !(arg & (1 << c)))
                channels.push_back(c);
        if (kind == "active")
            for (int c = 0; c < ch; ++c)
                AUDIOSIGNAL_SetChannelActive(s.get(), c, !(arg & (1 << c)));
        const int64_t step = kind == "step" ? arg : 1;
        std::vector<int16_t> expected;
        for (int64_t k = 0; k < count && step > 0; ++k) {
            const int64_t p = pos + k * step;
            if (p >= 0 && p < frames)
                for (int c : channels)
                    expected.push_back(data[size_t(p * ch + c)]);
            else if (flags & AUDIOSIGNAL_READ_ZEROPAD)
                expected.insert(expected.end(), channels.size(), 0);
        }
        if (delivered == 0)
            expected.clear();

        // Sentinels behind the delivery catch writes past it.
        const size_t room = size_t(std::max<int64_t>(count, 0) * ch + 8);
        std::vector<float> f(room, 7.0f);
        std::vector<int16_t> i(room, 12345);
        int64_t gotFloat = -1, got16 = -1;
        if (kind == "all") {
            gotFloat = AUDIOSIGNAL_GetSamplesEx(s.get(), pos, f.data(), count, flags);
            got16 = AUDIOSIGNAL_GetSamples16Ex(s.get(), pos, i.data(), count, flags);
        } else if (kind == "step") {
            gotFloat = AUDIOSIGNAL_GetSamplesWithStepEx(s.get(), pos, f.data(), count, arg, flags);
            got16 = gotFloat;
            for (size_t k = 0; k < expected.size(); ++k)
                i[k] = int16_t(std::lround(f[k] * 32768.0f));
        } else if (kind == "active") {
            gotFloat = AUDIOSIGNAL_GetActiveSamplesEx(s.get(), pos, f.data(), count, flags);
            got16 = AUDIOSIGNAL_GetActiveSamples16Ex(s.get(), pos, i.data(), count, flags);
        } else {
            gotFloat = AUDIOSIGNAL_GetChannelSamplesEx(s.get(), arg, pos, f.data(), count, flags);
            got16 = AUDIOSIGNAL_GetChannelSamples16Ex(s.get(), arg, pos, i.data(), count, flags);
        }
        QCOMPARE(gotFloat, delivered);
        QCOMPARE(got16, delivered);
        for (size_t k = 0; k < expected.size(); ++k) {
            QCOMPARE(i[k], expected[k]);
            QCOMPARE(f[k], expected[k] / 32768.0f);
        }
        QCOMPARE(f[expected.size()], 7.0f);
        QCOMPARE(i[expected.size()], int16_t(12345));
    }

    // Floats written into a 16-bit signal are rounded and clipped.
    void floatsInto16Bits_data()
    {
        QTest::addColumn<float>("value");
        QTest::addColumn<int>("stored");
        QTest::newRow("quarter scale") << 0.25f << 8192;
        QTest::newRow("half a step rounds up") << float(0.5 / 32768) << 1;
        QTest::newRow("minus half a step rounds up") << float(-0.5 / 32768) << 0;
        QTest::newRow("just below full scale clips") << 0.99999f << 32767;
        QTest::newRow("over full scale clips") << 1.5f << 32767;
        QTest::newRow("negative full scale") << -1.0f << -32768;
        QTest::newRow("under negative full scale clips") << -2.0f << -32768;
        QTest::newRow("NaN is silence") << std::nanf("") << 0;
    }
    void floatsInto16Bits()
    {
        QFETCH(float, value);
        QFETCH(int, stored);
        for (int bits : {16, 32}) {
            // Float signals keep the value; reading 16-bit samples rounds and clips it then.
            Signal s = newSignal(bits, 1);
            QCOMPARE(AUDIOSIGNAL_AppendSamples(s.get(), &value, 1), 1);
            int16_t got = 0;
            QCOMPARE(AUDIOSIGNAL_GetSamples16Ex(s.get(), 0, &got, 1, 0), 1);
            QCOMPARE(int(got), stored);
        }
    }

    void duplicates_data()
    {
        QTest::addColumn<uint>("options");
        QTest::addColumn<QString>("edit"); // applied to the original, then to the copy
        QTest::newRow("insert in the middle") << 0u << "insert";
        QTest::newRow("unknown bits copy everything, append") << 0x1A00u << "append";
        QTest::newRow("delete over a boundary") << 0u << "delete";
        QTest::newRow("format only") << uint(AUDIOSIGNAL_DUP_FORMAT_ONLY) << "append";
    }
    void duplicates()
    {
        QFETCH(uint, options);
        QFETCH(QString, edit);
        for (int bits : {16, 24}) {
            Signal a = newSignal(bits, 2);
            insertInto(a.get(), pattern(140000, 2, 1), 0, bits > 16, true);
            AUDIOSIGNAL_SetChannelActive(a.get(), 1, 0);
            const std::vector<int16_t> before = contents(a.get());
            Signal b(AUDIOSIGNAL_DuplicateEx(a.get(), options));
            QVERIFY(b);
            QCOMPARE(AUDIOSIGNAL_BitsPerSample(b.get()), bits);
            QCOMPARE(AUDIOSIGNAL_NumActiveChannels(b.get()), 1);
            if (options & AUDIOSIGNAL_DUP_FORMAT_ONLY) {
                QCOMPARE(AUDIOSIGNAL_NumSamples(b.get()), 0);
                continue;
            }
            QVERIFY(contents(b.get()) == before);
            auto apply = [&](_AUDIOSIGNAL* s) {
                const std::vector<int16_t> data = pattern(1000, 2, 2);
                if (edit == "delete")
                    QCOMPARE(AUDIOSIGNAL_DeleteSamples(s, 65000, 2000), 2000);
                else
                    QCOMPARE(insertInto(s, data, 70000, bits > 16, edit == "append"), 1000);
            };
            apply(a.get());
            QVERIFY(contents(b.get()) == before);
            const std::vector<int16_t> edited = contents(a.get());
            QVERIFY(edited != before);
            apply(b.get());
            QVERIFY(contents(b.get()) == edited);
            AUDIOSIGNAL_Destroy(a.release());
            QVERIFY(contents(b.get()) == edited);
        }
    }

    // Saved and opened again, through plain paths, "file://" and a view of an open handle,
    // whole or through a window.
    void files_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("bits");
        QTest::addColumn<int>("scheme"); // 0 plain, 1 file://, 2 hfile:// view
        QTest::addColumn<qint64>("start");
        QTest::addColumn<qint64>("count");
        QTest::addColumn<double>("tolerance"); // 0: exact
        QTest::newRow("16-bit wav") << "a.wav"
                                    << "" << 16 << 0 << 0LL << 0LL << 0.0;
        QTest::newRow("16-bit wav, window") << "b.wav"
                                            << "" << 16 << 0 << 70000LL << 1000LL << 0.0;
        QTest::newRow("window to the end") << "c.wav"
                                           << "" << 16 << 1 << 99000LL << 0LL << 0.0;
        QTest::newRow("24-bit flac") << "d.flac"
                                     << "" << 24 << 0 << 0LL << 0LL << 1.0 / (1 << 23);
        QTest::newRow("float wav") << "e.wav"
                                   << "wav[codec=float]" << 32 << 0 << 0LL << 0LL << 0.0;
        QTest::newRow("view of a handle") << "f.bin"
                                          << "wav" << 16 << 2 << 5LL << 90000LL << 0.0;
    }
    void files()
    {
        QFETCH(QString, name);
        QFETCH(QString, format);
        QFETCH(int, bits);
        QFETCH(int, scheme);
        QFETCH(qint64, start);
        QFETCH(qint64, count);
        QFETCH(double, tolerance);
        const int ch = 2, frames = 100000;
        Signal s = newSignal(bits, ch, 44100);
        std::vector<float> data(size_t(frames) * ch);
        for (size_t k = 0; k < data.size(); ++k) // over full scale for float files
            data[k] = float((k % 1000) / 500.0 - 1.0) * (bits == 32 ? 1.5f : 0.9f);
        AUDIOSIGNAL_AppendSamples(s.get(), data.data(), frames);
        const QByteArray file = m_dir.filePath(name).toUtf8();
        QByteArray where = scheme == 1 ? "file://" + file : file;
        _HFile* handle = scheme == 2 ? BLIO_Open(file, "w") : nullptr;
        char view[BLIO_MAX_META_DESCR];
        if (handle && BLIO_ComposeMetaHFileDescr(view, handle))
            where = view;
        QVERIFY2(AUDIOSIGNAL_SaveEx(s.get(), where, format.toUtf8(), start, count),
            BLERROR_LastMessage());
        if (handle)
            QVERIFY(BLIO_CloseFile(handle));
        const int64_t expected = count ? count : frames - start;
        Signal back(AUDIOSIGNAL_OpenEx(file, format.toUtf8(), 0, 0, 0, nullptr));
        QVERIFY2(back, BLERROR_LastMessage());
        QCOMPARE(AUDIOSIGNAL_NumSamples(back.get()), expected);
        QCOMPARE(AUDIOSIGNAL_SampleRate(back.get()), 44100);
        QCOMPARE(AUDIOSIGNAL_BitsPerSample(back.get()), bits);
        std::vector<float> want(size_t(expected) * ch), got(want.size());
        AUDIOSIGNAL_GetSamplesEx(s.get(), start, want.data(), expected, 0);
        AUDIOSIGNAL_GetSamplesEx(back.get(), 0, got.data(), expected, 0);
        for (size_t k = 0; k < got.size(); ++k)
            QVERIFY2(std::fabs(got[k] - want[k]) <= tolerance, qPrintable(QString::number(k)));

        // Opening a window of the file.
        Signal part(AUDIOSIGNAL_OpenEx(file, format.toUtf8(), 0, 10, 20, nullptr));
        QCOMPARE(AUDIOSIGNAL_NumSamples(part.get()), 20);
        std::vector<float> piece(20 * ch);
        AUDIOSIGNAL_GetSamplesEx(part.get(), 0, piece.data(), 20, 0);
        QCOMPARE(piece[0], got[10 * ch]);
    }

    void openFailures()
    {
        const QByteArray missing = m_dir.filePath("missing.wav").toUtf8();
        QVERIFY(!AUDIOSIGNAL_OpenEx(missing, "", 0, 0, 0, nullptr));
        QVERIFY(QByteArray(BLERROR_LastMessage()).contains("missing.wav"));

        // A progress callback that refuses cancels the read.
        Signal s = sineSignal(1, 100, 0.5, 0, 200000);
        const QByteArray file = m_dir.filePath("long.wav").toUtf8();
        QVERIFY(AUDIOSIGNAL_SaveEx(s.get(), file, "", 0, 0));
        double last = -1;
        AUDIO_Progress progress {[](void* user, double f) {
                                     *static_cast<double*>(user) = f;
                                     return f > 0.5 ? 1 : 0;
                                 },
            &last};
        QVERIFY(!AUDIOSIGNAL_OpenEx(file, "", 0, 0, 0, &progress));
        QCOMPARE(BLERROR_LastCode(), int(AUDIOERR_CANCELLED));
        QVERIFY(last > 0.5 && last < 1.0);
        QVERIFY(!AUDIOSIGNAL_SaveEx(s.get(), m_dir.filePath("x.nothing").toUtf8(), "", 0, 0));
    }

    void levels_data()
    {
        QTest::addColumn<double>("amplitude");
        QTest::addColumn<qint64>("pos");
        QTest::addColumn<qint64>("count");
        QTest::addColumn<int>("channel");
        QTest::addColumn<double>("linear");
        QTest::addColumn<double>("db");
        QTest::newRow("full-scale sine") << 1.0 << 0LL << 48000LL << 0 << M_SQRT1_2 << -3.0103;
        QTest::newRow("half scale, range clipped")
            << 0.5 << -100LL << 1000000LL << 1 << 0.5 * M_SQRT1_2 << -9.0309;
        QTest::newRow("silence") << 0.0 << 0LL << 48000LL << 0 << 0.0 << -200.0;
        QTest::newRow("empty range") << 1.0 << 48000LL << 10LL << 0 << 0.0 << -200.0;
        QTest::newRow("bad channel") << 1.0 << 0LL << 48000LL << 2 << 0.0 << -200.0;
    }
    void levels()
    {
        QFETCH(double, amplitude);
        QFETCH(qint64, pos);
        QFETCH(qint64, count);
        QFETCH(int, channel);
        QFETCH(double, linear);
        QFETCH(double, db);
        Signal s = sineSignal(2, 1000, amplitude);
        QVERIFY(std::fabs(AUDIOSIGNAL_GetChannelTotalRMS(s.get(), channel, pos, count, 1) - linear)
            < 1e-4);
        QVERIFY(
            std::fabs(AUDIOSIGNAL_GetChannelTotalRMS(s.get(), channel, pos, count, 0) - db) < 1e-3);
    }

    // Level after a transform, in dB against the plain sine; bounds low..high.
    void transforms_data()
    {
        QTest::addColumn<QString>("transform");
        QTest::addColumn<double>("hz");
        QTest::addColumn<double>("dc");
        QTest::addColumn<int>("channel");
        QTest::addColumn<double>("low");
        QTest::addColumn<double>("high");
        QTest::newRow("none") << "" << 100.0 << 0.0 << 0 << -0.001 << 0.001;
        QTest::newRow("A at 1 kHz") << "aweight" << 1000.0 << 0.0 << 0 << -0.1 << 0.1;
        QTest::newRow("A at 100 Hz") << "AWeight" << 100.0 << 0.0 << 0 << -19.4 << -18.8;
        QTest::newRow("A at 10 kHz, all channels")
            << "aweight" << 10000.0 << 0.0 << -1 << -3.5 << -1.5;
        QTest::newRow("C at 100 Hz") << "cweight" << 100.0 << 0.0 << 0 << -0.6 << 0.0;
        QTest::newRow("high-pass stop band")
            << "highpass[fc=1000,order=4]" << 100.0 << 0.0 << 1 << -200.0 << -30.0;
        QTest::newRow("high-pass pass band")
            << "highpass[fc=1000,order=4]" << 8000.0 << 0.0 << 0 << -0.1 << 0.1;
        QTest::newRow("high-pass default 100 Hz")
            << "highpass" << 10.0 << 0.0 << 0 << -200.0 << -20.0;
        QTest::newRow("low-pass default 1 kHz")
            << "lowpass[order=2]" << 10000.0 << 0.0 << 0 << -200.0 << -30.0;
        QTest::newRow("dc block") << "dcblock" << 50.0 << 0.4 << -1 << -0.01 << 0.01;
    }
    void transforms()
    {
        QFETCH(QString, transform);
        QFETCH(double, hz);
        QFETCH(double, dc);
        QFETCH(int, channel);
        QFETCH(double, low);
        QFETCH(double, high);
        Signal s = sineSignal(2, hz, 0.5, dc);
        const double rms = AUDIOSIGNAL_EvalTransformRMS(s.get(), transform.toUtf8(), channel);
        const double db = 20 * std::log10(rms / (0.5 * M_SQRT1_2));
        QVERIFY2(db >= low && db <= high, qPrintable(QString::number(db)));
    }

    void transformErrors_data()
    {
        QTest::addColumn<QString>("transform");
        QTest::addColumn<int>("channel");
        QTest::newRow("unknown") << "bogus" << 0;
        QTest::newRow("odd order") << "highpass[order=3]" << 0;
        QTest::newRow("cut-off above Nyquist") << "lowpass[fc=30000]" << 0;
        QTest::newRow("unbalanced brackets") << "lowpass[fc=300" << 0;
        QTest::newRow("bad channel") << "none" << 2;
    }
    void transformErrors()
    {
        QFETCH(QString, transform);
        QFETCH(int, channel);
        Signal s = sineSignal(2, 100, 0.5);
        BLERROR_Clear();
        QCOMPARE(AUDIOSIGNAL_EvalTransformRMS(s.get(), transform.toUtf8(), channel), -1.0);
        QVERIFY(*BLERROR_LastMessage());
    }

    void nullHandle()
    {
        float f[4] = {};
        int16_t i[4] = {};
        QVERIFY(!AUDIOSIGNAL_DuplicateEx(nullptr, 0));
        AUDIOSIGNAL_Destroy(nullptr);
        QCOMPARE(AUDIOSIGNAL_SaveEx(nullptr, "x.wav", "", 0, 0), 0);
        QCOMPARE(AUDIOSIGNAL_NumSamples(nullptr) + AUDIOSIGNAL_SampleRate(nullptr)
                + AUDIOSIGNAL_NumChannels(nullptr) + AUDIOSIGNAL_BitsPerSample(nullptr)
                + AUDIOSIGNAL_NumActiveChannels(nullptr) + AUDIOSIGNAL_ChannelIsActive(nullptr, 0)
                + AUDIOSIGNAL_SetChannelActive(nullptr, 0, 1),
            0);
        QCOMPARE(AUDIOSIGNAL_Length(nullptr), 0.0);
        QVERIFY(!AUDIOSIGNAL_GetFormatRef(nullptr));
        QCOMPARE(AUDIOSIGNAL_GetSamplesEx(nullptr, 0, f, 1, 1)
                + AUDIOSIGNAL_GetSamples16Ex(nullptr, 0, i, 1, 1)
                + AUDIOSIGNAL_GetSamplesWithStepEx(nullptr, 0, f, 1, 1, 1)
                + AUDIOSIGNAL_GetActiveSamplesEx(nullptr, 0, f, 1, 1)
                + AUDIOSIGNAL_GetActiveSamples16Ex(nullptr, 0, i, 1, 1)
                + AUDIOSIGNAL_GetChannelSamplesEx(nullptr, 0, 0, f, 1, 1)
                + AUDIOSIGNAL_GetChannelSamples16Ex(nullptr, 0, 0, i, 1, 1)
                + AUDIOSIGNAL_InsertSamples(nullptr, f, 0, 1)
                + AUDIOSIGNAL_InsertSamples16(nullptr, i, 0, 1)
                + AUDIOSIGNAL_AppendSamples(nullptr, f, 1)
                + AUDIOSIGNAL_AppendSamples16(nullptr, i, 1)
                + AUDIOSIGNAL_DeleteSamples(nullptr, 0, 1),
            0);
        QCOMPARE(AUDIOSIGNAL_GetChannelTotalRMS(nullptr, 0, 0, 1, 1), 0.0);
        QCOMPARE(AUDIOSIGNAL_EvalTransformRMS(nullptr, "", 0), 0.0);
        // Null buffers and data are rejected on a live signal too; bad formats give no signal.
        Signal s = newSignal(16, 1);
        QCOMPARE(AUDIOSIGNAL_GetSamplesEx(s.get(), 0, nullptr, 1, 1), 0);
        QCOMPARE(AUDIOSIGNAL_AppendSamples16(s.get(), nullptr, 1), 0);
        QVERIFY(!AUDIOSIGNAL_NewEx(AUDIO_FormatEx(48000, 9, 16)));
        QCOMPARE(BLERROR_LastCode(), int(AUDIOERR_INVALID_FORMAT));
        const _audio_selection sel = AUDIOSELECTION_Define(1.5, 0.5, 2);
        QCOMPARE(sel.begin, 1.5);
        QCOMPARE(sel.flags, uint32_t(AUDIOSELECTION_FLAG_DEFINED));
        QCOMPARE(AUDIOSELECTION_Null().flags, 0u);
    }
};

QTEST_GUILESS_MAIN(TestAudioSignal)
#include "tst_audiosignal.moc"
