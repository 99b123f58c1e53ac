#include "qsovachannelmultiplexer.h"

#include "qsovaaudiofile.h"

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

} // namespace

namespace QSova {

bool ChannelDemultiplexer(const QString& inputFile, const QStringList& outputFiles,
    const QString& inputFormat, const QString& outputFormat)
{
    if (outputFiles.size() > kMaxChannels)
        return false;
    auto* input = new QSovaAudioFile(inputFile, inputFormat, QSovaAudioFile::IEEEFloat);
    if (!input->open(QIODevice::ReadOnly)) {
        // The device, not the name: hosts match their logs on this exact form.
        qDebug() << "QSova::AudioFileDemultiplexer: Error opening file '" << input << "'!";
        delete input;
        return false;
    }
    const int channels = input->numChannels();
    const QString format
        = QStringLiteral("%1[sr=%2,nch=1]").arg(outputFormat, QString::number(input->sampleRate()));
    QVector<QSovaAudioFile*> outputs(std::max(channels, 0), nullptr);
    for (int c = 0; c < channels && c < outputFiles.size(); ++c) {
        auto* output = new QSovaAudioFile(outputFiles.at(c), format, QSovaAudioFile::IEEEFloat);
        if (!output->open(QIODevice::WriteOnly)) {
            // The multiplexer's wording, shared on purpose: hosts filter both on one text.
            qDebug() << "QSova::AudioFileMultiplexer: Error creating file '" << outputFiles.at(c)
                     << "'!";
            delete output;
            continue;
        }
        outputs[c] = output;
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
    int rate = 0;
    for (const QString& name : inputFiles) {
        QSovaAudioFile* input = openMono(name, inputFormat, &rate);
        if (!input) {
            reportOpening(name);
            release(inputs);
            return false;
        }
        inputs.append(input);
    }
    const QString format = QStringLiteral("%1[sr=%2,nch=%3]")
                               .arg(outputFormat, QString::number(rate), QString::number(channels));
    auto* output = new QSovaAudioFile(outputFile, format, QSovaAudioFile::IEEEFloat);
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
