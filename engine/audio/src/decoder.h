// Inside the audio engine: what pipes need of stream decoders and of signals.
#ifndef SOVA_AUDIO_DECODER_H
#define SOVA_AUDIO_DECODER_H

#include <sova/audio.h>

#include <cstdint>
#include <functional>

namespace sova::audio {

// Decoded frames as they come out of a decoder: interleaved floats (+-1.0), `frames` frames of
// `channels` channels at `rate` Hz. Returns false to stop (an error was recorded).
using DecodedSink
    = std::function<bool(const float* samples, int64_t frames, int32_t rate, int32_t channels)>;

// A decoder is held by its creator and by every pipe decoding through it: retainDecoder adds a
// hold (returns decoder; null is accepted), releaseDecoder drops one and frees the decoder with
// the last. AUDIODECOD_Destroy drops the creator's.
_AUDIODECODER* retainDecoder(_AUDIODECODER* decoder);
void releaseDecoder(_AUDIODECODER* decoder);

// Feeds size bytes of the elementary stream (split anywhere) to the decoder; every frame it
// completes goes to sink. Corrupt frames are skipped. False (recorded) on a failure that
// stops decoding: no codec, out of memory, or the sink refusing.
bool decodeStream(_AUDIODECODER* decoder, const char* data, int64_t size, const DecodedSink& sink);
// Decodes what the decoder still holds (the last partial frame, the codec's delay) into sink
// and makes the decoder ready for a new stream.
bool flushStream(_AUDIODECODER* decoder, const DecodedSink& sink);

// Adds count interleaved frames onto the signal's frames from pos on (clamped to the signal),
// appending what lies past its end. Returns count, 0 when rejected, -1 out of memory. Takes
// the signal's lock.
int64_t overlapSignalSamples(_AUDIOSIGNAL* signal, const float* data, int64_t pos, int64_t count);

} // namespace sova::audio

#endif
