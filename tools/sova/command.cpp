#include "command.h"

#include <QFile>
#include <QList>
#include <QPair>

#include <cstdio>

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream& err()
{
    static QTextStream stream(stderr);
    return stream;
}

namespace {

QList<QPair<QString, QString>>& pathAliases()
{
    static QList<QPair<QString, QString>> aliases;
    return aliases;
}

QString shown(QString message)
{
    for (const auto& alias : pathAliases())
        message.replace(alias.first, alias.second);
    return message;
}

} // namespace

void showPathAs(const QString& actual, const QString& shownAs)
{
    // Longest first, so that "/proc/self/fd/1" does not eat the start of "/proc/self/fd/10".
    auto& aliases = pathAliases();
    int at = 0;
    while (at < aliases.size() && aliases.at(at).first.size() >= actual.size())
        ++at;
    aliases.insert(at, {actual, shownAs});
}

void moveOutputToStandardError()
{
    static QFile stream;
    out().flush();
    if (stream.open(stderr, QIODevice::WriteOnly | QIODevice::Unbuffered))
        out().setDevice(&stream);
}

int fail(const char* command, const QString& message)
{
    out().flush();
    err() << "sova: " << command << ": " << shown(message) << Qt::endl;
    return ExitFailure;
}

int usageError(const char* command, const QString& message)
{
    out().flush();
    err() << "sova: " << command << ": " << shown(message) << Qt::endl
          << "Try 'sova help " << command << "'." << Qt::endl;
    return ExitUsage;
}

void printCommandHelp(const Command& command)
{
    out() << "Usage: sova " << command.name;
    if (*command.usage)
        out() << ' ' << command.usage;
    out() << Qt::endl << command.summary << Qt::endl;
    if (*command.help)
        out() << Qt::endl << command.help << Qt::endl;
}

int parseCommand(const Command& command, QCommandLineParser& parser, const QStringList& arguments,
                 int minimumPositional, const QString& missingMessage, int maximumPositional)
{
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    parser.addOption(helpOption);
    // The parser expects the program name first.
    if (!parser.parse(QStringList{QStringLiteral("sova")} + arguments))
        return usageError(command.name, parser.errorText());
    if (parser.isSet(helpOption)) {
        printCommandHelp(command);
        return ExitOk;
    }
    const int given = parser.positionalArguments().size();
    if (given < minimumPositional)
        return usageError(command.name, missingMessage);
    if (maximumPositional >= 0 && given > maximumPositional)
        return usageError(command.name, maximumPositional == 0
                                            ? QStringLiteral("takes no arguments")
                                            : QStringLiteral("too many arguments"));
    return -1;
}

const QList<const Command*>& commands()
{
    static const QList<const Command*> all = {
        &infoCommand,     &convertCommand, &splitCommand, &joinCommand,
        &statsCommand,    &spectrumCommand, &vadCommand, &fxCommand, &decodeCommand,
        &formatsCommand,
        &demoCommand,     &versionCommand, &optionsCommand, &settingsCommand,
        &iniCommand,      &windowsCommand, &selftestCommand};
    return all;
}
