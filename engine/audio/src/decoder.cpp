// Decoders of elementary streams (ADTS AAC, MPEG audio, native FLAC) through FFmpeg's parsers
// and decoders. Probing reads the stream's own header without FFmpeg, so that it consumes
// nothing: the caller hands the same bytes to the pipe afterwards.
//
// Gapless: MPEG audio gives back what FFmpeg's mp3 reader gives for the same bytes. A first
// frame holding a Xing/Info or VBRI tag is no audio and is dropped; a LAME tag behind Xing/Info
// (written by LAME and by FFmpeg) records the encoder's delay and padding, and the decoded
// samples lose delay + 529 at the start (the encoder's delay plus the decoder's 528 + 1) and,
// when the tag counts the frames, frames * samples per frame - padding + 529 onwards up to the
// counted end. As FFmpeg does, a stream much longer than the tag's byte count (streams joined
// end to end) keeps its end. ADTS AAC carries no gapless information at all: every decoded
// frame is kept, including the encoder's priming samples, as FFmpeg does for a raw .aac.
#include "decoder.h"
#include "backend.h"

#include <sova/blerror.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

using namespace sova::audio;

namespace {

enum class Kind { Aac, Mpeg, Flac };

// What a stream header tells.
struct HeaderInfo
{
    int32_t rate = 0;
    int32_t channels = 0;
    int32_t bits = 16;
    uint32_t coder = 0;
    int64_t used = 0; // bytes of the header structure (first frame, or FLAC metadata)
    int32_t minSamples = 0, maxSamples = 0;
    int32_t minBytes = 0, maxBytes = 0;
};

// ---- Header parsing ---------------------------------------------------------------------

bool parseAdts(const uint8_t* b, int64_t n, HeaderInfo& info)
{
    static const int32_t kRates[13]
        = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    if (n < 7 || b[0] != 0xFF || (b[1] & 0xF6) != 0xF0)
        return false;
    const int rateIndex = (b[2] >> 2) & 0xF;
    const int config = ((b[2] & 1) << 2) | (b[3] >> 6);
    const int headerBytes = (b[1] & 1) ? 7 : 9;
    const int frameBytes = ((b[3] & 3) << 11) | (b[4] << 3) | (b[5] >> 5);
    if (rateIndex > 12 || config == 0 || frameBytes < headerBytes)
        return false;
    info.rate = kRates[rateIndex];
    info.channels = config == 7 ? 8 : config;
    info.coder = AUDIO_CODEC_AAC;
    info.used = frameBytes;
    info.minSamples = info.maxSamples = 1024;
    // A raw data block holds at most 6144 bits per channel; the frame length field has 13 bits.
    info.minBytes = 7;
    info.maxBytes = std::min(8191, 768 * info.channels + 9);
    return true;
}

// Bytes of an MPEG audio frame of the given kbps, or 0 for a bad header.
int32_t mpegFrameBytes(int version, int layer, int kbps, int rate, int padding)
{
    if (rate <= 0)
        return 0;
    const int64_t bps = int64_t(kbps) * 1000;
    if (layer == 1)
        return int32_t((12 * bps / rate + padding) * 4);
    const int64_t factor = (layer == 3 && version != 3) ? 72 : 144;
    return int32_t(factor * bps / rate + padding);
}

// Bytes of an ID3v2 tag at b (10 bytes, a synch-safe size, maybe a footer), 0 for none.
int64_t id3Bytes(const uint8_t* b, int64_t n)
{
    if (n < 10 || std::memcmp(b, "ID3", 3) != 0)
        return 0;
    return 10
        + ((int64_t(b[6] & 0x7F) << 21) | (int64_t(b[7] & 0x7F) << 14) | (int64_t(b[8] & 0x7F) << 7)
            | int64_t(b[9] & 0x7F))
        + ((b[5] & 0x10) ? 10 : 0);
}

bool parseMpeg(const uint8_t* b, int64_t n, HeaderInfo& info)
{
    static const int16_t kKbps[5][14] = {
        {32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448}, // v1 layer I
        {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384}, // v1 layer II
        {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}, // v1 layer III
        {32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256}, // v2 layer I
        {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}, // v2 layers II, III
    };
    static const int32_t kRates[3] = {44100, 48000, 32000};
    const int64_t tag = id3Bytes(b, n);
    if (n - tag < 4)
        return false;
    const uint8_t* h = b + tag;
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0)
        return false;
    const int version = (h[1] >> 3) & 3; // 0: 2.5, 2: 2, 3: 1
    const int layer = 4 - ((h[1] >> 1) & 3); // 1..3, 4 reserved
    const int kbpsIndex = h[2] >> 4;
    const int rateIndex = (h[2] >> 2) & 3;
    if (version == 1 || layer == 4 || kbpsIndex == 0 || kbpsIndex == 15 || rateIndex == 3)
        return false;
    const int table = version == 3 ? layer - 1 : (layer == 1 ? 3 : 4);
    const int rate = kRates[rateIndex] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    info.rate = rate;
    info.channels = (h[3] >> 6) == 3 ? 1 : 2;
    info.coder = AUDIO_CODEC_MPEG_L1 + uint32_t(layer - 1);
    info.used
        = tag + mpegFrameBytes(version, layer, kKbps[table][kbpsIndex - 1], rate, (h[2] >> 1) & 1);
    info.minSamples = 384;
    info.maxSamples = 1152;
    info.minBytes = mpegFrameBytes(version, layer, kKbps[table][0], rate, 0);
    info.maxBytes = mpegFrameBytes(version, layer, kKbps[table][13], rate, 1);
    return true;
}

uint32_t be(const uint8_t* p, int bytes)
{
    uint32_t v = 0;
    for (int i = 0; i < bytes; ++i)
        v = (v << 8) | p[i];
    return v;
}

// What the tag in the first frame of an MPEG layer III stream says.
struct GaplessTag
{
    int64_t frameBytes = 0; // the tag's frame, not audio; 0: no tag, the frame is audio
    int64_t frames = 0; // audio frames behind it, 0 unknown
    int64_t streamBytes = 0; // bytes of the whole stream as written, 0 unknown
    int32_t samplesPerFrame = 0;
    int32_t delay = -1, padding = 0; // -1: no LAME tag
};

// Reads a Xing/Info (with a LAME tag) or VBRI tag from the complete first frame at b.
GaplessTag parseGaplessTag(const uint8_t* b, int64_t n)
{
    GaplessTag tag;
    HeaderInfo info;
    if (!parseMpeg(b, n, info) || info.coder != AUDIO_CODEC_MPEG_L3 || info.used > n)
        return tag;
    const bool mpeg1 = ((b[1] >> 3) & 3) == 3;
    const bool mono = (b[3] >> 6) == 3;
    tag.samplesPerFrame = mpeg1 ? 1152 : 576;
    // The tag follows the side information; frames with a CRC are read as FFmpeg reads them.
    const int64_t at = 4 + (mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17));
    if (at + 8 <= n
        && (std::memcmp(b + at, "Xing", 4) == 0 || std::memcmp(b + at, "Info", 4) == 0)) {
        const uint32_t flags = be(b + at + 4, 4);
        int64_t q = at + 8;
        if ((flags & 1) && q + 4 <= n) {
            tag.frames = be(b + q, 4);
            q += 4;
        }
        if ((flags & 2) && q + 4 <= n) {
            tag.streamBytes = be(b + q, 4);
            q += 4;
        }
        q += (flags & 4) ? 100 : 0;
        q += (flags & 8) ? 4 : 0;
        // A tag counting neither frames nor bytes leaves the frame to the decoder.
        if (tag.frames == 0 && tag.streamBytes == 0)
            return GaplessTag {};
        tag.frameBytes = info.used;
        // The LAME tag: encoder name (9), revision (1), lowpass (1), replay gain (8), flags
        // (1), bit rate (1), then delay and padding as two 12-bit numbers.
        if (q + 24 <= n
            && (std::memcmp(b + q, "LAME", 4) == 0 || std::memcmp(b + q, "Lavf", 4) == 0
                || std::memcmp(b + q, "Lavc", 4) == 0)) {
            const uint32_t v = be(b + q + 21, 3);
            tag.delay = int32_t(v >> 12);
            tag.padding = int32_t(v & 0xFFF);
        }
        return tag;
    }
    // VBRI sits 32 bytes behind the header whatever the mode: version 1, then delay (unused),
    // quality, bytes and frames.
    if (4 + 32 + 18 <= n && std::memcmp(b + 36, "VBRI", 4) == 0 && be(b + 40, 2) == 1) {
        tag.streamBytes = be(b + 46, 4);
        tag.frames = be(b + 50, 4);
        tag.frameBytes = info.used;
    }
    return tag;
}

// "fLaC", then metadata blocks, STREAMINFO first. `used` is the end of the metadata; when the
// block headers run past the bytes given it is where the next unseen header starts.
bool parseFlac(const uint8_t* b, int64_t n, HeaderInfo& info)
{
    if (n < 42 || std::memcmp(b, "fLaC", 4) != 0 || (b[4] & 0x7F) != 0 || be(b + 5, 3) < 34)
        return false;
    const uint8_t* si = b + 8;
    const int32_t minBlock = int32_t(be(si, 2)), maxBlock = int32_t(be(si + 2, 2));
    const int32_t minFrame = int32_t(be(si + 4, 3)), maxFrame = int32_t(be(si + 7, 3));
    info.rate = int32_t(be(si + 10, 3) >> 4);
    info.channels = int32_t((si[12] >> 1) & 7) + 1;
    info.bits = int32_t(((si[12] & 1) << 4) | (si[13] >> 4)) + 1;
    if (info.rate <= 0 || maxBlock < 16 || minBlock > maxBlock)
        return false;
    info.coder = AUDIO_CODEC_FLAC;
    info.minSamples = minBlock;
    info.maxSamples = maxBlock;
    // Unknown frame sizes (0): a frame header alone, or a verbatim frame with its headers.
    info.minBytes = minFrame > 0 ? minFrame : 10;
    info.maxBytes = maxFrame > 0 ? maxFrame : maxBlock * info.channels * ((info.bits + 7) / 8) + 32;
    int64_t at = 4;
    while (at + 4 <= n) {
        const bool last = (b[at] & 0x80) != 0;
        at += 4 + int64_t(be(b + at + 1, 3));
        if (last) {
            info.used = at;
            return true;
        }
    }
    info.used = at;
    return true;
}

bool parseHeader(Kind kind, const uint8_t* b, int64_t n, HeaderInfo& info)
{
    switch (kind) {
    case Kind::Aac:
        return parseAdts(b, n, info);
    case Kind::Mpeg:
        return parseMpeg(b, n, info);
    case Kind::Flac:
        return parseFlac(b, n, info);
    }
    return false;
}

const char* kindName(Kind kind)
{
    return kind == Kind::Aac ? "AAC" : kind == Kind::Mpeg ? "MP3" : "FLAC";
}

// Sample s of a decoded frame as a float (+-1.0).
float sampleAt(const AVFrame* frame, int channel, int index, int channels)
{
    const auto fmt = static_cast<AVSampleFormat>(frame->format);
    const bool planar = av_sample_fmt_is_planar(fmt) != 0;
    const uint8_t* base = frame->extended_data[planar ? channel : 0];
    const int i = planar ? index : index * channels + channel;
    switch (av_get_packed_sample_fmt(fmt)) {
    case AV_SAMPLE_FMT_U8:
        return (float(base[i]) - 128.0f) / 128.0f;
    case AV_SAMPLE_FMT_S16:
        return float(reinterpret_cast<const int16_t*>(base)[i]) / 32768.0f;
    case AV_SAMPLE_FMT_S32:
        return float(double(reinterpret_cast<const int32_t*>(base)[i]) / 2147483648.0);
    case AV_SAMPLE_FMT_FLT:
        return reinterpret_cast<const float*>(base)[i];
    case AV_SAMPLE_FMT_DBL:
        return float(reinterpret_cast<const double*>(base)[i]);
    default:
        return 0.0f;
    }
}

} // namespace

struct _AUDIODECODER
{
    std::atomic<int> holds {1}; // the creator's and each open pipe's
    Kind kind = Kind::Aac;
    // The caller's record, filled by the probe only: it may be gone once that returns.
    _audio_format* target = nullptr;
    _audio_format format {};
    HeaderInfo header;
    bool probed = false;

    AVCodecParserContext* parser = nullptr;
    AVCodecContext* codec = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    std::vector<uint8_t> padded; // input with FFmpeg's padding behind it
    std::vector<float> samples; // one decoded frame, interleaved
    std::vector<uint8_t> head; // stream start gathered before the codec opens
    int64_t skip = 0; // bytes of an ID3v2 tag still to pass over

    // Gapless trimming of MPEG audio (see the top of this file), in decoded samples.
    enum class End { Open, Pending, Trim, Keep };
    struct Held
    {
        int64_t first; // decoded index of the first frame held
        int32_t rate, channels;
        std::vector<float> samples;
    };
    int64_t bytesSeen = 0; // of this stream, tags included
    int64_t decoded = 0; // samples out of the codec so far
    int64_t trimStart = 0; // the first sample kept
    int64_t endFrom = 0, endTo = 0; // [endFrom, endTo) is padding, once End::Trim
    int64_t tagBytes = 0; // the tag's count of stream bytes, 0 unknown
    End end = End::Open; // Pending: held back until the stream's length tells
    std::vector<Held> held;

    ~_AUDIODECODER() { close(); }

    void close()
    {
        av_parser_close(parser);
        parser = nullptr;
        avcodec_free_context(&codec);
        av_packet_free(&packet);
        av_frame_free(&frame);
        head.clear();
        skip = 0;
        bytesSeen = decoded = trimStart = endFrom = endTo = tagBytes = 0;
        end = End::Open;
        held.clear();
    }

    // Frames [first, first + n) of the decoded timeline to sink, without the encoder's delay
    // and padding.
    bool deliver(const float* data, int64_t first, int64_t n, int32_t rate, int32_t channels,
        const DecodedSink& sink)
    {
        const int64_t lo = std::max(first, trimStart);
        if (lo >= first + n)
            return true;
        data += (lo - first) * channels;
        n -= lo - first;
        first = lo;
        const int64_t last = first + n;
        if (end == End::Pending && last > endFrom) {
            const int64_t cut = std::max(first, endFrom);
            if (cut > first && !sink(data, cut - first, rate, channels))
                return false;
            held.push_back({cut, rate, channels,
                std::vector<float>(data + (cut - first) * channels, data + n * channels)});
            return true;
        }
        if (end != End::Trim || last <= endFrom || first >= endTo)
            return sink(data, n, rate, channels);
        if (first < endFrom && !sink(data, endFrom - first, rate, channels))
            return false;
        if (last > endTo)
            return sink(data + (endTo - first) * channels, last - endTo, rate, channels);
        return true;
    }

    // Settles a pending end: kept, or trimmed; what was held goes out.
    bool settle(End outcome, const DecodedSink& sink)
    {
        if (end != End::Pending)
            return true;
        end = outcome;
        std::vector<Held> out;
        out.swap(held);
        for (const Held& h : out)
            if (!deliver(h.samples.data(), h.first, int64_t(h.samples.size()) / h.channels, h.rate,
                    h.channels, sink))
                return false;
        return true;
    }

    void applyTag(const GaplessTag& tag)
    {
        if (tag.delay < 0)
            return;
        constexpr int64_t kDecoderDelay = 528 + 1;
        trimStart = tag.delay + kDecoderDelay;
        // Padding shorter than the decoder's delay leaves nothing to cut at the end.
        if (tag.frames > 0 && tag.padding > kDecoderDelay) {
            endTo = tag.frames * tag.samplesPerFrame;
            endFrom = endTo - tag.padding + kDecoderDelay;
            tagBytes = tag.streamBytes;
            end = tagBytes > 0 ? End::Pending : End::Trim;
        }
    }

    // A stream well past the tag's byte count is several joined: its end is not the tag's.
    bool checkJoined(const DecodedSink& sink)
    {
        if (end == End::Pending && bytesSeen > tagBytes && bytesSeen - tagBytes > tagBytes / 16)
            return settle(End::Keep, sink);
        return true;
    }

    AVCodecID codecId() const
    {
        return kind == Kind::Aac ? AV_CODEC_ID_AAC
            : kind == Kind::Mpeg ? AV_CODEC_ID_MP3
                                 : AV_CODEC_ID_FLAC;
    }

    void setFormat(const HeaderInfo& info)
    {
        header = info;
        format = _audio_format {};
        format.sampleRate = info.rate;
        format.numChannels = int16_t(info.channels);
        format.bitsPerSample = int16_t(info.bits);
        format.coder = info.coder;
        probed = true;
    }

    // Opens parser and codec; for FLAC, streamInfo is the 34 bytes of STREAMINFO or null.
    bool open(const uint8_t* streamInfo)
    {
        const AVCodec* decoder = avcodec_find_decoder(codecId());
        if (!decoder) {
            setError(AUDIOERR_UNSUPPORTED, "no %s decoder in this build", kindName(kind));
            return false;
        }
        quietFfmpegLogs();
        parser = av_parser_init(decoder->id);
        codec = avcodec_alloc_context3(decoder);
        packet = av_packet_alloc();
        frame = av_frame_alloc();
        if (!parser || !codec || !packet || !frame) {
            close();
            setError(BLERR_NO_MEMORY, "out of memory opening the %s decoder", kindName(kind));
            return false;
        }
        if (streamInfo) {
            codec->extradata = static_cast<uint8_t*>(av_mallocz(34 + AV_INPUT_BUFFER_PADDING_SIZE));
            if (codec->extradata) {
                std::memcpy(codec->extradata, streamInfo, 34);
                codec->extradata_size = 34;
            }
        }
        if (avcodec_open2(codec, decoder, nullptr) < 0) {
            close();
            setError(AUDIOERR_DECODE, "cannot open the %s decoder", kindName(kind));
            return false;
        }
        return true;
    }

    // Takes every frame the codec has ready.
    bool drain(const DecodedSink& sink)
    {
        while (true) {
            const int r = avcodec_receive_frame(codec, frame);
            if (r == AVERROR(EAGAIN) || r == AVERROR_EOF)
                return true;
            if (r < 0)
                continue; // a corrupt frame is skipped
            const int channels = frame->ch_layout.nb_channels;
            const int n = frame->nb_samples;
            bool ok = true;
            if (channels > 0 && n > 0 && frame->sample_rate > 0) {
                if (!probed) {
                    HeaderInfo info = header;
                    info.coder = kind == Kind::Aac ? AUDIO_CODEC_AAC
                        : kind == Kind::Flac       ? AUDIO_CODEC_FLAC
                                                   : AUDIO_CODEC_MPEG_L3;
                    info.rate = frame->sample_rate;
                    info.channels = channels;
                    setFormat(info);
                }
                samples.resize(size_t(n) * size_t(channels));
                for (int c = 0; c < channels; ++c)
                    for (int i = 0; i < n; ++i)
                        samples[size_t(i) * size_t(channels) + size_t(c)]
                            = sampleAt(frame, c, i, channels);
                ok = deliver(samples.data(), decoded, n, frame->sample_rate, channels, sink);
                decoded += n;
            }
            av_frame_unref(frame);
            if (!ok)
                return false;
        }
    }

    bool send(const uint8_t* data, int size, const DecodedSink& sink)
    {
        packet->data = const_cast<uint8_t*>(data);
        packet->size = size;
        while (true) {
            const int r = avcodec_send_packet(codec, size > 0 || data ? packet : nullptr);
            if (r == AVERROR(EAGAIN)) {
                if (!drain(sink))
                    return false;
                continue;
            }
            // Invalid data is skipped; the decoder resynchronises on the next frame.
            return drain(sink);
        }
    }

    bool feed(const uint8_t* data, int64_t size, const DecodedSink& sink)
    {
        while (size > 0) {
            // Parsers hand out frames only while fed (an empty call means the end), so they
            // get the bytes in modest pieces.
            const int piece = int(std::min<int64_t>(size, 4096));
            padded.assign(data, data + piece);
            padded.resize(size_t(piece) + AV_INPUT_BUFFER_PADDING_SIZE, 0);
            const uint8_t* in = padded.data();
            int left = piece;
            while (left > 0) {
                uint8_t* out = nullptr;
                int outSize = 0;
                const int used = av_parser_parse2(
                    parser, codec, &out, &outSize, in, left, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
                if (used < 0) {
                    setError(AUDIOERR_DECODE, "the %s parser failed", kindName(kind));
                    return false;
                }
                in += used;
                left -= used;
                if (outSize > 0 && !send(out, outSize, sink))
                    return false;
            }
            data += piece;
            size -= piece;
        }
        return true;
    }

    // FLAC: gathers the metadata before opening the codec with its STREAMINFO; the bytes
    // behind it go to the parser. Streams without "fLaC" are frames from the start.
    // Opens the codec without STREAMINFO and decodes what was gathered.
    bool flushHead(const DecodedSink& sink)
    {
        std::vector<uint8_t> rest;
        rest.swap(head);
        return open(nullptr) && feed(rest.data(), int64_t(rest.size()), sink);
    }

    // MPEG: ID3v2 tags ahead of the frames are no audio and go past the parser, and so does a
    // first frame holding a Xing/Info or VBRI tag, whose LAME tag sets the trimming. The start
    // is gathered until the first frame is whole (at most a few kB); `last` decodes what there
    // is at the end of the stream.
    bool feedMpegStart(const uint8_t* data, int64_t size, const DecodedSink& sink, bool last)
    {
        head.insert(head.end(), data, data + size);
        while (!head.empty()) {
            const size_t n = head.size();
            if (n < 10 && std::memcmp(head.data(), "ID3", std::min<size_t>(n, 3)) == 0) {
                if (!last)
                    return true;
                head.clear();
                break;
            }
            const int64_t tag = id3Bytes(head.data(), int64_t(n));
            if (tag == 0)
                break;
            const size_t dropped = size_t(std::min<int64_t>(tag, int64_t(n)));
            head.erase(head.begin(), head.begin() + std::ptrdiff_t(dropped));
            skip = tag - int64_t(dropped);
            if (skip > 0)
                return true;
        }
        HeaderInfo info;
        if (!last
            && (head.size() < 4
                || (parseMpeg(head.data(), int64_t(head.size()), info)
                    && info.used > int64_t(head.size()))))
            return true;
        const GaplessTag tag = parseGaplessTag(head.data(), int64_t(head.size()));
        applyTag(tag);
        std::vector<uint8_t> start;
        start.swap(head);
        if (!open(nullptr))
            return false;
        const int64_t from = std::min<int64_t>(tag.frameBytes, int64_t(start.size()));
        return feed(start.data() + from, int64_t(start.size()) - from, sink) && checkJoined(sink);
    }

    bool feedFlac(const uint8_t* data, int64_t size, const DecodedSink& sink)
    {
        head.insert(head.end(), data, data + size);
        const int64_t n = int64_t(head.size());
        const uint8_t* b = head.data();
        if (n < 4)
            return std::memcmp(b, "fLaC", size_t(n)) != 0 ? flushHead(sink) : true;
        int64_t at = 0;
        if (std::memcmp(b, "fLaC", 4) == 0) {
            HeaderInfo info;
            if (n < 42)
                return true;
            if (!parseFlac(b, n, info)) {
                setError(AUDIOERR_CORRUPT, "the FLAC stream has no valid STREAMINFO");
                return false;
            }
            if (info.used > n)
                return true;
            if (!probed)
                setFormat(info);
            at = info.used;
        }
        std::vector<uint8_t> rest(head.begin() + at, head.end());
        const bool opened = open(at > 0 ? b + 8 : nullptr);
        head.clear();
        return opened && feed(rest.data(), int64_t(rest.size()), sink);
    }
};

namespace sova::audio {

_AUDIODECODER* retainDecoder(_AUDIODECODER* decoder)
{
    if (decoder)
        decoder->holds.fetch_add(1, std::memory_order_relaxed);
    return decoder;
}

void releaseDecoder(_AUDIODECODER* decoder)
{
    if (decoder && decoder->holds.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete decoder;
}

bool decodeStream(_AUDIODECODER* decoder, const char* data, int64_t size, const DecodedSink& sink)
{
    if (!decoder || !data || size <= 0)
        return decoder != nullptr;
    const auto* bytes = reinterpret_cast<const uint8_t*>(data);
    decoder->bytesSeen += size;
    const int64_t skipped = std::min(decoder->skip, size);
    decoder->skip -= skipped;
    bytes += skipped;
    size -= skipped;
    if (size == 0)
        return true;
    if (!decoder->codec) {
        if (decoder->kind == Kind::Flac)
            return decoder->feedFlac(bytes, size, sink);
        if (decoder->kind == Kind::Mpeg)
            return decoder->feedMpegStart(bytes, size, sink, false);
        if (!decoder->open(nullptr))
            return false;
    }
    return decoder->feed(bytes, size, sink) && decoder->checkJoined(sink);
}

bool flushStream(_AUDIODECODER* decoder, const DecodedSink& sink)
{
    if (!decoder)
        return false;
    bool ok = true;
    // An MPEG stream that ended within its first frame still has that frame to give; any other
    // stream shorter than its own header leaves nothing to decode.
    if (!decoder->codec && decoder->kind == Kind::Mpeg && !decoder->head.empty())
        ok = decoder->feedMpegStart(nullptr, 0, sink, true);
    decoder->head.clear();
    if (decoder->codec) {
        uint8_t* out = nullptr;
        int outSize = 0;
        // The parser gives up the frame it still holds, then the codec its delay.
        do {
            av_parser_parse2(decoder->parser, decoder->codec, &out, &outSize, nullptr, 0,
                AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
            if (outSize > 0)
                ok = decoder->send(out, outSize, sink) && ok;
        } while (outSize > 0 && ok);
        if (ok)
            ok = decoder->send(nullptr, 0, sink);
    }
    if (ok)
        ok = decoder->settle(_AUDIODECODER::End::Trim, sink);
    decoder->close();
    return ok;
}

} // namespace sova::audio

extern "C" {

_AUDIODECODER* AUDIODECOD_Create(_audio_format* format, const char* config)
{
    if (format)
        *format = _audio_format {};
    std::string name = config ? config : "";
    std::transform(name.begin(), name.end(), name.begin(),
        [](unsigned char c) { return char(std::toupper(c)); });
    Kind kind;
    if (name == "AAC" || name == "ADTS")
        kind = Kind::Aac;
    else if (name == "MP3" || name == "MP2" || name == "MPEG")
        kind = Kind::Mpeg;
    else if (name == "FLAC")
        kind = Kind::Flac;
    else {
        setError(AUDIOERR_UNKNOWN_FORMAT, "no decoder for '%s' (AAC, MP3 or FLAC)",
            config ? config : "");
        return nullptr;
    }
    try {
        auto* decoder = new _AUDIODECODER;
        decoder->kind = kind;
        decoder->target = format;
        return decoder;
    } catch (const std::exception&) {
        setError(BLERR_NO_MEMORY, "out of memory creating a decoder");
        return nullptr;
    }
}

// The header fields must lie within the bytes given; the frame or metadata they describe may
// reach past them, and *length then says how far (a caller can tell it read too little).
int32_t AUDIODECOD_ProbeStream(_AUDIODECODER* decoder, const char* header, int32_t* length)
{
    if (!decoder)
        return 0;
    if (!header || !length || *length <= 0) {
        setError(BLERR_INVALID_ARGUMENT, "no stream header to probe");
        return 0;
    }
    HeaderInfo info;
    if (!parseHeader(decoder->kind, reinterpret_cast<const uint8_t*>(header), *length, info)) {
        setError(AUDIOERR_UNRECOGNISED, "the %d bytes are no %s stream header", *length,
            kindName(decoder->kind));
        return 0;
    }
    decoder->setFormat(info);
    if (decoder->target)
        *decoder->target = decoder->format;
    *length = int32_t(std::min<int64_t>(info.used, INT32_MAX));
    return 1;
}

int32_t AUDIODECOD_GetAudioFormat(_AUDIODECODER* decoder, _audio_format* format)
{
    if (!decoder || !format || !decoder->probed)
        return 0;
    *format = decoder->format;
    return 1;
}

void AUDIODECOD_Destroy(_AUDIODECODER* decoder)
{
    releaseDecoder(decoder);
}

int32_t AUDIOCODEC_GetMinSamplesPerFrame(_AUDIODECODER* decoder)
{
    return decoder && decoder->probed ? decoder->header.minSamples : 0;
}

int32_t AUDIOCODEC_GetMaxSamplesPerFrame(_AUDIODECODER* decoder)
{
    return decoder && decoder->probed ? decoder->header.maxSamples : 0;
}

int32_t AUDIOCODEC_GetMinStreamBytes(_AUDIODECODER* decoder)
{
    return decoder && decoder->probed ? decoder->header.minBytes : 0;
}

int32_t AUDIOCODEC_GetMaxStreamBytes(_AUDIODECODER* decoder)
{
    return decoder && decoder->probed ? decoder->header.maxBytes : 0;
}

} // extern "C"
