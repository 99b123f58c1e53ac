// Levels of signals: plain RMS over a range, and RMS after a named filter (frequency weightings,
// Butterworth high- and low-pass, DC removal). The signal is read chunk by chunk through the
// public reads, so memory stays bounded whatever its length; sums are kept in doubles.
#include "backend.h"
#include "biquad.h"

#include <sova/audio.h>
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <complex>
#include <exception>
#include <string>
#include <vector>

namespace {

using sova::audio::Biquad;
using sova::audio::butterworth;
using sova::audio::kPi;
using sova::audio::lowered;
using sova::audio::trimmed;

constexpr int64_t kChunkFrames = 16384;

// A filter of one channel: sections in series, then a gain.
struct Chain
{
    std::vector<Biquad> stages;
    double gain = 1.0;

    double run(double x)
    {
        for (Biquad& s : stages)
            x = s.run(x);
        return x * gain;
    }
    // Scales the chain to unit gain at hz.
    void normaliseAt(double hz, double rate)
    {
        std::complex<double> h = 1.0;
        for (const Biquad& s : stages)
            h *= s.response(hz, rate);
        gain = 1.0 / std::abs(h);
    }
};

// The bilinear image of an analogue section s^zerosAtDc / ((s + wa)(s + wb)), zerosAtDc 0..2;
// the zeros at infinity land at Nyquist. Gain is left to Chain::normaliseAt.
Biquad bilinearSection(int zerosAtDc, double fa, double fb, double rate)
{
    // The pole frequencies are pre-warped so that each corner stays where the analogue one is;
    // a corner at or above Nyquist sits just below it, where it leaves the response flat.
    const auto pole = [rate](double f) {
        const double k = 2.0 * rate;
        const double wa = k * std::tan(kPi * std::min(f / rate, 0.49));
        return (k - wa) / (k + wa);
    };
    const double pa = pole(fa), pb = pole(fb);
    Biquad s;
    // (1 - z^-1)^zerosAtDc (1 + z^-1)^(2 - zerosAtDc)
    static const double kNumerators[3][3] = {{1, 2, 1}, {1, 0, -1}, {1, -2, 1}};
    s.b0 = kNumerators[zerosAtDc][0];
    s.b1 = kNumerators[zerosAtDc][1];
    s.b2 = kNumerators[zerosAtDc][2];
    s.a1 = -(pa + pb);
    s.a2 = pa * pb;
    return s;
}


// IEC 61672 pole frequencies of the A and C weightings.
constexpr double kF1 = 20.598997, kF2 = 107.65265, kF3 = 737.86223, kF4 = 12194.217;

struct Transform
{
    Chain prototype; // copied for each channel, at rest
    bool removeMean = false;
};

// Parses "name[options]" into a filter for the rate; false with the reason recorded.
bool parseTransform(const char* text, double rate, Transform& out)
{
    const std::string whole = text ? text : "";
    std::string name = whole, options;
    const auto open = whole.find('[');
    if (open != std::string::npos) {
        const auto close = whole.rfind(']');
        if (close == std::string::npos || close < open
            || !trimmed(whole.substr(close + 1)).empty()) {
            BLERROR_Set(
                BLERR_INVALID_ARGUMENT, "transform '%s': unbalanced brackets", whole.c_str());
            return false;
        }
        name = whole.substr(0, open);
        options = whole.substr(open + 1, close - open - 1);
    }
    name = lowered(trimmed(name));
    const char* opts = options.c_str();

    if (name.empty() || name == "none")
        return true;
    if (name == "dcblock") {
        out.removeMean = true;
        return true;
    }
    if (name == "aweight" || name == "cweight") {
        std::vector<Biquad>& st = out.prototype.stages;
        st.push_back(bilinearSection(2, kF1, kF1, rate));
        if (name == "aweight")
            st.push_back(bilinearSection(2, kF2, kF3, rate));
        st.push_back(bilinearSection(0, kF4, kF4, rate));
        out.prototype.normaliseAt(1000.0, rate);
        return true;
    }
    if (name == "highpass" || name == "lowpass") {
        const bool high = name == "highpass";
        const double fc = BLSTRING_GetDoubleValueFromString(opts, "fc", high ? 100.0 : 1000.0);
        const int order = BLSTRING_GetIntegerValueFromString(opts, "order", 2);
        if (order != 2 && order != 4) {
            BLERROR_Set(
                BLERR_INVALID_ARGUMENT, "transform '%s': order %d (2 or 4)", whole.c_str(), order);
            return false;
        }
        if (!(fc > 0.0 && fc < rate / 2.0)) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT,
                "transform '%s': cut-off %g Hz not between 0 and %g Hz", whole.c_str(), fc,
                rate / 2.0);
            return false;
        }
        out.prototype.stages = butterworth(high, fc, order, rate);
        return true;
    }
    BLERROR_Set(BLERR_INVALID_ARGUMENT,
        "unknown transform '%s' (none, aweight, cweight, highpass, lowpass, dcblock)",
        whole.c_str());
    return false;
}

// Feeds every frame of one channel (or of all, interleaved) to fn(samples, frames), chunk by
// chunk over [pos, pos + count).
template <typename Fn>
void forEachChunk(_AUDIOSIGNAL* signal, int32_t channel, int64_t pos, int64_t count, Fn&& fn)
{
    const int64_t width = channel < 0 ? AUDIOSIGNAL_NumChannels(signal) : 1;
    std::vector<float> chunk(static_cast<size_t>(kChunkFrames * width));
    for (int64_t done = 0; done < count;) {
        const int64_t want = std::min(kChunkFrames, count - done);
        const int64_t got = channel < 0
            ? AUDIOSIGNAL_GetSamplesEx(signal, pos + done, chunk.data(), want, 0)
            : AUDIOSIGNAL_GetChannelSamplesEx(signal, channel, pos + done, chunk.data(), want, 0);
        if (got <= 0)
            break;
        fn(chunk.data(), got);
        done += got;
    }
}

} // namespace

extern "C" {

double AUDIOSIGNAL_GetChannelTotalRMS(
    _AUDIOSIGNAL* signal, int32_t channel, int64_t pos, int64_t count, int32_t linear)
{
    const double silence = linear ? 0.0 : -200.0;
    if (!signal || channel < 0 || channel >= AUDIOSIGNAL_NumChannels(signal) || count <= 0)
        return silence;
    const int64_t total = AUDIOSIGNAL_NumSamples(signal);
    const int64_t from = std::clamp<int64_t>(pos, 0, total);
    const int64_t to = pos > total - count ? total : std::max<int64_t>(pos + count, 0);
    if (to <= from)
        return silence;
    double sum = 0.0;
    try {
        forEachChunk(signal, channel, from, to - from, [&](const float* x, int64_t n) {
            for (int64_t i = 0; i < n; ++i)
                sum += double(x[i]) * double(x[i]);
        });
    } catch (const std::exception&) {
        BLERROR_Set(BLERR_NO_MEMORY, "out of memory measuring a level");
        return silence;
    }
    const double rms = std::sqrt(sum / double(to - from));
    if (linear)
        return rms;
    return rms > 0.0 ? std::max(-200.0, 20.0 * std::log10(rms)) : -200.0;
}

double AUDIOSIGNAL_EvalTransformRMS(_AUDIOSIGNAL* signal, const char* transform, int32_t channel)
{
    if (!signal)
        return 0.0;
    const int32_t channels = AUDIOSIGNAL_NumChannels(signal);
    if (channel < -1 || channel >= channels) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "no channel %d in a signal of %d channels", channel, channels);
        return -1.0;
    }
    try {
        Transform t;
        if (!parseTransform(transform, AUDIOSIGNAL_SampleRate(signal), t))
            return -1.0;
        const int64_t frames = AUDIOSIGNAL_NumSamples(signal);
        if (frames == 0)
            return 0.0;
        const int width = channel < 0 ? channels : 1;
        std::vector<double> mean(static_cast<size_t>(width), 0.0);
        if (t.removeMean) {
            forEachChunk(signal, channel, 0, frames, [&](const float* x, int64_t n) {
                for (int64_t f = 0; f < n; ++f)
                    for (int c = 0; c < width; ++c)
                        mean[c] += x[f * width + c];
            });
            for (double& m : mean)
                m /= double(frames);
        }
        std::vector<Chain> chains(static_cast<size_t>(width), t.prototype);
        double sum = 0.0;
        forEachChunk(signal, channel, 0, frames, [&](const float* x, int64_t n) {
            for (int64_t f = 0; f < n; ++f)
                for (int c = 0; c < width; ++c) {
                    const double y = chains[c].run(x[f * width + c] - mean[c]);
                    sum += y * y;
                }
        });
        return std::sqrt(sum / (double(frames) * width));
    } catch (const std::exception&) {
        BLERROR_Set(BLERR_NO_MEMORY, "out of memory evaluating a transform");
        return -1.0;
    }
}

} // extern "C"
