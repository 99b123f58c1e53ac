#include "qsovatracer.h"

#include <QByteArray>
#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QMutex>

#include <cstdio>

namespace QSova {

namespace {

// How long any tracer operation waits for the global mutex before it gives up.
constexpr int lockTimeout = 32; // milliseconds

struct TracerData
{
    QString output; // null: no trace file
    bool disabled = true;
    QMutex mutex{QMutex::Recursive};

    ~TracerData() { qDebug("Tracer Data Deleted"); }
};

// Built on first use; the initialisation of a function-local static is thread-safe.
TracerData& data()
{
    static TracerData instance;
    return instance;
}

QByteArray timeStamp(const char* format)
{
    return QDateTime::currentDateTime().toString(QLatin1String(format)).toLocal8Bit();
}

} // namespace

Tracer::Tracer()
    : flag(false)
{
    setString(&buffer, QIODevice::ReadWrite);
}

Tracer::Tracer(const QString& tag)
    : Tracer()
{
    this->tag = tag;
}

Tracer::~Tracer()
{
    flush();
    TracerData& state = data();
    if (!state.mutex.tryLock(lockTimeout)) {
        qDebug("QSova::Tracer::~Tracer: Tracer fail to lock!");
        // The line must not be lost: it goes to standard error instead, in one call so that
        // it does not interleave with other writers.
        std::fprintf(stderr, "%s: %s\n", timeStamp("yyyy-MM-dd HH:mm:ss").constData(),
                     buffer.toLocal8Bit().constData());
        return;
    }
    if (!state.disabled && !state.output.isNull()) {
        QFile file(state.output);
        if (file.open(QIODevice::Append)) {
            QByteArray line = timeStamp("yyyy-MM-dd HH:mm:ss: ");
            if (!tag.isEmpty()) {
                line += tag.toLocal8Bit();
                line += ' ';
            }
            line += buffer.toLocal8Bit();
            line += '\n';
            file.write(line);
            file.close();
        }
    }
    state.mutex.unlock();
}

const QString& Tracer::text() const
{
    return buffer;
}

void Tracer::setActive(bool on)
{
    TracerData& state = data();
    if (!state.mutex.tryLock(lockTimeout)) {
        qDebug("QSova::Tracer::setActive: Tracer fail to lock!");
        return;
    }
    state.disabled = !on;
    state.mutex.unlock();
}

bool Tracer::isActive()
{
    TracerData& state = data();
    if (!state.mutex.tryLock(lockTimeout)) {
        qDebug("QSova::Tracer::isActive: Tracer fail to lock!");
        return false;
    }
    const bool active = !state.disabled;
    state.mutex.unlock();
    return active;
}

bool Tracer::setOutput(const QString& path)
{
    TracerData& state = data();
    if (!state.mutex.tryLock(lockTimeout)) {
        qDebug("QSova::Tracer::setOutput: Tracer fail to lock!");
        return false;
    }
    QFile file(path);
    // Opening for writing creates the file or empties it right away.
    const bool opened = file.open(QIODevice::WriteOnly);
    file.close();
    state.output = opened ? path : QString();
    state.mutex.unlock();
    return opened;
}

bool Tracer::clearOutput()
{
    TracerData& state = data();
    if (!state.mutex.tryLock(lockTimeout)) {
        qDebug("QSova::Tracer::clearOutput: Tracer fail to lock!");
        return false;
    }
    bool cleared = false;
    if (!state.output.isNull() && QFile::exists(state.output) && QFile::remove(state.output)) {
        state.output = QString();
        cleared = true;
    }
    state.mutex.unlock();
    return cleared;
}

void Tracer::lock()
{
    data().mutex.lock();
}

void Tracer::unlock()
{
    data().mutex.unlock();
}

QMutex* Tracer::mutex()
{
    return &data().mutex;
}

} // namespace QSova
