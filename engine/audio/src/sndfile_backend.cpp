// The libsndfile backend: the uncompressed and classic containers, FLAC, ALAC in CAF, Ogg
// Vorbis/Opus and MP3, read and written through the foundation's I/O layer.
#include "backend.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

using namespace sova::audio;

namespace {

// ---- I/O bridge ---------------------------------------------------------------------------

// What the libsndfile callbacks see: the borrowed handle, and whether it ever failed (libsndfile
// turns a failed transfer into a short count, which alone would read as the end of the data).
struct Channel
{
    _HFile* io = nullptr;
    bool failed = false;
};

sf_count_t ioLength(void* user)
{
    return BLIO_FileSize(static_cast<Channel*>(user)->io);
}

sf_count_t ioSeek(sf_count_t offset, int whence, void* user)
{
    auto* ch = static_cast<Channel*>(user);
    // SEEK_SET/CUR/END and BLIO_SEEK_SET/CUR/END are the same numbers.
    if (!BLIO_Seek(ch->io, offset, whence))
        return -1;
    return BLIO_FilePosition(ch->io);
}

sf_count_t ioRead(void* buffer, sf_count_t count, void* user)
{
    auto* ch = static_cast<Channel*>(user);
    const int64_t got = BLIO_ReadData(ch->io, buffer, count);
    if (got < 0) {
        ch->failed = true;
        return 0;
    }
    return got;
}

sf_count_t ioWrite(const void* buffer, sf_count_t count, void* user)
{
    auto* ch = static_cast<Channel*>(user);
    const int64_t put = BLIO_WriteData(ch->io, buffer, count);
    if (put < 0) {
        ch->failed = true;
        return 0;
    }
    return put;
}

sf_count_t ioTell(void* user)
{
    return BLIO_FilePosition(static_cast<Channel*>(user)->io);
}

SF_VIRTUAL_IO virtualIo = {ioLength, ioSeek, ioRead, ioWrite, ioTell};

// ---- Format mapping ------------------------------------------------------------------------

constexpr int32_t kMinRate = 10;
constexpr int32_t kMaxRate = 500000;
constexpr int kMaxChannels = 8;

// Rates the Opus encoder takes.
constexpr int32_t kOpusRates[] = {8000, 12000, 16000, 24000, 48000};
// Rates of MPEG-1, 2 and 2.5, the only ones LAME encodes.
constexpr int32_t kMp3Rates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
// libvorbisenc's highest rate.
constexpr int32_t kVorbisMaxRate = 200000;

// libsndfile's containers with the engine's codes; several majors share a code (the engine has
// no codes for SVX, PVF, XI, SDS, WVE and SD2: they read as raw), the first entry of a code is
// the one written. `big`: samples are big-endian unless the file says otherwise.
struct MajorEntry
{
    int major;
    uint32_t container;
    bool big;
};
constexpr MajorEntry kMajors[] = {
    {SF_FORMAT_WAV, AUDIO_CONTAINER_WAV, false},
    {SF_FORMAT_WAVEX, AUDIO_CONTAINER_WAV, false},
    {SF_FORMAT_AIFF, AUDIO_CONTAINER_AIFF, true},
    {SF_FORMAT_AU, AUDIO_CONTAINER_AU, true},
    {SF_FORMAT_RAW, AUDIO_CONTAINER_RAW, false},
    {SF_FORMAT_PAF, AUDIO_CONTAINER_PAF, true},
    {SF_FORMAT_SVX, AUDIO_CONTAINER_RAW, true},
    {SF_FORMAT_NIST, AUDIO_CONTAINER_NIST, false},
    {SF_FORMAT_VOC, AUDIO_CONTAINER_VOC, false},
    {SF_FORMAT_IRCAM, AUDIO_CONTAINER_IRCAM, false},
    {SF_FORMAT_W64, AUDIO_CONTAINER_W64, false},
    {SF_FORMAT_MAT5, AUDIO_CONTAINER_MAT, false},
    {SF_FORMAT_MAT4, AUDIO_CONTAINER_MAT, false},
    {SF_FORMAT_PVF, AUDIO_CONTAINER_RAW, true},
    {SF_FORMAT_XI, AUDIO_CONTAINER_RAW, false},
    {SF_FORMAT_HTK, AUDIO_CONTAINER_HTK, true},
    {SF_FORMAT_SDS, AUDIO_CONTAINER_RAW, false},
    {SF_FORMAT_AVR, AUDIO_CONTAINER_AVR, true},
    {SF_FORMAT_SD2, AUDIO_CONTAINER_RAW, true},
    {SF_FORMAT_FLAC, AUDIO_CONTAINER_FLAC, false},
    {SF_FORMAT_CAF, AUDIO_CONTAINER_CAF, true},
    {SF_FORMAT_WVE, AUDIO_CONTAINER_RAW, false},
    {SF_FORMAT_OGG, AUDIO_CONTAINER_OGG_VORBIS, false},
    {SF_FORMAT_OGG, AUDIO_CONTAINER_OGG_OPUS, false},
    {SF_FORMAT_MPC2K, AUDIO_CONTAINER_MPC2K, false},
    {SF_FORMAT_RF64, AUDIO_CONTAINER_RF64, false},
    {SF_FORMAT_MPEG, AUDIO_CONTAINER_MPEG, false},
    {SF_FORMAT_RAW, AUDIO_CONTAINER_VOX, false},
    {SF_FORMAT_RAW, AUDIO_CONTAINER_WSIG, false},
};

const MajorEntry* majorEntry(int major)
{
    for (const MajorEntry& e : kMajors)
        if (e.major == major)
            return &e;
    return nullptr;
}

uint32_t containerOfMajor(int major, int subtype)
{
    if (major == SF_FORMAT_OGG)
        return subtype == SF_FORMAT_VORBIS ? AUDIO_CONTAINER_OGG_VORBIS
            : subtype == SF_FORMAT_OPUS    ? AUDIO_CONTAINER_OGG_OPUS
                                           : AUDIO_CONTAINER_OGG_OTHER;
    const MajorEntry* e = majorEntry(major);
    return e ? e->container : uint32_t(AUDIO_CONTAINER_RAW);
}

// libsndfile's encodings with the engine's codes and resolutions (the one a codec gets when
// read; 20-bit ALAC and DWVW of any width take the next resolution the engine has). Several
// subtypes share a code: the first entry of a code is the one written. `word`: one fixed-size
// sample word, so the bit rate follows from the format and byte order applies (when `order`).
struct SubtypeEntry
{
    int subtype;
    uint32_t codec;
    int bits;
    bool word;
    bool order;
};
constexpr SubtypeEntry kSubtypes[] = {
    {SF_FORMAT_PCM_S8, AUDIO_CODEC_PCM_S8, 8, true, false},
    {SF_FORMAT_PCM_U8, AUDIO_CODEC_PCM_U8, 8, true, false},
    {SF_FORMAT_PCM_16, AUDIO_CODEC_PCM16, 16, true, true},
    {SF_FORMAT_PCM_24, AUDIO_CODEC_PCM24, 24, true, true},
    {SF_FORMAT_PCM_32, AUDIO_CODEC_PCM32, 32, true, true},
    {SF_FORMAT_FLOAT, AUDIO_CODEC_FLOAT32, 32, true, true},
    {SF_FORMAT_DOUBLE, AUDIO_CODEC_FLOAT64, 64, true, true},
    {SF_FORMAT_ULAW, AUDIO_CODEC_ULAW, 8, true, false},
    {SF_FORMAT_ALAW, AUDIO_CODEC_ALAW, 8, true, false},
    {SF_FORMAT_IMA_ADPCM, AUDIO_CODEC_IMA_ADPCM, 4, false, false},
    {SF_FORMAT_MS_ADPCM, AUDIO_CODEC_MS_ADPCM, 4, false, false},
    {SF_FORMAT_VOX_ADPCM, AUDIO_CODEC_VOX_ADPCM, 4, false, false},
    {SF_FORMAT_GSM610, AUDIO_CODEC_GSM610, 16, false, false},
    {SF_FORMAT_NMS_ADPCM_32, AUDIO_CODEC_NMS_ADPCM, 16, false, false},
    {SF_FORMAT_NMS_ADPCM_24, AUDIO_CODEC_NMS_ADPCM, 16, false, false},
    {SF_FORMAT_NMS_ADPCM_16, AUDIO_CODEC_NMS_ADPCM, 16, false, false},
    {SF_FORMAT_G721_32, AUDIO_CODEC_G721, 16, false, false},
    {SF_FORMAT_G723_24, AUDIO_CODEC_G723_24, 16, false, false},
    {SF_FORMAT_G723_40, AUDIO_CODEC_G723_40, 16, false, false},
    {SF_FORMAT_DWVW_12, AUDIO_CODEC_DWVW12, 16, false, false},
    {SF_FORMAT_DWVW_16, AUDIO_CODEC_DWVW16, 16, false, false},
    {SF_FORMAT_DWVW_24, AUDIO_CODEC_DWVW24, 24, false, false},
    {SF_FORMAT_DWVW_N, AUDIO_CODEC_DWVW24, 24, false, false},
    {SF_FORMAT_DPCM_8, AUDIO_CODEC_NONE, 8, false, false},
    {SF_FORMAT_DPCM_16, AUDIO_CODEC_NONE, 16, false, false},
    {SF_FORMAT_VORBIS, AUDIO_CODEC_VORBIS, 16, false, false},
    {SF_FORMAT_OPUS, AUDIO_CODEC_OPUS, 16, false, false},
    {SF_FORMAT_ALAC_16, AUDIO_CODEC_ALAC, 16, false, false},
    {SF_FORMAT_ALAC_20, AUDIO_CODEC_ALAC, 24, false, false},
    {SF_FORMAT_ALAC_24, AUDIO_CODEC_ALAC, 24, false, false},
    {SF_FORMAT_ALAC_32, AUDIO_CODEC_ALAC, 32, false, false},
    {SF_FORMAT_MPEG_LAYER_III, AUDIO_CODEC_MPEG_L3, 16, false, false},
    {SF_FORMAT_MPEG_LAYER_I, AUDIO_CODEC_MPEG_L1, 16, false, false},
    {SF_FORMAT_MPEG_LAYER_II, AUDIO_CODEC_MPEG_L2, 16, false, false},
};

const SubtypeEntry* subtypeEntry(int subtype)
{
    for (const SubtypeEntry& e : kSubtypes)
        if (e.subtype == subtype)
            return &e;
    return nullptr;
}

// The subtype that writes a codec, 0 when none.
int subtypeOfCodec(uint32_t codec)
{
    for (const SubtypeEntry& e : kSubtypes)
        if (e.codec == (codec & AUDIO_CODEC_MASK) && e.codec != AUDIO_CODEC_NONE)
            return e.subtype;
    return 0;
}

struct Coding
{
    uint32_t coder = 0; // AUDIO_CODEC_* with the flag bit
    int bits = 0;
    bool plainPcm = false; // one fixed-size word per sample: the bit rate follows from the format
};

// Codec code and resolution of a libsndfile format word.
Coding codingOf(int format)
{
    const int major = format & SF_FORMAT_TYPEMASK;
    const int endian = format & SF_FORMAT_ENDMASK;
    const SubtypeEntry* e = subtypeEntry(format & SF_FORMAT_SUBMASK);
    if (!e)
        return {};
    // FLAC (also in Ogg) reports its resolution as a PCM subtype.
    if ((major == SF_FORMAT_FLAC || major == SF_FORMAT_OGG) && e->word)
        return {AUDIO_CODEC_FLAC, e->bits, false};
    const MajorEntry* m = majorEntry(major);
    const bool big = endian == SF_ENDIAN_BIG || (endian == SF_ENDIAN_FILE && m && m->big);
    return {
        e->codec | (e->order && big ? uint32_t(AUDIO_CODEC_FLAG_BIGENDIAN) : 0u), e->bits, e->word};
}

bool isLossySubtype(int subtype)
{
    return subtype == SF_FORMAT_VORBIS || subtype == SF_FORMAT_OPUS
        || subtype == SF_FORMAT_MPEG_LAYER_I || subtype == SF_FORMAT_MPEG_LAYER_II
        || subtype == SF_FORMAT_MPEG_LAYER_III;
}

// Legal MP3 bit rates in kbit/s: MPEG-1 (32 kHz and up), MPEG-2 and 2.5 (below).
constexpr int kMpeg1Rates[] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
constexpr int kMpeg2Rates[] = {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};

int nearestOf(const int* first, const int* last, double kbps)
{
    return *std::min_element(
        first, last, [kbps](int a, int b) { return std::fabs(a - kbps) < std::fabs(b - kbps); });
}

int nearestMp3Rate(int32_t sampleRate, double kbps)
{
    return sampleRate >= 32000 ? nearestOf(std::begin(kMpeg1Rates), std::end(kMpeg1Rates), kbps)
                               : nearestOf(std::begin(kMpeg2Rates), std::end(kMpeg2Rates), kbps);
}

// The constant-rate range libsndfile spreads its compression level over (level 0 = the top):
// MPEG-1 32..320, MPEG-2 8..160, MPEG-2.5 8..64 kbit/s.
void mp3Range(int32_t sampleRate, int& low, int& high)
{
    low = sampleRate >= 32000 ? 32 : 8;
    high = sampleRate >= 32000 ? 320 : sampleRate >= 16000 ? 160 : 64;
}

// Opus: 6 to 256 kbit/s per channel over the same level scale.
constexpr int kOpusLowPerChannel = 6;
constexpr int kOpusHighPerChannel = 256;

const char* containerName(uint32_t container)
{
    const char* name = AUDIODEF_ContainerStringShort(container);
    return name ? name : "this container";
}

std::string codecName(uint32_t coder)
{
    const char* name = AUDIODEF_AudioFormatString(coder & AUDIO_CODEC_MASK);
    return name ? name : "codec " + std::to_string(coder & AUDIO_CODEC_MASK);
}

// "24-bit samples", "32-bit float samples", "IMA ADPCM": what a format word stores, for messages.
std::string storedText(int format)
{
    const Coding coding = codingOf(format);
    const uint32_t codec = coding.coder & AUDIO_CODEC_MASK;
    if (!coding.plainPcm || codec == AUDIO_CODEC_ULAW || codec == AUDIO_CODEC_ALAW)
        return codecName(codec);
    const bool isFloat = codec == AUDIO_CODEC_FLOAT32 || codec == AUDIO_CODEC_FLOAT64;
    return std::to_string(coding.bits) + (isFloat ? "-bit float samples" : "-bit samples");
}

// ---- Channel layouts -----------------------------------------------------------------------

// The speaker bit of a libsndfile channel map value, 0 for none.
uint32_t speakerOf(int id)
{
    switch (id) {
    case SF_CHANNEL_MAP_MONO:
    case SF_CHANNEL_MAP_CENTER:
    case SF_CHANNEL_MAP_FRONT_CENTER:
        return AUDIO_SPEAKER_FC;
    case SF_CHANNEL_MAP_LEFT:
    case SF_CHANNEL_MAP_FRONT_LEFT:
        return AUDIO_SPEAKER_FL;
    case SF_CHANNEL_MAP_RIGHT:
    case SF_CHANNEL_MAP_FRONT_RIGHT:
        return AUDIO_SPEAKER_FR;
    case SF_CHANNEL_MAP_REAR_CENTER:
        return AUDIO_SPEAKER_BC;
    case SF_CHANNEL_MAP_REAR_LEFT:
        return AUDIO_SPEAKER_BL;
    case SF_CHANNEL_MAP_REAR_RIGHT:
        return AUDIO_SPEAKER_BR;
    case SF_CHANNEL_MAP_LFE:
        return AUDIO_SPEAKER_LFE;
    case SF_CHANNEL_MAP_FRONT_LEFT_OF_CENTER:
        return AUDIO_SPEAKER_FLC;
    case SF_CHANNEL_MAP_FRONT_RIGHT_OF_CENTER:
        return AUDIO_SPEAKER_FRC;
    case SF_CHANNEL_MAP_SIDE_LEFT:
        return AUDIO_SPEAKER_SL;
    case SF_CHANNEL_MAP_SIDE_RIGHT:
        return AUDIO_SPEAKER_SR;
    case SF_CHANNEL_MAP_TOP_CENTER:
        return AUDIO_SPEAKER_TC;
    case SF_CHANNEL_MAP_TOP_FRONT_LEFT:
        return AUDIO_SPEAKER_TFL;
    case SF_CHANNEL_MAP_TOP_FRONT_RIGHT:
        return AUDIO_SPEAKER_TFR;
    case SF_CHANNEL_MAP_TOP_FRONT_CENTER:
        return AUDIO_SPEAKER_TFC;
    case SF_CHANNEL_MAP_TOP_REAR_LEFT:
        return AUDIO_SPEAKER_TBL;
    case SF_CHANNEL_MAP_TOP_REAR_RIGHT:
        return AUDIO_SPEAKER_TBR;
    case SF_CHANNEL_MAP_TOP_REAR_CENTER:
        return AUDIO_SPEAKER_TBC;
    default:
        return 0;
    }
}

// The channel map value of a speaker bit, 0 for none.
int channelMapIdOf(uint32_t speaker)
{
    for (int id = SF_CHANNEL_MAP_LEFT; id < SF_CHANNEL_MAP_AMBISONIC_B_W; ++id)
        if (id != SF_CHANNEL_MAP_FRONT_LEFT && id != SF_CHANNEL_MAP_FRONT_RIGHT
            && id != SF_CHANNEL_MAP_FRONT_CENTER && speakerOf(id) == speaker)
            return id;
    return 0;
}

// The layout FLAC implies for a count, as FFmpeg reads it (side surrounds for 5 and 6).
uint32_t flacLayout(int channels)
{
    static const uint32_t masks[] = {0, 0x4, 0x3, 0x7, 0x33, 0x607, 0x60f, 0x70f, 0x63f};
    return channels >= 1 && channels <= 8 ? masks[channels] : 0;
}

// Speakers in the order Vorbis and Opus (mapping family 1) store them; libsndfile passes the
// channels through in that order.
std::vector<uint32_t> vorbisOrder(int channels)
{
    switch (channels) {
    case 3:
        return {0x1, 0x4, 0x2};
    case 4:
        return {0x1, 0x2, 0x10, 0x20};
    case 5:
        return {0x1, 0x4, 0x2, 0x10, 0x20};
    case 6:
        return {0x1, 0x4, 0x2, 0x10, 0x20, 0x8};
    case 7:
        return {0x1, 0x4, 0x2, 0x200, 0x400, 0x100, 0x8};
    case 8:
        return {0x1, 0x4, 0x2, 0x200, 0x400, 0x10, 0x20, 0x8};
    default:
        return {};
    }
}

// The mask of speakers given in file order, and where each channel of mask order sits in the
// file (perm[k]: file index of the k-th speaker). false for unknown or repeated speakers.
bool maskOrder(const std::vector<uint32_t>& speakers, uint32_t& mask, std::vector<int>& perm)
{
    mask = 0;
    for (uint32_t s : speakers) {
        if (s == 0 || (mask & s))
            return false;
        mask |= s;
    }
    perm.clear();
    for (uint32_t bit = 1; bit && perm.size() < speakers.size(); bit <<= 1)
        if (mask & bit)
            perm.push_back(
                int(std::find(speakers.begin(), speakers.end(), bit) - speakers.begin()));
    return !speakers.empty();
}

// Reorders interleaved frames in place: channel k takes channel perm[k].
template <typename T>
void permute(T* frames, int64_t count, const std::vector<int>& perm)
{
    const size_t n = perm.size();
    T frame[32];
    for (int64_t f = 0; f < count; ++f) {
        T* p = frames + f * int64_t(n);
        std::copy(p, p + n, frame);
        for (size_t k = 0; k < n; ++k)
            p[k] = frame[perm[k]];
    }
}

// The WAVEFORMATEXTENSIBLE_CHANNEL_MASK tag of a FLAC stream's comments (how FLAC states a
// layout other than its count's), 0 when there is none. Leaves the handle at the start.
uint32_t flacChannelMaskTag(_HFile* io)
{
    if (!BLIO_IsSeekable(io) || BLIO_FilePosition(io) != 0)
        return 0;
    uint32_t mask = 0;
    uint8_t head[4];
    if (BLIO_ReadData(io, head, 4) == 4 && std::memcmp(head, "fLaC", 4) == 0) {
        for (int blocks = 0; blocks < 64 && BLIO_ReadData(io, head, 4) == 4; ++blocks) {
            const uint32_t length = (uint32_t(head[1]) << 16) | (uint32_t(head[2]) << 8) | head[3];
            if ((head[0] & 0x7f) == 4 && length <= (1u << 20)) {
                std::vector<uint8_t> block(length);
                if (BLIO_ReadData(io, block.data(), length) != int64_t(length))
                    break;
                const auto le32 = [&](size_t at) {
                    return at + 4 <= block.size()
                        ? uint32_t(block[at]) | uint32_t(block[at + 1]) << 8
                            | uint32_t(block[at + 2]) << 16 | uint32_t(block[at + 3]) << 24
                        : UINT32_MAX;
                };
                size_t at = size_t(le32(0)) + 4;
                const uint32_t count = le32(at);
                at += 4;
                static const char key[] = "WAVEFORMATEXTENSIBLE_CHANNEL_MASK=";
                for (uint32_t i = 0; i < count && at < block.size(); ++i) {
                    const uint32_t n = le32(at);
                    if (n == UINT32_MAX || n > block.size() - at - 4)
                        break;
                    const std::string item(reinterpret_cast<const char*>(&block[at + 4]), n);
                    at += 4 + n;
                    if (item.size() > sizeof key - 1
                        && lowered(item.substr(0, sizeof key - 1)) == lowered(key))
                        mask = uint32_t(std::strtoul(item.c_str() + sizeof key - 1, nullptr, 0));
                }
                break;
            }
            if ((head[0] & 0x80) || BLIO_Seek(io, length, BLIO_SEEK_CUR) != 1)
                break;
        }
    }
    BLIO_Seek(io, 0, BLIO_SEEK_SET);
    return mask;
}

// ---- Reader --------------------------------------------------------------------------------

class SndfileReader final : public Reader
{
public:
    explicit SndfileReader(_HFile* io, std::string path)
        : path_(std::move(path))
    {
        ch_.io = io;
    }
    ~SndfileReader() override
    {
        if (sf_)
            sf_close(sf_);
    }

    bool open(const FormatRequest& request);
    const StreamInfo& info() const override { return info_; }
    int64_t read(float* dst, int64_t frames) override;
    int64_t read16(int16_t* dst, int64_t frames) override;
    bool seek(int64_t frame) override;

private:
    template <typename T>
    int64_t readFrames(T* dst, int64_t frames, sf_count_t (*fn)(SNDFILE*, T*, sf_count_t));
    bool rawInfo(const FormatRequest& request, SF_INFO& sfi);

    Channel ch_;
    std::string path_;
    SNDFILE* sf_ = nullptr;
    StreamInfo info_;
    bool nativeShorts_ = true;
    std::vector<int> perm_; // file order to mask order, empty when they agree
};

// Headerless data: everything comes from the format string.
bool SndfileReader::rawInfo(const FormatRequest& request, SF_INFO& sfi)
{
    sfi.samplerate = request.sampleRate > 0 ? request.sampleRate : 44100;
    sfi.channels = request.numChannels > 0 ? request.numChannels : 1;
    const int bits = request.bitsPerSample > 0 ? request.bitsPerSample : 16;
    uint32_t coder = request.coder & AUDIO_CODEC_MASK;
    if (request.container == AUDIO_CONTAINER_VOX && coder == 0)
        coder = AUDIO_CODEC_VOX_ADPCM;
    // The engine's signal file is headerless little-endian 32-bit float, whatever else is said.
    const bool signal = request.container == AUDIO_CONTAINER_WSIG;
    if (signal)
        coder = AUDIO_CODEC_FLOAT32;
    int subtype = subtypeOfCodec(coder);
    if (coder == AUDIO_CODEC_NONE)
        subtype = bits == 8 ? SF_FORMAT_PCM_S8
            : bits == 24    ? SF_FORMAT_PCM_24
            : bits == 32    ? SF_FORMAT_PCM_32
            : bits == 64    ? SF_FORMAT_DOUBLE
                            : SF_FORMAT_PCM_16;
    else if (coder == AUDIO_CODEC_FLOAT32 && bits == 64)
        subtype = SF_FORMAT_DOUBLE;
    if (subtype == 0) {
        setError(AUDIOERR_UNSUPPORTED, "cannot read '%s' as raw %s data", path_.c_str(),
            codecName(coder).c_str());
        return false;
    }
    const bool big = !signal && ((request.coder & AUDIO_CODEC_FLAG_BIGENDIAN) || request.endian == 2);
    const int endian = big           ? SF_ENDIAN_BIG
        : request.endian == 1 || signal ? SF_ENDIAN_LITTLE
                                     : SF_ENDIAN_FILE;
    sfi.format = SF_FORMAT_RAW | (signal ? SF_FORMAT_FLOAT : subtype) | endian;
    if (sfi.channels > kMaxChannels || sfi.samplerate < kMinRate || sfi.samplerate > kMaxRate
        || !sf_format_check(&sfi)) {
        setError(AUDIOERR_UNSUPPORTED, "cannot read '%s' as raw %s data with %d channels at %d Hz",
            path_.c_str(), codecName(coder ? coder : uint32_t(AUDIO_CODEC_PCM16)).c_str(),
            sfi.channels, sfi.samplerate);
        return false;
    }
    return true;
}

bool SndfileReader::open(const FormatRequest& request)
{
    const bool raw = request.container == AUDIO_CONTAINER_RAW || request.container == AUDIO_CONTAINER_VOX
        || request.container == AUDIO_CONTAINER_WSIG;
    SF_INFO sfi {};
    if (raw && !rawInfo(request, sfi))
        return false;
    const uint32_t flacMask = raw ? 0 : flacChannelMaskTag(ch_.io);
    // Anything else is detected by content: a misleading extension must not stop a read.
    sf_ = sf_open_virtual(&virtualIo, SFM_READ, &sfi, &ch_);
    if (!sf_) {
        const int err = sf_error(nullptr);
        setError(err == SF_ERR_UNRECOGNISED_FORMAT && !ch_.failed ? AUDIOERR_UNRECOGNISED
                                                                  : AUDIOERR_CORRUPT,
            "cannot read '%s': %s", path_.c_str(),
            ch_.failed ? BLERROR_LastMessage() : sf_error_number(err));
        return false;
    }
    if (sfi.channels < 1 || sfi.channels > kMaxChannels) {
        setError(AUDIOERR_UNSUPPORTED, "'%s' has %d channels; the engine reads 1 to %d",
            path_.c_str(), sfi.channels, kMaxChannels);
        return false;
    }
    if (sfi.samplerate < kMinRate || sfi.samplerate > kMaxRate) {
        setError(AUDIOERR_CORRUPT, "'%s' has a sample rate of %d Hz; the engine reads %d to %d Hz",
            path_.c_str(), sfi.samplerate, kMinRate, kMaxRate);
        return false;
    }
    sf_command(sf_, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);

    const int major = sfi.format & SF_FORMAT_TYPEMASK;
    const int subtype = sfi.format & SF_FORMAT_SUBMASK;
    const Coding coding = codingOf(sfi.format);
    // libsndfile reads float data as integers either unscaled or scaled to the file's peak;
    // the engine wants the level kept, so those go through floats. So do the perceptual codecs,
    // which decode to floats anyway.
    const uint32_t codec = coding.coder & AUDIO_CODEC_MASK;
    nativeShorts_
        = codec != AUDIO_CODEC_FLOAT32 && codec != AUDIO_CODEC_FLOAT64 && !isLossySubtype(subtype);
    _audio_format& f = info_.format;
    f.sampleRate = sfi.samplerate;
    f.numChannels = static_cast<int16_t>(sfi.channels);
    f.bitsPerSample = static_cast<int16_t>(coding.bits);
    f.container = raw ? request.container : containerOfMajor(major, subtype);
    f.coder = coding.coder;
    f.mimeType = containerMimeType(f.container);
    info_.frames = sfi.frames < 0 || sfi.frames == SF_COUNT_MAX ? -1 : sfi.frames;
    // libsndfile guesses an MP3's length from its first frames.
    info_.framesExact = info_.framesFinal = major != SF_FORMAT_MPEG;
    info_.seekable = sfi.seekable && BLIO_IsSeekable(ch_.io);
    if (coding.plainPcm) {
        info_.bitRate = int64_t(sfi.samplerate) * sfi.channels * coding.bits;
    } else {
        const int64_t size = BLIO_FileSize(ch_.io);
        if (size > 0 && info_.frames > 0)
            info_.bitRate = std::llround(double(size) * 8.0 * sfi.samplerate / info_.frames);
    }
    if (isLossySubtype(subtype) && info_.bitRate > 0) {
        const int mode = sf_command(sf_, SFC_GET_BITRATE_MODE, nullptr, 0);
        // Pooled texts are never freed: keep the rate in a plausible range so that hostile
        // headers cannot grow the pool without bound.
        const double kbps = std::min(info_.bitRate / 1000.0, 100000.0);
        char text[48];
        if (mode == SF_BITRATE_MODE_CONSTANT)
            std::snprintf(text, sizeof text, "bitrate=%d",
                subtype == SF_FORMAT_MPEG_LAYER_III ? nearestMp3Rate(sfi.samplerate, kbps)
                                                    : int(std::lround(kbps)));
        else
            std::snprintf(text, sizeof text, "avg_bitrate=%d", int(std::lround(kbps)));
        f.codecInfo = pooled(text);
    }
    // The layout: the file's channel map, else the Vorbis order of Ogg; channels are handed out
    // in mask order.
    std::vector<uint32_t> speakers;
    std::vector<int> map(size_t(sfi.channels));
    if (sf_command(sf_, SFC_GET_CHANNEL_MAP_INFO, map.data(), int(map.size() * sizeof(int)))
        == SF_TRUE) {
        for (int id : map)
            speakers.push_back(speakerOf(id));
    } else if (subtype == SF_FORMAT_VORBIS || subtype == SF_FORMAT_OPUS) {
        speakers = vorbisOrder(sfi.channels);
    } else if (major == SF_FORMAT_FLAC && (sfi.channels > 2 || flacMask)) {
        const uint32_t mask = __builtin_popcount(flacMask) == sfi.channels
            ? flacMask
            : flacLayout(sfi.channels);
        for (uint32_t bit = 1; bit; bit <<= 1)
            if (mask & bit)
                speakers.push_back(bit);
    }
    uint32_t mask = 0;
    std::vector<int> perm;
    if (!speakers.empty() && maskOrder(speakers, mask, perm)) {
        AUDIO_SetFormatChannelMask(&f, mask);
        for (size_t k = 0; k < perm.size(); ++k)
            if (perm[k] != int(k))
                perm_ = perm;
    }
    return true;
}

template <typename T>
int64_t SndfileReader::readFrames(
    T* dst, int64_t frames, sf_count_t (*fn)(SNDFILE*, T*, sf_count_t))
{
    if (frames <= 0)
        return 0;
    if (!dst) {
        setError(AUDIOERR_DECODE, "cannot read '%s': no buffer", path_.c_str());
        return -1;
    }
    const sf_count_t got = fn(sf_, dst, frames);
    // A short count is the end of the data unless the decoder or the I/O layer says otherwise;
    // frames decoded before a failure are handed out first, the failure comes with the next call.
    if (got > 0)
        return got;
    if (ch_.failed) {
        setError(AUDIOERR_DECODE, "cannot read '%s': %s", path_.c_str(), BLERROR_LastMessage());
        return -1;
    }
    const int err = sf_error(sf_);
    if (err != SF_ERR_NO_ERROR) {
        setError(AUDIOERR_DECODE, "cannot read '%s': %s", path_.c_str(), sf_strerror(sf_));
        return -1;
    }
    return 0;
}

int64_t SndfileReader::read(float* dst, int64_t frames)
{
    const int64_t got = readFrames<float>(dst, frames, sf_readf_float);
    if (got > 0 && !perm_.empty())
        permute(dst, got, perm_);
    return got;
}

int64_t SndfileReader::read16(int16_t* dst, int64_t frames)
{
    if (!nativeShorts_)
        return Reader::read16(dst, frames);
    const int64_t got = readFrames<short>(dst, frames, sf_readf_short);
    if (got > 0 && !perm_.empty())
        permute(dst, got, perm_);
    return got;
}

bool SndfileReader::seek(int64_t frame)
{
    if (!info_.seekable) {
        setError(
            AUDIOERR_UNSUPPORTED, "cannot seek in '%s': the source is not seekable", path_.c_str());
        return false;
    }
    if (frame < 0 || (info_.frames >= 0 && frame > info_.frames)
        || sf_seek(sf_, frame, SEEK_SET) < 0) {
        setError(AUDIOERR_CORRUPT, "cannot seek in '%s' to frame %lld: %s", path_.c_str(),
            static_cast<long long>(frame),
            frame < 0 || (info_.frames >= 0 && frame > info_.frames) ? "beyond the data"
                                                                     : sf_strerror(sf_));
        return false;
    }
    return true;
}

// ---- Writer --------------------------------------------------------------------------------

// libsndfile's format word for a container and codec; 0 when the pair has no mapping. `bits`
// picks the resolution of FLAC and ALAC.
int sndfileFormat(uint32_t container, uint32_t coder, int bits, const std::string& name)
{
    int major = 0;
    for (const MajorEntry& e : kMajors)
        if (e.container == container) {
            major = e.major;
            break;
        }
    if (major == SF_FORMAT_WAV && name == "wavex")
        major = SF_FORMAT_WAVEX;
    const uint32_t codec = coder & AUDIO_CODEC_MASK;
    int subtype = subtypeOfCodec(codec);
    if (codec == AUDIO_CODEC_FLAC)
        subtype = major != SF_FORMAT_FLAC ? 0
            : bits == 8                   ? SF_FORMAT_PCM_S8
            : bits == 16                  ? SF_FORMAT_PCM_16
            : bits == 24                  ? SF_FORMAT_PCM_24
                                          : 0;
    else if (codec == AUDIO_CODEC_ALAC)
        subtype = bits == 16 ? SF_FORMAT_ALAC_16
            : bits == 20     ? SF_FORMAT_ALAC_20
            : bits == 24     ? SF_FORMAT_ALAC_24
            : bits == 32     ? SF_FORMAT_ALAC_32
                             : 0;
    // libsndfile decodes MPEG layers I and II but does not encode them, and encodes MP3 in its
    // own container only; the VOX and signal containers hold one encoding each; the Ogg codes
    // name their codec.
    if (major == 0 || subtype == 0 || subtype == SF_FORMAT_MPEG_LAYER_I
        || subtype == SF_FORMAT_MPEG_LAYER_II
        || (subtype == SF_FORMAT_MPEG_LAYER_III) != (major == SF_FORMAT_MPEG)
        || (container == AUDIO_CONTAINER_VOX && subtype != SF_FORMAT_VOX_ADPCM)
        || (container == AUDIO_CONTAINER_WSIG && subtype != SF_FORMAT_FLOAT)
        || (container == AUDIO_CONTAINER_OGG_VORBIS && subtype != SF_FORMAT_VORBIS)
        || (container == AUDIO_CONTAINER_OGG_OPUS && subtype != SF_FORMAT_OPUS))
        return 0;
    return major | subtype | (container == AUDIO_CONTAINER_WSIG ? SF_ENDIAN_LITTLE : 0);
}

// 8-bit samples are the same audio signed or unsigned, and most containers store only one of
// the two: take the other when the one asked for does not fit.
void fitByteSign(SF_INFO& sfi)
{
    const int subtype = sfi.format & SF_FORMAT_SUBMASK;
    if (sf_format_check(&sfi) || (subtype != SF_FORMAT_PCM_S8 && subtype != SF_FORMAT_PCM_U8))
        return;
    SF_INFO other = sfi;
    other.format = (sfi.format & ~SF_FORMAT_SUBMASK)
        | (subtype == SF_FORMAT_PCM_S8 ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_S8);
    if (sf_format_check(&other))
        sfi.format = other.format;
}

// The codec a format record asks for: its own code, else one that fits its resolution (PCM for
// the PCM containers), else the container's usual codec.
uint32_t requestedCoder(const _audio_format& fmt)
{
    if (fmt.coder & AUDIO_CODEC_MASK)
        return fmt.coder;
    const uint32_t usual = defaultCoder(fmt.container);
    const uint32_t usualCodec = usual & AUDIO_CODEC_MASK;
    const bool pcm = usualCodec == AUDIO_CODEC_PCM16 || usualCodec == AUDIO_CODEC_PCM_S8
        || usualCodec == AUDIO_CODEC_PCM_U8 || usualCodec == AUDIO_CODEC_PCM24
        || usualCodec == AUDIO_CODEC_PCM32;
    if (!pcm)
        return usual;
    switch (fmt.bitsPerSample) {
    case 8: {
        const bool unsignedBytes = fmt.container == AUDIO_CONTAINER_WAV
            || fmt.container == AUDIO_CONTAINER_RF64 || fmt.container == AUDIO_CONTAINER_W64
            || fmt.container == AUDIO_CONTAINER_VOC || fmt.container == AUDIO_CONTAINER_MPC2K;
        return unsignedBytes ? AUDIO_CODEC_PCM_U8 : AUDIO_CODEC_PCM_S8;
    }
    case 24:
        return AUDIO_CODEC_PCM24;
    case 32:
        return AUDIO_CODEC_PCM32;
    case 64:
        return AUDIO_CODEC_FLOAT64;
    default:
        return usual;
    }
}

int bitsFor(const _audio_format& fmt, const FormatRequest& request)
{
    // ALAC's 20-bit mode has no resolution of its own in the format record.
    return request.bitsPerSample == 20 ? 20 : fmt.bitsPerSample > 0 ? fmt.bitsPerSample : 16;
}

class SndfileWriter final : public Writer
{
public:
    SndfileWriter(_HFile* io, std::string path)
        : path_(std::move(path))
    {
        ch_.io = io;
    }
    ~SndfileWriter() override
    {
        if (sf_)
            sf_close(sf_);
    }

    bool open(const FormatRequest& request, const _audio_format& fmt);
    int64_t write(const float* src, int64_t frames) override;
    int64_t write16(const int16_t* src, int64_t frames) override;
    int64_t writeRaw(const void* bytes, int64_t count) override;
    bool finish() override;
    const _audio_format& format() const override { return format_; }

private:
    template <typename T>
    int64_t writeFrames(
        const T* src, int64_t frames, sf_count_t (*fn)(SNDFILE*, const T*, sf_count_t));
    bool refuse(const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    void applyOptions(const FormatRequest& request, int subtype);
    void setLayout(uint32_t given, int format);

    int64_t writePairs(const float* src, int64_t frames);
    bool writeEmptyFlac();

    Channel ch_;
    std::string path_;
    SNDFILE* sf_ = nullptr;
    _audio_format format_ {};
    int constantKbps_ = 0;
    // VOX packs two samples in a byte and libsndfile pads every write of an odd count, which
    // would slip a sample in per call: such writes go out in pairs, the odd one kept here.
    bool pairs_ = false;
    std::vector<float> stage_;
    // Channels as the file stores them: file channel j = sum over k of mix_[j * n + k] x ours
    // k; empty when they go as they come.
    std::vector<float> mix_;
    std::vector<float> mixed_;
};

bool SndfileWriter::refuse(const char* format, ...)
{
    char reason[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    setError(AUDIOERR_UNSUPPORTED, "cannot write '%s': %s", path_.c_str(), reason);
    return false;
}

bool SndfileWriter::open(const FormatRequest& request, const _audio_format& fmt)
{
    const uint32_t coder = requestedCoder(fmt);
    const int bits = bitsFor(fmt, request);
    const char* cname = containerName(fmt.container);
    const int base = sndfileFormat(fmt.container, coder, bits, request.name);
    if (!base) {
        const uint32_t codec = coder & AUDIO_CODEC_MASK;
        if (codec == AUDIO_CODEC_FLAC || codec == AUDIO_CODEC_ALAC)
            return refuse("%s does not store %d-bit %s", cname, bits, codecName(codec).c_str());
        return refuse("%s does not store %s", cname, codecName(codec).c_str());
    }
    if (fmt.numChannels < 1 || fmt.numChannels > kMaxChannels || fmt.sampleRate < kMinRate
        || fmt.sampleRate > kMaxRate)
        return refuse(
            "%d channels at %d Hz are outside the engine's range", fmt.numChannels, fmt.sampleRate);
    const int subtype = base & SF_FORMAT_SUBMASK;
    if (subtype == SF_FORMAT_OPUS
        && std::find(std::begin(kOpusRates), std::end(kOpusRates), fmt.sampleRate)
            == std::end(kOpusRates))
        return refuse(
            "Opus encodes at 8000, 12000, 16000, 24000 or 48000 Hz, not %d Hz", fmt.sampleRate);
    // libsndfile's format check lets these pass, but its coders refuse them when opening.
    const bool dwvw = subtype == SF_FORMAT_DWVW_12 || subtype == SF_FORMAT_DWVW_16
        || subtype == SF_FORMAT_DWVW_24;
    if (dwvw && fmt.numChannels > 1)
        return refuse("%s stores %s in 1 channel only, not %d", cname, codecName(coder).c_str(),
            fmt.numChannels);
    if (subtype == SF_FORMAT_MPEG_LAYER_III && fmt.numChannels > 2)
        return refuse("MP3 stores 1 or 2 channels, not %d", fmt.numChannels);
    // Refused here, before the encoders see them: LAME keeps its whole state (about 200 KB)
    // when libsndfile refuses its rate, and libvorbisenc refuses only at the first samples.
    if (subtype == SF_FORMAT_MPEG_LAYER_III
        && std::find(std::begin(kMp3Rates), std::end(kMp3Rates), fmt.sampleRate)
            == std::end(kMp3Rates))
        return refuse("MP3 encodes at 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100 or "
                      "48000 Hz, not %d Hz",
            fmt.sampleRate);
    if (subtype == SF_FORMAT_VORBIS && fmt.sampleRate > kVorbisMaxRate)
        return refuse("Vorbis encodes at up to %d Hz, not %d Hz", kVorbisMaxRate, fmt.sampleRate);

    SF_INFO sfi {};
    sfi.samplerate = fmt.sampleRate;
    sfi.channels = fmt.numChannels;
    sfi.format = base;
    const bool big = (coder & AUDIO_CODEC_FLAG_BIGENDIAN) || request.endian == 2;
    const int endian = big ? SF_ENDIAN_BIG : request.endian == 1 ? SF_ENDIAN_LITTLE : 0;
    if (endian && !(base & SF_FORMAT_ENDMASK)) {
        // The byte order only means something for word-sized samples in containers that have a
        // choice; elsewhere the request is ignored.
        SF_INFO ordered = sfi;
        ordered.format |= endian;
        if (sf_format_check(&ordered))
            sfi.format = ordered.format;
    }
    fitByteSign(sfi);
    // Only WAVE_FORMAT_EXTENSIBLE holds a speaker mask: WAV of more than two channels, or of a
    // layout a bare count does not imply, is written as that.
    const uint32_t given = layoutOf(fmt);
    if ((sfi.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV
        && (fmt.numChannels > 2 || given != AUDIO_DefaultChannelMask(fmt.numChannels))) {
        SF_INFO extensible = sfi;
        extensible.format = (sfi.format & ~SF_FORMAT_TYPEMASK) | SF_FORMAT_WAVEX;
        if (sf_format_check(&extensible))
            sfi.format = extensible.format;
    }
    if (!sf_format_check(&sfi)) {
        SF_INFO mono = sfi;
        mono.channels = 1;
        const std::string stored = storedText(sfi.format);
        if (fmt.numChannels > 1 && sf_format_check(&mono))
            return refuse(
                "%s stores %s in 1 channel only, not %d", cname, stored.c_str(), fmt.numChannels);
        return refuse("%s does not store %s", cname, stored.c_str());
    }

    sf_ = sf_open_virtual(&virtualIo, SFM_WRITE, &sfi, &ch_);
    if (!sf_) {
        const int err = sf_error(nullptr);
        setError(ch_.failed ? AUDIOERR_ENCODE : AUDIOERR_UNSUPPORTED, "cannot write '%s': %s",
            path_.c_str(), ch_.failed ? BLERROR_LastMessage() : sf_error_number(err));
        return false;
    }
    const Coding coding = codingOf(sfi.format);
    format_ = fmt;
    format_.coder = coding.coder;
    format_.bitsPerSample = static_cast<int16_t>(coding.bits);
    format_.mimeType = containerMimeType(fmt.container);
    format_.codecInfo = nullptr;

    // Float input beyond full scale clips instead of wrapping around in integer formats. The
    // clipping converters also scale by 2^(n-1), as reading does, where the plain ones use
    // 2^(n-1)-1: without them 24-bit samples would not come back bit for bit.
    sf_command(sf_, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_command(sf_, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    applyOptions(request, subtype);
    pairs_ = subtype == SF_FORMAT_VOX_ADPCM;
    setLayout(given, sfi.format);
    if (constantKbps_ > 0) {
        char text[32];
        std::snprintf(text, sizeof text, "bitrate=%d", constantKbps_);
        format_.codecInfo = pooled(text);
    }
    return true;
}

// Encoder settings; libsndfile takes them before the first samples.
void SndfileWriter::applyOptions(const FormatRequest& request, int subtype)
{
    const int channels = format_.numChannels > 0 ? format_.numChannels : 1;
    const int rate = format_.sampleRate;
    if (subtype == SF_FORMAT_VORBIS) {
        double quality = request.quality >= 0 ? std::min(request.quality, 10) / 10.0 : -1.0;
        if (quality < 0 && request.kbps > 0) {
            // Vorbis has no constant rate here: pick the quality whose nominal stereo rate at
            // 44.1 kHz (q0 64 .. q10 500 kbit/s) is nearest, scaled to the channel count.
            static const int nominal[] = {64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 500};
            const double perStereo = request.kbps * 2.0 / channels;
            int best = 0;
            for (int q = 1; q <= 10; ++q)
                if (std::fabs(nominal[q] - perStereo) < std::fabs(nominal[best] - perStereo))
                    best = q;
            quality = best / 10.0;
        }
        if (quality >= 0)
            sf_command(sf_, SFC_SET_VBR_ENCODING_QUALITY, &quality, sizeof quality);
        return;
    }
    const bool mp3 = subtype == SF_FORMAT_MPEG_LAYER_III;
    const bool opus = subtype == SF_FORMAT_OPUS;
    if (mp3 || opus) {
        if (request.kbps > 0) {
            // libsndfile turns a compression level into a constant rate linearly: level 0 is the
            // top of the range, 1 the bottom. Aim at the rate that will actually be written.
            int low, high;
            double kbps;
            if (mp3) {
                mp3Range(rate, low, high);
                kbps = nearestMp3Rate(rate, std::clamp(request.kbps, low, high));
            } else {
                low = kOpusLowPerChannel * channels, high = kOpusHighPerChannel * channels;
                kbps = std::clamp(request.kbps, low, high);
            }
            int mode = SF_BITRATE_MODE_CONSTANT;
            double level = (high - kbps) / double(high - low);
            sf_command(sf_, SFC_SET_BITRATE_MODE, &mode, sizeof mode);
            sf_command(sf_, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
            constantKbps_ = int(kbps);
        } else if (request.quality >= 0) {
            int mode = SF_BITRATE_MODE_VARIABLE;
            double level = 1.0 - std::min(request.quality, 10) / 10.0;
            sf_command(sf_, SFC_SET_BITRATE_MODE, &mode, sizeof mode);
            sf_command(sf_, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
        }
        return;
    }
    if ((format_.container == AUDIO_CONTAINER_FLAC) && request.quality >= 0) {
        double level = std::min(request.quality, 8) / 8.0;
        sf_command(sf_, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
    }
}

template <typename T>
int64_t SndfileWriter::writeFrames(
    const T* src, int64_t frames, sf_count_t (*fn)(SNDFILE*, const T*, sf_count_t))
{
    if (frames <= 0)
        return 0;
    if (!sf_ || !src) {
        setError(AUDIOERR_ENCODE, "cannot write '%s': %s", path_.c_str(),
            sf_ ? "no buffer" : "the file is finished");
        return -1;
    }
    const sf_count_t put = fn(sf_, src, frames);
    // Some coders report the padded count: more is not an error.
    if (put < frames || ch_.failed) {
        setError(AUDIOERR_ENCODE, "cannot write '%s': %s", path_.c_str(),
            ch_.failed ? BLERROR_LastMessage() : sf_strerror(sf_));
        return -1;
    }
    return frames;
}

int64_t SndfileWriter::writeRaw(const void* bytes, int64_t count)
{
    if (!sf_ || pairs_)
        return Writer::writeRaw(bytes, count);
    if (count <= 0)
        return 0;
    if (sf_write_raw(sf_, bytes, count) != count || ch_.failed) {
        setError(AUDIOERR_ENCODE, "cannot write '%s': %s", path_.c_str(),
            ch_.failed ? BLERROR_LastMessage() : sf_strerror(sf_));
        return -1;
    }
    return count;
}

int64_t SndfileWriter::writePairs(const float* src, int64_t frames)
{
    const int channels = format_.numChannels;
    constexpr size_t kStage = 4096;
    for (int64_t done = 0; done < frames;) {
        const int64_t room = int64_t(kStage) / channels - int64_t(stage_.size()) / channels;
        const int64_t n = std::min(room, frames - done);
        stage_.insert(stage_.end(), src + done * channels, src + (done + n) * channels);
        done += n;
        const int64_t held = int64_t(stage_.size()) / channels;
        const int64_t even = held & ~int64_t(1);
        if (even > 0) {
            if (writeFrames<float>(stage_.data(), even, sf_writef_float) < 0)
                return -1;
            stage_.erase(stage_.begin(), stage_.begin() + even * channels);
        }
    }
    return frames;
}

// Stores the layout where the container can: a channel map in WAVE_FORMAT_EXTENSIBLE and RF64;
// FLAC and Ogg imply one by the count (Ogg in Vorbis order), into which the channels are
// remixed and reordered. Elsewhere the count alone is stored.
void SndfileWriter::setLayout(uint32_t given, int format)
{
    const int major = format & SF_FORMAT_TYPEMASK;
    const int subtype = format & SF_FORMAT_SUBMASK;
    const int n = format_.numChannels;
    uint32_t stored = 0;
    if (major == SF_FORMAT_FLAC || subtype == SF_FORMAT_VORBIS || subtype == SF_FORMAT_OPUS) {
        stored = major == SF_FORMAT_FLAC ? flacLayout(n) : AUDIO_DefaultChannelMask(n);
        const ChannelMap map(n, given, n, stored);
        std::vector<uint32_t> order;
        if (major != SF_FORMAT_FLAC)
            order = vorbisOrder(n);
        uint32_t mask = 0;
        std::vector<int> perm;
        const bool reorder = !order.empty() && maskOrder(order, mask, perm);
        if (!map.identity || reorder) {
            mix_.assign(size_t(n) * size_t(n), 0.0f);
            for (int o = 0; o < n; ++o)
                for (int i = 0; i < n; ++i) {
                    const float g = map.identity ? (o == i ? 1.0f : 0.0f)
                                                 : map.matrix[size_t(o) * size_t(n) + size_t(i)];
                    mix_[size_t(o) * size_t(n) + size_t(i)] = g;
                }
            if (reorder) {
                // Rows of mask order into file order: file channel perm[k] holds speaker k.
                std::vector<float> rows(mix_.size());
                for (int k = 0; k < n; ++k)
                    std::copy(mix_.begin() + k * n, mix_.begin() + (k + 1) * n,
                        rows.begin() + perm[size_t(k)] * n);
                mix_.swap(rows);
            }
        }
    } else if (major == SF_FORMAT_WAVEX || major == SF_FORMAT_RF64) {
        std::vector<int> map;
        for (uint32_t bit = 1; bit; bit <<= 1)
            if (given & bit)
                map.push_back(channelMapIdOf(bit));
        if (std::find(map.begin(), map.end(), 0) == map.end()
            && sf_command(sf_, SFC_SET_CHANNEL_MAP_INFO, map.data(), int(map.size() * sizeof(int)))
                == SF_TRUE)
            stored = given;
    }
    AUDIO_SetFormatChannelMask(&format_, stored);
}

int64_t SndfileWriter::write(const float* src, int64_t frames)
{
    if (!mix_.empty() && frames > 0 && src) {
        const int n = format_.numChannels;
        mixed_.resize(size_t(frames) * size_t(n));
        for (int64_t f = 0; f < frames; ++f)
            for (int j = 0; j < n; ++j) {
                float sum = 0.0f;
                for (int k = 0; k < n; ++k)
                    sum += mix_[size_t(j) * size_t(n) + size_t(k)] * src[f * n + k];
                mixed_[size_t(f) * size_t(n) + size_t(j)] = sum;
            }
        src = mixed_.data();
    }
    if (pairs_ && frames > 0 && src)
        return writePairs(src, frames);
    return writeFrames<float>(src, frames, sf_writef_float);
}

int64_t SndfileWriter::write16(const int16_t* src, int64_t frames)
{
    if (!mix_.empty() && frames > 0 && src && sf_) {
        // Remixed as floats; reordering alone keeps the integers.
        const int n = format_.numChannels;
        std::vector<float> block(size_t(std::min<int64_t>(frames, 4096)) * size_t(n));
        for (int64_t done = 0; done < frames;) {
            const int64_t step = std::min<int64_t>(4096, frames - done);
            for (int64_t i = 0; i < step * n; ++i)
                block[size_t(i)] = src[done * n + i] / 32768.0f;
            if (write(block.data(), step) < 0)
                return -1;
            done += step;
        }
        return frames;
    }
    if (pairs_ && frames > 0 && src && sf_) {
        float block[1024];
        const int channels = format_.numChannels;
        const int64_t step = 1024 / channels;
        for (int64_t done = 0; done < frames; done += step) {
            const int64_t n = std::min(step, frames - done);
            for (int64_t i = 0; i < n * channels; ++i)
                block[i] = src[done * channels + i] / 32768.0f;
            if (writePairs(block, n) < 0)
                return -1;
        }
        return frames;
    }
    return writeFrames<short>(src, frames, sf_writef_short);
}

bool SndfileWriter::finish()
{
    if (!sf_) {
        setError(AUDIOERR_ENCODE, "cannot finish '%s': already finished", path_.c_str());
        return false;
    }
    if (!stage_.empty()) {
        const int64_t rest = int64_t(stage_.size()) / format_.numChannels;
        const bool wrote = writeFrames<float>(stage_.data(), rest, sf_writef_float) >= 0;
        stage_.clear();
        if (!wrote) {
            sf_close(sf_);
            sf_ = nullptr;
            return false;
        }
    }
    sf_write_sync(sf_);
    const int err = sf_close(sf_);
    sf_ = nullptr;
    if (err != 0 || ch_.failed) {
        setError(AUDIOERR_ENCODE, "cannot finish '%s': %s", path_.c_str(),
            ch_.failed ? BLERROR_LastMessage() : sf_error_number(err));
        return false;
    }
    // libsndfile starts a FLAC stream with the first samples, so a file given none would be
    // left empty and unreadable: write the stream marker and a STREAMINFO of zero samples.
    if (format_.container == AUDIO_CONTAINER_FLAC && BLIO_FileSize(ch_.io) == 0)
        return writeEmptyFlac();
    return true;
}

bool SndfileWriter::writeEmptyFlac()
{
    uint8_t header[42] = {'f', 'L', 'a', 'C', 0x80 /* last block: STREAMINFO */, 0, 0, 34};
    uint8_t* info = header + 8;
    info[0] = 0x10; // minimum and maximum block size 4096
    info[2] = 0x10;
    const uint32_t rate = uint32_t(format_.sampleRate);
    const uint32_t channels = uint32_t(format_.numChannels - 1);
    const uint32_t bits = uint32_t(format_.bitsPerSample - 1);
    // 20 bits of rate, 3 of channels - 1, 5 of bits - 1, then 36 bits of sample count (0).
    info[10] = uint8_t(rate >> 12);
    info[11] = uint8_t(rate >> 4);
    info[12] = uint8_t(((rate & 0x0f) << 4) | (channels << 1) | (bits >> 4));
    info[13] = uint8_t((bits & 0x0f) << 4);
    if (BLIO_Seek(ch_.io, 0, BLIO_SEEK_SET) != 1
        || BLIO_WriteData(ch_.io, header, sizeof header) != int64_t(sizeof header)) {
        setError(AUDIOERR_ENCODE, "cannot finish '%s': %s", path_.c_str(), BLERROR_LastMessage());
        return false;
    }
    return true;
}

} // namespace

// ---- Entry points --------------------------------------------------------------------------

namespace sova::audio {

std::unique_ptr<Reader> openSndfileReader(
    _HFile* io, const std::string& path, const FormatRequest& request)
{
    auto reader = std::make_unique<SndfileReader>(io, path);
    if (!reader->open(request))
        return nullptr;
    return reader;
}

std::unique_ptr<Writer> openSndfileWriter(
    _HFile* io, const std::string& path, const FormatRequest& request, const _audio_format& fmt)
{
    auto writer = std::make_unique<SndfileWriter>(io, path);
    if (!writer->open(request, fmt))
        return nullptr;
    return writer;
}

bool sndfileWrites(uint32_t container, uint32_t coder)
{
    _audio_format fmt {};
    fmt.container = container;
    fmt.coder = coder;
    fmt.numChannels = 1;
    const uint32_t chosen = requestedCoder(fmt);
    const uint32_t codec = chosen & AUDIO_CODEC_MASK;
    const int bits = codec == AUDIO_CODEC_FLAC || codec == AUDIO_CODEC_ALAC ? 16 : 0;
    const int format = sndfileFormat(container, chosen, bits, std::string());
    if (!format)
        return false;
    SF_INFO sfi {};
    sfi.samplerate = (format & SF_FORMAT_SUBMASK) == SF_FORMAT_OPUS ? 48000 : 8000;
    sfi.channels = 1;
    sfi.format = format;
    fitByteSign(sfi);
    return sf_format_check(&sfi) != 0;
}

} // namespace sova::audio
