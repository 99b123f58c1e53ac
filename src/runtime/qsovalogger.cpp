#include "qsovalogger.h"

#include <sova/bllog.h>

#include <QByteArray>

#include <stdexcept>

namespace QSova {

namespace {

int32_t levelOf(Logger::Type type)
{
    switch (type) {
    case Logger::Debug:
        return BLLOG_DEBUG;
    case Logger::Info:
        return BLLOG_INFO;
    case Logger::Warning:
        return BLLOG_WARNING;
    case Logger::Error:
        return BLLOG_ERROR;
    case Logger::Fatal:
        return BLLOG_FATAL;
    }
    throw std::runtime_error("Invalid logger type");
}

} // namespace

Logger::Logger(Type type)
    : type(type)
{
    setString(&text, QIODevice::ReadWrite);
}

Logger::Logger(Type type, const QString& message)
    : Logger(type)
{
    *this << message;
}

Logger::~Logger()
{
    flush();
    const int32_t level = levelOf(type);
    const QByteArray message = text.toLocal8Bit();
    // The text is an argument, never the format: '%' in a message is printed as it is.
    BLLOG_Log(nullptr, level, "%s", message.constData());
}

} // namespace QSova
