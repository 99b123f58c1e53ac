#include "qsovautils.h"

#include "qsovaaudioformat.h"

#include <sova/audio.h>
#include <sova/blstring.h>

#include <QByteArrayList>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <cstdlib>

namespace QSova {

QString capitalize(const QString& text)
{
    QString result = text;
    if (result.isEmpty())
        result.resize(1); // the first position is written even when there is none
    result[0] = result.at(0).toUpper();
    int from = 0;
    for (;;) {
        int separator = -1;
        for (int i = from; i < result.size(); ++i) {
            if (result.at(i) == QLatin1Char('_') || result.at(i) == QLatin1Char(' ')) {
                separator = i;
                break;
            }
        }
        if (separator < 0)
            break;
        if (separator + 1 < result.size())
            result[separator + 1] = result.at(separator + 1).toUpper();
        from = separator + 1;
    }
    return result;
}

QString locateConfigFile(const QString& fileName)
{
    const QStringList directories = {QStringLiteral("/var/lib/kpx"), QStringLiteral("/etc"),
                                     QCoreApplication::applicationDirPath(),
                                     QStringLiteral(".")};
    for (const QString& directory : directories) {
        const QFileInfo candidate(QDir(directory), fileName);
        if (candidate.exists())
            return candidate.absoluteFilePath();
    }
    const QStandardPaths::StandardLocation locations[] = {
        QStandardPaths::HomeLocation, QStandardPaths::DesktopLocation,
        QStandardPaths::DocumentsLocation, QStandardPaths::ApplicationsLocation,
        QStandardPaths::ConfigLocation};
    for (QStandardPaths::StandardLocation location : locations) {
        const QString found = QStandardPaths::locate(location, fileName);
        if (!found.isEmpty())
            return found;
    }
    return QString();
}

QString formattedDataSize(qint64 size, int precision)
{
    if (size < 0)
        return QStringLiteral("-");
    if (size < 1024)
        return QStringLiteral("%1 bytes").arg(size);
    static const char* const units[] = {"kB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB"};
    int unit = 0;
    qint64 value = size;
    while (value >= 1048576 && unit < 7) {
        value >>= 10;
        ++unit;
    }
    return QStringLiteral("%1 %2")
        .arg(double(value) * 0.0009765625, 0, 'f', precision)
        .arg(QLatin1String(units[unit]));
}

namespace {

// Runs a foundation encoder whose result is malloc'd; null gives an empty string.
QString encodeWith(char* (*encoder)(const char*), const QString& text)
{
    char* encoded = encoder(text.toUtf8().constData());
    if (!encoded)
        return QString();
    const QString result = QString::fromUtf8(encoded);
    std::free(encoded);
    return result;
}

// Runs a foundation decoder into a buffer as long as the input: decoding never grows a text.
QString decodeWith(char* (*decoder)(const char*, char*), const QString& text)
{
    const QByteArray input = text.toUtf8();
    QByteArray buffer(input.size() + 1, '\0');
    if (!decoder(input.constData(), buffer.data()))
        return QString();
    return QString::fromUtf8(buffer.constData());
}

} // namespace

QString stringEncode(const QString& text)
{
    return encodeWith(BLSTRING_Encode, text);
}

QString stringDecode(const QString& text)
{
    return decodeWith(BLSTRING_Decode, text);
}

QString urlEncode(const QString& text)
{
    return encodeWith(BLUTILS_EncodeUrl, text);
}

QString urlDecode(const QString& text)
{
    return decodeWith(BLUTILS_UrlDecode, text);
}

QString defaultDithering()
{
    const char* name = AUDIODITHER_KindToString(AUDIODITHER_DefaultKind());
    return name ? QString::fromUtf8(name) : QString();
}

QString audioFormatToMimeType(const QString& formatName, const QSovaAudioFormat& format)
{
    char buffer[256];
    if (!AUDIO_ConvertAudioFormatToMimeTypeEx(formatName.toUtf8().constData(), buffer,
                                              sizeof buffer, format))
        return QString();
    return QString::fromUtf8(buffer);
}

QString audioFormatToMimeType(const QString& formatName)
{
    return audioFormatToMimeType(formatName, QSovaAudioFormat());
}

QString mimeTypeToAudioFormat(const QString& mimeType)
{
    char buffer[256];
    if (!AUDIO_ConvertMimeTypeToAudioFormat(mimeType.toUtf8().constData(), buffer,
                                            sizeof buffer))
        return QString();
    return QString::fromUtf8(buffer);
}

QByteArray QByteArrayList_join(const QList<QByteArray>& list, const QByteArray& separator)
{
    return list.join(separator);
}

} // namespace QSova
