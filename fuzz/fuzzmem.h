// The current fuzz input served read-only through the foundation I/O layer under the scheme
// "fuzzmem://": no file is written per iteration and nothing is left behind by a crash.
#ifndef SOVA_FUZZMEM_H
#define SOVA_FUZZMEM_H

#include <sova/blio.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace fuzzmem {

// The one input of this iteration; set by setInput() before any open.
inline const uint8_t* g_data = nullptr;
inline int64_t g_size = 0;

struct MemFile
{
    int64_t position = 0;
};

inline void* memOpen(void*, const char*, BLIOOPENMODE mode)
{
    return (mode & BLIO_MODE_WRITE) ? nullptr : new MemFile;
}
inline int32_t memClose(void* handle)
{
    delete static_cast<MemFile*>(handle);
    return 1;
}
inline int64_t memRead(void* handle, void* buffer, int64_t count)
{
    MemFile* file = static_cast<MemFile*>(handle);
    const int64_t n = std::max<int64_t>(0, std::min(count, g_size - file->position));
    if (n > 0)
        std::memcpy(buffer, g_data + file->position, static_cast<size_t>(n));
    file->position += n;
    return n;
}
inline int32_t memSeek(void* handle, int64_t offset, int32_t origin)
{
    MemFile* file = static_cast<MemFile*>(handle);
    const int64_t base = origin == BLIO_SEEK_CUR ? file->position
        : origin == BLIO_SEEK_END                ? g_size
                                                 : 0;
    if (base + offset < 0)
        return 0;
    file->position = base + offset;
    return 1;
}
inline int64_t memSize(void*)
{
    return g_size;
}
inline int64_t memPosition(void* handle)
{
    return static_cast<MemFile*>(handle)->position;
}
inline int32_t memIsEOF(void* handle)
{
    return static_cast<MemFile*>(handle)->position >= g_size ? 1 : 0;
}
inline int32_t memExists(const char*)
{
    return 1;
}

// Registers the scheme once and makes data the content of every "fuzzmem://" path.
inline bool setInput(const uint8_t* data, size_t size)
{
    static BLIO_Handler handler = [] {
        BLIO_Handler h {};
        h.Scheme = "fuzzmem";
        h.Flags = BLIO_MODE_READ;
        h.Open = memOpen;
        h.Close = memClose;
        h.Read = memRead;
        h.Seek = memSeek;
        h.Size = memSize;
        h.Position = memPosition;
        h.IsEOF = memIsEOF;
        h.Exists = memExists;
        return h;
    }();
    static const bool registered = BLIO_AddIOHandler(&handler) == 1;
    g_data = data;
    g_size = static_cast<int64_t>(size);
    return registered;
}

} // namespace fuzzmem

#endif
