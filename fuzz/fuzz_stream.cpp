// Encoded streams on arbitrary input: the first byte picks a decoder and a chunk size, the rest
// is probed and fed through a pipe into a signal; every call must return, and the signal must
// stay consistent, whatever the bytes.
#include <sova/audio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

void fail(int line)
{
    std::fprintf(stderr, "fuzz_stream.cpp:%d: check failed\n", line);
    std::abort();
}
#define check(condition) ((condition) ? void() : fail(__LINE__))

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    static const char* const kConfigs[] = {"AAC", "MP3", "FLAC"};
    const char* config = kConfigs[data[0] % 3];
    const int64_t chunk = 1 + (data[0] >> 2) * 37;
    const char* stream = reinterpret_cast<const char*>(data + 1);
    const int64_t length = int64_t(size - 1);

    _audio_format format;
    _AUDIODECODER* decoder = AUDIODECOD_Create(&format, config);
    check(decoder != nullptr);
    int32_t used = int32_t(length);
    if (AUDIODECOD_ProbeStream(decoder, stream, &used)) {
        _audio_format probed;
        check(AUDIODECOD_GetAudioFormat(decoder, &probed) != 0);
        check(AUDIOCODEC_GetMinSamplesPerFrame(decoder)
              <= AUDIOCODEC_GetMaxSamplesPerFrame(decoder));
        _AUDIOSIGNAL* signal = AUDIOSIGNAL_NewEx(AUDIO_FormatEx(44100, 2, 16));
        _AUDIOPIPE* pipe = AUDIOSIGNAL_CreatePipeEx(signal, 0, decoder);
        check(pipe != nullptr);
        for (int64_t at = 0; at < length; at += chunk)
            AUDIOSIGNAL_AppendBitStreamToPipe(pipe, stream + at, std::min(chunk, length - at));
        AUDIOSIGNAL_ClosePipe(pipe);
        const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
        check(frames >= 0);
        if (frames > 0) {
            std::vector<float> last(2);
            check(AUDIOSIGNAL_GetSamplesEx(signal, frames - 1, last.data(), 1, 0) == 1);
        }
        AUDIOSIGNAL_Destroy(signal);
    }
    AUDIODECOD_Destroy(decoder);
    return 0;
}
