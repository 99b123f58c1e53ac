// Audio files on arbitrary input: the bytes are served from memory through an I/O handler and
// opened as detected, as headerless raw data and converted on the fly; every open must fail
// with a message or read to an end in the three sample kinds, in bounded time and memory.
#include <sova/audio.h>
#include <sova/blio.h>

#include "fuzzmem.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void fail(int line)
{
    std::fprintf(stderr, "fuzz_audiofile.cpp:%d: check failed\n", line);
    std::abort();
}
#define check(condition) ((condition) ? void() : fail(__LINE__))

// Reads a file to its end in blocks of the three kinds; bounded in case a tiny input claims a
// long stream (that is allowed: compressed frames can be small).
void readThrough(const char* path, const char* format)
{
    AUDIOFILE* file = AUDIO_LoadFileEx2(path, format, 0, 0, 0);
    if (!file) {
        check(BLERROR_LastCode() != BLERR_NONE);
        check(BLERROR_LastMessage()[0] != '\0');
        return;
    }
    _audio_format fmt;
    check(AUDIO_GetAudioFileFormat(file, &fmt) == 1);
    check(fmt.numChannels >= 1 && fmt.sampleRate >= 1);
    const int64_t length = AUDIO_Length(file);
    check(length >= -1);
    const double duration = AUDIO_Duration(file);
    check(length < 0 ? duration == -1.0 : duration >= 0.0);
    AUDIO_BitRate(file);

    const int64_t frames = 512;
    std::vector<float> floats(static_cast<size_t>(frames * fmt.numChannels));
    std::vector<int16_t> ints(floats.size());
    int64_t total = 0;
    for (int i = 0; total < (int64_t(1) << 22); ++i) {
        const int64_t n = i % 3 == 0 ? AUDIO_Read16(file, ints.data(), frames)
            : i % 3 == 1             ? AUDIO_ReadFloat(file, floats.data(), frames)
                                     : AUDIO_ReadIEEEFloat(file, floats.data(), frames);
        check(n >= -1 && n <= frames);
        if (n <= 0) {
            check(n == 0 || BLERROR_LastMessage()[0] != '\0');
            break;
        }
        total += n;
    }
    AUDIO_CloseFile(file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    check(fuzzmem::setInput(data, size));
    readThrough("fuzzmem://input", "");
    readThrough("fuzzmem://input", "raw");
    // The converting reader, on a few inputs only: soxr is slow to set up.
    if (size > 0 && (data[0] & 7) == 0)
        readThrough("fuzzmem://input:fmtconv[sr=8000,nch=1]", "");
    return 0;
}
