#include "audiopaths.h"
#include "clipwarning.h"
#include "command.h"
#include "damage.h"
#include "usage.h"

#include <QFileInfo>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>
#include <QSovaFormatDatabase>

#include <algorithm>

namespace {

using Db = QSovaFormatDatabase;

// A writer tag of the catalogue with the name of its file type ("MP3").
struct Writer
{
    QString typeName;
    Db::Filter filter;
    Db::Tag tag;
};

// The writers that a target names: the tag whose format string is exactly formatString; else
// the tags named after the container word of formatString ("flac" of "flac[nbits=24]") or,
// without one, after the target's extension; else every writer of the file types that list
// that extension. Empty when the catalogue knows nothing by that name (the engine then
// decides on its own).
QList<Writer> writersFor(const QString& formatString, const QString& target)
{
    const Db::FilterTypes all(Db::AudioFiles | Db::CompressedFiles | Db::RawFiles);
    const QList<Db::Filter> filters = Db().filters(Db::Write, all);
    QList<Writer> exact, named, listed;
    const QString word = (formatString.isEmpty() ? QFileInfo(target).suffix()
                                                 : formatString.section(QLatin1Char('['), 0, 0))
                             .trimmed()
                             .toLower();
    if (word.isEmpty())
        return {};
    for (const Db::Filter& filter : filters) {
        const bool listsWord = filter.extensions().contains(word, Qt::CaseInsensitive);
        for (const Db::Tag& tag : filter.writerTags()) {
            const Writer writer {filter.name(), filter, tag};
            if (!formatString.isEmpty() && tag.formatTag() == formatString.trimmed())
                exact << writer;
            if (tag.formatTag().section(QLatin1Char('['), 0, 0).toLower() == word)
                named << writer;
            if (listsWord)
                listed << writer;
        }
    }
    return !exact.isEmpty() ? exact : !named.isEmpty() ? named : listed;
}

QString numberList(QList<int> values, const QString& unit)
{
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    QStringList parts;
    for (int value : values)
        parts << QString::number(value);
    QString text = parts.join(QStringLiteral(", "));
    const int last = text.lastIndexOf(QLatin1Char(','));
    if (last >= 0)
        text.replace(last, 1, QStringLiteral(" or"));
    return text + unit;
}

// Why none of the writers can take format, or an empty string when one can. Channels are
// judged first, then the rate, then (only when the user chose it) the resolution; each step
// looks only at the writers that passed the ones before. origin says where a value came from
// ("the source has", "--channels asks for").
QString refusal(const QList<Writer>& writers, const QSovaAudioFormat& format, bool checkBits,
    const QString& channelsOrigin, const QString& rateOrigin, const QString& bitsOrigin)
{
    if (writers.isEmpty())
        return QString();
    const QString name = writers.first().typeName;
    // A tag's 5.1 flag stands for 6 channels: judge the rest of the format as for stereo.
    QSovaAudioFormat asStereo = format;
    asStereo.setNumChannels(2);
    const auto takes51 = [&](const Writer& w) {
        return format.numChannels() == 6 && w.tag.supportedNumChannels().contains(51)
            && w.tag.supportsFormat(asStereo, checkBits)
            && w.filter.supportsFormat(asStereo, false);
    };
    for (const Writer& w : writers)
        if ((w.tag.supportsFormat(format, checkBits) && w.filter.supportsFormat(format, false))
            || takes51(w))
            return QString();

    QList<Writer> passed;
    QList<int> channels;
    for (const Writer& w : writers) {
        for (int count : w.tag.supportedNumChannels())
            channels << (count == 51 ? 6 : count); // the 5.1 layout flag: 6 channels
        if (w.tag.supportedNumChannels().contains(format.numChannels())
            || (format.numChannels() == 6 && w.tag.supportedNumChannels().contains(51)))
            passed << w;
    }
    const int n = format.numChannels();
    if (passed.isEmpty()) {
        const int most
            = channels.isEmpty() ? 0 : *std::max_element(channels.begin(), channels.end());
        const QString holds = most >= n ? numberList(channels, QStringLiteral(" channels"))
            : most == 1                 ? QStringLiteral("at most 1 channel")
                                        : QStringLiteral("at most %1 channels").arg(most);
        return QStringLiteral("%1 holds %2; %3 %4").arg(name, holds, channelsOrigin).arg(n);
    }

    QList<Writer> rated;
    QList<int> rates;
    for (const Writer& w : passed) {
        const QList<int>& list = w.tag.supportedSampleRates();
        rates << list;
        if (list.contains(-1) || list.contains(format.sampleRate()))
            rated << w;
    }
    if (rated.isEmpty())
        return QStringLiteral("%1 takes %2; %3 %4 Hz")
            .arg(name, numberList(rates, QStringLiteral(" Hz")), rateOrigin)
            .arg(format.sampleRate());

    if (checkBits) {
        QList<int> bits;
        bool fits = false;
        for (const Writer& w : rated) {
            bits << w.tag.supportedResolutions();
            fits = fits || w.tag.supportedResolutions().contains(format.resolution());
        }
        if (!fits)
            return QStringLiteral("%1 writes %2; %3 %4")
                .arg(name, numberList(bits, QStringLiteral(" bits")), bitsOrigin)
                .arg(format.resolution());
    }
    return QStringLiteral("%1 cannot hold %2 Hz with %3 channels")
        .arg(name)
        .arg(format.sampleRate())
        .arg(n);
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
        QStringLiteral("Sample rate of OUT in Hz, 10 to 500000."), QStringLiteral("HZ"));
    const QCommandLineOption channelsOption({QStringLiteral("c"), QStringLiteral("channels")},
        QStringLiteral("Channels of OUT, 1 to 8."), QStringLiteral("N"));
    const QCommandLineOption bitsOption({QStringLiteral("b"), QStringLiteral("bits")},
        QStringLiteral("Resolution of OUT in bits: 3, 4, 5, 8, 12, 16, 20, 24, 32 or 64."),
        QStringLiteral("N"));
    const QCommandLineOption quietOption(
        {QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("No progress bar."));
    parser.addOptions(
        {formatOption, inFormatOption, rateOption, channelsOption, bitsOption, quietOption});
    parser.addOption(strictOption());
    const int status = parseCommand(convertCommand, parser, arguments, 2,
        QStringLiteral("needs an input and an output file"), 2);
    if (status >= 0)
        return status;
    // Every number in full before anything narrows it: 65537 channels are not 1.
    qint64 rate64 = 0, channels64 = 0, bits64 = 0;
    int usage = integerOption("convert", parser, rateOption, 10, 500000, &rate64);
    if (usage < 0)
        usage = integerOption("convert", parser, channelsOption, 1, 8, &channels64);
    if (usage < 0)
        usage = resolutionOption("convert", parser, bitsOption, &bits64);
    if (usage < 0)
        usage = checkFormatOptions("convert", parser, {formatOption, inFormatOption});
    if (usage >= 0)
        return usage;
    QStringList inputs {parser.positionalArguments().at(0)};
    const QString target = parser.positionalArguments().at(1);
    const int refused = prepareAudioPaths("convert", inputs, {target}, parser.isSet(formatOption));
    if (refused >= 0)
        return refused;
    const QString in = inputs.first();
    const int rate = int(rate64), channels = int(channels64), bits = int(bits64);

    // Without --rate/--channels/--bits the target keeps the source's values; with any of them
    // the others are read from the source first.
    QSovaAudioFormat format(nullptr);
    QSovaAudioFormat planned(nullptr); // what OUT will hold, when the source could be read
    bool sourceRead = false;
    {
        QSovaAudioFile source(in, parser.value(inFormatOption), QSovaAudioFile::IEEEFloat);
        sourceRead = source.open(QIODevice::ReadOnly);
        if (sourceRead)
            planned = source.format();
    }
    if (rate || channels || bits) {
        if (!sourceRead)
            return fail("convert", engineFailure(QStringLiteral("read"), in));
        format = planned;
        if (rate)
            format.setSampleRate(rate);
        if (channels)
            format.setNumChannels(channels);
        if (bits)
            format.setResolution(bits);
        if (!format.isValid())
            return usageError("convert",
                QStringLiteral("%1 Hz, %2 channels, %3 bits is not a format "
                               "the engine can write")
                    .arg(format.sampleRate())
                    .arg(format.numChannels())
                    .arg(format.resolution()));
        planned = format;
    }

    // Refuse early, and with a plain reason, what the catalogue says the target cannot hold
    // (an unreadable source is left to the conversion to report).
    if (sourceRead) {
        const QString reason
            = refusal(writersFor(parser.value(formatOption), target), planned, bits > 0,
                channels ? QStringLiteral("--channels asks for") : QStringLiteral("the source has"),
                rate ? QStringLiteral("--rate asks for") : QStringLiteral("the source is at"),
                QStringLiteral("--bits asks for"));
        // What an option asked for is the user's to change (a usage error); what the source
        // holds is not.
        if (!reason.isEmpty())
            return reason.contains(QLatin1String("asks for")) ? usageError("convert", reason)
                                                              : fail("convert", reason);
    }

    // Damage is known once the source has been read: --strict reads it through first, so
    // that a damaged source leaves OUT untouched.
    const bool strict = parser.isSet(QStringLiteral("strict"));
    AUDIO_DamageReport scanned {};
    if (strict && sourceRead && scanDamage(in, parser.value(inFormatOption), &scanned)
        && refuseDamage("convert", in, scanned, true))
        return ExitFailure;

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
    warnClipped("convert", target, QSovaAudioFile::lastClipReport());
    refuseDamage("convert", in, QSovaAudioFile::lastConversionDamage(), false);
    return ExitOk;
}

} // namespace

const Command convertCommand = {"convert", "Convert an audio file into another format",
    "[--format STRING] [--rate HZ] [--channels N] [--bits N] [--strict] IN OUT",
    "OUT's format comes from --format (e.g. flac[nbits=24], mp3[kbps=192], m4a) or else from\n"
    "its extension. Rate and channels are converted when asked for (high-quality resampling;\n"
    "channels remixed by layout, ITU-R BS.775 down-mixes). A progress bar goes to standard\n"
    "error when it is a terminal (-q turns it off). OUT is replaced only when the conversion\n"
    "succeeds. IN may be - (standard input), OUT - (standard output, with --format). A damaged\n"
    "or cut-off IN is decoded past with a warning naming where and how much was lost; --strict\n"
    "makes it a failure instead.\n"
    "Ranges: --rate 10 to 500000 Hz, --channels 1 to 8, --bits 3, 4, 5, 8, 12, 16, 20, 24, 32\n"
    "or 64 (each format takes its own subset); out-of-range values are usage errors (exit 2).",
    runConvert};
