#pragma once

#include "qtsovacore_export.h"

#include <QExplicitlySharedDataPointer>
#include <QString>
#include <QStringList>
#include <QVector>

class QDebug;

// Power spectra of blocks of samples: window, FFT, and optionally decibels over a fixed
// dynamic range. Copies share one analyser; the last one frees it.
class QTSOVACORE_EXPORT QSovaFft
{
public:
    // Window shapes, numbered for this class (the DSP library numbers them its own way).
    enum WinType {
        Rectangular = 0,
        Hann = 1,
        Hamming = 2,
        Blackman = 3,
        Bartlett = 4,
        Welch = 5,
        BlackmanHarris = 6,
        FlatTop = 7,
        Gaussian = 8,
        Kaiser = 9,
        Nuttall = 10
    };

    // What an analyser is built from. Its text form is an option string:
    // "fftlen=256,winsize=256,wintype=<window name>,dynrange=120".
    struct QTSOVACORE_EXPORT Config {
        int fftLength = 256;
        int windowSize = 256;
        WinType windowType = BlackmanHarris;
        double dynamicRange = 120.0; // dB below 0 dB at which spectra are floored

        Config() = default;
        // Reads "fftlen" (or "numbins", twice it, which wins), "winsize", "wintype" (a window
        // name) and "dynrange"; absent keys keep the defaults. Throws std::logic_error
        // ("Invalid DSPBWINDOWTYPE") for a window name the DSP library does not know.
        explicit Config(const QString& text);

        operator QString() const;
        QString winTypeString() const;

        bool operator==(const Config& other) const;
        bool operator!=(const Config& other) const { return !(*this == other); }
    };

    static WinType defaultWinType();
    // The DSP library's name of the window, "" when it has none.
    static QString winTypeToString(WinType type);
    // Throws std::logic_error("Invalid DSPBWINDOWTYPE") for an unknown name.
    static WinType winTypeFromString(const QString& name);
    // Throws std::logic_error("Invalid DSPBWINDOWTYPE") outside 0 to 10.
    static WinType winTypeFromDspbWinType(int value);
    // The eleven names, WinType 0 to 10 in order.
    static QStringList getWindowNameList();

    // Not valid: no processor, no window.
    QSovaFft();
    // Throws std::logic_error("Invalid QSovaFft::WinType") for a window type outside 0 to 10.
    QSovaFft(const Config& config, bool toDecibels);
    QSovaFft(const QSovaFft& other);
    QSovaFft& operator=(const QSovaFft& other);
    ~QSovaFft();
    void swap(QSovaFft& other) noexcept { d.swap(other.d); }

    // true when the FFT processor and the window were both made.
    bool isValid() const;
    const Config& config() const;

    // Writes the fftLength/2 + 1 power values (or decibels) of the first fftLength samples of
    // in, weighted by the window, to out. in is read as if zero-padded to fftLength. The
    // analyser must be valid.
    void psd(const QVector<float>& in, QVector<float>* out) const;
    void operator()(QVector<float>& v) const { psd(v, &v); }
    QVector<float> operator()(const QVector<float>& in) const;
    void operator()(const QVector<float>& in, QVector<float>* out) const { psd(in, out); }

    // Decibels of a stored spectrum (for example an accumulated one) whose values are first
    // multiplied by scale (1/count averages an accumulation).
    void convertPsdToDb(const QVector<float>& psd, QVector<float>* out, float scale) const;

    // Grows acc to the length of psd (new elements 0) and adds psd into it.
    static void accPsd(QVector<float>& acc, const QVector<float>& psd);

private:
    struct Private;
    QExplicitlySharedDataPointer<Private> d;
};

Q_DECLARE_SHARED(QSovaFft)

QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaFft::Config& config);
