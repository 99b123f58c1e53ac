// The catalogue of containers and encodings: one filter per container, one tag per encoding,
// with the rates, channel counts and resolutions each writer really handles. The masks were
// checked by writing and reading back every combination; keep them in step with the writers.
#include "backend.h"

#include <cstring>

namespace sova::audio {
namespace {

    constexpr uint32_t R = AUDIOTAG_READ;
    constexpr uint32_t RW = AUDIOTAG_READ | AUDIOTAG_WRITE;

    // Every listed rate; writers of any rate also carry these so that hosts which only look
    // at the list see them.
    constexpr uint32_t kListedRates = AUDIOCAP_RATE_192000 | AUDIOCAP_RATE_96000
        | AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_32000 | AUDIOCAP_RATE_24000
        | AUDIOCAP_RATE_22050 | AUDIOCAP_RATE_16000 | AUDIOCAP_RATE_12000 | AUDIOCAP_RATE_11025
        | AUDIOCAP_RATE_8000 | AUDIOCAP_RATE_6000;
    constexpr uint32_t kAnyRate = AUDIOCAP_RATE_ANY | kListedRates;
    // The MPEG-1, -2 and -2.5 rates.
    constexpr uint32_t kMpegRates = AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100
        | AUDIOCAP_RATE_32000 | AUDIOCAP_RATE_24000 | AUDIOCAP_RATE_22050 | AUDIOCAP_RATE_16000
        | AUDIOCAP_RATE_12000 | AUDIOCAP_RATE_11025 | AUDIOCAP_RATE_8000;
    // MPEG-1 and -2 (Layer II has no 2.5 extension).
    constexpr uint32_t kMp2Rates = AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_32000
        | AUDIOCAP_RATE_24000 | AUDIOCAP_RATE_22050 | AUDIOCAP_RATE_16000;
    constexpr uint32_t kOpusRates = AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_24000
        | AUDIOCAP_RATE_16000 | AUDIOCAP_RATE_12000 | AUDIOCAP_RATE_8000;
    constexpr uint32_t kAacRates = AUDIOCAP_RATE_96000 | AUDIOCAP_RATE_48000
        | AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_32000 | AUDIOCAP_RATE_24000 | AUDIOCAP_RATE_22050
        | AUDIOCAP_RATE_16000 | AUDIOCAP_RATE_12000 | AUDIOCAP_RATE_11025 | AUDIOCAP_RATE_8000;
    constexpr uint32_t kAc3Rates = AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100;

    constexpr uint32_t kMono = AUDIOCAP_MONO;
    constexpr uint32_t kUpToStereo = AUDIOCAP_MONO | AUDIOCAP_STEREO;
    constexpr uint32_t kUpTo51 = AUDIOCAP_MONO | AUDIOCAP_STEREO | AUDIOCAP_51;
    constexpr uint32_t kAllChannels = AUDIOCAP_MONO | AUDIOCAP_STEREO | AUDIOCAP_MULTI
        | AUDIOCAP_51;

    // Integer PCM of the width asked for; float material stays float.
    constexpr uint32_t kPcmU8 = AUDIOCAP_BITS8 | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
        | AUDIOCAP_BITS32 | AUDIOCAP_FLOAT32 | AUDIOCAP_DITHER;
    constexpr uint32_t kPcmS8 = AUDIOCAP_BITS8S | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
        | AUDIOCAP_BITS32 | AUDIOCAP_FLOAT32 | AUDIOCAP_DITHER;
    // Containers without float samples.
    constexpr uint32_t kIntS8 = kPcmS8 & ~uint32_t(AUDIOCAP_FLOAT32);
    // Rates up to 48 kHz.
    constexpr uint32_t kUpTo48k = kListedRates & ~(AUDIOCAP_RATE_192000 | AUDIOCAP_RATE_96000);
    // Encodings fed 16-bit samples: companding, ADPCM, lossy codecs.
    constexpr uint32_t k16 = AUDIOCAP_BITS16 | AUDIOCAP_DITHER;
    constexpr uint32_t kLossy = AUDIOCAP_BITS16 | AUDIOCAP_BITRATE;

    // Readers of what the engine does not write: the mask says what a decoded file gives.
    constexpr uint32_t kDecoded = kListedRates | kAllChannels | AUDIOCAP_BITS16;

    const char* const kPcmParams = "nbits=8|16|24|32";

    // ---- Tags ---------------------------------------------------------------------------

    const _sAUDIOFormatTag kWavTags[] = {
        {"wav", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmU8, RW, nullptr, kPcmParams},
        {"wav[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, nullptr},
        {"wav[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"wav[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"wav[codec=ima-adpcm]", "IMA ADPCM", kAnyRate | kUpToStereo | k16, RW, nullptr, nullptr},
        {"wav[codec=ms-adpcm]", "Microsoft ADPCM", kAnyRate | kUpToStereo | k16, RW, nullptr,
            nullptr},
        {"wav[codec=gsm]", "GSM 6.10", kAnyRate | kMono | k16, RW, nullptr, nullptr},
        {"wav[codec=g721]", "G.721 ADPCM 32 kbit/s", kAnyRate | kMono | k16, RW, nullptr,
            nullptr},
        {"wavex", "PCM, WAVE_FORMAT_EXTENSIBLE", kAnyRate | kAllChannels | kPcmU8, RW, nullptr,
            kPcmParams},
    };
    const _sAUDIOFormatTag kW64Tags[] = {
        {"w64", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmU8, RW, nullptr, kPcmParams},
        {"w64[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, nullptr},
        {"w64[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"w64[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kRf64Tags[] = {
        {"rf64", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmU8, RW, nullptr,
            kPcmParams},
        {"rf64[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32,
            RW, nullptr, nullptr},
        {"rf64[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"rf64[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kAiffTags[] = {
        {"aiff", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmS8, RW, nullptr,
            kPcmParams},
        {"aiff[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32,
            RW, nullptr, nullptr},
        {"aiff[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"aiff[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"aiff[codec=ima-adpcm]", "IMA ADPCM", kAnyRate | kUpToStereo | k16, RW, nullptr,
            nullptr},
    };
    const _sAUDIOFormatTag kAuTags[] = {
        {"au", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmS8, RW, nullptr, kPcmParams},
        {"au[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, nullptr},
        {"au[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"au[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"au[codec=g721]", "G.721 ADPCM 32 kbit/s", kAnyRate | kMono | k16, RW, nullptr,
            nullptr},
    };
    const _sAUDIOFormatTag kCafTags[] = {
        {"caf", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kPcmS8, RW, nullptr,
            kPcmParams},
        {"caf[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, nullptr},
        {"caf[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"caf[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"caf[codec=alac]", "Apple Lossless (ALAC)",
            kAnyRate | kAllChannels | AUDIOCAP_BITS16 | AUDIOCAP_BITS24 | AUDIOCAP_BITS32, RW,
            nullptr, "nbits=16|20|24|32"},
    };
    const _sAUDIOFormatTag kRawTags[] = {
        {"raw", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kIntS8, RW, nullptr,
            "sr=10..500000,nch=1..8,nbits=8|16|24|32,endian=little|big"},
        {"raw[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, "sr=10..500000,nch=1..8,endian=little|big"},
        {"raw[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr,
            "sr=10..500000,nch=1..8"},
        {"raw[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr,
            "sr=10..500000,nch=1..8"},
    };
    const _sAUDIOFormatTag kVoxTags[] = {
        {"vox", "Dialogic VOX ADPCM", kAnyRate | kMono | k16, RW, nullptr, "sr=10..500000"},
    };
    const _sAUDIOFormatTag kNistTags[] = {
        {"nist", "PCM (8 to 32 bits)", kAnyRate | kAllChannels | kIntS8, RW, nullptr,
            kPcmParams},
        {"nist[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"nist[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kIrcamTags[] = {
        {"ircam", "PCM (16 and 32 bits)",
            kAnyRate | kAllChannels | AUDIOCAP_BITS16 | AUDIOCAP_BITS32 | AUDIOCAP_FLOAT32
                | AUDIOCAP_DITHER,
            RW,
            nullptr, "nbits=16|32"},
        {"ircam[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32,
            RW, nullptr, nullptr},
        {"ircam[codec=ulaw]", "u-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
        {"ircam[codec=alaw]", "A-Law", kAnyRate | kAllChannels | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kPafTags[] = {
        {"paf", "PCM (8 to 24 bits)",
            kAnyRate | kAllChannels | AUDIOCAP_BITS8S | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
                | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=8|16|24"},
    };
    const _sAUDIOFormatTag kVocTags[] = {
        // 8-bit blocks store the rate as a one-byte divisor, which moves it: 16-bit only.
        {"voc", "PCM 16-bit", kAnyRate | kUpToStereo | k16, RW, nullptr, nullptr},
        {"voc[codec=ulaw]", "u-Law", kAnyRate | kUpToStereo | k16, RW, nullptr, nullptr},
        {"voc[codec=alaw]", "A-Law", kAnyRate | kUpToStereo | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kHtkTags[] = {
        // The sample period is stored in units of 100 ns.
        {"htk", "PCM 16-bit", AUDIOCAP_RATE_16000 | AUDIOCAP_RATE_8000 | kMono | k16, RW, nullptr,
            nullptr},
    };
    const _sAUDIOFormatTag kAvrTags[] = {
        {"avr", "PCM (8 and 16 bits)",
            kAnyRate | kUpToStereo | AUDIOCAP_BITS8S | AUDIOCAP_BITS16 | AUDIOCAP_DITHER, RW,
            nullptr, "nbits=8|16"},
    };
    const _sAUDIOFormatTag kMatTags[] = {
        {"mat", "PCM (8, 16 and 32 bits)",
            kAnyRate | kAllChannels | AUDIOCAP_BITS8 | AUDIOCAP_BITS16 | AUDIOCAP_BITS32
                | AUDIOCAP_FLOAT32 | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=8|16|32"},
        {"mat[codec=float]", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW,
            nullptr, nullptr},
    };
    const _sAUDIOFormatTag kMpc2kTags[] = {
        {"mpc2k", "PCM 16-bit", kUpTo48k | kUpToStereo | k16, RW, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kWsigTags[] = {
        {"wsig", "IEEE float 32-bit", kAnyRate | kAllChannels | AUDIOCAP_FLOAT32, RW, nullptr,
            nullptr},
    };
    const _sAUDIOFormatTag kFlacTags[] = {
        {"flac", "FLAC (8, 16 and 24 bits)",
            kAnyRate | kAllChannels | AUDIOCAP_BITS8S | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
                | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=8|16|24,quality=0..8"},
    };
    const _sAUDIOFormatTag kWavpackTags[] = {
        {"wv", "WavPack", kAnyRate | kAllChannels | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
                | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=16|24"},
    };
    const _sAUDIOFormatTag kTtaTags[] = {
        {"tta", "True Audio", kAnyRate | kUpToStereo | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
                | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=16|24"},
    };
    const _sAUDIOFormatTag kOggTags[] = {
        {"ogg", "Vorbis", kAnyRate | kAllChannels | kLossy, RW, "audio/ogg",
            "kbps=32..500,quality=0..10"},
    };
    const _sAUDIOFormatTag kOpusTags[] = {
        {"opus", "Opus", kOpusRates | kAllChannels | kLossy, RW, "audio/opus", "kbps=6..510"},
    };
    const _sAUDIOFormatTag kMpegTags[] = {
        {"mp3", "MPEG-1 Layer III (MP3)", kMpegRates | kUpToStereo | kLossy, RW, "audio/mpeg",
            "kbps=8..320"},
        {"mp2", "MPEG-1 Layer II", kAc3Rates | AUDIOCAP_RATE_32000 | kUpToStereo | kLossy, RW,
            "audio/mpeg",
            "kbps=32..384"},
    };
    // Read only: FFmpeg has no Layer I encoder, so ".mp1" is kept out of the writers' filter.
    const _sAUDIOFormatTag kMp1Tags[] = {
        {"mpeg[codec=mp1]", "MPEG-1 Layer I", kMp2Rates | kUpToStereo | AUDIOCAP_BITS16, R,
            "audio/mpeg", nullptr},
    };
    const _sAUDIOFormatTag kMp4Tags[] = {
        {"m4a", "AAC", kAacRates | kAllChannels | kLossy, RW, "audio/mp4", "kbps=16..512"},
        {"m4a[codec=alac]", "Apple Lossless (ALAC)",
            kAnyRate | kUpTo51 | AUDIOCAP_BITS16 | AUDIOCAP_BITS24 | AUDIOCAP_DITHER, RW,
            "audio/mp4", "nbits=16|24"},
    };
    const _sAUDIOFormatTag kAsfTags[] = {
        {"wma", "WMA v2", kUpTo48k | kUpToStereo | kLossy,
            RW, nullptr, "kbps=24..256"},
        {"wma[codec=wmav1]", "WMA v1", kUpTo48k | kUpToStereo | kLossy,
            RW, nullptr, "kbps=24..256"},
        {"wma[codec=wmapro]", "WMA Pro", kDecoded, R, nullptr, nullptr},
        {"wma[codec=wmalossless]", "WMA Lossless", kDecoded, R, nullptr, nullptr},
        {"wma[codec=wmavoice]", "WMA Voice", kDecoded, R, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kMkvTags[] = {
        {"mka", "FLAC", kAnyRate | kAllChannels | AUDIOCAP_BITS16 | AUDIOCAP_BITS24
                | AUDIOCAP_DITHER,
            RW, nullptr, "nbits=16|24"},
        {"mka[codec=opus]", "Opus", AUDIOCAP_RATE_48000 | kUpToStereo | kLossy, RW, nullptr,
            "kbps=6..510"},
        {"mka[codec=vorbis]", "Vorbis", (kUpTo48k & ~(AUDIOCAP_RATE_12000 | AUDIOCAP_RATE_11025
                | AUDIOCAP_RATE_8000 | AUDIOCAP_RATE_6000)) | kAllChannels | kLossy, RW, nullptr,
            "kbps=32..500"},
        {"mka[codec=aac]", "AAC", kAacRates | kAllChannels | kLossy, RW, nullptr,
            "kbps=16..512"},
        {"mka[codec=ac3]", "AC-3", kAc3Rates | kUpTo51 | kLossy, RW, nullptr,
            "kbps=32..640"},
        {"mka[codec=mp2]", "MPEG-1 Layer II", kAc3Rates | AUDIOCAP_RATE_32000 | kUpToStereo | kLossy, RW, nullptr,
            "kbps=32..384"},
        {"mka[codec=mp3]", "MPEG-1 Layer III (MP3)", kMpegRates | kUpToStereo | kLossy, RW,
            nullptr, "kbps=8..320"},
    };
    const _sAUDIOFormatTag kAc3Tags[] = {
        {"ac3", "AC-3", kAc3Rates | kUpTo51 | kLossy, RW, "audio/ac3", "kbps=32..640"},
    };
    const _sAUDIOFormatTag kAmrTags[] = {
        {"amr", "AMR-NB", AUDIOCAP_RATE_8000 | kMono | AUDIOCAP_BITS16, R, "audio/amr", nullptr},
        {"amr[codec=amr-wb]", "AMR-WB", AUDIOCAP_RATE_16000 | kMono | AUDIOCAP_BITS16, R,
            "audio/amr-wb", nullptr},
    };
    const _sAUDIOFormatTag kApeTags[] = {
        {"ape", "Monkey's Audio", kAnyRate | kUpToStereo | AUDIOCAP_BITS8 | AUDIOCAP_BITS16
                | AUDIOCAP_BITS24,
            R, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kMpcTags[] = {
        {"mpc", "Musepack", AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_32000
                | kUpToStereo | AUDIOCAP_BITS16,
            R, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kDtsTags[] = {
        {"dts", "DTS", AUDIOCAP_RATE_48000 | AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_32000
                | kAllChannels | AUDIOCAP_BITS16,
            R, nullptr, nullptr},
    };
    const _sAUDIOFormatTag kAviTags[] = {
        {"avi", "PCM or compressed audio in AVI", kDecoded, R, nullptr, nullptr},
    };

    // ---- Format checks --------------------------------------------------------------------

    bool channelsWithin(const _audio_format* f, int most)
    {
        return f && f->numChannels >= 1 && f->numChannels <= most;
    }
    bool rateWithin(const _audio_format* f, int32_t low, int32_t high)
    {
        return f && f->sampleRate >= low && f->sampleRate <= high;
    }
    bool rateIn(const _audio_format* f, std::initializer_list<int32_t> rates)
    {
        if (!f)
            return false;
        for (int32_t r : rates)
            if (f->sampleRate == r)
                return true;
        return false;
    }

    uint8_t anyPcm(const _audio_format* f)
    {
        return channelsWithin(f, 8) && rateWithin(f, 10, 500000);
    }
    uint8_t upToStereo(const _audio_format* f)
    {
        return channelsWithin(f, 2) && rateWithin(f, 10, 500000);
    }
    uint8_t htkCheck(const _audio_format* f)
    {
        return channelsWithin(f, 1) && f->sampleRate > 0 && 10000000 % f->sampleRate == 0;
    }
    uint8_t mpc2kCheck(const _audio_format* f)
    {
        return channelsWithin(f, 2) && rateWithin(f, 10, 65535);
    }
    uint8_t monoOnly(const _audio_format* f)
    {
        return channelsWithin(f, 1) && rateWithin(f, 10, 500000);
    }
    uint8_t mpegCheck(const _audio_format* f)
    {
        return channelsWithin(f, 2)
            && rateIn(f, {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000});
    }
    uint8_t opusCheck(const _audio_format* f)
    {
        return channelsWithin(f, 8) && rateIn(f, {8000, 12000, 16000, 24000, 48000});
    }
    uint8_t wmaCheck(const _audio_format* f)
    {
        return channelsWithin(f, 2) && rateWithin(f, 6000, 48000);
    }
    uint8_t ac3Check(const _audio_format* f)
    {
        return channelsWithin(f, 6) && rateIn(f, {32000, 44100, 48000}) && f->numChannels != 3
            && f->numChannels != 4 && f->numChannels != 5;
    }
    uint8_t amrCheck(const _audio_format* f)
    {
        return channelsWithin(f, 1) && rateIn(f, {8000, 16000});
    }

    // ---- Filters --------------------------------------------------------------------------

    constexpr uint32_t AUD = AUDIOFILTER_AUDIO;
    constexpr uint32_t CMP = AUDIOFILTER_COMPRESSED;
    constexpr uint32_t RAWF = AUDIOFILTER_RAW;

#define SOVA_TAGS(array) array, int32_t(sizeof(array) / sizeof(array[0]))

    const _sAUDIOFormatFilter kFilters[] = {
        {"WAV", "Microsoft RIFF WAVE", AUDIO_CONTAINER_WAV, "Microsoft RIFF WAVE (*.wav *.wave)",
            "wav|wave", "audio/wav", 0, SOVA_TAGS(kWavTags), {}, AUD, {}, anyPcm},
        {"W64", "Sony Wave64", AUDIO_CONTAINER_W64, "Sony Wave64 (*.w64)", "w64", "audio/x-w64", 0,
            SOVA_TAGS(kW64Tags), {}, AUD, {}, anyPcm},
        {"RF64", "RF64 (RIFF of 64-bit sizes)", AUDIO_CONTAINER_RF64,
            "RF64 (RIFF of 64-bit sizes) (*.rf64)", "rf64", "audio/x-rf64", 0, SOVA_TAGS(kRf64Tags),
            {}, AUD, {}, anyPcm},
        {"AIFF", "Apple AIFF / AIFF-C", AUDIO_CONTAINER_AIFF,
            "Apple AIFF / AIFF-C (*.aif *.aiff *.aifc)", "aif|aiff|aifc", "audio/aiff", 0,
            SOVA_TAGS(kAiffTags), {}, AUD, {}, anyPcm},
        {"AU", "Sun/NeXT AU", AUDIO_CONTAINER_AU, "Sun/NeXT AU (*.au *.snd)", "au|snd",
            "audio/basic", 0, SOVA_TAGS(kAuTags), {}, AUD, {}, anyPcm},
        {"CAF", "Apple Core Audio Format", AUDIO_CONTAINER_CAF, "Apple Core Audio Format (*.caf)",
            "caf", "audio/x-caf", 0, SOVA_TAGS(kCafTags), {}, AUD, {}, anyPcm},
        {"FLAC", "Free Lossless Audio Codec", AUDIO_CONTAINER_FLAC,
            "Free Lossless Audio Codec (*.flac)", "flac", "audio/flac", 0, SOVA_TAGS(kFlacTags),
            {}, AUD, {}, anyPcm},
        {"WV", "WavPack", AUDIO_CONTAINER_WAVPACK, "WavPack (*.wv)", "wv", "audio/x-wavpack", 0,
            SOVA_TAGS(kWavpackTags), {}, AUD, {}, anyPcm},
        {"TTA", "True Audio", AUDIO_CONTAINER_TTA, "True Audio (*.tta)", "tta", "audio/x-tta", 0,
            SOVA_TAGS(kTtaTags), {}, AUD, {}, anyPcm},
        {"M4A", "MPEG-4 Audio", AUDIO_CONTAINER_MP4, "MPEG-4 Audio (*.m4a *.mp4 *.m4b)",
            "m4a|mp4|m4b", "audio/mp4", 0, SOVA_TAGS(kMp4Tags), {}, CMP, {}, anyPcm},
        {"MP3", "MPEG audio stream", AUDIO_CONTAINER_MPEG, "MPEG audio stream (*.mp3 *.mp2 *.mpa)",
            "mp3|mp2|mpa", "audio/mpeg", 0, SOVA_TAGS(kMpegTags), {}, CMP, {}, mpegCheck},
        {"OGG", "Ogg Vorbis", AUDIO_CONTAINER_OGG_VORBIS, "Ogg Vorbis (*.ogg *.oga)", "ogg|oga",
            "audio/ogg", 0, SOVA_TAGS(kOggTags), {}, CMP, {}, anyPcm},
        {"OPUS", "Ogg Opus", AUDIO_CONTAINER_OGG_OPUS, "Ogg Opus (*.opus)", "opus", "audio/opus",
            0, SOVA_TAGS(kOpusTags), {}, CMP, {}, opusCheck},
        {"MKA", "Matroska / WebM", AUDIO_CONTAINER_MKV, "Matroska / WebM (*.mka *.mkv *.webm)",
            "mka|mkv|webm", "audio/x-matroska", 0, SOVA_TAGS(kMkvTags), {}, CMP, {}, anyPcm},
        {"WMA", "Windows Media Audio (ASF)", AUDIO_CONTAINER_ASF,
            "Windows Media Audio (ASF) (*.wma *.asf)", "wma|asf", "audio/x-ms-wma", 0,
            SOVA_TAGS(kAsfTags), {}, CMP, {}, wmaCheck},
        {"AC3", "Dolby Digital (AC-3)", AUDIO_CONTAINER_AC3, "Dolby Digital (AC-3) (*.ac3)", "ac3",
            "audio/ac3", 0, SOVA_TAGS(kAc3Tags), {}, CMP, {}, ac3Check},
        {"NIST", "NIST SPHERE", AUDIO_CONTAINER_NIST, "NIST SPHERE (*.sph *.nist)", "sph|nist",
            "audio/x-nist", 0, SOVA_TAGS(kNistTags), {}, AUD, {}, anyPcm},
        {"IRCAM", "Berkeley/IRCAM/CARL sound file", AUDIO_CONTAINER_IRCAM,
            "Berkeley/IRCAM/CARL sound file (*.sf *.ircam)", "sf|ircam", "audio/x-ircam", 0,
            SOVA_TAGS(kIrcamTags), {}, AUD, {}, anyPcm},
        {"PAF", "Ensoniq PARIS", AUDIO_CONTAINER_PAF, "Ensoniq PARIS (*.paf)", "paf",
            "audio/x-paris", 0, SOVA_TAGS(kPafTags), {}, AUD, {}, anyPcm},
        {"VOC", "Creative Voice", AUDIO_CONTAINER_VOC, "Creative Voice (*.voc)", "voc",
            "audio/x-voc", 0, SOVA_TAGS(kVocTags), {}, AUD, {}, upToStereo},
        {"HTK", "HTK (HMM Tool Kit)", AUDIO_CONTAINER_HTK, "HTK (HMM Tool Kit) (*.htk)", "htk",
            "audio/x-htk", 0, SOVA_TAGS(kHtkTags), {}, AUD, {}, htkCheck},
        {"AVR", "Audio Visual Research", AUDIO_CONTAINER_AVR, "Audio Visual Research (*.avr)",
            "avr", "audio/x-avr", 0, SOVA_TAGS(kAvrTags), {}, AUD, {}, upToStereo},
        {"MAT", "MATLAB 5 data", AUDIO_CONTAINER_MAT, "MATLAB 5 data (*.mat)", "mat",
            "application/x-matlab-data", 0, SOVA_TAGS(kMatTags), {}, AUD, {}, anyPcm},
        {"MPC2K", "Akai MPC 2000", AUDIO_CONTAINER_MPC2K, "Akai MPC 2000 (*.mpc2k)", "mpc2k",
            "audio/x-mpc2k", 0, SOVA_TAGS(kMpc2kTags), {}, AUD, {}, mpc2kCheck},
        {"WSIG", "Sova signal file", AUDIO_CONTAINER_WSIG, "Sova signal file (*.wsig)", "wsig",
            "audio/x-sova-signal", 0, SOVA_TAGS(kWsigTags), {}, RAWF, {}, anyPcm},
        {"RAW", "Raw samples (headerless)", AUDIO_CONTAINER_RAW,
            "Raw samples (headerless) (*.raw *.pcm *.sam)", "raw|pcm|sam", "audio/x-raw", 0,
            SOVA_TAGS(kRawTags), {}, RAWF, {}, anyPcm},
        {"VOX", "Dialogic VOX ADPCM (headerless)", AUDIO_CONTAINER_VOX,
            "Dialogic VOX ADPCM (headerless) (*.vox)", "vox", "audio/x-vox", 0,
            SOVA_TAGS(kVoxTags), {}, RAWF, {}, monoOnly},
        // Containers the engine only reads.
        {"AMR", "Adaptive Multi-Rate (AMR)", AUDIO_CONTAINER_AMR,
            "Adaptive Multi-Rate (AMR) (*.amr)", "amr", "audio/amr", 0, SOVA_TAGS(kAmrTags), {},
            CMP, {}, amrCheck},
        {"APE", "Monkey's Audio", AUDIO_CONTAINER_APE, "Monkey's Audio (*.ape)", "ape",
            "audio/x-ape", 0, SOVA_TAGS(kApeTags), {}, AUD, {}, nullptr},
        {"MPC", "Musepack", AUDIO_CONTAINER_MPC, "Musepack (*.mpc *.mp+)", "mpc|mp+",
            "audio/x-musepack", 0, SOVA_TAGS(kMpcTags), {}, CMP, {}, nullptr},
        {"DTS", "DTS Coherent Acoustics", AUDIO_CONTAINER_DTS, "DTS Coherent Acoustics (*.dts)",
            "dts", "audio/vnd.dts", 0, SOVA_TAGS(kDtsTags), {}, CMP, {}, nullptr},
        {"MP1", "MPEG-1 Layer I audio", AUDIO_CONTAINER_MPEG, "MPEG-1 Layer I audio (*.mp1)",
            "mp1", "audio/mpeg", 0, SOVA_TAGS(kMp1Tags), {}, CMP, {}, mpegCheck},
        {"AVI", "Microsoft AVI", AUDIO_CONTAINER_AVI, "Microsoft AVI (*.avi)", "avi",
            "video/x-msvideo", 0, SOVA_TAGS(kAviTags), {}, CMP, {}, nullptr},
    };

#undef SOVA_TAGS

    constexpr int32_t kFilterCount = int32_t(sizeof(kFilters) / sizeof(kFilters[0]));

    // The container and codec a tag's format string writes, resolved as the file layer does.
    bool resolveTag(const _sAUDIOFormatTag* tag, uint32_t& container, uint32_t& coder)
    {
        container = 0;
        coder = 0;
        if (!tag || !std::memchr(tag->name, '\0', sizeof tag->name))
            return false;
        FormatRequest request;
        if (!parseFormatString(tag->name, request))
            return false;
        container = request.container;
        if (container == 0 && request.coder != 0)
            container = containerForCodec(request.coder);
        coder = request.coder ? request.coder : defaultCoder(container);
        return true;
    }

} // namespace
} // namespace sova::audio

using namespace sova::audio;

extern "C" {

int32_t AUDIO_CountFormatFilters(void)
{
    return kFilterCount;
}

const _sAUDIOFormatFilter* AUDIO_GetFormatFilter(int32_t index)
{
    return index >= 0 && index < kFilterCount ? &kFilters[index] : nullptr;
}

uint32_t AUDIO_FormatTagContainer(const _sAUDIOFormatTag* tag)
{
    uint32_t container = 0, coder = 0;
    return resolveTag(tag, container, coder) ? container : 0;
}

uint32_t AUDIO_FormatTagAudioCoder(const _sAUDIOFormatTag* tag)
{
    uint32_t container = 0, coder = 0;
    return resolveTag(tag, container, coder) ? coder : 0;
}

} // extern "C"
