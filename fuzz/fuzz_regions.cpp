// Region files on arbitrary input: read as label text and as a CUE sheet, each read must fail
// with a message or give at most the capacity of well-formed regions.
#include <sova/audio.h>
#include <sova/blerror.h>

#include "fuzzmem.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void fail(int line)
{
    std::fprintf(stderr, "fuzz_regions.cpp:%d: check failed\n", line);
    std::abort();
}
#define check(condition) ((condition) ? void() : fail(__LINE__))

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    check(fuzzmem::setInput(data, size));
    constexpr int32_t kCapacity = 16;
    _audio_region regions[kCapacity + 1];
    for (const char* tag : {"labels", "cue"}) {
        std::memset(regions, 0x5a, sizeof regions);
        const int32_t n = AUDIO_ReadRegions("fuzzmem://input", tag, regions, kCapacity);
        if (n < 0) {
            check(*BLERROR_LastMessage() != '\0');
            continue;
        }
        check(n <= kCapacity);
        // The slot after the capacity is never written.
        check(static_cast<unsigned char>(reinterpret_cast<char*>(&regions[kCapacity])[0]) == 0x5a);
        for (int32_t i = 0; i < n; ++i) {
            check(std::isfinite(regions[i].begin) && std::isfinite(regions[i].end));
            check(std::memchr(regions[i].label, '\0', sizeof regions[i].label) != nullptr);
        }
    }
    return 0;
}
