#pragma once

#include "qtsovacore_export.h"

#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

class QDebug;

// One ini file: sections of keys with typed values.
//
// Writes are kept in memory until save(); pending writes are saved to fileName() when the
// object is destroyed. Not copyable: the object owns its file.
class QTSOVACORE_EXPORT QSovaIniFile
{
public:
    // No file: invalid until the first setValue().
    QSovaIniFile();
    // Reads fileName when it exists; a missing file leaves the object invalid, with the name
    // kept for save() and for the save at destruction.
    explicit QSovaIniFile(const QString& fileName);
    // Saves pending writes to fileName() (when there is one), then closes.
    ~QSovaIniFile();

    QSovaIniFile(const QSovaIniFile&) = delete;
    QSovaIniFile& operator=(const QSovaIniFile&) = delete;

    // true while a file is held (read, or begun by setValue()).
    bool isValid() const;
    const QString& fileName() const;
    // true after a write that save() has not yet written.
    bool hasChanges() const;

    // Drops the held file without saving; hasChanges() stays as it was.
    void clear();

    // Writes to fileName, which becomes the object's file name; false when there is nothing
    // held, the name is empty or the write fails (the file is then unchanged).
    bool save(const QString& fileName);
    // true at once when there are no changes, else save(fileName()).
    bool save();

    QStringList sections() const;
    QStringList keys(const QString& section) const;
    bool contains(const QString& section) const;
    bool contains(const QString& section, const QString& key) const;

    // The value as a qlonglong (integers), a double (numbers, also with units such as "dB" or
    // "kHz") or a QString (texts and booleans); defaultValue when the key is missing.
    QVariant value(const QString& section, const QString& key,
                   const QVariant& defaultValue = QVariant()) const;

    // Writes bools, integers (narrowed to int), doubles and texts (also chars, dates and
    // date-times as text); other types are not written and leave hasChanges() alone.
    void setValue(const QString& section, const QString& key, const QVariant& value);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaIniFile& file);
