// On-the-fly conversion of a decoded stream: sample rate through soxr, channels by mapping.
// Channel mapping is linear and per frame, so it commutes with resampling: it runs before soxr
// when it reduces the channels and after it when it adds some, so soxr always works on the
// fewer channels.
#include "backend.h"

#include <soxr.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

namespace sova::audio {

namespace {

    constexpr int64_t kSampleBudget = 16384;
    // Wider ratios are no audio conversion anyone means; soxr would build huge filters for them.
    constexpr double kMaxRatio = 256.0;

    class ConvertingReader final : public Reader
    {
    public:
        ConvertingReader(
            std::unique_ptr<Reader> source, int32_t rate, int32_t channels, uint32_t mask)
            : m_source(std::move(source))
            , m_map(1, 0, 1, 0)
        {
            const StreamInfo& in = m_source->info();
            m_inRate = in.format.sampleRate;
            m_inChannels = in.format.numChannels;
            m_outRate = rate ? rate : m_inRate;
            m_outChannels = channels ? channels : m_inChannels;
            const uint32_t inMask = layoutOf(in.format);
            uint32_t outMask = mask ? mask : AUDIO_DefaultChannelMask(m_outChannels);
            if (!mask && m_outChannels == m_inChannels)
                outMask = inMask;
            m_map = ChannelMap(m_inChannels, inMask, m_outChannels, outMask);
            m_info = in;
            m_info.format.sampleRate = m_outRate;
            m_info.format.numChannels = static_cast<int16_t>(m_outChannels);
            m_info.format.codecInfo = withChannelMask(in.format.codecInfo,
                AUDIO_FormatChannelMask(&in.format) || m_outChannels != m_inChannels || mask
                    ? outMask
                    : 0);
            m_identity = m_map.identity;
            m_info.seekable = in.seekable && m_outRate == m_inRate;
            if (in.frames >= 0)
                m_info.frames = scaled(in.frames);
            m_mapFirst = m_outChannels <= m_inChannels;
            m_soxrChannels = m_mapFirst ? m_outChannels : m_inChannels;
            m_block = std::max<int64_t>(1, kSampleBudget / std::max(m_inChannels, m_outChannels));
            m_input.resize(static_cast<size_t>(m_block * m_inChannels));
            if (m_mapFirst && !m_identity)
                m_mapped.resize(static_cast<size_t>(m_block * m_outChannels));
            if (!m_mapFirst)
                m_output.resize(static_cast<size_t>(m_block * m_inChannels));
        }

        ~ConvertingReader() override
        {
            if (m_soxr)
                soxr_delete(m_soxr);
        }

        // false (recorded) when soxr refuses the rates.
        bool start()
        {
            if (m_outRate == m_inRate)
                return true;
            const double ratio = static_cast<double>(m_outRate) / m_inRate;
            if (ratio > kMaxRatio || ratio < 1.0 / kMaxRatio) {
                setError(
                    AUDIOERR_UNSUPPORTED, "cannot convert %d Hz to %d Hz", m_inRate, m_outRate);
                return false;
            }
            const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
            const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
            soxr_error_t error = nullptr;
            m_soxr = soxr_create(m_inRate, m_outRate, static_cast<unsigned>(m_soxrChannels), &error,
                &io, &quality, nullptr);
            if (!m_soxr || error) {
                setError(AUDIOERR_UNSUPPORTED, "the resampler cannot start: %s",
                    error ? error : "unknown reason");
                return false;
            }
            return true;
        }

        const StreamInfo& info() const override { return m_info; }
        const DamageInfo* damage() const override { return m_source->damage(); }

        int64_t read(float* dst, int64_t frames) override
        {
            if (frames <= 0)
                return 0;
            return m_soxr ? readResampled(dst, frames) : readMapped(dst, frames);
        }

        bool seek(int64_t frame) override
        {
            if (m_soxr) {
                setError(AUDIOERR_UNSUPPORTED, "a resampled stream cannot seek");
                return false;
            }
            return m_source->seek(frame);
        }

    private:
        // Source frames to output frames, rounded up. Header counts can be anything: 128 bits
        // keep the product from overflowing, and the result saturates.
        int64_t scaled(int64_t frames) const
        {
            const __int128 out
                = (static_cast<__int128>(frames) * m_outRate + m_inRate - 1) / m_inRate;
            return out > INT64_MAX ? INT64_MAX : static_cast<int64_t>(out);
        }

        int64_t readMapped(float* dst, int64_t frames)
        {
            int64_t done = 0;
            while (done < frames) {
                const int64_t n = m_source->read(m_input.data(), std::min(m_block, frames - done));
                if (n < 0)
                    return done > 0 ? done : -1;
                if (n == 0)
                    break;
                m_map.apply(m_input.data(), dst + done * m_outChannels, n);
                done += n;
            }
            return done;
        }

        // Feeds soxr from the source and drains it into dst. Once the source has ended, the output
        // is cut or padded with silence to exactly ceil(input frames x ratio), so that the length
        // reported from the header holds.
        int64_t readResampled(float* dst, int64_t frames)
        {
            int64_t done = 0;
            while (done < frames) {
                if (m_target >= 0 && m_delivered >= m_target)
                    break;
                if (m_pending == 0 && !m_ended) {
                    const int64_t n = m_source->read(m_input.data(), m_block);
                    if (n < 0)
                        return done > 0 ? done : -1;
                    if (n == 0) {
                        m_ended = true;
                    } else {
                        m_consumed += n;
                        m_pending = n;
                        if (m_mapFirst && !m_identity) {
                            m_map.apply(m_input.data(), m_mapped.data(), n);
                            m_next = m_mapped.data();
                        } else {
                            m_next = m_input.data();
                        }
                    }
                }
                const bool flushing = m_ended && m_pending == 0;
                if (flushing && m_target < 0) {
                    m_target = scaled(m_consumed);
                    continue;
                }
                int64_t want = std::min(frames - done, m_block);
                if (m_target >= 0)
                    want = std::min(want, m_target - m_delivered);
                float* out = m_mapFirst ? dst + done * m_outChannels : m_output.data();
                size_t used = 0;
                size_t made = 0;
                if (flushing && m_drained) {
                    made = 0;
                } else {
                    const soxr_error_t error = soxr_process(m_soxr, flushing ? nullptr : m_next,
                        flushing ? 0 : static_cast<size_t>(m_pending), &used, out,
                        static_cast<size_t>(want), &made);
                    if (error) {
                        setError(AUDIOERR_DECODE, "resampling failed: %s", error);
                        return done > 0 ? done : -1;
                    }
                }
                if (!flushing) {
                    m_pending -= static_cast<int64_t>(used);
                    m_next += used * static_cast<size_t>(m_soxrChannels);
                }
                if (flushing && made == 0) {
                    // soxr has given all it had: silence up to the exact length.
                    m_drained = true;
                    const int64_t pad
                        = std::max<int64_t>(0, std::min(frames - done, m_target - m_delivered));
                    if (pad == 0)
                        break;
                    std::fill(dst + done * m_outChannels, dst + (done + pad) * m_outChannels, 0.0f);
                    done += pad;
                    m_delivered += pad;
                    continue;
                }
                if (made > 0 && !m_mapFirst)
                    m_map.apply(m_output.data(), dst + done * m_outChannels,
                        static_cast<int64_t>(made));
                done += static_cast<int64_t>(made);
                m_delivered += static_cast<int64_t>(made);
            }
            return done;
        }

        std::unique_ptr<Reader> m_source;
        StreamInfo m_info;
        int32_t m_inRate = 0;
        int32_t m_inChannels = 0;
        int32_t m_outRate = 0;
        int32_t m_outChannels = 0;
        int32_t m_soxrChannels = 0;
        bool m_mapFirst = true;
        bool m_identity = true;
        ChannelMap m_map;
        int64_t m_block = 1;
        soxr_t m_soxr = nullptr;

        std::vector<float> m_input; // a block of source frames
        std::vector<float> m_mapped; // the same, mapped before soxr
        std::vector<float> m_output; // soxr output before mapping
        const float* m_next = nullptr;
        int64_t m_pending = 0; // frames at m_next soxr has not taken yet
        int64_t m_consumed = 0; // source frames read
        int64_t m_delivered = 0; // frames returned
        int64_t m_target = -1; // frames to return in all, known once the source ended
        bool m_ended = false;
        bool m_drained = false;
    };

} // namespace

std::unique_ptr<Reader> convertingReader(std::unique_ptr<Reader> source, int32_t sampleRate,
    int32_t numChannels, uint32_t channelMask)
{
    if (!source)
        return nullptr;
    const StreamInfo& in = source->info();
    if (in.format.sampleRate < 1 || in.format.numChannels < 1) {
        setError(AUDIOERR_CORRUPT, "cannot convert a stream of %d Hz and %d channels",
            in.format.sampleRate, in.format.numChannels);
        return nullptr;
    }
    if (sampleRate < 0 || numChannels < 0) {
        setError(BLERR_INVALID_ARGUMENT, "cannot convert to %d Hz and %d channels", sampleRate,
            numChannels);
        return nullptr;
    }
    auto reader = std::make_unique<ConvertingReader>(
        std::move(source), sampleRate, numChannels, channelMask);
    if (!reader->start())
        return nullptr;
    return reader;
}

} // namespace sova::audio
