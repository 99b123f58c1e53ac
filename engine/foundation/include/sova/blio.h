/* The I/O layer: files reached through pluggable path schemes.
 *
 * Paths. "scheme://rest" goes to the handler registered for "scheme" (letters, digits, '+',
 * '-', '.'; first a letter; compared without regard to case). Any other text is a local path.
 * Built in: local paths and "file://PATH" (POSIX descriptors), and "hfile://" meta
 * descriptors (below). A path whose scheme is not registered fails with BLERR_UNKNOWN_SCHEME.
 * The path "-" alone is the process's standard output when opened with a write mode and its
 * standard input otherwise (a duplicate descriptor: closing it leaves the stream open; nothing
 * is created or emptied); a file named "-" is reached as "./-" or "file://-".
 *
 * Open descriptors: a mode, optionally followed by options in brackets:
 *     "r"   read                                             mode code 2
 *     "rw"  read and write; created when missing, kept        mode code 6
 *     "w"   write (reading back allowed); created or emptied  mode code 14
 *     "a"   append: every write goes to the end; created      mode code 22
 *     "wo"  write only, never read back; created, not emptied mode code 4
 * Options are an option string (see blstring.h), for example "r[buffered=1,bufsize=65536]":
 *     buffered  boolean, default 1: the layer keeps a buffer between caller and handler
 *     bufsize   bytes of that buffer, 512 to 64 MiB, default 65536
 * Unknown options are ignored; blanks around the mode are not allowed.
 *
 * The mode codes are made of these bits; the five codes above are the only ones in use. A
 * handler's flag word (slot 2) is the set of bits it accepts: 30 accepts every mode. */
#ifndef SOVA_BLIO_H
#define SOVA_BLIO_H

#include <stddef.h>
#include <stdint.h>

#include <sova/blerror.h>
#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t BLIOOPENMODE;

#define BLIO_MODE_READ 0x02     /* may be read */
#define BLIO_MODE_WRITE 0x04    /* may be written */
#define BLIO_MODE_TRUNCATE 0x08 /* emptied (or created) at open */
#define BLIO_MODE_APPEND 0x10   /* writes always go to the end */

#define BLIO_OPEN_READ 2        /* "r" */
#define BLIO_OPEN_WRITEONLY 4   /* "wo" */
#define BLIO_OPEN_READWRITE 6   /* "rw" */
#define BLIO_OPEN_WRITE 14      /* "w" */
#define BLIO_OPEN_APPEND 22     /* "a" */

/* Kind codes returned by a handler's Kind slot and by BLIO_FileKind. */
#define BLIO_KIND_NONE 0    /* no handler, or nothing there */
#define BLIO_KIND_LOCAL 1   /* local files of this machine */
#define BLIO_KIND_HOSTED 2  /* files served by the host program's own callbacks */
#define BLIO_KIND_REMOTE 3  /* files reached over a network */

/* Seek origins. */
#define BLIO_SEEK_SET 0
#define BLIO_SEEK_CUR 1
#define BLIO_SEEK_END 2

/* Largest meta descriptor that BLIO_ComposeMetaHFileDescr writes, terminator included. */
#define BLIO_MAX_META_DESCR 64

/* Broken-down time, local to the file system that gave it (no time-zone conversion). */
typedef struct BLtime {
    uint16_t Year;
    uint16_t Month;     /* 1 to 12 */
    uint16_t Day;       /* 1 to 31 */
    uint16_t DayOfWeek; /* 1 = Monday to 7 = Sunday */
    uint16_t DayOfYear; /* 1 to 366 */
    uint16_t Hour;
    uint16_t Minute;
    uint16_t Second;
    uint16_t Millisecond;
} BLtime;

/* What a file-information call fills. Handlers may leave fields they cannot know as the caller
 * had them; clear the record first. */
typedef struct BLIO_FileInfo {
    uint32_t OwnerId;
    uint32_t GroupId;
    int64_t Size;          /* bytes of content */
    int64_t AllocatedSize; /* bytes the file takes on its device; Size when unknown */
    int64_t OriginalSize;  /* bytes before any encoding the scheme applies; Size when none */
    BLtime LastAccess;
    BLtime LastModification;
    BLtime LastStatusChange; /* metadata change; last modification when unknown */
    BLtime Creation;         /* left alone when unknown */
    uint8_t ReadOnly;        /* 1 when the file cannot be written */
    uint8_t RandomAccess;    /* 1 when the file can be sought */
    uint8_t RegularFile;     /* 1 for a regular file */
    uint8_t Directory;       /* 1 for a directory */
    uint8_t Reserved[4];
} BLIO_FileInfo;

/* A handler for one scheme: 24 pointer-sized slots in this order. An empty (null) slot means
 * the operation is not offered. The record is not copied: it must stay in place, and be left
 * unchanged, from BLIO_AddIOHandler until BLIO_DelIOHandler, and as long as files opened
 * through it are open. Every callback receives what Open returned as its handle. */
typedef struct BLIO_Handler {
    const char* Scheme; /* 0: scheme name without "://" */
    void* Context;      /* 1: passed to Open, Remove, Rename and Kind */
    uintptr_t Flags;    /* 2: BLIO_MODE_* bits accepted; others refused before Open */
    /* 3: opens the whole path (scheme included); null on failure */
    void* (*Open)(void* context, const char* path, BLIOOPENMODE mode);
    int32_t (*Close)(void* handle);                                   /* 4: 1 when closed */
    int64_t (*Read)(void* handle, void* buffer, int64_t count);       /* 5: bytes, -1 error */
    int64_t (*Write)(void* handle, const void* buffer, int64_t count); /* 6: bytes, -1 */
    int32_t (*Seek)(void* handle, int64_t offset, int32_t origin);     /* 7: 1 when done */
    int64_t (*Size)(void* handle);                                     /* 8: bytes, -1 */
    int64_t (*Position)(void* handle);                                 /* 9: bytes, -1 */
    int32_t (*Truncate)(void* handle, int64_t size);                   /* 10: 1 when done */
    int32_t (*IsEOF)(void* handle);                                    /* 11: 1 at the end */
    int32_t (*IsSeekable)(void* handle); /* 12: 1 when seekable; empty: Seek slot decides */
    void* Reserved13;
    int32_t (*Flush)(void* handle);                                    /* 14: 1 when done */
    int32_t (*GetFileInfo)(void* handle, BLIO_FileInfo* info);         /* 15: 1 when filled */
    int32_t (*Remove)(void* context, const char* path);                /* 16: 1 when removed */
    int32_t (*Rename)(void* context, const char* from, const char* to); /* 17: 1 when done */
    void* Reserved18;
    void* Reserved19;
    void* Reserved20;
    int32_t (*Exists)(const char* path);                /* 21: 1 when the path exists */
    int32_t (*Kind)(void* context, const char* path);   /* 22: BLIO_KIND_* */
    void* Reserved23;
} BLIO_Handler;

/* Hosts exchange these records with the library by address: their layouts are fixed. */
#ifdef __cplusplus
#define BLIO_STATIC_ASSERT static_assert
#else
#define BLIO_STATIC_ASSERT _Static_assert
#endif
BLIO_STATIC_ASSERT(sizeof(BLtime) == 18, "time record: nine 16-bit fields");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, Size) == 8, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, LastAccess) == 32, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, LastModification) == 50, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, LastStatusChange) == 68, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, Creation) == 86, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, ReadOnly) == 104, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, RandomAccess) == 105, "file information layout");
BLIO_STATIC_ASSERT(offsetof(BLIO_FileInfo, RegularFile) == 106, "file information layout");
BLIO_STATIC_ASSERT(sizeof(BLIO_Handler) == 24 * sizeof(void*), "handler record: 24 slots");
BLIO_STATIC_ASSERT(offsetof(BLIO_Handler, Flags) == 2 * sizeof(void*), "handler record");
BLIO_STATIC_ASSERT(offsetof(BLIO_Handler, IsEOF) == 11 * sizeof(void*), "handler record");
BLIO_STATIC_ASSERT(offsetof(BLIO_Handler, Flush) == 14 * sizeof(void*), "handler record");
BLIO_STATIC_ASSERT(offsetof(BLIO_Handler, Exists) == 21 * sizeof(void*), "handler record");
BLIO_STATIC_ASSERT(offsetof(BLIO_Handler, Kind) == 22 * sizeof(void*), "handler record");
#undef BLIO_STATIC_ASSERT

/* An open file. Opaque; one thread at a time. */
typedef struct _HFile _HFile;

/* Registers a handler. 1 on success; 0 when the record is null or incomplete (no scheme, Open
 * or Close), or its scheme is taken. The record is kept by address, not copied. */
SOVAFOUNDATION_EXPORT int32_t BLIO_AddIOHandler(BLIO_Handler* handler);

/* Removes a handler that BLIO_AddIOHandler added. 1 on success, 0 when it was not registered
 * (the built-in handlers cannot be removed). Files already open through it stay usable. */
SOVAFOUNDATION_EXPORT int32_t BLIO_DelIOHandler(BLIO_Handler* handler);

/* Opens a path with an open descriptor (see the top of this file). A new handle, or null with
 * the reason in BLERROR_LastMessage(). */
SOVAFOUNDATION_EXPORT _HFile* BLIO_Open(const char* path, const char* descriptor);

/* Flushes and closes. 1 on success; 0 when the flush or the handler's close failed, when a
 * write, seek or flush of a handle open for writing ever failed (some bytes are missing or out
 * of place; the first failure's reason is recorded again), or the handle is null. The handle is
 * freed all the same. */
SOVAFOUNDATION_EXPORT int32_t BLIO_CloseFile(_HFile* file);

/* Reads up to count bytes. The count read (0 at the end), -1 on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_ReadData(_HFile* file, void* buffer, int64_t count);

/* Writes count bytes. The count written, -1 on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_WriteData(_HFile* file, const void* buffer, int64_t count);

/* Moves to offset from origin BLIO_SEEK_SET (and any unknown origin), _CUR or _END.
 * 1 on success, 0 on failure (the position is then unchanged). */
SOVAFOUNDATION_EXPORT int32_t BLIO_Seek(_HFile* file, int64_t offset, int32_t origin);

/* Size in bytes, pending writes included; -1 when unknown or on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_FileSize(_HFile* file);

/* Position in bytes from the start; -1 on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_FilePosition(_HFile* file);

/* 1 when nothing is left to read (or for a null handle), else 0. */
SOVAFOUNDATION_EXPORT int32_t BLIO_IsEndOfFile(_HFile* file);

/* Hands pending writes to the handler and asks it to flush. 1 on success; 0 also when an
 * earlier write, seek or flush of the handle failed (as for BLIO_CloseFile). */
SOVAFOUNDATION_EXPORT int32_t BLIO_Flush(_HFile* file);

/* The next byte (0 to 255), or -1 at the end or on error. */
SOVAFOUNDATION_EXPORT int32_t BLIO_ReadChar(_HFile* file);

/* Pushes back the byte just read so that the next read returns it again. At least one byte
 * can always be pushed back. 1 on success, 0 when c is not a byte or the handle is null. */
SOVAFOUNDATION_EXPORT int32_t BLIO_UnReadChar(_HFile* file, int32_t c);

/* 1 when the file can be sought, else 0. */
SOVAFOUNDATION_EXPORT int32_t BLIO_IsSeekable(_HFile* file);

/* The mode code the handle was opened with (BLIO_OPEN_*), 0 for a null handle. */
SOVAFOUNDATION_EXPORT BLIOOPENMODE BLIO_CurrentOpenMode(_HFile* file);

/* The path the handle was opened with; "" for a null handle. Owned by the handle. */
SOVAFOUNDATION_EXPORT const char* BLIO_FileName(_HFile* file);

/* Copies the whole source (from its start when seekable, else from where it stands) to the
 * destination's position. Bytes copied, -1 on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_CopyHFileToHFile(_HFile* source, _HFile* destination);

/* Copies length bytes from offset of the source (a negative length: up to the end) to the
 * destination's position. Bytes copied (fewer when the source ends first), -1 on error. */
SOVAFOUNDATION_EXPORT int64_t BLIO_CopyHFileChunkToHFile(_HFile* source, int64_t offset,
                                                         int64_t length, _HFile* destination);

/* Writes into buffer (at least BLIO_MAX_META_DESCR bytes) a meta descriptor, "hfile://" and
 * the handle's address, that BLIO_Open accepts back while the handle is open: it opens a view
 * of the same file with a position of its own, starting at 0, in any mode the handle allows.
 * A view leaves its parent's position as it found it after every operation; its buffered
 * writes reach the parent when it flushes or closes; it never empties the file, even in "w".
 * The handle's close waits for its views: the file is closed when the last of them is.
 * 1 on success; 0 (and an empty text) for a null handle. Addresses that are not open handles
 * are refused by BLIO_Open. */
SOVAFOUNDATION_EXPORT int32_t BLIO_ComposeMetaHFileDescr(char* buffer, _HFile* file);

/* Fills info through the handler. 1 when filled, 0 when not offered or on error. */
SOVAFOUNDATION_EXPORT int32_t BLIO_GetFileInfo(_HFile* file, BLIO_FileInfo* info);

/* 1 when the path names an existing file, 0 otherwise or when the handler cannot tell. */
SOVAFOUNDATION_EXPORT int32_t BLIO_FileExists(const char* path);

/* Kind code of the path's handler (BLIO_KIND_*). */
SOVAFOUNDATION_EXPORT int32_t BLIO_FileKind(const char* path);

/* Removes a file; renames one within one scheme. 1 on success. */
SOVAFOUNDATION_EXPORT int32_t BLIO_RemoveFile(const char* path);
SOVAFOUNDATION_EXPORT int32_t BLIO_RenameFile(const char* from, const char* to);

/* An open descriptor, parsed. */
typedef struct BLIO_OpenOptions {
    BLIOOPENMODE Mode;  /* BLIO_OPEN_* */
    int32_t Buffered;   /* 0 or 1 */
    int64_t BufferSize; /* bytes */
} BLIO_OpenOptions;

/* Parses an open descriptor. 1 on success; 0 with BLERR_BAD_DESCRIPTOR otherwise. */
SOVAFOUNDATION_EXPORT int32_t BLIO_ParseOpenDescriptor(const char* descriptor,
                                                       BLIO_OpenOptions* options);

/* ---- Memory-address paths ------------------------------------------------------------- */

/* 1 when path's scheme names an object by its address in memory ("hfile://", and
 * "qiodevice://" that the Qt layer registers), any letter case; else 0 (null: 0). Such a path
 * is only safe from the program that formatted it: callers refuse it when it comes from a
 * user or from the content of a file. */
SOVAFOUNDATION_EXPORT int32_t BLIO_NamesMemoryAddress(const char* path);

/* Gives the unnamed file open at fd (opened with O_TMPFILE in path's directory) the local name
 * path, replacing a file there: in one step when there is none, else through a hidden name
 * ".NAME.sova-PID-XXXXXX" and a rename. A writer killed between those two steps leaves that
 * hidden name, a complete copy; the next writer of path removes it once PID is gone. The caller
 * syncs the data first and the directory after. 1 on success; 0 with errno set. */
SOVAFOUNDATION_EXPORT int32_t BLIO_NameUnnamedFile(int32_t fd, const char* path);

#ifdef __cplusplus
}
#endif

#endif
