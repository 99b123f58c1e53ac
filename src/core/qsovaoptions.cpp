#include "qsovaoptions.h"

#include <sova/blstring.h>

#include <QCommandLineParser>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QVariant>

#include <vector>

namespace QSova {

bool getBooleanValueFromString(const QString& options, const QString& key, bool def)
{
    return BLSTRING_GetBooleanValueFromString(options.toLatin1().constData(),
                                              key.toLatin1().constData(), def)
           != 0;
}

int getIntegerValueFromString(const QString& options, const QString& key, int def)
{
    return BLSTRING_GetIntegerValueFromString(options.toLatin1().constData(),
                                              key.toLatin1().constData(), def);
}

float getFloatValueFromString(const QString& options, const QString& key, float def)
{
    return BLSTRING_GetFloatValueFromString(options.toLatin1().constData(),
                                            key.toLatin1().constData(), def);
}

double getDoubleValueFromString(const QString& options, const QString& key, double def)
{
    return BLSTRING_GetDoubleValueFromString(options.toLatin1().constData(),
                                             key.toLatin1().constData(), def);
}

QString getStringValueFromString(const QString& options, const QString& key, const QString& def)
{
    const QByteArray o = options.toLatin1();
    const QByteArray k = key.toLatin1();
    const int length = BLSTRING_GetStringLengthFromString(o.constData(), k.constData());
    if (length < 1)
        return QString();
    const QByteArray d = def.toLatin1();
    const int size = qMax(length, d.size());
    QByteArray buffer(size + 1, '\0');
    if (BLSTRING_GetStringValueFromString(o.constData(), k.constData(), d.constData(),
                                          buffer.data(), size)
        != 1)
        return QString();
    return QString::fromLatin1(buffer.constData());
}

namespace {

template<typename T, typename Stored>
QVector<T> readVector(const QString& options, const QString& key,
                      int32_t (*reader)(const char*, const char*, Stored*, int32_t))
{
    static_assert(sizeof(T) == sizeof(Stored), "the reader fills the vector's own storage");
    const QByteArray o = options.toLatin1();
    const QByteArray k = key.toLatin1();
    int32_t count = 0;
    if (BLSTRING_GetVectorSizeFromString(o.constData(), k.constData(), &count) != 1 || count < 0)
        return QVector<T>();
    QVector<T> values(count);
    if (!reader(o.constData(), k.constData(), reinterpret_cast<Stored*>(values.data()), count))
        return QVector<T>();
    return values;
}

template<typename T, typename Stored>
QVector<QVector<T>> readMatrix(const QString& options, const QString& key,
                               int32_t (*reader)(const char*, const char*, Stored*, int32_t,
                                                 int32_t))
{
    static_assert(sizeof(T) == sizeof(Stored), "the reader fills elements of the row's width");
    const QByteArray o = options.toLatin1();
    const QByteArray k = key.toLatin1();
    int32_t rows = 0;
    int32_t columns = 0;
    if (BLSTRING_GetMatrixSizeFromString(o.constData(), k.constData(), &rows, &columns) != 1
        || rows < 0 || columns < 0)
        return QVector<QVector<T>>();
    QVector<QVector<T>> matrix(rows);
    std::vector<Stored> flat(static_cast<size_t>(rows) * static_cast<size_t>(columns));
    if (reader(o.constData(), k.constData(), flat.data(), rows, columns)) {
        for (int r = 0; r < rows; ++r) {
            QVector<T>& row = matrix[r];
            row.resize(columns);
            const Stored* source = flat.data() + static_cast<size_t>(r) * columns;
            for (int c = 0; c < columns; ++c)
                row[c] = static_cast<T>(source[c]);
        }
    }
    return matrix;
}

} // namespace

QVector<float> getFloatVectorFromString(const QString& options, const QString& key)
{
    return readVector<float, float>(options, key, BLSTRING_GetFloatVectorValuesFromString);
}

QVector<int> getInt32VectorFromString(const QString& options, const QString& key)
{
    return readVector<int, uint32_t>(options, key, BLSTRING_GetWord32VectorValuesFromString);
}

QVector<double> getDoubleVectorFromString(const QString& options, const QString& key)
{
    return readVector<double, double>(options, key, BLSTRING_GetDoubleVectorValuesFromString);
}

QVector<QVector<int>> getInt32MatrixFromString(const QString& options, const QString& key)
{
    return readMatrix<int, uint32_t>(options, key, BLSTRING_GetWord32MatrixValuesFromString);
}

QVector<QVector<double>> getDoubleMatrixFromString(const QString& options, const QString& key)
{
    return readMatrix<double, double>(options, key, BLSTRING_GetDoubleMatrixValuesFromString);
}

QVector<QVector<float>> getFloatMatrixFromString(const QString& options, const QString& key)
{
    return readMatrix<float, float>(options, key, BLSTRING_GetFloatMatrixValuesFromString);
}

bool parseOptions(const QString& configFile, const QStringList& arguments,
                  QCommandLineParser* parser)
{
    parser->process(arguments);
    QFile file(configFile);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("Couldn't open config file.");
        return false;
    }
    const QByteArray content = file.readAll();
    file.close();
    const QJsonObject object = QJsonDocument::fromJson(content).object();

    QStringList merged = arguments;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        // The command line wins: the file only fills what it left unset.
        if (parser->isSet(it.key()))
            continue;
        merged << QStringLiteral("--%1=%2").arg(it.key(), it.value().toVariant().toString());
    }
    parser->process(merged);
    return true;
}

} // namespace QSova
