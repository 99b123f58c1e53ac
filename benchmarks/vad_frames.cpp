// Prints the detector's decision and score for every 20 ms frame of a mono audio file, one
// "result score" line per frame (the first channel when there are more). Used by
// vad_vs_webrtc.sh.  Usage: vad_frames FILE [PARAMETERS]
#include <sova/audio.h>
#include <sova/blerror.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: vad_frames FILE [PARAMETERS]\n");
        return 2;
    }
    AUDIOFILE* file = AUDIO_LoadFileEx2(argv[1], nullptr, 0, 0, 0);
    _audio_format format {};
    if (!file || !AUDIO_GetAudioFileFormat(file, &format)) {
        std::fprintf(stderr, "vad_frames: %s\n", BLERROR_LastMessage());
        return 1;
    }
    _AUDIOVAD* vad = AUDIO_VAD_Init(format.sampleRate, argc > 2 ? argv[2] : nullptr);
    if (!vad) {
        std::fprintf(stderr, "vad_frames: %s\n", BLERROR_LastMessage());
        AUDIO_CloseFile(file);
        return 1;
    }
    const int n = AUDIO_VAD_FrameNumSamples(vad);
    const int channels = format.numChannels;
    std::vector<float> interleaved(size_t(n) * size_t(channels));
    std::vector<float> frame(static_cast<size_t>(n));
    int64_t position = 0;
    while (AUDIO_ReadIEEEFloat(file, interleaved.data(), n) == n) {
        for (int i = 0; i < n; ++i)
            frame[size_t(i)] = interleaved[size_t(i) * size_t(channels)];
        float score = 0.0f;
        const int result = AUDIO_VAD_ProcessIEEEFloat(vad, &position, frame.data(), &score);
        std::printf("%d %.3f\n", result, double(score));
    }
    AUDIO_VAD_Destroy(&vad);
    AUDIO_CloseFile(file);
    return 0;
}
