#pragma once

#include "qtsovacore_export.h"

#include <QDate>
#include <QDateTime>
#include <QExplicitlySharedDataPointer>
#include <QString>
#include <QStringList>
#include <QVariant>

struct _BLSETTINGS;
class QDebug;
class QObject;

// Typed access to a foundation settings store, with change notification.
//
// An object addresses the process-wide store until changeSettingsData() binds it to a store of
// its own, once and for good. Writes, exists(), isDefault() and query() address the object's
// own store; reads of a key that store does not hold fall back to the process-wide store.
// Copies share one record: binding or setting the handler on one is seen by all of them.
class QTSOVACORE_EXPORT QSovaSetting
{
public:
    struct Data;

    QSovaSetting();
    QSovaSetting(const QSovaSetting& other);
    QSovaSetting& operator=(const QSovaSetting& other);
    ~QSovaSetting();

    // The process-wide object; unbound until changeSettingsData() is called on it.
    static QSovaSetting& global();

    // true when both address the same store (handlers are not compared).
    bool operator==(const QSovaSetting& other) const;
    bool operator!=(const QSovaSetting& other) const { return !(*this == other); }

    // true while unbound.
    bool isNull() const;

    // Binds an unbound object to settings (not owned); false, changing nothing, when bound.
    bool changeSettingsData(_BLSETTINGS* settings);

    // The object told of changes through a queued call of its method "onSettingChanged()";
    // null for nobody. Not owned; a handler that is destroyed is forgotten.
    void setHandler(QObject* handler);

    // Ties the process-wide store to the user's file (read, and written by flush) and a
    // system-wide file read beneath it, whichever object this is called on.
    void setConfigFile(const QString& userFile, const QString& systemFile);

    // Reads defaults from a file into the process-wide store.
    void loadDefaults(const QString& path);

    // Writes "key=value"; true on success, after which the handler is told.
    bool change(const QString& key, int value);
    bool change(const QString& key, unsigned int value);
    bool change(const QString& key, bool value); // "1" or "0"
    bool change(const QString& key, double value); // 64 significant digits
    bool change(const QString& key, const QString& value);
    bool change(const QString& key, const char* value); // UTF-8; null writes an empty value
    bool change(const QString& key, const QDate& value); // ISO 8601
    bool change(const QString& key, const QDateTime& value); // ISO 8601
    // By the variant's type; an unsigned int goes to the int form (so 4294967295 is -1), and
    // types without a form of their own are written as their text.
    bool change(const QString& key, const QVariant& value);

    // Sets the key's default; the double form writes 6 significant digits, unlike change().
    bool setDefault(const QString& key, int value);
    bool setDefault(const QString& key, unsigned int value);
    bool setDefault(const QString& key, bool value);
    bool setDefault(const QString& key, double value);
    bool setDefault(const QString& key, const QString& value);
    bool setDefault(const QString& key, const char* value);
    bool setDefault(const QString& key, const QDate& value);
    bool setDefault(const QString& key, const QDateTime& value);

    // Stores a secret, kept out of the settings file.
    bool changeSecret(const QString& key, const QString& value);
    bool changeSecret(const QString& key, const char* value);

    // Returns the key to its default / removes it; true on success.
    bool reset(const QString& key);
    bool remove(const QString& key);

    // Reads: the key's value, else its default, else def (the store resolves def).
    int getInt(const QString& key, int def) const;
    unsigned int getUInt(const QString& key, unsigned int def) const;
    bool getBool(const QString& key, bool def) const;
    double getFloat(const QString& key, double def) const; // def sent with 6 digits
    // The store's own text (pooled, valid for the life of the process), or null.
    const char* getCString(const QString& key, const QString& def) const;
    // Null when the key has no text and def is empty.
    QString getString(const QString& key, const QString& def) const;
    QString getSecretString(const QString& key, const QString& def) const;
    QDate getDate(const QString& key, const QDate& def) const; // invalid when unparsable
    QDateTime getDateTime(const QString& key, const QDateTime& def) const;

    bool exists(const QString& key) const;
    bool isDefault(const QString& key) const;

    // "key=value" texts of the keys starting with key (every key when empty).
    QStringList query(const QString& key) const;

    // Writes the store's file; flag forces a write when nothing changed.
    bool flush(bool flag);
    static bool flushGlobalSettings(bool flag);

    // Asks the handler, if any, to run "onSettingChanged()" later in its own thread.
    void settingChanged();

private:
    bool write(int32_t (*store)(_BLSETTINGS*, const char*), const QString& key,
               const QString& value);
    _BLSETTINGS* storeFor(const QString& key) const;

    QExplicitlySharedDataPointer<Data> d;
    friend QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaSetting& setting);
};

QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaSetting& setting);
