// Effect paths: a chain of effects applied to interleaved float frames, block by block.
//
// The description language. A path is a list of effects separated by ';'; each effect is a
// name, in any letter case, optionally followed by an option string in brackets:
//     gain[db=-6];resample[sr=22050];mix[nch=1];highpass[fc=80];lowpass[fc=8000];speed[factor=1.25]
// Blanks around names are ignored and empty items are skipped, so "" and ";" are the empty
// chain (the input passes unchanged). The options follow the usual option-string rules
// (blstring.h); every option key must be one the effect knows.
//   gain[db=D] or gain[factor=F]   multiplies by 10^(D/20), or by F (one of the two, not both)
//   resample[sr=R]                 soxr, very high quality; R from 10 to 500000 Hz
//   mix[nch=N]                     N channels (1..8) in their default layout, remixed from the
//                                  input's by AUDIO_ChannelMixMatrix (BS.775 down-mixes)
//   highpass[fc=HZ,order=2|4]      Butterworth, as biquads; fc below half the rate at that
//   lowpass[fc=HZ,order=2|4]       point of the chain; order 2 when not given
//   speed[factor=F]                plays F times as fast (0.01..100), pitch following: the
//                                  frames are resampled as if their rate were F times higher
//                                  and the result kept at the original rate
//   dcblock                        a first-order 5 Hz high-pass
// An unknown effect, an unknown option or a value out of range fails the creation with a
// message naming them.
//
// Streaming. Each stage takes all the frames it is given and appends what it produces; the
// path keeps what the caller had no room for and hands it out first on the next call, and it
// takes input in slices so that this held output stays small. Gain, mix and the filters work
// sample by sample with no delay; the resamplers hold a delay line whose tail comes out when
// the caller flushes. After a completed flush the path starts afresh with the next input.
#include "backend.h"
#include "biquad.h"

#include <sova/audio.h>
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <soxr.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace {

using sova::audio::Biquad;
using sova::audio::butterworth;
using sova::audio::kPi;
using sova::audio::lowered;
using sova::audio::trimmed;

// Input frames taken per slice: bounds the output held between calls.
constexpr int64_t kSliceFrames = 8192;
// Same limit as the stream converter: wider ratios make soxr build huge filters.
constexpr double kMaxRatio = 256.0;

// ---- stages --------------------------------------------------------------------------------

class Stage
{
public:
    Stage(int32_t channels, double rate) : inChannels(channels), outChannels(channels),
        inRate(rate), outRate(rate)
    {
    }
    virtual ~Stage() = default;
    // Takes all `frames` frames of in and appends the frames produced to out; false (error
    // recorded) on failure.
    virtual bool process(const float* in, int64_t frames, std::vector<float>& out) = 0;
    // The input has ended: appends what the stage still holds.
    virtual bool flush(std::vector<float>& out)
    {
        (void)out;
        return true;
    }
    // Back to the state of a fresh stage.
    virtual void reset() {}

    int32_t inChannels, outChannels;
    double inRate, outRate;
    double lengthScale = 1.0; // output length over input length, rate changes aside
};

// Appends room for `frames` frames of `channels` channels and returns where it starts.
float* grow(std::vector<float>& out, int64_t frames, int32_t channels)
{
    const size_t old = out.size();
    out.resize(old + static_cast<size_t>(frames) * static_cast<size_t>(channels));
    return out.data() + old;
}

class GainStage : public Stage
{
public:
    GainStage(int32_t channels, double rate, float factor) : Stage(channels, rate), m_factor(factor)
    {
    }
    bool process(const float* in, int64_t frames, std::vector<float>& out) override
    {
        const int64_t n = frames * inChannels;
        float* dst = grow(out, frames, inChannels);
        for (int64_t i = 0; i < n; ++i)
            dst[i] = in[i] * m_factor;
        return true;
    }

private:
    float m_factor;
};

class MixStage : public Stage
{
public:
    // From the layout inMask (0: the default for the count) to the default layout of target.
    MixStage(int32_t channels, double rate, int32_t target, uint32_t inMask = 0)
        : Stage(channels, rate), m_map(channels, inMask, target, 0)
    {
        outChannels = target;
    }
    bool process(const float* in, int64_t frames, std::vector<float>& out) override
    {
        float* dst = grow(out, frames, outChannels);
        m_map.apply(in, dst, frames);
        return true;
    }

private:
    sova::audio::ChannelMap m_map;
};



// First-order high-pass (bilinear, pre-warped corner) as a degenerate biquad.
Biquad firstOrderHighPass(double fc, double rate)
{
    const double k = std::tan(kPi * fc / rate);
    Biquad s;
    s.b0 = 1.0 / (1.0 + k);
    s.b1 = -s.b0;
    s.b2 = 0.0;
    s.a1 = (k - 1.0) / (k + 1.0);
    s.a2 = 0.0;
    return s;
}

class FilterStage : public Stage
{
public:
    FilterStage(int32_t channels, double rate, std::vector<Biquad> sections)
        : Stage(channels, rate), m_prototype(std::move(sections))
    {
        reset();
    }
    bool process(const float* in, int64_t frames, std::vector<float>& out) override
    {
        const int32_t nc = inChannels;
        float* dst = grow(out, frames, nc);
        const size_t ns = m_prototype.size();
        for (int32_t c = 0; c < nc; ++c) {
            Biquad* chain = m_state.data() + static_cast<size_t>(c) * ns;
            for (int64_t f = 0; f < frames; ++f) {
                double x = in[f * nc + c];
                for (size_t s = 0; s < ns; ++s)
                    x = chain[s].run(x);
                dst[f * nc + c] = static_cast<float>(x);
            }
        }
        return true;
    }
    void reset() override
    {
        m_state.clear();
        for (int32_t c = 0; c < inChannels; ++c)
            m_state.insert(m_state.end(), m_prototype.begin(), m_prototype.end());
    }

private:
    std::vector<Biquad> m_prototype; // at rest
    std::vector<Biquad> m_state; // channel after channel
};

// soxr from inRate to outRate; for speed, the input is declared factor times faster than it is
// and the output keeps the input's rate.
class ResampleStage : public Stage
{
public:
    ResampleStage(int32_t channels, double rate) : Stage(channels, rate) {}
    ~ResampleStage() override
    {
        if (m_soxr)
            soxr_delete(m_soxr);
    }
    // false (recorded) when soxr refuses.
    bool start(double fromRate, double toRate, const std::string& what)
    {
        m_ratio = toRate / fromRate;
        if (!(m_ratio * kMaxRatio >= 1.0 && m_ratio <= kMaxRatio)) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': ratio %g is out of range",
                        what.c_str(), m_ratio);
            return false;
        }
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
        soxr_error_t error = nullptr;
        m_soxr = soxr_create(fromRate, toRate, static_cast<unsigned>(inChannels), &error, &io,
                             &quality, nullptr);
        if (!m_soxr || error) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': the resampler cannot start: %s",
                        what.c_str(), error ? error : "unknown reason");
            return false;
        }
        return true;
    }
    bool process(const float* in, int64_t frames, std::vector<float>& out) override
    {
        return run(in, frames, out);
    }
    bool flush(std::vector<float>& out) override
    {
        // soxr may need several calls to drain; it has nothing more once a call gives none.
        for (;;) {
            const size_t mark = out.size();
            if (!run(nullptr, 0, out))
                return false;
            if (out.size() == mark)
                break;
        }
        return true;
    }
    void reset() override { soxr_clear(m_soxr); }

private:
    bool run(const float* in, int64_t frames, std::vector<float>& out)
    {
        const size_t nc = static_cast<size_t>(inChannels);
        int64_t left = frames;
        for (;;) {
            const int64_t room = static_cast<int64_t>(std::ceil(left * m_ratio)) + 1024;
            const size_t old = out.size();
            float* dst = grow(out, room, inChannels);
            size_t used = 0, made = 0;
            const soxr_error_t error = soxr_process(m_soxr, in, static_cast<size_t>(left),
                                                    &used, dst, static_cast<size_t>(room), &made);
            out.resize(old + made * nc);
            if (error) {
                BLERROR_Set(BLERR_INVALID_ARGUMENT, "resampling failed: %s", error);
                return false;
            }
            if (in) {
                in += used * nc;
                left -= static_cast<int64_t>(used);
            }
            // Done when all is taken and soxr did not fill the room (it holds nothing ready).
            if (left == 0 && made < static_cast<size_t>(room))
                return true;
        }
    }

    soxr_t m_soxr = nullptr;
    double m_ratio = 1.0;
};

// ---- parsing -------------------------------------------------------------------------------

// Splits at `separator` where it stands outside quotes and brackets.
std::vector<std::string> splitOutside(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::string current;
    int depth = 0;
    char quote = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char ch = text[i];
        if (quote) {
            if (ch == '\\' && i + 1 < text.size()) {
                current += ch;
                current += text[++i];
                continue;
            }
            if (ch == quote)
                quote = 0;
        } else if (ch == '"' || ch == '\'') {
            quote = ch;
        } else if (ch == '[') {
            ++depth;
        } else if (ch == ']') {
            depth = std::max(0, depth - 1);
        } else if (ch == separator && depth == 0) {
            parts.push_back(current);
            current.clear();
            continue;
        }
        current += ch;
    }
    parts.push_back(current);
    return parts;
}

// One effect of the description: its name and option string.
struct EffectText
{
    std::string name; // lower case
    std::string whole; // as written, for messages
    std::string options;

    // false (recorded) when the options hold a key outside `known`.
    bool checkKeys(const std::vector<std::string>& known) const
    {
        for (const std::string& item : splitOutside(options, ',')) {
            const std::string key = lowered(trimmed(item.substr(0, item.find('='))));
            if (key.empty() && trimmed(item).empty())
                continue;
            if (std::find(known.begin(), known.end(), key) == known.end()) {
                std::string list;
                for (const std::string& k : known)
                    list += (list.empty() ? "" : ", ") + k;
                BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': unknown option '%s' (%s)",
                            name.c_str(), key.c_str(), list.empty() ? "none" : list.c_str());
                return false;
            }
        }
        return true;
    }
    bool has(const char* key) const
    {
        return BLSTRING_KeyExistsInString(options.c_str(), key) != 0;
    }
    // The key's number within [lo, hi]; false (recorded) when absent and required, malformed
    // or out of range. When absent and not required, *value is left alone.
    bool number(const char* key, double lo, double hi, bool required, double* value) const
    {
        if (!has(key)) {
            if (required)
                BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': option '%s' is required",
                            name.c_str(), key);
            return !required;
        }
        const double v = BLSTRING_GetDoubleValueFromString(options.c_str(), key, NAN);
        if (!(v >= lo && v <= hi)) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT,
                        "effect '%s': option '%s' must be a number from %g to %g", name.c_str(),
                        key, lo, hi);
            return false;
        }
        *value = v;
        return true;
    }
    bool integer(const char* key, int32_t lo, int32_t hi, bool required, int32_t* value) const
    {
        double v = *value;
        if (!number(key, lo, hi, required, &v))
            return false;
        if (v != std::floor(v)) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': option '%s' must be an integer",
                        name.c_str(), key);
            return false;
        }
        *value = static_cast<int32_t>(v);
        return true;
    }
};

// "name[options]" -> EffectText; false (recorded) for unbalanced brackets.
bool splitEffect(const std::string& item, EffectText& out)
{
    out.whole = trimmed(item);
    std::string name = out.whole;
    const auto open = out.whole.find('[');
    if (open != std::string::npos) {
        const auto close = out.whole.rfind(']');
        if (close == std::string::npos || close < open || close + 1 != out.whole.size()) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': unbalanced brackets",
                        out.whole.c_str());
            return false;
        }
        name = out.whole.substr(0, open);
        out.options = out.whole.substr(open + 1, close - open - 1);
    }
    out.name = lowered(trimmed(name));
    return true;
}

using StagePtr = std::unique_ptr<Stage>;

StagePtr makeResample(int32_t channels, double rate, double toRate, const std::string& what)
{
    auto stage = std::make_unique<ResampleStage>(channels, rate);
    stage->outRate = toRate;
    if (!stage->start(rate, toRate, what))
        return nullptr;
    return stage;
}

// The stage for one effect at the given point of the chain; null (recorded) on error.
StagePtr makeStage(const EffectText& fx, int32_t channels, double rate, uint32_t mask = 0)
{
    const std::string& n = fx.name;
    if (n == "gain") {
        if (!fx.checkKeys({"db", "factor"}))
            return nullptr;
        double db = 0.0, factor = 1.0;
        if (fx.has("db") && fx.has("factor")) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect 'gain': give db or factor, not both");
            return nullptr;
        }
        if (!fx.number("db", -200.0, 200.0, false, &db)
            || !fx.number("factor", -1e9, 1e9, false, &factor))
            return nullptr;
        if (fx.has("db"))
            factor = std::pow(10.0, db / 20.0);
        return std::make_unique<GainStage>(channels, rate, static_cast<float>(factor));
    }
    if (n == "resample") {
        if (!fx.checkKeys({"sr"}))
            return nullptr;
        int32_t sr = 0;
        if (!fx.integer("sr", 10, 500000, true, &sr))
            return nullptr;
        if (sr == rate) // nothing to do: a plain copy keeps the path exact
            return std::make_unique<GainStage>(channels, rate, 1.0f);
        return makeResample(channels, rate, sr, n);
    }
    if (n == "speed") {
        if (!fx.checkKeys({"factor"}))
            return nullptr;
        double factor = 1.0;
        if (!fx.number("factor", 0.01, 100.0, true, &factor))
            return nullptr;
        if (factor == 1.0)
            return std::make_unique<GainStage>(channels, rate, 1.0f);
        StagePtr stage = makeResample(channels, rate, rate / factor, n);
        if (stage) {
            // The output is taken at the original rate: only the length changes.
            stage->outRate = rate;
            stage->lengthScale = 1.0 / factor;
        }
        return stage;
    }
    if (n == "mix") {
        if (!fx.checkKeys({"nch"}))
            return nullptr;
        int32_t nch = 0;
        if (!fx.integer("nch", 1, 8, true, &nch))
            return nullptr;
        if (nch == channels)
            return std::make_unique<GainStage>(channels, rate, 1.0f);
        return std::make_unique<MixStage>(channels, rate, nch, mask);
    }
    if (n == "highpass" || n == "lowpass") {
        if (!fx.checkKeys({"fc", "order"}))
            return nullptr;
        double fc = 0.0;
        int32_t order = 2;
        if (!fx.number("fc", 1e-3, 1e9, true, &fc) || !fx.integer("order", 2, 4, false, &order))
            return nullptr;
        if (order != 2 && order != 4) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect '%s': order %d (2 or 4)", n.c_str(),
                        order);
            return nullptr;
        }
        if (!(fc < rate / 2.0)) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT,
                        "effect '%s': cut-off %g Hz is not below half the rate (%g Hz)",
                        n.c_str(), fc, rate / 2.0);
            return nullptr;
        }
        return std::make_unique<FilterStage>(channels, rate,
                                             butterworth(n == "highpass", fc, order, rate));
    }
    if (n == "dcblock") {
        if (!fx.checkKeys({}))
            return nullptr;
        return std::make_unique<FilterStage>(
            channels, rate, std::vector<Biquad> {firstOrderHighPass(5.0, rate)});
    }
    BLERROR_Set(BLERR_INVALID_ARGUMENT,
                "unknown effect '%s' (gain, resample, mix, highpass, lowpass, speed, dcblock)",
                n.c_str());
    return nullptr;
}

} // namespace

// ---- the path ------------------------------------------------------------------------------

struct _AUDIOFXPATH
{
    std::vector<StagePtr> stages;
    int32_t inChannels = 0, outChannels = 0;
    double inRate = 0, outRate = 0;
    double scale = 1.0;
    std::vector<float> held; // output the caller had no room for yet
    size_t heldAt = 0; // floats of held already handed out
    std::vector<float> a, b; // between stages
    bool flushed = false; // the stages have been flushed; new input resets them

    // Runs frames (or, for null in, the flush) through every stage into held.
    bool run(const float* in, int64_t frames)
    {
        if (heldAt == held.size()) {
            held.clear();
            heldAt = 0;
        }
        if (stages.empty()) {
            if (in)
                held.insert(held.end(), in, in + frames * inChannels);
            return true;
        }
        const float* src = in;
        int64_t count = frames;
        std::vector<float>* dst = &a;
        for (size_t i = 0; i < stages.size(); ++i) {
            Stage& s = *stages[i];
            dst->clear();
            if (src && count > 0 && !s.process(src, count, *dst))
                return false;
            if (!in && !s.flush(*dst))
                return false;
            src = dst->data();
            count = static_cast<int64_t>(dst->size()) / s.outChannels;
            dst = dst == &a ? &b : &a;
        }
        held.insert(held.end(), src, src + count * outChannels);
        return true;
    }
    // Moves held output into out; returns the frames moved.
    int64_t drain(float* out, int64_t room)
    {
        const int64_t ready = static_cast<int64_t>(held.size() - heldAt) / outChannels;
        const int64_t n = std::min(ready, room);
        if (n > 0) {
            std::memcpy(out, held.data() + heldAt,
                        static_cast<size_t>(n * outChannels) * sizeof(float));
            heldAt += static_cast<size_t>(n * outChannels);
        }
        return n;
    }
};

namespace {

_audio_format floatFormat(double rate, int32_t channels)
{
    _audio_format f = AUDIO_FormatEx(
        static_cast<int32_t>(std::lround(rate)), static_cast<int16_t>(channels), 32);
    // Float samples, not 32-bit integers: a file written in this format keeps them float.
    f.coder = AUDIO_CODEC_FLOAT32;
    return f;
}

bool appendStage(_AUDIOFXPATH& path, StagePtr stage)
{
    if (!stage)
        return false;
    path.scale *= stage->lengthScale;
    path.outRate = stage->outRate;
    path.outChannels = stage->outChannels;
    path.stages.push_back(std::move(stage));
    return true;
}

} // namespace

extern "C" {

_AUDIOFXPATH* AUDIOFX_CreatePathEx(const _audio_format* input, int32_t outputRate,
                                   int32_t outputChannels, uint32_t flags,
                                   const char* description)
{
    (void)flags;
    if (!input || input->sampleRate < 10 || input->sampleRate > 500000 || input->numChannels < 1
        || input->numChannels > 8) {
        BLERROR_Set(AUDIOERR_INVALID_FORMAT, "effect path: bad input format (%d Hz, %d channels)",
                    input ? input->sampleRate : 0, input ? input->numChannels : 0);
        return nullptr;
    }
    if ((outputRate != -1 && (outputRate < 10 || outputRate > 500000))
        || (outputChannels != -1 && (outputChannels < 1 || outputChannels > 8))) {
        BLERROR_Set(AUDIOERR_INVALID_FORMAT,
                    "effect path: bad output format (%d Hz, %d channels)", outputRate,
                    outputChannels);
        return nullptr;
    }
    try {
        auto path = std::make_unique<_AUDIOFXPATH>();
        path->inRate = path->outRate = input->sampleRate;
        path->inChannels = path->outChannels = input->numChannels;
        // The input's layout until a stage changes the channels, then the default of the count.
        uint32_t mask = AUDIO_FormatChannelMask(input);
        for (const std::string& item : splitOutside(description ? description : "", ';')) {
            if (trimmed(item).empty())
                continue;
            EffectText fx;
            if (!splitEffect(item, fx)
                || !appendStage(*path, makeStage(fx, path->outChannels, path->outRate, mask)))
                return nullptr;
            if (path->stages.back()->outChannels != path->stages.back()->inChannels)
                mask = 0;
        }
        // Conversions to what the caller asked for: fewer channels before resampling, more
        // after, so that soxr works on the fewest.
        const bool mixFirst = outputChannels != -1 && outputChannels < path->outChannels;
        const auto mix = [&]() {
            return outputChannels == -1 || outputChannels == path->outChannels
                || appendStage(*path, std::make_unique<MixStage>(path->outChannels, path->outRate,
                                                                 outputChannels, mask));
        };
        if (mixFirst && !mix())
            return nullptr;
        if (outputRate != -1 && outputRate != path->outRate
            && !appendStage(*path, makeResample(path->outChannels, path->outRate, outputRate,
                                                "resample")))
            return nullptr;
        if (!mixFirst && !mix())
            return nullptr;
        return path.release();
    } catch (const std::exception&) {
        BLERROR_Set(BLERR_NO_MEMORY, "effect path: out of memory");
        return nullptr;
    }
}

int32_t AUDIOFX_ProcessSamples(_AUDIOFXPATH* path, const float* in, int64_t* inCount,
                               float* out, int64_t* outCount, int32_t flush)
{
    if (!path)
        return 0;
    if (!inCount || !outCount || *inCount < 0 || *outCount < 0 || (!in && *inCount > 0)
        || (!out && *outCount > 0)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "effect path: bad buffers or counts");
        return 0;
    }
    const int64_t offered = *inCount, room = *outCount;
    int64_t taken = 0, made = 0;
    try {
        made += path->drain(out, room);
        while (made < room && taken < offered) {
            if (path->flushed) {
                for (StagePtr& s : path->stages)
                    s->reset();
                path->flushed = false;
            }
            const int64_t n = std::min(kSliceFrames, offered - taken);
            if (!path->run(in + taken * path->inChannels, n))
                return 0;
            taken += n;
            made += path->drain(out + made * path->outChannels, room - made);
        }
        if (flush && taken == offered && !path->flushed && made < room) {
            if (!path->run(nullptr, 0))
                return 0;
            path->flushed = true;
            made += path->drain(out + made * path->outChannels, room - made);
        }
    } catch (const std::exception&) {
        BLERROR_Set(BLERR_NO_MEMORY, "effect path: out of memory");
        return 0;
    }
    *inCount = taken;
    *outCount = made;
    return 1;
}

double AUDIOFX_GetScaleFactor(_AUDIOFXPATH* path)
{
    return path ? path->scale : 0.0;
}

_audio_format AUDIOFX_GetInputFormat(_AUDIOFXPATH* path)
{
    _audio_format format;
    AUDIO_NullFormat(&format);
    return path ? floatFormat(path->inRate, path->inChannels) : format;
}

_audio_format AUDIOFX_GetOutputFormat(_AUDIOFXPATH* path)
{
    _audio_format format;
    AUDIO_NullFormat(&format);
    return path ? floatFormat(path->outRate, path->outChannels) : format;
}

void AUDIOFX_DestroyPath(_AUDIOFXPATH* path)
{
    delete path;
}

} // extern "C"
