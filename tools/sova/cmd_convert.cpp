#include "audiopaths.h"
#include "command.h"

#include <QSovaAudioFile>
#include <QSovaAudioFormat>

namespace {

// A positive integer option, or 0 when not given; -1 when given but not a positive integer.
int positiveOption(const QCommandLineParser& parser, const QCommandLineOption& option)
{
    if (!parser.isSet(option))
        return 0;
    bool ok = false;
    const int value = parser.value(option).toInt(&ok);
    return ok && value > 0 ? value : -1;
}

int runConvert(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("in"), QStringLiteral("The audio file to read."), QStringLiteral("IN"));
    parser.addPositionalArgument(
        QStringLiteral("out"), QStringLiteral("The file to write."), QStringLiteral("OUT"));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string of OUT (default: from its extension)."),
        QStringLiteral("STRING"));
    const QCommandLineOption inFormatOption(QStringLiteral("in-format"),
        QStringLiteral("Format string of IN (default: detect)."), QStringLiteral("STRING"));
    const QCommandLineOption rateOption({QStringLiteral("r"), QStringLiteral("rate")},
        QStringLiteral("Sample rate of OUT in Hz."), QStringLiteral("HZ"));
    const QCommandLineOption channelsOption({QStringLiteral("c"), QStringLiteral("channels")},
        QStringLiteral("Channels of OUT."), QStringLiteral("N"));
    const QCommandLineOption bitsOption({QStringLiteral("b"), QStringLiteral("bits")},
        QStringLiteral("Resolution of OUT in bits."), QStringLiteral("N"));
    const QCommandLineOption quietOption(
        {QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("No progress bar."));
    parser.addOptions(
        {formatOption, inFormatOption, rateOption, channelsOption, bitsOption, quietOption});
    const int status = parseCommand(convertCommand, parser, arguments, 2,
        QStringLiteral("needs an input and an output file"), 2);
    if (status >= 0)
        return status;
    const QString in = parser.positionalArguments().at(0);
    const QString target = parser.positionalArguments().at(1);
    for (const QString& path : {in, target}) {
        const QString refused = refusedPathReason(path);
        if (!refused.isEmpty())
            return fail("convert", refused);
    }
    const int rate = positiveOption(parser, rateOption);
    const int channels = positiveOption(parser, channelsOption);
    const int bits = positiveOption(parser, bitsOption);
    if (rate < 0 || channels < 0 || bits < 0)
        return usageError("convert",
            QStringLiteral("--rate, --channels and --bits take a "
                           "positive number"));

    // Without --rate/--channels/--bits the target keeps the source's values; with any of them
    // the others are read from the source first.
    QSovaAudioFormat format(nullptr);
    if (rate || channels || bits) {
        QSovaAudioFile source(in, parser.value(inFormatOption), QSovaAudioFile::IEEEFloat);
        if (!source.open(QIODevice::ReadOnly))
            return fail("convert", engineFailure(QStringLiteral("read"), in));
        format = source.format();
        if (rate)
            format.setSampleRate(rate);
        if (channels)
            format.setNumChannels(channels);
        if (bits)
            format.setResolution(bits);
        if (!format.isValid())
            return fail("convert",
                QStringLiteral("%1 Hz, %2 channels, %3 bits is not a format "
                               "the engine can write")
                    .arg(format.sampleRate())
                    .arg(format.numChannels())
                    .arg(format.resolution()));
    }

    const bool quiet = parser.isSet(quietOption);
    const QString label = QStringLiteral("converting");
    const bool ok = QSovaAudioFile::convert(in, parser.value(inFormatOption), target,
        parser.value(formatOption), format, [&](double fraction) {
            if (!quiet)
                showProgress(label, fraction);
            return true;
        });
    if (!quiet)
        showProgress(label, ok ? 1.0 : 0.0, true);
    if (!ok)
        return fail("convert", engineFailure(QStringLiteral("convert"), in));
    return ExitOk;
}

} // namespace

const Command convertCommand = {"convert", "Convert an audio file into another format.",
    "[--format STRING] [--rate HZ] [--channels N] [--bits N] IN OUT",
    "OUT's format comes from --format (e.g. flac[nbits=24], mp3[kbps=192], m4a) or else from\n"
    "its extension. Rate and channels are converted when asked for (high-quality resampling;\n"
    "mix-down to mono averages the channels). A progress bar goes to standard error when it is\n"
    "a terminal (-q turns it off). OUT is replaced only when the conversion succeeds.",
    runConvert};
