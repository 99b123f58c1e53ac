// Inside the audio engine: second-order filter sections, shared by the level transforms and
// the effect paths.
#ifndef SOVA_AUDIO_BIQUAD_H
#define SOVA_AUDIO_BIQUAD_H

#include <cmath>
#include <complex>
#include <vector>

namespace sova::audio {

constexpr double kPi = 3.14159265358979323846;

// One section in transposed direct form II; coefficients normalised by a0.
struct Biquad
{
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    double z1 = 0, z2 = 0;

    double run(double x)
    {
        const double y = b0 * x + z1;
        z1 = b1 * x - a1 * y + z2;
        z2 = b2 * x - a2 * y;
        return y;
    }
    // Complex response at hz for a sample rate.
    std::complex<double> response(double hz, double rate) const
    {
        const std::complex<double> zi = std::polar(1.0, -2.0 * kPi * hz / rate); // z^-1
        return (b0 + zi * (b1 + zi * b2)) / (1.0 + zi * (a1 + zi * a2));
    }
};

// Butterworth sections of an even order (cookbook biquads with pre-warped corner).
inline std::vector<Biquad> butterworth(bool highPass, double fc, int order, double rate)
{
    std::vector<Biquad> out;
    const double w0 = 2.0 * kPi * fc / rate;
    const double c = std::cos(w0);
    for (int k = 1; k <= order / 2; ++k) {
        const double q = 1.0 / (2.0 * std::cos((2 * k - 1) * kPi / (2.0 * order)));
        const double alpha = std::sin(w0) / (2.0 * q);
        const double a0 = 1.0 + alpha;
        Biquad s;
        if (highPass) {
            s.b0 = (1.0 + c) / 2.0 / a0;
            s.b1 = -(1.0 + c) / a0;
        } else {
            s.b0 = (1.0 - c) / 2.0 / a0;
            s.b1 = (1.0 - c) / a0;
        }
        s.b2 = s.b0;
        s.a1 = -2.0 * c / a0;
        s.a2 = (1.0 - alpha) / a0;
        out.push_back(s);
    }
    return out;
}

} // namespace sova::audio

#endif
