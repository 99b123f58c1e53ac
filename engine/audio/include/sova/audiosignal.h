/* Audio signals and selections of the audio engine. Included by <sova/audio.h>.
 *
 * A signal is an in-memory sound of one format: frames of numChannels samples, stored in
 * blocks of at most AUDIOSIGNAL_BLOCK_FRAMES frames, so that inserting or appending costs in
 * proportion to the data inserted, not to the signal's length. Signals whose resolution is 16
 * bits or fewer store 16-bit integers; others store 32-bit floats. Float transfers use the
 * IEEE scale (+-1.0 full scale); floats written into a 16-bit signal are rounded and clipped.
 *
 * Positions and counts are frames, signed 64-bit. Reads take a trailing flags word:
 * AUDIOSIGNAL_READ_ZEROPAD (1) delivers frames outside [0, numSamples) as zeros and counts
 * them, so a read of count frames at any position delivers count frames; without it the range
 * is clipped to the signal and only the frames that exist are copied, to the start of the
 * buffer. Reads return the frames delivered, 0 when the call is rejected (null handle or
 * buffer, count <= 0, channel out of range).
 *
 * Every channel starts active. Active channels are what the "active" reads deliver (the
 * active channels of each frame, in channel order) and what editors apply edits to; set them
 * with AUDIOSIGNAL_SetChannelActive.
 *
 * Every function accepts a null handle and returns 0 (or 0.0, or null). A signal locks itself
 * for every read and edit, so one thread may write into it (a pipe, say) while others read its
 * written part; a sequence of calls is not atomic as a whole. */
#ifndef SOVA_AUDIOSIGNAL_H
#define SOVA_AUDIOSIGNAL_H

#include <stddef.h>
#include <stdint.h>

#include <sova/sovaaudio_export.h>

#ifdef __cplusplus
extern "C" {
#endif

struct _audio_format;
struct _audio_progress;

/* ---- Selections ------------------------------------------------------------------------- */

/* A time range of a signal. Records may form a chain through next (null at the end); arrays
 * of them are often a chain at the same time. 48 bytes on x86-64. */
typedef struct _audio_selection {
    double begin;                   /* seconds */
    double end;                     /* seconds */
    uint32_t flags;                 /* AUDIOSELECTION_FLAG_* */
    uint32_t reserved;              /* 0 */
    struct _audio_selection* next;  /* following record of a chain, or null */
    uint32_t disabledChannelMask;   /* bit n set: channel n is left out */
    const char* trackUniqId;        /* pooled UTF-8 text (GetBString) or null */
} _audio_selection;

#ifdef __cplusplus
static_assert(sizeof(_audio_selection) == 48, "x86-64 layout of _audio_selection");
static_assert(offsetof(_audio_selection, end) == 8, "_audio_selection.end");
static_assert(offsetof(_audio_selection, flags) == 16, "_audio_selection.flags");
static_assert(offsetof(_audio_selection, reserved) == 20, "_audio_selection.reserved");
static_assert(offsetof(_audio_selection, next) == 24, "_audio_selection.next");
static_assert(offsetof(_audio_selection, disabledChannelMask) == 32,
              "_audio_selection.disabledChannelMask");
static_assert(offsetof(_audio_selection, trackUniqId) == 40, "_audio_selection.trackUniqId");
#endif

enum {
    AUDIOSELECTION_FLAG_DEFINED = 1 /* made by AUDIOSELECTION_Define, not the null record */
};

/* The record of no selection: everything 0 (begin = end = 0, no flags, no track). */
SOVAAUDIO_EXPORT _audio_selection AUDIOSELECTION_Null(void);
/* A selection of [begin, end] seconds (not reordered, not checked) leaving out the channels of
 * disabledChannelMask; flags AUDIOSELECTION_FLAG_DEFINED, no track, no next. */
SOVAAUDIO_EXPORT _audio_selection AUDIOSELECTION_Define(double begin, double end,
                                                        uint32_t disabledChannelMask);

/* ---- Signals ---------------------------------------------------------------------------- */

typedef struct _AUDIOSIGNAL _AUDIOSIGNAL;

enum {
    AUDIOSIGNAL_BLOCK_FRAMES = 65536,
    AUDIOSIGNAL_READ_ZEROPAD = 1
};

/* A new empty signal of the format's rate, channels (1..8) and resolution; null (error
 * recorded) when AUDIO_IsValidFormat rejects it. The format's texts are kept. */
SOVAAUDIO_EXPORT _AUDIOSIGNAL* AUDIOSIGNAL_NewEx(struct _audio_format format);

/* Reads a whole audio file (any path and format string AUDIO_LoadFileEx2 takes) into a new
 * signal. flags: 0. startFrame, numFrames: a window of the file (0, 0 = all). progress may be
 * null; a non-zero return from it cancels. Null on failure, with the reason recorded. */
SOVAAUDIO_EXPORT _AUDIOSIGNAL* AUDIOSIGNAL_OpenEx(const char* path, const char* format,
                                                  uint32_t flags, int64_t startFrame,
                                                  int64_t numFrames,
                                                  const struct _audio_progress* progress);

/* Writes frames [startFrame, startFrame + numFrames) (0, 0 = all) into a file, through
 * AUDIO_CreateFileEx2 with the signal's format and the format string (empty: from the
 * extension), so every path scheme works, "qiodevice://%p" included. 1 on success. */
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_SaveEx(_AUDIOSIGNAL* signal, const char* path,
                                            const char* format, int64_t startFrame,
                                            int64_t numFrames);

/* An independent copy. options: AUDIOSIGNAL_DUP_* bits; 0 or any unknown bits copy
 * everything. Blocks are shared until either signal changes them. Null for null. */
enum {
    AUDIOSIGNAL_DUP_FORMAT_ONLY = 0x0001 /* the format and active channels, no samples */
};
SOVAAUDIO_EXPORT _AUDIOSIGNAL* AUDIOSIGNAL_DuplicateEx(_AUDIOSIGNAL* signal, uint32_t options);

/* Releases the signal. Null is accepted. */
SOVAAUDIO_EXPORT void AUDIOSIGNAL_Destroy(_AUDIOSIGNAL* signal);

/* Properties: frames; seconds (frames / rate); rate; channels; resolution. */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_NumSamples(_AUDIOSIGNAL* signal);
SOVAAUDIO_EXPORT double AUDIOSIGNAL_Length(_AUDIOSIGNAL* signal);
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_SampleRate(_AUDIOSIGNAL* signal);
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_NumChannels(_AUDIOSIGNAL* signal);
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_BitsPerSample(_AUDIOSIGNAL* signal);
/* The signal's own format record, valid while the signal lives. */
SOVAAUDIO_EXPORT const struct _audio_format* AUDIOSIGNAL_GetFormatRef(_AUDIOSIGNAL* signal);

/* Active channels: how many; whether one is (0 for a channel out of range); make one active
 * or inactive (0 for a channel out of range, else 1). */
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_NumActiveChannels(_AUDIOSIGNAL* signal);
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_ChannelIsActive(_AUDIOSIGNAL* signal, int32_t channel);
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_SetChannelActive(_AUDIOSIGNAL* signal, int32_t channel,
                                                      int32_t active);

/* Interleaved reads of count frames from pos (all channels; with a step, every step-th frame
 * from pos, step >= 1; active channels only). */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetSamplesEx(_AUDIOSIGNAL* signal, int64_t pos,
                                                  float* buffer, int64_t count, int32_t flags);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetSamples16Ex(_AUDIOSIGNAL* signal, int64_t pos,
                                                    int16_t* buffer, int64_t count,
                                                    int32_t flags);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetSamplesWithStepEx(_AUDIOSIGNAL* signal, int64_t pos,
                                                          float* buffer, int64_t count,
                                                          int32_t step, int32_t flags);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetActiveSamplesEx(_AUDIOSIGNAL* signal, int64_t pos,
                                                        float* buffer, int64_t count,
                                                        int32_t flags);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetActiveSamples16Ex(_AUDIOSIGNAL* signal, int64_t pos,
                                                          int16_t* buffer, int64_t count,
                                                          int32_t flags);
/* One channel, count samples from pos, not interleaved. */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetChannelSamplesEx(_AUDIOSIGNAL* signal, int32_t channel,
                                                         int64_t pos, float* buffer,
                                                         int64_t count, int32_t flags);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_GetChannelSamples16Ex(_AUDIOSIGNAL* signal,
                                                           int32_t channel, int64_t pos,
                                                           int16_t* buffer, int64_t count,
                                                           int32_t flags);

/* Inserts count interleaved frames at pos (clamped to [0, numSamples]) or appends them.
 * Returns the frames inserted, 0 when rejected (null data, count <= 0), -1 out of memory. */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_InsertSamples(_AUDIOSIGNAL* signal, const float* data,
                                                   int64_t pos, int64_t count);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_InsertSamples16(_AUDIOSIGNAL* signal, const int16_t* data,
                                                     int64_t pos, int64_t count);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_AppendSamples(_AUDIOSIGNAL* signal, const float* data,
                                                   int64_t count);
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_AppendSamples16(_AUDIOSIGNAL* signal, const int16_t* data,
                                                     int64_t count);
/* Removes count frames from pos (the range is clipped to the signal); frames removed. */
SOVAAUDIO_EXPORT int64_t AUDIOSIGNAL_DeleteSamples(_AUDIOSIGNAL* signal, int64_t pos,
                                                   int64_t count);

/* Root mean square of one channel over [pos, pos + count) clipped to the signal, in the IEEE
 * scale (a full-scale sine gives 0.7071). linear: 1 for the plain value, 0 for dBFS
 * (20 log10, -inf reported as -200). 0 (or -200) for an empty range or a bad channel. */
SOVAAUDIO_EXPORT double AUDIOSIGNAL_GetChannelTotalRMS(_AUDIOSIGNAL* signal, int32_t channel,
                                                       int64_t pos, int64_t count,
                                                       int32_t linear);

/* Linear RMS of one channel (-1: of all channels together) after a named transform:
 *   ""  or "none"             the signal as it is
 *   "aweight"                 IEC 61672 A-weighting (bilinear-transformed, 0 dB at 1 kHz)
 *   "cweight"                 IEC 61672 C-weighting
 *   "highpass[fc=HZ,order=N]" Butterworth high-pass, fc default 100 Hz, order 2 or 4
 *   "lowpass[fc=HZ,order=N]"  Butterworth low-pass, fc default 1000 Hz, order 2 or 4
 *   "dcblock"                 the channel minus its mean
 * Filters start from rest. -1.0 (error recorded) for an unknown transform or a bad channel. */
SOVAAUDIO_EXPORT double AUDIOSIGNAL_EvalTransformRMS(_AUDIOSIGNAL* signal, const char* transform,
                                                     int32_t channel);

#ifdef __cplusplus
}
#endif

#endif
