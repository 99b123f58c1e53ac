#include "command.h"

#include <QSovaFft>

namespace {

int runWindows(const QStringList& arguments)
{
    QCommandLineParser parser;
    const int status = parseCommand(windowsCommand, parser, arguments, 0, QString(), 0);
    if (status >= 0)
        return status;
    const QStringList names = QSovaFft::getWindowNameList();
    for (int type = 0; type < names.size(); ++type) {
        out() << QStringLiteral("%1  %2").arg(type, 2).arg(names.at(type));
        if (type == QSovaFft::defaultWinType())
            out() << "  (default)";
        out() << Qt::endl;
    }
    return ExitOk;
}

} // namespace

const Command windowsCommand = {"windows", "List the analysis windows of the spectrum analyser", "",
    "Prints each window's number and name, as 'wintype' takes them in an analyser's\n"
    "configuration (fftlen=1024,wintype=hann,...).",
    runWindows};
