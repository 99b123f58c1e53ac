// sova decode: an elementary encoded stream (ADTS AAC, MP3 frames, native FLAC) decoded
// through a signal pipe and saved as an audio file.
#include "audiopaths.h"
#include "command.h"
#include "usage.h"

#include <QFile>
#include <QFileInfo>
#include <QSova>
#include <QSovaAudioFormat>
#include <QSovaAudioSignal>

namespace {

// The codec configuration for a --codec value or, when empty, for the file's extension; empty
// when neither names one.
QString codecFor(const QString& option, const QString& path)
{
    static const QStringList known
        = {QStringLiteral("AAC"), QStringLiteral("MP3"), QStringLiteral("FLAC")};
    const QString name = option.isEmpty() ? QFileInfo(path).suffix().toUpper() : option.toUpper();
    return known.contains(name) ? name : QString();
}

int runDecode(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("stream"),
        QStringLiteral("The encoded stream to read."), QStringLiteral("STREAM"));
    parser.addPositionalArgument(
        QStringLiteral("out"), QStringLiteral("The audio file to write."), QStringLiteral("OUT"));
    const QCommandLineOption codecOption(QStringLiteral("codec"),
        QStringLiteral("AAC, MP3 or FLAC (default: from STREAM's extension)."),
        QStringLiteral("NAME"));
    const QCommandLineOption quietOption(
        {QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("No progress bar."));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string of OUT (default: from its extension)."),
        QStringLiteral("STRING"));
    parser.addOptions({codecOption, formatOption, quietOption});
    const int status = parseCommand(decodeCommand, parser, arguments, 2,
        QStringLiteral("needs a stream and an output file"), 2);
    if (status >= 0)
        return status;
    const int usage = checkFormatOptions("decode", parser, {formatOption});
    if (usage >= 0)
        return usage;
    QStringList inputs {parser.positionalArguments().at(0)};
    const QString target = parser.positionalArguments().at(1);
    const int refused = prepareAudioPaths("decode", inputs, {target}, parser.isSet(formatOption));
    if (refused >= 0)
        return refused;
    const QString in = inputs.first();
    const QString codec = codecFor(parser.value(codecOption), in);
    if (codec.isEmpty())
        return usageError("decode",
            parser.isSet(codecOption)
                ? QStringLiteral("unknown codec '%1' (AAC, MP3 or FLAC)")
                      .arg(parser.value(codecOption))
                : QStringLiteral("cannot tell the codec of '%1' from its extension: use --codec")
                      .arg(in));

    QFile stream(in);
    if (!stream.open(QIODevice::ReadOnly))
        return fail("decode", QStringLiteral("cannot read '%1': %2").arg(in, stream.errorString()));
    constexpr qint64 chunk = 64 * 1024;
    const QByteArray header = stream.peek(chunk);
    auto* decoder = new QSovaAudioSignal::Decoder(codec, header);
    if (!decoder->isValid()) {
        const QString reason = QSova::lastErrorString();
        delete decoder;
        return fail("decode",
            QStringLiteral("'%1' cannot be read as %2%3")
                .arg(in, codec, reason.isEmpty() ? QString() : QStringLiteral(": ") + reason));
    }
    const QSovaAudioFormat probed = decoder->format();
    QSovaAudioSignal signal(QSovaAudioFormat(probed.sampleRate(), probed.numChannels(), 16));
    if (!signal.isValid()) {
        delete decoder;
        return fail("decode",
            QStringLiteral("the engine cannot hold %1 Hz, %2 channels")
                .arg(probed.sampleRate())
                .arg(probed.numChannels()));
    }
    // The pipe owns the decoder from here on. The probed header is part of the stream: it
    // goes through the pipe like the rest.
    QSovaAudioSignal::Pipe pipe(signal, 0, decoder);
    if (!pipe.isValid())
        return fail("decode", engineFailure(QStringLiteral("decode"), in));
    const bool quiet = parser.isSet(quietOption);
    const QString label = QStringLiteral("decoding");
    const qint64 total = stream.size();
    qint64 done = 0;
    for (;;) {
        const QByteArray bytes = stream.read(chunk);
        if (bytes.isEmpty())
            break;
        pipe.appendBitStream(bytes);
        done += bytes.size();
        if (!quiet && total > 0)
            showProgress(label, double(done) / double(total));
    }
    pipe.close();
    if (!quiet)
        showProgress(label, 1.0, true);
    if (signal.numSamples() <= 0)
        return fail("decode", QStringLiteral("no audio decoded from '%1'").arg(in));
    if (!signal.save(target, parser.value(formatOption)))
        return fail("decode", engineFailure(QStringLiteral("write"), target));
    out() << QStringLiteral("%1: %2 Hz, %3 channels, %4 frames (%5 s)")
                 .arg(codec)
                 .arg(signal.sampleRate())
                 .arg(signal.numChannels())
                 .arg(signal.numSamples())
                 .arg(signal.duration(), 0, 'f', 3)
          << Qt::endl;
    return ExitOk;
}

} // namespace

const Command decodeCommand = {"decode", "Decode an encoded stream into an audio file",
    "[--codec AAC|MP3|FLAC] [--format STRING] STREAM OUT",
    "STREAM is a bare stream of one codec: ADTS AAC frames, MPEG audio frames or a native FLAC\n"
    "stream. The codec comes from --codec or STREAM's extension (.aac, .mp3, .flac). The\n"
    "stream is probed, decoded through a signal pipe 64 KiB at a time and saved as OUT, whose\n"
    "format comes from --format or else from its extension.",
    runDecode};
