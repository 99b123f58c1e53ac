#pragma once

#include <QPair>
#include <QString>
#include <QVector>

#include <functional>

class QSovaAudioEffect;
namespace QSova {
class Vad;
}

// Feeds mono IEEE float samples to a voice activity detector in whole frames and collects
// the speech segments. The last, partial frame is padded with silence by finish().
class SpeechTracker
{
public:
    // The detector must be valid (frameNumSamples() > 0) and outlive the tracker.
    SpeechTracker(QSova::Vad& vad, int sampleRate);

    void feed(const float* mono, qint64 count);
    // Processes what is left and closes an open segment at the end of the input.
    void finish();

    // (begin, end) in seconds, in order, not overlapping.
    const QVector<QPair<double, double>>& segments() const { return m_segments; }
    // Share of the input, 0 to 1, inside a segment; 0 for no input.
    double speechFraction() const;
    // "begin\tend" lines, 3 decimals; with the label column "begin\tend\tspeech".
    QString segmentLines(bool labels) const;

private:
    void processFrame();

    QSova::Vad& m_vad;
    int m_rate;
    QVector<float> m_frame;
    int m_filled = 0;
    qint64 m_position = 0; // first sample of the next frame
    qint64 m_total = 0; // samples fed
    qint64 m_speechStart = -1; // first sample of the open segment, -1 when none
    QVector<QPair<qint64, qint64>> m_samples; // the segments in samples
    QVector<QPair<double, double>> m_segments;
};

// Pushes interleaved IEEE float frames through an effect and hands what comes out to sink
// (frames, count); sink returns false to stop. Both return false on failure with a reason.
class EffectRunner
{
public:
    using Sink = std::function<bool(const float*, qint64)>;

    EffectRunner(QSovaAudioEffect& effect, int inChannels, int outChannels);

    bool push(const float* in, qint64 frames, const Sink& sink);
    // Drains the tails of filters and resamplers.
    bool flush(const Sink& sink);
    const QString& error() const { return m_error; }

private:
    QSovaAudioEffect& m_effect;
    int m_inChannels;
    int m_outChannels;
    qint64 m_room;
    QVector<float> m_out;
    QString m_error;
};

// The mean of the channels of count interleaved frames.
QVector<float> monoMix(const float* interleaved, qint64 count, int channels);
