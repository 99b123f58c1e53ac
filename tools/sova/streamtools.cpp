#include "streamtools.h"

#include <QSova>
#include <QSovaAudioEffect>
#include <QSovaVad>

#include <algorithm>
#include <cmath>

SpeechTracker::SpeechTracker(QSova::Vad& vad, int sampleRate)
    : m_vad(vad)
    , m_rate(sampleRate)
    , m_frame(std::max(vad.frameNumSamples(), 1))
{
}

void SpeechTracker::feed(const float* mono, qint64 count)
{
    m_total += count;
    while (count > 0) {
        const int take = int(std::min<qint64>(count, m_frame.size() - m_filled));
        std::copy(mono, mono + take, m_frame.data() + m_filled);
        m_filled += take;
        mono += take;
        count -= take;
        if (m_filled == m_frame.size())
            processFrame();
    }
}

void SpeechTracker::processFrame()
{
    const qint64 begin = m_position;
    float score = 0.0f;
    const int state = m_vad.processIEEEFloat(m_position, m_frame.constData(), score);
    if (m_position <= begin) // the engine advances the position; guard against one that does not
        m_position = begin + m_frame.size();
    // 2 speech, 3 the first frame of a segment; 0 (no history yet) and 1 are not speech.
    const bool speech = state >= 2;
    if (speech && (m_speechStart < 0 || state == 3)) {
        if (m_speechStart >= 0)
            m_samples.append({m_speechStart, begin});
        m_speechStart = begin;
    } else if (!speech && m_speechStart >= 0) {
        m_samples.append({m_speechStart, begin});
        m_speechStart = -1;
    }
    m_filled = 0;
}

void SpeechTracker::finish()
{
    if (m_filled > 0) {
        std::fill(m_frame.begin() + m_filled, m_frame.end(), 0.0f);
        processFrame();
    }
    if (m_speechStart >= 0)
        m_samples.append({m_speechStart, m_position});
    m_speechStart = -1;
    m_segments.clear();
    for (const auto& s : qAsConst(m_samples)) {
        const qint64 end = std::min(s.second, m_total);
        if (end > s.first)
            m_segments.append({double(s.first) / m_rate, double(end) / m_rate});
    }
}

double SpeechTracker::speechFraction() const
{
    if (m_total <= 0)
        return 0.0;
    double seconds = 0.0;
    for (const auto& s : m_segments)
        seconds += s.second - s.first;
    return std::min(1.0, seconds * m_rate / double(m_total));
}

QString SpeechTracker::segmentLines(bool labels) const
{
    QString text;
    for (const auto& s : m_segments) {
        text += QStringLiteral("%1\t%2").arg(s.first, 0, 'f', 3).arg(s.second, 0, 'f', 3);
        if (labels)
            text += QStringLiteral("\tspeech");
        text += QLatin1Char('\n');
    }
    return text;
}

EffectRunner::EffectRunner(QSovaAudioEffect& effect, int inChannels, int outChannels)
    : m_effect(effect)
    , m_inChannels(inChannels)
    , m_outChannels(outChannels)
{
    // Room for one input block of 8192 frames at the effect's length ratio, plus the tails.
    const double ratio = std::max(1.0, effect.inOutRatio());
    m_room = qint64(std::ceil(8192.0 * ratio)) + 8192;
    m_out.resize(int(m_room * m_outChannels));
}

bool EffectRunner::push(const float* in, qint64 frames, const Sink& sink)
{
    while (frames > 0) {
        qint64 used = frames, made = m_room;
        if (!m_effect.process(in, used, m_out.data(), made, false)) {
            m_error = QSova::lastErrorString();
            return false;
        }
        if (used == 0 && made == 0) {
            m_error = QStringLiteral("the effect takes no more input");
            return false;
        }
        if (made > 0 && !sink(m_out.constData(), made))
            return false;
        in += used * m_inChannels;
        frames -= used;
    }
    return true;
}

bool EffectRunner::flush(const Sink& sink)
{
    for (;;) {
        qint64 used = 0, made = m_room;
        if (!m_effect.process(nullptr, used, m_out.data(), made, true)) {
            m_error = QSova::lastErrorString();
            return false;
        }
        if (made == 0)
            return true;
        if (!sink(m_out.constData(), made))
            return false;
    }
}

QVector<float> monoMix(const float* interleaved, qint64 count, int channels)
{
    QVector<float> mono(static_cast<int>(count));
    for (qint64 i = 0; i < count; ++i) {
        float sum = 0.0f;
        for (int c = 0; c < channels; ++c)
            sum += interleaved[i * channels + c];
        mono[int(i)] = sum / float(channels);
    }
    return mono;
}
