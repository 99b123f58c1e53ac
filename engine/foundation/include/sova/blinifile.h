/* Ini files: sections of keys with typed values, read and written through the I/O layer.
 *
 * Syntax (UTF-8):
 *     ; comment            # comment too
 *     [section]
 *     key = value
 * Keys before the first section belong to the section "". Section and key names compare
 * without regard to ASCII case and keep their spelling. Blanks around names and values are
 * dropped. Comments, blank lines, malformed lines and the order of sections and keys are kept
 * as they stand through a load and a save; a value that is written replaces its line in place,
 * and a new key goes after the last key of its section. When a key repeats, the last one is
 * read and written. A file with a NUL byte or invalid UTF-8 is not an ini file: it fails to
 * open.
 *
 * Value types (BLINIFILE_KeyType), by the text of the value:
 *     0  empty              (nothing after '=')                               text
 *     1  plain text         anything not below                                text
 *     2  quoted text        "..." with \" \\ \n \r \t escapes                  text
 *     3  integer            -42, +7 (decimal, 64-bit)                          integer
 *     4  decimal            1.5, -.25                                          floating
 *     5  scientific         1e-3, 6.02E23                                      floating
 *     6  percentage         50%            (read as 0.5)                       floating
 *     7  decibels           -6dB, 3.5 dB   (read as -6, 3.5)                   floating
 *     8  duration           1.5s, 20ms, 250us  (read in seconds)               floating
 *     9  frequency          440Hz, 44.1kHz, 2MHz  (read in hertz)              floating
 *    10  boolean            true/false, yes/no, on/off (any case)              text
 *    11  special number     inf, -inf, nan (any case)                         floating
 *    12  hexadecimal        0x1F, -0x10 (64-bit)                              integer
 * Integer reads of floating values truncate toward zero (out of range: the default); floating
 * reads of integers convert; numeric reads of text types give the default.
 * A decimal integer beyond 64 bits reads as a decimal (4); hexadecimal beyond a signed 64-bit
 * value, and numbers beyond the range of a double, are plain text (1). Only "dB" ignores case
 * among the units ("mHz" would be millihertz). A section header needs a name: "[]" is a
 * malformed line. Floating values are written with a ".0" when they would read as integers.
 *
 * Saving writes to a temporary file beside the target, syncs it and renames it over the
 * target, for local paths; a crash leaves the old file or the new one, and no temporary file
 * where the file system supports unnamed files. Through other schemes the file is written in
 * place. A local save holds an advisory lock (flock on ".NAME.lock", left beside the file) for
 * at most a few seconds' wait, and fails with "'NAME' is locked by another writer" past that.
 * Saved to its own file (the path it was opened from, or the name given to Create), a handle
 * applies the values written through it since it was read or last saved to the file as it is
 * then, so concurrent writers of other keys keep theirs; the handle itself keeps what it read.
 * Saved elsewhere, it writes its content as it stands. A file that is not text (a NUL byte,
 * invalid UTF-8) is never replaced. Not thread-safe: one thread at a time per handle. */
#ifndef SOVA_BLINIFILE_H
#define SOVA_BLINIFILE_H

#include <stdint.h>

#include <sova/bllist.h>
#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct BLINIFILE BLINIFILE;

#define BLINI_TYPE_EMPTY 0
#define BLINI_TYPE_TEXT 1
#define BLINI_TYPE_QUOTED 2
#define BLINI_TYPE_INTEGER 3
#define BLINI_TYPE_DECIMAL 4
#define BLINI_TYPE_SCIENTIFIC 5
#define BLINI_TYPE_PERCENT 6
#define BLINI_TYPE_DECIBEL 7
#define BLINI_TYPE_DURATION 8
#define BLINI_TYPE_FREQUENCY 9
#define BLINI_TYPE_BOOLEAN 10
#define BLINI_TYPE_SPECIAL 11
#define BLINI_TYPE_HEX 12

/* Reads the file at path (any I/O-layer path). Null when it cannot be read or is not an ini
 * file (reason in the error slot). */
SOVAFOUNDATION_EXPORT BLINIFILE* BLINIFILE_Open(const char* path);

/* A new empty ini held in memory; fileName (may be null) is only remembered for messages. */
SOVAFOUNDATION_EXPORT BLINIFILE* BLINIFILE_Create(const char* fileName);

/* Writes the ini to path (see above). 1 on success, 0 on failure (the target is unchanged). */
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_Save(BLINIFILE* ini, const char* path);

/* Frees the handle without saving. Null is ignored. */
SOVAFOUNDATION_EXPORT void BLINIFILE_Close(BLINIFILE* ini);

/* 1 when the section (with at least its header or one key) / the key exists. */
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_ExistSection(BLINIFILE* ini, const char* section);
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_ExistSectionKey(BLINIFILE* ini, const char* section,
                                                        const char* key);

/* Type number of the key's value (0 to 12), -1 when the key does not exist. */
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_KeyType(BLINIFILE* ini, const char* section,
                                                const char* key);

/* Typed reads; the default when the key is missing or its value does not read as the type. */
SOVAFOUNDATION_EXPORT int64_t BLINIFILE_ReadIntegerValue(BLINIFILE* ini, const char* section,
                                                         const char* key, int64_t defaultValue);
SOVAFOUNDATION_EXPORT double BLINIFILE_ReadFloatValue(BLINIFILE* ini, const char* section,
                                                      const char* key, double defaultValue);
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_ReadBooleanValue(BLINIFILE* ini, const char* section,
                                                         const char* key, int32_t defaultValue);

/* The value as text (quoted text unquoted and unescaped; other types as written), owned by the
 * handle and valid until that key is written or the handle closed; defaultValue when the key
 * is missing. */
SOVAFOUNDATION_EXPORT const char* BLINIFILE_ReadCStringValue(BLINIFILE* ini,
                                                             const char* section,
                                                             const char* key,
                                                             const char* defaultValue);

/* Typed writes, creating the section and the key when missing. Booleans are written "true" or
 * "false", floating values in the shortest text that reads back exactly, texts quoted when
 * they would otherwise read as another type or lose blanks. 1 on success, 0 for a null handle,
 * section or key, or a name holding '[', ']', '=', a line break, or (for keys) starting with
 * ';' or '#'. */
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_WriteBooleanValue(BLINIFILE* ini, const char* section,
                                                          const char* key, int32_t value);
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_WriteIntegerValue(BLINIFILE* ini, const char* section,
                                                          const char* key, int64_t value);
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_WriteFloatValue(BLINIFILE* ini, const char* section,
                                                        const char* key, double value);
SOVAFOUNDATION_EXPORT int32_t BLINIFILE_WriteCStringValue(BLINIFILE* ini, const char* section,
                                                          const char* key, const char* value);

/* Section names / the key names of a section, in file order, as a string list allocated in
 * memory (freed with it). Null when the handle is null or the section does not exist. */
SOVAFOUNDATION_EXPORT BLSTRINGLIST BLINIFILE_ReadSectionsEx(BLINIFILE* ini, BLMEM_Descr* memory);
SOVAFOUNDATION_EXPORT BLSTRINGLIST BLINIFILE_ReadSectionKeysEx(BLINIFILE* ini,
                                                               const char* section,
                                                               BLMEM_Descr* memory);

#ifdef __cplusplus
}
#endif

#endif
