// sova: the command-line face of the Sova audio core.
#include "command.h"

#include <QCoreApplication>
#include <QSova>

namespace {

const Command* findCommand(const QString& name)
{
    for (const Command* command : commands()) {
        if (name == QLatin1String(command->name))
            return command;
    }
    return nullptr;
}

int showHelp(const QStringList& arguments)
{
    if (arguments.isEmpty()) {
        out() << "Usage: sova COMMAND [ARGUMENTS]" << Qt::endl << Qt::endl
              << "Commands:" << Qt::endl;
        out() << QStringLiteral("  %1 %2").arg(QStringLiteral("help"), -10)
                     .arg(QStringLiteral("Show this list, or the help of one command"))
              << Qt::endl;
        for (const Command* command : commands())
            out() << QStringLiteral("  %1 %2")
                         .arg(QLatin1String(command->name), -10)
                         .arg(QLatin1String(command->summary))
                  << Qt::endl;
        out() << Qt::endl << "Run 'sova help COMMAND' for the arguments of a command." << Qt::endl;
        return ExitOk;
    }
    const Command* command = findCommand(arguments.first());
    if (!command)
        return usageError("help", QStringLiteral("unknown command '%1'").arg(arguments.first()));
    out() << "Usage: sova " << command->name;
    if (*command->usage)
        out() << ' ' << command->usage;
    out() << Qt::endl << command->summary << Qt::endl;
    if (*command->help)
        out() << Qt::endl << command->help << Qt::endl;
    return ExitOk;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("sova"));
    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.isEmpty()) {
        showHelp({});
        return ExitUsage;
    }
    const QString name = arguments.takeFirst();
    if (name == QLatin1String("help") || name == QLatin1String("--help")
        || name == QLatin1String("-h"))
        return showHelp(arguments);
    if (name == QLatin1String("--version"))
        return versionCommand.run({});
    const Command* command = findCommand(name);
    if (!command) {
        err() << "sova: unknown command '" << name << "'. Run 'sova help' for the list."
              << Qt::endl;
        return ExitUsage;
    }
    if (QSova::initialize() == 0) {
        err() << "sova: the library could not register its I/O handlers" << Qt::endl;
        return ExitFailure;
    }
    const int status = command->run(arguments);
    out().flush();
    QSova::finalize();
    return status;
}
