// Private to the I/O layer: what io.cpp and io_file.cpp share.
#ifndef SOVA_IO_P_H
#define SOVA_IO_P_H

#include <sova/blio.h>

#include <cstddef>

namespace sova::io {

// The built-in handler of local paths and "file://" paths. Registered for the whole process.
extern BLIO_Handler fileHandler;

inline char asciiLower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Length of the "scheme://" prefix of path (scheme, colon, two slashes), 0 when it has none.
inline size_t schemePrefixLength(const char* path)
{
    auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!path || !isAlpha(path[0]))
        return 0;
    size_t i = 1;
    while (isAlpha(path[i]) || (path[i] >= '0' && path[i] <= '9') || path[i] == '+'
        || path[i] == '-' || path[i] == '.')
        ++i;
    if (path[i] == ':' && path[i + 1] == '/' && path[i + 2] == '/')
        return i + 3;
    return 0;
}

// True when the first n bytes of a and b match without regard to ASCII case.
inline bool equalsNoCase(const char* a, const char* b, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i]))
            return false;
        if (!a[i])
            return true;
    }
    return true;
}

} // namespace sova::io

#endif
