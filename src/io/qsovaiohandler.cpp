#include "qsovaiohandler.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>

#include <cstdio>
#include <cstring>

namespace {

struct QtIOHandle {
    QIODevice* device;
    bool owned; // the handle created the device ("qfile") and deletes it at close
};

constexpr uintptr_t kAllModes = BLIO_MODE_READ | BLIO_MODE_WRITE | BLIO_MODE_TRUNCATE
                                | BLIO_MODE_APPEND;
static_assert(kAllModes == 30, "the Qt handlers accept every open mode");

QIODevice::OpenMode _translateOpenMode(BLIOOPENMODE mode)
{
    switch (mode) {
    case BLIO_OPEN_READ:
    // Write-only opens read-only here, and hosts rely on it: keep it.
    case BLIO_OPEN_WRITEONLY:
        return QIODevice::ReadOnly;
    case BLIO_OPEN_READWRITE:
    case BLIO_OPEN_WRITE:
        return QIODevice::ReadWrite;
    case BLIO_OPEN_APPEND:
        return QIODevice::Append;
    default:
        return QIODevice::NotOpen;
    }
}

void _ConvertQDateTimeToBLtime(const QDateTime& value, BLtime* out)
{
    const QDate date = value.date();
    const QTime time = value.time();
    out->Year = static_cast<uint16_t>(date.year());
    out->Month = static_cast<uint16_t>(date.month());
    out->Day = static_cast<uint16_t>(date.day());
    out->DayOfWeek = static_cast<uint16_t>(date.dayOfWeek());
    out->DayOfYear = static_cast<uint16_t>(date.dayOfYear());
    out->Hour = static_cast<uint16_t>(time.hour());
    out->Minute = static_cast<uint16_t>(time.minute());
    out->Second = static_cast<uint16_t>(time.second());
    out->Millisecond = static_cast<uint16_t>(time.msec());
}

QIODevice* deviceOf(void* handle)
{
    return handle ? static_cast<QtIOHandle*>(handle)->device : nullptr;
}

void* _QTSOVAIO_OpenFile(void*, const char* path, BLIOOPENMODE mode)
{
    if (!path)
        return nullptr;
    const QIODevice::OpenMode qtMode = _translateOpenMode(mode);
    if (qtMode == QIODevice::NotOpen)
        return nullptr;
    // The name follows the eight characters of "qfile://"; the prefix itself is not checked.
    // A shorter text has no name, and must not be read past its end.
    if (strnlen(path, 8) < 8)
        return nullptr;
    auto* file = new QFile(QString::fromUtf8(path + 8));
    if (!file->open(qtMode)) {
        delete file;
        return nullptr;
    }
    // A create opens read-write, which keeps what the file held: an encoder writing a shorter
    // file over a longer one would leave the old tail for a reader to decode as audio.
    if (mode == BLIO_OPEN_WRITE && file->size() > 0 && !file->isSequential()
        && !file->resize(0)) {
        delete file;
        return nullptr;
    }
    return new QtIOHandle{file, true};
}

void* _QTSOVAIO_OpenQIODevice(void*, const char* path, BLIOOPENMODE)
{
    if (!path)
        return nullptr;
    void* address = nullptr;
    if (std::sscanf(path, "qiodevice://%p", &address) != 1 || !address)
        return nullptr;
    return new QtIOHandle{static_cast<QIODevice*>(address), false};
}

int32_t _QTSOVAIO_CloseFile(void* handle)
{
    auto* h = static_cast<QtIOHandle*>(handle);
    if (!h || !h->device)
        return 0;
    bool ok = true;
    if (h->owned) {
        // QFile holds back what was written until it flushes; deleting it would flush and
        // forget a failure (a full disk), and the engine would take a cut file for a whole one.
        auto* file = qobject_cast<QFileDevice*>(h->device);
        if (file && file->isWritable()) {
            ok = file->flush();
            file->close();
            ok = ok && file->error() == QFileDevice::NoError;
        }
        delete h->device;
    }
    delete h;
    return ok ? 1 : 0;
}

int64_t _QTSOVAIO_ReadData(void* handle, void* buffer, int64_t count)
{
    QIODevice* device = deviceOf(handle);
    if (!device)
        return -1;
    return device->read(static_cast<char*>(buffer), count);
}

int64_t _QTSOVAIO_WriteData(void* handle, const void* buffer, int64_t count)
{
    QIODevice* device = deviceOf(handle);
    if (!device)
        return -1;
    return device->write(static_cast<const char*>(buffer), count);
}

int32_t _QTSOVAIO_Seek(void* handle, int64_t offset, int32_t origin)
{
    QIODevice* device = deviceOf(handle);
    if (!device)
        return 0;
    qint64 target = offset;
    if (origin == BLIO_SEEK_CUR)
        target = device->pos() + offset;
    else if (origin == BLIO_SEEK_END)
        target = device->size() + offset;
    return device->seek(target) ? 1 : 0;
}

int64_t _QTSOVAIO_FileSize(void* handle)
{
    QIODevice* device = deviceOf(handle);
    return device ? device->size() : -1;
}

int64_t _QTSOVAIO_FilePosition(void* handle)
{
    QIODevice* device = deviceOf(handle);
    return device ? device->pos() : -1;
}

int32_t _QTSOVAIO_IsEOF(void* handle)
{
    QIODevice* device = deviceOf(handle);
    if (!device)
        return 1;
    // Not atEnd(): a sequential device of unknown size is at its end only when pos equals size.
    return device->pos() == device->size() ? 1 : 0;
}

int32_t _QTSOVAIO_Flush(void* handle)
{
    auto* file = qobject_cast<QFile*>(deviceOf(handle));
    return file ? (file->flush() ? 1 : 0) : 0;
}

int32_t _QTSOVAIO_GetFileInfo(void* handle, BLIO_FileInfo* info)
{
    QIODevice* device = deviceOf(handle);
    auto* file = qobject_cast<QFile*>(device);
    if (!file || !info)
        return 0;
    const QFileInfo fi(*file);
    info->OwnerId = fi.ownerId();
    info->GroupId = fi.groupId();
    // Qt knows one size and two times; the fields it cannot know repeat them, as hosts expect.
    info->Size = fi.size();
    info->AllocatedSize = fi.size();
    info->OriginalSize = fi.size();
    _ConvertQDateTimeToBLtime(fi.lastRead(), &info->LastAccess);
    _ConvertQDateTimeToBLtime(fi.lastModified(), &info->LastModification);
    _ConvertQDateTimeToBLtime(fi.lastModified(), &info->LastStatusChange);
    info->ReadOnly = fi.isWritable() ? 0 : 1;
    info->RandomAccess = device->isSequential() ? 0 : 1;
    info->RegularFile = fi.isFile() ? 1 : 0;
    return 1;
}

int32_t _QTSOVAIO_FileExists(const char* path)
{
    if (!path)
        return 0;
    const char* colon = std::strchr(path, ':');
    // Any scheme will do: only the "://" and a name after it are required.
    if (!colon || colon[1] != '/' || colon[2] != '/' || colon[3] == '\0')
        return 0;
    return QFileInfo::exists(QString::fromUtf8(colon + 3)) ? 1 : 0;
}

int32_t _QTSOVAIO_FileKind(void*, const char*)
{
    return BLIO_KIND_HOSTED;
}

} // namespace

extern "C" {

BLIO_Handler QTSOVA_QFileHandler = {
    "qfile",
    nullptr,
    kAllModes,
    _QTSOVAIO_OpenFile,
    _QTSOVAIO_CloseFile,
    _QTSOVAIO_ReadData,
    _QTSOVAIO_WriteData,
    _QTSOVAIO_Seek,
    _QTSOVAIO_FileSize,
    _QTSOVAIO_FilePosition,
    nullptr,
    _QTSOVAIO_IsEOF,
    nullptr,
    nullptr,
    _QTSOVAIO_Flush,
    _QTSOVAIO_GetFileInfo,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    _QTSOVAIO_FileExists,
    _QTSOVAIO_FileKind,
    nullptr,
};

BLIO_Handler QTSOVA_QIODeviceHandler = {
    "qiodevice",
    nullptr,
    kAllModes,
    _QTSOVAIO_OpenQIODevice,
    _QTSOVAIO_CloseFile,
    _QTSOVAIO_ReadData,
    _QTSOVAIO_WriteData,
    _QTSOVAIO_Seek,
    _QTSOVAIO_FileSize,
    _QTSOVAIO_FilePosition,
    nullptr,
    _QTSOVAIO_IsEOF,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    _QTSOVAIO_FileKind,
    nullptr,
};

int QTSOVAIO_AddQFileHandler()
{
    if (!BLIO_AddIOHandler(&QTSOVA_QFileHandler))
        return 0;
    return BLIO_AddIOHandler(&QTSOVA_QIODeviceHandler) ? 1 : 0;
}

int QTSOVAIO_DelQFileHandler()
{
    if (!BLIO_DelIOHandler(&QTSOVA_QIODeviceHandler))
        return 0;
    return BLIO_DelIOHandler(&QTSOVA_QFileHandler) ? 1 : 0;
}

} // extern "C"
