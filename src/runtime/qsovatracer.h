#pragma once

#include "qtsovacore_export.h"

#include <QString>
#include <QTextStream>

class QMutex;

namespace QSova {

// A process-wide trace. A Tracer collects one line with the stream operators and, when it is
// destroyed, appends it with a time stamp (and its tag) to the trace file, provided tracing is
// active and a file is set. Every access to the shared state waits at most 32 ms for the
// global mutex; a line that cannot get it goes to standard error instead of being lost.
//
//     QSova::Tracer::setOutput(QStringLiteral("/tmp/trace.txt"));
//     QSova::Tracer::setActive(true);
//     QSova::Tracer(QStringLiteral("io")) << "open " << fd;
class QTSOVACORE_EXPORT Tracer : public QTextStream
{
public:
    Tracer();
    explicit Tracer(const QString& tag);
    ~Tracer() override;

    // The text written so far.
    const QString& text() const;

    // Switches tracing on or off (off initially).
    static void setActive(bool on);
    // Whether tracing is on; false also when the mutex could not be taken.
    static bool isActive();
    // Creates or empties the file at path and makes it the output. On failure there is no
    // output afterwards and the result is false.
    static bool setOutput(const QString& path);
    // Deletes the output file and unsets the output; false (and nothing changed) when the file
    // does not exist or cannot be removed.
    static bool clearOutput();

    // Holds the global mutex without a time limit, so that several lines stay together. The
    // mutex is recursive: tracers of the locking thread still write.
    static void lock();
    static void unlock();
    static QMutex* mutex();

private:
    Q_DISABLE_COPY(Tracer)

    bool flag;
    QString buffer;
    QString tag;
};

} // namespace QSova
