#pragma once

#include "qtsovacore_export.h"

#include <QIODevice>
#include <QString>
#include <QVector>

#include <functional>
#include <memory>

#include <sova/audio.h>

class QSovaAudioFormat;
class QSovaFile;

// A sequential QIODevice over one audio file of the engine. Reading yields the decoded
// samples interleaved by frame; writing encodes samples into a new file. Only whole frames
// pass: a byte count is cut down to whole frames, and the result counts the bytes of the
// frames transferred. Failures are results only (false, -1, 0); nothing is thrown or logged.
class QTSOVACORE_EXPORT QSovaAudioFile : public QIODevice
{
public:
    // How samples look in the byte stream.
    enum SampleKind {
        Int16, // signed 16-bit integers, 2 bytes
        Float, // 32-bit floats in the 16-bit scale (full scale +-32768.0)
        IEEEFloat // 32-bit floats, full scale +-1.0
    };

    // fileName: a path or any descriptor of the foundation I/O layer ("qiodevice://%p",
    // "hfile://..."), with an optional ":fmtconv[...]" suffix when reading. formatString: the
    // engine's format string, passed as it stands (empty: detect or take from the extension).
    QSovaAudioFile(const QString& fileName, const QString& formatString, SampleKind kind);
    // For writing a file in format (its rate, channels and resolution); the samples are
    // IEEEFloat whatever the format's resolution.
    QSovaAudioFile(
        const QString& fileName, const QString& formatString, const QSovaAudioFormat& format);
    // Reads or writes through an open foundation file device (by its metaFilename()), which
    // must stay open until this device is closed. A null file gives a device that never opens.
    QSovaAudioFile(QSovaFile* file, const QString& formatString, SampleKind kind);
    // Closes the file.
    ~QSovaAudioFile() override;

    // mode must be exactly ReadOnly or exactly WriteOnly. False when already open, unnamed or
    // when the engine refuses (its reason is in BLERROR_LastMessage()).
    bool open(OpenMode mode) override;
    // Closes the engine file; a written file is finished then. The format stays readable.
    void close() override;
    // Closes a device opened for writing without finishing the file, for a writer that has
    // failed half-way: nothing is moved into place and a file that was already at the target
    // stays as it was. For a device opened for reading the same as close().
    void abandon();
    // Always true: the stream cannot be sought.
    bool isSequential() const override;
    // Bytes of the whole file in the sample kind (frames times frameSize()); -1 when closed or
    // when the engine does not know the length. For bare MP3, ADTS and AC-3 streams a guess
    // until the end has been read (isLengthExact()); reads go on to the real end either way.
    qint64 size() const override;
    // True when nothing more can be read: closed, or a read met the end of the stream (the
    // engine is asked for the next frame, never a header's length).
    bool atEnd() const override;

    // Writes interleaved samples of the device's kind (4 bytes each: Float or IEEEFloat).
    void writeSamples(const QVector<float>& samples);

    // Frames (samples per channel) of the file, -1 when closed or unknown; a guess when
    // isLengthExact() is false.
    qint64 numSamples() const;
    // Whether numSamples() is a count (the container states it, or the end has been read).
    bool isLengthExact() const;
    // The exact number of frames, decoding to the end when the length is a guess (the read
    // position is kept); -1 on failure.
    qint64 countSamples();
    // Damage decoded past while reading so far (the engine's report; stretches 0 when clean
    // or closed).
    AUDIO_DamageReport damageReport() const;
    // Seconds, 0 when closed.
    double duration() const;
    // Hz and channels of the open file, 0 when closed.
    int sampleRate() const;
    int numChannels() const;
    // Bytes of one frame: channels times 2 (Int16) or 4; from the last opened format.
    int frameSize() const;
    SampleKind sampleKind() const;
    // The format of the file last opened (or the one given for writing).
    QSovaAudioFormat format() const;

    // What writing clipped: samples beyond full scale (all channels) that the target could not
    // keep (integer, companded and lossy targets; float targets keep them), and the peak
    // magnitude given (1.0 = full scale).
    struct ClipReport
    {
        qint64 clippedSamples = 0;
        double peak = 0.0;
    };
    // Of the file being written so far, or after close() of the file this device wrote.
    ClipReport clipReport() const;
    // Of the last file the calling thread finished writing, through a device or convert().
    static ClipReport lastClipReport();
    // Frames about to be written, set before open(WriteOnly) (0: unknown): a WAV that would
    // pass 4 GiB is then written as RF64, and containers that cannot hold it refuse to open.
    void setExpectedFrames(qint64 frames);

    // Seconds of a file, -1.0 when it cannot be read.
    static double duration(const QString& fileName, const QString& formatString);
    // Converts the file source (format string sourceFormat) into target (targetFormat). A
    // valid format gives the target's rate, channels and resolution and is filled with the
    // format written. An empty source is passed as null. True on success.
    static bool convert(const QString& source, const QString& sourceFormat, const QString& target,
        const QString& targetFormat, QSovaAudioFormat& format);
    static bool convert(const QString& source, const QString& sourceFormat, const QString& target,
        const QString& targetFormat);
    // The same, reporting progress: progress(fraction in [0, 1]) is called from the converting
    // thread as blocks are written; returning false cancels, and no target is left behind.
    static bool convert(const QString& source, const QString& sourceFormat, const QString& target,
        const QString& targetFormat, QSovaAudioFormat& format,
        const std::function<bool(double)>& progress);
    // Damage met in the last file the calling thread closed after reading it: the source of its
    // last convert(), or the input of a split (QSova::ChannelDemultiplexer).
    static AUDIO_DamageReport lastConversionDamage();

protected:
    // 0 for a zero size even when closed; -1 when closed or on an engine error.
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 maxSize) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
