// Analysis windows, their normalisation and the conversion of power spectra to decibels.
//
// Coefficients are computed in double and stored as float. Every window is symmetric over its
// size N, with N-1 as the denominator, and the first half is mirrored into the second so the
// symmetry is exact.

#include <sova/dsp.h>

#include <cmath>
#include <cstddef>

namespace {

constexpr double kPi = 3.14159265358979323846;

const char* const kNames[DSPB_WINDOW_COUNT] = {
    "rectangular", "hann",     "hamming", "blackman", "bartlett", "welch",
    "blackman-harris", "gaussian", "kaiser", "flat-top", "nuttall",
};

// a0 - a1 cos(x) + a2 cos(2x) - a3 cos(3x) + a4 cos(4x), x = 2 pi n / (N-1)
double cosineSum(const double* a, int terms, double x)
{
    double v = 0.0;
    double sign = 1.0;
    for (int i = 0; i < terms; ++i) {
        v += sign * a[i] * std::cos(i * x);
        sign = -sign;
    }
    return v;
}

// Modified Bessel function of the first kind, order 0, by its power series.
double besselI0(double x)
{
    const double q = x * x / 4.0;
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 500; ++k) {
        term *= q / (double(k) * double(k));
        sum += term;
        if (term < sum * 1e-17)
            break;
    }
    return sum;
}

double coefficient(DSPBWINDOWTYPE type, int32_t n, int32_t size)
{
    static const double hann[] = {0.5, 0.5};
    static const double hamming[] = {0.54, 0.46};
    static const double blackman[] = {0.42, 0.5, 0.08};
    static const double blackmanHarris[] = {0.35875, 0.48829, 0.14128, 0.01168};
    static const double nuttall[] = {0.355768, 0.487396, 0.144232, 0.012604};
    // The 5-term flat-top, divided by the sum of its coefficients (4.636) so that its peak is 1
    // like the other windows'. The scale cancels in the decibel conversion anyway, as the norm
    // factor is taken from the coefficients themselves.
    static const double flatTop[] = {1.0 / 4.636, 1.93 / 4.636, 1.29 / 4.636, 0.388 / 4.636,
                                     0.028 / 4.636};
    constexpr double kGaussianSigma = 0.4;
    constexpr double kKaiserBeta = 8.6;

    const double m = double(size - 1);
    const double x = 2.0 * kPi * n / m;
    const double r = 2.0 * n / m - 1.0; // -1 .. 1 across the window

    switch (type) {
    case DSPB_WINDOW_RECTANGULAR:
        return 1.0;
    case DSPB_WINDOW_HANN:
        return cosineSum(hann, 2, x);
    case DSPB_WINDOW_HAMMING:
        return cosineSum(hamming, 2, x);
    case DSPB_WINDOW_BLACKMAN:
        return cosineSum(blackman, 3, x);
    case DSPB_WINDOW_BARTLETT:
        return 1.0 - std::fabs(r);
    case DSPB_WINDOW_WELCH:
        return 1.0 - r * r;
    case DSPB_WINDOW_BLACKMAN_HARRIS:
        return cosineSum(blackmanHarris, 4, x);
    case DSPB_WINDOW_GAUSSIAN: {
        const double g = (n - m / 2.0) / (kGaussianSigma * m / 2.0);
        return std::exp(-0.5 * g * g);
    }
    case DSPB_WINDOW_KAISER:
        return besselI0(kKaiserBeta * std::sqrt(std::fmax(0.0, 1.0 - r * r))) /
               besselI0(kKaiserBeta);
    case DSPB_WINDOW_FLATTOP:
        return cosineSum(flatTop, 5, x);
    case DSPB_WINDOW_NUTTALL:
        return cosineSum(nuttall, 4, x);
    default:
        return 0.0;
    }
}

char lowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
}

bool equalsIgnoringCase(const char* a, const char* b)
{
    for (; *a && *b; ++a, ++b) {
        if (lowerAscii(*a) != lowerAscii(*b))
            return false;
    }
    return *a == *b;
}

} // namespace

extern "C" {

int32_t DSPB_CreateWindow(DSPBWINDOWTYPE type, float* output, int32_t size)
{
    if (type < 0 || type >= DSPB_WINDOW_COUNT || !output || size < 1)
        return 0;
    if (size == 1) {
        output[0] = 1.0f;
        return 1;
    }
    for (int32_t n = 0; n < (size + 1) / 2; ++n) {
        const float w = float(coefficient(type, n, size));
        output[n] = w;
        output[size - 1 - n] = w;
    }
    return 1;
}

double DSPB_GetWindowNormFactor(const float* window, int32_t size)
{
    if (size < 1)
        return 1.0;
    double sum = double(size);
    if (window) {
        sum = 0.0;
        for (int32_t n = 0; n < size; ++n)
            sum += window[n];
    }
    const double norm = sum * sum / 4.0;
    return (norm > 0.0 && std::isfinite(norm)) ? norm : 1.0;
}

void DSPB_PSDtoDB(int32_t fftLength, const float* input, float* output, int32_t flags,
                  double normFactor, double dynamicRange)
{
    if (fftLength < 2 || !input || !output || flags != 0)
        return;
    // A norm factor that cannot divide counts as 1, as GetWindowNormFactor gives for no window.
    if (!(normFactor > 0.0) || !std::isfinite(normFactor))
        normFactor = 1.0;
    const double floorDb = -dynamicRange;
    const int32_t bins = fftLength / 2 + 1;
    for (int32_t k = 0; k < bins; ++k) {
        const double p = input[k];
        double db = floorDb;
        if (p > 0.0) { // false for NaN too
            db = 10.0 * std::log10(p / normFactor);
            if (!(db >= floorDb))
                db = floorDb;
        }
        output[k] = float(db);
    }
}

const char* DSPB_GetWindowName(DSPBWINDOWTYPE type)
{
    if (type < 0 || type >= DSPB_WINDOW_COUNT)
        return nullptr;
    return kNames[type];
}

DSPBWINDOWTYPE DSPB_GetWindowType(const char* name)
{
    if (!name)
        return DSPB_WINDOW_INVALID;
    for (DSPBWINDOWTYPE t = 0; t < DSPB_WINDOW_COUNT; ++t) {
        if (equalsIgnoringCase(name, kNames[t]))
            return t;
    }
    return DSPB_WINDOW_INVALID;
}

} // extern "C"
