// The FFmpeg backend: compressed containers that libsndfile lacks (MP4/M4A, ASF, Matroska, APE,
// TTA, WavPack, Musepack, AC-3, DTS, AMR, ...), read through an AVIOContext over the
// foundation's I/O layer, and the encoders FFmpeg has for writing them.
#include "backend.h"

#include <sova/blstring.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/crc.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libavutil/time.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace sova::audio {

namespace {

    constexpr int kIoBufferSize = 64 * 1024;
    // Wall-clock budget of one open, read or seek call; a demuxer or decoder that spins on a
    // hostile file is stopped by the interrupt callback when it runs out.
    constexpr int64_t kCallBudgetUs = 30 * 1000000;
    // Consecutive undecodable packets tolerated before reading fails.
    constexpr int kMaxConsecutiveErrors = 32;
    // A decoded frame larger than this is not believed (no codec we read comes near it).
    constexpr int kMaxFrameSamples = 1 << 20;
    // Samples decoded and thrown away before a seek target, so that lossy decoders have their
    // overlap state back by then.
    constexpr int64_t kLossyPreroll = 4096;
    // Samples converted per step when writing.
    constexpr int kWriteChunk = 4096;

    void quietLogs()
    {
        static std::once_flag once;
        std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
    }

    std::string avError(int err)
    {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        if (av_strerror(err, text, sizeof text) < 0)
            std::snprintf(text, sizeof text, "error %d", err);
        return text;
    }

    // ---- Allocation ceiling ----------------------------------------------------------------------

    // FFmpeg sizes some allocations from header fields before it can know they are false (an APE
    // tag item, an ID3 frame, an index table): a 94-byte file may ask for half a gigabyte. Its only
    // guard is one process-wide ceiling on a single allocation, so the engine keeps that ceiling
    // at what the files open in it can need: eight times the largest (an index entry of 24 bytes
    // stands for at least 4 bytes of the file's table), never below 64 MiB, 256 MiB for a stream
    // of unknown size. A host that uses FFmpeg itself shares the ceiling while files are open.
    class AllocationCeiling
    {
    public:
        static constexpr int64_t kFloor = int64_t(64) << 20;
        static constexpr int64_t kUnknownSize = int64_t(256) << 20;

        static int64_t needFor(int64_t fileSize)
        {
            if (fileSize < 0)
                return kUnknownSize;
            return std::clamp(fileSize > INT_MAX / 8 ? int64_t(INT_MAX) : fileSize * 8, kFloor,
                              int64_t(INT_MAX));
        }

        static void add(int64_t need)
        {
            std::lock_guard<std::mutex> lock(mutex());
            needs().insert(need);
            apply();
        }
        static void remove(int64_t need)
        {
            std::lock_guard<std::mutex> lock(mutex());
            auto& all = needs();
            const auto it = all.find(need);
            if (it != all.end())
                all.erase(it);
            apply();
        }

    private:
        static std::mutex& mutex()
        {
            static std::mutex m;
            return m;
        }
        static std::multiset<int64_t>& needs()
        {
            static std::multiset<int64_t> all;
            return all;
        }
        static void apply()
        {
            const auto& all = needs();
            av_max_alloc(size_t(all.empty() ? kFloor : *all.rbegin()));
        }
    };

    // ---- AVIOContext over a foundation handle --------------------------------------------------

    int ioRead(void* opaque, uint8_t* buffer, int size)
    {
        const int64_t got = BLIO_ReadData(static_cast<_HFile*>(opaque), buffer, size);
        if (got < 0)
            return AVERROR(EIO);
        return got == 0 ? AVERROR_EOF : static_cast<int>(got);
    }

    int ioWrite(void* opaque, uint8_t* buffer, int size)
    {
        const int64_t put = BLIO_WriteData(static_cast<_HFile*>(opaque), buffer, size);
        return put == size ? size : AVERROR(EIO);
    }

    int64_t ioSeek(void* opaque, int64_t offset, int whence)
    {
        auto* io = static_cast<_HFile*>(opaque);
        if (whence & AVSEEK_SIZE) {
            const int64_t size = BLIO_FileSize(io);
            return size >= 0 ? size : AVERROR(ENOSYS);
        }
        whence &= ~AVSEEK_FORCE;
        const int32_t origin = whence == SEEK_CUR ? BLIO_SEEK_CUR
            : whence == SEEK_END                  ? BLIO_SEEK_END
                                                  : BLIO_SEEK_SET;
        if (!BLIO_Seek(io, offset, origin))
            return AVERROR(EIO);
        return BLIO_FilePosition(io);
    }

    // The buffer belongs to the context once allocated: FFmpeg may replace it.
    AVIOContext* makeIo(_HFile* io, bool writing)
    {
        auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
        if (!buffer)
            return nullptr;
        const bool seekable = BLIO_IsSeekable(io) != 0;
        AVIOContext* ctx = avio_alloc_context(buffer, kIoBufferSize, writing ? 1 : 0, io,
            writing ? nullptr : ioRead, writing ? ioWrite : nullptr, seekable ? ioSeek : nullptr);
        if (!ctx) {
            av_free(buffer);
            return nullptr;
        }
        if (!seekable)
            ctx->seekable = 0;
        return ctx;
    }

    void freeIo(AVIOContext*& ctx)
    {
        if (ctx) {
            av_freep(&ctx->buffer);
            avio_context_free(&ctx);
        }
    }

    struct Deadline
    {
        int64_t at = 0;
        void arm() { at = av_gettime_relative() + kCallBudgetUs; }
        static int expired(void* self)
        {
            const auto* d = static_cast<const Deadline*>(self);
            return d->at != 0 && av_gettime_relative() > d->at ? 1 : 0;
        }
    };

    // ---- Codes ---------------------------------------------------------------------------------

    bool hasName(const char* names, const char* name)
    {
        // Demuxer names are comma-separated lists ("mov,mp4,m4a,3gp,3g2,mj2").
        const size_t n = std::strlen(name);
        for (const char* p = names; p && *p;) {
            const char* end = std::strchr(p, ',');
            const size_t len = end ? size_t(end - p) : std::strlen(p);
            if (len == n && std::strncmp(p, name, n) == 0)
                return true;
            p = end ? end + 1 : nullptr;
        }
        return false;
    }

    uint32_t containerOf(const char* demuxer, AVCodecID codec)
    {
        struct Entry
        {
            const char* name;
            uint32_t container;
        };
        static const Entry table[] = {
            {"mov", AUDIO_CONTAINER_MP4},
            {"mp4", AUDIO_CONTAINER_MP4},
            {"m4a", AUDIO_CONTAINER_MP4},
            {"asf", AUDIO_CONTAINER_ASF},
            {"matroska", AUDIO_CONTAINER_MKV},
            {"webm", AUDIO_CONTAINER_MKV},
            {"ape", AUDIO_CONTAINER_APE},
            {"tta", AUDIO_CONTAINER_TTA},
            {"wv", AUDIO_CONTAINER_WAVPACK},
            {"mpc", AUDIO_CONTAINER_MPC},
            {"mpc8", AUDIO_CONTAINER_MPC},
            {"ac3", AUDIO_CONTAINER_AC3},
            {"eac3", AUDIO_CONTAINER_AC3},
            {"dts", AUDIO_CONTAINER_DTS},
            {"amr", AUDIO_CONTAINER_AMR},
            {"amrnb", AUDIO_CONTAINER_AMR},
            {"amrwb", AUDIO_CONTAINER_AMR},
            {"mp3", AUDIO_CONTAINER_MPEG},
            {"flac", AUDIO_CONTAINER_FLAC},
            {"wav", AUDIO_CONTAINER_WAV},
            {"aiff", AUDIO_CONTAINER_AIFF},
            {"avi", AUDIO_CONTAINER_AVI},
            {"caf", AUDIO_CONTAINER_CAF},
            {"w64", AUDIO_CONTAINER_W64},
            {"au", AUDIO_CONTAINER_AU},
            {"voc", AUDIO_CONTAINER_VOC},
        };
        if (hasName(demuxer, "ogg")) {
            if (codec == AV_CODEC_ID_VORBIS)
                return AUDIO_CONTAINER_OGG_VORBIS;
            return codec == AV_CODEC_ID_OPUS ? AUDIO_CONTAINER_OGG_OPUS : AUDIO_CONTAINER_OGG_OTHER;
        }
        for (const Entry& e : table)
            if (hasName(demuxer, e.name))
                return e.container;
        return AUDIO_CONTAINER_RAW;
    }

    uint32_t coderOf(const AVCodecParameters* par)
    {
        constexpr uint32_t be = AUDIO_CODEC_FLAG_BIGENDIAN;
        switch (par->codec_id) {
        case AV_CODEC_ID_AAC:
        case AV_CODEC_ID_AAC_LATM:
            if (par->profile == FF_PROFILE_AAC_HE)
                return AUDIO_CODEC_HE_AAC;
            return par->profile == FF_PROFILE_AAC_HE_V2 ? AUDIO_CODEC_HE_AAC_V2 : AUDIO_CODEC_AAC;
        case AV_CODEC_ID_ALAC:
            return AUDIO_CODEC_ALAC;
        case AV_CODEC_ID_WMAV1:
            return AUDIO_CODEC_WMA_V1;
        case AV_CODEC_ID_WMAV2:
            return AUDIO_CODEC_WMA_V2;
        case AV_CODEC_ID_WMAPRO:
            return AUDIO_CODEC_WMA_PRO;
        case AV_CODEC_ID_WMALOSSLESS:
            return AUDIO_CODEC_WMA_LOSSLESS;
        case AV_CODEC_ID_WMAVOICE:
            return AUDIO_CODEC_WMA_VOICE;
        case AV_CODEC_ID_APE:
            return AUDIO_CODEC_APE;
        case AV_CODEC_ID_TTA:
            return AUDIO_CODEC_TTA;
        case AV_CODEC_ID_WAVPACK:
            return AUDIO_CODEC_WAVPACK;
        case AV_CODEC_ID_MUSEPACK7:
            return AUDIO_CODEC_MUSEPACK_SV7;
        case AV_CODEC_ID_MUSEPACK8:
            return AUDIO_CODEC_MUSEPACK_SV8;
        case AV_CODEC_ID_AC3:
            return AUDIO_CODEC_AC3;
        case AV_CODEC_ID_EAC3:
            return AUDIO_CODEC_EAC3;
        case AV_CODEC_ID_DTS:
            return AUDIO_CODEC_DTS;
        case AV_CODEC_ID_TRUEHD:
            return AUDIO_CODEC_TRUEHD;
        case AV_CODEC_ID_AMR_NB:
            return AUDIO_CODEC_AMR_NB;
        case AV_CODEC_ID_AMR_WB:
            return AUDIO_CODEC_AMR_WB;
        case AV_CODEC_ID_MP1:
            return AUDIO_CODEC_MPEG_L1;
        case AV_CODEC_ID_MP2:
            return AUDIO_CODEC_MPEG_L2;
        case AV_CODEC_ID_MP3:
            return AUDIO_CODEC_MPEG_L3;
        case AV_CODEC_ID_VORBIS:
            return AUDIO_CODEC_VORBIS;
        case AV_CODEC_ID_OPUS:
            return AUDIO_CODEC_OPUS;
        case AV_CODEC_ID_SPEEX:
            return AUDIO_CODEC_SPEEX;
        case AV_CODEC_ID_FLAC:
            return AUDIO_CODEC_FLAC;
        case AV_CODEC_ID_SHORTEN:
            return AUDIO_CODEC_SHORTEN;
        case AV_CODEC_ID_TAK:
            return AUDIO_CODEC_TAK;
        case AV_CODEC_ID_MP4ALS:
            return AUDIO_CODEC_MP4ALS;
        case AV_CODEC_ID_ATRAC3:
            return AUDIO_CODEC_ATRAC3;
        case AV_CODEC_ID_ATRAC3P:
            return AUDIO_CODEC_ATRAC3P;
        case AV_CODEC_ID_COOK:
            return AUDIO_CODEC_COOK;
        case AV_CODEC_ID_NELLYMOSER:
            return AUDIO_CODEC_NELLYMOSER;
        case AV_CODEC_ID_ADPCM_G722:
            return AUDIO_CODEC_G722;
        case AV_CODEC_ID_ADPCM_G726:
        case AV_CODEC_ID_ADPCM_G726LE:
            return AUDIO_CODEC_G726;
        case AV_CODEC_ID_G729:
            return AUDIO_CODEC_G729;
        case AV_CODEC_ID_G723_1:
            return AUDIO_CODEC_G723_1;
        case AV_CODEC_ID_PCM_S16LE:
            return AUDIO_CODEC_PCM16;
        case AV_CODEC_ID_PCM_S16BE:
            return AUDIO_CODEC_PCM16 | be;
        case AV_CODEC_ID_PCM_S24LE:
            return AUDIO_CODEC_PCM24;
        case AV_CODEC_ID_PCM_S24BE:
            return AUDIO_CODEC_PCM24 | be;
        case AV_CODEC_ID_PCM_S32LE:
            return AUDIO_CODEC_PCM32;
        case AV_CODEC_ID_PCM_S32BE:
            return AUDIO_CODEC_PCM32 | be;
        case AV_CODEC_ID_PCM_F32LE:
            return AUDIO_CODEC_FLOAT32;
        case AV_CODEC_ID_PCM_F32BE:
            return AUDIO_CODEC_FLOAT32 | be;
        case AV_CODEC_ID_PCM_F64LE:
            return AUDIO_CODEC_FLOAT64;
        case AV_CODEC_ID_PCM_F64BE:
            return AUDIO_CODEC_FLOAT64 | be;
        case AV_CODEC_ID_PCM_U8:
            return AUDIO_CODEC_PCM_U8;
        case AV_CODEC_ID_PCM_S8:
            return AUDIO_CODEC_PCM_S8;
        case AV_CODEC_ID_PCM_MULAW:
            return AUDIO_CODEC_ULAW;
        case AV_CODEC_ID_PCM_ALAW:
            return AUDIO_CODEC_ALAW;
        case AV_CODEC_ID_ADPCM_IMA_WAV:
        case AV_CODEC_ID_ADPCM_IMA_QT:
        case AV_CODEC_ID_ADPCM_IMA_DK3:
        case AV_CODEC_ID_ADPCM_IMA_DK4:
        case AV_CODEC_ID_ADPCM_IMA_WS:
        case AV_CODEC_ID_ADPCM_IMA_SMJPEG:
        case AV_CODEC_ID_ADPCM_IMA_AMV:
        case AV_CODEC_ID_ADPCM_IMA_APC:
        case AV_CODEC_ID_ADPCM_IMA_OKI:
        case AV_CODEC_ID_ADPCM_IMA_RAD:
        case AV_CODEC_ID_ADPCM_IMA_APM:
        case AV_CODEC_ID_ADPCM_IMA_ALP:
        case AV_CODEC_ID_ADPCM_IMA_SSI:
            return AUDIO_CODEC_IMA_ADPCM;
        case AV_CODEC_ID_ADPCM_MS:
            return AUDIO_CODEC_MS_ADPCM;
        case AV_CODEC_ID_GSM:
        case AV_CODEC_ID_GSM_MS:
            return AUDIO_CODEC_GSM610;
        default:
            return AUDIO_CODEC_NONE;
        }
    }

    // Pooled texts are never freed: bit rates are clamped to a plausible range so that
    // hostile headers cannot grow the pool without bound.
    const char* pooledf(const char* format, long long value)
    {
        value = std::clamp(value, 0LL, 100000LL);
        char text[64];
        std::snprintf(text, sizeof text, format, value);
        return pooled(text);
    }

    // The speaker mask of a layout whose channels come in mask order, 0 when it has none (an
    // unspecified or ambisonic order, speakers beyond the mask's 32 bits, a custom order).
    uint32_t maskOf(const AVChannelLayout& layout)
    {
        uint64_t mask = 0;
        if (layout.order == AV_CHANNEL_ORDER_NATIVE) {
            mask = layout.u.mask;
        } else if (layout.order == AV_CHANNEL_ORDER_CUSTOM) {
            for (int i = 0; i < layout.nb_channels; ++i) {
                const int id = layout.u.map[i].id;
                if (id < 0 || id >= 32 || (mask >> id) != 0)
                    return 0; // unknown speaker, or not ascending
                mask |= uint64_t(1) << id;
            }
        }
        if (mask > UINT32_MAX || av_popcount64(mask) != layout.nb_channels)
            return 0;
        return uint32_t(mask);
    }

    // ---- Reader --------------------------------------------------------------------------------

    class FfmpegReader final : public Reader
    {
    public:
        FfmpegReader(_HFile* io, std::string path)
            : io_(io)
            , path_(std::move(path))
        {
        }

        ~FfmpegReader() override
        {
            swr_free(&swr_);
            av_frame_free(&frame_);
            av_packet_free(&packet_);
            avcodec_free_context(&dec_);
            avformat_close_input(&fmt_);
            freeIo(avio_);
            av_channel_layout_uninit(&swrInLayout_);
            av_channel_layout_uninit(&outLayout_);
            if (allocationNeed_ > 0)
                AllocationCeiling::remove(allocationNeed_);
        }

        bool open(const FormatRequest& request);

        const StreamInfo& info() const override { return info_; }
        int64_t read(float* dst, int64_t frames) override;
        bool seek(int64_t frame) override;
        const DamageInfo* damage() const override { return &damage_; }

    private:
        enum class Step { Frame, End, Error };
        enum class Landing { Reached, Lost, Error };

        bool fail(int32_t code, const std::string& reason)
        {
            setError(code, "cannot read '%s': %s", path_.c_str(), reason.c_str());
            return false;
        }
        Step decodeFrame();
        bool convert(const AVFrame* frame);
        // Frame index of a decoded frame from its timestamp; -1 when it has none.
        int64_t framePosition(const AVFrame* frame) const;
        Landing discardTo(int64_t target);
        bool openDecoder();
        int seekToStart();
        // Counts a damaged stretch starting at output frame `at` (once, however often a seek
        // decodes it again), with `lost` frames missing from the output.
        void noteDamage(int64_t at, int64_t lost);
        // At the end of the stream: a stretch still open, or fewer frames than the container
        // states, is a cut-off end.
        void noteEnd();
        // Whether an Ogg file ends in a whole end-of-stream page (a cut leaves a partial one).
        bool oggEndsWhole();

        _HFile* io_;
        std::string path_;
        AVIOContext* avio_ = nullptr;
        AVFormatContext* fmt_ = nullptr;
        const AVCodec* codec_ = nullptr;
        AVCodecContext* dec_ = nullptr;
        SwrContext* swr_ = nullptr;
        AVChannelLayout swrInLayout_ {};
        AVSampleFormat swrInFormat_ = AV_SAMPLE_FMT_NONE;
        int swrInRate_ = 0;
        AVChannelLayout outLayout_ {};
        AVPacket* packet_ = nullptr;
        AVFrame* frame_ = nullptr;
        AVStream* stream_ = nullptr;
        Deadline deadline_;
        int64_t allocationNeed_ = 0; // this reader's share of the allocation ceiling, once open
        StreamInfo info_;
        int channels_ = 0;
        std::vector<float> carry_; // converted samples of the last decoded frame
        size_t carryPos_ = 0; // frames of carry_ already delivered
        int64_t carryStart_ = -1; // frame index of carry_[0], -1 unknown
        bool draining_ = false;
        bool ended_ = false;
        int errors_ = 0;
        std::string pendingError_; // a demuxer failure reported once the decoder is drained
        int32_t pendingCode_ = 0;
        int64_t preroll_ = 0;
        bool elementary_ = false; // no container: lengths are guesses, seeks land by guess too
        DamageInfo damage_;
        bool damaged_ = false; // an error met since the last good frame
        int64_t lostPending_ = 0; // frames of the packets that failed since then
        int64_t stampEnd_ = -1; // where the last good frame ended by its timestamp
        int goodFrames_ = 0; // good frames since the decoder (re)started
        int64_t countedTo_ = 0; // damage before this output frame is already counted
        int demuxErrors_ = 0;
        int oggWhole_ = -1; // -1 not looked at yet
        int64_t gapSlack_ = 1; // timestamp jumps up to this are no gap (Ogg Vorbis estimates)
        int64_t lostFrames_ = 0; // frames counted lost so far
        int64_t statedFrames_ = -1; // the length the container or a Xing header states
    };

    // ID3v2, ID3v1 and APE tags, which a concatenation leaves between frames.
    bool isTag(const uint8_t* data, int size)
    {
        return data && size >= 3
            && (!std::memcmp(data, "ID3", 3) || !std::memcmp(data, "TAG", 3)
                || (size >= 8 && !std::memcmp(data, "APETAGEX", 8)));
    }

    // Demuxers of bare elementary streams: no index and no stated length.
    bool isElementary(const char* demuxer)
    {
        for (const char* name : {"mp3", "aac", "ac3", "eac3", "dts", "dtshd", "mp2", "truehd",
                 "mlp", "amr", "amrnb", "amrwb", "loas", "latm"})
            if (hasName(demuxer, name))
                return true;
        return false;
    }

    bool FfmpegReader::open(const FormatRequest& request)
    {
        (void)request; // the content decides: FFmpeg has no headerless formats we would offer
        allocationNeed_ = AllocationCeiling::needFor(BLIO_IsSeekable(io_) ? BLIO_FileSize(io_) : -1);
        AllocationCeiling::add(allocationNeed_);
        fmt_ = avformat_alloc_context();
        avio_ = makeIo(io_, false);
        packet_ = av_packet_alloc();
        frame_ = av_frame_alloc();
        if (!fmt_ || !avio_ || !packet_ || !frame_)
            return fail(BLERR_NO_MEMORY, "out of memory");
        fmt_->pb = avio_;
        fmt_->flags |= AVFMT_FLAG_CUSTOM_IO;
        fmt_->interrupt_callback = {Deadline::expired, &deadline_};
        deadline_.arm();

        AVDictionary* options = nullptr;
        av_dict_set(&options, "probesize", "5000000", 0);
        av_dict_set(&options, "analyzeduration", "10000000", 0);
        av_dict_set(&options, "formatprobesize", "1048576", 0);
        av_dict_set(&options, "max_streams", "64", 0);
        int err = avformat_open_input(&fmt_, path_.c_str(), nullptr, &options);
        av_dict_free(&options);
        if (err < 0) {
            // avformat_open_input frees the context on failure, but not our custom I/O.
            fmt_ = nullptr;
            return fail(AUDIOERR_UNRECOGNISED, avError(err));
        }
        if ((err = avformat_find_stream_info(fmt_, nullptr)) < 0)
            return fail(AUDIOERR_CORRUPT, avError(err));

        const AVCodec* codec = nullptr;
        const int index = av_find_best_stream(fmt_, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
        if (index == AVERROR_STREAM_NOT_FOUND)
            return fail(AUDIOERR_UNRECOGNISED, "no audio stream");
        if (index < 0 || !codec)
            return fail(AUDIOERR_UNSUPPORTED, "no decoder for the audio stream");
        stream_ = fmt_->streams[index];
        for (unsigned i = 0; i < fmt_->nb_streams; ++i)
            if (int(i) != index)
                fmt_->streams[i]->discard = AVDISCARD_ALL;

        const AVCodecParameters* par = stream_->codecpar;
        channels_ = par->ch_layout.nb_channels;
        if (channels_ < 1 || par->sample_rate < 1)
            return fail(AUDIOERR_CORRUPT, "no channel count or sample rate");
        if (channels_ > 8)
            return fail(
                AUDIOERR_UNSUPPORTED, "unsupported channel count " + std::to_string(channels_));
        if (par->sample_rate < 10 || par->sample_rate > 500000)
            return fail(AUDIOERR_UNSUPPORTED,
                "unsupported sample rate " + std::to_string(par->sample_rate));

        // FFmpeg decodes Opus at 48 kHz only; libsndfile at the rate the header names, when
        // Opus has it: a file made at 8 to 24 kHz is left to libsndfile to keep its rate.
        if (par->codec_id == AV_CODEC_ID_OPUS && par->extradata && par->extradata_size >= 16) {
            const uint8_t* head = par->extradata + 12;
            const uint32_t rate = head[0] | head[1] << 8 | head[2] << 16 | uint32_t(head[3]) << 24;
            if (rate == 8000 || rate == 12000 || rate == 16000 || rate == 24000)
                return fail(AUDIOERR_UNSUPPORTED, "Opus at " + std::to_string(rate) + " Hz");
        }
        codec_ = codec;
        if (!openDecoder())
            return false;
        // Channels go out in the stream's own order: only a frame of another channel count is
        // remixed, to this layout.
        if (av_channel_layout_copy(&outLayout_, &par->ch_layout) < 0
            || outLayout_.order == AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_default(&outLayout_, channels_);

        _audio_format& f = info_.format;
        f.sampleRate = par->sample_rate;
        f.numChannels = int16_t(channels_);
        f.container = containerOf(fmt_->iformat->name, par->codec_id);
        f.coder = coderOf(par);
        if (isLossyCoder(f.coder))
            f.bitsPerSample = 16;
        else if (par->bits_per_raw_sample > 0 && par->bits_per_raw_sample <= 64)
            f.bitsPerSample = int16_t(par->bits_per_raw_sample);
        else if (dec_->bits_per_raw_sample > 0 && dec_->bits_per_raw_sample <= 64)
            f.bitsPerSample = int16_t(dec_->bits_per_raw_sample);
        else if (par->format >= 0)
            f.bitsPerSample = int16_t(8 * av_get_bytes_per_sample(AVSampleFormat(par->format)));
        else
            f.bitsPerSample = int16_t(coderBits(f.coder));
        f.mimeType = containerMimeType(f.container);
        if (par->bit_rate > 0) {
            f.codecInfo = pooledf("bitrate=%lld", (long long)(par->bit_rate / 1000));
            info_.bitRate = par->bit_rate;
        } else if (fmt_->bit_rate > 0) {
            f.codecInfo = pooledf("use_vbr=1,avg_bitrate=%lld", (long long)(fmt_->bit_rate / 1000));
            info_.bitRate = fmt_->bit_rate;
        }
        AUDIO_SetFormatChannelMask(&f, maskOf(par->ch_layout));
        if (stream_->duration != AV_NOPTS_VALUE && stream_->duration > 0)
            info_.frames = av_rescale_q(stream_->duration, stream_->time_base, {1, f.sampleRate});
        else if (fmt_->duration != AV_NOPTS_VALUE && fmt_->duration > 0)
            info_.frames = av_rescale_q(fmt_->duration, AV_TIME_BASE_Q, {1, f.sampleRate});
        // A bare MP3, ADTS or AC-3 stream states no length: FFmpeg's figure comes from a first
        // header (a Xing count that a concatenated file outgrows) or from the bit rate.
        elementary_ = isElementary(fmt_->iformat->name);
        // Ogg Vorbis packets get timestamps from their page's granule and estimated block
        // sizes: a jump of up to a long block is no loss there.
        gapSlack_ = par->codec_id == AV_CODEC_ID_VORBIS ? 4096 : 1;
        // A stated count that reading falls short of is a cut; a count from the bit rate
        // says nothing.
        statedFrames_
            = info_.frames > 0 && fmt_->duration_estimation_method != AVFMT_DURATION_FROM_BITRATE
            ? info_.frames
            : -1;
        info_.framesExact = info_.frames >= 0 && !elementary_
            && fmt_->duration_estimation_method != AVFMT_DURATION_FROM_BITRATE;
        info_.seekable = BLIO_IsSeekable(io_) != 0;
        preroll_ = std::max<int64_t>(par->seek_preroll, isLossyCoder(f.coder) ? kLossyPreroll : 0);
        carryStart_ = 0;
        return true;
    }

    bool FfmpegReader::openDecoder()
    {
        avcodec_free_context(&dec_);
        dec_ = avcodec_alloc_context3(codec_);
        if (!dec_)
            return fail(BLERR_NO_MEMORY, "out of memory");
        int err = avcodec_parameters_to_context(dec_, stream_->codecpar);
        if (err < 0)
            return fail(AUDIOERR_CORRUPT, avError(err));
        dec_->pkt_timebase = stream_->time_base;
        if ((err = avcodec_open2(dec_, codec_, nullptr)) < 0)
            return fail(AUDIOERR_UNSUPPORTED, avError(err));
        return true;
    }

    bool FfmpegReader::convert(const AVFrame* frame)
    {
        if (frame->nb_samples <= 0 || frame->nb_samples > kMaxFrameSamples)
            return fail(AUDIOERR_DECODE, "implausible frame");
        const AVSampleFormat format = AVSampleFormat(frame->format);
        const int rate = frame->sample_rate > 0 ? frame->sample_rate : info_.format.sampleRate;
        if (!swr_ || format != swrInFormat_ || rate != swrInRate_
            || av_channel_layout_compare(&frame->ch_layout, &swrInLayout_) != 0) {
            // A stream may change its layout or rate between frames: follow it.
            swr_free(&swr_);
            av_channel_layout_uninit(&swrInLayout_);
            if (frame->ch_layout.nb_channels < 1 || frame->ch_layout.nb_channels > 64)
                return fail(AUDIOERR_DECODE, "implausible channel layout");
            av_channel_layout_copy(&swrInLayout_, &frame->ch_layout);
            swrInFormat_ = format;
            swrInRate_ = rate;
            AVChannelLayout* out
                = swrInLayout_.nb_channels == channels_ ? &swrInLayout_ : &outLayout_;
            int err = swr_alloc_set_opts2(&swr_, out, AV_SAMPLE_FMT_FLT,
                info_.format.sampleRate, &swrInLayout_, format, rate, 0, nullptr);
            if (err >= 0)
                err = swr_init(swr_);
            if (err < 0) {
                swr_free(&swr_);
                return fail(AUDIOERR_DECODE, avError(err));
            }
        }
        const int capacity = swr_get_out_samples(swr_, frame->nb_samples);
        if (capacity < 0 || capacity > 2 * kMaxFrameSamples)
            return fail(AUDIOERR_DECODE, "implausible frame");
        carry_.resize(size_t(capacity) * channels_);
        auto* out = reinterpret_cast<uint8_t*>(carry_.data());
        const int got = swr_convert(swr_, &out, capacity,
            const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
        if (got < 0)
            return fail(AUDIOERR_DECODE, avError(got));
        carry_.resize(size_t(got) * channels_);
        carryPos_ = 0;
        return true;
    }

    int64_t FfmpegReader::framePosition(const AVFrame* frame) const
    {
        int64_t ts = frame->best_effort_timestamp;
        if (ts == AV_NOPTS_VALUE)
            ts = frame->pts;
        if (ts == AV_NOPTS_VALUE)
            return -1;
        if (stream_->start_time != AV_NOPTS_VALUE)
            ts -= stream_->start_time;
        return av_rescale_q(ts, stream_->time_base, {1, info_.format.sampleRate});
    }

    FfmpegReader::Step FfmpegReader::decodeFrame()
    {
        for (;;) {
            int err = avcodec_receive_frame(dec_, frame_);
            if (err == 0) {
                errors_ = 0;
                // Positions come from counting samples; a timestamp is only believed for the
                // first frame after a seek, where the count restarts.
                const int64_t at = framePosition(frame_);
                const int64_t previousEnd
                    = carryStart_ >= 0 ? carryStart_ + int64_t(carry_.size() / channels_) : -1;
                // Timestamps tell what a resynchronising demuxer or decoder left out. The first
                // frames after a start carry trimmed encoder delays: no gap is read there.
                const int64_t gap
                    = at >= 0 && stampEnd_ >= 0 && goodFrames_ >= 2 ? at - stampEnd_ : 0;
                const int64_t slack = std::max<int64_t>(gapSlack_, info_.format.sampleRate / 500);
                if ((frame_->flags & AV_FRAME_FLAG_CORRUPT) || frame_->decode_error_flags)
                    damaged_ = true;
                if (damaged_ || gap > slack)
                    noteDamage(previousEnd >= 0 ? previousEnd : at,
                        std::max(gap > slack ? gap : 0, lostPending_));
                damaged_ = false;
                lostPending_ = 0;
                ++goodFrames_;
                stampEnd_ = at >= 0 ? at + frame_->nb_samples : -1;
                const bool ok = convert(frame_);
                av_frame_unref(frame_);
                if (!ok)
                    return Step::Error;
                carryStart_ = previousEnd >= 0 ? previousEnd : at;
                if (carryStart_ >= 0)
                    countedTo_
                        = std::max(countedTo_, carryStart_ + int64_t(carry_.size() / channels_));
                if (!carry_.empty())
                    return Step::Frame;
                continue;
            }
            if (err == AVERROR_EOF) {
                ended_ = true;
                noteEnd();
                if (!pendingError_.empty()) {
                    setError(pendingCode_, "%s", pendingError_.c_str());
                    return Step::Error;
                }
                return Step::End;
            }
            if (err != AVERROR(EAGAIN)) {
                damaged_ = true;
                if (++errors_ > kMaxConsecutiveErrors)
                    return fail(AUDIOERR_DECODE, avError(err)), Step::Error;
                continue;
            }
            if (draining_) {
                // EAGAIN while draining: the decoder has nothing more.
                ended_ = true;
                noteEnd();
                return Step::End;
            }
            err = av_read_frame(fmt_, packet_);
            if (err < 0) {
                if (err == AVERROR_EXIT)
                    return fail(AUDIOERR_DECODE, "timed out"), Step::Error;
                if (err != AVERROR_EOF) {
                    // Damage: demuxers resynchronise on the next call, as far as they can. At
                    // the end of the file, or when they cannot, the rest is cut off.
                    damaged_ = true;
                    if (!avio_feof(fmt_->pb) && ++demuxErrors_ <= kMaxConsecutiveErrors)
                        continue;
                    damage_.truncated = true;
                }
                draining_ = true;
                avcodec_send_packet(dec_, nullptr);
                continue;
            }
            demuxErrors_ = 0;
            if (packet_->stream_index != stream_->index) {
                av_packet_unref(packet_);
                continue;
            }
            if (packet_->flags & AV_PKT_FLAG_CORRUPT)
                damaged_ = true;
            const int64_t duration = packet_->duration > 0
                ? av_rescale_q(packet_->duration, stream_->time_base, {1, info_.format.sampleRate})
                : 0;
            // Concatenated MP3 and ADTS files carry their tags along: metadata, not damage.
            const bool tag = isTag(packet_->data, packet_->size);
            // FFmpeg's FLAC decoder does not check the CRC-16 that ends every frame, and
            // decodes a damaged one into wrong samples without a word: check it here.
            if (stream_->codecpar->codec_id == AV_CODEC_ID_FLAC && packet_->size > 2
                && av_crc(av_crc_get_table(AV_CRC_16_ANSI), 0, packet_->data, size_t(packet_->size))
                    != 0) {
                damaged_ = true;
                lostPending_ += duration;
            }
            err = avcodec_send_packet(dec_, packet_);
            av_packet_unref(packet_);
            if (err < 0 && err != AVERROR(EAGAIN) && tag) {
                if (stampEnd_ >= 0)
                    stampEnd_ += duration;
            } else if (err < 0 && err != AVERROR(EAGAIN)) {
                // The decoder dropped the packet: what it held is lost.
                damaged_ = true;
                lostPending_ += std::max<int64_t>(duration, 0);
                if (++errors_ > kMaxConsecutiveErrors)
                    return fail(AUDIOERR_DECODE, avError(err)), Step::Error;
            }
        }
    }

    void FfmpegReader::noteDamage(int64_t at, int64_t lost)
    {
        if (at >= 0 && at < countedTo_)
            return;
        const double rate = info_.format.sampleRate;
        ++damage_.stretches;
        if (damage_.firstSeconds < 0.0)
            damage_.firstSeconds = std::max<int64_t>(at, 0) / rate;
        damage_.secondsLost += std::max<int64_t>(lost, 0) / rate;
        lostFrames_ += std::max<int64_t>(lost, 0);
        countedTo_ = std::max(countedTo_, at + 1);
    }

    void FfmpegReader::noteEnd()
    {
        const int64_t end
            = carryStart_ >= 0 ? carryStart_ + int64_t(carry_.size() / channels_) : -1;
        if (end < 0)
            return;
        // The container's own count says how much a cut took away. Lossy codecs trim their
        // delays from it by up to a frame or two, so only a clear shortfall counts.
        const int64_t slack = isLossyCoder(info_.format.coder) ? 4096 : 0;
        const int64_t missing = statedFrames_ > 0 ? statedFrames_ - end - lostFrames_ : 0;
        if (damaged_ || damage_.truncated || missing > slack || !oggEndsWhole()) {
            damage_.truncated = true;
            noteDamage(end, std::max<int64_t>(missing > slack ? missing : 0, lostPending_));
        }
        damaged_ = false;
        lostPending_ = 0;
    }

    bool FfmpegReader::oggEndsWhole()
    {
        const uint32_t container = info_.format.container;
        if (container != AUDIO_CONTAINER_OGG_VORBIS && container != AUDIO_CONTAINER_OGG_OPUS
            && container != AUDIO_CONTAINER_OGG_OTHER)
            return true;
        const int64_t size = BLIO_FileSize(io_);
        if (oggWhole_ >= 0 || !info_.seekable || size <= 0)
            return oggWhole_ != 0;
        // The last page: "OggS", its header (27 bytes and a lacing table), then its body.
        const int64_t span = std::min<int64_t>(size, 65536 + 27 + 255);
        std::vector<uint8_t> tail(size_t(span), 0);
        // FFmpeg buffers ahead of the handle: the handle goes back to where it was.
        const int64_t saved = BLIO_FilePosition(io_);
        oggWhole_ = 1;
        if (BLIO_Seek(io_, size - span, BLIO_SEEK_SET)
            && BLIO_ReadData(io_, tail.data(), span) == span) {
            oggWhole_ = 0;
            for (int64_t i = span - 27; i >= 0; --i) {
                if (std::memcmp(tail.data() + i, "OggS", 4) != 0)
                    continue;
                const int segments = tail[size_t(i + 26)];
                if (i + 27 + segments > span)
                    continue;
                int64_t body = 0;
                for (int k = 0; k < segments; ++k)
                    body += tail[size_t(i + 27 + k)];
                oggWhole_ = (tail[size_t(i + 5)] & 0x04) && i + 27 + segments + body == span;
                break;
            }
        }
        BLIO_Seek(io_, saved, BLIO_SEEK_SET);
        return oggWhole_ != 0;
    }

    int64_t FfmpegReader::read(float* dst, int64_t frames)
    {
        if (!dst || frames < 0) {
            fail(BLERR_INVALID_ARGUMENT, "invalid buffer");
            return -1;
        }
        deadline_.arm();
        int64_t done = 0;
        while (done < frames) {
            const size_t have = carry_.size() / channels_ - carryPos_;
            if (have > 0) {
                const size_t n = size_t(std::min<int64_t>(int64_t(have), frames - done));
                std::memcpy(dst + done * channels_, carry_.data() + carryPos_ * channels_,
                    n * channels_ * sizeof(float));
                carryPos_ += n;
                done += int64_t(n);
                continue;
            }
            if (ended_)
                break;
            const Step step = decodeFrame();
            if (step == Step::Error) {
                // Hand out what was decoded; the next call reports the error (again).
                ended_ = true;
                pendingCode_ = BLERROR_LastCode();
                pendingError_ = BLERROR_LastMessage();
                if (done == 0)
                    return -1;
                break;
            }
            if (step == Step::End)
                break;
        }
        if (done == 0 && ended_ && !pendingError_.empty()) {
            setError(pendingCode_, "%s", pendingError_.c_str());
            return -1;
        }
        return done;
    }

    FfmpegReader::Landing FfmpegReader::discardTo(int64_t target)
    {
        // Drops everything before target, from the frame in hand on.
        for (;;) {
            if (!carry_.empty()) {
                if (carryStart_ < 0 || carryStart_ > target)
                    return Landing::Lost;
                if (carryStart_ + int64_t(carry_.size() / channels_) > target) {
                    carryPos_ = size_t(target - carryStart_);
                    return Landing::Reached;
                }
            }
            const Step step = decodeFrame();
            if (step == Step::Error)
                return Landing::Error;
            if (step == Step::End) {
                carry_.clear();
                carryPos_ = 0;
                return Landing::Reached; // past the end: reads give 0
            }
        }
    }

    int FfmpegReader::seekToStart()
    {
        // The first indexed packet can lie before the start time (the encoder delay of AAC in
        // MP4): seek there, so that the demuxer skips the delay again.
        int64_t first = stream_->start_time != AV_NOPTS_VALUE ? stream_->start_time : 0;
        if (avformat_index_get_entries_count(stream_) > 0)
            first = std::min(first, avformat_index_get_entry(stream_, 0)->timestamp);
        int err = av_seek_frame(fmt_, stream_->index, first, AVSEEK_FLAG_BACKWARD);
        if (err < 0)
            err = av_seek_frame(fmt_, -1, 0, AVSEEK_FLAG_BYTE);
        return err;
    }

    bool FfmpegReader::seek(int64_t frame)
    {
        if (!info_.seekable)
            return fail(AUDIOERR_UNSUPPORTED, "the source cannot be sought");
        if (frame < 0)
            return fail(BLERR_INVALID_ARGUMENT, "negative frame");
        deadline_.arm();
        const int rate = info_.format.sampleRate;
        // Timestamps in a unit that is no whole fraction of a sample cannot say where a frame
        // starts (Matroska and ASF count milliseconds, raw AC-3 gets 90 kHz ticks rounded per
        // packet): such streams are decoded forward, from the start when going back.
        const bool coarse
            = elementary_ || stream_->time_base.num != 1 || stream_->time_base.den % rate != 0;
        const int64_t here = carryStart_ >= 0 ? carryStart_ + int64_t(carryPos_) : -1;
        if (here >= 0 && frame >= here && (coarse || frame - here <= 2 * int64_t(rate))) {
            const Landing landing = discardTo(frame);
            if (landing == Landing::Reached)
                return true;
            if (landing == Landing::Error)
                return false;
        }
        const int64_t start = stream_->start_time != AV_NOPTS_VALUE ? stream_->start_time : 0;
        const int64_t near = coarse ? 0 : std::max<int64_t>(0, frame - preroll_);
        // Near the target first, decoding the preroll of lossy codecs; when that lands after the
        // target or without timestamps, from the start, counting samples.
        for (int64_t back : {near, int64_t(0)}) {
            int err = 0;
            if (back > 0)
                err = av_seek_frame(fmt_, stream_->index,
                    start + av_rescale_q(back, {1, rate}, stream_->time_base),
                    AVSEEK_FLAG_BACKWARD);
            else
                err = seekToStart();
            if (err < 0) {
                if (back == 0)
                    return fail(AUDIOERR_CORRUPT, avError(err));
                continue;
            }
            // A fresh decoder rather than a flushed one: some keep overlap or noise state across
            // a flush, and reads after a seek must equal reads from the start.
            if (!openDecoder())
                return false;
            swr_free(&swr_);
            carry_.clear();
            carryPos_ = 0;
            carryStart_ = back == 0 ? 0 : -1;
            draining_ = ended_ = false;
            pendingError_.clear();
            errors_ = demuxErrors_ = 0;
            damaged_ = false;
            lostPending_ = 0;
            stampEnd_ = -1;
            goodFrames_ = 0;
            const Landing landing = discardTo(frame);
            if (landing == Landing::Reached)
                return true;
            if (landing == Landing::Error || back == 0)
                break;
        }
        ended_ = true;
        carryStart_ = -1;
        if (BLERROR_LastCode() < AUDIOERR_FIRST)
            fail(AUDIOERR_CORRUPT, "cannot reach frame " + std::to_string(frame));
        return false;
    }

    // ---- Writer --------------------------------------------------------------------------------

    struct Target
    {
        const char* muxer;
        const char* encoders[3]; // preferred first; null-terminated
    };

    // Muxer and encoders of a container/codec pair, null when FFmpeg does not write it.
    const Target* targetOf(uint32_t container, uint32_t coder)
    {
        struct Entry
        {
            uint32_t container, coder;
            Target target;
        };
        static const Entry table[] = {
            {AUDIO_CONTAINER_MP4, AUDIO_CODEC_AAC, {"ipod", {"aac", nullptr}}},
            {AUDIO_CONTAINER_MP4, AUDIO_CODEC_ALAC, {"ipod", {"alac", nullptr}}},
            {AUDIO_CONTAINER_ASF, AUDIO_CODEC_WMA_V2, {"asf", {"wmav2", nullptr}}},
            {AUDIO_CONTAINER_ASF, AUDIO_CODEC_WMA_V1, {"asf", {"wmav1", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_FLAC, {"matroska", {"flac", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_OPUS, {"matroska", {"libopus", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_VORBIS, {"matroska", {"libvorbis", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_AAC, {"matroska", {"aac", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_AC3, {"matroska", {"ac3", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_MPEG_L2, {"matroska", {"mp2", nullptr}}},
            {AUDIO_CONTAINER_MKV, AUDIO_CODEC_MPEG_L3, {"matroska", {"libmp3lame", nullptr}}},
            {AUDIO_CONTAINER_AC3, AUDIO_CODEC_AC3, {"ac3", {"ac3", nullptr}}},
            {AUDIO_CONTAINER_AC3, AUDIO_CODEC_EAC3, {"eac3", {"eac3", nullptr}}},
            {AUDIO_CONTAINER_AMR, AUDIO_CODEC_AMR_NB, {"amr", {"libopencore_amrnb", nullptr}}},
            {AUDIO_CONTAINER_AMR, AUDIO_CODEC_AMR_WB, {"amr", {"libvo_amrwbenc", nullptr}}},
            {AUDIO_CONTAINER_WAVPACK, AUDIO_CODEC_WAVPACK, {"wv", {"wavpack", nullptr}}},
            {AUDIO_CONTAINER_TTA, AUDIO_CODEC_TTA, {"tta", {"tta", nullptr}}},
            {AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC, {"flac", {"flac", nullptr}}},
            {AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L2, {"mp2", {"mp2", "libtwolame", nullptr}}},
            {AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L3, {"mp3", {"libmp3lame", nullptr}}},
        };
        if (coder == 0)
            coder = defaultCoder(container);
        coder &= AUDIO_CODEC_MASK;
        for (const Entry& e : table)
            if (e.container == container && e.coder == coder)
                return &e.target;
        return nullptr;
    }

    const AVCodec* encoderOf(const Target& target)
    {
        for (const char* const* name = target.encoders; *name; ++name)
            if (const AVCodec* codec = avcodec_find_encoder_by_name(*name))
                return codec;
        return nullptr;
    }

    // Default bit rate per channel of a lossy encoder, bit/s.
    int64_t defaultRatePerChannel(uint32_t coder)
    {
        switch (coder & AUDIO_CODEC_MASK) {
        case AUDIO_CODEC_AC3:
        case AUDIO_CODEC_EAC3:
        case AUDIO_CODEC_MPEG_L2:
            return 96000;
        case AUDIO_CODEC_AMR_NB:
            return 12200;
        case AUDIO_CODEC_AMR_WB:
            return 23850;
        default:
            return 64000;
        }
    }

    // The layout an encoder stores for `wanted` (channels in mask order): wanted itself when it
    // can, else the one of the same count sharing the most speakers; 0 when it has none.
    uint32_t storedLayout(const AVCodec* codec, uint32_t coder, uint32_t wanted, int channels)
    {
        std::vector<uint32_t> masks;
        if (codec->ch_layouts) {
            for (const AVChannelLayout* l = codec->ch_layouts; l->nb_channels; ++l)
                masks.push_back(maskOf(*l));
        } else {
            switch (coder & AUDIO_CODEC_MASK) {
            case AUDIO_CODEC_FLAC:
            case AUDIO_CODEC_WAVPACK:
                return wanted; // both store any speaker mask
            case AUDIO_CODEC_AAC:
                // The channel configurations of MPEG-4 audio; other counts go in a program
                // config element, which decoders read back as no known layout.
                masks = {0x4, 0x3, 0x7, 0x107, 0x37, 0x3f, 0xff};
                if (channels == 7)
                    return wanted;
                break;
            default:
                // Vorbis and Opus (mapping family 1) order channels by count alone, as do the
                // mono and stereo codecs.
                masks = {AUDIO_DefaultChannelMask(channels)};
                break;
            }
        }
        uint32_t best = 0;
        int shared = -1;
        for (uint32_t m : masks) {
            if (m == wanted)
                return wanted;
            if (av_popcount(m) == channels && av_popcount(m & wanted) > shared) {
                best = m;
                shared = av_popcount(m & wanted);
            }
        }
        return best;
    }

    class FfmpegWriter final : public Writer
    {
    public:
        FfmpegWriter(_HFile* io, std::string path)
            : io_(io)
            , path_(std::move(path))
        {
        }

        ~FfmpegWriter() override
        {
            swr_free(&swrFloat_);
            swr_free(&swr16_);
            if (fifo_)
                av_audio_fifo_free(fifo_);
            av_frame_free(&frame_);
            av_packet_free(&packet_);
            avcodec_free_context(&enc_);
            avformat_free_context(oc_);
            freeIo(avio_);
            av_channel_layout_uninit(&layout_);
        }

        bool open(const FormatRequest& request, const _audio_format& fmt, const char* metadata);

        int64_t write(const float* src, int64_t frames) override
        {
            return put(src, frames, AV_SAMPLE_FMT_FLT, swrFloat_);
        }
        int64_t write16(const int16_t* src, int64_t frames) override
        {
            return put(src, frames, AV_SAMPLE_FMT_S16, swr16_);
        }
        bool finish() override;
        const _audio_format& format() const override { return format_; }

    private:
        bool fail(int32_t code, const std::string& reason)
        {
            setError(code, "cannot write '%s': %s", path_.c_str(), reason.c_str());
            return false;
        }
        int64_t put(const void* src, int64_t frames, AVSampleFormat inFormat, SwrContext*& swr);
        bool makeSwr(AVSampleFormat inFormat, SwrContext*& swr);
        // Converts (src null: flushes) into the FIFO.
        bool toFifo(SwrContext* swr, const uint8_t* src, int frames);
        // Encodes whole frames from the FIFO; all of it (padding the last) when final.
        bool encodeFifo(bool final);
        bool sendFrame(const AVFrame* frame);

        _HFile* io_;
        std::string path_;
        AVIOContext* avio_ = nullptr;
        AVFormatContext* oc_ = nullptr;
        AVCodecContext* enc_ = nullptr;
        AVStream* stream_ = nullptr;
        SwrContext* swrFloat_ = nullptr;
        SwrContext* swr16_ = nullptr;
        AVAudioFifo* fifo_ = nullptr;
        AVFrame* frame_ = nullptr;
        AVPacket* packet_ = nullptr;
        AVChannelLayout layout_ {};
        int inRate_ = 0;
        int channels_ = 0;
        int frameSize_ = 0;
        int64_t nextPts_ = 0;
        bool failed_ = false;
        std::vector<uint8_t> scratch_;
        _audio_format format_ {};
    };

    bool FfmpegWriter::open(const FormatRequest& request, const _audio_format& fmt, const char* metadata)
    {
        const uint32_t container = fmt.container ? fmt.container : request.container;
        uint32_t coder = fmt.coder ? fmt.coder : request.coder;
        if (coder == 0)
            coder = defaultCoder(container);
        const Target* target = targetOf(container, coder);
        const AVCodec* codec = target ? encoderOf(*target) : nullptr;
        // A flavour of the container (WebM) has a muxer of its own that writes its doctype.
        const char* muxerName = !request.flavour.empty() ? request.flavour.c_str()
            : target                                     ? target->muxer
                                                         : nullptr;
        const AVOutputFormat* muxer
            = muxerName ? av_guess_format(muxerName, nullptr, nullptr) : nullptr;
        if (!codec || !muxer)
            return fail(AUDIOERR_UNSUPPORTED, "no encoder for this container and codec");
        channels_ = fmt.numChannels;
        inRate_ = fmt.sampleRate;
        if (channels_ < 1 || channels_ > 8 || inRate_ < 10 || inRate_ > 500000)
            return fail(AUDIOERR_INVALID_FORMAT, "invalid rate or channel count");
        const bool lossy = isLossyCoder(coder);

        int err = avformat_alloc_output_context2(&oc_, muxer, nullptr, nullptr);
        if (err < 0 || !oc_)
            return fail(AUDIOERR_ENCODE, avError(err));
        avio_ = makeIo(io_, true);
        enc_ = avcodec_alloc_context3(codec);
        frame_ = av_frame_alloc();
        packet_ = av_packet_alloc();
        if (!avio_ || !enc_ || !frame_ || !packet_)
            return fail(BLERR_NO_MEMORY, "out of memory");
        oc_->pb = avio_;
        oc_->flags |= AVFMT_FLAG_CUSTOM_IO;

        // The samples come in the format's layout; an encoder that cannot store it gets them
        // remixed to its nearest layout of the same count (5.1 with side surrounds into 5.1).
        // Channels of no stated layout are taken to be in the encoder's own layout of the count.
        uint32_t given = AUDIO_FormatChannelMask(&fmt);
        if (given == 0)
            given = storedLayout(codec, coder, AUDIO_DefaultChannelMask(channels_), channels_);
        if (given == 0)
            given = AUDIO_DefaultChannelMask(channels_);
        const uint32_t stored = storedLayout(codec, coder, given, channels_);
        if (stored == 0)
            return fail(AUDIOERR_UNSUPPORTED,
                std::string(AUDIODEF_AudioFormatString(coder) ? AUDIODEF_AudioFormatString(coder)
                                                              : "this codec")
                    + " cannot store " + std::to_string(channels_) + " channels ("
                    + AUDIO_ChannelLayoutName(given, channels_) + ")");
        av_channel_layout_uninit(&layout_);
        AVChannelLayout storedAv {};
        if ((err = av_channel_layout_from_mask(&layout_, given)) < 0
            || (err = av_channel_layout_from_mask(&storedAv, stored)) < 0
            || (err = av_channel_layout_copy(&enc_->ch_layout, &storedAv)) < 0)
            return fail(AUDIOERR_ENCODE, avError(err));

        // Rate: as given when the encoder takes it; lossy encoders with a fixed list get the
        // nearest rate at or above it (Opus: 48 kHz), lossless ones refuse.
        int rate = inRate_;
        if (codec->supported_samplerates) {
            int above = 0, highest = 0;
            bool exact = false;
            for (const int* r = codec->supported_samplerates; *r; ++r) {
                exact = exact || *r == rate;
                highest = std::max(highest, *r);
                if (*r > rate && (above == 0 || *r < above))
                    above = *r;
            }
            const int best = above ? above : highest;
            if (!exact) {
                if (!lossy || best == 0)
                    return fail(AUDIOERR_UNSUPPORTED,
                        "sample rate " + std::to_string(rate) + " not supported");
                rate = best;
            }
        }
        enc_->sample_rate = rate;
        enc_->time_base = {1, rate};

        // Sample format: the stored resolution for lossless codecs, else the encoder's first.
        const int bits = fmt.bitsPerSample > 0 ? fmt.bitsPerSample : 16;
        AVSampleFormat sampleFormat = AV_SAMPLE_FMT_NONE;
        if (codec->sample_fmts) {
            sampleFormat = codec->sample_fmts[0];
            if (!lossy) {
                auto packed = [](AVSampleFormat f) { return av_get_packed_sample_fmt(f); };
                const AVSampleFormat want = bits <= 16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S32;
                for (const AVSampleFormat* f = codec->sample_fmts; *f != AV_SAMPLE_FMT_NONE; ++f)
                    if (packed(*f) == want) {
                        sampleFormat = *f;
                        break;
                    }
            }
        }
        if (sampleFormat == AV_SAMPLE_FMT_NONE)
            return fail(AUDIOERR_ENCODE, "encoder offers no sample format");
        enc_->sample_fmt = sampleFormat;
        int storedBits = 16;
        if (!lossy) {
            storedBits = std::min(8 * av_get_bytes_per_sample(sampleFormat), bits <= 16 ? 16 : 24);
            if (av_get_packed_sample_fmt(sampleFormat) == AV_SAMPLE_FMT_FLT)
                storedBits = 32;
            enc_->bits_per_raw_sample = storedBits;
        }

        if (lossy) {
            const int64_t kbps = request.kbps > 0 ? request.kbps : 0;
            enc_->bit_rate = kbps > 0 ? kbps * 1000 : defaultRatePerChannel(coder) * channels_;
            if ((coder & AUDIO_CODEC_MASK) == AUDIO_CODEC_VORBIS && request.quality >= 0) {
                enc_->flags |= AV_CODEC_FLAG_QSCALE;
                enc_->global_quality = request.quality * FF_QP2LAMBDA;
                enc_->bit_rate = 0;
            }
        } else if (request.quality >= 0) {
            enc_->compression_level = request.quality;
        }
        if (muxer->flags & AVFMT_GLOBALHEADER)
            enc_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if ((err = avcodec_open2(enc_, codec, nullptr)) < 0)
            return fail(AUDIOERR_UNSUPPORTED, avError(err));

        stream_ = avformat_new_stream(oc_, nullptr);
        if (!stream_)
            return fail(BLERR_NO_MEMORY, "out of memory");
        stream_->time_base = enc_->time_base;
        if ((err = avcodec_parameters_from_context(stream_->codecpar, enc_)) < 0)
            return fail(AUDIOERR_ENCODE, avError(err));

        if (metadata && *metadata) {
            for (const char* key : {"title", "artist", "album", "comment", "date"}) {
                const int32_t len = BLSTRING_GetStringLengthFromString(metadata, key);
                if (len <= 0 || len > (1 << 20))
                    continue;
                std::vector<char> value(size_t(len) + 1);
                if (BLSTRING_GetStringValueFromString(metadata, key, nullptr, value.data(), len))
                    av_dict_set(&oc_->metadata, key, value.data(), 0);
            }
        }

        AVDictionary* options = nullptr;
        if (!BLIO_IsSeekable(io_) && std::strcmp(target->muxer, "ipod") == 0)
            av_dict_set(&options, "movflags", "frag_keyframe+empty_moov", 0);
        err = avformat_write_header(oc_, &options);
        av_dict_free(&options);
        if (err < 0)
            return fail(AUDIOERR_ENCODE, avError(err));

        const bool variable = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
        frameSize_ = enc_->frame_size > 0 && !variable ? enc_->frame_size : kWriteChunk;
        fifo_ = av_audio_fifo_alloc(enc_->sample_fmt, channels_, frameSize_ * 2);
        if (!fifo_)
            return fail(BLERR_NO_MEMORY, "out of memory");
        if (codec->id == AV_CODEC_ID_WMAV1 || codec->id == AV_CODEC_ID_WMAV2) {
            // The WMA decoder gives out nothing for the first frame it gets, and this encoder
            // does not account for that: a frame of silence ahead keeps the first samples.
            std::vector<uint8_t> silence;
            uint8_t* planes[8] = {};
            int lineSize = 0;
            const int size
                = av_samples_get_buffer_size(&lineSize, channels_, frameSize_, enc_->sample_fmt, 1);
            silence.resize(size_t(std::max(size, 0)));
            av_samples_fill_arrays(
                planes, &lineSize, silence.data(), channels_, frameSize_, enc_->sample_fmt, 1);
            av_samples_set_silence(planes, 0, frameSize_, channels_, enc_->sample_fmt);
            if (av_audio_fifo_write(fifo_, reinterpret_cast<void**>(planes), frameSize_)
                < frameSize_)
                return fail(BLERR_NO_MEMORY, "out of memory");
        }

        format_.sampleRate = rate;
        format_.numChannels = int16_t(channels_);
        format_.bitsPerSample = int16_t(lossy ? coderBits(coder) : storedBits);
        format_.container = container;
        format_.coder = coder & AUDIO_CODEC_MASK;
        format_.mimeType = containerMimeType(container);
        if (enc_->bit_rate > 0)
            format_.codecInfo = pooledf("bitrate=%lld", (long long)(enc_->bit_rate / 1000));
        AUDIO_SetFormatChannelMask(&format_, stored);
        return true;
    }

    bool FfmpegWriter::makeSwr(AVSampleFormat inFormat, SwrContext*& swr)
    {
        if (swr)
            return true;
        int err = swr_alloc_set_opts2(&swr, &enc_->ch_layout, enc_->sample_fmt, enc_->sample_rate,
            &layout_, inFormat, inRate_, 0, nullptr);
        if (err >= 0 && av_channel_layout_compare(&layout_, &enc_->ch_layout) != 0) {
            // The engine's remix, not the resampler's own.
            std::vector<float> gains(size_t(channels_) * size_t(channels_));
            AUDIO_ChannelMixMatrix(maskOf(layout_), channels_, maskOf(enc_->ch_layout), channels_,
                gains.data());
            const std::vector<double> matrix(gains.begin(), gains.end());
            err = swr_set_matrix(swr, matrix.data(), channels_);
        }
        if (err >= 0)
            err = swr_init(swr);
        if (err < 0) {
            swr_free(&swr);
            return fail(AUDIOERR_ENCODE, avError(err));
        }
        return true;
    }

    bool FfmpegWriter::toFifo(SwrContext* swr, const uint8_t* src, int frames)
    {
        const int capacity = swr_get_out_samples(swr, frames);
        if (capacity < 0)
            return fail(AUDIOERR_ENCODE, avError(capacity));
        if (capacity == 0)
            return true;
        uint8_t* planes[8] = {};
        int lineSize = 0;
        const int size
            = av_samples_get_buffer_size(&lineSize, channels_, capacity, enc_->sample_fmt, 1);
        if (size < 0)
            return fail(AUDIOERR_ENCODE, avError(size));
        scratch_.resize(size_t(size));
        av_samples_fill_arrays(
            planes, &lineSize, scratch_.data(), channels_, capacity, enc_->sample_fmt, 1);
        const uint8_t* in[1] = {src};
        const int got = swr_convert(swr, planes, capacity, src ? in : nullptr, src ? frames : 0);
        if (got < 0)
            return fail(AUDIOERR_ENCODE, avError(got));
        if (got > 0 && av_audio_fifo_write(fifo_, reinterpret_cast<void**>(planes), got) < got)
            return fail(BLERR_NO_MEMORY, "out of memory");
        return true;
    }

    bool FfmpegWriter::sendFrame(const AVFrame* frame)
    {
        int err = avcodec_send_frame(enc_, frame);
        if (err < 0)
            return fail(AUDIOERR_ENCODE, avError(err));
        for (;;) {
            err = avcodec_receive_packet(enc_, packet_);
            if (err == AVERROR(EAGAIN) || err == AVERROR_EOF)
                return true;
            if (err < 0)
                return fail(AUDIOERR_ENCODE, avError(err));
            packet_->stream_index = stream_->index;
            av_packet_rescale_ts(packet_, enc_->time_base, stream_->time_base);
            err = av_interleaved_write_frame(oc_, packet_);
            av_packet_unref(packet_);
            if (err < 0)
                return fail(AUDIOERR_ENCODE, avError(err));
        }
    }

    bool FfmpegWriter::encodeFifo(bool final)
    {
        const bool small = (enc_->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) != 0
            || (enc_->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
        while (
            av_audio_fifo_size(fifo_) >= frameSize_ || (final && av_audio_fifo_size(fifo_) > 0)) {
            const int have = std::min(av_audio_fifo_size(fifo_), frameSize_);
            const int samples = have < frameSize_ && !small ? frameSize_ : have;
            av_frame_unref(frame_);
            frame_->nb_samples = samples;
            frame_->format = enc_->sample_fmt;
            frame_->sample_rate = enc_->sample_rate;
            int err = av_channel_layout_copy(&frame_->ch_layout, &enc_->ch_layout);
            if (err >= 0)
                err = av_frame_get_buffer(frame_, 0);
            if (err < 0)
                return fail(BLERR_NO_MEMORY, avError(err));
            if (samples > have)
                av_samples_set_silence(
                    frame_->extended_data, 0, samples, channels_, enc_->sample_fmt);
            if (av_audio_fifo_read(fifo_, reinterpret_cast<void**>(frame_->extended_data), have)
                < have)
                return fail(AUDIOERR_ENCODE, "sample queue failed");
            frame_->pts = nextPts_;
            nextPts_ += samples;
            if (!sendFrame(frame_))
                return false;
        }
        return true;
    }

    int64_t FfmpegWriter::put(
        const void* src, int64_t frames, AVSampleFormat inFormat, SwrContext*& swr)
    {
        if (failed_) {
            fail(AUDIOERR_ENCODE, "an earlier write failed");
            return -1;
        }
        if (!src || frames < 0) {
            fail(BLERR_INVALID_ARGUMENT, "invalid buffer");
            return -1;
        }
        if (!makeSwr(inFormat, swr))
            return failed_ = true, -1;
        const size_t frameBytes = size_t(av_get_bytes_per_sample(inFormat)) * channels_;
        const auto* bytes = static_cast<const uint8_t*>(src);
        for (int64_t done = 0; done < frames;) {
            const int n = int(std::min<int64_t>(kWriteChunk, frames - done));
            if (!toFifo(swr, bytes + size_t(done) * frameBytes, n) || !encodeFifo(false))
                return failed_ = true, -1;
            done += n;
        }
        return frames;
    }

    bool FfmpegWriter::finish()
    {
        if (failed_)
            return fail(AUDIOERR_ENCODE, "an earlier write failed");
        failed_ = true; // once
        // Samples still inside a resampler, then the last partial frame, then the encoder's own.
        for (SwrContext* swr : {swrFloat_, swr16_})
            if (swr && inRate_ != enc_->sample_rate && !toFifo(swr, nullptr, 0))
                return false;
        if (!encodeFifo(true) || !sendFrame(nullptr))
            return false;
        const int err = av_write_trailer(oc_);
        if (err < 0)
            return fail(AUDIOERR_ENCODE, avError(err));
        avio_flush(avio_);
        if (avio_->error < 0)
            return fail(AUDIOERR_ENCODE, avError(avio_->error));
        failed_ = false;
        return true;
    }

} // namespace

std::unique_ptr<Reader> openFfmpegReader(
    _HFile* io, const std::string& path, const FormatRequest& request)
{
    quietLogs();
    if (!io) {
        setError(BLERR_INVALID_ARGUMENT, "cannot read '%s': no file handle", path.c_str());
        return nullptr;
    }
    auto reader = std::make_unique<FfmpegReader>(io, path);
    if (!reader->open(request))
        return nullptr;
    return reader;
}

std::unique_ptr<Writer> openFfmpegWriter(_HFile* io, const std::string& path,
    const FormatRequest& request, const _audio_format& fmt, const char* metadata)
{
    quietLogs();
    if (!io) {
        setError(BLERR_INVALID_ARGUMENT, "cannot write '%s': no file handle", path.c_str());
        return nullptr;
    }
    auto writer = std::make_unique<FfmpegWriter>(io, path);
    if (!writer->open(request, fmt, metadata))
        return nullptr;
    return writer;
}

bool ffmpegWrites(uint32_t container, uint32_t coder)
{
    quietLogs();
    const Target* target = targetOf(container, coder);
    return target && encoderOf(*target) && av_guess_format(target->muxer, nullptr, nullptr);
}

void quietFfmpegLogs()
{
    quietLogs();
}

} // namespace sova::audio
