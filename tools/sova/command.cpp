#include "command.h"

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

int fail(const char* command, const QString& message)
{
    out().flush();
    err() << "sova: " << command << ": " << message << Qt::endl;
    return ExitFailure;
}

int usageError(const char* command, const QString& message)
{
    out().flush();
    err() << "sova: " << command << ": " << message << Qt::endl
          << "Try 'sova help " << command << "'." << Qt::endl;
    return ExitUsage;
}

const QList<const Command*>& commands()
{
    static const QList<const Command*> all = {&versionCommand, &optionsCommand};
    return all;
}
