// The engine's format catalogue against the engine itself: every writer tag writes what its
// mask accepts and reads it back, every reader tag reads a file of its encoding, and the
// records hang together (containers, dialog filters, directions).
#include <sova/audio.h>
#include <sova/blerror.h>

#include <QtTest>

#include <cmath>
#include <cstring>
#include <vector>

// libvorbisenc loses one setup block per 6-channel encoder at 44.1 to 64 kHz, which the
// writers probe writes; it does so for every such file written, not only here.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions()
{
    return "leak:vorbis_encode_setup_init\n";
}

namespace {

struct Rate { uint32_t bit; int hz; };
const Rate kRates[] = {
    {AUDIOCAP_RATE_192000, 192000}, {AUDIOCAP_RATE_96000, 96000}, {AUDIOCAP_RATE_48000, 48000},
    {AUDIOCAP_RATE_44100, 44100}, {AUDIOCAP_RATE_32000, 32000}, {AUDIOCAP_RATE_24000, 24000},
    {AUDIOCAP_RATE_22050, 22050}, {AUDIOCAP_RATE_16000, 16000}, {AUDIOCAP_RATE_12000, 12000},
    {AUDIOCAP_RATE_11025, 11025}, {AUDIOCAP_RATE_8000, 8000}, {AUDIOCAP_RATE_6000, 6000},
};
constexpr int kOddRate = 7001; // only writers of any rate take it

// A resolution as the caller's format record asks for it.
struct Resolution { uint32_t bit; const char* label; int16_t bits; uint32_t coder; };
const Resolution kResolutions[] = {
    {AUDIOCAP_BITS8, "u8", 8, AUDIO_CODEC_PCM_U8},
    {AUDIOCAP_BITS8S, "s8", 8, AUDIO_CODEC_PCM_S8},
    {AUDIOCAP_BITS16, "16", 16, AUDIO_CODEC_PCM16},
    {AUDIOCAP_BITS24, "24", 24, AUDIO_CODEC_PCM24},
    {AUDIOCAP_BITS32, "32", 32, AUDIO_CODEC_PCM32},
    {AUDIOCAP_FLOAT32, "float", 32, AUDIO_CODEC_FLOAT32},
};
constexpr uint32_t kResolutionBits = AUDIOCAP_BITS8 | AUDIOCAP_BITS8S | AUDIOCAP_BITS16
    | AUDIOCAP_BITS24 | AUDIOCAP_BITS32 | AUDIOCAP_FLOAT32;

bool rateAccepted(uint32_t caps, int hz)
{
    if (caps & AUDIOCAP_RATE_ANY)
        return hz >= 10 && hz <= 500000;
    for (const Rate& r : kRates)
        if (r.hz == hz)
            return (caps & r.bit) != 0;
    return false;
}

bool channelsAccepted(uint32_t caps, int n)
{
    if (n == 1)
        return caps & AUDIOCAP_MONO;
    if (n == 2)
        return caps & AUDIOCAP_STEREO;
    if (n == 6 && (caps & AUDIOCAP_51))
        return true;
    return n >= 3 && n <= 8 && (caps & AUDIOCAP_MULTI);
}

int popCount(uint32_t v)
{
    int n = 0;
    for (; v; v &= v - 1)
        ++n;
    return n;
}

const _sAUDIOFormatTag* findTag(const QString& name, const _sAUDIOFormatFilter** owner)
{
    for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i) {
        const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(i);
        for (int32_t t = 0; t < f->tagCount; ++t)
            if (name == QLatin1String(f->tags[t].name)) {
                *owner = f;
                return &f->tags[t];
            }
    }
    return nullptr;
}

QString firstExtension(const _sAUDIOFormatFilter* f)
{
    return QString::fromLatin1(f->extensions).section(QLatin1Char('|'), 0, 0);
}

// Headerless files need their rate, channels and resolution to be read.
QByteArray readFormat(const _sAUDIOFormatFilter* f, const _sAUDIOFormatTag* tag,
                      const _audio_format& written)
{
    QByteArray name = tag->name;
    if (!(f->flags & AUDIOFILTER_RAW))
        return name;
    const QByteArray options = QByteArray("sr=") + QByteArray::number(written.sampleRate)
        + ",nch=" + QByteArray::number(written.numChannels)
        + ",nbits=" + QByteArray::number(written.bitsPerSample);
    if (name.endsWith(']'))
        return name.left(name.size() - 1) + "," + options + "]";
    return name + "[" + options + "]";
}

bool isByteCoder(uint32_t coder)
{
    const uint32_t c = coder & AUDIO_CODEC_MASK;
    return c == AUDIO_CODEC_PCM_U8 || c == AUDIO_CODEC_PCM_S8;
}

struct Outcome {
    bool ok = false;
    QString why;
};

// Writes 0.1 s at the given format through the tag and reads it back.
Outcome roundTrip(const QString& dir, const _sAUDIOFormatFilter* f, const _sAUDIOFormatTag* tag,
                  int rate, int channels, const Resolution* res)
{
    Outcome out;
    const QString path = dir + QStringLiteral("/probe.") + firstExtension(f);
    QFile::remove(path);
    _audio_format fmt = AUDIO_FormatEx(rate, int16_t(channels), res ? res->bits : 16);
    if (res)
        fmt.coder = res->coder;
    AUDIOFILE* w = AUDIO_CreateFileEx2(path.toUtf8(), tag->name, &fmt, -1, -1, 0, nullptr, 0);
    if (!w) {
        out.why = QStringLiteral("create: ") + QString::fromUtf8(BLERROR_LastMessage());
        return out;
    }
    const int frames = rate / 10;
    std::vector<float> signal(size_t(frames) * size_t(channels));
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            signal[size_t(i) * channels + c] = float(0.5 * std::sin(6.2831853 * 440.0 * i / rate));
    const bool wrote = AUDIO_WriteIEEEFloat(w, signal.data(), frames) == frames;
    _audio_format written {};
    AUDIO_GetAudioFileFormat(w, &written);
    if (AUDIO_CloseFile(w) != 1 || !wrote) {
        out.why = QStringLiteral("write: ") + QString::fromUtf8(BLERROR_LastMessage());
        return out;
    }
    AUDIOFILE* r = AUDIO_LoadFileEx2(path.toUtf8(), readFormat(f, tag, written), 0, 0, 0);
    if (!r) {
        out.why = QStringLiteral("read: ") + QString::fromUtf8(BLERROR_LastMessage());
        return out;
    }
    _audio_format got {};
    AUDIO_GetAudioFileFormat(r, &got);
    std::vector<float> back(size_t(frames) * size_t(channels));
    const int64_t n = AUDIO_ReadIEEEFloat(r, back.data(), frames);
    AUDIO_CloseFile(r);
    if (got.sampleRate != rate || got.numChannels != channels) {
        out.why = QStringLiteral("read back %1 Hz %2 ch").arg(got.sampleRate).arg(got.numChannels);
        return out;
    }
    if (n <= 0) {
        out.why = QStringLiteral("no frames read back");
        return out;
    }
    // A tag of several resolutions must store the one asked for.
    if (res && popCount(tag->capabilities & kResolutionBits) > 1
        && (got.bitsPerSample != res->bits
            || (res->bit == AUDIOCAP_FLOAT32 && (got.coder & AUDIO_CODEC_MASK) != res->coder)
            || (res->bits == 8 && isByteCoder(got.coder) && (got.coder & AUDIO_CODEC_MASK) != res->coder))) {
        out.why = QStringLiteral("stored %1 bits, codec %2").arg(got.bitsPerSample).arg(got.coder);
        return out;
    }
    out.ok = true;
    return out;
}

} // namespace

class TestAudioCatalogue : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(dir_.isValid()); }

    void filters_data();
    void filters();
    void lookups_data();
    void lookups();
    void writers_data();
    void writers();
    void readers_data();
    void readers();

private:
    QTemporaryDir dir_;
};

void TestAudioCatalogue::filters_data()
{
    QTest::addColumn<int>("index");
    QVERIFY(AUDIO_CountFormatFilters() > 0);
    for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i)
        QTest::newRow(AUDIO_GetFormatFilter(i)->name) << int(i);
}

// Each record agrees with itself: its tags live in its container, its dialog filter lists its
// extensions, kind and directions make sense.
void TestAudioCatalogue::filters()
{
    QFETCH(int, index);
    const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(index);
    QVERIFY(f && f->name && f->description && f->extensions && f->mimeType);
    QVERIFY(f->tagCount > 0 && f->tags);
    QCOMPARE(popCount(f->flags & (AUDIOFILTER_AUDIO | AUDIOFILTER_COMPRESSED | AUDIOFILTER_RAW)),
             1);
    QStringList patterns;
    for (const QString& e : QString::fromLatin1(f->extensions).split(QLatin1Char('|')))
        patterns << QStringLiteral("*.") + e;
    QCOMPARE(QString::fromLatin1(f->fileDialogFilter),
             QStringLiteral("%1 (%2)").arg(QLatin1String(f->description), patterns.join(' ')));
    for (int32_t t = 0; t < f->tagCount; ++t) {
        const _sAUDIOFormatTag& tag = f->tags[t];
        QVERIFY2(std::memchr(tag.name, '\0', sizeof tag.name), f->name);
        QVERIFY2(tag.direction & AUDIOTAG_READ, tag.name);
        QCOMPARE(AUDIO_FormatTagContainer(&tag), f->container);
        QVERIFY2(AUDIO_FormatTagAudioCoder(&tag) != 0, tag.name);
        const uint32_t caps = tag.capabilities;
        QVERIFY2(caps & kResolutionBits, tag.name);
        QVERIFY2(caps & (AUDIOCAP_MONO | AUDIOCAP_STEREO | AUDIOCAP_MULTI | AUDIOCAP_51), tag.name);
        if ((tag.direction & AUDIOTAG_WRITE) && f->formatCheck) {
            // A format the tag writes is one the container holds.
            for (const Rate& r : kRates)
                for (int n = 1; n <= 8; ++n)
                    if ((caps & r.bit) && channelsAccepted(caps, n)) {
                        _audio_format fmt = AUDIO_FormatEx(r.hz, int16_t(n), 16);
                        QVERIFY2(f->formatCheck(&fmt),
                                 qPrintable(QStringLiteral("%1 %2 Hz %3 ch")
                                                .arg(QLatin1String(tag.name)).arg(r.hz).arg(n)));
                    }
        }
    }
}

void TestAudioCatalogue::lookups_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<uint>("container");
    QTest::addColumn<uint>("coder");
    QTest::newRow("wav") << "wav" << uint(AUDIO_CONTAINER_WAV) << uint(AUDIO_CODEC_PCM16);
    QTest::newRow("wav ulaw") << "wav[codec=ulaw]" << uint(AUDIO_CONTAINER_WAV)
                              << uint(AUDIO_CODEC_ULAW);
    QTest::newRow("aiff big-endian") << "aiff" << uint(AUDIO_CONTAINER_AIFF)
                                     << uint(AUDIO_CODEC_PCM16 | AUDIO_CODEC_FLAG_BIGENDIAN);
    QTest::newRow("codec alone") << "eac3" << uint(AUDIO_CONTAINER_AC3) << uint(AUDIO_CODEC_EAC3);
    QTest::newRow("m4a default") << "m4a" << uint(AUDIO_CONTAINER_MP4) << uint(AUDIO_CODEC_AAC);
    QTest::newRow("mka opus") << "mka[codec=opus]" << uint(AUDIO_CONTAINER_MKV)
                              << uint(AUDIO_CODEC_OPUS);
    QTest::newRow("unknown") << "nonsense" << 0u << 0u;
    QTest::newRow("bad option") << "wav[nbits=13]" << 0u << 0u;
}

void TestAudioCatalogue::lookups()
{
    QFETCH(QString, tag);
    QFETCH(uint, container);
    QFETCH(uint, coder);
    _sAUDIOFormatTag record {};
    std::strncpy(record.name, tag.toLatin1().constData(), sizeof record.name - 1);
    QCOMPARE(AUDIO_FormatTagContainer(&record), container);
    QCOMPARE(AUDIO_FormatTagAudioCoder(&record), coder);
    QCOMPARE(AUDIO_FormatTagContainer(nullptr), 0u);
    QCOMPARE(AUDIO_FormatTagAudioCoder(nullptr), 0u);
    QVERIFY(!AUDIO_GetFormatFilter(-1));
    QVERIFY(!AUDIO_GetFormatFilter(AUDIO_CountFormatFilters()));
}

void TestAudioCatalogue::writers_data()
{
    QTest::addColumn<QString>("tag");
    for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i) {
        const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(i);
        for (int32_t t = 0; t < f->tagCount; ++t)
            if (f->tags[t].direction & AUDIOTAG_WRITE)
                QTest::newRow(f->tags[t].name) << QString::fromLatin1(f->tags[t].name);
    }
}

// Every accepted rate (mono or stereo), channel count and resolution writes and reads back;
// combinations the mask refuses but the engine handles are listed as warnings.
void TestAudioCatalogue::writers()
{
    QFETCH(QString, tag);
    const _sAUDIOFormatFilter* f = nullptr;
    const _sAUDIOFormatTag* t = findTag(tag, &f);
    QVERIFY(t);
    const uint32_t caps = t->capabilities;
    const int baseChannels = (caps & AUDIOCAP_STEREO) ? 2 : (caps & AUDIOCAP_MONO) ? 1 : 6;
    int baseRate = 0;
    for (int hz : {44100, 48000, 16000, 8000})
        if (!baseRate && rateAccepted(caps, hz))
            baseRate = hz;
    QVERIFY2(baseRate, "no usual rate accepted");
    const Resolution* baseRes = nullptr;
    for (const Resolution& r : kResolutions)
        if (!baseRes && (caps & r.bit))
            baseRes = &r;
    if (caps & AUDIOCAP_BITS16)
        baseRes = &kResolutions[2];

    QStringList failures, narrow;
    auto probe = [&](int rate, int channels, const Resolution* res, bool accepted) {
        const Outcome o = roundTrip(dir_.path(), f, t, rate, channels, res);
        const QString what = QStringLiteral("%1 Hz %2 ch %3").arg(rate).arg(channels)
                                 .arg(QLatin1String(res->label));
        if (accepted && !o.ok)
            failures << what + QStringLiteral(": ") + o.why;
        else if (!accepted && o.ok)
            narrow << what;
    };
    std::vector<int> rates;
    for (const Rate& r : kRates)
        rates.push_back(r.hz);
    rates.push_back(kOddRate);
    for (int hz : rates)
        probe(hz, baseChannels, baseRes, rateAccepted(caps, hz));
    for (int n = 1; n <= 8; ++n)
        if (n != baseChannels)
            probe(baseRate, n, baseRes, channelsAccepted(caps, n));
    // Tags of one resolution take any and convert; the others must store what is asked.
    if (popCount(caps & kResolutionBits) > 1)
        for (const Resolution& r : kResolutions)
            if (&r != baseRes)
                probe(baseRate, baseChannels, &r, (caps & r.bit) != 0);

    if (!narrow.isEmpty())
        qWarning("%s is too narrow: the engine also writes %s", t->name,
                 qPrintable(narrow.join(QStringLiteral(", "))));
    QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QStringLiteral("; "))));
}

void TestAudioCatalogue::readers_data()
{
    QTest::addColumn<QString>("tag");
    for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i) {
        const _sAUDIOFormatFilter* f = AUDIO_GetFormatFilter(i);
        for (int32_t t = 0; t < f->tagCount; ++t)
            QTest::newRow(f->tags[t].name) << QString::fromLatin1(f->tags[t].name);
    }
}

// A file of each reader tag's encoding reads: written by the engine when it writes it, else by
// the ffmpeg tool when it encodes it.
void TestAudioCatalogue::readers()
{
    QFETCH(QString, tag);
    const _sAUDIOFormatFilter* f = nullptr;
    const _sAUDIOFormatTag* t = findTag(tag, &f);
    QVERIFY(t);
    if (t->direction & AUDIOTAG_WRITE) {
        int rate = 0;
        for (int hz : {48000, 44100, 16000, 8000})
            if (!rate && rateAccepted(t->capabilities, hz))
                rate = hz;
        const int channels = (t->capabilities & AUDIOCAP_MONO) ? 1 : 2;
        const Resolution* res = (t->capabilities & AUDIOCAP_BITS16) ? &kResolutions[2]
                                                                   : &kResolutions[5];
        const Outcome o = roundTrip(dir_.path(), f, t, rate, channels, res);
        QVERIFY2(o.ok, qPrintable(o.why));
        return;
    }
    // Encoder arguments of the ffmpeg tool for encodings the engine only reads.
    struct Recipe { const char* tag; QStringList args; };
    const Recipe recipes[] = {
        {"dts", {"-ar", "48000", "-ac", "2", "-c:a", "dca", "-strict", "-2", "-f", "dts"}},
        {"avi", {"-ar", "44100", "-ac", "2", "-c:a", "pcm_s16le", "-f", "avi"}},
        {"wma[codec=wmav1]", {"-c:a", "wmav1", "-f", "asf"}},
    };
    const Recipe* recipe = nullptr;
    for (const Recipe& r : recipes)
        if (tag == QLatin1String(r.tag))
            recipe = &r;
    const QString ffmpeg = QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
    if (!recipe || ffmpeg.isEmpty())
        QSKIP("no encoder at hand for this encoding");
    const QString path = dir_.path() + QStringLiteral("/reader.") + firstExtension(f);
    QProcess p;
    p.start(ffmpeg, QStringList {"-v", "error", "-y", "-f", "lavfi", "-i",
                                 "sine=frequency=440:duration=0.2"}
                        + recipe->args + QStringList {path});
    QVERIFY(p.waitForFinished(20000));
    if (p.exitCode() != 0)
        QSKIP(qPrintable(QStringLiteral("ffmpeg cannot encode it: ")
                         + QString::fromLocal8Bit(p.readAllStandardError())));
    AUDIOFILE* r = AUDIO_LoadFileEx2(path.toUtf8(), t->name, 0, 0, 0);
    QVERIFY2(r, BLERROR_LastMessage());
    _audio_format got {};
    AUDIO_GetAudioFileFormat(r, &got);
    std::vector<float> buffer(4096 * 8);
    const int64_t n = AUDIO_ReadIEEEFloat(r, buffer.data(), 4096);
    AUDIO_CloseFile(r);
    QCOMPARE(got.container, f->container);
    QVERIFY(n > 0);
}

QTEST_GUILESS_MAIN(TestAudioCatalogue)
#include "tst_audiocatalogue.moc"
