/* The catalogue of the file formats the audio engine reads and writes, and of the region
 * (marker) files it imports and exports. Included by <sova/audio.h>.
 *
 * One filter per container, one tag per encoding inside it. A tag's name is a format string
 * of the engine (see <sova/audio.h>), such as "flac[nbits=24]", that AUDIO_CreateFileEx2 and
 * AUDIO_LoadFileEx2 accept as it stands. The capability masks tell the truth: a writer tag
 * writes every rate, channel count and resolution its mask accepts. */
#ifndef SOVA_AUDIOFORMATS_H
#define SOVA_AUDIOFORMATS_H

#include <stddef.h>
#include <stdint.h>

#include <sova/sovaaudio_export.h>

#ifdef __cplusplus
extern "C" {
#endif

struct _audio_format;

/* Capability bits of a tag. */
enum {
    AUDIOCAP_RATE_ANY = 0x80, /* any rate from 10 Hz to 500 kHz */
    AUDIOCAP_RATE_192000 = 0x100,
    AUDIOCAP_RATE_96000 = 0x200,
    AUDIOCAP_RATE_48000 = 0x400,
    AUDIOCAP_RATE_44100 = 0x800,
    AUDIOCAP_RATE_32000 = 0x1000,
    AUDIOCAP_RATE_24000 = 0x2000,
    AUDIOCAP_RATE_22050 = 0x4000,
    AUDIOCAP_RATE_16000 = 0x8000,
    AUDIOCAP_RATE_12000 = 0x10000,
    AUDIOCAP_RATE_11025 = 0x20000,
    AUDIOCAP_RATE_8000 = 0x40000,
    AUDIOCAP_RATE_6000 = 0x80000,
    AUDIOCAP_STEREO = 0x100000,
    AUDIOCAP_MONO = 0x200000,
    AUDIOCAP_51 = 0x400000,        /* the 5.1 layout (6 channels) */
    AUDIOCAP_MULTI = 0x800000,     /* 3 to 8 channels */
    AUDIOCAP_BITS16 = 0x1000000,
    AUDIOCAP_BITS8 = 0x2000000,    /* unsigned */
    AUDIOCAP_BITS8S = 0x4000000,   /* signed */
    AUDIOCAP_FLOAT32 = 0x8000000,
    AUDIOCAP_BITS24 = 0x10000000,
    AUDIOCAP_BITS32 = 0x20000000,
    AUDIOCAP_DITHER = 0x40000000,  /* floats written at 16 bits or fewer are dithered */
    AUDIOCAP_BITRATE = 0x80000000u /* takes kbps= */
};

/* Directions of a tag. */
enum { AUDIOTAG_READ = 1, AUDIOTAG_WRITE = 2 };

/* Filter kinds (flags). */
enum {
    AUDIOFILTER_AUDIO = 0x10,      /* containers of PCM or lossless audio */
    AUDIOFILTER_COMPRESSED = 0x20, /* containers of lossy audio */
    AUDIOFILTER_RAW = 0x40         /* headerless samples */
};

/* One encoding of a container. 88 bytes on x86-64. */
typedef struct _sAUDIOFormatTag {
    char name[52];              /* format string, NUL-terminated */
    const char* description;    /* "-" keeps the tag out of catalogues */
    uint32_t capabilities;      /* AUDIOCAP_* */
    uint32_t direction;         /* AUDIOTAG_* */
    const char* mimeTypes;      /* or null: the filter's */
    const char* specificParams; /* options the tag takes, "kbps=32..320" style, or null */
} _sAUDIOFormatTag;

/* One container. */
typedef struct _sAUDIOFormatFilter {
    const char* name;             /* "WAV" */
    const char* description;      /* "Microsoft RIFF WAVE" */
    uint32_t container;           /* AUDIO_CONTAINER_* */
    const char* fileDialogFilter; /* "Microsoft RIFF WAVE (*.wav *.wave)" */
    const char* extensions;       /* "wav|wave" */
    const char* mimeType;         /* for tags that have none */
    uint32_t reserved0;
    const _sAUDIOFormatTag* tags;
    int32_t tagCount;
    uint32_t reserved1[2];
    uint32_t flags;               /* AUDIOFILTER_* */
    uint32_t reserved2[16];
    /* Non-zero when a file of this container can hold the format (rate, channels); may be
     * null (then it can). */
    uint8_t (*formatCheck)(const struct _audio_format* format);
} _sAUDIOFormatFilter;

#ifdef __cplusplus
static_assert(sizeof(_sAUDIOFormatTag) == 88, "x86-64 layout of _sAUDIOFormatTag");
static_assert(offsetof(_sAUDIOFormatTag, description) == 56, "_sAUDIOFormatTag.description");
static_assert(offsetof(_sAUDIOFormatTag, capabilities) == 64, "_sAUDIOFormatTag.capabilities");
static_assert(offsetof(_sAUDIOFormatTag, mimeTypes) == 72, "_sAUDIOFormatTag.mimeTypes");
static_assert(offsetof(_sAUDIOFormatTag, specificParams) == 80, "_sAUDIOFormatTag.params");
static_assert(offsetof(_sAUDIOFormatFilter, fileDialogFilter) == 24, "filter.fileDialogFilter");
static_assert(offsetof(_sAUDIOFormatFilter, tags) == 56, "_sAUDIOFormatFilter.tags");
static_assert(offsetof(_sAUDIOFormatFilter, tagCount) == 64, "_sAUDIOFormatFilter.tagCount");
static_assert(offsetof(_sAUDIOFormatFilter, flags) == 76, "_sAUDIOFormatFilter.flags");
static_assert(offsetof(_sAUDIOFormatFilter, formatCheck) == 144, "filter.formatCheck");
#endif

/* Number of filters, and filter i (0-based; null out of range). The records live as long as
 * the process. */
SOVAAUDIO_EXPORT int32_t AUDIO_CountFormatFilters(void);
SOVAAUDIO_EXPORT const _sAUDIOFormatFilter* AUDIO_GetFormatFilter(int32_t index);
/* Container and codec codes of a tag (from its format string); 0 for null. */
SOVAAUDIO_EXPORT uint32_t AUDIO_FormatTagContainer(const _sAUDIOFormatTag* tag);
SOVAAUDIO_EXPORT uint32_t AUDIO_FormatTagAudioCoder(const _sAUDIOFormatTag* tag);

/* ---- Region (marker) files --------------------------------------------------------------- */

enum {
    AUDIOREGION_READ = 1,
    AUDIOREGION_WRITE = 2,
    AUDIOREGION_LISTED = 8 /* offered in file dialogs */
};

/* A region file format. */
typedef struct _sAUDIORegionFilter {
    uint32_t version;        /* 1 */
    uint32_t kind;           /* AUDIOREGION_KIND_* */
    char tagName[60];        /* "labels", "cue" */
    const char* filter;      /* file-dialog filter text, or null */
    uint32_t reserved;
    uint32_t flags;          /* AUDIOREGION_* */
} _sAUDIORegionFilter;

enum { AUDIOREGION_KIND_LABELS = 1, AUDIOREGION_KIND_CUE = 2 };

#ifdef __cplusplus
static_assert(offsetof(_sAUDIORegionFilter, tagName) == 8, "_sAUDIORegionFilter.tagName");
static_assert(offsetof(_sAUDIORegionFilter, filter) == 72, "_sAUDIORegionFilter.filter");
static_assert(offsetof(_sAUDIORegionFilter, flags) == 84, "_sAUDIORegionFilter.flags");
#endif

/* Stores up to capacity pointers to region filter records into filters; returns how many. */
SOVAAUDIO_EXPORT int32_t AUDIO_GetExternalRegionFilters(const _sAUDIORegionFilter** filters,
                                                        int32_t capacity);

/* A region: a time range in seconds with a label (UTF-8). */
typedef struct _audio_region {
    double begin;
    double end;
    char label[256];
} _audio_region;

/* Reads a region file into at most capacity regions; returns how many were read, -1 on error
 * (recorded, naming the file and line). tagName "labels": lines of tab-separated begin, end
 * and label (seconds), as audio editors export them; "cue": a CUE sheet's tracks, each region
 * running from its INDEX 01 to the next track's (the last one has no length), the TITLE as
 * label. Any path scheme works. A sheet whose FILE names a memory address (see
 * BLIO_NamesMemoryAddress) is refused as corrupt: content never hands such a path on. */
SOVAAUDIO_EXPORT int32_t AUDIO_ReadRegions(const char* path, const char* tagName,
                                           _audio_region* regions, int32_t capacity);
/* Writes count regions; audioFile names the audio file in a CUE sheet (may be null; a memory
 * address is refused). Atomic for plain paths. 1 on success. */
SOVAAUDIO_EXPORT int32_t AUDIO_WriteRegions(const char* path, const char* tagName,
                                            const _audio_region* regions, int32_t count,
                                            const char* audioFile);

#ifdef __cplusplus
}
#endif

#endif
