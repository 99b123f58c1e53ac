// sova split and sova join: one mono file per channel, and back.
#include "audiopaths.h"
#include "clipwarning.h"
#include "command.h"
#include "damage.h"
#include "usage.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSova>
#include <QSovaAudioFile>
#include <QSovaChannelMultiplexer>

namespace {

const QCommandLineOption& formatOption()
{
    static const QCommandLineOption option({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format name of the written files, e.g. wav or flac (default: from the "
                       "extension)."),
        QStringLiteral("NAME"));
    return option;
}

// The library reports per-file problems of (de)multiplexing on the debug output; the tool
// reports them itself, with the reason, so those lines are kept off the terminal.
struct QuietDebug
{
    QtMessageHandler previous;
    QuietDebug()
        : previous(qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext&, const QString& message) {
                if (type != QtDebugMsg)
                    err() << message << Qt::endl;
            }))
    {
    }
    ~QuietDebug() { qInstallMessageHandler(previous); }
};

int runSplit(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("in"), QStringLiteral("A multichannel file."), QStringLiteral("IN"));
    parser.addPositionalArgument(QStringLiteral("out"),
        QStringLiteral("One file per channel, at most 8."), QStringLiteral("OUT..."));
    parser.addOption(formatOption());
    parser.addOption(strictOption());
    int status = parseCommand(splitCommand, parser, arguments, 2,
        QStringLiteral("needs an input file and at least one output"));
    if (status >= 0)
        return status;
    QStringList outputs = parser.positionalArguments();
    QString in = outputs.takeFirst();
    if (outputs.size() > 8)
        return usageError("split", QStringLiteral("at most 8 output files"));
    QStringList inputs(in);
    if ((status = checkFormatOptions("split", parser, {formatOption()})) >= 0)
        return status;
    if ((status = prepareAudioPaths("split", inputs, outputs, parser.isSet(formatOption()))) >= 0)
        return status;
    in = inputs.first();

    QSovaAudioFile probe(in, QString(), QSovaAudioFile::IEEEFloat);
    if (!probe.open(QIODevice::ReadOnly))
        return fail("split", engineFailure(QStringLiteral("read"), in));
    const int channels = probe.numChannels();
    probe.close();
    // Damage is known once IN has been read: --strict reads it through first, so that a damaged
    // input writes nothing; otherwise the split's own read reports it.
    const bool strict = parser.isSet(QStringLiteral("strict"));
    AUDIO_DamageReport damage {};
    if (strict && scanDamage(in, QString(), &damage) && refuseDamage("split", in, damage, true))
        return ExitFailure;
    if (outputs.size() > channels) {
        for (const QString& ignored : outputs.mid(channels))
            err() << "sova: split: '" << in << "' has " << channels << " channel"
                  << (channels == 1 ? "" : "s") << "; '" << ignored << "' is not written"
                  << Qt::endl;
        outputs = outputs.mid(0, channels);
    }
    // Outputs that exist already are replaced; to tell which ones the split wrote, compare
    // modification times.
    QList<QDateTime> before;
    for (const QString& path : outputs)
        before.append(QFileInfo(path).lastModified());

    bool ok;
    QVector<QSova::DemultiplexedOutput> results;
    {
        QuietDebug quiet;
        ok = QSova::ChannelDemultiplexer(
            in, outputs, QString(), parser.value(formatOption()), &results);
    }
    if (!ok)
        return fail("split", engineFailure(QStringLiteral("split"), in));
    if (!strict)
        refuseDamage("split", in, QSovaAudioFile::lastConversionDamage(), false);
    int result = ExitOk;
    for (int i = 0; i < outputs.size(); ++i) {
        const QFileInfo info(outputs.at(i));
        const bool refused = i < results.size() && !results.at(i).created;
        const bool stream
            = outputs.at(i) == QLatin1String("-") || (info.exists() && !info.isFile());
        if (refused && !results.at(i).error.isEmpty())
            result = fail("split", results.at(i).error);
        else if (!refused && stream && i < results.size())
            warnClipped("split", outputs.at(i), results.at(i).clips); // failures were reported
        else if (stream)
            continue;
        else if (refused || !info.exists()
            || (before.at(i).isValid() && info.lastModified() == before.at(i))) {
            // The engine's last reason, when it is this output's (a full disk, say).
            const QString reason = QSova::lastErrorString();
            const QString quoted = QStringLiteral("'%1'").arg(outputs.at(i));
            result = fail("split",
                reason.contains(quoted) ? reason : QStringLiteral("cannot write ") + quoted);
        } else if (i < results.size())
            warnClipped("split", outputs.at(i), results.at(i).clips);
    }
    return result;
}

int runJoin(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("in"),
        QStringLiteral("Files to join, one channel each, at most 8."), QStringLiteral("IN..."));
    parser.addPositionalArgument(
        QStringLiteral("out"), QStringLiteral("The file to write."), QStringLiteral("OUT"));
    parser.addOption(formatOption());
    parser.addOption(strictOption());
    int status = parseCommand(joinCommand, parser, arguments, 2,
        QStringLiteral("needs at least one input file and an output"));
    if (status >= 0)
        return status;
    QStringList inputs = parser.positionalArguments();
    const QString target = inputs.takeLast();
    if (inputs.size() > 8)
        return usageError("join", QStringLiteral("at most 8 input files"));
    if ((status = checkFormatOptions("join", parser, {formatOption()})) >= 0)
        return status;
    if ((status = prepareAudioPaths("join", inputs, {target}, parser.isSet(formatOption()))) >= 0)
        return status;
    // Name the unreadable input before the library gives up on all of them.
    for (const QString& path : inputs) {
        QSovaAudioFile probe(path, QString(), QSovaAudioFile::IEEEFloat);
        if (!probe.open(QIODevice::ReadOnly))
            return fail("join", engineFailure(QStringLiteral("read"), path));
        AUDIO_DamageReport damage {};
        if (scanDamage(path, QString(), &damage)
            && refuseDamage("join", path, damage, parser.isSet(QStringLiteral("strict"))))
            return ExitFailure;
    }
    const QDateTime before = QFileInfo(target).lastModified();
    bool ok;
    {
        QuietDebug quiet;
        ok = QSova::ChannelMultiplexer(inputs, target, QString(), parser.value(formatOption()));
    }
    // The multiplexer reports success whatever its writes and close said: a target that was
    // not replaced was not written.
    const QFileInfo written(target);
    if (!ok
        || (target != QLatin1String("-")
            && (!written.exists() || (written.isFile() && written.lastModified() == before))))
        return fail("join", engineFailure(QStringLiteral("write"), target));
    warnClipped("join", target, QSovaAudioFile::lastClipReport());
    return ExitOk;
}

} // namespace

const Command splitCommand = {"split",
    "Write each channel of an audio file into a mono file of its own", "[--format NAME] IN OUT...",
    "The first OUT gets channel 1, the next channel 2, and so on; the files keep IN's sample\n"
    "rate. Names beyond IN's channel count are not written; channels beyond the names are\n"
    "dropped.",
    runSplit};

const Command joinCommand = {"join", "Join audio files into one file with a channel for each",
    "[--format NAME] IN... OUT",
    "Each IN becomes one channel of OUT, in order, at the rate of the first IN: inputs at other\n"
    "rates are resampled and multichannel inputs mixed down to mono. Shorter inputs are padded\n"
    "with silence to the length of the longest.",
    runJoin};
