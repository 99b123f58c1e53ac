#include "command.h"

#include <QSova>
#include <QtSovaCore>

namespace {

int runVersion(const QStringList& arguments)
{
    QCommandLineParser parser;
    const int status = parseCommand(versionCommand, parser, arguments, 0, QString(), 0);
    if (status >= 0)
        return status;
    out() << "sova " << QTSOVACORE_VERSION_STR << Qt::endl
          << QString::fromLatin1(QtSovaCoreVersionString()) << Qt::endl
          << "Qt " << qVersion() << Qt::endl;
    return ExitOk;
}

} // namespace

const Command versionCommand
    = {"version", "Show the versions of sova, its library and Qt", "", "", runVersion};
