// Channel layouts: speaker masks kept in a format's codecInfo under "chmask", their names, and
// the remix matrices every channel conversion of the engine goes through.
#include "backend.h"

#include <sova/blstring.h>

#include <algorithm>
#include <bitset>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace sova::audio {

namespace {

    constexpr double kMinus3dB = 0.70710678118654752;
    constexpr int kSpeakerBits = 18; // FL .. TBR: the WAVE_FORMAT_EXTENSIBLE speakers

    constexpr const char* kSpeakerNames[kSpeakerBits] = {"FL", "FR", "FC", "LFE", "BL", "BR", "FLC",
        "FRC", "BC", "SL", "SR", "TC", "TFL", "TFC", "TFR", "TBL", "TBC", "TBR"};

    struct NamedLayout
    {
        uint32_t mask;
        const char* name;
    };
    // The usual names (FFmpeg's, so that "info" agrees with ffprobe).
    constexpr NamedLayout kNamed[] = {
        {0x4, "mono"},
        {0x3, "stereo"},
        {0xb, "2.1"},
        {0x7, "3.0"},
        {0x103, "3.0(back)"},
        {0x107, "4.0"},
        {0x33, "quad"},
        {0x603, "quad(side)"},
        {0xf, "3.1"},
        {0x37, "5.0"},
        {0x607, "5.0(side)"},
        {0x10f, "4.1"},
        {0x3f, "5.1"},
        {0x60f, "5.1(side)"},
        {0x707, "6.0"},
        {0x137, "6.0(front)"},
        {0x13f, "6.1(back)"},
        {0x70f, "6.1"},
        {0x637, "7.0"},
        {0x63f, "7.1"},
        {0xff, "7.1(wide)"},
        {0x6cf, "7.1(wide-side)"},
    };

    int countOf(uint32_t mask)
    {
        return static_cast<int>(std::bitset<32>(mask).count());
    }

    // Index of a speaker bit among the set bits of mask (channels come in bit order).
    int indexIn(uint32_t mask, uint32_t bit)
    {
        return (mask & bit) ? countOf(mask & (bit - 1)) : -1;
    }

    // Adds a contribution of one input channel to the output speakers of outMask, placing a
    // speaker the output lacks where BS.775 folds it. Returns false when nothing took it.
    bool place(uint32_t speaker, double gain, uint32_t outMask, double* column, int depth = 0)
    {
        if (gain == 0.0 || depth > 4)
            return false;
        const auto put = [&](uint32_t bit, double g) {
            column[indexIn(outMask, bit)] += g;
            return true;
        };
        if (outMask & speaker)
            return put(speaker, gain);
        const bool pair = (outMask & 0x3) == 0x3;
        const bool centre = (outMask & 0x4) != 0;
        // Left, right: a pair member of the same side.
        const auto side = [&](uint32_t left, uint32_t right, bool isLeft) -> bool {
            const uint32_t mine = isLeft ? left : right;
            if (outMask & mine)
                return put(mine, gain);
            return false;
        };
        switch (speaker) {
        case 0x1: // FL
        case 0x2: // FR
            if (centre)
                return put(0x4, gain * kMinus3dB);
            break;
        case 0x4: // FC
            if (pair)
                return put(0x1, gain * kMinus3dB), put(0x2, gain * kMinus3dB);
            break;
        case 0x8: // LFE: left out of every down-mix
            return true;
        case 0x10: // BL
        case 0x20: // BR
            if (side(0x200, 0x400, speaker == 0x10))
                return true;
            if (outMask & 0x100)
                return put(0x100, gain * kMinus3dB);
            return place(speaker == 0x10 ? 0x1 : 0x2, gain * kMinus3dB, outMask, column, depth + 1);
        case 0x200: // SL
        case 0x400: // SR
            if (side(0x10, 0x20, speaker == 0x200))
                return true;
            return place(
                speaker == 0x200 ? 0x1 : 0x2, gain * kMinus3dB, outMask, column, depth + 1);
        case 0x100: // BC
            if ((outMask & 0x30) == 0x30)
                return put(0x10, gain * kMinus3dB), put(0x20, gain * kMinus3dB);
            if ((outMask & 0x600) == 0x600)
                return put(0x200, gain * kMinus3dB), put(0x400, gain * kMinus3dB);
            if (pair)
                return put(0x1, gain * 0.5), put(0x2, gain * 0.5);
            if (centre)
                return put(0x4, gain * kMinus3dB);
            break;
        case 0x40: // FLC
        case 0x80: // FRC
            return place(speaker == 0x40 ? 0x1 : 0x2, gain, outMask, column, depth + 1);
        case 0x800: // TC
        case 0x2000: // TFC
            return place(0x4, gain * kMinus3dB, outMask, column, depth + 1);
        case 0x1000: // TFL
        case 0x4000: // TFR
            return place(
                speaker == 0x1000 ? 0x1 : 0x2, gain * kMinus3dB, outMask, column, depth + 1);
        case 0x8000: // TBL
        case 0x20000: // TBR
            return place(
                speaker == 0x8000 ? 0x10 : 0x20, gain * kMinus3dB, outMask, column, depth + 1);
        case 0x10000: // TBC
            return place(0x100, gain * kMinus3dB, outMask, column, depth + 1);
        default: // speakers without a position of their own: as the centre
            return place(0x4, gain, outMask, column, depth + 1);
        }
        return false;
    }

} // namespace

uint32_t layoutOf(const _audio_format& format)
{
    const uint32_t mask = AUDIO_FormatChannelMask(&format);
    return mask ? mask : AUDIO_DefaultChannelMask(format.numChannels);
}

ChannelMap::ChannelMap(int32_t inCount, uint32_t inMask, int32_t outCount, uint32_t outMask)
    : in(std::max(inCount, 1))
    , out(std::max(outCount, 1))
{
    if (countOf(inMask) != in)
        inMask = AUDIO_DefaultChannelMask(in);
    if (countOf(outMask) != out)
        outMask = AUDIO_DefaultChannelMask(out);
    identity = in == out && inMask == outMask;
    if (identity)
        return;
    matrix.assign(size_t(in) * size_t(out), 0.0f);
    AUDIO_ChannelMixMatrix(inMask, in, outMask, out, matrix.data());
}

void ChannelMap::apply(const float* src, float* dst, int64_t frames) const
{
    if (identity) {
        std::memmove(dst, src, static_cast<size_t>(frames * in) * sizeof(float));
        return;
    }
    for (int64_t f = 0; f < frames; ++f) {
        const float* s = src + f * in;
        float* d = dst + f * out;
        for (int32_t o = 0; o < out; ++o) {
            const float* row = matrix.data() + size_t(o) * size_t(in);
            double sum = 0.0;
            for (int32_t i = 0; i < in; ++i)
                sum += double(row[i]) * s[i];
            d[o] = static_cast<float>(sum);
        }
    }
}

void mapChannels(const float* in, int32_t inChannels, uint32_t inMask, float* out,
    int32_t outChannels, uint32_t outMask, int64_t frames)
{
    ChannelMap(inChannels, inMask, outChannels, outMask).apply(in, out, frames);
}

uint32_t requestedChannelMask(const FormatRequest& request, int32_t channels)
{
    const int64_t value
        = BLSTRING_GetInteger64ValueFromString(request.options.c_str(), "chmask", int64_t(0));
    if (value <= 0 || value > int64_t(UINT32_MAX))
        return 0;
    return countOf(uint32_t(value)) == channels ? uint32_t(value) : 0;
}

const char* withChannelMask(const char* codecInfo, uint32_t mask)
{
    // Keeps every other item as written; items are split at commas outside quotes and brackets.
    std::string kept;
    const std::string all = codecInfo ? codecInfo : "";
    size_t start = 0;
    while (start <= all.size()) {
        size_t end = start;
        int depth = 0;
        char quote = 0;
        for (; end < all.size(); ++end) {
            const char c = all[end];
            if (quote) {
                if (c == quote)
                    quote = 0;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '[') {
                ++depth;
            } else if (c == ']') {
                depth = std::max(0, depth - 1);
            } else if (c == ',' && depth == 0) {
                break;
            }
        }
        const std::string item = all.substr(start, end - start);
        const std::string key = lowered(trimmed(item.substr(0, item.find('='))));
        if (!trimmed(item).empty() && key != "chmask")
            kept += (kept.empty() ? "" : ",") + trimmed(item);
        start = end + 1;
    }
    if (mask) {
        char text[32];
        std::snprintf(text, sizeof text, "chmask=%u", mask);
        kept += (kept.empty() ? "" : ",") + std::string(text);
    }
    return kept.empty() ? nullptr : pooled(kept.c_str());
}

} // namespace sova::audio

using namespace sova::audio;

extern "C" {

uint32_t AUDIO_FormatChannelMask(const _audio_format* format)
{
    if (!format || !format->codecInfo || format->numChannels < 1)
        return 0;
    const int64_t value
        = BLSTRING_GetInteger64ValueFromString(format->codecInfo, "chmask", int64_t(-1));
    if (value <= 0 || value > int64_t(UINT32_MAX))
        return 0;
    const uint32_t mask = static_cast<uint32_t>(value);
    return countOf(mask) == format->numChannels ? mask : 0;
}

int32_t AUDIO_SetFormatChannelMask(_audio_format* format, uint32_t mask)
{
    if (!format || (mask != 0 && countOf(mask) != format->numChannels))
        return 0;
    format->codecInfo = withChannelMask(format->codecInfo, mask);
    return 1;
}

uint32_t AUDIO_DefaultChannelMask(int32_t channels)
{
    // The assignments FLAC and WAVE_FORMAT_EXTENSIBLE use for a bare count.
    static const uint32_t masks[] = {0, 0x4, 0x3, 0x7, 0x33, 0x37, 0x3f, 0x70f, 0x63f};
    return channels >= 1 && channels <= 8 ? masks[channels] : 0;
}

const char* AUDIO_ChannelLayoutName(uint32_t mask, int32_t channels)
{
    if (mask == 0 || (channels > 0 && countOf(mask) != channels))
        mask = AUDIO_DefaultChannelMask(channels);
    if (mask == 0)
        return channels > 0 ? pooled((std::to_string(channels) + " channels").c_str()) : nullptr;
    if (channels == 1 || mask == 0x4)
        return "mono";
    for (const NamedLayout& n : kNamed)
        if (n.mask == mask)
            return n.name;
    std::string text;
    for (int bit = 0; bit < 32; ++bit) {
        if (!(mask & (1u << bit)))
            continue;
        if (!text.empty())
            text += '+';
        text += bit < kSpeakerBits ? kSpeakerNames[bit] : "S" + std::to_string(bit);
    }
    return pooled(text.c_str());
}

int32_t AUDIO_ChannelMixMatrix(
    uint32_t inMask, int32_t inChannels, uint32_t outMask, int32_t outChannels, float* matrix)
{
    if (inChannels < 1 || inChannels > 32 || outChannels < 1 || outChannels > 32) {
        setError(BLERR_INVALID_ARGUMENT, "no mix matrix from %d to %d channels", inChannels,
            outChannels);
        return 0;
    }
    if (inMask == 0 || countOf(inMask) != inChannels)
        inMask = AUDIO_DefaultChannelMask(inChannels);
    if (outMask == 0 || countOf(outMask) != outChannels)
        outMask = AUDIO_DefaultChannelMask(outChannels);
    if (!matrix)
        return 1;
    std::vector<double> m(size_t(inChannels) * size_t(outChannels), 0.0);
    std::vector<double> column(static_cast<size_t>(outChannels), 0.0);
    for (int32_t i = 0; i < inChannels; ++i) {
        std::fill(column.begin(), column.end(), 0.0);
        bool placed = false;
        if (inMask && outMask) {
            // The i-th set bit of the input mask is channel i.
            uint32_t speaker = 0;
            for (int bit = 0, seen = 0; bit < 32; ++bit)
                if (inMask & (1u << bit)) {
                    if (seen++ == i) {
                        speaker = 1u << bit;
                        break;
                    }
                }
            if (inChannels == 1 && !(outMask & 0x4) && (outMask & 0x3) == 0x3) {
                // Mono into a layout without a centre: both fronts get the whole signal.
                column[size_t(indexIn(outMask, 0x1))] = 1.0;
                column[size_t(indexIn(outMask, 0x2))] = 1.0;
                placed = true;
            } else {
                placed = place(speaker, 1.0, outMask, column.data());
            }
        } else if (i < outChannels) {
            // Counts without a layout: channel to channel.
            column[size_t(i)] = 1.0;
            placed = true;
        }
        if (!placed) {
            // Nowhere to fold it: spread evenly rather than lose it.
            for (double& c : column)
                c = 1.0 / std::sqrt(double(outChannels));
        }
        for (int32_t o = 0; o < outChannels; ++o)
            m[size_t(o) * size_t(inChannels) + size_t(i)] = column[size_t(o)];
    }
    // Normalised so that no output can pass full scale when the inputs do not.
    double worst = 0.0;
    for (int32_t o = 0; o < outChannels; ++o) {
        double sum = 0.0;
        for (int32_t i = 0; i < inChannels; ++i)
            sum += std::fabs(m[size_t(o) * size_t(inChannels) + size_t(i)]);
        worst = std::max(worst, sum);
    }
    const double scale = worst > 1.0 ? 1.0 / worst : 1.0;
    for (size_t k = 0; k < m.size(); ++k)
        matrix[k] = static_cast<float>(m[k] * scale);
    return 1;
}

} // extern "C"
