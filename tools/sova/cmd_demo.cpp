// sova demo: writes a test signal in every format the engine writes, reads each back and
// reports the size and how faithfully it came back.
#include "analysis.h"
#include "audiopaths.h"
#include "command.h"
#include "plot.h"
#include "streamtools.h"

#include <QDir>
#include <QFileInfo>
#include <QSova>
#include <QSovaAudioEffect>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>
#include <QSovaAudioSignal>
#include <QSovaUtils>
#include <QSovaVad>
#include <QTemporaryDir>
#include <QVector>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace {

constexpr int kRate = 48000; // Opus takes 48 kHz only; every other format takes it too
constexpr int kChannels = 2;
constexpr int kSeconds = 3;

struct DemoFormat
{
    const char* label;
    const char* format; // format string for writing
    const char* extension;
    bool lossless;
    const char* readFormat; // format string for reading back, "" to detect
};

const DemoFormat kFormats[] = {
    {"WAV 16-bit", "wav", "wav", true, ""},
    {"WAV 24-bit", "wav[nbits=24]", "wav", true, ""},
    {"WAV float", "wav[codec=float]", "wav", true, ""},
    {"WAV u-law", "wav[codec=ulaw]", "wav", false, ""},
    {"WAV A-law", "wav[codec=alaw]", "wav", false, ""},
    {"WAV IMA ADPCM", "wav[codec=ima-adpcm]", "wav", false, ""},
    {"WAV MS ADPCM", "wav[codec=ms-adpcm]", "wav", false, ""},
    {"RF64", "rf64", "rf64", true, ""},
    {"Wave64", "w64", "w64", true, ""},
    {"AIFF", "aiff", "aiff", true, ""},
    {"AIFF 24-bit", "aiff[nbits=24]", "aiff", true, ""},
    {"CAF", "caf", "caf", true, ""},
    {"CAF ALAC", "caf[codec=alac]", "caf", true, ""},
    {"AU", "au", "au", true, ""},
    {"VOC", "voc", "voc", true, ""},
    {"Raw", "raw[sr=48000,nch=2]", "raw", true, "raw[sr=48000,nch=2]"},
    {"FLAC", "flac", "flac", true, ""},
    {"FLAC 24-bit", "flac[nbits=24]", "flac", true, ""},
    {"M4A ALAC", "m4a[codec=alac]", "m4a", true, ""},
    {"WavPack", "wv", "wv", true, ""},
    {"True Audio", "tta", "tta", true, ""},
    {"Matroska FLAC", "mka", "mka", true, ""},
    {"Ogg Vorbis", "ogg", "ogg", false, ""},
    {"Ogg Opus", "opus", "opus", false, ""},
    {"MP3 192 kbps", "mp3[kbps=192]", "mp3", false, ""},
    {"MP2", "mp2", "mp2", false, ""},
    {"M4A AAC", "m4a", "m4a", false, ""},
    {"WMA", "wma", "wma", false, ""},
    {"AC-3", "ac3", "ac3", false, ""},
};

// Tones, a sweep and noise bursts, on the 16-bit grid so that lossless formats can give it
// back exactly.
QVector<float> testSignal()
{
    const int frames = kRate * kSeconds;
    QVector<float> samples(frames * kChannels);
    quint32 noise = 0x12345678u;
    auto nextNoise = [&noise] {
        noise = noise * 1664525u + 1013904223u;
        return float(int(noise >> 16) - 32768) / 32768.0f;
    };
    double phase = 0.0;
    for (int i = 0; i < frames; ++i) {
        const double t = double(i) / kRate;
        double left = 0.0, right = 0.0;
        if (t < 1.0) {
            left = 0.4 * std::sin(2.0 * M_PI * 440.0 * t);
            right = 0.4 * std::sin(2.0 * M_PI * 660.0 * t);
        } else if (t < 2.0) {
            // Exponential sweep from 50 Hz to 16 kHz.
            const double f = 50.0 * std::pow(16000.0 / 50.0, t - 1.0);
            phase += 2.0 * M_PI * f / kRate;
            left = 0.4 * std::sin(phase);
            right = -0.3 * std::sin(phase);
        } else if (std::fmod(t - 2.0, 0.2) < 0.05) {
            left = 0.3 * nextNoise();
            right = 0.3 * nextNoise();
        }
        // Short fades at the segment edges keep the lossy coders from ringing on clicks.
        const double edge = std::min(std::fmod(t, 1.0), 1.0 - std::fmod(t, 1.0));
        const double fade = std::min(1.0, edge / 0.005);
        samples[i * 2] = float(std::lround(left * fade * 32767.0)) / 32768.0f;
        samples[i * 2 + 1] = float(std::lround(right * fade * 32767.0)) / 32768.0f;
    }
    return samples;
}

QString withoutDither(const QString& format)
{
    const int bracket = format.indexOf(QLatin1Char(']'));
    if (bracket < 0)
        return format + QStringLiteral("[dither=none]");
    return format.left(bracket) + QStringLiteral(",dither=none") + format.mid(bracket);
}

// The lag (in frames) at which `got` best matches `want`, searched in [-maxLag, maxLag] on a
// window of the left channel: lossy coders add a delay that their decoders may not remove.
// The window is the first noise burst: a tone would match at every period.
int bestLag(const QVector<float>& want, const QVector<float>& got, int maxLag)
{
    const int window = kRate / 20, start = 2 * kRate;
    const int gotFrames = got.size() / kChannels;
    double best = -1e300;
    int bestLag = 0;
    for (int lag = -maxLag; lag <= maxLag; ++lag) {
        double sum = 0.0;
        for (int i = start; i < start + window; ++i) {
            const int j = i + lag;
            if (j >= 0 && j < gotFrames)
                sum += double(want[i * kChannels]) * got[j * kChannels];
        }
        if (sum > best) {
            best = sum;
            bestLag = lag;
        }
    }
    return bestLag;
}

struct Comparison
{
    qint64 maxErrorLsb = 0;
    double snrDb = 0.0;
    bool sameLength = false;
};

Comparison compare(const QVector<float>& want, const QVector<float>& got, bool lossless)
{
    Comparison c;
    const int wantFrames = want.size() / kChannels, gotFrames = got.size() / kChannels;
    c.sameLength = wantFrames == gotFrames;
    const int lag = lossless ? 0 : bestLag(want, got, 3000);
    double signal = 0.0, noise = 0.0;
    for (int i = 0; i < wantFrames; ++i) {
        const int j = i + lag;
        for (int ch = 0; ch < kChannels; ++ch) {
            const double w = want[i * kChannels + ch];
            const double g = j >= 0 && j < gotFrames ? got[j * kChannels + ch] : 0.0;
            signal += w * w;
            noise += (w - g) * (w - g);
            c.maxErrorLsb
                = std::max(c.maxErrorLsb, qint64(std::llround(std::fabs(w - g) * 32768.0)));
        }
    }
    c.snrDb = noise > 0.0 ? 10.0 * std::log10(signal / noise) : 999.0;
    return c;
}

bool writeFile(const QString& path, const DemoFormat& f, const QVector<float>& samples)
{
    QSovaAudioFile file(path, withoutDither(QString::fromLatin1(f.format)),
        QSovaAudioFormat(kRate, kChannels, 16, QString(), QString()));
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const qint64 bytes = qint64(samples.size()) * qint64(sizeof(float));
    const bool ok = file.write(reinterpret_cast<const char*>(samples.constData()), bytes) == bytes;
    file.close();
    return ok && QFileInfo::exists(path);
}

bool readFile(const QString& path, const DemoFormat& f, QVector<float>& samples, QString& codec)
{
    QSovaAudioFile file(path, QString::fromLatin1(f.readFormat), QSovaAudioFile::IEEEFloat);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    codec = file.format().audioCodecLabel();
    if (file.numChannels() != kChannels)
        return false;
    QVector<float> block(8192 * kChannels);
    samples.clear();
    for (;;) {
        const qint64 got = file.read(
            reinterpret_cast<char*>(block.data()), qint64(block.size()) * qint64(sizeof(float)));
        if (got < 0)
            return false;
        if (got == 0)
            break;
        samples.append(block.mid(0, int(got / qint64(sizeof(float)))));
    }
    return true;
}

// The average spectrum of the left channel as demo-spectrum.csv and demo-spectrum.png.
bool writeSpectrum(const QString& dir, const QVector<float>& samples)
{
    QSovaAudioSignal signal(QSovaAudioFormat(kRate, kChannels, 16));
    QVector<float> interleaved = samples;
    signal.appendSamples(interleaved.data(), qint64(interleaved.size() / kChannels));
    const SpectrumSettings settings;
    QStringList unused;
    const AveragedSpectrum spectrum
        = averageSpectrum(signal, clipSelections({}, signal.duration(), &unused), {0}, settings);
    const QString csv = QDir(dir).filePath(QStringLiteral("demo-spectrum.csv"));
    const QString png = QDir(dir).filePath(QStringLiteral("demo-spectrum.png"));
    SpectrumChart chart;
    chart.title = QStringLiteral("Test signal, left channel: %1-point FFT, %2 frames")
                      .arg(settings.fftLength)
                      .arg(spectrum.frames);
    chart.sampleRate = kRate;
    chart.fftLength = settings.fftLength;
    chart.names = QStringList {QStringLiteral("left")};
    chart.levels = spectrum.levels;
    QString error;
    out() << Qt::endl;
    if (spectrum.frames == 0
        || !saveBytes(csv,
            spectrumCsv({QStringLiteral("left_db")}, spectrum.levels, kRate, settings.fftLength),
            &error)
        || !saveBytes(png, spectrumPng(chart), &error)) {
        out() << "Spectrum of the left channel not written: "
              << (error.isEmpty() ? QSova::lastErrorString() : error) << Qt::endl;
        return false;
    }
    out() << "Spectrum of the left channel (" << spectrum.frames
          << " frames averaged) written as demo-spectrum.csv and demo-spectrum.png" << Qt::endl;
    return true;
}

// The test signal through an effect chain, written as demo-fx.wav, and the share of it that
// the voice activity detector calls speech. One line each.
bool writeEffect(const QString& dir, const QVector<float>& samples)
{
    const QString chain = QStringLiteral("gain[db=-6];lowpass[fc=4000]");
    QSovaAudioEffect effect(chain, QSovaAudioFormat(kRate, kChannels, 16));
    const QString path = QDir(dir).filePath(QStringLiteral("demo-fx.wav"));
    QVector<float> processed;
    bool ok = effect.isValid();
    if (ok) {
        const int outChannels = effect.outputFormat().numChannels();
        EffectRunner runner(effect, kChannels, outChannels);
        const EffectRunner::Sink keep = [&](const float* frames, qint64 count) {
            processed.append(QVector<float>(frames, frames + count * outChannels));
            return true;
        };
        ok = runner.push(samples.constData(), samples.size() / kChannels, keep)
            && runner.flush(keep);
        QSovaAudioFile file(path, QStringLiteral("wav"), QSovaAudioFormat(kRate, outChannels, 16));
        ok = ok && file.open(QIODevice::WriteOnly);
        if (ok) {
            file.writeSamples(processed);
            file.close();
            ok = QFileInfo::exists(path);
        }
    }
    if (!ok) {
        out() << "Effect chain " << chain << " not applied: " << QSova::lastErrorString()
              << Qt::endl;
        return false;
    }
    out() << "Effect chain " << chain << " applied, written as demo-fx.wav" << Qt::endl;

    const int outChannels = effect.outputFormat().numChannels();
    QSova::Vad vad(QString(), QSovaAudioFormat(kRate, 1, 16));
    if (vad.frameNumSamples() <= 0) {
        out() << "Voice activity not measured: " << QSova::lastErrorString() << Qt::endl;
        return false;
    }
    SpeechTracker tracker(vad, kRate);
    const qint64 frames = processed.size() / outChannels;
    const QVector<float> mono = monoMix(processed.constData(), frames, outChannels);
    tracker.feed(mono.constData(), frames);
    tracker.finish();
    out() << "Voice activity on demo-fx.wav: "
          << QString::number(tracker.speechFraction() * 100.0, 'f', 1) << "% speech in "
          << tracker.segments().size() << " segments" << Qt::endl;
    return true;
}

int runDemo(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("dir"),
        QStringLiteral("Folder to keep the files in (default: a "
                       "temporary folder, removed afterwards)."),
        QStringLiteral("[DIR]"));
    const int status = parseCommand(demoCommand, parser, arguments, 0, QString(), 1);
    if (status >= 0)
        return status;
    QTemporaryDir temporary;
    QString dir;
    if (parser.positionalArguments().isEmpty()) {
        if (!temporary.isValid())
            return fail("demo", QStringLiteral("cannot create a temporary folder"));
        dir = temporary.path();
    } else {
        dir = parser.positionalArguments().at(0);
        const int usage = checkPaths("demo", {dir});
        if (usage >= 0)
            return usage;
        if (!QDir().mkpath(dir))
            return fail("demo",
                QStringLiteral("cannot create the folder '%1': %2")
                    .arg(dir,
                        QFileInfo(dir).exists() ? QStringLiteral("a file is in the way")
                                                : QString::fromLocal8Bit(strerror(errno))));
    }

    const QVector<float> signal = testSignal();
    out() << "Test signal: " << kSeconds << " s, " << kRate << " Hz, stereo: tones, a sweep, "
          << "noise bursts" << Qt::endl
          << Qt::endl
          << QStringLiteral("%1 %2 %3  %4")
                 .arg(QStringLiteral("format"), -16)
                 .arg(QStringLiteral("codec"), -24)
                 .arg(QStringLiteral("size"), 10)
                 .arg(QStringLiteral("round trip"))
          << Qt::endl;
    int written = 0, failures = 0;
    int index = 0;
    for (const DemoFormat& f : kFormats) {
        const QString path = QDir(dir).filePath(QStringLiteral("demo-%1.%2")
                                                    .arg(++index, 2, 10, QLatin1Char('0'))
                                                    .arg(QString::fromLatin1(f.extension)));
        QString verdict, codec;
        QVector<float> back;
        if (!writeFile(path, f, signal)) {
            verdict = QStringLiteral("not written: ") + QSova::lastErrorString();
            ++failures;
        } else if (!readFile(path, f, back, codec)) {
            verdict = QStringLiteral("not read back: ") + QSova::lastErrorString();
            ++failures;
        } else {
            ++written;
            const Comparison c = compare(signal, back, f.lossless);
            if (f.lossless && c.maxErrorLsb == 0 && c.sameLength) {
                verdict = QStringLiteral("exact");
            } else if (f.lossless) {
                verdict = QStringLiteral("NOT EXACT: max error %1 LSB, %2 of %3 frames")
                              .arg(c.maxErrorLsb)
                              .arg(back.size() / kChannels)
                              .arg(signal.size() / kChannels);
                ++failures;
            } else {
                verdict = QStringLiteral("SNR %1 dB").arg(c.snrDb, 0, 'f', 1);
            }
        }
        out() << QStringLiteral("%1 %2 %3  %4")
                     .arg(QString::fromLatin1(f.label), -16)
                     .arg(codec.left(24), -24)
                     .arg(QFileInfo::exists(path)
                             ? QSova::formattedDataSize(QFileInfo(path).size(), 1)
                             : QStringLiteral("-"),
                         10)
                     .arg(verdict)
              << Qt::endl;
    }
    if (!writeSpectrum(dir, signal))
        ++failures;
    if (!writeEffect(dir, signal))
        ++failures;

    out() << Qt::endl << written << " formats written and read back";
    if (!parser.positionalArguments().isEmpty())
        out() << ", kept in " << QDir(dir).absolutePath();
    out() << "." << Qt::endl;
    return failures ? ExitFailure : ExitOk;
}

} // namespace

const Command demoCommand = {"demo",
    "Write a test signal in every format and check what comes back", "[DIR]",
    "Generates 3 s of stereo (tones, a sweep, noise bursts), writes it in each format the engine\n"
    "writes, reads each file back and prints the format, codec, file size and round trip:\n"
    "'exact' for lossless formats, the signal-to-noise ratio for lossy ones. The exit status is\n"
    "1 when a format fails or a lossless one does not come back exactly.",
    runDemo};
