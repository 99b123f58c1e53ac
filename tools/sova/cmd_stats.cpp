// sova stats: peak, RMS, DC offset and A-weighted RMS of each channel.
#include "analysis.h"
#include "audiopaths.h"
#include "command.h"
#include "damage.h"
#include "usage.h"

#include <QSova>
#include <QSovaAudioFormat>

#include <algorithm>
#include <cmath>

namespace {

constexpr qint64 kBlock = 1 << 16;

struct ChannelStats
{
    double peak = 0.0;
    double sum = 0.0;
    double sumSquares = 0.0;
    double weightedSquares = 0.0; // A-weighted RMS squared times the samples it covers
    bool weightedOk = true;
    qint64 count = 0;
};

QString decibels(double value)
{
    return value > 0.0 ? QString::number(20.0 * std::log10(value), 'f', 2) : QStringLiteral("-inf");
}

// The A-weighted RMS of one channel over one range: the range copied into a mono signal of
// its own, so that the filter starts from rest at the range's start as it does for a file.
double weightedRms(const QSovaAudioSignal& signal, int channel, qint64 first, qint64 count)
{
    QSovaAudioSignal part(QSovaAudioFormat(signal.sampleRate(), 1, 32));
    if (!part.isValid())
        return -1.0;
    for (qint64 pos = first; pos < first + count; pos += kBlock)
        part.appendSamples(
            signal.channelSamples(channel, pos, std::min(kBlock, first + count - pos)));
    return part.rms(QStringLiteral("aweight"), 0);
}

ChannelStats measure(const QSovaAudioSignal& signal, int channel,
    const QList<QPair<qint64, qint64>>& ranges, bool wholeFile)
{
    ChannelStats s;
    for (const auto& range : ranges) {
        const qint64 end = range.first + range.second;
        for (qint64 pos = range.first; pos < end; pos += kBlock) {
            const QVector<float> block
                = signal.channelSamples(channel, pos, std::min(kBlock, end - pos));
            for (const float v : block) {
                s.peak = std::max(s.peak, double(std::fabs(v)));
                s.sum += v;
                s.sumSquares += double(v) * v;
            }
            s.count += block.size();
        }
        if (!wholeFile && range.second > 0) {
            const double a = weightedRms(signal, channel, range.first, range.second);
            s.weightedOk = s.weightedOk && a >= 0.0;
            s.weightedSquares += a * a * double(range.second);
        }
    }
    if (wholeFile) {
        const double a = signal.rms(QStringLiteral("aweight"), channel);
        s.weightedOk = a >= 0.0;
        s.weightedSquares = a * a * double(s.count);
    }
    return s;
}

int runStats(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("file"), QStringLiteral("An audio file."), QStringLiteral("FILE"));
    const QCommandLineOption selectionOption({QStringLiteral("s"), QStringLiteral("selection")},
        QStringLiteral("Measure only BEGIN-END (seconds); repeatable."),
        QStringLiteral("BEGIN-END"));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string for headerless files, e.g. raw[sr=8000,nch=1]."),
        QStringLiteral("STRING"));
    parser.addOption(selectionOption);
    parser.addOption(formatOption);
    parser.addOption(strictOption());
    const int status
        = parseCommand(statsCommand, parser, arguments, 1, QStringLiteral("needs a file"), 1);
    if (status >= 0)
        return status;
    const int usage = checkFormatOptions("stats", parser, {formatOption});
    if (usage >= 0)
        return usage;
    QSovaAudioSelectionList selections;
    QString error;
    if (!parseSelections(parser.values(selectionOption), &selections, &error))
        return usageError("stats", error);

    QStringList inputs {parser.positionalArguments().at(0)};
    const int refused = prepareAudioPaths("stats", inputs, {}, false);
    if (refused >= 0)
        return refused;
    const QString path = inputs.first();
    const QSovaAudioSignal signal(path, parser.value(formatOption));
    if (!signal.isValid())
        return fail("stats", engineFailure(QStringLiteral("read"), path));
    if (refuseDamage("stats", path, signal.damageReport(), parser.isSet(QStringLiteral("strict"))))
        return ExitFailure;

    QStringList warnings;
    const QSovaAudioSelectionList clipped
        = clipSelections(selections, signal.duration(), &warnings);
    for (const QString& warning : warnings)
        err() << "sova: stats: warning: " << warning << Qt::endl;
    if (clipped.isEmpty())
        return fail("stats", QStringLiteral("no selection lies within '%1'").arg(path));
    const QList<QPair<qint64, qint64>> ranges = sampleRanges(signal, clipped);
    qint64 analysed = 0;
    for (const auto& range : ranges)
        analysed += range.second;

    out() << path << ": " << signal.numChannels() << " channel"
          << (signal.numChannels() == 1 ? "" : "s") << ", " << signal.sampleRate() << " Hz, "
          << QString::number(double(analysed) / signal.sampleRate(), 'f', 3) << " s";
    if (selections.isEmpty())
        out() << " (whole file)";
    else
        out() << " in " << clipped.size() << " selection" << (clipped.size() == 1 ? "" : "s");
    out() << Qt::endl
          << QStringLiteral("%1  %2  %3  %4  %5  %6  %7")
                 .arg(QStringLiteral("channel"), 7)
                 .arg(QStringLiteral("peak"), 9)
                 .arg(QStringLiteral("peak dBFS"), 9)
                 .arg(QStringLiteral("RMS"), 9)
                 .arg(QStringLiteral("RMS dBFS"), 9)
                 .arg(QStringLiteral("DC"), 10)
                 .arg(QStringLiteral("A-RMS dBFS"), 10)
          << Qt::endl;
    bool weightedOk = true;
    for (int channel = 0; channel < signal.numChannels(); ++channel) {
        const ChannelStats s = measure(signal, channel, ranges, selections.isEmpty());
        const double n = std::max<double>(double(s.count), 1.0);
        const double rms = std::sqrt(s.sumSquares / n);
        const double weighted = std::sqrt(s.weightedSquares / n);
        weightedOk = weightedOk && s.weightedOk;
        out() << QStringLiteral("%1  %2  %3  %4  %5  %6  %7")
                     .arg(channel + 1, 7)
                     .arg(s.peak, 9, 'f', 6)
                     .arg(decibels(s.peak), 9)
                     .arg(rms, 9, 'f', 6)
                     .arg(decibels(rms), 9)
                     .arg(std::fabs(s.sum / n) < 5e-7 ? 0.0 : s.sum / n, 10, 'f', 6)
                     .arg(s.weightedOk ? decibels(weighted) : QStringLiteral("-"), 10)
              << Qt::endl;
    }
    if (!weightedOk)
        return fail("stats", QStringLiteral("no A-weighted RMS: ") + QSova::lastErrorString());
    return ExitOk;
}

} // namespace

const Command statsCommand
    = {"stats", "Show the peak, RMS, DC offset and A-weighted RMS of each channel",
        "[--selection BEGIN-END]... [--format STRING] FILE",
        "Measures the whole file, or the selections given (seconds, e.g. --selection 1.5-3;\n"
        "repeatable; a selection reaching past the end is cut there, with a warning). Levels are\n"
        "linear (1.0 is full scale) and in dBFS; DC is the mean sample value. The A-weighted RMS\n"
        "filters each selection on its own, starting from rest.",
        runStats};
