/* Option strings, text encodings and the pool of persistent strings.
 *
 * Option strings. A text of items separated by ',': "key=value", or a bare "key".
 *   - Blanks (space, tab, CR, LF) around keys and values are ignored. Keys are compared
 *     without regard to ASCII case. When a key repeats, the last item wins.
 *   - A value is read up to the next ',' outside quotes and brackets. It may be quoted with
 *     "..." or '...' to hold commas, blanks and '='; inside quotes a backslash takes the next
 *     character literally (\" \' \\). Quotes are not part of the value.
 *     Outside quotes a backslash keeps the next character from ending the value and stays in
 *     it, so a BLSTRING_Encode'd text can stand unquoted and be decoded by the caller.
 *     Quotes and brackets count only at the start of a value ("s=Don't" reads as it stands);
 *     one left open takes the rest of the text, and its key then reads as absent.
 *   - A vector is "[1, 2.5, -3]"; a matrix is a vector of vectors of equal length,
 *     "[[1,2],[3,4]]". A scalar value reads as a vector of one element and a vector as a
 *     matrix of one row; "[]" is a vector of none.
 *   - Integers are decimal or hexadecimal ("0x1F"), optionally signed; floating-point values
 *     are C-locale decimals with an optional exponent, "inf" and "nan".
 *   - Booleans are 1/0, true/false, yes/no, on/off in any case; a bare key reads as true.
 * Malformed input (an unterminated quote or bracket, a number that does not parse or does not
 * fit, a ragged matrix) gives the default or a failure result; the readers never read past the
 * terminating NUL and never write past the count they are given. */
#ifndef SOVA_BLSTRING_H
#define SOVA_BLSTRING_H

#include <stdint.h>

#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Scalar readers: the key's value converted, or the default when the key is absent or its
 * value does not convert. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetBooleanValueFromString(const char* options,
                                                                 const char* key,
                                                                 int32_t defaultValue);
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetIntegerValueFromString(const char* options,
                                                                 const char* key,
                                                                 int32_t defaultValue);
SOVAFOUNDATION_EXPORT int64_t BLSTRING_GetInteger64ValueFromString(const char* options,
                                                                   const char* key,
                                                                   int64_t defaultValue);
SOVAFOUNDATION_EXPORT float BLSTRING_GetFloatValueFromString(const char* options,
                                                             const char* key, float defaultValue);
SOVAFOUNDATION_EXPORT double BLSTRING_GetDoubleValueFromString(const char* options,
                                                               const char* key,
                                                               double defaultValue);

/* 1 when the key is present (with or without a value), else 0. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_KeyExistsInString(const char* options, const char* key);

/* Length in bytes of the key's value, quotes removed; 0 when empty, -1 when absent. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetStringLengthFromString(const char* options,
                                                                 const char* key);

/* Writes the key's value, or defaultValue when the key is absent, into buffer as a terminated
 * text. size is the most bytes of text it may write, not counting the terminator: the buffer
 * holds size + 1 bytes. 1 when written; 0 when the text does not fit (the buffer then holds
 * an empty text) or the key is absent and defaultValue is null. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetStringValueFromString(const char* options,
                                                                const char* key,
                                                                const char* defaultValue,
                                                                char* buffer, int32_t size);

/* Stores the key's element count in *count. 1 on success, 0 when absent or malformed. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetVectorSizeFromString(const char* options,
                                                               const char* key, int32_t* count);

/* Stores the first count elements of the key's vector in values. 1 on success; 0 when the key
 * is absent, holds fewer than count elements, or one of them does not convert. Word32 values
 * are integers from -2^31 to 2^32 - 1 stored as their low 32 bits. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetFloatVectorValuesFromString(const char* options,
                                                                      const char* key,
                                                                      float* values,
                                                                      int32_t count);
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetWord32VectorValuesFromString(const char* options,
                                                                       const char* key,
                                                                       uint32_t* values,
                                                                       int32_t count);
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetDoubleVectorValuesFromString(const char* options,
                                                                       const char* key,
                                                                       double* values,
                                                                       int32_t count);

/* Stores the key's matrix shape. 1 on success, 0 when absent, malformed or ragged. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetMatrixSizeFromString(const char* options,
                                                               const char* key, int32_t* rows,
                                                               int32_t* columns);

/* Stores the key's matrix, row after row, in values (rows x columns elements). 1 on success;
 * 0 when the shape differs from the one given or an element does not convert. */
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetWord32MatrixValuesFromString(const char* options,
                                                                       const char* key,
                                                                       uint32_t* values,
                                                                       int32_t rows,
                                                                       int32_t columns);
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetDoubleMatrixValuesFromString(const char* options,
                                                                       const char* key,
                                                                       double* values,
                                                                       int32_t rows,
                                                                       int32_t columns);
SOVAFOUNDATION_EXPORT int32_t BLSTRING_GetFloatMatrixValuesFromString(const char* options,
                                                                      const char* key,
                                                                      float* values,
                                                                      int32_t rows,
                                                                      int32_t columns);

/* Escape encoding that makes any text safe as an option-string value or an ini value:
 * '\\' becomes "\\\\", ',' "\\,", '=' "\\=", '"' "\\\"", '\'' "\\'", '[' "\\[", ']' "\\]",
 * ';' "\\;", '#' "\\#", newline "\\n", carriage return "\\r", tab "\\t", other bytes below
 * 0x20 and 0x7F "\\xHH" (two lower-case hex digits). Other bytes, UTF-8 included, stay.
 * Returns a new text to release with free(), or null for a null text or no memory. */
SOVAFOUNDATION_EXPORT char* BLSTRING_Encode(const char* text);

/* Undoes BLSTRING_Encode into buffer, which must hold strlen(text) + 1 bytes (the result is
 * never longer). A backslash before any other character, or a malformed "\\x", is kept as it
 * stands. Returns buffer; null when either pointer is null. */
SOVAFOUNDATION_EXPORT char* BLSTRING_Decode(const char* text, char* buffer);

/* Percent-encoding (RFC 3986) of a text's bytes: letters, digits and "-._~" stay, every other
 * byte becomes "%HH" (upper-case hex). A new text to release with free(), or null. */
SOVAFOUNDATION_EXPORT char* BLUTILS_EncodeUrl(const char* text);

/* Undoes percent-encoding into buffer, which must hold strlen(text) + 1 bytes. A '%' not
 * followed by two hex digits is kept; '+' stays '+'. Returns buffer; null for null pointers. */
SOVAFOUNDATION_EXPORT char* BLUTILS_UrlDecode(const char* text, char* buffer);

/* The pool of persistent strings. With persistent non-zero, returns the pooled copy of text,
 * adding it when missing; with 0, returns the pooled copy or null when there is none. Equal
 * texts give the same pointer. Pooled texts live until the process ends. Thread-safe. Null
 * for a null text. */
SOVAFOUNDATION_EXPORT const char* GetBString(const char* text, int32_t persistent);

#ifdef __cplusplus
}
#endif

#endif
