#include "audiopaths.h"
#include "command.h"
#include "damage.h"
#include "usage.h"

#include <QFileInfo>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>
#include <QSovaUtils>

#include <cmath>

namespace {

QString durationText(double seconds)
{
    const qint64 ms = qint64(std::llround(seconds * 1000.0));
    return QStringLiteral("%1:%2:%3.%4 (%5 s)")
        .arg(ms / 3600000, 2, 10, QLatin1Char('0'))
        .arg(ms / 60000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms / 1000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms % 1000, 3, 10, QLatin1Char('0'))
        .arg(seconds, 0, 'f', 3);
}

bool isPcm(QSovaAudioFormat::AudioCodec codec)
{
    const QString name = QSovaAudioFormat::audioCodecString(codec);
    return name.startsWith(QLatin1String("PCM")) || name.startsWith(QLatin1String("IEEE float"));
}

// Bit rate in kbit/s: the codec's own figure, else the PCM rate, else size over duration.
qint64 bitRateKbps(const QSovaAudioFormat& format, const QString& path, double seconds)
{
    if (format.codecBitRate() > 0)
        return format.codecBitRate();
    if (isPcm(format.audioCodec()))
        return qint64(format.sampleRate()) * format.numChannels() * format.resolution() / 1000;
    const QFileInfo info(path);
    if (info.isFile() && seconds > 0.0)
        return qint64(double(info.size()) * 8.0 / seconds / 1000.0 + 0.5);
    return 0;
}

// Decodes the whole file: its length is then a count, and its damage known.
bool readToEnd(QSovaAudioFile& file)
{
    QByteArray block(1 << 16, Qt::Uninitialized);
    qint64 got;
    while ((got = file.read(block.data(), block.size())) > 0) { }
    return got == 0;
}

void printBlock(const QString& path, QSovaAudioFile& file, bool count)
{
    const QSovaAudioFormat format = file.format();
    // Bare MP3, ADTS and AC-3 streams state no length; --exact has decoded the file.
    const qint64 frames = file.numSamples();
    const bool estimated = frames >= 0 && !file.isLengthExact();
    const QString guess = estimated ? QStringLiteral("\u2248 ") : QString();
    const QString guessed = estimated ? QStringLiteral(" (estimated)") : QString();
    const double seconds
        = frames >= 0 && file.sampleRate() > 0 ? double(frames) / file.sampleRate() : -1.0;
    const auto container = format.container();
    QTextStream& o = out();
    o << path << Qt::endl;
    o << "  container   " << QSovaAudioFormat::containerLabel(container, true) << " ("
      << QSovaAudioFormat::containerLabel(container, false) << ")" << Qt::endl;
    if (!format.mimeType().isEmpty())
        o << "  mime type   " << format.mimeType() << Qt::endl;
    o << "  codec       " << format.audioCodecLabel() << Qt::endl;
    o << "  rate        " << file.sampleRate() << " Hz" << Qt::endl;
    o << "  channels    " << file.numChannels();
    if (file.numChannels() <= 2)
        o << " (" << QSovaAudioFormat::numChannelsToString(file.numChannels(), false) << ")";
    o << Qt::endl;
    o << "  layout      " << format.channelLayoutName()
      << (format.channelMask() == 0 && file.numChannels() > 2 ? " (assumed)" : "") << Qt::endl;
    o << "  resolution  " << format.resolution() << " bits" << Qt::endl;
    QString duration = seconds >= 0.0 ? durationText(seconds) : QStringLiteral("unknown");
    if (estimated && seconds >= 0.0)
        duration = guess + duration.chopped(1) + QStringLiteral(", estimated)");
    o << "  duration    " << duration << Qt::endl;
    o << "  frames      "
      << (frames >= 0 ? guess + QString::number(frames) + guessed : QStringLiteral("unknown"))
      << Qt::endl;
    const qint64 kbps = bitRateKbps(format, path, seconds);
    o << "  bit rate    "
      << (kbps > 0 ? QStringLiteral("%1 kbps").arg(kbps) : QStringLiteral("unknown")) << Qt::endl;
    if (count && isDamaged(file.damageReport()))
        o << "  damage      " << damageText(path, file.damageReport()) << Qt::endl;
}

int runInfo(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("files"), QStringLiteral("Audio files."), QStringLiteral("FILE..."));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string for headerless files, e.g. raw[sr=8000,nch=1]."),
        QStringLiteral("STRING"));
    parser.addOption(formatOption);
    const QCommandLineOption exactOption(QStringLiteral("exact"),
        QStringLiteral("Count the frames of streams whose length is only estimated (decodes "
                       "them), and report damage met on the way."));
    parser.addOption(exactOption);
    const int status
        = parseCommand(infoCommand, parser, arguments, 1, QStringLiteral("needs a file"));
    if (status >= 0)
        return status;

    // Usage errors stop the command before any file is shown.
    int usage = checkPaths("info", parser.positionalArguments());
    if (usage < 0)
        usage = checkFormatOptions("info", parser, {formatOption});
    if (usage >= 0)
        return usage;

    int result = ExitOk;
    bool first = true;
    for (const QString& path : parser.positionalArguments()) {
        QStringList read(path);
        if (prepareAudioPaths("info", read, {}, false) >= 0) {
            result = ExitFailure;
            continue;
        }
        QSovaAudioFile file(read.first(), parser.value(formatOption), QSovaAudioFile::IEEEFloat);
        if (!file.open(QIODevice::ReadOnly)) {
            result = fail("info", engineFailure(QStringLiteral("read"), read.first()));
            continue;
        }
        if (parser.isSet(exactOption) && !readToEnd(file)) {
            result = fail("info", engineFailure(QStringLiteral("read"), read.first()));
            continue;
        }
        if (!first)
            out() << Qt::endl;
        first = false;
        printBlock(path, file, parser.isSet(exactOption));
    }
    out().flush();
    return result;
}

} // namespace

const Command infoCommand = {"info", "Show the format, length and bit rate of audio files",
    "[--format STRING] [--exact] FILE...",
    "One block per file: container, mime type, codec, rate, channels, resolution, duration,\n"
    "frames and bit rate. A file that cannot be read gets an error line on standard error and\n"
    "makes the exit status 1; the other files are still shown. Bare MP3, ADTS AAC and AC-3\n"
    "streams state no length: theirs is shown as '\u2248 ... (estimated)' unless --exact, which\n"
    "decodes every file to count its frames and reports damage met on the way.",
    runInfo};
