/* Errors of the foundation library and of the engines built on it.
 *
 * Every failing call records a code and a message in a thread-local slot; a succeeding call
 * leaves the slot as it was. Read it right after the call that failed. Nothing here is shared
 * between threads. */
#ifndef SOVA_BLERROR_H
#define SOVA_BLERROR_H

#include <stdint.h>

#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Error codes. BLERROR_CodeText() maps each to a fixed message. */
enum {
    BLERR_NONE = 0,
    BLERR_INVALID_ARGUMENT = 1,   /* a null handle or pointer, a negative count */
    BLERR_NO_MEMORY = 2,
    BLERR_UNKNOWN_SCHEME = 3,     /* "scheme://" names no registered handler */
    BLERR_BAD_DESCRIPTOR = 4,     /* open descriptor does not parse */
    BLERR_MODE_NOT_SUPPORTED = 5, /* the handler does not accept the open mode */
    BLERR_OPEN_FAILED = 6,
    BLERR_READ_FAILED = 7,
    BLERR_WRITE_FAILED = 8,
    BLERR_SEEK_FAILED = 9,
    BLERR_NOT_SEEKABLE = 10,
    BLERR_NOT_READABLE = 11,      /* handle not opened for reading */
    BLERR_NOT_WRITABLE = 12,      /* handle not opened for writing */
    BLERR_HANDLER_EXISTS = 13,    /* another handler has that scheme */
    BLERR_HANDLER_INVALID = 14,   /* record lacks a scheme, open or close */
    BLERR_HANDLER_NOT_FOUND = 15, /* record was never added, or is built in */
    BLERR_NOT_SUPPORTED = 16,     /* the handler leaves that slot empty */
    BLERR_CLOSE_FAILED = 17,
    BLERR_KEY_NOT_FOUND = 18,
    BLERR_PARSE = 19,             /* a value does not parse as the requested type */
    BLERR_BUFFER_TOO_SMALL = 20,
    BLERR_IO = 21,                /* any other failure of the operating system */
    BLERR_NOT_FOUND = 22,         /* file or object does not exist */
    BLERR_COUNT
};

/* Code of the last failure in this thread, BLERR_NONE when none was recorded. */
SOVAFOUNDATION_EXPORT int32_t BLERROR_LastCode(void);

/* Message of the last failure in this thread, naming the object and the reason
 * ("cannot open '/x': No such file or directory"); "" when none. Valid until the next
 * failure in this thread. Never null. */
SOVAFOUNDATION_EXPORT const char* BLERROR_LastMessage(void);

/* Fixed text of a code ("no I/O handler for this scheme"); "unknown error" out of range. */
SOVAFOUNDATION_EXPORT const char* BLERROR_CodeText(int32_t code);

/* Records a failure in this thread; a null or empty format records the code's own text.
 * For engines and handlers built on this library. */
SOVAFOUNDATION_EXPORT void BLERROR_Set(int32_t code, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* Forgets the last failure of this thread. */
SOVAFOUNDATION_EXPORT void BLERROR_Clear(void);

#ifdef __cplusplus
}
#endif

#endif
