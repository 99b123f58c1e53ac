// The built-in handler of local files: POSIX descriptors behind the BLIO_Handler table.
// 64-bit offsets in 32-bit builds too.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "io_p.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct FileHandle
{
    int fd = -1;
    bool seekable = false;
    std::string path; // without "file://"; kept for the writability test
};

// Local paths come bare or as "file://PATH".
const char* localPath(const char* path)
{
    const size_t prefix = sova::io::schemePrefixLength(path);
    if (prefix == 7 && sova::io::equalsNoCase(path, "file://", 7))
        return path + 7;
    return path;
}

int openFlags(BLIOOPENMODE mode)
{
    switch (mode) {
    case BLIO_OPEN_READ:
        return O_RDONLY;
    case BLIO_OPEN_READWRITE:
        return O_RDWR | O_CREAT;
    case BLIO_OPEN_WRITE:
        return O_RDWR | O_CREAT | O_TRUNC;
    case BLIO_OPEN_APPEND:
        return O_RDWR | O_CREAT | O_APPEND;
    case BLIO_OPEN_WRITEONLY:
        return O_WRONLY | O_CREAT;
    default:
        return -1;
    }
}

void setOpenError(const char* path, int err)
{
    BLERROR_Set(err == ENOENT ? BLERR_NOT_FOUND : BLERR_OPEN_FAILED, "cannot open '%s': %s", path,
        std::strerror(err));
}

void* fileOpen(void*, const char* path, BLIOOPENMODE mode)
{
    const char* local = localPath(path);
    const int flags = openFlags(mode);
    if (flags < 0) {
        BLERROR_Set(BLERR_MODE_NOT_SUPPORTED, "cannot open '%s': open mode %d is not supported",
            path, static_cast<int>(mode));
        return nullptr;
    }
    if (!*local) {
        BLERROR_Set(BLERR_OPEN_FAILED, "cannot open '%s': empty file name", path);
        return nullptr;
    }
    int fd;
    if (std::strcmp(path, "-") == 0) {
        // The process's own standard streams, duplicated so that closing the handle leaves
        // them open; a shell redirection has already created or emptied the file.
        fd = ::fcntl((mode & BLIO_MODE_WRITE) ? STDOUT_FILENO : STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    } else {
        do {
            fd = ::open(local, flags | O_CLOEXEC, 0666);
        } while (fd < 0 && errno == EINTR);
    }
    if (fd < 0) {
        setOpenError(path, errno);
        return nullptr;
    }
    struct stat st;
    int err = ::fstat(fd, &st) != 0 ? errno : 0;
    if (!err && S_ISDIR(st.st_mode))
        err = EISDIR; // open(2) lets O_RDONLY through on a directory
    if (err) {
        ::close(fd);
        setOpenError(path, err);
        return nullptr;
    }
    auto* h = new (std::nothrow) FileHandle;
    if (!h) {
        ::close(fd);
        BLERROR_Set(BLERR_NO_MEMORY, "cannot open '%s': out of memory", path);
        return nullptr;
    }
    h->fd = fd;
    // Pipes, sockets and terminals refuse lseek; regular files and most devices take it.
    h->seekable = S_ISREG(st.st_mode) || ::lseek(fd, 0, SEEK_CUR) >= 0;
    h->path = local;
    return h;
}

int32_t fileClose(void* handle)
{
    auto* h = static_cast<FileHandle*>(handle);
    // close() is not retried on EINTR: Linux has released the descriptor either way. A failed
    // close (EIO, or ENOSPC and EDQUOT on network file systems) means written bytes are lost.
    const int rc = ::close(h->fd);
    const int err = rc == 0 ? 0 : errno;
    delete h;
    errno = err;
    return rc == 0 || err == EINTR ? 1 : 0;
}

int64_t fileRead(void* handle, void* buffer, int64_t count)
{
    auto* h = static_cast<FileHandle*>(handle);
    const size_t n = count > INT_MAX ? static_cast<size_t>(INT_MAX) : static_cast<size_t>(count);
    ssize_t got;
    do {
        got = ::read(h->fd, buffer, n);
    } while (got < 0 && errno == EINTR);
    return got;
}

int64_t fileWrite(void* handle, const void* buffer, int64_t count)
{
    auto* h = static_cast<FileHandle*>(handle);
    const char* p = static_cast<const char*>(buffer);
    int64_t done = 0;
    while (done < count) {
        const int64_t left = count - done;
        const size_t n = left > INT_MAX ? static_cast<size_t>(INT_MAX) : static_cast<size_t>(left);
        const ssize_t put = ::write(h->fd, p + done, n);
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return done > 0 ? done : -1;
        }
        if (put == 0)
            return done > 0 ? done : -1;
        done += put;
    }
    return done;
}

int32_t fileSeek(void* handle, int64_t offset, int32_t origin)
{
    auto* h = static_cast<FileHandle*>(handle);
    const int whence = origin == BLIO_SEEK_CUR ? SEEK_CUR
        : origin == BLIO_SEEK_END              ? SEEK_END
                                               : SEEK_SET;
    return ::lseek(h->fd, static_cast<off_t>(offset), whence) >= 0 ? 1 : 0;
}

int64_t fileSize(void* handle)
{
    auto* h = static_cast<FileHandle*>(handle);
    struct stat st;
    if (::fstat(h->fd, &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode) && !h->seekable) {
        errno = ESPIPE;
        return -1;
    }
    if (S_ISBLK(st.st_mode)) {
        const off_t here = ::lseek(h->fd, 0, SEEK_CUR);
        const off_t end = ::lseek(h->fd, 0, SEEK_END);
        ::lseek(h->fd, here, SEEK_SET);
        return end;
    }
    return st.st_size;
}

int64_t filePosition(void* handle)
{
    return ::lseek(static_cast<FileHandle*>(handle)->fd, 0, SEEK_CUR);
}

int32_t fileTruncate(void* handle, int64_t size)
{
    int rc;
    do {
        rc = ::ftruncate(static_cast<FileHandle*>(handle)->fd, static_cast<off_t>(size));
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? 1 : 0;
}

int32_t fileIsSeekable(void* handle)
{
    return static_cast<FileHandle*>(handle)->seekable ? 1 : 0;
}

BLtime toBLtime(time_t seconds, long nanoseconds)
{
    BLtime t {};
    struct tm tm;
    if (!::localtime_r(&seconds, &tm))
        return t;
    t.Year = static_cast<uint16_t>(tm.tm_year + 1900);
    t.Month = static_cast<uint16_t>(tm.tm_mon + 1);
    t.Day = static_cast<uint16_t>(tm.tm_mday);
    t.DayOfWeek = static_cast<uint16_t>(tm.tm_wday == 0 ? 7 : tm.tm_wday);
    t.DayOfYear = static_cast<uint16_t>(tm.tm_yday + 1);
    t.Hour = static_cast<uint16_t>(tm.tm_hour);
    t.Minute = static_cast<uint16_t>(tm.tm_min);
    t.Second = static_cast<uint16_t>(tm.tm_sec > 59 ? 59 : tm.tm_sec);
    t.Millisecond = static_cast<uint16_t>(nanoseconds / 1000000);
    return t;
}

int32_t fileGetInfo(void* handle, BLIO_FileInfo* info)
{
    auto* h = static_cast<FileHandle*>(handle);
    struct stat st;
    if (::fstat(h->fd, &st) != 0)
        return 0;
    info->OwnerId = st.st_uid;
    info->GroupId = st.st_gid;
    info->Size = st.st_size;
    info->AllocatedSize = static_cast<int64_t>(st.st_blocks) * 512;
    info->OriginalSize = st.st_size;
    info->LastAccess = toBLtime(st.st_atim.tv_sec, st.st_atim.tv_nsec);
    info->LastModification = toBLtime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    info->LastStatusChange = toBLtime(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
#ifdef STATX_BTIME
    struct statx sx;
    if (::statx(h->fd, "", AT_EMPTY_PATH, STATX_BTIME, &sx) == 0 && (sx.stx_mask & STATX_BTIME))
        info->Creation = toBLtime(
            static_cast<time_t>(sx.stx_btime.tv_sec), static_cast<long>(sx.stx_btime.tv_nsec));
#endif
    // access() knows about read-only mounts and the caller's rights; the bits are the fallback
    // when the name is gone (unlinked while open).
    const int rc = ::access(h->path.c_str(), W_OK);
    if (rc == 0)
        info->ReadOnly = 0;
    else if (errno == ENOENT)
        info->ReadOnly = (st.st_mode & 0222) == 0 ? 1 : 0;
    else
        info->ReadOnly = 1;
    info->RandomAccess = h->seekable ? 1 : 0;
    info->RegularFile = S_ISREG(st.st_mode) ? 1 : 0;
    info->Directory = S_ISDIR(st.st_mode) ? 1 : 0;
    return 1;
}

int32_t fileRemove(void*, const char* path)
{
    if (std::strcmp(path, "-") == 0) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot remove '-': it names a standard stream");
        return 0;
    }
    if (::unlink(localPath(path)) != 0) {
        BLERROR_Set(errno == ENOENT ? BLERR_NOT_FOUND : BLERR_IO, "cannot remove '%s': %s", path,
            std::strerror(errno));
        return 0;
    }
    return 1;
}

int32_t fileRename(void*, const char* from, const char* to)
{
    if (::rename(localPath(from), localPath(to)) != 0) {
        BLERROR_Set(errno == ENOENT ? BLERR_NOT_FOUND : BLERR_IO, "cannot rename '%s' to '%s': %s",
            from, to, std::strerror(errno));
        return 0;
    }
    return 1;
}

int32_t fileExists(const char* path)
{
    struct stat st;
    return ::stat(localPath(path), &st) == 0 ? 1 : 0;
}

int32_t fileKind(void*, const char*)
{
    return BLIO_KIND_LOCAL;
}

} // namespace

namespace sova::io {

// No Flush slot: write(2) has handed the bytes to the kernel already, and fsync on every
// flush would cost hosts far more than they ask for. No IsEOF slot: the layer compares the
// position with the size for files and reads ahead on pipes.
BLIO_Handler fileHandler = {
    "file",
    nullptr,
    BLIO_MODE_READ | BLIO_MODE_WRITE | BLIO_MODE_TRUNCATE | BLIO_MODE_APPEND,
    fileOpen,
    fileClose,
    fileRead,
    fileWrite,
    fileSeek,
    fileSize,
    filePosition,
    fileTruncate,
    nullptr,
    fileIsSeekable,
    nullptr,
    nullptr,
    fileGetInfo,
    fileRemove,
    fileRename,
    nullptr,
    nullptr,
    nullptr,
    fileExists,
    fileKind,
    nullptr,
};

} // namespace sova::io
