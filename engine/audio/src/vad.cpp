// Voice activity detector. Frames of 20 ms at any rate from 8 to 192 kHz are brought to 16 kHz
// (soxr, streaming, so one call still gives one decision), then every 20 ms frame is analysed
// over a 32 ms Hann window:
//   - a per-bin noise power from minimum statistics (the minimum of the smoothed power over
//     about two seconds, corrected for its bias), so stationary noise and steady tones sink
//     into the floor while speech, which keeps moving, stays above it;
//   - a held level per bin: the least smoothed power of the last 160 ms. Held and decaying
//     notes of music stay at it while speech, whose pitch and formants glide, keeps leaving
//     it; power up to 1.5 times the held level counts as noise too;
//   - the mean log-likelihood ratio of speech over 200..4000 Hz against that noise (Gaussian
//     model, a priori SNR from the decision-directed estimate);
//   - the harmonicity: the peak of the normalised autocorrelation over pitch lags 2.5..12.5 ms
//     of the 80..1500 Hz band, which noise lowers by its share of the power. It counts only
//     in proportion to the share of the power over the noise that is new (over the held
//     level), so steady tones, however periodic, do not pass for voiced speech;
//   - the steadiness: how closely the band's magnitude spectrum repeats the one 40 ms before.
//     Notes repeat theirs (decay only scales it); speech does not for long.
// A logistic of these gives the score in [0, 1]; a hysteresis, minimum speech length, hangover
// and minimum silence turn it into decisions. A score well over the on threshold starts
// speech at once (minspeech only confirms the scores between the two); such a segment that
// falls back under the off threshold on a steady spectrum before minspeech worth of frames
// over the on threshold (the attack of a note) ends there, without the hangover.
#include "backend.h"

#include <sova/audiostream.h>
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <soxr.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace sova::audio;

namespace {

constexpr int kRate = 16000; // internal analysis rate
constexpr int kHop = 320; // 20 ms at kRate
constexpr int kWindow = 512; // 32 ms analysis window
constexpr int kFft = 1024; // zero-padded, so the autocorrelation does not wrap
constexpr int kBins = kFft / 2 + 1;
constexpr double kBinHz = double(kRate) / kFft;
constexpr int kSettleFrames = 10; // -1 while the noise estimate settles (200 ms)
constexpr int kSubFrames = 12; // minimum statistics: U sub-windows of V frames
constexpr int kSubWindows = 8;
constexpr int kPitchLow = 5; // first bin of the harmonicity band (about 80 Hz)
constexpr int kHoldFrames = 8; // a partial held this long (160 ms) counts as steady
constexpr float kHoldMargin = 1.5f; // power over the held level that counts as new
constexpr int kSteadyLag = 2; // frames between the spectra compared for steadiness
constexpr float kSteadyFrom = 0.93f; // similarity from which a spectrum starts to count as
constexpr float kSteadyTo = 0.99f; // steady, and to which it is wholly steady
constexpr float kSteadyWeight = 20.0f; // logit taken off a wholly steady frame
constexpr float kNovelty = 0.5f; // share of new power above which harmonicity counts fully

// In-place radix-2 complex FFT of kFft points with precomputed twiddles and bit reversal.
class Fft
{
public:
    Fft() : m_twiddle(kFft / 2), m_reverse(kFft)
    {
        for (int i = 0; i < kFft / 2; ++i)
            m_twiddle[i] = std::polar(1.0f, float(-2.0 * M_PI * i / kFft));
        int bits = 0;
        while ((1 << bits) < kFft)
            ++bits;
        for (int i = 0; i < kFft; ++i) {
            int r = 0;
            for (int b = 0; b < bits; ++b)
                r |= ((i >> b) & 1) << (bits - 1 - b);
            m_reverse[i] = r;
        }
    }

    void forward(std::complex<float>* x) const
    {
        for (int i = 0; i < kFft; ++i)
            if (i < m_reverse[i])
                std::swap(x[i], x[m_reverse[i]]);
        for (int len = 2; len <= kFft; len <<= 1) {
            const int half = len / 2, step = kFft / len;
            for (int start = 0; start < kFft; start += len) {
                for (int j = 0; j < half; ++j) {
                    const std::complex<float> w = m_twiddle[j * step];
                    const std::complex<float> a = x[start + j];
                    const std::complex<float> b = x[start + j + half] * w;
                    x[start + j] = a + b;
                    x[start + j + half] = a - b;
                }
            }
        }
    }

private:
    std::vector<std::complex<float>> m_twiddle;
    std::vector<int> m_reverse;
};

const Fft& fft()
{
    static const Fft instance;
    return instance;
}

struct Params
{
    int aggressiveness = 1;
    int hangoverMs = 200;
    int minSpeechMs = 60;
    int minSilenceMs = 200;
};

bool parseParams(const char* text, Params& p)
{
    if (!text)
        return true;
    static const char* const known[] = {"aggressiveness", "hangover", "minspeech", "minsilence"};
    // Every key must be known: a misspelt one would otherwise be silently ignored.
    const std::string all(text);
    size_t start = 0;
    while (start <= all.size()) {
        size_t end = all.find(',', start);
        if (end == std::string::npos)
            end = all.size();
        std::string item = all.substr(start, end - start);
        const size_t eq = item.find('=');
        std::string key = item.substr(0, eq);
        key.erase(0, key.find_first_not_of(" \t\r\n"));
        key.erase(key.find_last_not_of(" \t\r\n") + 1);
        for (char& c : key)
            c = char(std::tolower(static_cast<unsigned char>(c)));
        if (!key.empty()
            && std::none_of(std::begin(known), std::end(known),
                            [&](const char* k) { return key == k; })) {
            setError(AUDIOERR_UNSUPPORTED, "voice activity parameters: unknown key '%s'",
                     key.c_str());
            return false;
        }
        start = end + 1;
    }
    struct Item
    {
        const char* key;
        int* value;
        int low, high;
    } items[] = {{"aggressiveness", &p.aggressiveness, 0, 3},
                 {"hangover", &p.hangoverMs, 0, 10000},
                 {"minspeech", &p.minSpeechMs, 0, 10000},
                 {"minsilence", &p.minSilenceMs, 0, 10000}};
    for (const Item& item : items) {
        if (!BLSTRING_KeyExistsInString(text, item.key))
            continue;
        const int64_t sentinel = INT64_MIN;
        const int64_t v = BLSTRING_GetInteger64ValueFromString(text, item.key, sentinel);
        if (v == sentinel || v < item.low || v > item.high) {
            setError(AUDIOERR_UNSUPPORTED,
                     "voice activity parameters: %s must be a whole number from %d to %d",
                     item.key, item.low, item.high);
            return false;
        }
        *item.value = int(v);
    }
    return true;
}

// Score thresholds (on, off) by aggressiveness: higher needs more evidence of speech.
constexpr float kOnThreshold[4] = {0.35f, 0.5f, 0.62f, 0.75f};
constexpr float kHysteresis = 0.15f;
// A score this far over the on threshold (capped) starts speech at once, without minspeech.
constexpr float kSureMargin = 0.3f;
constexpr float kSureMax = 0.95f;

} // namespace

struct _AUDIOVAD
{
    int32_t rate = kRate;
    int32_t frameSamples = kHop;
    Params params;
    soxr_t resampler = nullptr;

    std::vector<float> input; // one caller frame in the IEEE scale
    std::vector<float> resampled; // soxr output of one call
    std::vector<float> pending; // 16 kHz samples not yet analysed
    std::vector<float> history = std::vector<float>(kWindow, 0.0f); // the analysis window
    std::vector<float> window = std::vector<float>(kWindow);
    std::vector<std::complex<float>> spectrum = std::vector<std::complex<float>>(kFft);
    std::vector<float> power = std::vector<float>(kBins);
    std::vector<float> smoothed = std::vector<float>(kBins, 0.0f);
    std::vector<float> subMin = std::vector<float>(kBins, 0.0f); // current sub-window minimum
    std::vector<float> stored = std::vector<float>(size_t(kBins) * kSubWindows, 0.0f);
    std::vector<float> noise = std::vector<float>(kBins, 0.0f);
    std::vector<float> cleanPrev = std::vector<float>(kBins, 0.0f); // last |S|^2 estimate
    // The last kHoldFrames smoothed spectra of the speech band, by frame then bin.
    std::vector<float> recent = std::vector<float>(size_t(kHoldFrames) * kBins, 0.0f);
    std::vector<float> magnitudes = std::vector<float>(size_t(kSteadyLag + 1) * kBins, 0.0f);
    std::vector<float> steadyNoise = std::vector<float>(kBins, 0.0f);
    std::vector<float> windowAc = std::vector<float>(kFft / 2); // window autocorrelation
    std::vector<float> cosines; // cos(2 pi k lag / kFft), by lag then low-band bin
    int bandLow = 0, bandHigh = 0, pitchHigh = 0, lagLow = 0, lagHigh = 0;

    int64_t frames = 0; // analysed 16 kHz frames
    int subCount = 0, subIndex = 0, subFilled = 0;
    bool inSpeech = false;
    int speechRun = 0; // frames over the on threshold: consecutive, then in the segment
    int silenceRun = 0; // consecutive frames under the off threshold while in speech
    float lastScore = 0.0f;
    float steadiness = 0.0f; // of the last frame, 0..1
    int lastResult = -1;

    bool init(int32_t sampleRate)
    {
        rate = sampleRate;
        frameSamples = (sampleRate + 25) / 50;
        input.resize(size_t(frameSamples));
        for (int i = 0; i < kWindow; ++i)
            window[i] = float(0.5 - 0.5 * std::cos(2.0 * M_PI * (i + 0.5) / kWindow));
        // Autocorrelation of the window, to undo its taper on the lags.
        double zero = 0.0;
        for (int i = 0; i < kWindow; ++i)
            zero += double(window[i]) * window[i];
        for (int lag = 0; lag < kFft / 2; ++lag) {
            double sum = 0.0;
            for (int i = 0; i + lag < kWindow; ++i)
                sum += double(window[i]) * window[i + lag];
            windowAc[lag] = float(std::max(sum / zero, 1e-3));
        }
        bandLow = int(std::lround(200.0 / kBinHz));
        bandHigh = int(std::lround(4000.0 / kBinHz));
        pitchHigh = int(std::lround(1500.0 / kBinHz));
        lagLow = kRate / 400;
        lagHigh = kRate / 80;
        const int bins = pitchHigh - kPitchLow + 1;
        cosines.resize(size_t(lagHigh - lagLow + 1) * size_t(bins));
        for (int lag = lagLow; lag <= lagHigh; ++lag)
            for (int k = 0; k < bins; ++k)
                cosines[size_t(lag - lagLow) * size_t(bins) + size_t(k)]
                    = float(std::cos(2.0 * M_PI * (k + kPitchLow) * lag / kFft));
        if (rate != kRate) {
            const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
            const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_LQ, 0);
            soxr_error_t error = nullptr;
            resampler = soxr_create(rate, kRate, 1, &error, &io, &quality, nullptr);
            if (!resampler || error) {
                setError(AUDIOERR_UNSUPPORTED, "voice activity: cannot resample %d Hz: %s",
                         int(rate), error ? error : "");
                return false;
            }
            resampled.resize(size_t(frameSamples) * kRate / size_t(rate) + 64);
        }
        pending.reserve(4 * kHop);
        return true;
    }

    ~_AUDIOVAD()
    {
        if (resampler)
            soxr_delete(resampler);
    }

    // The score of one 20 ms frame at 16 kHz.
    float analyse(const float* hop)
    {
        std::memmove(history.data(), history.data() + kHop, (kWindow - kHop) * sizeof(float));
        std::memcpy(history.data() + (kWindow - kHop), hop, kHop * sizeof(float));
        for (int i = 0; i < kWindow; ++i)
            spectrum[i] = {history[i] * window[i], 0.0f};
        std::fill(spectrum.begin() + kWindow, spectrum.end(), std::complex<float>());
        fft().forward(spectrum.data());
        constexpr float kFloor = 1e-10f; // about -100 dB per bin: digital silence
        for (int k = 0; k < kBins; ++k)
            power[k] = std::norm(spectrum[k]) + kFloor;

        updateNoise();

        // The held level: per bin, the least smoothed power of the last kHoldFrames frames.
        // A sustained or decaying note stays at (or under) it; speech keeps leaving it.
        for (int f = frames == 1 ? 0 : kHoldFrames - 1; f < kHoldFrames; ++f) {
            // (The first frame fills every slot.)
            float* slot = recent.data() + size_t((frames + f) % kHoldFrames) * kBins;
            std::copy(smoothed.begin() + bandLow, smoothed.begin() + bandHigh + 1, slot + bandLow);
        }
        double fresh = 0.0, above = 0.0;
        for (int k = bandLow; k <= bandHigh; ++k) {
            float level = power[k];
            for (int f = 0; f < kHoldFrames; ++f)
                level = std::min(level, recent[size_t(f) * kBins + k]);
            const float base = std::max(noise[k], kHoldMargin * level);
            above += std::max(power[k] - noise[k], 0.0f);
            fresh += std::max(power[k] - base, 0.0f);
            steadyNoise[k] = base;
        }
        const float novelty = above > 0.0 ? float(fresh / above) : 0.0f;

        // Steadiness: the cosine similarity of the band's magnitude spectrum with that of
        // kSteadyLag frames before. A held note repeats its partials to within a fraction of
        // a percent even while it decays; speech moves its pitch and formants between.
        float* mag = magnitudes.data() + size_t(frames % (kSteadyLag + 1)) * kBins;
        const float* before = magnitudes.data() + size_t((frames + 1) % (kSteadyLag + 1)) * kBins;
        double dot = 0.0, norm = 0.0, normBefore = 0.0;
        for (int k = bandLow; k <= bandHigh; ++k) {
            mag[k] = std::sqrt(power[k]);
            dot += double(mag[k]) * before[k];
            norm += double(mag[k]) * mag[k];
            normBefore += double(before[k]) * before[k];
        }
        const float similarity
            = normBefore > 0.0 ? float(dot / std::sqrt(norm * normBefore)) : 0.0f;
        steadiness
            = std::clamp((similarity - kSteadyFrom) / (kSteadyTo - kSteadyFrom), 0.0f, 1.0f);

        // Mean log-likelihood ratio over the speech band, against noise and held partials.
        constexpr float kDd = 0.9f;
        double llr = 0.0;
        for (int k = bandLow; k <= bandHigh; ++k) {
            const float gamma = std::min(power[k] / steadyNoise[k], 1e4f);
            const float xi = std::max(kDd * cleanPrev[k] / steadyNoise[k]
                                          + (1.0f - kDd) * std::max(gamma - 1.0f, 0.0f),
                                      1e-3f);
            const float gain = xi / (1.0f + xi);
            cleanPrev[k] = gain * gain * power[k];
            llr += gamma * gain - std::log1p(xi);
        }
        llr /= (bandHigh - bandLow + 1);

        // Harmonicity: the normalised autocorrelation of the low band, from its power
        // spectrum (a cosine sum over the few bins involved, cheaper than a second FFT).
        float harmonicity = 0.0f;
        const int bins = pitchHigh - kPitchLow + 1;
        const float* low = power.data() + kPitchLow;
        float r0 = 0.0f;
        for (int k = 0; k < bins; ++k)
            r0 += low[k];
        if (r0 > 1e-6f) {
            for (int lag = lagLow; lag <= lagHigh; ++lag) {
                const float* c = cosines.data() + size_t(lag - lagLow) * size_t(bins);
                float r = 0.0f;
                for (int k = 0; k < bins; ++k)
                    r += low[k] * c[k];
                harmonicity = std::max(harmonicity, r / (r0 * windowAc[lag]));
            }
        }
        harmonicity = std::clamp(harmonicity, 0.0f, 1.0f);

        const float z = 1.5f * std::log(std::max(float(llr), 1e-3f) / 0.5f)
                        + 8.0f * (harmonicity * std::min(1.0f, novelty / kNovelty) - 0.55f)
                        - kSteadyWeight * steadiness;
        return 1.0f / (1.0f + std::exp(-z));
    }

    // Minimum statistics: smoothed power, its minimum over kSubWindows sub-windows of
    // kSubFrames frames, times the bias of a minimum of smoothed periodograms.
    void updateNoise()
    {
        constexpr float kSmooth = 0.7f;
        constexpr float kBias = 1.9f;
        if (frames == 0) {
            std::copy(power.begin(), power.end(), smoothed.begin());
            std::copy(power.begin(), power.end(), subMin.begin());
        }
        for (int k = 0; k < kBins; ++k) {
            smoothed[k] = kSmooth * smoothed[k] + (1.0f - kSmooth) * power[k];
            subMin[k] = std::min(subMin[k], smoothed[k]);
        }
        if (frames < kSettleFrames) {
            // While settling, the noise is the running mean: the start is taken as noise. Once
            // settled, the mean seeds the minima, which real ones replace as they come lower.
            const float w = 1.0f / float(frames + 1);
            for (int k = 0; k < kBins; ++k)
                noise[k] = frames == 0 ? power[k] : (1.0f - w) * noise[k] + w * power[k];
            if (frames + 1 == kSettleFrames) {
                for (int k = 0; k < kBins; ++k) {
                    smoothed[k] = noise[k];
                    subMin[k] = noise[k] / kBias;
                    for (int u = 0; u < kSubWindows; ++u)
                        stored[size_t(u) * kBins + k] = noise[k] / kBias;
                }
                subFilled = kSubWindows;
                subCount = 0;
            }
            ++frames;
            return;
        } else {
            for (int k = 0; k < kBins; ++k) {
                float m = subMin[k];
                for (int u = 0; u < subFilled; ++u)
                    m = std::min(m, stored[size_t(u) * kBins + k]);
                noise[k] = kBias * m;
            }
        }
        if (++subCount == kSubFrames) {
            std::copy(subMin.begin(), subMin.end(), stored.begin() + size_t(subIndex) * kBins);
            subIndex = (subIndex + 1) % kSubWindows;
            subFilled = std::min(subFilled + 1, kSubWindows);
            subCount = 0;
            std::copy(smoothed.begin(), smoothed.end(), subMin.begin());
        }
        ++frames;
    }

    // The decision for a new score.
    int decide(float score)
    {
        const float on = kOnThreshold[params.aggressiveness];
        const float off = on - kHysteresis;
        const float sure = std::min(on + kSureMargin, kSureMax);
        const int minSpeech = std::max(1, (params.minSpeechMs + 19) / 20);
        const int hold = std::max(1, (std::max(params.hangoverMs, params.minSilenceMs) + 19) / 20);
        if (frames <= kSettleFrames)
            return -1;
        if (!inSpeech) {
            speechRun = score >= on ? speechRun + 1 : 0;
            if (speechRun >= minSpeech || score >= sure) {
                inSpeech = true;
                silenceRun = 0;
                return 2;
            }
            return 0;
        }
        silenceRun = score < off ? silenceRun + 1 : 0;
        // speechRun now counts the segment's frames over the on threshold. A segment started
        // at once that drops on a steady spectrum before it is confirmed was a note's attack.
        speechRun += score >= on;
        const bool unconfirmed = silenceRun > 0 && speechRun < minSpeech && steadiness >= 0.5f;
        if (silenceRun >= hold || unconfirmed) {
            inSpeech = false;
            speechRun = 0;
            return 0;
        }
        return 1;
    }

    // One caller frame in the IEEE scale (input).
    int process(int64_t* position, float* value)
    {
        const float* data = input.data();
        size_t count = input.size();
        if (resampler) {
            size_t used = 0, made = 0;
            const soxr_error_t error = soxr_process(resampler, data, count, &used,
                                                    resampled.data(), resampled.size(), &made);
            if (error) {
                setError(AUDIOERR_UNSUPPORTED, "voice activity: resampling failed: %s", error);
                return 0;
            }
            data = resampled.data();
            count = made;
        }
        pending.insert(pending.end(), data, data + count);
        // Usually one 16 kHz frame per call; the resampler's delay and rounding of the frame
        // length make it zero or two now and then. The onset of any frame is kept.
        size_t offset = 0;
        bool onset = false;
        bool any = false;
        while (pending.size() - offset >= size_t(kHop)) {
            lastScore = analyse(pending.data() + offset);
            lastResult = decide(lastScore);
            onset = onset || lastResult == 2;
            any = true;
            offset += kHop;
        }
        pending.erase(pending.begin(), pending.begin() + long(offset));
        if (position)
            *position += frameSamples;
        if (value)
            *value = lastResult < 0 ? 0.0f : lastScore;
        if (any && onset && lastResult == 1)
            return 2;
        return any || lastResult < 0 ? lastResult : (inSpeech ? 1 : 0);
    }
};

namespace {

// False for a null detector, and (recorded) for a null frame.
bool frameUsable(const _AUDIOVAD* vad, const void* frame)
{
    if (vad && !frame)
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "voice activity: null frame");
    return vad && frame;
}

} // namespace

extern "C" {

_AUDIOVAD* AUDIO_VAD_Init(int32_t sampleRate, const char* parameters)
{
    if (sampleRate < 8000 || sampleRate > 192000) {
        setError(AUDIOERR_INVALID_FORMAT,
                 "voice activity: the rate must be from 8000 to 192000 Hz, not %d",
                 int(sampleRate));
        return nullptr;
    }
    Params params;
    if (!parseParams(parameters, params))
        return nullptr;
    std::unique_ptr<_AUDIOVAD> vad(new (std::nothrow) _AUDIOVAD);
    if (!vad) {
        BLERROR_Set(BLERR_NO_MEMORY, "out of memory making a voice activity detector");
        return nullptr;
    }
    vad->params = params;
    if (!vad->init(sampleRate))
        return nullptr;
    return vad.release();
}

void AUDIO_VAD_Destroy(_AUDIOVAD** vad)
{
    if (!vad)
        return;
    delete *vad;
    *vad = nullptr;
}

int32_t AUDIO_VAD_FrameNumSamples(_AUDIOVAD* vad)
{
    return vad ? vad->frameSamples : 0;
}

double AUDIO_VAD_FrameDuration(void)
{
    return 0.02;
}

int32_t AUDIO_VAD_Process16(_AUDIOVAD* vad, int64_t* position, const int16_t* frame,
                            float* value)
{
    if (!frameUsable(vad, frame))
        return 0;
    for (size_t i = 0; i < vad->input.size(); ++i)
        vad->input[i] = frame[i] * (1.0f / 32768.0f);
    return vad->process(position, value);
}

int32_t AUDIO_VAD_ProcessFloat(_AUDIOVAD* vad, int64_t* position, const float* frame,
                               float* value)
{
    if (!frameUsable(vad, frame))
        return 0;
    for (size_t i = 0; i < vad->input.size(); ++i)
        vad->input[i] = frame[i] * (1.0f / 32768.0f);
    return vad->process(position, value);
}

int32_t AUDIO_VAD_ProcessIEEEFloat(_AUDIOVAD* vad, int64_t* position, const float* frame,
                                   float* value)
{
    if (!frameUsable(vad, frame))
        return 0;
    std::copy(frame, frame + vad->input.size(), vad->input.begin());
    return vad->process(position, value);
}

} // extern "C"
