#include "qsovainifile.h"

#include <sova/blinifile.h>
#include <sova/blio.h>
#include <sova/bllist.h>

#include <QDebug>

struct QSovaIniFile::Private {
    QString fileName;
    bool hasChanges = false;
    BLINIFILE* ini = nullptr;
};

QSovaIniFile::QSovaIniFile() : d(new Private) {}

QSovaIniFile::QSovaIniFile(const QString& fileName) : d(new Private)
{
    d->fileName = fileName;
    const QByteArray name = fileName.toUtf8();
    if (BLIO_FileExists(name.constData()))
        d->ini = BLINIFILE_Open(name.constData());
}

QSovaIniFile::~QSovaIniFile()
{
    if (d->ini) {
        if (d->hasChanges && !d->fileName.isEmpty())
            BLINIFILE_Save(d->ini, d->fileName.toUtf8().constData());
        BLINIFILE_Close(d->ini);
    }
}

bool QSovaIniFile::isValid() const
{
    return d->ini != nullptr;
}

const QString& QSovaIniFile::fileName() const
{
    return d->fileName;
}

bool QSovaIniFile::hasChanges() const
{
    return d->hasChanges;
}

void QSovaIniFile::clear()
{
    if (d->ini) {
        BLINIFILE_Close(d->ini);
        d->ini = nullptr;
    }
}

bool QSovaIniFile::save(const QString& fileName)
{
    if (!d->ini || fileName.isEmpty())
        return false;
    if (!BLINIFILE_Save(d->ini, fileName.toUtf8().constData()))
        return false;
    d->fileName = fileName;
    d->hasChanges = false;
    return true;
}

bool QSovaIniFile::save()
{
    if (!d->hasChanges)
        return true;
    return save(d->fileName);
}

namespace {

// Reads a name list through a scratch arena, which takes the list with it when disposed.
template<typename Reader>
QStringList readNames(Reader read)
{
    BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("QSovaIniFile (TempMemory)", 1024, 8);
    QStringList names;
    if (BLSTRINGLIST list = read(memory)) {
        const int count = GetStringListLength(list);
        names.reserve(count);
        for (int i = 0; i < count; ++i)
            names << QString::fromUtf8(GetStringInStringList(list, i));
    }
    BLMEM_DisposeMemDescr(memory);
    return names;
}

} // namespace

QStringList QSovaIniFile::sections() const
{
    if (!d->ini)
        return QStringList();
    return readNames([this](BLMEM_Descr* memory) { return BLINIFILE_ReadSectionsEx(d->ini, memory); });
}

QStringList QSovaIniFile::keys(const QString& section) const
{
    if (!d->ini)
        return QStringList();
    const QByteArray s = section.toUtf8();
    return readNames([this, &s](BLMEM_Descr* memory) {
        return BLINIFILE_ReadSectionKeysEx(d->ini, s.constData(), memory);
    });
}

bool QSovaIniFile::contains(const QString& section) const
{
    return d->ini && BLINIFILE_ExistSection(d->ini, section.toUtf8().constData());
}

bool QSovaIniFile::contains(const QString& section, const QString& key) const
{
    return d->ini
           && BLINIFILE_ExistSectionKey(d->ini, section.toUtf8().constData(),
                                        key.toUtf8().constData());
}

QVariant QSovaIniFile::value(const QString& section, const QString& key,
                             const QVariant& defaultValue) const
{
    if (!contains(section, key))
        return defaultValue;
    const QByteArray s = section.toUtf8();
    const QByteArray k = key.toUtf8();
    const int type = BLINIFILE_KeyType(d->ini, s.constData(), k.constData());
    if (type > BLINI_TYPE_HEX)
        return defaultValue;
    // The module is given neutral defaults; the caller's default applies only as below.
    switch (type) {
    case BLINI_TYPE_INTEGER:
    case BLINI_TYPE_HEX:
        return QVariant(qlonglong(BLINIFILE_ReadIntegerValue(d->ini, s.constData(), k.constData(), 0)));
    case BLINI_TYPE_EMPTY:
    case BLINI_TYPE_TEXT:
    case BLINI_TYPE_QUOTED:
    case BLINI_TYPE_BOOLEAN: {
        const char* text = BLINIFILE_ReadCStringValue(d->ini, s.constData(), k.constData(), nullptr);
        return text ? QVariant(QString::fromUtf8(text)) : defaultValue;
    }
    default:
        return QVariant(BLINIFILE_ReadFloatValue(d->ini, s.constData(), k.constData(), 0.0));
    }
}

void QSovaIniFile::setValue(const QString& section, const QString& key, const QVariant& value)
{
    if (!d->ini) // named, so that a save applies this value to a file made meanwhile
        d->ini
            = BLINIFILE_Create(d->fileName.isEmpty() ? nullptr : d->fileName.toUtf8().constData());
    const QByteArray s = section.toUtf8();
    const QByteArray k = key.toUtf8();
    switch (value.type()) {
    case QVariant::Bool:
        BLINIFILE_WriteBooleanValue(d->ini, s.constData(), k.constData(), value.toBool());
        break;
    case QVariant::Int:
    case QVariant::UInt:
    case QVariant::LongLong:
    case QVariant::ULongLong:
        // Narrowed to int on purpose: hosts store counts and flags here, never 64-bit values.
        BLINIFILE_WriteIntegerValue(d->ini, s.constData(), k.constData(), value.toInt());
        break;
    case QVariant::Double:
        BLINIFILE_WriteFloatValue(d->ini, s.constData(), k.constData(), value.toDouble());
        break;
    case QVariant::Char:
    case QVariant::String:
    case QVariant::Date:
    case QVariant::DateTime:
        BLINIFILE_WriteCStringValue(d->ini, s.constData(), k.constData(),
                                    value.toString().toUtf8().constData());
        break;
    default:
        return;
    }
    d->hasChanges = true;
}

QDebug operator<<(QDebug debug, const QSovaIniFile& file)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "QSovaIniFile(" << file.fileName();
    if (!file.isValid())
        debug << ", invalid";
    if (file.hasChanges())
        debug << ", changed";
    return debug << ')';
}
