#include "audiopaths.h"

#include "command.h"

#include <QSova>
#include <QTextStream>

#include <cstdio>
#include <unistd.h>

QString refusedPathReason(const QString& path)
{
    if (path.isEmpty())
        return QStringLiteral("an empty file name");
    const QString lower = path.toLower();
    if (lower.startsWith(QLatin1String("qiodevice:")) || lower.startsWith(QLatin1String("hfile:")))
        return QStringLiteral("'%1': this scheme names memory, not a file").arg(path);
    return QString();
}

void showProgress(const QString& label, double fraction, bool done)
{
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    if (!terminal)
        return;
    constexpr int width = 30;
    if (fraction < 0.0)
        fraction = 0.0;
    if (fraction > 1.0)
        fraction = 1.0;
    const int filled = int(fraction * width + 0.5);
    QByteArray line = "\r" + label.toLocal8Bit() + " [";
    line += QByteArray(filled, '#') + QByteArray(width - filled, '.');
    line += "] " + QByteArray::number(int(fraction * 100.0 + 0.5)).rightJustified(3) + "%";
    if (done)
        line += '\n';
    std::fputs(line.constData(), stderr);
    std::fflush(stderr);
}

QString engineFailure(const QString& verb, const QString& path)
{
    const QString reason = QSova::lastErrorString();
    if (reason.contains(path))
        return reason;
    const QString head = QStringLiteral("cannot %1 '%2'").arg(verb, path);
    return reason.isEmpty() ? head : head + QStringLiteral(": ") + reason;
}

int checkPaths(const char* command, const QStringList& paths)
{
    for (const QString& path : paths) {
        const QString refused = refusedPathReason(path);
        if (!refused.isEmpty())
            return fail(command, refused);
    }
    return -1;
}
