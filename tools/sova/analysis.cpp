#include "analysis.h"

#include "audiopaths.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

// Spectra are floored this far below full scale: deep enough for 24-bit and float sources.
constexpr double kDynamicRange = 160.0;

QString seconds(double s)
{
    return QString::number(s, 'f', 3);
}

} // namespace

bool parseSelections(const QStringList& texts, QSovaAudioSelectionList* selections, QString* error)
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\s*(\\d+(?:\\.\\d*)?|\\.\\d+)\\s*-\\s*(\\d+(?:\\.\\d*)?|\\.\\d+)\\s*$"));
    selections->clear();
    for (const QString& text : texts) {
        const QRegularExpressionMatch match = pattern.match(text);
        if (!match.hasMatch()) {
            *error = QStringLiteral("selection '%1' is not BEGIN-END in seconds, e.g. 1.5-3")
                         .arg(text);
            return false;
        }
        bool beginOk = false, endOk = false;
        const double begin = match.captured(1).toDouble(&beginOk);
        const double end = match.captured(2).toDouble(&endOk);
        if (!beginOk || !endOk || !std::isfinite(begin) || !std::isfinite(end)) {
            *error = QStringLiteral("--selection %1: out of range (seconds, finite)").arg(text);
            return false;
        }
        if (!(begin < end)) {
            *error = QStringLiteral("selection '%1' does not end after it begins").arg(text);
            return false;
        }
        selections->append(QSovaAudioSelection(begin, end, 0u));
    }
    return true;
}

QSovaAudioSelectionList clipSelections(
    const QSovaAudioSelectionList& selections, double duration, QStringList* warnings)
{
    QSovaAudioSelectionList clipped;
    if (selections.isEmpty()) {
        clipped.append(QSovaAudioSelection(0.0, duration, 0u));
        return clipped;
    }
    for (const QSovaAudioSelection& s : selections) {
        const QString name = seconds(s.begin()) + QLatin1Char('-') + seconds(s.end());
        if (s.begin() >= duration) {
            warnings->append(QStringLiteral("selection %1 starts at or after the end (%2 s): "
                                            "left out")
                                 .arg(name, seconds(duration)));
            continue;
        }
        if (s.end() > duration) {
            warnings->append(QStringLiteral("selection %1 reaches past the end: cut to %2-%3")
                                 .arg(name, seconds(s.begin()), seconds(duration)));
            clipped.append(QSovaAudioSelection(s.begin(), duration, 0u));
            continue;
        }
        clipped.append(s);
    }
    return clipped;
}

QList<QPair<qint64, qint64>> sampleRanges(
    const QSovaAudioSignal& signal, const QSovaAudioSelectionList& selections)
{
    QList<QPair<qint64, qint64>> ranges;
    for (const QSovaAudioSelection& s : selections) {
        const qint64 first = signal.toSamples(std::max(s.begin(), 0.0));
        const qint64 last = std::min(signal.toSamples(s.end()), signal.numSamples());
        ranges.append({first, std::max<qint64>(last - first, 0)});
    }
    return ranges;
}

AveragedSpectrum averageSpectrum(const QSovaAudioSignal& signal,
    const QSovaAudioSelectionList& selections, const QList<int>& channels,
    const SpectrumSettings& settings, const QString& progressLabel)
{
    AveragedSpectrum result;
    const int size = settings.fftLength;
    const int step = settings.step > 0 ? settings.step : std::max(1, size / 2);
    QSovaFft::Config config;
    config.fftLength = size;
    config.windowSize = size;
    config.windowType = settings.window;
    config.dynamicRange = kDynamicRange;
    const QSovaFft analyser(config, false);
    if (!analyser.isValid() || channels.isEmpty())
        return result;

    qint64 streamLength = 0;
    for (const auto& range : sampleRanges(signal, selections))
        streamLength += range.second;
    const qint64 perChannel = streamLength >= size ? (streamLength - size) / step + 1 : 0;
    const qint64 total = perChannel * channels.size();

    qint64 done = 0;
    QVector<float> psd;
    for (const int channel : channels) {
        const auto walk = signal.selectionsIterator(selections, channel, size, step, 0, 0);
        QVector<float> accumulated;
        qint64 frames = 0;
        for (auto it = walk.first; it != walk.second; ++it) {
            const QVector<float> block = *std::as_const(it);
            analyser.psd(block, &psd);
            QSovaFft::accPsd(accumulated, psd);
            ++frames;
            if (!progressLabel.isEmpty() && ++done % 512 == 0)
                showProgress(progressLabel, double(done) / double(total));
        }
        result.frames = frames;
        QVector<float> levels;
        if (frames > 0)
            analyser.convertPsdToDb(accumulated, &levels, float(1.0 / double(frames)));
        result.levels.append(levels);
    }
    if (!progressLabel.isEmpty() && total >= 512)
        showProgress(progressLabel, 1.0, true);
    return result;
}

QByteArray spectrumCsv(const QStringList& names, const QVector<QVector<float>>& levels,
    double sampleRate, int fftLength)
{
    QByteArray csv = "frequency_hz";
    for (const QString& name : names)
        csv += ',' + name.toUtf8();
    csv += '\n';
    const int bins = levels.isEmpty() ? 0 : levels.first().size();
    for (int k = 0; k < bins; ++k) {
        csv += QByteArray::number(k * sampleRate / fftLength, 'f', 3);
        for (const QVector<float>& curve : levels)
            csv += ',' + QByteArray::number(k < curve.size() ? curve[k] : 0.0f, 'f', 2);
        csv += '\n';
    }
    return csv;
}

QList<QPair<int, float>> spectrumPeaks(const QVector<float>& levels, int count)
{
    QList<QPair<int, float>> peaks;
    const float floor = float(-kDynamicRange) + 1.0f;
    for (int k = 1; k + 1 < levels.size(); ++k)
        if (levels[k] > levels[k - 1] && levels[k] >= levels[k + 1] && levels[k] > floor)
            peaks.append({k, levels[k]});
    std::stable_sort(peaks.begin(), peaks.end(),
        [](const QPair<int, float>& a, const QPair<int, float>& b) { return a.second > b.second; });
    // Side lobes and the noise floor far below the strongest peak are not worth a mention.
    while (!peaks.isEmpty() && peaks.last().second < peaks.first().second - 60.0f)
        peaks.removeLast();
    return peaks.mid(0, count);
}

bool saveBytes(const QString& path, const QByteArray& data, QString* error)
{
    QFile file(path);
    const bool opened = path == QLatin1String("-")
        ? file.open(stdout, QIODevice::WriteOnly)
        : file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    if (opened && file.write(data) == data.size() && file.flush())
        return true;
    *error = QStringLiteral("cannot write '%1': %2").arg(path, file.errorString());
    return false;
}
