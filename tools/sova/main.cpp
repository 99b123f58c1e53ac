// sova: the command-line face of the Sova audio core.
#include "command.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSova>
#include <qtsovacoreversion.h>
#include <sova/audio.h>

#include <csignal>
#include <unistd.h>

namespace {

const Command* findCommand(const QString& name)
{
    for (const Command* command : commands()) {
        if (name == QLatin1String(command->name))
            return command;
    }
    return nullptr;
}

void listCommands()
{
    out() << "Usage: sova COMMAND [ARGUMENTS]" << Qt::endl
          << Qt::endl
          << "Commands:" << Qt::endl;
    out() << QStringLiteral("  %1 %2")
                 .arg(QStringLiteral("help"), -10)
                 .arg(QStringLiteral("Show this list, or the help of one command"))
          << Qt::endl;
    for (const Command* command : commands())
        out() << QStringLiteral("  %1 %2")
                     .arg(QLatin1String(command->name), -10)
                     .arg(QLatin1String(command->summary))
              << Qt::endl;
    out() << Qt::endl << "Run 'sova help COMMAND' for the arguments of a command." << Qt::endl;
}

int showHelp(const QStringList& arguments)
{
    if (arguments.isEmpty()) {
        listCommands();
        return ExitOk;
    }
    const Command* command = findCommand(arguments.first());
    if (!command)
        return usageError("help", QStringLiteral("unknown command '%1'").arg(arguments.first()));
    printCommandHelp(*command);
    return ExitOk;
}

// Ctrl-C, kill and a closed terminal end the process here: the temporaries of unfinished
// files go with it, and the status is the shell's 128 + signal.
extern "C" void onTerminatingSignal(int signal)
{
    AUDIO_RemoveTemporaryFiles();
    _exit(128 + signal);
}

void removeTemporariesOnSignals()
{
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler == SIG_IGN)
            continue; // started under nohup or in the background: the signal stays ignored
        action = {};
        action.sa_handler = onTerminatingSignal;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, nullptr);
    }
    // Past a file-size limit (ulimit -f) the write fails with EFBIG and the command reports it
    // and removes its temporary, instead of being killed with the temporary left behind.
    std::signal(SIGXFSZ, SIG_IGN);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("sova"));
    QCoreApplication::setApplicationVersion(QLatin1String(QTSOVACORE_VERSION_STR));

    // Options before the command belong to sova; everything from the command on is the
    // command's own, parsed by its own parser.
    QCommandLineParser parser;
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show the list of commands."));
    const QCommandLineOption versionOption(QStringLiteral("version"),
                                           QStringLiteral("Show the versions."));
    parser.addOption(helpOption);
    parser.addOption(versionOption);
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("What to do."));
    if (!parser.parse(QCoreApplication::arguments())) {
        err() << "sova: " << parser.errorText() << Qt::endl
              << "Run 'sova help' for the list of commands." << Qt::endl;
        return ExitUsage;
    }
    if (parser.isSet(versionOption))
        return versionCommand.run({});
    QStringList arguments = parser.positionalArguments();
    if (parser.isSet(helpOption))
        return showHelp(arguments.mid(0, 1));
    if (arguments.isEmpty()) {
        listCommands();
        return ExitUsage;
    }
    const QString name = arguments.takeFirst();
    if (name == QLatin1String("help"))
        return showHelp(arguments);
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
    removeTemporariesOnSignals();
    const int status = command->run(arguments);
    out().flush();
    QSova::finalize();
    return status;
}
