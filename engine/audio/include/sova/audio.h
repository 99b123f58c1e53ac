/* The audio engine: audio formats, codec and container codes, dithering, mime types and audio
 * files read and written through the foundation library's I/O layer, so that every path scheme
 * it knows ("qfile://", "qiodevice://", "hfile://", plain paths) works for audio files too.
 *
 * Errors: every failing call records a code (AUDIOERR_*, above the foundation's own codes) and a
 * message naming the file and the reason in the calling thread's error slot; read it with
 * BLERROR_LastCode() / BLERROR_LastMessage() right after the call.
 *
 * Format strings
 * --------------
 * Opening and creating files take a format string:
 *
 *     format  := [name] ['[' options ']']
 *     options := key '=' value { ',' key '=' value }     (option-string syntax, keys in any case)
 *
 * The name is a container ("wav", "wavex", "rf64", "w64", "aiff", "aifc", "caf", "au", "raw",
 * "flac", "ogg", "opus", "mp3", "mp2", "voc", "m4a", "mka", "wma", "ac3", "amr", "wv", ...,
 * see AUDIO_FormatStringNames) or a codec, which picks its usual container ("vorbis" -> Ogg,
 * "aac" and "alac" -> M4A, "pcm16"/"float"/"ulaw"/"ima-adpcm"/... -> WAV). Empty: when
 * reading, the container is detected from the content; when writing, from the file extension.
 * Options: sr (sample rate), nch or nc (channels), nbits (resolution: 8, 16, 24, 32; 32 with
 * codec float is IEEE float), codec (a codec name inside the container, "wav[codec=ulaw]"),
 * kbps (bit rate of lossy encoders), quality (0..10 for lossy encoders, compression level for
 * FLAC), endian (little|big, raw and AIFF/CAF), dither (none|rectangular|triangular, writing
 * float samples at 16 bits or fewer). When reading, sr/nch/nbits describe headerless "raw"
 * data (defaults 44100 Hz, 1 channel, 16 bits) and are ignored for files with a header.
 *
 * A path may end in ":fmtconv[sr=R,nch=N,nbits=B]" (keys in any case, nc for nch): the file is
 * read converted on the fly to rate R (soxr, very high quality) and N channels, remixed from the
 * file's channel layout to the default layout of N channels by AUDIO_ChannelMixMatrix (see
 * "Channel layouts" below). Missing keys keep the file's value.
 *
 * Sample kinds
 * ------------
 * The three read and write calls differ only in the scale of the samples in the buffer:
 *   16    signed 16-bit integers;
 *   Float 32-bit floats in the 16-bit scale: full scale is +-32768.0 (an Int16 sample s and a
 *         Float sample f mean the same level when f == s);
 *   IEEEFloat 32-bit floats normalised to +-1.0.
 * Floats are not clipped until they are encoded into an integer or lossy format. Writing floats
 * into a format of 16 bits or fewer applies the default dithering kind (AUDIODITHER_*). */
#ifndef SOVA_AUDIO_H
#define SOVA_AUDIO_H

#include <stddef.h>
#include <stdint.h>

#include <sova/sovaaudio_export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- The format record ---------------------------------------------------------------- */

/* A format: rate, channels, resolution, the container and codec codes, and two texts from the
 * foundation's persistent string pool (never freed). 32 bytes on x86-64. */
typedef struct _audio_format
{
    int32_t sampleRate; /* Hz */
    int16_t numChannels;
    int16_t bitsPerSample; /* resolution of the stored samples; 0 unknown */
    uint32_t container; /* AUDIO_CONTAINER_* code, 0 unknown */
    uint32_t coder; /* AUDIO_CODEC_* code, possibly with AUDIO_CODEC_FLAG_BIGENDIAN */
    const char* mimeType; /* pooled text or null */
    const char* codecInfo; /* pooled option string (bitrate=, avg_bitrate=, ...) or null */
} _audio_format;

#ifdef __cplusplus
static_assert(sizeof(_audio_format) == 32, "x86-64 layout of _audio_format");
static_assert(offsetof(_audio_format, numChannels) == 4, "_audio_format.numChannels");
static_assert(offsetof(_audio_format, bitsPerSample) == 6, "_audio_format.bitsPerSample");
static_assert(offsetof(_audio_format, container) == 8, "_audio_format.container");
static_assert(offsetof(_audio_format, coder) == 12, "_audio_format.coder");
static_assert(offsetof(_audio_format, mimeType) == 16, "_audio_format.mimeType");
static_assert(offsetof(_audio_format, codecInfo) == 24, "_audio_format.codecInfo");
#endif

/* Container codes (0..35). */
enum {
    AUDIO_CONTAINER_NONE = 0,
    AUDIO_CONTAINER_HTK = 1,
    AUDIO_CONTAINER_RAW = 2,
    AUDIO_CONTAINER_WAV = 3, /* RIFF WAVE, WAVE_FORMAT_EXTENSIBLE included */
    AUDIO_CONTAINER_AVI = 4,
    AUDIO_CONTAINER_NIST = 5, /* NIST SPHERE */
    AUDIO_CONTAINER_MP4 = 6, /* MPEG-4 / M4A */
    AUDIO_CONTAINER_AU = 7, /* Sun/NeXT .au .snd */
    AUDIO_CONTAINER_TXT = 8, /* samples as text, one frame per line */
    AUDIO_CONTAINER_AIFF = 9, /* AIFF and AIFF-C */
    AUDIO_CONTAINER_IRCAM = 10,
    AUDIO_CONTAINER_PAF = 11,
    AUDIO_CONTAINER_RF64 = 12,
    AUDIO_CONTAINER_MPEG = 13, /* MPEG audio elementary stream (.mp3 .mp2) */
    AUDIO_CONTAINER_OGG_VORBIS = 14,
    AUDIO_CONTAINER_OGG_OPUS = 15,
    AUDIO_CONTAINER_OGG_OTHER = 16, /* Ogg FLAC, Ogg Speex */
    AUDIO_CONTAINER_ASF = 17, /* ASF / WMA */
    AUDIO_CONTAINER_AVR = 18,
    AUDIO_CONTAINER_FLAC = 19,
    AUDIO_CONTAINER_WAVPACK = 20,
    AUDIO_CONTAINER_MPC = 21, /* Musepack */
    AUDIO_CONTAINER_VOC = 22,
    AUDIO_CONTAINER_CAF = 23,
    AUDIO_CONTAINER_WSIG = 24, /* the engine's own signal file: 32-bit float, little endian */
    AUDIO_CONTAINER_TTA = 25,
    AUDIO_CONTAINER_W64 = 26, /* Sony Wave64 */
    AUDIO_CONTAINER_APE = 27,
    AUDIO_CONTAINER_MAT = 28, /* MATLAB 5 */
    AUDIO_CONTAINER_MPC2K = 29,
    AUDIO_CONTAINER_MKV = 30, /* Matroska / WebM */
    AUDIO_CONTAINER_VOX = 31, /* headerless Dialogic VOX ADPCM */
    AUDIO_CONTAINER_OKI = 32, /* headerless OKI ADPCM */
    AUDIO_CONTAINER_AC3 = 33,
    AUDIO_CONTAINER_DTS = 34,
    AUDIO_CONTAINER_AMR = 35,
    AUDIO_CONTAINER_COUNT = 36
};

/* Codec codes. The low 15 bits name the codec; bit 15 flags big-endian sample order of
 * integer and float PCM (AIFF, AU, CAF, big-endian raw). */
enum {
    AUDIO_CODEC_NONE = 0,
    AUDIO_CODEC_PCM16 = 1,
    AUDIO_CODEC_PCM_U8 = 2,
    AUDIO_CODEC_PCM_S8 = 3,
    AUDIO_CODEC_PCM24 = 4,
    AUDIO_CODEC_PCM32 = 5,
    AUDIO_CODEC_FLOAT32 = 6,
    AUDIO_CODEC_FLOAT64 = 7,
    AUDIO_CODEC_ULAW = 8,
    AUDIO_CODEC_ALAW = 9,
    AUDIO_CODEC_IMA_ADPCM = 17,
    AUDIO_CODEC_MS_ADPCM = 18,
    AUDIO_CODEC_GSM610 = 19,
    AUDIO_CODEC_G721 = 20, /* G.721 ADPCM, 32 kbit/s */
    AUDIO_CODEC_G723_24 = 21, /* G.723 ADPCM, 24 kbit/s */
    AUDIO_CODEC_G723_40 = 22, /* G.723 ADPCM, 40 kbit/s */
    AUDIO_CODEC_VOX_ADPCM = 23,
    AUDIO_CODEC_NMS_ADPCM = 24,
    AUDIO_CODEC_DWVW12 = 26,
    AUDIO_CODEC_DWVW16 = 27,
    AUDIO_CODEC_DWVW24 = 28,
    AUDIO_CODEC_G722 = 29,
    AUDIO_CODEC_G726 = 30,
    AUDIO_CODEC_FLAC = 33,
    AUDIO_CODEC_ALAC = 34,
    AUDIO_CODEC_WAVPACK = 35,
    AUDIO_CODEC_APE = 36,
    AUDIO_CODEC_TTA = 37,
    AUDIO_CODEC_SHORTEN = 38,
    AUDIO_CODEC_TAK = 39,
    AUDIO_CODEC_MP4ALS = 40,
    AUDIO_CODEC_VORBIS = 41,
    AUDIO_CODEC_OPUS = 42,
    AUDIO_CODEC_SPEEX = 45,
    AUDIO_CODEC_AMR_NB = 48,
    AUDIO_CODEC_AMR_WB = 49,
    AUDIO_CODEC_MPEG_L1 = 65,
    AUDIO_CODEC_MPEG_L2 = 66,
    AUDIO_CODEC_MPEG_L3 = 67,
    AUDIO_CODEC_AAC = 68,
    AUDIO_CODEC_HE_AAC = 69,
    AUDIO_CODEC_HE_AAC_V2 = 70,
    AUDIO_CODEC_AC3 = 71,
    AUDIO_CODEC_EAC3 = 72,
    AUDIO_CODEC_DTS = 73,
    AUDIO_CODEC_TRUEHD = 74,
    AUDIO_CODEC_WMA_V1 = 97,
    AUDIO_CODEC_WMA_V2 = 98,
    AUDIO_CODEC_WMA_PRO = 99,
    AUDIO_CODEC_WMA_LOSSLESS = 100,
    AUDIO_CODEC_WMA_VOICE = 101,
    AUDIO_CODEC_MUSEPACK_SV7 = 128,
    AUDIO_CODEC_MUSEPACK_SV8 = 129,
    AUDIO_CODEC_ATRAC3 = 130,
    AUDIO_CODEC_ATRAC3P = 131,
    AUDIO_CODEC_COOK = 132,
    AUDIO_CODEC_NELLYMOSER = 133,
    AUDIO_CODEC_G729 = 160,
    AUDIO_CODEC_G723_1 = 161,
    AUDIO_CODEC_FLAG_BIGENDIAN = 0x8000,
    AUDIO_CODEC_MASK = 0x7fff
};

/* Error codes of the engine, in the foundation's error slot. */
enum {
    AUDIOERR_FIRST = 100,
    AUDIOERR_UNKNOWN_FORMAT = 100, /* the format string names nothing the engine knows */
    AUDIOERR_UNRECOGNISED = 101, /* the content is no audio the engine can read */
    AUDIOERR_CORRUPT = 102, /* malformed or truncated data */
    AUDIOERR_UNSUPPORTED = 103, /* known, but not in this direction or with these values */
    AUDIOERR_INVALID_FORMAT = 104, /* rate, channels or resolution out of range */
    AUDIOERR_ENCODE = 105,
    AUDIOERR_DECODE = 106,
    AUDIOERR_CANCELLED = 107,
    AUDIOERR_LAST = 107
};

/* Fills *format with the empty format: everything 0, no texts. */
SOVAAUDIO_EXPORT void AUDIO_NullFormat(_audio_format* format);

/* A PCM format (codec from the resolution, container none) by value. */
SOVAAUDIO_EXPORT _audio_format AUDIO_FormatEx(
    int32_t sampleRate, int16_t numChannels, int16_t bitsPerSample);

/* Non-zero when the format is usable: rate 10..500000, 1..8 channels, resolution
 * 3, 4 or 5 (ADPCMs), 8, 12, 16, 20, 24, 32 or 64. Null gives 0. */
SOVAAUDIO_EXPORT int32_t AUDIO_IsValidFormat(const _audio_format* format);

/* The container code, and the codec code with its flag bit, of a format; 0 for null. */
SOVAAUDIO_EXPORT uint32_t AUDIO_FormatContainer(const _audio_format* format);
SOVAAUDIO_EXPORT uint32_t AUDIO_FormatAudioCoder(const _audio_format* format);

/* Frames to seconds and back at the format's rate (rounded to the nearest frame); 0 when the
 * format is null or has no rate. */
SOVAAUDIO_EXPORT double AUDIO_Sample2Time(const _audio_format* format, int64_t samples);
SOVAAUDIO_EXPORT int64_t AUDIO_Time2Sample(const _audio_format* format, double seconds);

/* Persistent names: of a codec code (flag bit ignored; "PCM 16-bit"), null for an unknown
 * code; of a container code, short ("WAV") and extended ("Microsoft RIFF WAVE"), null for an
 * unknown code or code 0. */
SOVAAUDIO_EXPORT const char* AUDIODEF_AudioFormatString(uint32_t coder);
SOVAAUDIO_EXPORT const char* AUDIODEF_ContainerStringShort(uint32_t container);
SOVAAUDIO_EXPORT const char* AUDIODEF_ContainerStringExtended(uint32_t container);

/* Codec and container codes of a name of the format-string language ("flac", "pcm16",
 * "ima-adpcm"; any letter case); 0 when unknown. */
SOVAAUDIO_EXPORT uint32_t AUDIODEF_CodecFromName(const char* name);
SOVAAUDIO_EXPORT uint32_t AUDIODEF_ContainerFromName(const char* name);

/* All names the format-string language knows, as a persistent "|"-separated text. */
SOVAAUDIO_EXPORT const char* AUDIO_FormatStringNames(void);

/* ---- Dithering ------------------------------------------------------------------------- */

enum {
    AUDIODITHER_NONE = 0,
    AUDIODITHER_RECTANGULAR = 1, /* uniform noise of one step */
    AUDIODITHER_TRIANGULAR = 2, /* triangular (TPDF) noise of two steps: the default */
    AUDIODITHER_COUNT = 3
};

/* The process-wide default kind, applied whenever float samples are written at 16 bits or
 * fewer. AUDIODITHER_TRIANGULAR unless changed. */
SOVAAUDIO_EXPORT int32_t AUDIODITHER_DefaultKind(void);
/* Sets the default kind; 0 (and nothing changed) for an unknown kind. */
SOVAAUDIO_EXPORT int32_t AUDIODITHER_SetDefaultKind(int32_t kind);
/* "none", "rectangular", "triangular"; null for an unknown kind. */
SOVAAUDIO_EXPORT const char* AUDIODITHER_KindToString(int32_t kind);
/* The kind of a name (any letter case); -1 when unknown. */
SOVAAUDIO_EXPORT int32_t AUDIODITHER_KindFromString(const char* name);

/* ---- Mime types ------------------------------------------------------------------------ */

/* Writes the mime type of a format name ("wav", "flac", "mp3", or any container or codec name
 * of the format-string language; options in brackets are ignored) into buffer. When the name
 * is empty or null, the container of *format decides. Non-zero on success; 0 when the name is
 * unknown or the buffer is too small (then it holds ""). */
SOVAAUDIO_EXPORT int32_t AUDIO_ConvertAudioFormatToMimeTypeEx(
    const char* formatName, char* buffer, int32_t size, const _audio_format* format);
/* Writes the format name of a mime type ("audio/flac" -> "flac"; parameters after ";" and
 * letter case are ignored) into buffer. Non-zero on success, 0 when unknown. */
SOVAAUDIO_EXPORT int32_t AUDIO_ConvertMimeTypeToAudioFormat(
    const char* mimeType, char* buffer, int32_t size);

/* ---- Audio files ----------------------------------------------------------------------- */

/* An open audio file, for reading or for writing. Not shared between threads. */
typedef struct _AUDIOFILE AUDIOFILE;

/* Progress of long work: fraction in [0, 1]; a non-zero return cancels the work. */
typedef struct _audio_progress
{
    int32_t (*report)(void* user, double fraction);
    void* user;
} AUDIO_Progress;

/* Opens path for reading. format: format string (null or "" to detect). flags: 0. startFrame,
 * numFrames: a window of the file (0, 0 = all of it). Null on failure. Memory stays bounded
 * whatever the file's length; header fields never size an allocation unchecked. */
SOVAAUDIO_EXPORT AUDIOFILE* AUDIO_LoadFileEx2(
    const char* path, const char* format, uint32_t flags, int64_t startFrame, int64_t numFrames);

/* Creates path for writing. The format string names the container and codec (empty: from the
 * extension); fmt, when not null, gives rate, channels and resolution, and a resolution or
 * codec named in the format string wins over fmt's. kbps and quality: -1 for the encoder's
 * default, or as the kbps= and quality= options. flags: 0. metadata: null, or an option
 * string of tags (title=, artist=, album=, comment=, date=). expectedFrames: 0, or a hint.
 * The file is written beside the target and renamed into place by AUDIO_CloseFile, so a
 * failed or abandoned write leaves no file that looks complete (for plain paths; other schemes
 * are written in place). Null on failure. */
SOVAAUDIO_EXPORT AUDIOFILE* AUDIO_CreateFileEx2(const char* path, const char* format,
    const _audio_format* fmt, int32_t kbps, int32_t quality, uint32_t flags, const char* metadata,
    int64_t expectedFrames);

/* Fills *format with the file's format (read: as stored; write: as written). Non-zero on
 * success. */
SOVAAUDIO_EXPORT int32_t AUDIO_GetAudioFileFormat(AUDIOFILE* file, _audio_format* format);

/* Reads up to frames interleaved frames in one of the three sample kinds (see above). Returns
 * the frames read, 0 at the end, -1 on error. */
SOVAAUDIO_EXPORT int64_t AUDIO_Read16(AUDIOFILE* file, int16_t* buffer, int64_t frames);
SOVAAUDIO_EXPORT int64_t AUDIO_ReadFloat(AUDIOFILE* file, float* buffer, int64_t frames);
SOVAAUDIO_EXPORT int64_t AUDIO_ReadIEEEFloat(AUDIOFILE* file, float* buffer, int64_t frames);

/* Writes frames interleaved frames; returns frames written, -1 on error. */
SOVAAUDIO_EXPORT int64_t AUDIO_Write16(AUDIOFILE* file, const int16_t* buffer, int64_t frames);
SOVAAUDIO_EXPORT int64_t AUDIO_WriteFloat(AUDIOFILE* file, const float* buffer, int64_t frames);
SOVAAUDIO_EXPORT int64_t AUDIO_WriteIEEEFloat(AUDIOFILE* file, const float* buffer, int64_t frames);

/* Moves the read position to a frame; non-zero on success (files opened for reading whose
 * source is seekable). */
SOVAAUDIO_EXPORT int32_t AUDIO_Seek(AUDIOFILE* file, int64_t frame);

/* Frames in the file (read: in total, an estimate from the header for some compressed
 * streams, -1 when unknown; write: written so far); -1 for null. */
SOVAAUDIO_EXPORT int64_t AUDIO_Length(AUDIOFILE* file);
/* Length in seconds; -1.0 when unknown. */
SOVAAUDIO_EXPORT double AUDIO_Duration(AUDIOFILE* file);
/* Average bit rate of the stored stream in bit/s; 0 when unknown. */
SOVAAUDIO_EXPORT int64_t AUDIO_BitRate(AUDIOFILE* file);

/* Closes the file: a written file is finished and moved into place. 1 on success; 0 when
 * finishing failed (the target is then removed). Null is accepted. */
SOVAAUDIO_EXPORT int32_t AUDIO_CloseFile(AUDIOFILE* file);

/* Closes a file opened for writing without finishing it: nothing is moved into place, and a
 * file that was at the target before stays as it was (for plain paths; other schemes are
 * written in place and the target is removed). For a file opened for reading the same as
 * AUDIO_CloseFile. Always 1; null is accepted. */
SOVAAUDIO_EXPORT int32_t AUDIO_AbandonFile(AUDIOFILE* file);

/* Duration in seconds of a file; -1.0 when it cannot be read. */
SOVAAUDIO_EXPORT double AUDIO_GetAudioFileDurationEx(const char* path, const char* format);

/* Converts a whole file in blocks: source path and format string, target path and format
 * string. fmt, when not null and valid, gives the target's rate, channels and resolution (rate
 * and channels are converted); it is then filled with the format written. progress may be
 * null. 1 on success; on failure or cancel no target is left behind. */
SOVAAUDIO_EXPORT int32_t AUDIO_ConvertEx(const AUDIO_Progress* progress, const char* source,
    const char* sourceFormat, const char* target, const char* targetFormat, _audio_format* fmt);

/* ---- Output paths ---------------------------------------------------------------------- */

/* Where AUDIO_CreateFileEx2 (and the region writer) put a file:
 * - "-" is standard output; as a path to read, standard input.
 * - A character or block device, a FIFO or a socket is written in place and never replaced or
 *   removed.
 * - A symbolic link is kept: the file at the end of its chain is replaced (created when the
 *   chain ends nowhere), through a temporary beside that file.
 * - That temporary is unnamed (O_TMPFILE) where the file system offers it, and named only at
 *   the close: a process that dies meanwhile leaves nothing (but for the instant between
 *   linking the finished file under a hidden name and renaming it over an existing target). Elsewhere it is a hidden
 *   ".NAME.sova-XXXXXX". The close syncs the data before the rename and the directory after.
 * - A stream that cannot seek (a pipe, a terminal) gets formats that are written straight
 *   through as they are made; formats whose headers are finished last (WAV, AIFF, CAF, ...)
 *   are assembled in an unlinked temporary file under $TMPDIR and copied out when complete.
 *   Input that cannot seek is likewise copied to such a file before it is read.
 *
 * Removes every named temporary file that open writers have beside their targets (the target
 * itself is left as it was; unnamed ones need no removal). Async-signal-safe: meant for a SIGINT/SIGTERM/SIGHUP handler
 * that then ends the process; the writers are unusable afterwards. The count removed. */
SOVAAUDIO_EXPORT int32_t AUDIO_RemoveTemporaryFiles(void);

/* ---- Range and size on write ------------------------------------------------------------ *
 * Samples beyond full scale (|x| > 1.0) given to a file whose target stores no floats
 * (integer PCM, companded, ADPCM and lossy codecs) are clipped, here or in the encoder; a float
 * target keeps them and counts none. The writer counts them and the peak of every sample it
 * was given, so that a caller can say what was lost.
 *
 * Sizes: a WAV target whose expected length (AUDIO_CreateFileEx2's expectedFrames) would pass
 * 4 GiB is written as RF64 under the same name (the format then reports AUDIO_CONTAINER_RF64).
 * A PCM or float WAV of unknown or underestimated length becomes RF64 at the write that would
 * pass the limit: the audio so far is copied once into the RF64 file, so that write takes
 * longer. Other containers with 32-bit size fields (AIFF, AU, VOC, AVR, HTK, MAT, MPC2K), and
 * WAV that cannot switch (companded or ADPCM, or not written beside a plain path: schemes,
 * pipes, devices), are refused before writing, or fail the write that would pass the limit,
 * with a message naming the limit and formats that hold more (rf64, w64, caf). Test hook: the
 * environment variable SOVA_TEST_SIZE_LIMIT (bytes), read once per process, lowers the
 * limit so that the switch can be tested without writing 4 GiB. */

/* Clipped samples (all channels) and the peak magnitude (1.0 = full scale; 0 before any
 * sample) of a file open for writing, so far. Either pointer may be null. Non-zero for a file
 * open for writing. */
SOVAAUDIO_EXPORT int32_t AUDIO_GetClipReport(
    AUDIOFILE* file, int64_t* clippedSamples, double* peak);
/* The same for the last file the calling thread closed after writing it (AUDIO_CloseFile,
 * AUDIO_AbandonFile, and the target of AUDIO_ConvertEx); 0 when it has closed none. */
SOVAAUDIO_EXPORT int32_t AUDIO_GetLastClipReport(int64_t* clippedSamples, double* peak);

/* ---- Channel layouts ------------------------------------------------------------------ */

/* A format's channel layout is a WAVE_FORMAT_EXTENSIBLE speaker mask (the same bits as
 * FFmpeg's AV_CH_* for these 18), kept in decimal in its codecInfo option string under the key
 * "chmask" ("bitrate=128,chmask=63"). Channels come in the order of their bits. Absent, or
 * naming a different number of speakers than numChannels, means unspecified: the default
 * layout for the count. Readers fill it (WAVE_FORMAT_EXTENSIBLE and RF64 masks, CAF channel
 * layouts, FLAC's count layouts and channel-mask comment, the Vorbis/Opus/MP4 conventions
 * and FFmpeg's stream layouts) and deliver the channels in the file's own order, as mask order
 * (Ogg read through libsndfile is reordered from Vorbis order). Writers store it where the
 * container can: WAVE_FORMAT_EXTENSIBLE for WAV of more than 2 channels or of another layout
 * than the count's, RF64, FLAC's channel-mask comment, WavPack, and the codecs' own layouts
 * (AAC, ALAC, AC-3, Vorbis and Opus by count); a codec without the layout gets the channels
 * remixed into its nearest layout of the same count. AIFF, CAF, W64, AU and the raw formats
 * store the count alone. The format of an open file reports the layout actually stored. A
 * format string may ask for one with "chmask=N" when writing. */
enum {
    AUDIO_SPEAKER_FL = 0x1,
    AUDIO_SPEAKER_FR = 0x2,
    AUDIO_SPEAKER_FC = 0x4,
    AUDIO_SPEAKER_LFE = 0x8,
    AUDIO_SPEAKER_BL = 0x10,
    AUDIO_SPEAKER_BR = 0x20,
    AUDIO_SPEAKER_FLC = 0x40,
    AUDIO_SPEAKER_FRC = 0x80,
    AUDIO_SPEAKER_BC = 0x100,
    AUDIO_SPEAKER_SL = 0x200,
    AUDIO_SPEAKER_SR = 0x400,
    AUDIO_SPEAKER_TC = 0x800,
    AUDIO_SPEAKER_TFL = 0x1000,
    AUDIO_SPEAKER_TFC = 0x2000,
    AUDIO_SPEAKER_TFR = 0x4000,
    AUDIO_SPEAKER_TBL = 0x8000,
    AUDIO_SPEAKER_TBC = 0x10000,
    AUDIO_SPEAKER_TBR = 0x20000
};

/* The format's mask; 0 when unspecified (absent, unreadable, or not numChannels speakers). */
SOVAAUDIO_EXPORT uint32_t AUDIO_FormatChannelMask(const _audio_format* format);
/* Stores mask in the format's codecInfo (a new pooled text keeping the other keys); 0 removes
 * it. Returns 0, changing nothing, for null or a mask of a different speaker count. */
SOVAAUDIO_EXPORT int32_t AUDIO_SetFormatChannelMask(_audio_format* format, uint32_t mask);
/* The layout a bare count stands for: 1 FC, 2 FL+FR, 3 +FC, 4 quad (FL FR BL BR), 5 5.0
 * (FL FR FC BL BR), 6 5.1 (FL FR FC LFE BL BR), 7 6.1 (FL FR FC LFE BC SL SR), 8 7.1 (FL FR FC
 * LFE BL BR SL SR), as WAVE_FORMAT_EXTENSIBLE and Vorbis have them (FLAC files of 5 and 6
 * channels without a mask read as side surrounds, as FFmpeg reads them). 0 outside 1..8. */
SOVAAUDIO_EXPORT uint32_t AUDIO_DefaultChannelMask(int32_t channels);
/* A persistent name: "mono", "stereo", "5.1", "5.1(side)", "7.1", ... as FFmpeg names them,
 * else the speakers joined by "+" ("FL+FR+LFE"). mask 0 (or of another count than channels,
 * when channels > 0) names the default layout of channels. */
SOVAAUDIO_EXPORT const char* AUDIO_ChannelLayoutName(uint32_t mask, int32_t channels);
/* The remix from one layout to another (masks as for AUDIO_ChannelLayoutName), as outChannels
 * rows of inChannels gains, row-major, into matrix (null: only checks the arguments). Every
 * channel conversion of the engine (":fmtconv", AUDIO_ConvertEx, the "mix" effect, effect
 * paths, pipes) uses it. Speakers both layouts have pass at 1.0; the others fold as in ITU-R
 * BS.775: the centre into the front pair at -3 dB, surrounds into the fronts at -3 dB (into
 * the other pair of surrounds when there is one), mono keeps the centre and takes left and
 * right at -3 dB and the surrounds at -6 dB, LFE is left out; the result is scaled so that no
 * row's gains sum above 1.0, so nothing clips that did not. Up-mixes place each channel at its
 * own speaker and leave the rest silent, except mono into a layout without a centre, which
 * goes to both fronts at full level. 1 on success, 0 (recorded) for counts outside 1..32. */
SOVAAUDIO_EXPORT int32_t AUDIO_ChannelMixMatrix(
    uint32_t inMask, int32_t inChannels, uint32_t outMask, int32_t outChannels, float* matrix);

/* ---- True lengths and damaged input ------------------------------------------------------
 * Reading always goes on to the real end of the stream, whatever a header says. Bare MP3,
 * ADTS AAC and AC-3 streams state no length: AUDIO_Length gives FFmpeg's guess (from a Xing
 * header or the bit rate) until the end has been read, and the exact count from then on.
 * Damaged input is decoded past (the decoders resynchronise, as ffmpeg does) and a file cut
 * short gives back everything before the cut; what was skipped is counted per handle. */

/* Non-zero when AUDIO_Length is a count: the container states it (PCM sizes, FLAC, Ogg, MP4,
 * ...) or the end has been read; 0 when it is a guess, or for null. Files being written: 1. */
SOVAAUDIO_EXPORT int32_t AUDIO_LengthIsExact(AUDIOFILE* file);

/* Counts the frames by decoding to the end when the length is a guess, then goes back to the
 * read position; afterwards AUDIO_Length is exact. Returns the count, -1 on failure (a source
 * that cannot seek can only be counted before its first read, and its frames are then gone). */
SOVAAUDIO_EXPORT int64_t AUDIO_CountFrames(AUDIOFILE* file);

/* Damage met while reading so far (read to the end, or count, for the whole file). */
typedef struct _audio_damage_report
{
    int32_t stretches; /* damaged stretches decoded past; 0 for a clean read */
    int32_t truncated; /* non-zero when the file ends early (cut off, or unreadable from there) */
    double firstSeconds; /* where the first stretch starts in the output, -1.0 when none */
    double secondsLost; /* audio missing from the output, as far as timestamps tell */
    int64_t framesLost; /* the same in frames of the handle's rate */
} AUDIO_DamageReport;

/* Fills *report for a file opened for reading; non-zero on success. */
SOVAAUDIO_EXPORT int32_t AUDIO_GetDamageReport(AUDIOFILE* file, AUDIO_DamageReport* report);

/* Fills *report with the damage met in the last file the calling thread closed after reading
 * it: the source of its last AUDIO_ConvertEx, or a file read and closed by the caller (zeros,
 * firstSeconds -1.0, before any); non-zero on success. */
SOVAAUDIO_EXPORT int32_t AUDIO_LastConversionDamage(AUDIO_DamageReport* report);

/* The damage met when a signal was read from its file by AUDIOSIGNAL_OpenEx (all zero, with
 * firstSeconds -1.0, for signals made otherwise); non-zero on success. */
SOVAAUDIO_EXPORT int32_t AUDIOSIGNAL_GetDamageReport(
    struct _AUDIOSIGNAL* signal, AUDIO_DamageReport* report);

/* ---- Checking format strings ------------------------------------------------------------ */

/* 1 when format (null or "": none) is a format string that opening or creating a file takes;
 * else 0, with the reason recorded (AUDIOERR_UNKNOWN_FORMAT or AUDIOERR_INVALID_FORMAT). A
 * tool calls it to tell a bad string typed by its user from a file that fails. */
SOVAAUDIO_EXPORT int32_t AUDIO_CheckFormatString(const char* format);

#ifdef __cplusplus
}
#endif

#include <sova/audiosignal.h>
#include <sova/audiostream.h>
#include <sova/audioformats.h>


#endif
