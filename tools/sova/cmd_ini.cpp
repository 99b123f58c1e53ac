#include "audiopaths.h"
#include "command.h"

#include <QFileInfo>
#include <QSovaIniFile>

namespace {

QString text(const QVariant& value)
{
    if (value.type() == QVariant::Double)
        return QString::number(value.toDouble(), 'g', 17);
    return value.toString();
}

// A value typed on the command line: integers, numbers and booleans keep their type.
QVariant typed(const QString& value)
{
    bool ok = false;
    const int integer = value.toInt(&ok);
    if (ok)
        return integer;
    const double number = value.toDouble(&ok);
    if (ok)
        return number;
    if (value == QLatin1String("true") || value == QLatin1String("false"))
        return value == QLatin1String("true");
    return value;
}

void printSection(const QSovaIniFile& ini, const QString& section)
{
    for (const QString& key : ini.keys(section))
        out() << key << " = " << text(ini.value(section, key)) << Qt::endl;
}

int runIni(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("The ini file."));
    parser.addPositionalArgument(QStringLiteral("section"), QStringLiteral("A section."),
        QStringLiteral("[SECTION [KEY [VALUE]]]"));
    const int status
        = parseCommand(iniCommand, parser, arguments, 1, QStringLiteral("needs an ini file"), 4);
    if (status >= 0)
        return status;
    const QStringList positional = parser.positionalArguments();
    const QString file = positional.at(0);
    const int usage = checkPaths("ini", {file});
    if (usage >= 0)
        return usage;
    const QFileInfo info(file);
    const bool writing = positional.size() == 4;

    QSovaIniFile ini(file);
    if (!ini.isValid()) {
        if (info.exists() && !info.isReadable())
            return fail("ini", QStringLiteral("cannot read '%1': permission denied").arg(file));
        if (info.isDir())
            return fail("ini", QStringLiteral("'%1' is a folder").arg(file));
        if (info.exists())
            return fail("ini", QStringLiteral("'%1' is not an ini file").arg(file));
        if (!writing)
            return fail("ini", QStringLiteral("'%1' does not exist").arg(file));
    }
    if (writing) {
        ini.setValue(positional.at(1), positional.at(2), typed(positional.at(3)));
        if (!ini.save())
            return fail("ini", engineFailure(QStringLiteral("write"), file));
        return ExitOk;
    }
    if (positional.size() == 1) {
        bool first = true;
        for (const QString& section : ini.sections()) {
            if (!first)
                out() << Qt::endl;
            first = false;
            out() << '[' << section << ']' << Qt::endl;
            printSection(ini, section);
        }
        return ExitOk;
    }
    const QString section = positional.at(1);
    if (!ini.contains(section))
        return fail("ini", QStringLiteral("no section '%1' in '%2'").arg(section, file));
    if (positional.size() == 2) {
        printSection(ini, section);
        return ExitOk;
    }
    const QString key = positional.at(2);
    if (!ini.contains(section, key))
        return fail(
            "ini", QStringLiteral("no key '%1' in section '%2' of '%3'").arg(key, section, file));
    out() << text(ini.value(section, key)) << Qt::endl;
    return ExitOk;
}

} // namespace

const Command iniCommand = {"ini", "Show or change an ini file", "FILE [SECTION [KEY [VALUE]]]",
    "With FILE alone, prints every section and key; with SECTION, that section's keys;\n"
    "with KEY, its value; with VALUE, sets it (integers, numbers and true/false keep their\n"
    "type, anything else is text) and saves the file atomically, creating it if needed.\n"
    "Comments and the order of the file are kept.",
    runIni};
