#include "qsovaaudiofile.h"

#include "qsovaaudioformat.h"
#include "qsovafile.h"

#include <algorithm>

struct QSovaAudioFile::Private
{
    QString fileName;
    QString formatString;
    SampleKind kind = Int16;
    AUDIOFILE* handle = nullptr;
    _audio_format format;
    bool isOpen = false;
    bool writing = false;
    qint64 expectedFrames = 0;
    ClipReport clips;

    // Keeps the writer's clip report for after the handle is gone.
    void saveClips()
    {
        int64_t clipped = 0;
        double peak = 0.0;
        if (writing && AUDIO_GetClipReport(handle, &clipped, &peak))
            clips = {clipped, peak};
    }

    // Whole frames in size bytes (a partial frame is never transferred); -1 when nothing can
    // be transferred: closed, or a kind without a frame size.
    qint64 framesIn(qint64 size, qint64 frameSize) const
    {
        if (!isOpen || frameSize <= 0)
            return -1;
        const qint64 frames = size / frameSize;
        return frames < 0 ? -1 : frames;
    }
};

QSovaAudioFile::QSovaAudioFile(
    const QString& fileName, const QString& formatString, SampleKind kind)
    : d(new Private)
{
    d->fileName = fileName;
    d->formatString = formatString;
    d->kind = kind;
    AUDIO_NullFormat(&d->format);
}

QSovaAudioFile::QSovaAudioFile(
    const QString& fileName, const QString& formatString, const QSovaAudioFormat& format)
    : d(new Private)
{
    d->fileName = fileName;
    d->formatString = formatString;
    d->kind = IEEEFloat;
    d->format = format;
}

QSovaAudioFile::QSovaAudioFile(QSovaFile* file, const QString& formatString, SampleKind kind)
    : QSovaAudioFile(file ? file->metaFilename() : QString(), formatString, kind)
{
}

QSovaAudioFile::~QSovaAudioFile()
{
    close();
}

bool QSovaAudioFile::open(OpenMode mode)
{
    if (d->fileName.isNull())
        return false;
    if (mode != ReadOnly && mode != WriteOnly)
        return false;
    if (d->isOpen)
        return false;
    const QByteArray name = d->fileName.toUtf8();
    const QByteArray format = d->formatString.toUtf8();
    if (mode == ReadOnly) {
        d->handle = AUDIO_LoadFileEx2(name.constData(), format.constData(), 0, 0, 0);
    } else {
        // Without a usable preset the engine takes everything from the format string.
        const _audio_format* preset = AUDIO_IsValidFormat(&d->format) ? &d->format : nullptr;
        d->handle = AUDIO_CreateFileEx2(name.constData(), format.constData(), preset, -1, -1, 0,
            nullptr, std::max<qint64>(0, d->expectedFrames));
        d->clips = ClipReport();
    }
    if (!d->handle || !AUDIO_GetAudioFileFormat(d->handle, &d->format))
        return false;
    d->isOpen = true;
    d->writing = mode == WriteOnly;
    QIODevice::open(mode);
    return true;
}

void QSovaAudioFile::close()
{
    if (!d->isOpen)
        return;
    d->saveClips();
    AUDIO_CloseFile(d->handle);
    d->handle = nullptr;
    d->isOpen = false;
    QIODevice::close();
}

void QSovaAudioFile::abandon()
{
    if (!d->isOpen)
        return;
    d->saveClips();
    AUDIO_AbandonFile(d->handle);
    d->handle = nullptr;
    d->isOpen = false;
    QIODevice::close();
}

bool QSovaAudioFile::isSequential() const
{
    return true;
}

qint64 QSovaAudioFile::size() const
{
    if (!d->isOpen)
        return -1;
    const qint64 frames = AUDIO_Length(d->handle);
    if (frames < 0)
        return -1;
    return frames * frameSize();
}

bool QSovaAudioFile::atEnd() const
{
    if (!d->isOpen || openMode() != ReadOnly)
        return QIODevice::atEnd();
    if (bytesAvailable() > 0)
        return false;
    // Only a read can tell: peek one frame (it stays in the device's buffer).
    return const_cast<QSovaAudioFile*>(this)->peek(frameSize()).isEmpty();
}

bool QSovaAudioFile::isLengthExact() const
{
    return d->isOpen && AUDIO_LengthIsExact(d->handle) != 0;
}

qint64 QSovaAudioFile::countSamples()
{
    return d->isOpen ? AUDIO_CountFrames(d->handle) : -1;
}

AUDIO_DamageReport QSovaAudioFile::damageReport() const
{
    AUDIO_DamageReport report {0, 0, -1.0, 0.0, 0};
    if (d->isOpen && openMode() == ReadOnly)
        AUDIO_GetDamageReport(d->handle, &report);
    return report;
}

AUDIO_DamageReport QSovaAudioFile::lastConversionDamage()
{
    AUDIO_DamageReport report {0, 0, -1.0, 0.0, 0};
    AUDIO_LastConversionDamage(&report);
    return report;
}

qint64 QSovaAudioFile::readData(char* data, qint64 maxSize)
{
    if (maxSize == 0)
        return 0;
    const qint64 bytesPerFrame = frameSize();
    const qint64 frames = d->framesIn(maxSize, bytesPerFrame);
    if (frames < 0)
        return -1;
    qint64 done;
    switch (d->kind) {
    case Int16:
        done = AUDIO_Read16(d->handle, reinterpret_cast<int16_t*>(data), frames);
        break;
    case Float:
        done = AUDIO_ReadFloat(d->handle, reinterpret_cast<float*>(data), frames);
        break;
    case IEEEFloat:
        done = AUDIO_ReadIEEEFloat(d->handle, reinterpret_cast<float*>(data), frames);
        break;
    default:
        return -1;
    }
    return done < 0 ? -1 : done * bytesPerFrame;
}

qint64 QSovaAudioFile::writeData(const char* data, qint64 maxSize)
{
    if (maxSize == 0)
        return 0;
    const qint64 bytesPerFrame = frameSize();
    const qint64 frames = d->framesIn(maxSize, bytesPerFrame);
    if (frames < 0)
        return -1;
    qint64 done;
    switch (d->kind) {
    case Int16:
        done = AUDIO_Write16(d->handle, reinterpret_cast<const int16_t*>(data), frames);
        break;
    case Float:
        done = AUDIO_WriteFloat(d->handle, reinterpret_cast<const float*>(data), frames);
        break;
    case IEEEFloat:
        done = AUDIO_WriteIEEEFloat(d->handle, reinterpret_cast<const float*>(data), frames);
        break;
    default:
        return -1;
    }
    return done < 0 ? -1 : done * bytesPerFrame;
}

void QSovaAudioFile::writeSamples(const QVector<float>& samples)
{
    write(reinterpret_cast<const char*>(samples.constData()),
        qint64(samples.size()) * qint64(sizeof(float)));
}

qint64 QSovaAudioFile::numSamples() const
{
    return d->isOpen ? AUDIO_Length(d->handle) : -1;
}

double QSovaAudioFile::duration() const
{
    return d->isOpen ? AUDIO_Duration(d->handle) : 0.0;
}

int QSovaAudioFile::sampleRate() const
{
    return d->isOpen ? d->format.sampleRate : 0;
}

int QSovaAudioFile::numChannels() const
{
    return d->isOpen ? d->format.numChannels : 0;
}

int QSovaAudioFile::frameSize() const
{
    switch (d->kind) {
    case Int16:
        return d->format.numChannels * 2;
    case Float:
    case IEEEFloat:
        return d->format.numChannels * 4;
    default:
        return 0;
    }
}

QSovaAudioFile::SampleKind QSovaAudioFile::sampleKind() const
{
    return d->kind;
}

QSovaAudioFormat QSovaAudioFile::format() const
{
    return QSovaAudioFormat(&d->format);
}

QSovaAudioFile::ClipReport QSovaAudioFile::clipReport() const
{
    if (d->isOpen)
        d->saveClips();
    return d->clips;
}

QSovaAudioFile::ClipReport QSovaAudioFile::lastClipReport()
{
    ClipReport report;
    int64_t clipped = 0;
    if (AUDIO_GetLastClipReport(&clipped, &report.peak))
        report.clippedSamples = clipped;
    else
        report.peak = 0.0;
    return report;
}

void QSovaAudioFile::setExpectedFrames(qint64 frames)
{
    d->expectedFrames = frames;
}

double QSovaAudioFile::duration(const QString& fileName, const QString& formatString)
{
    return AUDIO_GetAudioFileDurationEx(
        fileName.toUtf8().constData(), formatString.toUtf8().constData());
}

bool QSovaAudioFile::convert(const QString& source, const QString& sourceFormat,
    const QString& target, const QString& targetFormat, QSovaAudioFormat& format)
{
    const QByteArray sourceName = source.toUtf8();
    return AUDIO_ConvertEx(nullptr, source.isEmpty() ? nullptr : sourceName.constData(),
               sourceFormat.toUtf8().constData(), target.toUtf8().constData(),
               targetFormat.toUtf8().constData(), format)
        == 1;
}

bool QSovaAudioFile::convert(const QString& source, const QString& sourceFormat,
    const QString& target, const QString& targetFormat, QSovaAudioFormat& format,
    const std::function<bool(double)>& progress)
{
    if (!progress)
        return convert(source, sourceFormat, target, targetFormat, format);
    AUDIO_Progress report;
    report.user = const_cast<std::function<bool(double)>*>(&progress);
    report.report = [](void* user, double fraction) -> int32_t {
        return (*static_cast<const std::function<bool(double)>*>(user))(fraction) ? 0 : 1;
    };
    const QByteArray sourceName = source.toUtf8();
    return AUDIO_ConvertEx(&report, source.isEmpty() ? nullptr : sourceName.constData(),
               sourceFormat.toUtf8().constData(), target.toUtf8().constData(),
               targetFormat.toUtf8().constData(), format)
        == 1;
}

bool QSovaAudioFile::convert(const QString& source, const QString& sourceFormat,
    const QString& target, const QString& targetFormat)
{
    QSovaAudioFormat format;
    return convert(source, sourceFormat, target, targetFormat, format);
}
