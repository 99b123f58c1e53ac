#pragma once

#include "qtsovacore_export.h"

#include <sova/audio.h>

#include <QExplicitlySharedDataPointer>
#include <QList>
#include <QPair>
#include <QSharedDataPointer>
#include <QString>
#include <QThread>
#include <QVector>

#include <cstddef>

class QDebug;
class QIODevice;
class QSovaAudioFormat;
class QSovaAudioSelectionList;
class QSovaAudioSignalPrivate;
class QSovaAudioSignalSlicePrivate;

// A handle on one in-memory signal of the audio engine. Copies share the engine signal, which
// is destroyed with the last copy; duplicate() makes an independent one. Positions and counts
// are sample frames. Every call checks its arguments and answers a rejected call with a
// neutral result (0, an empty vector, -1, false); nothing throws or logs.
class QTSOVACORE_EXPORT QSovaAudioSignal
{
public:
    class Slice;
    class SliceIterator;
    class Decoder;
    class Pipe;
    // (first sample, length in samples).
    using Interval = QPair<qint64, qint64>;
    using IntervalList = QList<Interval>;

    // An invalid signal.
    QSovaAudioSignal();
    // Adopts the handle: the last copy destroys it.
    explicit QSovaAudioSignal(_AUDIOSIGNAL* handle);
    // A new empty signal of the format; invalid when the engine rejects the format.
    explicit QSovaAudioSignal(const QSovaAudioFormat& format);
    // Reads a whole file; format is an engine format string, empty to detect it. Invalid when
    // the file cannot be read.
    explicit QSovaAudioSignal(const QString& fileName, const QString& format = QString());
    QSovaAudioSignal(const QSovaAudioSignal& other);
    QSovaAudioSignal& operator=(const QSovaAudioSignal& other);
    QSovaAudioSignal& operator=(QSovaAudioSignal&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~QSovaAudioSignal();
    void swap(QSovaAudioSignal& other) noexcept { d.swap(other.d); }

    // An independent copy of the engine signal; invalid for an invalid signal.
    QSovaAudioSignal duplicate() const;
    // The engine handle, lent.
    operator _AUDIOSIGNAL*() const;
    bool isValid() const;
    // Damage decoded past when the signal was read from its file (stretches 0 when clean, or
    // for a signal not read from a file).
    AUDIO_DamageReport damageReport() const;
    // Same shared record: two handles built separately around one engine pointer differ.
    bool operator==(const QSovaAudioSignal& other) const;
    bool operator!=(const QSovaAudioSignal& other) const { return !(*this == other); }
    // Same engine handle. The typed and null overloads only spare callers an ambiguity with
    // the built-in pointer comparison through operator _AUDIOSIGNAL*.
    bool operator==(const void* handle) const;
    bool operator!=(const void* handle) const { return !(*this == handle); }
    bool operator==(_AUDIOSIGNAL* handle) const { return *this == static_cast<const void*>(handle); }
    bool operator!=(_AUDIOSIGNAL* handle) const { return !(*this == handle); }
    bool operator==(std::nullptr_t) const { return !isValid(); }
    bool operator!=(std::nullptr_t) const { return isValid(); }

    qint64 numSamples() const;
    double duration() const; // seconds
    int sampleRate() const;
    int numChannels() const;
    int bitsPerSample() const;
    bool isMono() const;
    bool isStereo() const;
    int numActiveChannels() const;
    bool channelIsActive(int channel) const;
    // -1.0 / -1 for an invalid signal.
    double toSeconds(qint64 samples) const;
    qint64 toSamples(double seconds) const;
    // Linear RMS of the whole channel; of the channel after a named engine transform.
    double rms(int channel) const;
    double rms(const QString& transform, int channel) const;

    // Reads count frames from pos into buf (interleaved; with a step, every step-th frame).
    // Frames outside the signal read as zeros. Returns the frames delivered, 0 when rejected:
    // null buffer, zero step or count, invalid signal, pos past the end or the range wholly
    // before the start.
    qint64 getSamples(float* buf, qint64 pos, qint64 count, int step = 1) const;
    qint64 getSamples16(short* buf, qint64 pos, qint64 count) const;
    // The active channels only.
    qint64 getActiveSamples(float* buf, qint64 pos, qint64 count) const;
    qint64 getActiveSamples16(short* buf, qint64 pos, qint64 count) const;
    // One channel, not interleaved; also rejected for a channel out of range.
    qint64 getChannelSamples(float* buf, int channel, qint64 pos, qint64 count) const;
    qint64 getChannelSamples(short* buf, int channel, qint64 pos, qint64 count) const;

    // As the reads above into a new vector, shortened to what was delivered; empty when
    // rejected. The channel forms leave the channel check to the engine.
    QVector<float> samples(qint64 pos, qint64 count) const;
    QVector<short> samples16(qint64 pos, qint64 count) const;
    QVector<float> channelSamples(int channel, qint64 pos, qint64 count) const;
    QVector<short> channelSamples16(int channel, qint64 pos, qint64 count) const;

    // Writes count interleaved frames; nothing for an invalid signal, null data or count <= 0.
    void insertSamples(short* data, qint64 pos, qint64 count);
    void insertSamples(float* data, qint64 pos, qint64 count);
    void appendSamples(short* data, qint64 count);
    void appendSamples(float* data, qint64 count);
    // The vector's size() is the frame count, whatever the number of channels.
    void insertSamples(QVector<short> data, qint64 pos);
    void insertSamples(QVector<float> data, qint64 pos);
    void appendSamples(QVector<short> data);
    void appendSamples(QVector<float> data);

    // Writes the whole signal; format is an engine format string, empty to choose by the
    // extension. true on success.
    bool save(const QString& fileName, const QString& format = QString()) const;
    // Writes into the device through the "qiodevice" I/O handler (QSova::initialize()).
    bool save(QIODevice* device, const QString& format) const;

    // Begin and end iterators over sliceSize-sample blocks of one channel, step samples
    // apart, across the selections taken as one stream (see SliceIterator). Default
    // iterators for an empty list.
    QPair<SliceIterator, SliceIterator> selectionsIterator(const QSovaAudioSelectionList& selections,
                                                           int channel, qint64 sliceSize,
                                                           qint64 step, qint64 start = 0,
                                                           qint64 tailAllowance = 0) const;

private:
    QExplicitlySharedDataPointer<QSovaAudioSignalPrivate> d;
};

// A block of one channel of a signal: leading zeros, pieces (first sample, length) read in
// order, trailing zeros. Implicitly shared.
class QTSOVACORE_EXPORT QSovaAudioSignal::Slice
{
public:
    // The four-argument form on an invalid signal at 0, length 0.
    Slice();
    // The pieces as given; the channel is not checked. size() sums the pads and lengths.
    Slice(const QSovaAudioSignal& signal, const IntervalList& pieces, int channel,
          qint64 leadingPad, qint64 trailingPad);
    // length samples at begin, within [max(lowerBound, 0), min(upperBound, numSamples)):
    // the parts outside become pads. The channel is clamped to the signal's channels.
    Slice(const QSovaAudioSignal& signal, qint64 begin, qint64 length, int channel,
          qint64 lowerBound, qint64 upperBound);
    Slice(const QSovaAudioSignal& signal, qint64 begin, qint64 length, int channel);
    Slice(const Slice& other);
    Slice& operator=(const Slice& other);
    Slice& operator=(Slice&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~Slice();
    void swap(Slice& other) noexcept { d.swap(other.d); }

    qint64 size() const;
    int channel() const;
    // First sample minus the leading pad; -1 without pieces.
    qint64 beginSample() const;
    qint64 endSample() const;
    const QSovaAudioSignal& signal() const;
    bool isValid() const;

    // Same engine signal and beginSample.
    bool operator==(const Slice& other) const;
    bool operator!=(const Slice& other) const { return !(*this == other); }

    // size() samples: the pads as zeros, the pieces read from the signal.
    operator QVector<float>() const;
    operator QVector<short>() const;
    // "Slice: 0, [150,50], [400,50], 0": leading pad, the pieces, trailing pad.
    operator QString() const;

private:
    QSharedDataPointer<QSovaAudioSignalSlicePrivate> d;
};

// Walks blocks of S samples, step samples apart, over a list of intervals taken as one stream
// (their concatenation in list order). Positions are stream positions; a negative one gives
// leading zeros, a block running past the stream plus the tail allowance is at the end.
// Copy-on-write.
class QTSOVACORE_EXPORT QSovaAudioSignal::SliceIterator
{
public:
    class Data;

    // Always at its end.
    SliceIterator();
    SliceIterator(const QSovaAudioSignal& signal, const IntervalList& intervals, int channel,
                  qint64 sliceSize, qint64 step, qint64 start = 0, qint64 tailAllowance = 0);
    SliceIterator(const SliceIterator& other);
    SliceIterator& operator=(const SliceIterator& other);
    SliceIterator& operator=(SliceIterator&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~SliceIterator();
    void swap(SliceIterator& other) noexcept { d.swap(other.d); }

    // The iterator at start, and the first position past the last block.
    static SliceIterator begin(const QSovaAudioSignal& signal, const IntervalList& intervals,
                               int channel, qint64 sliceSize, qint64 step, qint64 start = 0,
                               qint64 tailAllowance = 0);
    static SliceIterator end(const QSovaAudioSignal& signal, const IntervalList& intervals,
                             int channel, qint64 sliceSize, qint64 step, qint64 start = 0,
                             qint64 tailAllowance = 0);

    // The block at the current position; an invalid Slice() out of range.
    const Slice& operator*() const;
    Slice& operator*();
    Slice* operator->();

    SliceIterator& operator++();
    SliceIterator operator++(int);
    SliceIterator& operator--();
    SliceIterator operator--(int);
    SliceIterator& operator+=(int steps);
    SliceIterator& operator-=(int steps);
    SliceIterator operator+(int steps) const;
    SliceIterator operator-(int steps) const;
    // Steps between the positions, truncated toward zero.
    qint64 operator-(const SliceIterator& other) const;

    // Same engine signal, size, step, start and limit, and the same position or both at the
    // end. Intervals and channel are not compared.
    bool operator==(const SliceIterator& other) const;
    bool operator!=(const SliceIterator& other) const { return !(*this == other); }

    // Checks the block texts of a walk over a fixed interval list; needs no engine signal.
    static bool selfTest(bool verbose);

private:
    QSharedDataPointer<Data> d;
};

// Turns an encoded stream into samples for a Pipe. Built from a codec configuration ("AAC",
// "MP3", "FLAC") and the first bytes of the stream, which the engine probes for the rate,
// channels and framing. Owns the engine decoder; not copyable.
class QTSOVACORE_EXPORT QSovaAudioSignal::Decoder
{
public:
    // Invalid when the engine does not know the configuration or cannot read the header. The
    // format is taken from the engine record either way; format() hides it while invalid.
    Decoder(const QString& config, const QByteArray& header);
    virtual ~Decoder();

    // "AAC" for exactly "audio/aac", a null string for any other media type.
    static QString configFromMimeType(const QString& mimeType);

    bool isValid() const;
    // The engine decoder, lent.
    _AUDIODECODER* internalPointer() const;
    // Samples per channel in one encoded frame; bytes of one encoded frame. 0 when invalid.
    int minSamplesPerFrame() const;
    int maxSamplesPerFrame() const;
    int minStreamLength() const;
    int maxStreamLength() const;
    // The stream's rate and channels (resolution unspecified); a default format when invalid.
    QSovaAudioFormat format() const;

private:
    Q_DISABLE_COPY(Decoder)
    struct Private;
    Private* d;
};

// Writes into a signal at a running position kept by the engine, from raw samples or,
// through the owned decoder, from an encoded stream. The signal must stay alive meanwhile
// (the pipe keeps a reference to it). The write calls are passed to the engine unchecked:
// after close() they hand it a null pipe, which it ignores.
class QTSOVACORE_EXPORT QSovaAudioSignal::Pipe
{
public:
    class Disposer;

    // Takes ownership of decoder, which may be null (samples only). The engine pipe keeps its
    // own hold on the engine decoder, so the Decoder object may go before the pipe is closed.
    Pipe(const QSovaAudioSignal& signal, qint64 position, Decoder* decoder);
    // An open pipe is closed on a Disposer thread: closing flushes the decoder and may block.
    // The decoder is deleted here at once, without waiting for that thread.
    virtual ~Pipe();

    bool isValid() const;
    // Interleaved IEEE float frames of the signal's channel count.
    void appendSamples(float* samples, qint64 count);
    void overlapSamples(float* samples, qint64 count);
    // Encoded bytes, split anywhere.
    void appendBitStream(const QByteArray& data);
    void overlapBitStream(const QByteArray& data);
    // Seconds written so far; the frame the pipe started at; the frame it writes next.
    double duration() const;
    qint64 startPosition() const;
    qint64 position() const;
    // Closes the engine pipe on this thread (the signal is then complete) and deletes the
    // decoder. A second call does nothing.
    void close();

private:
    Q_DISABLE_COPY(Pipe)
    struct Private;
    Private* d;
};

// Closes an abandoned engine pipe off the owner's thread (the engine pipe holds what it needs
// of the decoder), then drops its reference to the signal. Deletes itself through the event
// loop of the thread that created it once finished() is delivered there.
class QTSOVACORE_EXPORT QSovaAudioSignal::Pipe::Disposer : public QThread
{
public:
    Disposer(_AUDIOPIPE* pipe, const QSovaAudioSignal& signal);
    ~Disposer() override;

protected:
    void run() override;

private:
    _AUDIOPIPE* m_pipe;
    QSovaAudioSignal m_signal;
};

Q_DECLARE_SHARED(QSovaAudioSignal)
Q_DECLARE_SHARED(QSovaAudioSignal::Slice)
Q_DECLARE_SHARED(QSovaAudioSignal::SliceIterator)

// "QSovaAudioSignal(44100,2,16, 1000 samples)" or "QSovaAudioSignal(invalid)".
QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaAudioSignal& signal);
// The text form, leaving the stream without its separating space.
QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaAudioSignal::Slice& slice);
