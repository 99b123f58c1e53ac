#include "qsovavad.h"
#include "qsovavad_p.h"

#include "qsovaaudioformat.h"

#include <sova/audio.h>

#include <stdexcept>

namespace QSova {

int vadStateFromEngine(int result)
{
    // Shifted by one so that hosts can treat the code as an index from 0 ("no history yet")
    // up; an answer outside the engine's four is a broken contract, not a state.
    switch (result) {
    case -1:
        return 0;
    case 0:
        return 1;
    case 1:
        return 2;
    case 2:
        return 3;
    default:
        throw std::logic_error("Invalid Vad State");
    }
}

struct Vad::Private
{
    QString parameters;
    QSovaAudioFormat format;
    _AUDIOVAD* detector = nullptr;

    void create()
    {
        detector = AUDIO_VAD_Init(format.sampleRate(), parameters.toLatin1().constData());
    }
};

Vad::Vad(const QString& parameters, const QSovaAudioFormat& format)
    : d(new Private)
{
    d->parameters = parameters;
    d->format = format;
    d->create();
}

Vad::~Vad()
{
    if (d->detector)
        AUDIO_VAD_Destroy(&d->detector);
    delete d;
}

void Vad::reset()
{
    if (d->detector)
        AUDIO_VAD_Destroy(&d->detector);
    d->detector = nullptr;
    d->create();
}

int Vad::frameNumSamples() const
{
    return AUDIO_VAD_FrameNumSamples(d->detector);
}

double Vad::frameDuration() const
{
    return AUDIO_VAD_FrameDuration();
}

int Vad::process16(qint64& position, const short* frame, float& value)
{
    int64_t at = position;
    const int result = AUDIO_VAD_Process16(d->detector, &at, frame, &value);
    position = at;
    return vadStateFromEngine(result);
}

int Vad::processFloat(qint64& position, const float* frame, float& value)
{
    int64_t at = position;
    const int result = AUDIO_VAD_ProcessFloat(d->detector, &at, frame, &value);
    position = at;
    return vadStateFromEngine(result);
}

int Vad::processIEEEFloat(qint64& position, const float* frame, float& value)
{
    int64_t at = position;
    const int result = AUDIO_VAD_ProcessIEEEFloat(d->detector, &at, frame, &value);
    position = at;
    return vadStateFromEngine(result);
}

} // namespace QSova
