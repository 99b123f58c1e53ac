#include "qsovaaudiosignal.h"

#include "qsovaaudioformat.h"

#include <sova/audiostream.h>

namespace {

// The media type given to the formats of decoders. The misspelling is kept on purpose: hosts
// compare this text byte for byte to tell a decoder's format from a file's.
const QString& decoderMimeType()
{
    static const QString text = QStringLiteral("application/octed-stream");
    return text;
}

} // namespace

// ---- Decoder ------------------------------------------------------------------------------

struct QSovaAudioSignal::Decoder::Private
{
    _AUDIODECODER* handle = nullptr;
    QSovaAudioFormat format;
};

QSovaAudioSignal::Decoder::Decoder(const QString& config, const QByteArray& header)
    : d(new Private)
{
    _audio_format record;
    AUDIO_NullFormat(&record);
    d->handle = AUDIODECOD_Create(&record, config.toLatin1().constData());
    int32_t length = int32_t(header.size());
    if (!AUDIODECOD_ProbeStream(d->handle, header.constData(), &length)
        || !AUDIODECOD_GetAudioFormat(d->handle, &record)) {
        AUDIODECOD_Destroy(d->handle);
        d->handle = nullptr;
    }
    // Built whatever the outcome: a failed probe still leaves what the engine filled in, and
    // format() decides what to show.
    d->format
        = QSovaAudioFormat(record.sampleRate, record.numChannels, -1, QString(), decoderMimeType());
}

QSovaAudioSignal::Decoder::~Decoder()
{
    if (d->handle)
        AUDIODECOD_Destroy(d->handle);
    delete d;
}

QString QSovaAudioSignal::Decoder::configFromMimeType(const QString& mimeType)
{
    // Exact and case-sensitive: hosts pass the type as their container reported it.
    if (mimeType == QLatin1String("audio/aac"))
        return QStringLiteral("AAC");
    return QString();
}

bool QSovaAudioSignal::Decoder::isValid() const
{
    return d->handle != nullptr;
}

_AUDIODECODER* QSovaAudioSignal::Decoder::internalPointer() const
{
    return d->handle;
}

int QSovaAudioSignal::Decoder::minSamplesPerFrame() const
{
    return d->handle ? AUDIOCODEC_GetMinSamplesPerFrame(d->handle) : 0;
}

int QSovaAudioSignal::Decoder::maxSamplesPerFrame() const
{
    return d->handle ? AUDIOCODEC_GetMaxSamplesPerFrame(d->handle) : 0;
}

int QSovaAudioSignal::Decoder::minStreamLength() const
{
    return d->handle ? AUDIOCODEC_GetMinStreamBytes(d->handle) : 0;
}

int QSovaAudioSignal::Decoder::maxStreamLength() const
{
    return d->handle ? AUDIOCODEC_GetMaxStreamBytes(d->handle) : 0;
}

QSovaAudioFormat QSovaAudioSignal::Decoder::format() const
{
    return d->handle ? d->format : QSovaAudioFormat();
}

// ---- Pipe ---------------------------------------------------------------------------------

struct QSovaAudioSignal::Pipe::Private
{
    _AUDIOPIPE* handle = nullptr;
    Decoder* decoder = nullptr;
    // Keeps the engine signal alive while the engine pipe writes into it.
    QSovaAudioSignal signal;
};

QSovaAudioSignal::Pipe::Pipe(const QSovaAudioSignal& signal, qint64 position, Decoder* decoder)
    : d(new Private)
{
    d->decoder = decoder;
    d->signal = signal;
    d->handle = AUDIOSIGNAL_CreatePipeEx(
        signal, position, decoder ? decoder->internalPointer() : nullptr);
}

QSovaAudioSignal::Pipe::~Pipe()
{
    if (d->handle) {
        // Closing drains the decoder and may block; the owner must not wait for it. The engine
        // pipe holds the decoding state itself, so the decoder object goes below all the same.
        auto* disposer = new Disposer(d->handle, d->signal);
        QObject::connect(
            disposer, SIGNAL(finished()), disposer, SLOT(deleteLater()), Qt::QueuedConnection);
        disposer->start(QThread::InheritPriority);
        d->handle = nullptr;
    }
    delete d->decoder;
    delete d;
}

bool QSovaAudioSignal::Pipe::isValid() const
{
    return d->handle != nullptr;
}

// The write calls pass the handle unchecked: the engine accepts a null pipe and does nothing.
void QSovaAudioSignal::Pipe::appendSamples(float* samples, qint64 count)
{
    AUDIOSIGNAL_AppendToPipe(d->handle, samples, count);
}

void QSovaAudioSignal::Pipe::overlapSamples(float* samples, qint64 count)
{
    AUDIOSIGNAL_OverlapToPipe(d->handle, samples, count);
}

void QSovaAudioSignal::Pipe::appendBitStream(const QByteArray& data)
{
    AUDIOSIGNAL_AppendBitStreamToPipe(d->handle, data.constData(), data.size());
}

void QSovaAudioSignal::Pipe::overlapBitStream(const QByteArray& data)
{
    AUDIOSIGNAL_OverlapBitStreamToPipe(d->handle, data.constData(), data.size());
}

double QSovaAudioSignal::Pipe::duration() const
{
    return AUDIOSIGNAL_PipeDuration(d->handle);
}

qint64 QSovaAudioSignal::Pipe::startPosition() const
{
    return AUDIOSIGNAL_PipeStartPosition(d->handle);
}

qint64 QSovaAudioSignal::Pipe::position() const
{
    return AUDIOSIGNAL_PipePosition(d->handle);
}

void QSovaAudioSignal::Pipe::close()
{
    if (d->handle) {
        AUDIOSIGNAL_ClosePipe(d->handle);
        d->handle = nullptr;
    }
    delete d->decoder;
    d->decoder = nullptr;
}

// ---- Pipe::Disposer -----------------------------------------------------------------------

QSovaAudioSignal::Pipe::Disposer::Disposer(_AUDIOPIPE* pipe, const QSovaAudioSignal& signal)
    : m_pipe(pipe)
    , m_signal(signal)
{
}

QSovaAudioSignal::Pipe::Disposer::~Disposer()
{
    // Only reached after run() when deleted through finished(); a disposer that never ran
    // still has its pipe to close.
    if (m_pipe)
        AUDIOSIGNAL_ClosePipe(m_pipe);
}

void QSovaAudioSignal::Pipe::Disposer::run()
{
    if (m_pipe)
        AUDIOSIGNAL_ClosePipe(m_pipe);
    m_pipe = nullptr;
    // The signal is complete now; let its last owner free it without waiting for the event
    // loop to delete this object.
    m_signal = QSovaAudioSignal();
}
