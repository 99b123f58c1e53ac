#include "qsovaaudioeffect.h"

#include "qsovaaudioformat.h"

#include <sova/audio.h>

struct QSovaAudioEffect::Private
{
    QString description;
    _AUDIOFXPATH* handle = nullptr;
};

namespace {

// The engine's record as a format value. The misspelt media type is kept on purpose: hosts
// compare it byte for byte to recognise formats that came from the engine's processing.
QSovaAudioFormat fromEngine(const _audio_format& record)
{
    return QSovaAudioFormat(record.sampleRate, record.numChannels, -1, QString(),
        QStringLiteral("application/octed-stream"));
}

} // namespace

QSovaAudioEffect::QSovaAudioEffect(const QString& description, const QSovaAudioFormat& inputFormat)
    : d(new Private)
{
    d->description = description;
    // The path is always made for 16-bit input whatever the caller's resolution: the engine
    // works on floats, and hosts pass formats of any resolution here.
    const _audio_format record
        = AUDIO_FormatEx(inputFormat.sampleRate(), int16_t(inputFormat.numChannels()), 16);
    d->handle = AUDIOFX_CreatePathEx(&record, -1, -1, 0, description.toLatin1().constData());
}

QSovaAudioEffect::~QSovaAudioEffect()
{
    if (d->handle)
        AUDIOFX_DestroyPath(d->handle);
    delete d;
}

// Every query goes through the virtual isValid(): a subclass that overrides it decides for
// all of them.
QSovaAudioFormat QSovaAudioEffect::outputFormat() const
{
    if (!isValid())
        return QSovaAudioFormat();
    return fromEngine(AUDIOFX_GetOutputFormat(d->handle));
}

QSovaAudioFormat QSovaAudioEffect::inputFormat() const
{
    if (!isValid())
        return QSovaAudioFormat();
    return fromEngine(AUDIOFX_GetInputFormat(d->handle));
}

double QSovaAudioEffect::inOutRatio() const
{
    if (!isValid())
        return 1.0;
    const int outRate = AUDIOFX_GetOutputFormat(d->handle).sampleRate;
    const int inRate = AUDIOFX_GetInputFormat(d->handle).sampleRate;
    return AUDIOFX_GetScaleFactor(d->handle) * (double(outRate) / double(inRate));
}

bool QSovaAudioEffect::isValid() const
{
    return d->handle != nullptr;
}

bool QSovaAudioEffect::process(
    const float* in, qint64& inCount, float* out, qint64& outCount, bool flush)
{
    if (!isValid())
        return false;
    int64_t inFrames = inCount, outFrames = outCount;
    const int32_t ok
        = AUDIOFX_ProcessSamples(d->handle, in, &inFrames, out, &outFrames, flush ? 1 : 0);
    inCount = inFrames;
    outCount = outFrames;
    return ok != 0;
}

QString QSovaAudioEffect::description() const
{
    return d->description;
}
