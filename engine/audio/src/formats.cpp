// The engine's tables: codecs and containers with their names, extensions and mime types, the
// format record's small functions and the dithering kinds.
#include "backend.h"

#include <sova/bllog.h>
#include <sova/blstring.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace sova::audio {
namespace {

    struct CodecEntry
    {
        uint32_t code;
        const char* label; // AUDIODEF_AudioFormatString
        const char* names; // "|"-separated names of the format-string language, first is canonical
        int32_t bits; // resolution it stores
        bool lossy; // perceptual codec: dithering before it makes no sense
    };

    // Every code an AudioCodec value of the Qt layer stands for has an entry here.
    constexpr CodecEntry kCodecs[] = {
        {AUDIO_CODEC_PCM16, "PCM 16-bit", "pcm16|pcm_s16|s16|pcm", 16, false},
        {AUDIO_CODEC_PCM_U8, "PCM 8-bit unsigned", "pcm8|pcm_u8|u8", 8, false},
        {AUDIO_CODEC_PCM_S8, "PCM 8-bit signed", "pcm_s8|s8", 8, false},
        {AUDIO_CODEC_PCM24, "PCM 24-bit", "pcm24|pcm_s24|s24", 24, false},
        {AUDIO_CODEC_PCM32, "PCM 32-bit", "pcm32|pcm_s32|s32", 32, false},
        {AUDIO_CODEC_FLOAT32, "IEEE float 32-bit", "float|float32|f32", 32, false},
        {AUDIO_CODEC_FLOAT64, "IEEE float 64-bit", "double|float64|f64", 64, false},
        {AUDIO_CODEC_ULAW, "u-Law", "ulaw|mulaw|u-law|pcm_mulaw", 8, false},
        {AUDIO_CODEC_ALAW, "A-Law", "alaw|a-law|pcm_alaw", 8, false},
        {AUDIO_CODEC_IMA_ADPCM, "IMA ADPCM", "ima-adpcm|ima_adpcm|ima", 4, false},
        {AUDIO_CODEC_MS_ADPCM, "Microsoft ADPCM", "ms-adpcm|ms_adpcm|msadpcm", 4, false},
        {AUDIO_CODEC_GSM610, "GSM 6.10", "gsm|gsm610", 16, false},
        {AUDIO_CODEC_G721, "G.721 ADPCM 32 kbit/s", "g721|g721-32", 4, false},
        {AUDIO_CODEC_G723_24, "G.723 ADPCM 24 kbit/s", "g723-24|g723_24", 3, false},
        {AUDIO_CODEC_G723_40, "G.723 ADPCM 40 kbit/s", "g723-40|g723_40", 5, false},
        {AUDIO_CODEC_VOX_ADPCM, "Dialogic VOX ADPCM", "vox-adpcm|vox_adpcm|oki-adpcm", 4, false},
        {AUDIO_CODEC_NMS_ADPCM, "NMS ADPCM", "nms-adpcm|nms_adpcm", 4, false},
        {AUDIO_CODEC_DWVW12, "DWVW 12-bit", "dwvw12", 12, false},
        {AUDIO_CODEC_DWVW16, "DWVW 16-bit", "dwvw16", 16, false},
        {AUDIO_CODEC_DWVW24, "DWVW 24-bit", "dwvw24", 24, false},
        {AUDIO_CODEC_G722, "G.722", "g722", 16, true},
        {AUDIO_CODEC_G726, "G.726 ADPCM", "g726", 4, false},
        {AUDIO_CODEC_FLAC, "FLAC", "flac", 16, false},
        {AUDIO_CODEC_ALAC, "Apple Lossless (ALAC)", "alac", 16, false},
        {AUDIO_CODEC_WAVPACK, "WavPack", "wavpack|wv", 16, false},
        {AUDIO_CODEC_APE, "Monkey's Audio", "ape", 16, false},
        {AUDIO_CODEC_TTA, "True Audio", "tta", 16, false},
        {AUDIO_CODEC_SHORTEN, "Shorten", "shorten|shn", 16, false},
        {AUDIO_CODEC_TAK, "TAK", "tak", 16, false},
        {AUDIO_CODEC_MP4ALS, "MPEG-4 ALS", "als|mp4als", 16, false},
        {AUDIO_CODEC_VORBIS, "Vorbis", "vorbis", 16, true},
        {AUDIO_CODEC_OPUS, "Opus", "opus", 16, true},
        {AUDIO_CODEC_SPEEX, "Speex", "speex|spx", 16, true},
        {AUDIO_CODEC_AMR_NB, "AMR-NB", "amr-nb|amrnb|amr", 16, true},
        {AUDIO_CODEC_AMR_WB, "AMR-WB", "amr-wb|amrwb", 16, true},
        {AUDIO_CODEC_MPEG_L1, "MPEG-1 Layer I", "mp1|mpeg-l1", 16, true},
        {AUDIO_CODEC_MPEG_L2, "MPEG-1 Layer II", "mp2|mpeg-l2", 16, true},
        {AUDIO_CODEC_MPEG_L3, "MPEG-1 Layer III (MP3)", "mp3|mpeg-l3", 16, true},
        {AUDIO_CODEC_AAC, "AAC", "aac|aac-lc", 16, true},
        {AUDIO_CODEC_HE_AAC, "HE-AAC", "he-aac|aac-he", 16, true},
        {AUDIO_CODEC_HE_AAC_V2, "HE-AAC v2", "he-aac-v2|aac-he-v2", 16, true},
        {AUDIO_CODEC_AC3, "AC-3", "ac3", 16, true},
        {AUDIO_CODEC_EAC3, "E-AC-3", "eac3|e-ac3", 16, true},
        {AUDIO_CODEC_DTS, "DTS", "dts", 16, true},
        {AUDIO_CODEC_TRUEHD, "Dolby TrueHD", "truehd", 24, false},
        {AUDIO_CODEC_WMA_V1, "WMA v1", "wmav1", 16, true},
        {AUDIO_CODEC_WMA_V2, "WMA v2", "wmav2|wma", 16, true},
        {AUDIO_CODEC_WMA_PRO, "WMA Pro", "wmapro", 16, true},
        {AUDIO_CODEC_WMA_LOSSLESS, "WMA Lossless", "wmalossless", 16, false},
        {AUDIO_CODEC_WMA_VOICE, "WMA Voice", "wmavoice", 16, true},
        {AUDIO_CODEC_MUSEPACK_SV7, "Musepack SV7", "mpc7|musepack7", 16, true},
        {AUDIO_CODEC_MUSEPACK_SV8, "Musepack SV8", "mpc8|musepack8|musepack", 16, true},
        {AUDIO_CODEC_ATRAC3, "ATRAC3", "atrac3", 16, true},
        {AUDIO_CODEC_ATRAC3P, "ATRAC3plus", "atrac3p|atrac3plus", 16, true},
        {AUDIO_CODEC_COOK, "RealAudio Cook", "cook", 16, true},
        {AUDIO_CODEC_NELLYMOSER, "Nellymoser Asao", "nellymoser", 16, true},
        {AUDIO_CODEC_G729, "G.729", "g729", 16, true},
        {AUDIO_CODEC_G723_1, "G.723.1", "g723.1|g723_1", 16, true},
    };

    struct ContainerEntry
    {
        uint32_t code;
        const char* shortName; // AUDIODEF_ContainerStringShort
        const char* longName; // AUDIODEF_ContainerStringExtended
        const char* names; // names of the format-string language, first is canonical
        const char* extensions; // "|"-separated, first is the usual one
        const char* mime; // the container's mime type; others it answers to follow after "|"
        uint32_t coder; // what it gets when a format string names no codec
    };

    constexpr uint32_t BE = AUDIO_CODEC_FLAG_BIGENDIAN;

    constexpr ContainerEntry kContainers[] = {
        {AUDIO_CONTAINER_HTK, "HTK", "HTK (HMM Tool Kit)", "htk", "htk", "audio/x-htk",
            AUDIO_CODEC_PCM16 | BE},
        {AUDIO_CONTAINER_RAW, "RAW", "Raw samples (headerless)", "raw", "raw|pcm|sam",
            "audio/x-raw", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_WAV, "WAV", "Microsoft RIFF WAVE", "wav|wave|wavex", "wav|wave",
            "audio/wav|audio/x-wav|audio/wave|audio/vnd.wave", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_AVI, "AVI", "Microsoft AVI", "avi", "avi", "video/x-msvideo|video/avi",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_NIST, "NIST", "NIST SPHERE", "nist|sph", "sph|nist", "audio/x-nist",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_MP4, "M4A", "MPEG-4 Audio", "m4a|mp4", "m4a|mp4|m4b",
            "audio/mp4|audio/m4a|audio/x-m4a|audio/aac|audio/aacp", AUDIO_CODEC_AAC},
        {AUDIO_CONTAINER_AU, "AU", "Sun/NeXT AU", "au|snd", "au|snd", "audio/basic|audio/x-au",
            AUDIO_CODEC_PCM16 | BE},
        {AUDIO_CONTAINER_TXT, "TXT", "Samples as text", "txt", "txt", "text/x-audio-samples",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_AIFF, "AIFF", "Apple AIFF / AIFF-C", "aiff|aif|aifc", "aif|aiff|aifc",
            "audio/aiff|audio/x-aiff", AUDIO_CODEC_PCM16 | BE},
        {AUDIO_CONTAINER_IRCAM, "IRCAM", "Berkeley/IRCAM/CARL sound file", "ircam|sf", "sf|ircam",
            "audio/x-ircam", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_PAF, "PAF", "Ensoniq PARIS", "paf", "paf", "audio/x-paris",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_RF64, "RF64", "RF64 (RIFF of 64-bit sizes)", "rf64", "rf64",
            "audio/x-rf64", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_MPEG, "MP3", "MPEG audio stream", "mp3|mpeg|mpa", "mp3|mp2|mp1|mpa",
            "audio/mpeg|audio/mp3|audio/x-mp3|audio/mpeg3", AUDIO_CODEC_MPEG_L3},
        // Named for the container alone: hosts that know only one Ogg value show this label for
        // Opus and Speex streams as well.
        {AUDIO_CONTAINER_OGG_VORBIS, "OGG", "Ogg", "ogg|oga", "ogg|oga",
            "audio/ogg|audio/vorbis|audio/x-vorbis+ogg|application/ogg", AUDIO_CODEC_VORBIS},
        {AUDIO_CONTAINER_OGG_OPUS, "OPUS", "Ogg Opus", "opus", "opus", "audio/opus",
            AUDIO_CODEC_OPUS},
        {AUDIO_CONTAINER_OGG_OTHER, "SPX", "Ogg Speex", "spx|oggspeex", "spx",
            "audio/speex|audio/x-speex", AUDIO_CODEC_SPEEX},
        {AUDIO_CONTAINER_ASF, "WMA", "Windows Media Audio (ASF)", "wma|asf", "wma|asf",
            "audio/x-ms-wma|video/x-ms-asf", AUDIO_CODEC_WMA_V2},
        {AUDIO_CONTAINER_AVR, "AVR", "Audio Visual Research", "avr", "avr", "audio/x-avr",
            AUDIO_CODEC_PCM16 | BE},
        {AUDIO_CONTAINER_FLAC, "FLAC", "Free Lossless Audio Codec", "flac", "flac",
            "audio/flac|audio/x-flac", AUDIO_CODEC_FLAC},
        {AUDIO_CONTAINER_WAVPACK, "WV", "WavPack", "wv|wavpack", "wv", "audio/x-wavpack",
            AUDIO_CODEC_WAVPACK},
        {AUDIO_CONTAINER_MPC, "MPC", "Musepack", "mpc|musepack", "mpc|mp+", "audio/x-musepack",
            AUDIO_CODEC_MUSEPACK_SV8},
        {AUDIO_CONTAINER_VOC, "VOC", "Creative Voice", "voc", "voc", "audio/x-voc",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_CAF, "CAF", "Apple Core Audio Format", "caf", "caf", "audio/x-caf",
            AUDIO_CODEC_PCM16 | BE},
        {AUDIO_CONTAINER_WSIG, "WSIG", "Sova signal file", "wsig", "wsig", "audio/x-sova-signal",
            AUDIO_CODEC_FLOAT32},
        {AUDIO_CONTAINER_TTA, "TTA", "True Audio", "tta", "tta", "audio/x-tta", AUDIO_CODEC_TTA},
        {AUDIO_CONTAINER_W64, "W64", "Sony Wave64", "w64", "w64", "audio/x-w64", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_APE, "APE", "Monkey's Audio", "ape", "ape", "audio/x-ape",
            AUDIO_CODEC_APE},
        {AUDIO_CONTAINER_MAT, "MAT", "MATLAB 5 data", "mat|mat5", "mat",
            "application/x-matlab-data", AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_MPC2K, "MPC2K", "Akai MPC 2000", "mpc2k", "mpc2k", "audio/x-mpc2k",
            AUDIO_CODEC_PCM16},
        {AUDIO_CONTAINER_MKV, "MKA", "Matroska / WebM", "mka|mkv|matroska|webm", "mka|mkv|webm",
            "audio/x-matroska|audio/webm|video/x-matroska|video/webm", AUDIO_CODEC_FLAC},
        {AUDIO_CONTAINER_VOX, "VOX", "Dialogic VOX ADPCM (headerless)", "vox", "vox", "audio/x-vox",
            AUDIO_CODEC_VOX_ADPCM},
        {AUDIO_CONTAINER_OKI, "OKI", "OKI ADPCM (headerless)", "oki", "oki", "audio/x-oki",
            AUDIO_CODEC_VOX_ADPCM},
        {AUDIO_CONTAINER_AC3, "AC3", "Dolby Digital (AC-3)", "ac3", "ac3", "audio/ac3",
            AUDIO_CODEC_AC3},
        {AUDIO_CONTAINER_DTS, "DTS", "DTS Coherent Acoustics", "dts", "dts", "audio/vnd.dts",
            AUDIO_CODEC_DTS},
        {AUDIO_CONTAINER_AMR, "AMR", "Adaptive Multi-Rate (AMR)", "amr", "amr", "audio/amr",
            AUDIO_CODEC_AMR_NB},
    };

    std::string lower(const char* text)
    {
        std::string s = text ? text : "";
        for (char& c : s)
            c = char(std::tolower(static_cast<unsigned char>(c)));
        return s;
    }

    // True when `word` is one of the "|"-separated items of `list`.
    bool inList(const char* list, const std::string& word)
    {
        if (word.empty())
            return false;
        const char* p = list;
        while (*p) {
            const char* end = std::strchr(p, '|');
            const size_t n = end ? size_t(end - p) : std::strlen(p);
            if (n == word.size() && std::memcmp(p, word.data(), n) == 0)
                return true;
            if (!end)
                break;
            p = end + 1;
        }
        return false;
    }

    std::string firstItem(const char* list)
    {
        const char* end = std::strchr(list, '|');
        return end ? std::string(list, end) : std::string(list);
    }

    const CodecEntry* findCodec(uint32_t coder)
    {
        const uint32_t code = coder & AUDIO_CODEC_MASK;
        for (const CodecEntry& e : kCodecs)
            if (e.code == code)
                return &e;
        return nullptr;
    }

    const ContainerEntry* findContainer(uint32_t code)
    {
        for (const ContainerEntry& e : kContainers)
            if (e.code == code)
                return &e;
        return nullptr;
    }

    // The name part of a format string: up to "[" and without blanks around it.
    std::string nameOf(const char* text)
    {
        std::string s = lower(text);
        const size_t bracket = s.find('[');
        if (bracket != std::string::npos)
            s.erase(bracket);
        const size_t b = s.find_first_not_of(" \t");
        const size_t e = s.find_last_not_of(" \t");
        return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
    }

    // The container a codec name lives in when the format string names no container.
    uint32_t naturalContainer(uint32_t coder)
    {
        switch (coder & AUDIO_CODEC_MASK) {
        case AUDIO_CODEC_FLAC:
            return AUDIO_CONTAINER_FLAC;
        case AUDIO_CODEC_ALAC:
        case AUDIO_CODEC_AAC:
        case AUDIO_CODEC_HE_AAC:
        case AUDIO_CODEC_HE_AAC_V2:
        case AUDIO_CODEC_MP4ALS:
            return AUDIO_CONTAINER_MP4;
        case AUDIO_CODEC_WAVPACK:
            return AUDIO_CONTAINER_WAVPACK;
        case AUDIO_CODEC_APE:
            return AUDIO_CONTAINER_APE;
        case AUDIO_CODEC_TTA:
            return AUDIO_CONTAINER_TTA;
        case AUDIO_CODEC_VORBIS:
            return AUDIO_CONTAINER_OGG_VORBIS;
        case AUDIO_CODEC_OPUS:
            return AUDIO_CONTAINER_OGG_OPUS;
        case AUDIO_CODEC_SPEEX:
            return AUDIO_CONTAINER_OGG_OTHER;
        case AUDIO_CODEC_AMR_NB:
        case AUDIO_CODEC_AMR_WB:
            return AUDIO_CONTAINER_AMR;
        case AUDIO_CODEC_MPEG_L1:
        case AUDIO_CODEC_MPEG_L2:
        case AUDIO_CODEC_MPEG_L3:
            return AUDIO_CONTAINER_MPEG;
        case AUDIO_CODEC_AC3:
        case AUDIO_CODEC_EAC3:
            return AUDIO_CONTAINER_AC3;
        case AUDIO_CODEC_DTS:
            return AUDIO_CONTAINER_DTS;
        case AUDIO_CODEC_WMA_V1:
        case AUDIO_CODEC_WMA_V2:
        case AUDIO_CODEC_WMA_PRO:
        case AUDIO_CODEC_WMA_LOSSLESS:
        case AUDIO_CODEC_WMA_VOICE:
            return AUDIO_CONTAINER_ASF;
        case AUDIO_CODEC_MUSEPACK_SV7:
        case AUDIO_CODEC_MUSEPACK_SV8:
            return AUDIO_CONTAINER_MPC;
        case AUDIO_CODEC_VOX_ADPCM:
            return AUDIO_CONTAINER_VOX;
        case AUDIO_CODEC_TRUEHD:
        case AUDIO_CODEC_SHORTEN:
        case AUDIO_CODEC_TAK:
        case AUDIO_CODEC_ATRAC3:
        case AUDIO_CODEC_ATRAC3P:
        case AUDIO_CODEC_COOK:
        case AUDIO_CODEC_NELLYMOSER:
        case AUDIO_CODEC_G729:
        case AUDIO_CODEC_G723_1:
        case AUDIO_CODEC_G722:
            return AUDIO_CONTAINER_MKV;
        case AUDIO_CODEC_NONE:
            return AUDIO_CONTAINER_NONE;
        default:
            return AUDIO_CONTAINER_WAV; // the PCM family, ADPCMs, GSM
        }
    }

    bool copyOut(const std::string& text, char* buffer, int32_t size)
    {
        if (!buffer || size <= 0)
            return false;
        if (text.empty() || text.size() + 1 > size_t(size)) {
            buffer[0] = '\0';
            return false;
        }
        std::memcpy(buffer, text.c_str(), text.size() + 1);
        return true;
    }

    std::atomic<int32_t> gDefaultDither {AUDIODITHER_TRIANGULAR};
    constexpr const char* kDitherNames[AUDIODITHER_COUNT] = {"none", "rectangular", "triangular"};

} // namespace

uint32_t containerFromExtension(const std::string& extension)
{
    std::string ext = lower(extension.c_str());
    if (!ext.empty() && ext[0] == '.')
        ext.erase(0, 1);
    for (const ContainerEntry& e : kContainers)
        if (inList(e.extensions, ext))
            return e.code;
    return AUDIO_CONTAINER_NONE;
}

uint32_t coderForName(const std::string& nameOrExtension)
{
    // What users expect of these names, not the container's one default: "mp2" and "mpa"
    // are Layer II files, "mp1" Layer I, "webm" carries Opus (WebM allows no FLAC).
    static const struct
    {
        const char* name;
        uint32_t coder;
    } kNamed[] = {
        {"mp2", AUDIO_CODEC_MPEG_L2},
        {"mpa", AUDIO_CODEC_MPEG_L2},
        {"mp1", AUDIO_CODEC_MPEG_L1},
        {"webm", AUDIO_CODEC_OPUS},
        {"oga", AUDIO_CODEC_VORBIS},
        {"m4b", AUDIO_CODEC_AAC},
    };
    std::string name = lower(nameOrExtension.c_str());
    if (!name.empty() && name[0] == '.')
        name.erase(0, 1);
    for (const auto& e : kNamed)
        if (name == e.name)
            return e.coder;
    return AUDIO_CODEC_NONE;
}

uint32_t defaultCoder(uint32_t container)
{
    const ContainerEntry* e = findContainer(container);
    return e ? e->coder : uint32_t(AUDIO_CODEC_NONE);
}

bool isLossyCoder(uint32_t coder)
{
    const CodecEntry* e = findCodec(coder);
    return e && e->lossy;
}

int32_t coderBits(uint32_t coder)
{
    const CodecEntry* e = findCodec(coder);
    return e ? e->bits : 0;
}

uint32_t containerForCodec(uint32_t coder)
{
    return naturalContainer(coder);
}

const char* containerMimeType(uint32_t container)
{
    const ContainerEntry* e = findContainer(container);
    return e ? pooled(firstItem(e->mime).c_str()) : nullptr;
}

} // namespace sova::audio

using namespace sova::audio;

extern "C" {

void AUDIO_NullFormat(_audio_format* format)
{
    if (format)
        *format = _audio_format {};
}

_audio_format AUDIO_FormatEx(int32_t sampleRate, int16_t numChannels, int16_t bitsPerSample)
{
    _audio_format f {};
    f.sampleRate = sampleRate;
    f.numChannels = numChannels;
    f.bitsPerSample = bitsPerSample;
    switch (bitsPerSample) {
    case 8:
        f.coder = AUDIO_CODEC_PCM_U8;
        break;
    case 16:
        f.coder = AUDIO_CODEC_PCM16;
        break;
    case 24:
        f.coder = AUDIO_CODEC_PCM24;
        break;
    case 32:
        f.coder = AUDIO_CODEC_PCM32;
        break;
    case 64:
        f.coder = AUDIO_CODEC_FLOAT64;
        break;
    default:
        break;
    }
    return f;
}

int32_t AUDIO_IsValidFormat(const _audio_format* format)
{
    if (!format)
        return 0;
    if (format->sampleRate < 10 || format->sampleRate > 500000)
        return 0;
    if (format->numChannels < 1 || format->numChannels > 8)
        return 0;
    switch (format->bitsPerSample) {
    case 3:
    case 4:
    case 5:
    case 8:
    case 12:
    case 16:
    case 20:
    case 24:
    case 32:
    case 64:
        return 1;
    default:
        return 0;
    }
}

uint32_t AUDIO_FormatContainer(const _audio_format* format)
{
    return format ? format->container : 0;
}

uint32_t AUDIO_FormatAudioCoder(const _audio_format* format)
{
    return format ? format->coder : 0;
}

double AUDIO_Sample2Time(const _audio_format* format, int64_t samples)
{
    if (!format || format->sampleRate <= 0)
        return 0.0;
    return double(samples) / double(format->sampleRate);
}

int64_t AUDIO_Time2Sample(const _audio_format* format, double seconds)
{
    if (!format || format->sampleRate <= 0 || !std::isfinite(seconds))
        return 0;
    const double frames = std::round(seconds * double(format->sampleRate));
    // Out-of-range times saturate rather than overflow.
    if (frames >= 9.2e18)
        return std::numeric_limits<int64_t>::max();
    if (frames <= -9.2e18)
        return std::numeric_limits<int64_t>::min();
    return int64_t(frames);
}

const char* AUDIODEF_AudioFormatString(uint32_t coder)
{
    const CodecEntry* e = findCodec(coder);
    return e ? e->label : nullptr;
}

const char* AUDIODEF_ContainerStringShort(uint32_t container)
{
    const ContainerEntry* e = findContainer(container);
    return e ? e->shortName : nullptr;
}

const char* AUDIODEF_ContainerStringExtended(uint32_t container)
{
    const ContainerEntry* e = findContainer(container);
    return e ? e->longName : nullptr;
}

uint32_t AUDIODEF_CodecFromName(const char* name)
{
    const std::string n = lower(name);
    for (const CodecEntry& e : kCodecs)
        if (inList(e.names, n))
            return e.code;
    return 0;
}

uint32_t AUDIODEF_ContainerFromName(const char* name)
{
    const std::string n = lower(name);
    for (const ContainerEntry& e : kContainers)
        if (inList(e.names, n))
            return e.code;
    return 0;
}

const char* AUDIO_FormatStringNames(void)
{
    static const char* const names = [] {
        std::string all;
        auto add = [&all](const char* list) {
            std::string item;
            for (const char* p = list;; ++p) {
                if (*p == '|' || *p == '\0') {
                    if (!inList(all.c_str(), item))
                        all += (all.empty() ? "" : "|") + item;
                    item.clear();
                    if (!*p)
                        break;
                } else {
                    item += *p;
                }
            }
        };
        for (const ContainerEntry& e : kContainers)
            add(e.names);
        for (const CodecEntry& e : kCodecs)
            add(e.names);
        return pooled(all.c_str());
    }();
    return names;
}

int32_t AUDIODITHER_DefaultKind(void)
{
    return gDefaultDither.load(std::memory_order_relaxed);
}

int32_t AUDIODITHER_SetDefaultKind(int32_t kind)
{
    if (kind < 0 || kind >= AUDIODITHER_COUNT)
        return 0;
    gDefaultDither.store(kind, std::memory_order_relaxed);
    return 1;
}

const char* AUDIODITHER_KindToString(int32_t kind)
{
    return kind >= 0 && kind < AUDIODITHER_COUNT ? kDitherNames[kind] : nullptr;
}

int32_t AUDIODITHER_KindFromString(const char* name)
{
    const std::string n = lower(name);
    for (int32_t k = 0; k < AUDIODITHER_COUNT; ++k)
        if (n == kDitherNames[k])
            return k;
    if (n == "tpdf")
        return AUDIODITHER_TRIANGULAR;
    if (n == "rpdf")
        return AUDIODITHER_RECTANGULAR;
    return -1;
}

int32_t AUDIO_ConvertAudioFormatToMimeTypeEx(
    const char* formatName, char* buffer, int32_t size, const _audio_format* format)
{
    const std::string name = nameOf(formatName);
    uint32_t container = 0;
    if (name.empty()) {
        container = format ? format->container : 0;
    } else {
        container = AUDIODEF_ContainerFromName(name.c_str());
        if (!container) {
            const uint32_t coder = AUDIODEF_CodecFromName(name.c_str());
            // Raw AAC streams have a type of their own; everything else is its container's.
            if ((coder & AUDIO_CODEC_MASK) == AUDIO_CODEC_AAC)
                return copyOut("audio/aac", buffer, size);
            container = naturalContainer(coder);
        }
    }
    const ContainerEntry* e = findContainer(container);
    if (!e) {
        if (buffer && size > 0)
            buffer[0] = '\0';
        return 0;
    }
    return copyOut(firstItem(e->mime), buffer, size) ? 1 : 0;
}

int32_t AUDIO_ConvertMimeTypeToAudioFormat(const char* mimeType, char* buffer, int32_t size)
{
    std::string mime = lower(mimeType);
    const size_t semicolon = mime.find(';');
    if (semicolon != std::string::npos)
        mime.erase(semicolon);
    while (!mime.empty() && std::isspace(static_cast<unsigned char>(mime.back())))
        mime.pop_back();
    while (!mime.empty() && std::isspace(static_cast<unsigned char>(mime.front())))
        mime.erase(0, 1);
    if (mime == "audio/aac" || mime == "audio/aacp")
        return copyOut("aac", buffer, size) ? 1 : 0;
    for (const ContainerEntry& e : kContainers)
        if (inList(e.mime, mime))
            return copyOut(firstItem(e.names), buffer, size) ? 1 : 0;
    if (buffer && size > 0)
        buffer[0] = '\0';
    return 0;
}

} // extern "C"
