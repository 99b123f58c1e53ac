#include "qsovafile.h"

#include <QByteArray>

struct QSovaFile::Private
{
    QString fileName;
    _HFile* handle = nullptr;
    QIODevice::OpenMode openMode; // the wrapped handle's mode; stays NotOpen when opened by name
    bool ownsHandle = true;
    bool isOpen = false;
};

namespace {

// The mode descriptor of the I/O layer for a Qt open mode and the caller's meta options.
QByteArray modeDescriptor(QIODevice::OpenMode mode, const QString& meta)
{
    const bool readWrite = (mode & QIODevice::ReadWrite) == QIODevice::ReadWrite;
    if (meta.isEmpty()) {
        if (readWrite)
            return QByteArrayLiteral("rw");
        if (mode & QIODevice::WriteOnly)
            return QByteArrayLiteral("w");
        if (mode & QIODevice::Append)
            return QByteArrayLiteral("a");
        // Plain reads are always buffered.
        return QByteArrayLiteral("r[buffered=1]");
    }
    const QByteArray text = meta.toUtf8();
    // "r[...]", "rw[...]": the caller already wrote the whole descriptor.
    if (text.size() >= 3 && (text.at(1) == '[' || text.at(2) == '['))
        return text;
    const char* prefix = readWrite      ? "rw["
        : (mode & QIODevice::WriteOnly) ? "w["
        : (mode & QIODevice::Append)    ? "a["
                                        : "r[";
    return prefix + text + ']';
}

// The Qt open mode of a handle's mode code; NotOpen for codes without one.
QIODevice::OpenMode qtModeOf(BLIOOPENMODE code)
{
    switch (code) {
    case BLIO_OPEN_READ:
        return QIODevice::ReadOnly;
    case BLIO_OPEN_WRITEONLY:
        return QIODevice::WriteOnly;
    case BLIO_OPEN_READWRITE:
        return QIODevice::ReadWrite;
    // The bare Truncate and Append flags, without WriteOnly: hosts compare openMode() with
    // these values to learn how the handle was opened, so they stay as they are.
    case BLIO_OPEN_WRITE:
        return QIODevice::Truncate;
    case BLIO_OPEN_APPEND:
        return QIODevice::Append;
    default:
        return QIODevice::NotOpen;
    }
}

// Fills the layer's buffer now, so that the first read of a reader finds it ready.
void prefetch(_HFile* handle)
{
    const int32_t c = BLIO_ReadChar(handle);
    BLIO_UnReadChar(handle, c);
}

} // namespace

QSovaFile::QSovaFile()
    : d(new Private)
{
}

QSovaFile::QSovaFile(const QString& name)
    : d(new Private)
{
    d->fileName = name;
}

// meta is dropped on purpose: hosts built on this constructor pass their options to open(),
// and would get them twice if they were kept here.
QSovaFile::QSovaFile(const QString& name, const QString& /*meta*/)
    : QSovaFile(name)
{
}

QSovaFile::QSovaFile(_HFile* handle, bool owns)
    : d(new Private)
{
    const QIODevice::OpenMode mode = qtModeOf(BLIO_CurrentOpenMode(handle));
    if (mode == QIODevice::NotOpen || !handle)
        return;
    d->openMode = mode;
    d->handle = handle;
    d->ownsHandle = owns;
    d->isOpen = true;
    QIODevice::open(mode);
    if (mode == QIODevice::ReadOnly)
        prefetch(handle);
}

QSovaFile::~QSovaFile()
{
    if (d->ownsHandle && d->isOpen && d->handle)
        BLIO_CloseFile(d->handle);
}

bool QSovaFile::open(OpenMode mode, const QString& meta)
{
    if (!d->ownsHandle) {
        // A borrowed handle is never really closed: reopening only flips the flag back.
        if (mode != d->openMode || d->isOpen)
            return false;
        QIODevice::open(mode);
        d->isOpen = true;
        return true;
    }
    if (d->fileName.isNull() || d->handle)
        return false;
    const QByteArray descriptor = modeDescriptor(mode, meta);
    if (d->isOpen)
        return false;
    d->handle = BLIO_Open(d->fileName.toUtf8().constData(), descriptor.constData());
    d->isOpen = d->handle != nullptr;
    if (!d->handle)
        return false;
    QIODevice::open(mode);
    if (mode == QIODevice::ReadOnly)
        prefetch(d->handle);
    return true;
}

bool QSovaFile::open(OpenMode mode)
{
    return open(mode, QString());
}

void QSovaFile::close()
{
    if (!d->isOpen)
        return;
    if (d->ownsHandle && d->handle) {
        const int32_t closed = BLIO_CloseFile(d->handle);
        d->handle = nullptr;
        d->isOpen = false;
        // The device keeps reporting itself open after a failed close: hosts take isOpen()
        // after close() as the sign that the last writes may be lost.
        if (!closed)
            return;
    } else {
        d->isOpen = false;
    }
    QIODevice::close();
}

qint64 QSovaFile::size() const
{
    return d->handle ? BLIO_FileSize(d->handle) : 0;
}

bool QSovaFile::seek(qint64 pos)
{
    if (!d->handle || !d->isOpen)
        return false;
    if (BLIO_Seek(d->handle, pos, BLIO_SEEK_SET) != 1)
        return false;
    QIODevice::seek(pos);
    return true;
}

bool QSovaFile::isSequential() const
{
    if (d->handle)
        return !BLIO_IsSeekable(d->handle);
    return QIODevice::isSequential();
}

QString QSovaFile::metaFilename() const
{
    char buffer[BLIO_MAX_META_DESCR + 512] = {};
    BLIO_ComposeMetaHFileDescr(buffer, d->handle);
    return QString::fromUtf8(buffer);
}

_HFile* QSovaFile::internalFilePointer() const
{
    return d->handle;
}

QSovaFile::operator _HFile*() const
{
    return d->handle;
}

qint64 QSovaFile::copyTo(const QString& path, qint64 offset, qint64 length)
{
    if (!d->handle)
        return -1;
    _HFile* destination = BLIO_Open(path.toUtf8().constData(), "w");
    // With length 0 the empty destination stays created and its handle open: hosts use this
    // call to create the file they then find by name, so it is left as it is.
    if (!destination || length == 0)
        return -1;
    qint64 copied;
    if (length > 0 || offset > 0)
        copied = BLIO_CopyHFileChunkToHFile(d->handle, offset, length, destination);
    else
        copied = BLIO_CopyHFileToHFile(d->handle, destination);
    // Bytes still buffered go out at the close: a copy that lost them is no copy.
    if (!BLIO_CloseFile(destination))
        return -1;
    return copied;
}

qint64 QSovaFile::readData(char* data, qint64 maxSize)
{
    if (maxSize == 0)
        return 0;
    if (!d->handle || !d->isOpen)
        return -1;
    return BLIO_ReadData(d->handle, data, maxSize);
}

qint64 QSovaFile::writeData(const char* data, qint64 maxSize)
{
    if (maxSize == 0)
        return 0;
    if (!d->handle || !d->isOpen)
        return -1;
    return BLIO_WriteData(d->handle, data, maxSize);
}
