/* Decoders of encoded audio streams, pipes that grow a signal while it is in use, effect paths
 * and the voice activity detector of the audio engine. Included by <sova/audio.h>.
 *
 * Every function accepts a null handle and returns 0 (or 0.0, or a null record). Failing
 * calls record a message in the calling thread's error slot (BLERROR_LastMessage). */
#ifndef SOVA_AUDIOSTREAM_H
#define SOVA_AUDIOSTREAM_H

#include <stdint.h>

#include <sova/sovaaudio_export.h>

#ifdef __cplusplus
extern "C" {
#endif

struct _audio_format;
struct _AUDIOSIGNAL;

/* ---- Decoders ----------------------------------------------------------------------------
 * A decoder turns an elementary stream of one codec into samples. Configurations (any letter
 * case): "AAC" (ADTS frames), "MP3" (MPEG audio layer I to III frames), "FLAC" (a native FLAC
 * stream, "fLaC" and its metadata first).
 * Gapless: an MP3 stream gives the samples FFmpeg decodes from the same file: ID3v2 tags and a
 * first frame holding a Xing/Info or VBRI tag are no audio, and the encoder delay and padding
 * of a LAME tag are left out. ADTS carries no gapless information: every AAC frame is kept,
 * the encoder's priming samples included, as FFmpeg decodes a raw .aac. */
typedef struct _AUDIODECODER _AUDIODECODER;

/* A decoder for the configuration; format, when not null, is cleared to the null format and
 * filled once the stream is probed. Null (error recorded) for an unknown configuration. */
SOVAAUDIO_EXPORT _AUDIODECODER* AUDIODECOD_Create(struct _audio_format* format,
                                                  const char* config);
/* Reads the stream's own header from the first *length bytes of header: rate, channels and
 * framing. Non-zero when understood; *length is then the bytes the header used (the stream's
 * first frame, or its metadata for FLAC), which a caller still passes to the pipe. */
SOVAAUDIO_EXPORT int32_t AUDIODECOD_ProbeStream(_AUDIODECODER* decoder, const char* header,
                                                int32_t* length);
/* Fills *format with the probed format (rate, channels, 16 bits for lossy codecs, the codec
 * code, container 0). Non-zero when the stream has been probed. */
SOVAAUDIO_EXPORT int32_t AUDIODECOD_GetAudioFormat(_AUDIODECODER* decoder,
                                                   struct _audio_format* format);
/* Releases the caller's hold on the decoder. Null is accepted. A pipe created with the
 * decoder keeps its own hold until it is closed, so the decoder may be destroyed first (on any
 * thread). A decoder is used by one pipe at a time. */
SOVAAUDIO_EXPORT void AUDIODECOD_Destroy(_AUDIODECODER* decoder);

/* Framing limits of the probed codec: samples per channel in one frame (AAC 1024..1024, MP3
 * 384..1152, FLAC from STREAMINFO), and bytes of one encoded frame (the codec's bounds for the
 * probed rate and channels). 0 before probing. */
SOVAAUDIO_EXPORT int32_t AUDIOCODEC_GetMinSamplesPerFrame(_AUDIODECODER* decoder);
SOVAAUDIO_EXPORT int32_t AUDIOCODEC_GetMaxSamplesPerFrame(_AUDIODECODER* decoder);
SOVAAUDIO_EXPORT int32_t AUDIOCODEC_GetMinStreamBytes(_AUDIODECODER* decoder);
SOVAAUDIO_EXPORT int32_t AUDIOCODEC_GetMaxStreamBytes(_AUDIODECODER* decoder);

/* ---- Pipes -------------------------------------------------------------------------------
 * A pipe writes into a signal at a running position, from `position` on. Appending inserts
 * the frames at the position (at the end of the signal this grows it) and moves the position
 * past them; overlapping adds the frames onto what the signal holds from the position on,
 * growing the signal where it is shorter, and moves the position likewise. Samples are
 * interleaved IEEE floats (+-1.0) of the signal's channel count; counts are frames. Bit
 * streams go through the pipe's decoder (bytes may be split anywhere: partial frames are kept
 * until complete). One thread may feed a pipe while others read the signal: the signal locks
 * itself for every read and write. */
typedef struct _AUDIOPIPE _AUDIOPIPE;

/* A pipe into signal from position (clamped to [0, numSamples]); decoder may be null (then
 * only samples can be written). The pipe holds the decoder until it is closed: the caller may
 * destroy its decoder handle at any time after this returns. A decoder whose rate or channels
 * differ from the signal's is converted (soxr, AUDIO_ChannelMixMatrix between the default
 * layouts of the counts). */
SOVAAUDIO_EXPORT _AUDIOPIPE* AUDIOSIGNAL_CreatePipeEx(struct _AUDIOSIGNAL* signal,
                                                      int64_t position, _AUDIODECODER* decoder);
/* Frames written (after decoding for bit streams: frames decoded so far by this call), -1 on
 * error (a corrupt frame is skipped, not an error). */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_AppendToPipe(_AUDIOPIPE* pipe, const float* samples,
                                                  int64_t count);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_OverlapToPipe(_AUDIOPIPE* pipe, const float* samples,
                                                   int64_t count);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_AppendBitStreamToPipe(_AUDIOPIPE* pipe, const char* data,
                                                           int64_t size);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_OverlapBitStreamToPipe(_AUDIOPIPE* pipe, const char* data,
                                                            int64_t size);
/* Seconds written through the pipe so far; the frame the pipe started at; the frame it writes
 * next. */
SOVAAUDIO_EXPORT double AUDIOSIGNAL_PipeDuration(_AUDIOPIPE* pipe);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_PipeStartPosition(_AUDIOPIPE* pipe);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_PipePosition(_AUDIOPIPE* pipe);
/* Flushes the decoder (its last frames are written) and releases the pipe; the signal is then
 * complete. 1 on success. Null is accepted. May block while the decoder drains. */
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_ClosePipe(_AUDIOPIPE* pipe);

/* ---- Effect paths ------------------------------------------------------------------------
 * A path is a chain of effects separated by ";" in the option-string style:
 *     gain[db=-6];resample[sr=22050];mix[nch=1];highpass[fc=80];lowpass[fc=8000];speed[factor=1.25]
 * Effects: gain[db=D] (or [factor=F]); resample[sr=R] (soxr, very high quality);
 * mix[nch=N] (to the default layout of N channels from the input format's layout, by
 * AUDIO_ChannelMixMatrix: BS.775 down-mixes, up-mixes to the channels' own speakers);
 * highpass[fc=HZ,order=2|4], lowpass[fc=HZ,order=2|4]
 * (Butterworth biquads); speed[factor=F] (plays F times as fast: tape-style, pitch follows;
 * output length / input length = 1/F); dcblock (a 5 Hz high-pass); normalize is not offered
 * (it needs the whole input). Samples are interleaved IEEE floats; counts are frames. */
typedef struct _AUDIOFXPATH _AUDIOFXPATH;

/* A path for input of the format's rate and channels. outputRate, outputChannels: -1 to take
 * what the chain gives, else a resample or mix is appended to reach them. flags: 0. Null (error
 * recorded naming the effect or option) for an unknown effect or option or a bad format. */
SOVAAUDIO_EXPORT _AUDIOFXPATH* AUDIOFX_CreatePathEx(const struct _audio_format* input,
                                                    int32_t outputRate, int32_t outputChannels,
                                                    uint32_t flags, const char* description);
/* Pushes up to *inCount frames from in and takes up to *outCount frames into out; on return
 * *inCount is the frames consumed and *outCount the frames produced. flush non-zero: the input
 * has ended (in may be null with *inCount 0): the tails of resamplers and filters come out;
 * call until *outCount is 0. Non-zero on success. */
SOVAAUDIO_EXPORT int32_t AUDIOFX_ProcessSamples(_AUDIOFXPATH* path, const float* in,
                                                int64_t* inCount, float* out,
                                                int64_t* outCount, int32_t flush);
/* Output length over input length caused by time-changing effects (speed), rate changes not
 * included: 1.0 for a chain without them. */
SOVAAUDIO_EXPORT double AUDIOFX_GetScaleFactor(_AUDIOFXPATH* path);
/* The input and output formats (rate, channels; 32-bit float samples); null records for a null
 * path. */
SOVAAUDIO_EXPORT struct _audio_format AUDIOFX_GetInputFormat(_AUDIOFXPATH* path);
SOVAAUDIO_EXPORT struct _audio_format AUDIOFX_GetOutputFormat(_AUDIOFXPATH* path);
SOVAAUDIO_EXPORT void AUDIOFX_DestroyPath(_AUDIOFXPATH* path);

/* ---- Voice activity detection ------------------------------------------------------------
 * The detector takes mono frames of AUDIO_VAD_FrameDuration() seconds at the rate it was made
 * for (8 kHz to 192 kHz; resampled internally). Parameters (option string, all optional):
 *   aggressiveness=0..3 (default 1: higher calls less noise speech), hangover=MS (default 200:
 *   speech is held this long after the score drops), minspeech=MS (default 60: a score only
 *   moderately over the threshold must last this long before speech is declared, while a
 *   clearly speech-like frame starts it at once; a segment so started that drops before this
 *   much of it scored as speech, on a steady spectrum such as a note's, ends without the
 *   hangover), minsilence=MS (default 200).
 * Results of the process calls: -1 not enough history yet (the first frames), 0 silence,
 * 1 speech, 2 speech onset (the first frame of a segment of speech). *value receives the
 * frame's speech score in [0, 1]; *position is the index of the first sample of the next frame
 * (it advances by the frame length). */
typedef struct _AUDIOVAD _AUDIOVAD;

/* A detector, null (error recorded) for a rate outside 8000..192000 or bad parameters. */
SOVAAUDIO_EXPORT _AUDIOVAD* AUDIO_VAD_Init(int32_t sampleRate, const char* parameters);
/* Releases *vad and sets it to null. Null and a null *vad are accepted. */
SOVAAUDIO_EXPORT void AUDIO_VAD_Destroy(_AUDIOVAD** vad);
/* Samples in one frame at the detector's rate. */
SOVAAUDIO_EXPORT int32_t AUDIO_VAD_FrameNumSamples(_AUDIOVAD* vad);
/* The frame duration in seconds (0.02). */
SOVAAUDIO_EXPORT double AUDIO_VAD_FrameDuration(void);
/* One frame: 16-bit samples; floats in the 16-bit scale; IEEE floats (+-1.0). */
SOVAAUDIO_EXPORT int32_t AUDIO_VAD_Process16(_AUDIOVAD* vad, int64_t* position,
                                             const int16_t* frame, float* value);
SOVAAUDIO_EXPORT int32_t AUDIO_VAD_ProcessFloat(_AUDIOVAD* vad, int64_t* position,
                                                const float* frame, float* value);
SOVAAUDIO_EXPORT int32_t AUDIO_VAD_ProcessIEEEFloat(_AUDIOVAD* vad, int64_t* position,
                                                    const float* frame, float* value);

#ifdef __cplusplus
}
#endif

#endif
