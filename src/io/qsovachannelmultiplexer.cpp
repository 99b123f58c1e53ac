#include "qsovachannelmultiplexer.h"

#include "qsova.h"
#include "qsovaaudiofile.h"
#include "qsovaaudioformat.h"
#include "qsovaoptions.h"

#include <QDebug>
#include <QVector>

#include <algorithm>

namespace {

constexpr int kMaxChannels = 8;
constexpr int kBlockSamples = 8192; // per channel and pass: 32768 bytes of floats
constexpr qint64 kBlockBytes = kBlockSamples * qint64(sizeof(float));

void reportOpening(const QString& name)
{
    if (name.isEmpty())
        qDebug() << "QSova::AudioFileMultiplexer: Error opening file";
    else
        qDebug() << "QSova::AudioFileMultiplexer: Error opening file '" << name << "'!";
}

void reportCreating(const QString& name)
{
    if (name.isEmpty())
        qDebug() << "QSova::AudioFileMultiplexer: Error creating file";
    else
        qDebug() << "QSova::AudioFileMultiplexer: Error creating file '" << name << "'!";
}

// Closes and deletes every device of the list (null entries are skipped).
void release(const QVector<QSovaAudioFile*>& devices)
{
    for (QSovaAudioFile* device : devices) {
        if (device)
            device->close();
        delete device;
    }
}

// Opens name for reading as mono at rate; rate 0 takes the file's own rate (the first input).
QSovaAudioFile* openMono(const QString& name, const QString& format, int* rate)
{
    auto* input = new QSovaAudioFile(name, format, QSovaAudioFile::IEEEFloat);
    if (!input->open(QIODevice::ReadOnly)) {
        delete input;
        return nullptr;
    }
    if (*rate == 0)
        *rate = input->sampleRate();
    if (input->sampleRate() == *rate && input->numChannels() == 1)
        return input;
    input->close();
    delete input;
    const QString converted
        = QStringLiteral("%1:FMTCONV[sr=%2,nch=1]").arg(name, QString::number(*rate));
    input = new QSovaAudioFile(converted, format, QSovaAudioFile::IEEEFloat);
    if (!input->open(QIODevice::ReadOnly)) {
        delete input;
        return nullptr;
    }
    return input;
}

// The rate an output format asks for ("wav[sr=8000]"), 0 when it names none.
int askedRate(const QString& outputFormat)
{
    const int open = outputFormat.indexOf(QLatin1Char('['));
    const int close = outputFormat.lastIndexOf(QLatin1Char(']'));
    if (open < 0 || close <= open)
        return 0;
    return QSova::getIntegerValueFromString(
        outputFormat.mid(open + 1, close - open - 1), QStringLiteral("sr"), 0);
}

// outputFormat with rate and channels added to its options ("wav[nbits=24]" keeps its own).
QString withRateAndChannels(const QString& outputFormat, int rate, int channels)
{
    const QString options
        = QStringLiteral("sr=%1,nch=%2").arg(QString::number(rate), QString::number(channels));
    const QString trimmed = outputFormat.trimmed();
    if (trimmed.endsWith(QLatin1Char(']')))
        return trimmed.left(trimmed.size() - 1) + QLatin1Char(',') + options + QLatin1Char(']');
    return trimmed + QLatin1Char('[') + options + QLatin1Char(']');
}

// The format outputs are created with: rate and channels as given, the resolution and sample
// kind of the widest source (float when any source is float), so that nothing is narrowed
// unless the format string asks for it.
QSovaAudioFormat widestOf(const QVector<QSovaAudioFile*>& sources, int rate, int channels)
{
    _audio_format widest = AUDIO_FormatEx(rate, int16_t(channels), 0);
    for (const QSovaAudioFile* source : sources) {
        _audio_format f = source->format();
        const uint32_t codec = f.coder & AUDIO_CODEC_MASK;
        // Companded and ADPCM sources decode to 16-bit quality, as conversions take them.
        if (codec == AUDIO_CODEC_ULAW || codec == AUDIO_CODEC_ALAW
            || (f.bitsPerSample != 8 && f.bitsPerSample != 16 && f.bitsPerSample != 24
                && f.bitsPerSample != 32 && f.bitsPerSample != 64))
            f.bitsPerSample = 16;
        const bool isFloat = codec == AUDIO_CODEC_FLOAT32 || codec == AUDIO_CODEC_FLOAT64;
        const uint32_t widestCodec = widest.coder & AUDIO_CODEC_MASK;
        const bool widestFloat
            = widestCodec == AUDIO_CODEC_FLOAT32 || widestCodec == AUDIO_CODEC_FLOAT64;
        if ((isFloat && (!widestFloat || f.bitsPerSample > widest.bitsPerSample))
            || (!widestFloat && !isFloat && f.bitsPerSample > widest.bitsPerSample)) {
            widest = AUDIO_FormatEx(rate, int16_t(channels), f.bitsPerSample);
            if (isFloat)
                widest.coder = codec;
        }
    }
    if (!AUDIO_IsValidFormat(&widest))
        widest = AUDIO_FormatEx(rate, int16_t(channels), 16);
    return QSovaAudioFormat(&widest);
}

} // namespace

namespace QSova {

bool ChannelDemultiplexer(const QString& inputFile, const QStringList& outputFiles,
    const QString& inputFormat, const QString& outputFormat)
{
    return ChannelDemultiplexer(inputFile, outputFiles, inputFormat, outputFormat, nullptr);
}

bool ChannelDemultiplexer(const QString& inputFile, const QStringList& outputFiles,
    const QString& inputFormat, const QString& outputFormat, QVector<DemultiplexedOutput>* results)
{
    if (results)
        results->fill(DemultiplexedOutput(), outputFiles.size());
    if (outputFiles.size() > kMaxChannels)
        return false;
    auto* input = new QSovaAudioFile(inputFile, inputFormat, QSovaAudioFile::IEEEFloat);
    if (!input->open(QIODevice::ReadOnly)) {
        // The device, not the name: hosts match their logs on this exact form.
        qDebug() << "QSova::AudioFileDemultiplexer: Error opening file '" << input << "'!";
        delete input;
        return false;
    }
    // A rate the output format asks for is a conversion of the input, done here: the options
    // added for the writer below would otherwise override it with the input's own.
    const int rate = askedRate(outputFormat);
    if (rate > 0 && rate != input->sampleRate()) {
        delete input;
        input = new QSovaAudioFile(QStringLiteral("%1:FMTCONV[sr=%2]").arg(inputFile).arg(rate),
            inputFormat, QSovaAudioFile::IEEEFloat);
        if (!input->open(QIODevice::ReadOnly)) {
            qDebug() << "QSova::AudioFileDemultiplexer: Error opening file '" << input << "'!";
            delete input;
            return false;
        }
    }
    const int channels = input->numChannels();
    const QString format = withRateAndChannels(outputFormat, input->sampleRate(), 1);
    const QSovaAudioFormat kept = widestOf({input}, input->sampleRate(), 1);
    QVector<QSovaAudioFile*> outputs(std::max(channels, 0), nullptr);
    for (int c = 0; c < channels && c < outputFiles.size(); ++c) {
        auto* output = new QSovaAudioFile(outputFiles.at(c), format, kept);
        output->setExpectedFrames(std::max<qint64>(0, input->numSamples()));
        if (!output->open(QIODevice::WriteOnly)) {
            if (results)
                (*results)[c].error = QSova::lastErrorString();
            // The multiplexer's wording, shared on purpose: hosts filter both on one text.
            qDebug() << "QSova::AudioFileMultiplexer: Error creating file '" << outputFiles.at(c)
                     << "'!";
            delete output;
            continue;
        }
        outputs[c] = output;
        if (results)
            (*results)[c].created = true;
    }
    if (channels > 0) {
        QVector<float> frames(channels * kBlockSamples);
        QVector<float> mono(kBlockSamples);
        for (;;) {
            const qint64 got
                = input->read(reinterpret_cast<char*>(frames.data()), channels * kBlockBytes);
            const qint64 count = got / (channels * qint64(sizeof(float)));
            if (count <= 0)
                break;
            for (int c = 0; c < channels; ++c) {
                if (!outputs.at(c))
                    continue;
                for (qint64 i = 0; i < count; ++i)
                    mono[int(i)] = frames.at(int(i * channels + c));
                outputs.at(c)->write(
                    reinterpret_cast<const char*>(mono.constData()), count * qint64(sizeof(float)));
            }
        }
    }
    for (int c = 0; c < outputs.size(); ++c) {
        if (!outputs.at(c))
            continue;
        outputs.at(c)->close();
        if (results && c < results->size())
            (*results)[c].clips = outputs.at(c)->clipReport();
    }
    release(outputs);
    release({input});
    return true;
}

bool ChannelMultiplexer(const QStringList& inputFiles, const QString& outputFile,
    const QString& inputFormat, const QString& outputFormat)
{
    if (inputFiles.size() > kMaxChannels)
        return false;
    const int channels = inputFiles.size();
    QVector<QSovaAudioFile*> inputs;
    // The rate the output format asks for, else the first input's; every input is converted.
    int rate = askedRate(outputFormat);
    for (const QString& name : inputFiles) {
        QSovaAudioFile* input = openMono(name, inputFormat, &rate);
        if (!input) {
            reportOpening(name);
            release(inputs);
            return false;
        }
        inputs.append(input);
    }
    const QString format = withRateAndChannels(outputFormat, rate, channels);
    auto* output = new QSovaAudioFile(outputFile, format, widestOf(inputs, rate, channels));
    qint64 longestInput = 0;
    for (const QSovaAudioFile* input : inputs)
        longestInput = std::max(longestInput, input->numSamples());
    output->setExpectedFrames(longestInput);
    if (!output->open(QIODevice::WriteOnly)) {
        reportCreating(outputFile);
        delete output;
        release(inputs);
        return false;
    }
    QVector<float> frames(channels * kBlockSamples);
    QVector<float> mono(kBlockSamples);
    for (;;) {
        qint64 longest = 0;
        for (int c = 0; c < channels; ++c) {
            const qint64 got
                = inputs.at(c)->read(reinterpret_cast<char*>(mono.data()), kBlockBytes);
            const int count = got > 0 ? int(got / qint64(sizeof(float))) : 0;
            for (int i = 0; i < kBlockSamples; ++i)
                frames[i * channels + c] = i < count ? mono.at(i) : 0.0f;
            longest = std::max<qint64>(longest, count);
        }
        if (longest == 0)
            break;
        output->write(reinterpret_cast<const char*>(frames.constData()),
            longest * channels * qint64(sizeof(float)));
    }
    release(inputs);
    release({output});
    return true;
}

} // namespace QSova
