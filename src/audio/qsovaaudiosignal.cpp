#include "qsovaaudiosignal.h"

#include "qsovaaudioformat.h"

#include <QDebug>
#include <QIODevice>

#include <cstdio>
#include <limits>

// The shared record: it owns the engine handle and destroys it with the last copy.
class QSovaAudioSignalPrivate : public QSharedData
{
public:
    explicit QSovaAudioSignalPrivate(_AUDIOSIGNAL* h = nullptr) : handle(h) {}
    ~QSovaAudioSignalPrivate()
    {
        if (handle)
            AUDIOSIGNAL_Destroy(handle);
    }
    QSovaAudioSignalPrivate(const QSovaAudioSignalPrivate&) = delete;
    QSovaAudioSignalPrivate& operator=(const QSovaAudioSignalPrivate&) = delete;

    _AUDIOSIGNAL* handle;
};

namespace {

// Trailing flags word of the engine reads: frames outside the signal come back as zeros.
constexpr int32_t kZeroPad = AUDIOSIGNAL_READ_ZEROPAD;
// Option word of duplicate(): every bit above FORMAT_ONLY, i.e. a full copy.
constexpr uint32_t kDuplicateOptions = 0x1A00;

// The length of a vector read of count frames of channels values each; -1 when it cannot be
// allocated at all (below 1 allocates nothing, beyond a QVector's reach is refused).
int vectorLength(qint64 channels, qint64 count)
{
    if (count <= 0 || channels <= 0)
        return 0;
    if (count > std::numeric_limits<int>::max() / channels)
        return -1;
    return int(channels * count);
}

} // namespace

QSovaAudioSignal::QSovaAudioSignal() : d(new QSovaAudioSignalPrivate) {}

QSovaAudioSignal::QSovaAudioSignal(_AUDIOSIGNAL* handle) : d(new QSovaAudioSignalPrivate(handle))
{
}

QSovaAudioSignal::QSovaAudioSignal(const QSovaAudioFormat& format)
    : d(new QSovaAudioSignalPrivate(AUDIOSIGNAL_NewEx(static_cast<_audio_format>(format))))
{
}

QSovaAudioSignal::QSovaAudioSignal(const QString& fileName, const QString& format)
    : d(new QSovaAudioSignalPrivate(AUDIOSIGNAL_OpenEx(fileName.toUtf8().constData(),
                                                       format.toUtf8().constData(), 0, 0, 0,
                                                       nullptr)))
{
}

AUDIO_DamageReport QSovaAudioSignal::damageReport() const
{
    AUDIO_DamageReport report {0, 0, -1.0, 0.0, 0};
    if (d->handle)
        AUDIOSIGNAL_GetDamageReport(d->handle, &report);
    return report;
}

QSovaAudioSignal::QSovaAudioSignal(const QSovaAudioSignal& other) = default;
QSovaAudioSignal& QSovaAudioSignal::operator=(const QSovaAudioSignal& other) = default;
QSovaAudioSignal::~QSovaAudioSignal() = default;

QSovaAudioSignal QSovaAudioSignal::duplicate() const
{
    // Not guarded: the engine answers a null handle with null, so the copy is invalid too.
    return QSovaAudioSignal(AUDIOSIGNAL_DuplicateEx(d->handle, kDuplicateOptions));
}

QSovaAudioSignal::operator _AUDIOSIGNAL*() const
{
    return d->handle;
}

bool QSovaAudioSignal::isValid() const
{
    return d->handle != nullptr;
}

bool QSovaAudioSignal::operator==(const QSovaAudioSignal& other) const
{
    // Identity of the shared record, not of the engine pointer: hosts that wrap one engine
    // pointer twice by mistake must see two different signals.
    return d.data() == other.d.data();
}

bool QSovaAudioSignal::operator==(const void* handle) const
{
    return d->handle == handle;
}

qint64 QSovaAudioSignal::numSamples() const
{
    return isValid() ? AUDIOSIGNAL_NumSamples(d->handle) : 0;
}

double QSovaAudioSignal::duration() const
{
    return isValid() ? AUDIOSIGNAL_Length(d->handle) : 0.0;
}

int QSovaAudioSignal::sampleRate() const
{
    return isValid() ? AUDIOSIGNAL_SampleRate(d->handle) : 0;
}

int QSovaAudioSignal::numChannels() const
{
    return isValid() ? AUDIOSIGNAL_NumChannels(d->handle) : 0;
}

int QSovaAudioSignal::bitsPerSample() const
{
    return isValid() ? AUDIOSIGNAL_BitsPerSample(d->handle) : 0;
}

bool QSovaAudioSignal::isMono() const
{
    return numChannels() == 1;
}

bool QSovaAudioSignal::isStereo() const
{
    return numChannels() == 2;
}

int QSovaAudioSignal::numActiveChannels() const
{
    // Unguarded: the engine answers a null handle itself.
    return AUDIOSIGNAL_NumActiveChannels(d->handle);
}

bool QSovaAudioSignal::channelIsActive(int channel) const
{
    return AUDIOSIGNAL_ChannelIsActive(d->handle, channel) != 0;
}

double QSovaAudioSignal::toSeconds(qint64 samples) const
{
    if (!isValid())
        return -1.0;
    return AUDIO_Sample2Time(AUDIOSIGNAL_GetFormatRef(d->handle), samples);
}

qint64 QSovaAudioSignal::toSamples(double seconds) const
{
    if (!isValid())
        return -1;
    return AUDIO_Time2Sample(AUDIOSIGNAL_GetFormatRef(d->handle), seconds);
}

double QSovaAudioSignal::rms(int channel) const
{
    if (!isValid())
        return 0.0;
    return AUDIOSIGNAL_GetChannelTotalRMS(d->handle, channel, 0, numSamples(), 1);
}

double QSovaAudioSignal::rms(const QString& transform, int channel) const
{
    if (!isValid())
        return 0.0;
    return AUDIOSIGNAL_EvalTransformRMS(d->handle, transform.toUtf8().constData(), channel);
}

// The guard of every read, tested in this order. A position exactly at the end is accepted
// and a range reaching partly before the start is passed on: editors read the blocks around
// the signal's edges and rely on the engine's zero padding there.
static bool acceptRead(const QSovaAudioSignal& signal, qint64 pos, qint64 count)
{
    return signal.isValid() && count != 0 && pos <= signal.numSamples() && pos >= -count;
}

qint64 QSovaAudioSignal::getSamples(float* buf, qint64 pos, qint64 count, int step) const
{
    if (!buf || step == 0 || !acceptRead(*this, pos, count))
        return 0;
    if (step == 1)
        return AUDIOSIGNAL_GetSamplesEx(d->handle, pos, buf, count, kZeroPad);
    return AUDIOSIGNAL_GetSamplesWithStepEx(d->handle, pos, buf, count, step, kZeroPad);
}

qint64 QSovaAudioSignal::getSamples16(short* buf, qint64 pos, qint64 count) const
{
    if (!buf || !acceptRead(*this, pos, count))
        return 0;
    return AUDIOSIGNAL_GetSamples16Ex(d->handle, pos, buf, count, kZeroPad);
}

qint64 QSovaAudioSignal::getActiveSamples(float* buf, qint64 pos, qint64 count) const
{
    if (!buf || !acceptRead(*this, pos, count))
        return 0;
    return AUDIOSIGNAL_GetActiveSamplesEx(d->handle, pos, buf, count, kZeroPad);
}

qint64 QSovaAudioSignal::getActiveSamples16(short* buf, qint64 pos, qint64 count) const
{
    if (!buf || !acceptRead(*this, pos, count))
        return 0;
    return AUDIOSIGNAL_GetActiveSamples16Ex(d->handle, pos, buf, count, kZeroPad);
}

// The channel test sits between the count and the position tests of acceptRead.
static bool acceptChannelRead(const QSovaAudioSignal& signal, int channel, qint64 pos,
                              qint64 count)
{
    if (!signal.isValid() || count == 0)
        return false;
    if (channel < 0 || channel >= signal.numChannels())
        return false;
    return pos <= signal.numSamples() && pos >= -count;
}

qint64 QSovaAudioSignal::getChannelSamples(float* buf, int channel, qint64 pos,
                                           qint64 count) const
{
    if (!buf || !acceptChannelRead(*this, channel, pos, count))
        return 0;
    return AUDIOSIGNAL_GetChannelSamplesEx(d->handle, channel, pos, buf, count, kZeroPad);
}

qint64 QSovaAudioSignal::getChannelSamples(short* buf, int channel, qint64 pos,
                                           qint64 count) const
{
    if (!buf || !acceptChannelRead(*this, channel, pos, count))
        return 0;
    return AUDIOSIGNAL_GetChannelSamples16Ex(d->handle, channel, pos, buf, count, kZeroPad);
}

// Vector reads: the vector is allocated and zeroed before the guard, filled by the engine
// and cut to what it delivered. A length beyond a QVector's reach is refused as rejected.
template<typename T, typename Read>
static QVector<T> readVector(const QSovaAudioSignal& signal, int channels, qint64 pos,
                             qint64 count, Read read)
{
    const int length = vectorLength(channels, count);
    if (length < 0)
        return QVector<T>();
    QVector<T> values(length, T(0));
    if (!acceptRead(signal, pos, count))
        return QVector<T>();
    const qint64 delivered = read(values.data());
    values.resize(vectorLength(channels, qBound<qint64>(0, delivered, count)));
    return values;
}

QVector<float> QSovaAudioSignal::samples(qint64 pos, qint64 count) const
{
    return readVector<float>(*this, numChannels(), pos, count, [&](float* data) {
        return AUDIOSIGNAL_GetSamplesEx(d->handle, pos, data, count, kZeroPad);
    });
}

QVector<short> QSovaAudioSignal::samples16(qint64 pos, qint64 count) const
{
    return readVector<short>(*this, numChannels(), pos, count, [&](short* data) {
        return AUDIOSIGNAL_GetSamples16Ex(d->handle, pos, data, count, kZeroPad);
    });
}

// The channel is not checked here, unlike getChannelSamples: hosts probe channels with these
// and take the engine's empty answer for a channel the signal lacks.
QVector<float> QSovaAudioSignal::channelSamples(int channel, qint64 pos, qint64 count) const
{
    return readVector<float>(*this, 1, pos, count, [&](float* data) {
        return AUDIOSIGNAL_GetChannelSamplesEx(d->handle, channel, pos, data, count, kZeroPad);
    });
}

QVector<short> QSovaAudioSignal::channelSamples16(int channel, qint64 pos, qint64 count) const
{
    return readVector<short>(*this, 1, pos, count, [&](short* data) {
        return AUDIOSIGNAL_GetChannelSamples16Ex(d->handle, channel, pos, data, count,
                                                 kZeroPad);
    });
}

void QSovaAudioSignal::insertSamples(short* data, qint64 pos, qint64 count)
{
    // The position goes to the engine untested: it clamps it to the signal.
    if (isValid() && data && count > 0)
        AUDIOSIGNAL_InsertSamples16(d->handle, data, pos, count);
}

void QSovaAudioSignal::insertSamples(float* data, qint64 pos, qint64 count)
{
    if (isValid() && data && count > 0)
        AUDIOSIGNAL_InsertSamples(d->handle, data, pos, count);
}

void QSovaAudioSignal::appendSamples(short* data, qint64 count)
{
    if (isValid() && data && count > 0)
        AUDIOSIGNAL_AppendSamples16(d->handle, data, count);
}

void QSovaAudioSignal::appendSamples(float* data, qint64 count)
{
    if (isValid() && data && count > 0)
        AUDIOSIGNAL_AppendSamples(d->handle, data, count);
}

namespace {

// The vector forms pass size() as the frame count, not size() / numChannels(): hosts feed
// mono signals through them, and changing that would halve what existing hosts write. The
// engine then reads size() frames of numChannels values each, so the (by-value) copy is
// zero-extended to that many values first: a multichannel caller gets silence appended to
// its samples instead of a read past the end of its vector. False when that cannot be done.
template <typename T>
bool extendToFrames(QVector<T>& data, int channels)
{
    const qint64 values = qint64(data.size()) * qMax(1, channels);
    if (values > qint64(std::numeric_limits<int>::max()))
        return false;
    data.resize(int(values));
    return true;
}

} // namespace

void QSovaAudioSignal::insertSamples(QVector<short> data, qint64 pos)
{
    const qint64 count = data.size();
    if (extendToFrames(data, numChannels()))
        insertSamples(data.data(), pos, count);
}

void QSovaAudioSignal::insertSamples(QVector<float> data, qint64 pos)
{
    const qint64 count = data.size();
    if (extendToFrames(data, numChannels()))
        insertSamples(data.data(), pos, count);
}

void QSovaAudioSignal::appendSamples(QVector<short> data)
{
    const qint64 count = data.size();
    if (extendToFrames(data, numChannels()))
        appendSamples(data.data(), count);
}

void QSovaAudioSignal::appendSamples(QVector<float> data)
{
    const qint64 count = data.size();
    if (extendToFrames(data, numChannels()))
        appendSamples(data.data(), count);
}

bool QSovaAudioSignal::save(const QString& fileName, const QString& format) const
{
    return AUDIOSIGNAL_SaveEx(d->handle, fileName.toUtf8().constData(),
                              format.toUtf8().constData(), 0, 0) == 1;
}

bool QSovaAudioSignal::save(QIODevice* device, const QString& format) const
{
    char path[32];
    std::snprintf(path, sizeof path, "qiodevice://%p", static_cast<void*>(device));
    return AUDIOSIGNAL_SaveEx(d->handle, path, format.toUtf8().constData(), 0, 0) == 1;
}

QDebug operator<<(QDebug debug, const QSovaAudioSignal& signal)
{
    QDebugStateSaver saver(debug);
    debug.nospace();
    if (!signal.isValid())
        return debug << "QSovaAudioSignal(invalid)";
    return debug << "QSovaAudioSignal(" << signal.sampleRate() << ',' << signal.numChannels()
                 << ',' << signal.bitsPerSample() << ", " << signal.numSamples()
                 << " samples)";
}
