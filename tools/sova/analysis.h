#pragma once

// What sova stats and sova spectrum share: time selections given on the command line, and
// the averaged power spectrum of a signal over them.
#include <QList>
#include <QSovaAudioSelectionList>
#include <QSovaAudioSignal>
#include <QSovaFft>
#include <QString>
#include <QStringList>
#include <QVector>

// Parses every "BEGIN-END" (seconds, BEGIN < END, e.g. "1.5-3"). An empty list of texts gives
// an empty list. false with the reason (naming the text) on the first bad one.
bool parseSelections(const QStringList& texts, QSovaAudioSelectionList* selections, QString* error);

// The selections cut to [0, duration]: a range reaching past the end is shortened and one
// starting at or after it is dropped, each with a warning. No selections at all means the
// whole signal.
QSovaAudioSelectionList clipSelections(
    const QSovaAudioSelectionList& selections, double duration, QStringList* warnings);

// The sample range [first, first + count) of each selection in signal.
QList<QPair<qint64, qint64>> sampleRanges(
    const QSovaAudioSignal& signal, const QSovaAudioSelectionList& selections);

struct SpectrumSettings
{
    int fftLength = 4096;
    int step = 0; // 0: half the FFT length
    QSovaFft::WinType window = QSovaFft::defaultWinType();
};

struct AveragedSpectrum
{
    QVector<QVector<float>> levels; // dB, fftLength / 2 + 1 per channel analysed
    qint64 frames = 0; // FFT frames averaged per channel
};

// The power of every FFT frame of each channel, walked over the selections as one stream
// (frames of fftLength samples, step apart, none running past the end), averaged and turned
// into dB (a full-scale sine at a bin centre reads 0 dB). frames is 0 when the selections hold
// fewer samples than one frame. progressLabel: shown on a terminal when not empty.
AveragedSpectrum averageSpectrum(const QSovaAudioSignal& signal,
    const QSovaAudioSelectionList& selections, const QList<int>& channels,
    const SpectrumSettings& settings, const QString& progressLabel = QString());

// "frequency_hz,NAME,..." then one row per bin: the frequency and each curve's level.
QByteArray spectrumCsv(const QStringList& names, const QVector<QVector<float>>& levels,
    double sampleRate, int fftLength);

// The strongest local maxima of a spectrum, highest first, none more than 60 dB below the
// first: bin and level.
QList<QPair<int, float>> spectrumPeaks(const QVector<float>& levels, int count);

// Writes data to path (replacing it); false with "cannot write 'path': reason".
bool saveBytes(const QString& path, const QByteArray& data, QString* error);
