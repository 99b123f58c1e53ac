#include "command.h"
#include "usage.h"

#include <QSet>
#include <QSovaAudioFormat>
#include <QSovaFormatDatabase>
#include <sova/blstring.h>

#include <cstdint>

namespace {

using Db = QSovaFormatDatabase;

const Db::FilterTypes allTypes(Db::AudioFiles | Db::CompressedFiles | Db::RawFiles);

// Tags share one record between copies, so the address of a text identifies the tag.
const void* identity(const Db::Tag& tag)
{
    return &tag.formatTag();
}

QString joinInts(const QList<int>& values)
{
    QStringList parts;
    for (int value : values)
        parts << QString::number(value);
    return parts.join(QLatin1Char(','));
}

QString ratesText(const QList<int>& rates)
{
    if (rates.contains(-1))
        return QStringLiteral("any");
    return rates.isEmpty() ? QStringLiteral("-") : joinInts(rates);
}

// The catalogue lists mono and stereo twice for some tags; show each count once.
QString channelsText(const QList<int>& channels)
{
    QStringList parts;
    for (int count : channels) {
        const QString text = count == 51 ? QStringLiteral("5.1") : QString::number(count);
        if (!parts.contains(text))
            parts << text;
    }
    return parts.isEmpty() ? QStringLiteral("-") : parts.join(QLatin1Char(','));
}

int runFormats(const QStringList& arguments)
{
    QCommandLineParser parser;
    const QCommandLineOption readOption(
        QStringLiteral("read"), QStringLiteral("Only what can be read."));
    const QCommandLineOption writeOption(
        QStringLiteral("write"), QStringLiteral("Only what can be written."));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Only tags that take this format (sr=48000,nc=6,nbits=24; sr 10 to "
                       "500000, nc 1 to 8, nbits 3, 4, 5, 8, 12, 16, 20, 24, 32 or 64)."),
        QStringLiteral("FORMAT"));
    const QCommandLineOption dialogOption(
        QStringLiteral("dialog"), QStringLiteral("Print the file-dialog filter lines."));
    parser.addOptions({readOption, writeOption, formatOption, dialogOption});
    const int status = parseCommand(formatsCommand, parser, arguments, 0, QString(), 0);
    if (status >= 0)
        return status;
    if (parser.isSet(readOption) && parser.isSet(writeOption))
        return usageError("formats", QStringLiteral("--read and --write exclude each other"));

    const bool withFormat = parser.isSet(formatOption);
    // The format's numbers in full, before the format record narrows them to 16 bits.
    if (withFormat) {
        QString text = parser.value(formatOption).toLower();
        text.replace(QLatin1Char(';'), QLatin1Char(',')).remove(QLatin1Char(' '));
        const QByteArray options = text.toUtf8();
        const QList<int> bits = engineResolutions();
        struct Number
        {
            QList<const char*> keys;
            qint64 low, high;
            bool resolution;
        };
        const Number numbers[] = {{{"sr", "samplerate", "rate"}, 10, 500000, false},
            {{"nc", "nch", "numchannels", "channels"}, 1, 8, false},
            {{"nbits", "numbits", "resolution"}, bits.first(), bits.last(), true}};
        for (const Number& number : numbers)
            for (const char* key : number.keys) {
                if (!BLSTRING_KeyExistsInString(options.constData(), key))
                    continue;
                const qint64 v
                    = BLSTRING_GetInteger64ValueFromString(options.constData(), key, INT64_MIN);
                const bool fits
                    = number.resolution ? bits.contains(v) : v >= number.low && v <= number.high;
                if (!fits)
                    return optionError("formats", formatOption,
                        QStringLiteral("'%1'").arg(parser.value(formatOption)),
                        QStringLiteral("%1 out of range (%2)")
                            .arg(QLatin1String(key),
                                number.resolution ? resolutionList()
                                                  : QStringLiteral("%1\u2013%2")
                                                        .arg(number.low)
                                                        .arg(number.high)));
            }
    }
    const QSovaAudioFormat format(parser.value(formatOption));
    if (withFormat && (format.sampleRate() <= 0 || format.numChannels() <= 0))
        return usageError("formats",
            QStringLiteral("--format needs a rate and channels, e.g. "
                           "sr=48000,nc=2,nbits=16"));

    QList<Db::Operation> operations;
    if (!parser.isSet(writeOption))
        operations << Db::Read;
    if (!parser.isSet(readOption))
        operations << Db::Write;

    Db db;
    if (parser.isSet(dialogOption)) {
        // Without a direction the dialog is an open dialog.
        const Db::Operation op = parser.isSet(writeOption) ? Db::Write : Db::Read;
        for (const Db::Filter& filter : db.filters(op, allTypes))
            out() << filter.fileDialogFilter() << Qt::endl;
        return ExitOk;
    }

    // The tags that fit, per operation, found by identity in each filter's lists.
    QSet<const void*> fitting[2];
    if (withFormat)
        for (Db::Operation op : operations)
            for (const Db::Tag& tag : db.tags(op, format))
                fitting[op].insert(identity(tag));

    QList<Db::Filter> filters;
    QSet<QString> seen;
    for (Db::Operation op : operations)
        for (const Db::Filter& filter : db.filters(op, allTypes))
            if (!seen.contains(filter.name())) {
                seen.insert(filter.name());
                filters << filter;
            }

    int listed = 0;
    for (const Db::Filter& filter : filters) {
        // Reader tags first, then writer-only ones; a tag in both lists shows once as "rw".
        QList<Db::Tag> tags;
        QList<QString> directions;
        const QList<Db::Tag>* lists[2] = {&filter.readerTags(), &filter.writerTags()};
        for (Db::Operation op : operations) {
            for (const Db::Tag& tag : *lists[op]) {
                if (withFormat && !fitting[op].contains(identity(tag)))
                    continue;
                int at = 0;
                while (at < tags.size() && identity(tags.at(at)) != identity(tag))
                    ++at;
                if (at == tags.size()) {
                    tags << tag;
                    directions << QStringLiteral("--");
                }
                directions[at][op] = op == Db::Read ? QLatin1Char('r') : QLatin1Char('w');
            }
        }
        if (tags.isEmpty())
            continue;
        out() << filter.name() << "  " << filter.description() << "  ("
              << filter.extensions().join(QLatin1Char(' ')) << ')' << Qt::endl;
        for (int i = 0; i < tags.size(); ++i) {
            const Db::Tag& tag = tags.at(i);
            out() << "  " << directions.at(i) << "  " << tag.formatTag().leftJustified(24) << ' '
                  << tag.description() << Qt::endl
                  << "        rates " << ratesText(tag.supportedSampleRates()) << "  channels "
                  << channelsText(tag.supportedNumChannels()) << "  bits "
                  << (tag.supportedResolutions().isEmpty() ? QStringLiteral("-")
                                                           : joinInts(tag.supportedResolutions()))
                  << Qt::endl;
            ++listed;
        }
    }
    if (!listed && withFormat)
        return fail("formats", QStringLiteral("no format takes %1").arg(format.fmtString()));
    return ExitOk;
}

} // namespace

const Command formatsCommand = {"formats", "List the file formats the engine reads and writes",
    "[--read | --write] [--format sr=RATE,nc=CHANNELS,nbits=BITS] [--dialog]",
    "One block per file type: its name, description and extensions, then each encoding with\n"
    "its direction (r read, w write), the format string that names it for convert --format,\n"
    "and the rates, channels and resolutions it takes. --format keeps the encodings that take\n"
    "that rate and channel count (resolution is not a criterion). --dialog prints the lines a\n"
    "file dialog offers, for opening (default) or with --write for saving.",
    runFormats};
