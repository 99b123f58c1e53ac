#include "audiopaths.h"

#include "command.h"
#include "usage.h"

#include <QDir>
#include <QFileInfo>
#include <QSova>
#include <QTextStream>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>


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
    const int refused = refuseMemoryAddresses(paths);
    if (refused >= 0)
        return refused;
    if (paths.contains(QString()))
        return usageError(command, QStringLiteral("an empty file name"));
    return -1;
}

namespace {

const QString standardStream = QStringLiteral("-");

bool hasScheme(const QString& path)
{
    return path.indexOf(QStringLiteral("://")) > 0;
}

// The local file a path names: itself, or what follows "file://" (the engine's local files)
// or "qfile://" (the Qt layer's); empty for other schemes.
QString localPath(const QString& path)
{
    for (const QLatin1String scheme : {QLatin1String("file://"), QLatin1String("qfile://")})
        if (path.startsWith(scheme, Qt::CaseInsensitive))
            return path.mid(scheme.size());
    return hasScheme(path) ? QString() : path;
}

// An input path without the ":fmtconv[...]" suffix the engine reads it through.
QString withoutFmtConv(const QString& path)
{
    const int at = path.lastIndexOf(QLatin1String(":fmtconv"), -1, Qt::CaseInsensitive);
    if (at < 0)
        return path;
    const QString rest = path.mid(at + 8);
    if (rest.isEmpty() || (rest.startsWith(QLatin1Char('[')) && rest.endsWith(QLatin1Char(']'))))
        return path.left(at);
    return path;
}

// The status of what path names ("-": the standard stream of fd); false when nothing is there.
bool statPath(const QString& path, int fd, struct stat& st)
{
    if (path == standardStream)
        return ::fstat(fd, &st) == 0;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0;
}

// The file a chain of symbolic links ends at (the path itself when it is no link), as the
// engine resolves an output before it writes beside it.
QString finalTarget(QString path)
{
    for (int hops = 0; hops < 40; ++hops) {
        const QFileInfo info(path);
        if (!info.isSymLink())
            break;
        const QByteArray name = QFile::encodeName(path);
        char buffer[4096];
        const ssize_t n = ::readlink(name.constData(), buffer, sizeof buffer - 1);
        if (n <= 0)
            break;
        const QString link = QFile::decodeName(QByteArray(buffer, int(n)));
        path = QDir::isAbsolutePath(link) || info.path() == QLatin1String(".")
            ? link
            : info.dir().filePath(link);
    }
    return path;
}

// Copies everything readable from fd into an unlinked temporary file; the path that reopens
// it ("/proc/self/fd/N"), or an empty string with the reason in error.
QString spool(int fd, QString& error)
{
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        return QStringLiteral("/proc/self/fd/%1").arg(fd); // opens afresh, from the start
    QByteArray name = QFile::encodeName(QDir::tempPath() + QStringLiteral("/.sova-input-XXXXXX"));
    const int copy = ::mkstemp(name.data());
    if (copy < 0) {
        error = QStringLiteral("cannot create a temporary file in '%1': %2")
                    .arg(QDir::tempPath(), QString::fromLocal8Bit(std::strerror(errno)));
        return QString();
    }
    ::unlink(name.constData());
    QByteArray buffer(1 << 16, Qt::Uninitialized);
    for (;;) {
        const ssize_t got = ::read(fd, buffer.data(), size_t(buffer.size()));
        if (got == 0)
            break;
        if (got < 0 && errno == EINTR)
            continue;
        ssize_t put = got < 0 ? -1 : 0;
        while (put >= 0 && put < got) {
            const ssize_t n = ::write(copy, buffer.constData() + put, size_t(got - put));
            if (n < 0 && errno != EINTR)
                put = -1;
            else if (n > 0)
                put += n;
        }
        if (put < 0) {
            error = QString::fromLocal8Bit(std::strerror(errno));
            ::close(copy);
            return QString();
        }
    }
    return QStringLiteral("/proc/self/fd/%1").arg(copy);
}

// Why output cannot be written before any work starts, or an empty string.
QString outputDirectoryProblem(const QString& output)
{
    struct stat st;
    if (statPath(output, STDOUT_FILENO, st)) {
        if (S_ISDIR(st.st_mode))
            return QStringLiteral("cannot write '%1': it is a directory").arg(output);
        if (!S_ISREG(st.st_mode))
            return QString(); // a device, FIFO or socket is written in place
    }
    const QString dir = QFileInfo(finalTarget(output)).path();
    const QByteArray name = QFile::encodeName(dir);
    const bool found = ::stat(name.constData(), &st) == 0;
    const int statError = errno;
    // The system's reason first, then which part of the path it is about.
    if (found && !S_ISDIR(st.st_mode))
        return QStringLiteral("cannot write '%1': %2 ('%3' is not a directory)")
            .arg(output, QString::fromLocal8Bit(std::strerror(ENOTDIR)), dir);
    if (!found)
        return QStringLiteral("cannot write '%1': %2 (the directory '%3'%4)")
            .arg(output, QString::fromLocal8Bit(std::strerror(statError)), dir,
                statError == ENOENT ? QStringLiteral(" does not exist") : QString());
    if (::access(name.constData(), W_OK | X_OK) != 0)
        return QStringLiteral("cannot write '%1': the directory '%2' does not take new files: %3")
            .arg(output, dir, QString::fromLocal8Bit(std::strerror(errno)));
    return QString();
}

} // namespace

int refuseSameFiles(const char* command, const QStringList& inputs, const QStringList& outputs)
{
    // The same file twice: by device and inode when it exists, else by its resolved name.
    struct Seen
    {
        QString path;
        dev_t device;
        ino_t inode;
    };
    // A path whose file does not exist yet, by its directory's canonical name.
    const auto resolvedName = [](const QString& local) {
        const QFileInfo target(finalTarget(local));
        const QString dir = QFileInfo(target.path()).canonicalFilePath();
        return (dir.isEmpty() ? target.path() : dir) + QLatin1Char('/') + target.fileName();
    };
    QList<Seen> read;
    QList<QPair<QString, QString>> readNames; // inputs not there (yet), resolved
    for (const QString& input : inputs) {
        struct stat st;
        const QString path = localPath(withoutFmtConv(input));
        if (path.isEmpty() || path == standardStream)
            continue;
        if (statPath(path, STDIN_FILENO, st)) {
            if (S_ISREG(st.st_mode))
                read.append({input, st.st_dev, st.st_ino});
        } else {
            readNames.append({resolvedName(path), input});
        }
    }
    QStringList written;
    QList<Seen> writtenIds;
    for (const QString& output : outputs) {
        const QString local = localPath(output);
        if (local.isEmpty())
            continue;
        struct stat st;
        if (statPath(local, STDOUT_FILENO, st) && S_ISREG(st.st_mode)) {
            for (const Seen& in : read)
                if (in.device == st.st_dev && in.inode == st.st_ino)
                    return usageError(command,
                        in.path == output
                            ? QStringLiteral("'%1' is both an input and the output").arg(output)
                            : QStringLiteral("'%1' is the same file as the input '%2'")
                                  .arg(output, in.path));
            for (const Seen& other : writtenIds)
                if (other.device == st.st_dev && other.inode == st.st_ino)
                    return usageError(command,
                        QStringLiteral("'%1' and '%2' are the same file").arg(other.path, output));
            writtenIds.append({output, st.st_dev, st.st_ino});
        } else if (output != standardStream && !statPath(local, STDOUT_FILENO, st)) {
            const QString resolved = resolvedName(local);
            for (const auto& in : readNames)
                if (in.first == resolved)
                    return usageError(command,
                        in.second == output
                            ? QStringLiteral("'%1' is both an input and the output").arg(output)
                            : QStringLiteral("'%1' is the same file as the input '%2'")
                                  .arg(output, in.second));
            if (written.contains(resolved))
                return usageError(
                    command, QStringLiteral("'%1' is named twice as an output").arg(output));
            written.append(resolved);
        }
    }

    return -1;
}

int prepareAudioPaths(
    const char* command, QStringList& inputs, const QStringList& outputs, bool formatGiven)
{
    int refused = checkPaths(command, inputs + outputs);
    if (refused < 0)
        refused = checkFmtConvSuffixes(command, inputs);
    if (refused >= 0)
        return refused;
    if (inputs.count(standardStream) > 1)
        return usageError(command, QStringLiteral("standard input ('-') can be read only once"));
    if (outputs.count(standardStream) > 1)
        return usageError(
            command, QStringLiteral("standard output ('-') can take only one output"));
    if (outputs.contains(standardStream) && !formatGiven)
        return usageError(command,
            QStringLiteral("writing to standard output ('-') needs --format, e.g. --format wav"));

    refused = refuseSameFiles(command, inputs, outputs);
    if (refused >= 0)
        return refused;

    for (const QString& output : outputs) {
        if (output == standardStream || hasScheme(output))
            continue;
        const QString problem = outputDirectoryProblem(output);
        if (!problem.isEmpty())
            return fail(command, problem);
    }

    for (QString& input : inputs) {
        struct stat st;
        const bool fifo = input != standardStream && !hasScheme(input)
            && ::stat(QFile::encodeName(input).constData(), &st) == 0 && S_ISFIFO(st.st_mode);
        if (input != standardStream && !fifo)
            continue;
        int fd = STDIN_FILENO;
        if (fifo && (fd = ::open(QFile::encodeName(input).constData(), O_RDONLY | O_CLOEXEC)) < 0)
            return fail(command,
                QStringLiteral("cannot read '%1': %2")
                    .arg(input, QString::fromLocal8Bit(std::strerror(errno))));
        QString error;
        static QString standardInputCopy; // standard input can be read only once
        const QString copy
            = fifo || standardInputCopy.isEmpty() ? spool(fd, error) : standardInputCopy;
        if (!fifo)
            standardInputCopy = copy;
        if (fifo)
            ::close(fd);
        if (copy.isEmpty())
            return fail(command,
                QStringLiteral("cannot read '%1': %2")
                    .arg(
                        input == standardStream ? QStringLiteral("standard input") : input, error));
        showPathAs(copy, input);
        input = copy;
    }
    if (outputs.contains(standardStream))
        moveOutputToStandardError();
    return -1;
}
