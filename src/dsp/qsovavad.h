#pragma once

#include "qtsovacore_export.h"

#include <QString>

class QSovaAudioFormat;

namespace QSova {

// The audio engine's voice activity detector for one sample rate: fed one mono frame of
// frameNumSamples() samples at a time, it answers with a state code per frame:
//   0 not enough history yet, 1 silence, 2 speech, 3 speech onset (first frame of a segment).
// Owns the engine detector; not copyable. A detector the engine refuses (rate outside
// 8000..192000, bad parameters) is not reported: its calls hand the engine a null detector.
class QTSOVACORE_EXPORT Vad
{
public:
    // parameters: "aggressiveness=0..3,hangover=MS,minspeech=MS,minsilence=MS", all optional.
    // Only the sample rate of format is used.
    Vad(const QString& parameters, const QSovaAudioFormat& format);
    virtual ~Vad();

    // Makes a new detector from the same rate and parameters: the only way to clear the
    // history. Also retries a detector whose creation failed.
    void reset();
    // Samples one process call consumes.
    int frameNumSamples() const;
    // Seconds of one frame, the engine's fixed value.
    double frameDuration() const;

    // One frame of 16-bit samples, of floats in the 16-bit scale, of IEEE floats (+-1.0).
    // position is advanced to the first sample of the next frame, value receives the frame's
    // speech score in [0, 1]. Throws std::logic_error("Invalid Vad State") should the engine
    // answer outside its four results.
    int process16(qint64& position, const short* frame, float& value);
    int processFloat(qint64& position, const float* frame, float& value);
    int processIEEEFloat(qint64& position, const float* frame, float& value);

private:
    Vad(const Vad&) = delete;
    Vad& operator=(const Vad&) = delete;
    struct Private;
    Private* d;
};

} // namespace QSova
