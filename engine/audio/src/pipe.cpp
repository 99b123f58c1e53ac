// Pipes: a running write position into a signal, fed with samples or with an encoded stream
// through a decoder. Decoded audio of another rate or channel count is converted on the way
// (channels mapped first, then soxr at the signal's channel count). The signal locks itself for
// each write, so readers on other threads see it grow frame run by frame run.
#include "backend.h"
#include "decoder.h"

#include <sova/blerror.h>

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

using namespace sova::audio;

namespace {

} // namespace

struct _AUDIOPIPE
{
    std::mutex lock; // one call at a time
    _AUDIOSIGNAL* signal = nullptr;
    _AUDIODECODER* decoder = nullptr; // held until the pipe is released
    int32_t rate = 0, channels = 0; // the signal's
    int64_t start = 0, position = 0, written = 0;
    bool overlap = false; // the mode of the latest bit stream call (the flush writes so)

    // Conversion of decoded audio.
    int32_t inRate = 0, inChannels = 0;
    soxr_t soxr = nullptr;
    std::vector<float> mapped, resampled;

    ~_AUDIOPIPE()
    {
        if (soxr)
            soxr_delete(soxr);
        releaseDecoder(decoder);
    }

    // Frames into the signal at the position; -1 (recorded) on failure.
    int64_t write(const float* samples, int64_t frames, bool add)
    {
        if (frames <= 0)
            return 0;
        const int64_t r = add ? overlapSignalSamples(signal, samples, position, frames)
                              : AUDIOSIGNAL_InsertSamples(signal, samples, position, frames);
        if (r < 0)
            return -1;
        position += frames;
        written += frames;
        return frames;
    }

    // Everything soxr gives for the input (null: its tail), written out.
    bool resample(const float* in, size_t frames, int64_t& produced)
    {
        const double ratio = double(rate) / double(inRate);
        size_t done = 0;
        do {
            const size_t room = size_t(std::ceil(double(frames - done) * ratio)) + 1024;
            resampled.resize(room * size_t(channels));
            size_t used = 0, out = 0;
            const soxr_error_t error
                = soxr_process(soxr, in ? in + done * size_t(channels) : nullptr, frames - done,
                    &used, resampled.data(), room, &out);
            if (error) {
                setError(AUDIOERR_DECODE, "resampling the decoded stream failed: %s", error);
                return false;
            }
            done += used;
            if (write(resampled.data(), int64_t(out), overlap) < 0)
                return false;
            produced += int64_t(out);
            if (!in && out == 0)
                break;
        } while (in ? done < frames : true);
        return true;
    }

    // The tail soxr still holds.
    bool flushResampler(int64_t& produced)
    {
        if (!soxr)
            return true;
        const bool ok = resample(nullptr, 0, produced);
        soxr_delete(soxr);
        soxr = nullptr;
        return ok;
    }

    // Decoded frames at their own rate and channels, converted and written.
    bool takeDecoded(const float* samples, int64_t frames, int32_t fromRate, int32_t fromChannels,
        int64_t& produced)
    {
        if (fromRate != inRate || fromChannels != inChannels) {
            if (!flushResampler(produced))
                return false;
            inRate = fromRate;
            inChannels = fromChannels;
            if (inRate != rate) {
                const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
                const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
                soxr_error_t error = nullptr;
                soxr = soxr_create(double(inRate), double(rate), unsigned(channels), &error, &io,
                    &quality, nullptr);
                if (!soxr || error) {
                    setError(AUDIOERR_UNSUPPORTED, "cannot convert %d Hz to %d Hz", inRate, rate);
                    if (soxr)
                        soxr_delete(soxr);
                    soxr = nullptr;
                    inRate = inChannels = 0;
                    return false;
                }
            }
        }
        const float* data = samples;
        if (inChannels != channels) {
            mapped.resize(size_t(frames * channels));
            mapChannels(samples, inChannels, 0, mapped.data(), channels, 0, frames);
            data = mapped.data();
        }
        if (soxr)
            return resample(data, size_t(frames), produced);
        if (write(data, frames, overlap) < 0)
            return false;
        produced += frames;
        return true;
    }

    DecodedSink sink(int64_t& produced)
    {
        return [this, &produced](const float* samples, int64_t frames, int32_t r, int32_t c) {
            return takeDecoded(samples, frames, r, c, produced);
        };
    }
};

namespace {

int64_t pipeSamples(_AUDIOPIPE* pipe, const float* samples, int64_t count, bool add)
{
    if (!pipe)
        return 0;
    if (!samples || count < 0) {
        setError(BLERR_INVALID_ARGUMENT, "no samples to write into the pipe");
        return -1;
    }
    std::lock_guard<std::mutex> guard(pipe->lock);
    return pipe->write(samples, count, add);
}

int64_t pipeBitStream(_AUDIOPIPE* pipe, const char* data, int64_t size, bool add)
{
    if (!pipe)
        return 0;
    if (!pipe->decoder) {
        setError(BLERR_INVALID_ARGUMENT, "the pipe has no decoder for a bit stream");
        return -1;
    }
    if (!data || size < 0) {
        setError(BLERR_INVALID_ARGUMENT, "no bytes to decode into the pipe");
        return -1;
    }
    std::lock_guard<std::mutex> guard(pipe->lock);
    pipe->overlap = add;
    int64_t produced = 0;
    if (!decodeStream(pipe->decoder, data, size, pipe->sink(produced)))
        return -1;
    return produced;
}

} // namespace

extern "C" {

_AUDIOPIPE* AUDIOSIGNAL_CreatePipeEx(_AUDIOSIGNAL* signal, int64_t position, _AUDIODECODER* decoder)
{
    if (!signal)
        return nullptr;
    try {
        auto* pipe = new _AUDIOPIPE;
        pipe->signal = signal;
        pipe->decoder = retainDecoder(decoder);
        pipe->rate = AUDIOSIGNAL_SampleRate(signal);
        pipe->channels = AUDIOSIGNAL_NumChannels(signal);
        pipe->start = pipe->position
            = std::clamp<int64_t>(position, 0, AUDIOSIGNAL_NumSamples(signal));
        return pipe;
    } catch (const std::exception&) {
        setError(BLERR_NO_MEMORY, "out of memory creating a pipe");
        return nullptr;
    }
}

int64_t AUDIOSIGNAL_AppendToPipe(_AUDIOPIPE* pipe, const float* samples, int64_t count)
{
    return pipeSamples(pipe, samples, count, false);
}

int64_t AUDIOSIGNAL_OverlapToPipe(_AUDIOPIPE* pipe, const float* samples, int64_t count)
{
    return pipeSamples(pipe, samples, count, true);
}

int64_t AUDIOSIGNAL_AppendBitStreamToPipe(_AUDIOPIPE* pipe, const char* data, int64_t size)
{
    return pipeBitStream(pipe, data, size, false);
}

int64_t AUDIOSIGNAL_OverlapBitStreamToPipe(_AUDIOPIPE* pipe, const char* data, int64_t size)
{
    return pipeBitStream(pipe, data, size, true);
}

double AUDIOSIGNAL_PipeDuration(_AUDIOPIPE* pipe)
{
    if (!pipe || pipe->rate <= 0)
        return 0.0;
    std::lock_guard<std::mutex> guard(pipe->lock);
    return double(pipe->written) / double(pipe->rate);
}

int64_t AUDIOSIGNAL_PipeStartPosition(_AUDIOPIPE* pipe)
{
    return pipe ? pipe->start : 0;
}

int64_t AUDIOSIGNAL_PipePosition(_AUDIOPIPE* pipe)
{
    if (!pipe)
        return 0;
    std::lock_guard<std::mutex> guard(pipe->lock);
    return pipe->position;
}

int32_t AUDIOSIGNAL_ClosePipe(_AUDIOPIPE* pipe)
{
    if (!pipe)
        return 0;
    bool ok = true;
    {
        std::lock_guard<std::mutex> guard(pipe->lock);
        int64_t produced = 0;
        if (pipe->decoder)
            ok = flushStream(pipe->decoder, pipe->sink(produced));
        ok = pipe->flushResampler(produced) && ok;
    }
    delete pipe;
    return ok ? 1 : 0;
}

} // extern "C"
