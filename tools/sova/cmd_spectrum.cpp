// sova spectrum: the average power spectrum of a file, as a summary, a CSV table or a chart.
#include "analysis.h"
#include "audiopaths.h"
#include "command.h"
#include "damage.h"
#include "plot.h"
#include "usage.h"

#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace {

constexpr int kMinFft = 16;
constexpr int kMaxFft = 1 << 20;
constexpr int kMaxChannels = 8; // the engine's most

// Frequency of a peak, refined by the parabola through the peak bin and its neighbours.
double peakFrequency(const QVector<float>& levels, int bin, double binHz)
{
    const double a = levels[bin - 1], b = levels[bin], c = levels[bin + 1];
    const double curvature = a - 2.0 * b + c;
    const double offset = curvature < 0.0 ? 0.5 * (a - c) / curvature : 0.0;
    return (bin + std::clamp(offset, -0.5, 0.5)) * binHz;
}

int runSpectrum(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("file"), QStringLiteral("An audio file."), QStringLiteral("FILE"));
    const QCommandLineOption selectionOption({QStringLiteral("s"), QStringLiteral("selection")},
        QStringLiteral("Analyse only BEGIN-END (seconds); repeatable."),
        QStringLiteral("BEGIN-END"));
    const QCommandLineOption fftOption(QStringLiteral("fft"),
        QStringLiteral("FFT length, an even number from 16 to 1048576 (default 4096)."),
        QStringLiteral("N"));
    const QCommandLineOption stepOption(QStringLiteral("step"),
        QStringLiteral("Samples between frames, 1 to 1048576 (default half the FFT length)."),
        QStringLiteral("N"));
    const QCommandLineOption windowOption(QStringLiteral("window"),
        QStringLiteral("Analysis window, as 'sova windows' lists them."), QStringLiteral("NAME"));
    const QCommandLineOption channelOption(QStringLiteral("channel"),
        QStringLiteral("Analyse only channel N, 1 to 8 (default every channel)."),
        QStringLiteral("N"));
    const QCommandLineOption csvOption(QStringLiteral("csv"),
        QStringLiteral("Write the spectrum as CSV to OUT."), QStringLiteral("OUT"));
    const QCommandLineOption pngOption(QStringLiteral("png"),
        QStringLiteral("Draw the spectrum as a PNG chart to OUT."), QStringLiteral("OUT"));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string for headerless files, e.g. raw[sr=8000,nch=1]."),
        QStringLiteral("STRING"));
    parser.addOptions({selectionOption, fftOption, stepOption, windowOption, channelOption,
        csvOption, pngOption, formatOption});
    parser.addOption(strictOption());
    const int status
        = parseCommand(spectrumCommand, parser, arguments, 1, QStringLiteral("needs a file"), 1);
    if (status >= 0)
        return status;

    SpectrumSettings settings;
    qint64 fft = settings.fftLength, step = 0, channel64 = 0;
    int usage = integerOption("spectrum", parser, fftOption, kMinFft, kMaxFft, &fft);
    if (usage < 0 && fft % 2 != 0)
        usage = optionError("spectrum", fftOption, parser.value(fftOption),
            QStringLiteral("not even (an even number, %1\u2013%2)").arg(kMinFft).arg(kMaxFft));
    if (usage < 0)
        usage = integerOption("spectrum", parser, stepOption, 1, kMaxFft, &step);
    if (usage < 0)
        usage = integerOption("spectrum", parser, channelOption, 1, kMaxChannels, &channel64);
    if (usage < 0)
        usage = checkFormatOptions("spectrum", parser, {formatOption});
    if (usage >= 0)
        return usage;
    settings.fftLength = int(fft);
    settings.step = step ? int(step) : settings.fftLength / 2;
    if (parser.isSet(windowOption)) {
        try {
            settings.window = QSovaFft::winTypeFromString(parser.value(windowOption));
        } catch (const std::logic_error&) {
            return usageError("spectrum",
                QStringLiteral("unknown window '%1'; 'sova windows' lists them")
                    .arg(parser.value(windowOption)));
        }
    }
    const int channel = int(channel64);
    QSovaAudioSelectionList selections;
    QString error;
    if (!parseSelections(parser.values(selectionOption), &selections, &error))
        return usageError("spectrum", error);

    QStringList inputs {parser.positionalArguments().at(0)};
    QStringList outputs;
    for (const QCommandLineOption& option : {csvOption, pngOption})
        if (parser.isSet(option))
            outputs << parser.value(option);
    const int refused = prepareAudioPaths("spectrum", inputs, outputs, true);
    if (refused >= 0)
        return refused;
    const QString path = inputs.first();
    const QSovaAudioSignal signal(path, parser.value(formatOption));
    if (!signal.isValid())
        return fail("spectrum", engineFailure(QStringLiteral("read"), path));
    if (refuseDamage(
            "spectrum", path, signal.damageReport(), parser.isSet(QStringLiteral("strict"))))
        return ExitFailure;
    if (channel > signal.numChannels())
        return fail("spectrum",
            QStringLiteral("'%1' has %2 channel(s), not %3")
                .arg(path)
                .arg(signal.numChannels())
                .arg(channel));

    QStringList warnings;
    const QSovaAudioSelectionList clipped
        = clipSelections(selections, signal.duration(), &warnings);
    for (const QString& warning : warnings)
        err() << "sova: spectrum: warning: " << warning << Qt::endl;
    QList<int> channels;
    for (int c = 0; c < signal.numChannels(); ++c)
        if (channel == 0 || c == channel - 1)
            channels.append(c);
    const AveragedSpectrum spectrum = clipped.isEmpty()
        ? AveragedSpectrum()
        : averageSpectrum(signal, clipped, channels, settings, QStringLiteral("spectrum"));
    if (spectrum.frames == 0)
        return fail("spectrum",
            QStringLiteral("the selected audio of '%1' is shorter than one "
                           "frame of %2 samples: use a smaller --fft")
                .arg(path)
                .arg(settings.fftLength));

    QStringList names;
    for (const int c : channels)
        names.append(QStringLiteral("channel %1").arg(c + 1));
    const double rate = signal.sampleRate();
    const QString description = QStringLiteral("%1-point FFT, step %2, %3 window, %4 frames")
                                    .arg(settings.fftLength)
                                    .arg(settings.step)
                                    .arg(QSovaFft::winTypeToString(settings.window))
                                    .arg(spectrum.frames);
    if (parser.isSet(csvOption)) {
        QStringList columns;
        for (const int c : channels)
            columns.append(QStringLiteral("channel_%1_db").arg(c + 1));
        if (!saveBytes(parser.value(csvOption),
                spectrumCsv(columns, spectrum.levels, rate, settings.fftLength), &error))
            return fail("spectrum", error);
    }
    if (parser.isSet(pngOption)) {
        SpectrumChart chart;
        chart.title = QFileInfo(path).fileName() + QStringLiteral(": ") + description;
        chart.sampleRate = rate;
        chart.fftLength = settings.fftLength;
        chart.names = names;
        chart.levels = spectrum.levels;
        if (!saveBytes(parser.value(pngOption), spectrumPng(chart), &error))
            return fail("spectrum", error);
    }
    if (parser.isSet(csvOption) || parser.isSet(pngOption))
        return ExitOk;

    out() << path << ": " << rate << " Hz; " << description << " averaged" << Qt::endl;
    const double binHz = rate / settings.fftLength;
    for (int i = 0; i < channels.size(); ++i) {
        out() << names[i] << " peaks:";
        const auto peaks = spectrumPeaks(spectrum.levels[i], 5);
        if (peaks.isEmpty())
            out() << " none";
        for (const auto& peak : peaks)
            out() << "  "
                  << QString::number(peakFrequency(spectrum.levels[i], peak.first, binHz), 'f', 1)
                  << " Hz " << QString::number(peak.second, 'f', 1) << " dB";
        out() << Qt::endl;
    }
    return ExitOk;
}

} // namespace

const Command spectrumCommand
    = {"spectrum", "Show, tabulate or draw the average power spectrum of a file",
        "[--selection BEGIN-END]... [--fft N] [--step N] [--window NAME] [--channel N] "
        "[--csv OUT] [--png OUT] [--format STRING] FILE",
        "Cuts the whole file, or the selections given (seconds, e.g. --selection 1.5-3, taken one\n"
        "after another as one stream), into frames of N samples, windows each, and averages their\n"
        "power. Levels are in dB relative to a full-scale sine (0 dB). Without --csv or --png it\n"
        "prints the strongest peaks of each channel; the CSV has a frequency column and one level\n"
        "column per channel; the PNG is a chart in Hz and dB, on a log frequency axis from 20 Hz\n"
        "(a linear one for sample rates below 400 Hz). Ranges: --fft an even number from 16 to\n"
        "1048576, --step 1 to 1048576, --channel 1 to 8; others are usage errors (exit 2).",
        runSpectrum};
