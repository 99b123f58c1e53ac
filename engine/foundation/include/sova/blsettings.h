/* The settings store: typed values under dotted keys ("libqtsova.defaults.resolution").
 *
 * Requests. Writes take "key=value": the key is the text before the first '=', trimmed of
 * blanks; the value is everything after it, as it stands (it may hold '=', brackets and
 * commas). Reads take "key=[default]" (the default is everything between the '[' after the
 * first '=' and the last ']') or the bare key (no default). Keys are letters, digits and
 * "._-", not empty; they compare exactly.
 *
 * Layers. Every key has a default (SetDefaultEx, LoadDefaults, the system file) and may have a
 * value of its own (ChangeEx, the user file). A read gives the value, else the default, else
 * the default of the request. ResetValueEx drops the value; DeleteEx drops both, and a secret
 * of that name.
 *
 * Files. A store may be tied to two files (SetConfigFileEx): the user's file, read when set
 * and written by FlushEx, and a system-wide file read beneath it, whose entries become
 * defaults. Both are line-oriented UTF-8 text:
 *     # comment
 *     key = value
 * Blank lines and lines starting with '#' or ';' are comments. Blanks around the key and the
 * value are dropped; in a value "\\\\", "\\n", "\\r", "\\t" and "\\s" (a blank, at either end)
 * stand for themselves. Lines that do not parse are skipped when read. FlushEx writes the
 * values (not the defaults), sorted by key, to a temporary file in the same directory (unnamed
 * where the file system allows), syncs it and renames it over the file: a crash leaves the
 * old file or the new one, never a mix, and no temporary file.
 *
 * Other processes may write the same user's file. FlushEx holds an advisory lock (flock on
 * ".NAME.lock", left beside the file) while it re-reads the file and applies the store's own
 * changes since it read or wrote the file (values set, reset or deleted) on top of what the
 * file holds then; the store afterwards reads the file's other values too. A user's file that
 * is not text (a NUL byte, invalid UTF-8) is not taken on and never replaced.
 *
 * Secrets (ChangeSecretEx) never reach the user's file. They are kept in the file named like
 * it with ".secrets" appended (mode 0600), each value encrypted with XSalsa20-Poly1305 under a
 * random key kept in the file with ".key" appended (mode 0600). This keeps secrets out of the
 * settings file and out of any copy that lacks the key file; it does not protect them from
 * someone who can read both files as the user. A secret's change is written at once, under
 * the user's file's lock, on top of the secrets the file holds then (the store takes those on).
 *
 * Every function is thread-safe: any thread may read and write the same store. A null store
 * means the process-wide store, which exists from first use until the process ends. */
#ifndef SOVA_BLSETTINGS_H
#define SOVA_BLSETTINGS_H

#include <stdint.h>

#include <sova/bllist.h>
#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _BLSETTINGS _BLSETTINGS;

/* A new store tied to userFile and systemFile (either may be null: no file), reading both.
 * Null on no memory; files that cannot be read leave the store empty (reason in the error
 * slot). */
SOVAFOUNDATION_EXPORT _BLSETTINGS* BLSETTINGS_Create(const char* userFile,
                                                    const char* systemFile);

/* Frees a store made by BLSETTINGS_Create without writing it. Null and the process-wide store
 * are ignored. */
SOVAFOUNDATION_EXPORT void BLSETTINGS_Destroy(_BLSETTINGS* settings);

/* Ties the store to userFile and systemFile (null or "": none) and reads them: the user's
 * values replace the store's, the system file's entries become defaults. 1 on success, 0 when
 * a named file exists but cannot be read; an unreadable user file leaves the store tied to no
 * file, so that no flush replaces it. A missing file is not an error. */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_SetConfigFileEx(_BLSETTINGS* settings,
                                                         const char* userFile,
                                                         const char* systemFile);

/* Reads the file at path into the process-wide store's defaults, with prefix (may be null or
 * "") put in front of each key. 1 on success, 0 when the file cannot be read. */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_LoadDefaults(const char* path, const char* prefix);

/* Sets a value, a default, or a secret from a "key=value" request. 1 on success, 0 for a
 * malformed request (or, for a secret, when the secret files cannot be written). */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_ChangeEx(_BLSETTINGS* settings, const char* request);
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_SetDefaultEx(_BLSETTINGS* settings,
                                                      const char* request);
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_ChangeSecretEx(_BLSETTINGS* settings,
                                                        const char* request);

/* Drops the key's value (it reads its default again) / drops value, default and secret. 1 on
 * success, 0 when the key had nothing to drop or is malformed. */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_ResetValueEx(_BLSETTINGS* settings, const char* key);
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_DeleteEx(_BLSETTINGS* settings, const char* key);

/* 1 when the key has a value, a default or a secret. */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_ExistsEx(_BLSETTINGS* settings, const char* key);

/* 1 when the key exists and has no value of its own (it reads its default). */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_IsDefault(_BLSETTINGS* settings, const char* key);

/* Typed reads of a "key=[default]" request: the key's text converted, else the request's
 * default converted, else 0 (false, 0.0). Integers are decimal or "0x" hexadecimal and may be
 * negative; values up to 2^32 - 1 are accepted and returned as their low 32 bits. Booleans
 * are 1/0, true/false, yes/no, on/off. */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_GetIntEx(_BLSETTINGS* settings, const char* request);
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_GetBoolEx(_BLSETTINGS* settings, const char* request);
SOVAFOUNDATION_EXPORT double BLSETTINGS_GetFloatEx(_BLSETTINGS* settings, const char* request);

/* The key's text, else the request's default; null when neither exists. The text is pooled
 * (GetBString) and stays valid for the life of the process. */
SOVAFOUNDATION_EXPORT const char* BLSETTINGS_GetStringEx(_BLSETTINGS* settings,
                                                         const char* request);

/* The secret's text, else the request's default; null when neither. Valid until the next call
 * of this function in the same thread (secrets are not pooled). */
SOVAFOUNDATION_EXPORT const char* BLSETTINGS_GetSecretStringEx(_BLSETTINGS* settings,
                                                               const char* request);

/* "key=value" texts of every key (values and defaults, secrets left out) whose name starts
 * with prefix (null: every key), sorted by key. A list to free with BLLIST_DestroyEx; its
 * strings belong to it. Null on no memory. */
SOVAFOUNDATION_EXPORT BLLIST* BLSETTINGS_ListSettingsEx(_BLSETTINGS* settings,
                                                        const char* prefix);

/* Writes the store's changes to the user's file (atomically, under its lock, see above). With
 * force 0 nothing is written when nothing changed since the last read or write. 1 on success;
 * 0 when the store has no user file, its file is not a settings file, the lock was not had
 * within a few seconds ("'NAME' is locked by another writer") or the write failed (reason in
 * the error slot). */
SOVAFOUNDATION_EXPORT int32_t BLSETTINGS_FlushEx(_BLSETTINGS* settings, int32_t force);

#ifdef __cplusplus
}
#endif

#endif
