#include "usage.h"

#include "command.h"

#include <QRegularExpression>
#include <QSova>
#include <sova/audio.h>
#include <sova/blio.h>

namespace {

// A whole number too long for 64 bits is out of range, not malformed.
bool isDigits(const QString& text)
{
    static const QRegularExpression digits(QStringLiteral("^\\s*[+-]?\\d+\\s*$"));
    return digits.match(text).hasMatch();
}

} // namespace

int optionError(
    const char* command, const QCommandLineOption& option, const QString& value, const QString& why)
{
    out().flush();
    err() << "sova: --" << option.names().last() << ' ' << value << ": " << why << Qt::endl
          << "Try 'sova help " << command << "'." << Qt::endl;
    return ExitUsage;
}

int refuseMemoryAddresses(const QStringList& paths)
{
    for (const QString& path : paths) {
        if (BLIO_NamesMemoryAddress(path.toUtf8().constData())) {
            out().flush();
            err() << "sova: '" << path
                  << "': memory-address paths come from programs, not from users" << Qt::endl;
            return ExitUsage;
        }
    }
    return -1;
}

int integerOption(const char* command, const QCommandLineParser& parser,
    const QCommandLineOption& option, qint64 low, qint64 high, qint64* value)
{
    if (!parser.isSet(option))
        return -1;
    const QString text = parser.value(option);
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok, 10);
    const QString range = QStringLiteral("(%1\u2013%2)").arg(low).arg(high);
    if (!ok && !isDigits(text))
        return optionError(command, option, text, QStringLiteral("not a whole number ") + range);
    if (!ok || v < low || v > high)
        return optionError(command, option, text, QStringLiteral("out of range ") + range);
    *value = v;
    return -1;
}

QList<int> engineResolutions()
{
    QList<int> bits;
    for (int16_t b = 1; b <= 64; ++b) {
        const _audio_format format = AUDIO_FormatEx(48000, 1, b);
        if (AUDIO_IsValidFormat(&format))
            bits.append(b);
    }
    return bits;
}

QString resolutionList()
{
    QStringList parts;
    for (int b : engineResolutions())
        parts.append(QString::number(b));
    const QString last = parts.isEmpty() ? QString() : parts.takeLast();
    return parts.isEmpty() ? last
                           : parts.join(QStringLiteral(", ")) + QStringLiteral(" or ") + last;
}

int resolutionOption(const char* command, const QCommandLineParser& parser,
    const QCommandLineOption& option, qint64* value)
{
    if (!parser.isSet(option))
        return -1;
    const QString text = parser.value(option);
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok, 10);
    if (!ok || !engineResolutions().contains(v))
        return optionError(command, option, text,
            QStringLiteral("%1 (%2)").arg(ok || isDigits(text)
                    ? QStringLiteral("out of range")
                    : QStringLiteral("not a whole number"),
                resolutionList()));
    *value = v;
    return -1;
}

int checkFormatOptions(
    const char* command, const QCommandLineParser& parser, const QList<QCommandLineOption>& options)
{
    for (const QCommandLineOption& option : options) {
        if (!parser.isSet(option))
            continue;
        const QString text = parser.value(option);
        if (AUDIO_CheckFormatString(text.toUtf8().constData()))
            continue;
        // The engine names the string first ("format 'x': ..."); the option names it here.
        QString reason = QSova::lastErrorString();
        const QString head = QStringLiteral("format '%1': ").arg(text);
        if (reason.startsWith(head))
            reason = reason.mid(head.size());
        return optionError(command, option, QStringLiteral("'%1'").arg(text), reason);
    }
    return -1;
}

int checkFmtConvSuffixes(const char* command, const QStringList& inputs)
{
    for (const QString& input : inputs) {
        const int at = input.lastIndexOf(QLatin1String(":fmtconv"), -1, Qt::CaseInsensitive);
        if (at < 0)
            continue;
        const QString rest = input.mid(at + 8);
        const bool bracketed = rest.startsWith(QLatin1Char('[')) && rest.endsWith(QLatin1Char(']'));
        if (!rest.isEmpty() && !bracketed)
            continue; // part of the name, as the engine reads it
        if (AUDIO_CheckFormatString(rest.isEmpty() ? "" : rest.toUtf8().constData()))
            continue;
        QString reason = QSova::lastErrorString();
        const QString head = QStringLiteral("format '%1': ").arg(rest);
        if (reason.startsWith(head))
            reason = reason.mid(head.size());
        return usageError(
            command, QStringLiteral("'%1': bad :fmtconv suffix: %2").arg(input, reason));
    }
    return -1;
}
