// Stream decoders and pipes: header probing, decoding in pieces against decoding whole,
// appending and overlapping against a plain vector, the flush at close, null handles, and a
// pipe fed on one thread while another reads the signal.
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

namespace {

struct SignalDeleter
{
    void operator()(_AUDIOSIGNAL* s) const { AUDIOSIGNAL_Destroy(s); }
};
struct DecoderDeleter
{
    void operator()(_AUDIODECODER* d) const { AUDIODECOD_Destroy(d); }
};
using Signal = std::unique_ptr<_AUDIOSIGNAL, SignalDeleter>;
using Decoder = std::unique_ptr<_AUDIODECODER, DecoderDeleter>;

Signal newSignal(int rate, int channels, int bits = 32)
{
    return Signal(AUDIOSIGNAL_NewEx(AUDIO_FormatEx(rate, int16_t(channels), int16_t(bits))));
}

std::vector<float> allSamples(_AUDIOSIGNAL* s)
{
    std::vector<float> out(size_t(AUDIOSIGNAL_NumSamples(s) * AUDIOSIGNAL_NumChannels(s)));
    if (!out.empty())
        AUDIOSIGNAL_GetSamplesEx(s, 0, out.data(), AUDIOSIGNAL_NumSamples(s), 0);
    return out;
}

// Decodes the stream into the signal through a pipe, `chunk` bytes per call (0: all at once).
bool decodeInto(_AUDIOSIGNAL* s, const QByteArray& stream, const char* config, int chunk)
{
    Decoder d(AUDIODECOD_Create(nullptr, config));
    _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(s, 0, d.get());
    const int step = chunk > 0 ? chunk : stream.size();
    for (int at = 0; at < stream.size(); at += step)
        if (AUDIOSIGNAL_AppendBitStreamToPipe(
                pipe, stream.constData() + at, std::min(step, stream.size() - at))
            < 0)
            return false;
    return AUDIOSIGNAL_ClosePipe(pipe) == 1;
}

// Frames an ADTS stream decodes to: 1024 per frame, the frames found by their lengths.
int64_t adtsFrames(const QByteArray& b)
{
    int64_t frames = 0;
    for (int at = 0; at + 7 <= b.size() && uint8_t(b[at]) == 0xFF; ++frames)
        at += ((b[at + 3] & 3) << 11) | (uint8_t(b[at + 4]) << 3) | (uint8_t(b[at + 5]) >> 5);
    return frames * 1024;
}

} // namespace

class TestAudioPipe : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;
    QMap<QString, QByteArray> streams_;

private slots:
    void initTestCase()
    {
        // A 440 Hz sine of amplitude 1/8, 2 s, in each codec's elementary stream.
        const QList<QStringList> jobs = {
            {"aac", "-ar", "44100", "-c:a", "aac", "-f", "adts"},
            {"mp3", "-ar", "48000", "-af", "pan=stereo|c0=c0|c1=c0", "-c:a", "libmp3lame", "-f",
                "mp3"},
            {"flac", "-ar", "22050", "-c:a", "flac", "-f", "flac"},
        };
        if (QStandardPaths::findExecutable("ffmpeg").isEmpty())
            QSKIP("no ffmpeg on PATH");
        for (QStringList job : jobs) {
            const QString name = job.takeFirst();
            const QString path = dir_.filePath("x." + name);
            QProcess p;
            p.start("ffmpeg",
                QStringList {"-v", "error", "-y", "-f", "lavfi", "-i", "sine=f=440:d=2"} + job
                    + QStringList {path});
            p.waitForFinished(60000);
            QFile f(path);
            if (p.exitCode() != 0 || !f.open(QIODevice::ReadOnly))
                QSKIP(qPrintable("ffmpeg cannot make " + name + ": " + p.readAllStandardError()));
            streams_[name] = f.readAll();
        }
    }

    void probe_data()
    {
        QTest::addColumn<QString>("config");
        QTest::addColumn<QString>("stream");
        QTest::addColumn<int>("rate"); // 0: the probe fails
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("minSamples"); // -1: only checked for order
        QTest::addColumn<int>("maxSamples");
        QTest::addColumn<QByteArray>("sync"); // bytes (masked to 0xFFF) after the header

        QTest::newRow("aac") << "AAC"
                             << "aac" << 44100 << 1 << 1024 << 1024 << QByteArray("\xff\xf0");
        QTest::newRow("mp3 after ID3")
            << "mp3"
            << "mp3" << 48000 << 2 << 384 << 1152 << QByteArray("\xff\xf0");
        QTest::newRow("flac metadata")
            << "Flac"
            << "flac" << 22050 << 1 << -1 << -1 << QByteArray("\xff\xf0");
        QTest::newRow("aac on mp3 bytes") << "aac"
                                          << "mp3" << 0 << 0 << 0 << 0 << QByteArray();
        QTest::newRow("mp3 on flac bytes") << "mp3"
                                           << "flac" << 0 << 0 << 0 << 0 << QByteArray();
        QTest::newRow("flac on aac bytes") << "flac"
                                           << "aac" << 0 << 0 << 0 << 0 << QByteArray();
        QTest::newRow("aac garbage") << "aac"
                                     << "garbage" << 0 << 0 << 0 << 0 << QByteArray();
        QTest::newRow("aac truncated") << "aac"
                                       << "aac:5" << 0 << 0 << 0 << 0 << QByteArray();
    }

    void probe()
    {
        QFETCH(QString, config);
        QFETCH(QString, stream);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, minSamples);
        QFETCH(int, maxSamples);
        QFETCH(QByteArray, sync);

        QByteArray bytes = stream == "garbage" ? QByteArray(4096, '\x5a')
                                               : streams_.value(stream.section(':', 0, 0));
        if (stream.contains(':'))
            bytes.truncate(stream.section(':', 1).toInt());
        else
            bytes.truncate(65536); // FLAC metadata has padding
        _audio_format created {};
        created.sampleRate = 1;
        Decoder d(AUDIODECOD_Create(&created, config.toUtf8().constData()));
        QVERIFY(d);
        QCOMPARE(created.sampleRate, 0); // cleared until probed
        int32_t length = bytes.size();
        const int32_t ok = AUDIODECOD_ProbeStream(d.get(), bytes.constData(), &length);
        _audio_format format {};
        QCOMPARE(AUDIODECOD_GetAudioFormat(d.get(), &format), ok);
        if (rate == 0) {
            QCOMPARE(ok, 0);
            QVERIFY(*BLERROR_LastMessage());
            QCOMPARE(AUDIOCODEC_GetMaxSamplesPerFrame(d.get()), 0);
            return;
        }
        QCOMPARE(ok, 1);
        QCOMPARE(format.sampleRate, rate);
        QCOMPARE(int(format.numChannels), channels);
        QCOMPARE(created.sampleRate, rate);
        QCOMPARE(format.container, 0u);
        // The header ends where the next frame's sync word starts.
        QVERIFY(length > 4 && length + 2 <= bytes.size());
        QCOMPARE(uint8_t(bytes[length]), uint8_t(sync[0]));
        QCOMPARE(uint8_t(bytes[length + 1]) & 0xF0, uint8_t(sync[1]));
        const int lo = AUDIOCODEC_GetMinSamplesPerFrame(d.get());
        const int hi = AUDIOCODEC_GetMaxSamplesPerFrame(d.get());
        if (minSamples >= 0) {
            QCOMPARE(lo, minSamples);
            QCOMPARE(hi, maxSamples);
        }
        QVERIFY(lo > 0 && lo <= hi);
        QVERIFY(AUDIOCODEC_GetMinStreamBytes(d.get()) > 0);
        QVERIFY(AUDIOCODEC_GetMinStreamBytes(d.get()) <= AUDIOCODEC_GetMaxStreamBytes(d.get()));
        if (stream == "aac") // one ADTS frame lies within the codec's bounds
            QVERIFY(length <= AUDIOCODEC_GetMaxStreamBytes(d.get()));
    }

    void decode_data()
    {
        QTest::addColumn<QString>("codec");
        QTest::addColumn<int>("chunk");
        QTest::addColumn<int>("rate"); // of the signal
        QTest::addColumn<int>("channels");

        QTest::newRow("aac 37") << "aac" << 37 << 44100 << 1;
        QTest::newRow("aac 1") << "aac" << 1 << 44100 << 1;
        QTest::newRow("aac 37 to 48k stereo") << "aac" << 37 << 48000 << 2;
        QTest::newRow("mp3 37") << "mp3" << 37 << 48000 << 2;
        QTest::newRow("mp3 1") << "mp3" << 1 << 48000 << 2;
        QTest::newRow("mp3 to mono") << "mp3" << 1000 << 48000 << 1;
        QTest::newRow("flac 37") << "flac" << 37 << 22050 << 1;
        QTest::newRow("flac 3 to 16 kHz") << "flac" << 3 << 16000 << 1;
    }

    void decode()
    {
        QFETCH(QString, codec);
        QFETCH(int, chunk);
        QFETCH(int, rate);
        QFETCH(int, channels);
        const QByteArray stream = streams_.value(codec);
        const QByteArray config = codec.toUtf8();

        Signal whole = newSignal(rate, channels), pieces = newSignal(rate, channels);
        QVERIFY(decodeInto(whole.get(), stream, config, 0));
        QVERIFY(decodeInto(pieces.get(), stream, config, chunk));
        QCOMPARE(allSamples(pieces.get()), allSamples(whole.get()));

        // Every frame of the stream, the last included: whole ADTS frames, FLAC's exact 2 s,
        // MPEG's 2 s plus the encoder's priming and padding.
        const int64_t n = AUDIOSIGNAL_NumSamples(whole.get());
        const double expected = codec == "aac" ? adtsFrames(stream) * rate / 44100.0
            : codec == "flac"                  ? 2.0 * rate
                                               : -1.0;
        if (expected > 0)
            QVERIFY2(std::abs(n - expected) <= 2, qPrintable(QString::number(n)));
        QVERIFY2(n >= 2 * rate && n <= 2 * rate + rate / 10, qPrintable(QString::number(n)));
        // Every channel carries the sine at amplitude 1/8 (RMS 0.0884) in the middle second.
        for (int c = 0; c < channels; ++c) {
            const double rms = AUDIOSIGNAL_GetChannelTotalRMS(whole.get(), c, rate / 2, rate, 1);
            QVERIFY2(
                std::abs(rms - 0.125 / std::sqrt(2.0)) < 0.005, qPrintable(QString::number(rms)));
        }
    }

    void closeFlushes_data()
    {
        QTest::addColumn<QString>("codec");
        QTest::addColumn<int>("rate"); // of the signal
        QTest::addColumn<bool>("holdsTail"); // frames only come out at the end
        QTest::newRow("aac") << "aac" << 44100 << false;
        QTest::newRow("aac resampled") << "aac" << 48000 << true;
        QTest::newRow("mp3") << "mp3" << 48000 << false;
        QTest::newRow("flac") << "flac" << 22050 << true; // its parser keeps the last frame
    }

    void closeFlushes()
    {
        QFETCH(QString, codec);
        QFETCH(int, rate);
        QFETCH(bool, holdsTail);
        const QByteArray stream = streams_.value(codec);
        Signal reference = newSignal(rate, 1);
        QVERIFY(decodeInto(reference.get(), stream, codec.toUtf8(), 0));

        Signal s = newSignal(rate, 1);
        Decoder d(AUDIODECOD_Create(nullptr, codec.toUtf8()));
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(s.get(), 0, d.get());
        const int64_t got
            = AUDIOSIGNAL_AppendBitStreamToPipe(pipe, stream.constData(), stream.size());
        QCOMPARE(got, AUDIOSIGNAL_NumSamples(s.get()));
        QCOMPARE(AUDIOSIGNAL_PipePosition(pipe), got);
        QVERIFY(got > 0);
        QCOMPARE(got < AUDIOSIGNAL_NumSamples(reference.get()), holdsTail);
        int32_t closed = 0;
        std::thread closer([&] { closed = AUDIOSIGNAL_ClosePipe(pipe); });
        closer.join();
        QCOMPARE(closed, 1);
        QCOMPARE(AUDIOSIGNAL_NumSamples(s.get()), AUDIOSIGNAL_NumSamples(reference.get()));
    }

    void samples_data()
    {
        QTest::addColumn<int>("bits");
        QTest::addColumn<int>("initial"); // frames of 0.5 already in the signal
        QTest::addColumn<int>("start");
        QTest::addColumn<QString>("ops"); // a = append, o = overlap, then the frame count
        QTest::addColumn<int>("expectedStart");

        QTest::newRow("append to empty") << 32 << 0 << 0 << "a5" << 0;
        QTest::newRow("append inserts in the middle") << 32 << 10 << 4 << "a3 a2" << 4;
        QTest::newRow("overlap inside") << 32 << 10 << 2 << "o4" << 2;
        QTest::newRow("overlap grows the signal") << 32 << 10 << 7 << "o6 o4" << 7;
        QTest::newRow("overlap then append") << 32 << 6 << 0 << "o3 a3 o5" << 0;
        QTest::newRow("start past the end clamps") << 32 << 4 << 99 << "o3" << 4;
        QTest::newRow("negative start clamps") << 32 << 4 << -5 << "a2 o4" << 0;
        QTest::newRow("16-bit overlap") << 16 << 8 << 3 << "o2 o9 a1" << 3;
        QTest::newRow("across blocks") << 32 << 70000 << 65530 << "o20 a70000 o10" << 65530;
    }

    void samples()
    {
        QFETCH(int, bits);
        QFETCH(int, initial);
        QFETCH(int, start);
        QFETCH(QString, ops);
        QFETCH(int, expectedStart);
        const int ch = 2, rate = 8000;

        Signal s = newSignal(rate, ch, bits);
        std::vector<float> model(size_t(initial * ch), 0.5f);
        AUDIOSIGNAL_AppendSamples(s.get(), model.data(), initial);
        // A duplicate shares the blocks: overlapping must not reach into it.
        Signal copy(AUDIOSIGNAL_DuplicateEx(s.get(), 0));
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(s.get(), start, nullptr);
        QCOMPARE(AUDIOSIGNAL_PipeStartPosition(pipe), int64_t(expectedStart));
        int64_t pos = expectedStart, total = 0;
        int k = 0;
        for (const QString& op : ops.split(' ')) {
            const int64_t count = op.mid(1).toLongLong();
            std::vector<float> data(size_t(count * ch));
            for (float& v : data)
                v = float((++k % 7) - 3) / 16.0f; // exact in 16 bits
            const bool add = op[0] == 'o';
            const int64_t r = add ? AUDIOSIGNAL_OverlapToPipe(pipe, data.data(), count)
                                  : AUDIOSIGNAL_AppendToPipe(pipe, data.data(), count);
            QCOMPARE(r, count);
            if (add) {
                model.resize(std::max(model.size(), size_t((pos + count) * ch)), 0.0f);
                for (size_t i = 0; i < data.size(); ++i)
                    model[size_t(pos * ch) + i] += data[i];
            } else {
                model.insert(model.begin() + pos * ch, data.begin(), data.end());
            }
            pos += count;
            total += count;
            QCOMPARE(AUDIOSIGNAL_PipePosition(pipe), pos);
        }
        QCOMPARE(AUDIOSIGNAL_PipeDuration(pipe), double(total) / rate);
        QCOMPARE(AUDIOSIGNAL_ClosePipe(pipe), 1);
        QCOMPARE(allSamples(s.get()), model);
        QCOMPARE(allSamples(copy.get()), std::vector<float>(size_t(initial * ch), 0.5f));
    }

    void nullHandles()
    {
        QVERIFY(!AUDIODECOD_Create(nullptr, "vorbis-ish"));
        QVERIFY(QByteArray(BLERROR_LastMessage()).contains("vorbis-ish"));
        int32_t length = 4;
        QCOMPARE(AUDIODECOD_ProbeStream(nullptr, "abcd", &length), 0);
        QCOMPARE(AUDIODECOD_GetAudioFormat(nullptr, nullptr), 0);
        QCOMPARE(AUDIOCODEC_GetMinSamplesPerFrame(nullptr), 0);
        QCOMPARE(AUDIOCODEC_GetMaxStreamBytes(nullptr), 0);
        AUDIODECOD_Destroy(nullptr);
        QVERIFY(!AUDIOSIGNAL_CreatePipeEx(nullptr, 0, nullptr));
        const float x[2] = {0, 0};
        QCOMPARE(AUDIOSIGNAL_AppendToPipe(nullptr, x, 1), int64_t(0));
        QCOMPARE(AUDIOSIGNAL_OverlapBitStreamToPipe(nullptr, "x", 1), int64_t(0));
        QCOMPARE(AUDIOSIGNAL_PipeDuration(nullptr), 0.0);
        QCOMPARE(AUDIOSIGNAL_PipePosition(nullptr), int64_t(0));
        QCOMPARE(AUDIOSIGNAL_ClosePipe(nullptr), 0);
        // Without a decoder a pipe takes samples only.
        Signal s = newSignal(8000, 2);
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(s.get(), 0, nullptr);
        QCOMPARE(AUDIOSIGNAL_AppendBitStreamToPipe(pipe, "abc", 3), int64_t(-1));
        QCOMPARE(AUDIOSIGNAL_AppendToPipe(pipe, nullptr, 1), int64_t(-1));
        QCOMPARE(AUDIOSIGNAL_ClosePipe(pipe), 1);
        QCOMPARE(AUDIOSIGNAL_NumSamples(s.get()), int64_t(0));
    }

    void feedWhileReading()
    {
        // The writer appends a known ramp in small runs; the reader checks the written part.
        const int64_t frames = 400000, run = 97;
        const auto value = [](int64_t f) { return float(f % 1000) / 1000.0f; };
        Signal s = newSignal(16000, 1);
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(s.get(), 0, nullptr);
        std::atomic<bool> done {false};
        std::atomic<int64_t> mismatches {0}, reads {0};
        std::thread reader([&] {
            std::vector<float> buf(512);
            while (!done) {
                const int64_t n = AUDIOSIGNAL_NumSamples(s.get());
                const int64_t from = std::max<int64_t>(0, n - 512);
                const int64_t got = AUDIOSIGNAL_GetSamplesEx(s.get(), from, buf.data(), 512, 0);
                for (int64_t i = 0; i < got; ++i)
                    mismatches += buf[size_t(i)] != value(from + i);
                ++reads;
            }
        });
        while (reads == 0)
            std::this_thread::yield();
        std::vector<float> data(run);
        for (int64_t f = 0; f < frames; f += run) {
            const int64_t n = std::min(run, frames - f);
            for (int64_t i = 0; i < n; ++i)
                data[size_t(i)] = value(f + i);
            AUDIOSIGNAL_AppendToPipe(pipe, data.data(), n);
        }
        done = true;
        reader.join();
        QCOMPARE(AUDIOSIGNAL_ClosePipe(pipe), 1);
        QCOMPARE(mismatches.load(), int64_t(0));
        QVERIFY(reads.load() > 0);
        QCOMPARE(AUDIOSIGNAL_NumSamples(s.get()), frames);
    }
};

QTEST_GUILESS_MAIN(TestAudioPipe)
#include "tst_audiopipe.moc"
