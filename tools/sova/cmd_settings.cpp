#include "audiopaths.h"
#include "command.h"

#include <QDir>
#include <QFileInfo>
#include <QSovaSetting>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>

namespace {

const char kSystemFile[] = "/etc/sova/settings.conf";

QString defaultUserFile()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + QStringLiteral("/sova/settings.conf");
}

int runSettings(const QStringList& arguments)
{
    QCommandLineParser parser;
    const QCommandLineOption fileOption(QStringLiteral("file"),
        QStringLiteral("Settings file to use."), QStringLiteral("path"), defaultUserFile());
    parser.addOption(fileOption);
    parser.addPositionalArgument(QStringLiteral("action"), QStringLiteral("list, get, set, reset"));
    const int status = parseCommand(settingsCommand, parser, arguments, 1,
        QStringLiteral("needs an action: list, get, set or reset"));
    if (status >= 0)
        return status;
    const QStringList positional = parser.positionalArguments();
    const QString action = positional.first();
    const QString file = parser.value(fileOption);

    struct Form
    {
        const char* action;
        int arguments;
        const char* usage;
    };
    static const Form forms[] = {{"list", -1, "list [PREFIX]"}, {"get", 1, "get KEY"},
        {"set", 2, "set KEY VALUE"}, {"reset", 1, "reset KEY"}};
    const Form* form = nullptr;
    for (const Form& f : forms) {
        if (action == QLatin1String(f.action))
            form = &f;
    }
    if (!form)
        return usageError("settings", QStringLiteral("unknown action '%1'").arg(action));
    const int given = positional.size() - 1;
    if ((form->arguments < 0 && given > 1) || (form->arguments >= 0 && given != form->arguments))
        return usageError(
            "settings", QStringLiteral("usage: sova settings %1").arg(QLatin1String(form->usage)));

    int usage = checkPaths("settings", {file});
    // The defaults are read from the system file: writing the user's values into it would
    // turn defaults into values.
    if (usage < 0 && (action == QLatin1String("set") || action == QLatin1String("reset")))
        usage = refuseSameFiles("settings", {QLatin1String(kSystemFile)}, {file});
    if (usage >= 0)
        return usage;
    QFileInfo info(file);
    if (info.isDir())
        return fail("settings", QStringLiteral("cannot read '%1': it is a directory").arg(file));
    if (info.exists() && !info.isReadable())
        return fail("settings", QStringLiteral("cannot read '%1': permission denied").arg(file));
    QSovaSetting& settings = QSovaSetting::global();
    settings.setConfigFile(file, QLatin1String(kSystemFile));

    if (action == QLatin1String("list")) {
        for (const QString& line : settings.query(given ? positional.at(1) : QString()))
            out() << line << Qt::endl;
        return ExitOk;
    }
    const QString key = positional.at(1);
    if (action == QLatin1String("get")) {
        if (!settings.exists(key))
            return fail("settings", QStringLiteral("no setting '%1' in '%2'").arg(key, file));
        out() << settings.getString(key, QString()) << Qt::endl;
        return ExitOk;
    }
    bool done;
    if (action == QLatin1String("set")) {
        done = settings.change(key, positional.at(2));
        if (!done)
            return fail("settings",
                QStringLiteral("'%1' is not a valid key (letters, digits "
                               "and \"._-\")")
                    .arg(key));
    } else {
        done = settings.reset(key);
        if (!done)
            return fail(
                "settings", QStringLiteral("'%1' has no value of its own in '%2'").arg(key, file));
    }
    if (!QDir().mkpath(QFileInfo(file).absolutePath()))
        return fail("settings",
            QStringLiteral("cannot create the folder of '%1': %2")
                .arg(file, QString::fromLocal8Bit(std::strerror(errno))));
    if (!settings.flush(true))
        return fail("settings", engineFailure(QStringLiteral("write"), file));
    return ExitOk;
}

} // namespace

const Command settingsCommand
    = {"settings", "List, read and change the user's settings", "[--file PATH] ACTION ...",
        "Actions:\n"
        "  list [PREFIX]    every setting (value or default) whose key starts with PREFIX\n"
        "  get KEY          the setting's text\n"
        "  set KEY VALUE    give KEY a value of its own\n"
        "  reset KEY        return KEY to its default\n"
        "\n"
        "The user's settings live in $XDG_CONFIG_HOME/sova/settings.conf (by default\n"
        "~/.config/sova/settings.conf), one 'key = value' a line; --file names another file.\n"
        "Defaults are read from /etc/sova/settings.conf when it exists. Changes are written\n"
        "atomically: a crash leaves the old file or the new one.",
        runSettings};
