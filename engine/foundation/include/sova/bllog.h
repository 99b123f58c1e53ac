/* The log.
 *
 * Levels are single bits; the lower the bit, the more severe the message:
 *     1 fatal, 2 error, 4 warning, 8 info, 16 debug.
 * A log writes a message when its level is at most the log's threshold. The default log (a
 * null log pointer) writes to standard error with the threshold BLLOG_WARNING, or the level
 * named by the environment variable SOVA_LOG_LEVEL ("fatal" ... "debug", or 1 ... 16), read
 * at first use. Each message is one line: "2026-11-22 01:23:45.678 warning: text". A line is
 * written with one call, so lines from several threads never interleave. */
#ifndef SOVA_BLLOG_H
#define SOVA_BLLOG_H

#include <stdarg.h>
#include <stdint.h>

#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BLLOG_FATAL 1
#define BLLOG_ERROR 2
#define BLLOG_WARNING 4
#define BLLOG_INFO 8
#define BLLOG_DEBUG 16

typedef struct BLLOG BLLOG;

/* A log of its own, writing to standard error like the default one. Null for no memory. */
SOVAFOUNDATION_EXPORT BLLOG* BLLOG_Create(const char* name);
SOVAFOUNDATION_EXPORT void BLLOG_Destroy(BLLOG* log);

/* Formats and writes one message (printf conventions) when level passes the threshold. A
 * level that is not one of the five bits is taken as BLLOG_ERROR. log may be null. */
SOVAFOUNDATION_EXPORT void BLLOG_Log(BLLOG* log, int32_t level, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;
SOVAFOUNDATION_EXPORT void BLLOG_LogV(BLLOG* log, int32_t level, const char* format,
                                      va_list arguments);

/* Sets the most verbose level written (messages with a larger level bit are dropped). */
SOVAFOUNDATION_EXPORT void BLLOG_SetThreshold(BLLOG* log, int32_t level);
SOVAFOUNDATION_EXPORT int32_t BLLOG_Threshold(const BLLOG* log);

/* Appends messages to the file at path (created when missing) instead of standard error; a
 * null path returns to standard error. 1 on success, 0 when the file cannot be opened (the
 * destination is then unchanged). */
SOVAFOUNDATION_EXPORT int32_t BLLOG_SetFile(BLLOG* log, const char* path);

/* Hands every message that passes the threshold to sink instead of writing it; a null sink
 * writes again. The text has no time stamp and no newline and is valid during the call. */
typedef void (*BLLOG_Sink)(void* user, int32_t level, const char* text);
SOVAFOUNDATION_EXPORT void BLLOG_SetSink(BLLOG* log, BLLOG_Sink sink, void* user);

/* Name of a level ("warning"), "unknown" for anything else. */
SOVAFOUNDATION_EXPORT const char* BLLOG_LevelName(int32_t level);

#ifdef __cplusplus
}
#endif

#endif
