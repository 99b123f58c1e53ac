#include "qsovasetting.h"

#include <sova/bllist.h>
#include <sova/blsettings.h>

#include <QDebug>
#include <QObject>
#include <QPointer>
#include <QSharedData>

// Copies share this record and keep it alive together: the last one frees it.
struct QSovaSetting::Data : public QSharedData {
    _BLSETTINGS* handle = nullptr; // null: the process-wide store
    QPointer<QObject> handler;
};

namespace {

QSovaSetting m_global_setting;

QString readRequest(const QString& key, const QString& def)
{
    return QStringLiteral("%1=[%2]").arg(key).arg(def);
}

} // namespace

QSovaSetting::QSovaSetting() : d(new Data) {}

QSovaSetting::QSovaSetting(const QSovaSetting& other) = default;

QSovaSetting& QSovaSetting::operator=(const QSovaSetting& other) = default;

QSovaSetting::~QSovaSetting() = default;

QSovaSetting& QSovaSetting::global()
{
    return m_global_setting;
}

bool QSovaSetting::operator==(const QSovaSetting& other) const
{
    return d->handle == other.d->handle;
}

bool QSovaSetting::isNull() const
{
    return d->handle == nullptr;
}

bool QSovaSetting::changeSettingsData(_BLSETTINGS* settings)
{
    if (d->handle)
        return false;
    d->handle = settings;
    return true;
}

void QSovaSetting::setHandler(QObject* handler)
{
    d->handler = handler;
}

void QSovaSetting::setConfigFile(const QString& userFile, const QString& systemFile)
{
    BLSETTINGS_SetConfigFileEx(nullptr, userFile.toUtf8().constData(),
                               systemFile.toUtf8().constData());
}

void QSovaSetting::loadDefaults(const QString& path)
{
    BLSETTINGS_LoadDefaults(path.toUtf8().constData(), "");
}

bool QSovaSetting::write(int32_t (*store)(_BLSETTINGS*, const char*), const QString& key,
                         const QString& value)
{
    const QString request = QStringLiteral("%1=%2").arg(key).arg(value);
    if (store(d->handle, request.toUtf8().constData()) != 1)
        return false;
    settingChanged();
    return true;
}

bool QSovaSetting::change(const QString& key, int value)
{
    return write(BLSETTINGS_ChangeEx, key, QString::number(value));
}

bool QSovaSetting::change(const QString& key, unsigned int value)
{
    return write(BLSETTINGS_ChangeEx, key, QString::number(value));
}

bool QSovaSetting::change(const QString& key, bool value)
{
    return write(BLSETTINGS_ChangeEx, key, value ? QStringLiteral("1") : QStringLiteral("0"));
}

bool QSovaSetting::change(const QString& key, double value)
{
    return write(BLSETTINGS_ChangeEx, key, QString::number(value, 'g', 64));
}

bool QSovaSetting::change(const QString& key, const QString& value)
{
    return write(BLSETTINGS_ChangeEx, key, value);
}

bool QSovaSetting::change(const QString& key, const char* value)
{
    return write(BLSETTINGS_ChangeEx, key, QString::fromUtf8(value));
}

bool QSovaSetting::change(const QString& key, const QDate& value)
{
    return change(key, value.toString(Qt::ISODate));
}

bool QSovaSetting::change(const QString& key, const QDateTime& value)
{
    return change(key, value.toString(Qt::ISODate));
}

bool QSovaSetting::change(const QString& key, const QVariant& value)
{
    switch (value.type()) {
    case QVariant::Bool:
        return change(key, value.toBool());
    case QVariant::Int:
        return change(key, value.toInt());
    case QVariant::UInt:
        // The signed form on purpose: hosts read such values back as negative ints.
        return change(key, static_cast<int>(value.toUInt()));
    case QVariant::Double:
        return change(key, value.toDouble());
    case QVariant::String:
        return change(key, value.toString());
    case QVariant::Date:
        return change(key, value.toDate());
    case QVariant::DateTime:
        return change(key, value.toDateTime());
    default:
        return change(key, value.toString());
    }
}

bool QSovaSetting::setDefault(const QString& key, int value)
{
    return write(BLSETTINGS_SetDefaultEx, key, QString::number(value));
}

bool QSovaSetting::setDefault(const QString& key, unsigned int value)
{
    return write(BLSETTINGS_SetDefaultEx, key, QString::number(value));
}

bool QSovaSetting::setDefault(const QString& key, bool value)
{
    return write(BLSETTINGS_SetDefaultEx, key, value ? QStringLiteral("1") : QStringLiteral("0"));
}

bool QSovaSetting::setDefault(const QString& key, double value)
{
    // Six significant digits, unlike change(): defaults are written as people would type them.
    return write(BLSETTINGS_SetDefaultEx, key, QStringLiteral("%1").arg(value, 0, 'g', -1));
}

bool QSovaSetting::setDefault(const QString& key, const QString& value)
{
    return write(BLSETTINGS_SetDefaultEx, key, value);
}

bool QSovaSetting::setDefault(const QString& key, const char* value)
{
    return write(BLSETTINGS_SetDefaultEx, key, QString::fromUtf8(value));
}

bool QSovaSetting::setDefault(const QString& key, const QDate& value)
{
    return setDefault(key, value.toString(Qt::ISODate));
}

bool QSovaSetting::setDefault(const QString& key, const QDateTime& value)
{
    return setDefault(key, value.toString(Qt::ISODate));
}

bool QSovaSetting::changeSecret(const QString& key, const QString& value)
{
    return write(BLSETTINGS_ChangeSecretEx, key, value);
}

bool QSovaSetting::changeSecret(const QString& key, const char* value)
{
    return write(BLSETTINGS_ChangeSecretEx, key, QString::fromUtf8(value));
}

bool QSovaSetting::reset(const QString& key)
{
    if (BLSETTINGS_ResetValueEx(d->handle, key.toUtf8().constData()) != 1)
        return false;
    settingChanged();
    return true;
}

bool QSovaSetting::remove(const QString& key)
{
    if (BLSETTINGS_DeleteEx(d->handle, key.toUtf8().constData()) != 1)
        return false;
    settingChanged();
    return true;
}

_BLSETTINGS* QSovaSetting::storeFor(const QString& key) const
{
    // A bound object reads what its own store lacks from the process-wide store.
    if (d->handle && BLSETTINGS_ExistsEx(d->handle, key.toUtf8().constData()))
        return d->handle;
    return nullptr;
}

int QSovaSetting::getInt(const QString& key, int def) const
{
    return BLSETTINGS_GetIntEx(storeFor(key),
                               readRequest(key, QString::number(def)).toUtf8().constData());
}

unsigned int QSovaSetting::getUInt(const QString& key, unsigned int def) const
{
    return static_cast<unsigned int>(BLSETTINGS_GetIntEx(
        storeFor(key), readRequest(key, QString::number(def)).toUtf8().constData()));
}

bool QSovaSetting::getBool(const QString& key, bool def) const
{
    const QString request = readRequest(key, def ? QStringLiteral("1") : QStringLiteral("0"));
    return BLSETTINGS_GetBoolEx(storeFor(key), request.toUtf8().constData()) != 0;
}

double QSovaSetting::getFloat(const QString& key, double def) const
{
    return BLSETTINGS_GetFloatEx(
        storeFor(key), readRequest(key, QString::number(def, 'g', 6)).toUtf8().constData());
}

const char* QSovaSetting::getCString(const QString& key, const QString& def) const
{
    return BLSETTINGS_GetStringEx(storeFor(key), readRequest(key, def).toUtf8().constData());
}

namespace {

QString readString(const char* (*getter)(_BLSETTINGS*, const char*), _BLSETTINGS* store,
                   const QString& key, const QString& def)
{
    // An empty default sends the bare key, so that an absent key reads as a null string.
    const QString request = def.isEmpty() ? key : readRequest(key, def);
    const char* text = getter(store, request.toUtf8().constData());
    return text ? QString::fromUtf8(text) : QString();
}

} // namespace

QString QSovaSetting::getString(const QString& key, const QString& def) const
{
    return readString(BLSETTINGS_GetStringEx, storeFor(key), key, def);
}

QString QSovaSetting::getSecretString(const QString& key, const QString& def) const
{
    return readString(BLSETTINGS_GetSecretStringEx, storeFor(key), key, def);
}

QDate QSovaSetting::getDate(const QString& key, const QDate& def) const
{
    return QDate::fromString(getString(key, def.toString(Qt::ISODate)), Qt::ISODate);
}

QDateTime QSovaSetting::getDateTime(const QString& key, const QDateTime& def) const
{
    return QDateTime::fromString(getString(key, def.toString(Qt::ISODate)), Qt::ISODate);
}

bool QSovaSetting::exists(const QString& key) const
{
    return BLSETTINGS_ExistsEx(d->handle, key.toUtf8().constData()) != 0;
}

bool QSovaSetting::isDefault(const QString& key) const
{
    return BLSETTINGS_IsDefault(d->handle, key.toUtf8().constData()) != 0;
}

QStringList QSovaSetting::query(const QString& key) const
{
    const QByteArray prefix = key.toUtf8();
    BLLIST* list = BLSETTINGS_ListSettingsEx(d->handle, key.isEmpty() ? nullptr : prefix.constData());
    QStringList result;
    if (!list)
        return result;
    if (BLLIST_NumElements(list) != 0) {
        // The strings belong to the list: copy them before it goes.
        while (const void* text = BLLIST_PopFirstData(list))
            result << QString::fromUtf8(static_cast<const char*>(text));
    }
    BLLIST_DestroyEx(list, 0);
    return result;
}

bool QSovaSetting::flush(bool flag)
{
    return BLSETTINGS_FlushEx(d->handle, flag ? 1 : 0) != 0;
}

bool QSovaSetting::flushGlobalSettings(bool flag)
{
    return global().flush(flag);
}

void QSovaSetting::settingChanged()
{
    if (d->handler)
        QMetaObject::invokeMethod(d->handler.data(), "onSettingChanged", Qt::QueuedConnection);
}

QDebug operator<<(QDebug debug, const QSovaSetting& setting)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "QSovaSetting(";
    if (setting.isNull())
        debug << "process-wide store";
    else
        debug << "store " << static_cast<const void*>(setting.d->handle);
    return debug << ')';
}
