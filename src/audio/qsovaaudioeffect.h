#pragma once

#include "qtsovacore_export.h"

#include <QString>

class QSovaAudioFormat;

// One processing path of the audio engine: an effect or a chain of them described by a text
// such as "gain[db=-6];lowpass[fc=4000]". Blocks of interleaved IEEE float frames are pushed
// through it; the engine decides the output rate and channels. Owns the engine path; not
// copyable. A description the engine refuses gives an invalid effect with neutral answers.
class QTSOVACORE_EXPORT QSovaAudioEffect
{
public:
    // Only the rate and channel count of inputFormat are used.
    QSovaAudioEffect(const QString& description, const QSovaAudioFormat& inputFormat);
    virtual ~QSovaAudioEffect();

    // Rate and channels of the output (resolution unspecified); a default format when invalid.
    virtual QSovaAudioFormat outputFormat() const;
    virtual QSovaAudioFormat inputFormat() const;
    // Output length over input length, rate changes included; 1.0 when invalid.
    virtual double inOutRatio() const;
    virtual bool isValid() const;
    // Pushes up to inCount frames from in and takes up to outCount frames into out; on return
    // the counts are the frames consumed and produced. flush: the input has ended, the tails
    // of filters and resamplers come out (call until outCount comes back 0). false when
    // invalid (counts untouched) or when the engine fails.
    virtual bool process(
        const float* in, qint64& inCount, float* out, qint64& outCount, bool flush);

    QString description() const;

private:
    QSovaAudioEffect(const QSovaAudioEffect&) = delete;
    QSovaAudioEffect& operator=(const QSovaAudioEffect&) = delete;
    struct Private;
    Private* d;
};
