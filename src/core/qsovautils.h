#pragma once

#include "qtsovacore_export.h"

#include <QByteArray>
#include <QList>
#include <QString>

class QSovaAudioFormat;

// Small text and path services.
namespace QSova {

// Upper-cases the first character and each character that follows a '_' or a blank; nothing
// is lower-cased ("tape_echo long" gives "Tape_Echo Long"). An empty text gives a text of one
// NUL character: the first position is always written, and callers depend on that.
QTSOVACORE_EXPORT QString capitalize(const QString& text);

// Absolute path of the first file of that name in "/var/lib/kpx", "/etc", the application's
// directory and the current directory, else in the home, desktop, documents, applications and
// configuration locations of QStandardPaths; empty when none has it.
QTSOVACORE_EXPORT QString locateConfigFile(const QString& fileName);

// A byte count for people: "512 bytes", or in kB, MB, ... (powers of 1024) with precision
// digits after the point ("1.50 kB"). Each step to a larger unit drops the remainder of the
// step before. A negative size gives "-".
QTSOVACORE_EXPORT QString formattedDataSize(qint64 size, int precision);

// The foundation's escape encoding: the result is safe as an option-string or ini value.
QTSOVACORE_EXPORT QString stringEncode(const QString& text);
QTSOVACORE_EXPORT QString stringDecode(const QString& text);

// RFC 3986 percent-encoding of the text's UTF-8 bytes, and back.
QTSOVACORE_EXPORT QString urlEncode(const QString& text);
QTSOVACORE_EXPORT QString urlDecode(const QString& text);

// The engine's name of its default dithering kind ("triangular"); empty when it has none.
QTSOVACORE_EXPORT QString defaultDithering();

// The mime type of a format name ("wav", "flac", or any container or codec name the engine's
// format strings know); for an empty name, format's container decides. Empty when unknown.
QTSOVACORE_EXPORT QString audioFormatToMimeType(const QString& formatName,
                                                const QSovaAudioFormat& format);
QTSOVACORE_EXPORT QString audioFormatToMimeType(const QString& formatName);

// The engine's format name of a mime type ("audio/flac" gives "flac"); empty when unknown.
QTSOVACORE_EXPORT QString mimeTypeToAudioFormat(const QString& mimeType);

// The items joined with separator between them.
QTSOVACORE_EXPORT QByteArray QByteArrayList_join(const QList<QByteArray>& list,
                                                 const QByteArray& separator);

} // namespace QSova
