#pragma once

#include "qtsovacore_export.h"

#include <QString>
#include <QTextStream>

namespace QSova {

// A text stream for one message of the foundation library's default log. Write into it with
// the usual stream operators; when it goes out of scope the whole text is logged as one
// message at the level that belongs to its type:
//
//     QSova::Logger(QSova::Logger::Warning) << "cannot open " << path;
class QTSOVACORE_EXPORT Logger : public QTextStream
{
public:
    // Severities, from the most verbose to the most severe.
    enum Type { Debug = 0, Info = 1, Warning = 2, Error = 3, Fatal = 4 };

    explicit Logger(Type type);
    Logger(Type type, const QString& text);

    // Logs the text. A type outside the enumeration (only a cast can make one) has no level:
    // std::runtime_error("Invalid logger type") is thrown. The destructor cannot be declared
    // noexcept(false), because it overrides QTextStream's non-throwing one, so the exception
    // ends in std::terminate, which reports it: a broken caller stops loudly at once.
    ~Logger() override;

private:
    Q_DISABLE_COPY(Logger)

    Type type;
    QString text;
};

} // namespace QSova
