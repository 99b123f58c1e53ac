/* Lists of pointers, memory descriptors (arenas) and string lists. */
#ifndef SOVA_BLLIST_H
#define SOVA_BLLIST_H

#include <stddef.h>
#include <stdint.h>

#include <sova/sovafoundation_export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Memory descriptor: an arena. Allocations from it are freed together at dispose, never one
 * by one. Not thread-safe. */
typedef struct BLMEM_Descr BLMEM_Descr;

/* A new arena. name is copied (for diagnostics); chunkSize is the size in bytes of its first
 * block (later blocks grow, larger requests get blocks of their own); alignment (a power of
 * two up to 4096; 0 means 8) aligns every allocation. Null on bad arguments or no memory. */
SOVAFOUNDATION_EXPORT BLMEM_Descr* BLMEM_CreateMemDescrEx(const char* name, uint32_t chunkSize,
                                                          uint32_t alignment);

/* Frees the arena and everything allocated from it. A null descriptor is ignored. */
SOVAFOUNDATION_EXPORT void BLMEM_DisposeMemDescr(BLMEM_Descr* memory);

/* size bytes from the arena, aligned as it was created; null when out of memory. A size of 0
 * gives a valid unique pointer. */
SOVAFOUNDATION_EXPORT void* BLMEM_NewEx(BLMEM_Descr* memory, size_t size);

/* A copy of text in the arena; null for a null text. */
SOVAFOUNDATION_EXPORT char* BLMEM_StrDup(BLMEM_Descr* memory, const char* text);

/* Bytes handed out by the arena so far. */
SOVAFOUNDATION_EXPORT size_t BLMEM_BytesAllocated(const BLMEM_Descr* memory);

/* String list: an array of text pointers ended by a null pointer, living in an arena. */
typedef char** BLSTRINGLIST;

/* A string list in the arena holding copies of count texts (null texts are skipped). */
SOVAFOUNDATION_EXPORT BLSTRINGLIST BLSTRINGLIST_Create(BLMEM_Descr* memory,
                                                       const char* const* texts, int32_t count);

/* Number of texts; 0 for a null list. */
SOVAFOUNDATION_EXPORT int32_t GetStringListLength(BLSTRINGLIST list);

/* Text at index, or null out of range. */
SOVAFOUNDATION_EXPORT const char* GetStringInStringList(BLSTRINGLIST list, int32_t index);

/* List: an ordered sequence of data pointers. Not thread-safe. */
typedef struct BLLIST BLLIST;

/* A new empty list. release, when not null, is what BLLIST_DestroyEx(list, 1) calls on each
 * remaining element. */
SOVAFOUNDATION_EXPORT BLLIST* BLLIST_Create(void (*release)(void* data));

/* Adds data at the end or in front. 1 on success, 0 for a null list or no memory. */
SOVAFOUNDATION_EXPORT int32_t BLLIST_AppendData(BLLIST* list, void* data);
SOVAFOUNDATION_EXPORT int32_t BLLIST_PrependData(BLLIST* list, void* data);

/* Adds a copy of text at the end. The copy belongs to the list and stays valid until the list
 * is destroyed, even after it is popped. The copy, or null. */
SOVAFOUNDATION_EXPORT const char* BLLIST_AppendString(BLLIST* list, const char* text);

/* Number of elements; 0 for a null list. */
SOVAFOUNDATION_EXPORT int32_t BLLIST_NumElements(const BLLIST* list);

/* Element at index, or null out of range. */
SOVAFOUNDATION_EXPORT void* BLLIST_GetData(const BLLIST* list, int32_t index);

/* Removes and returns the first element; null when empty. The element is not released. */
SOVAFOUNDATION_EXPORT void* BLLIST_PopFirstData(BLLIST* list);

/* Frees the list and the strings it copied. With releaseData non-zero, the release function
 * given at creation is called on each element still in the list first. */
SOVAFOUNDATION_EXPORT void BLLIST_DestroyEx(BLLIST* list, int32_t releaseData);

#ifdef __cplusplus
}
#endif

#endif
