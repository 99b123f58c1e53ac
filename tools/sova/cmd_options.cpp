#include "command.h"

#include <QSovaOptions>

#include <climits>
#include <cmath>

namespace {

// A reader shows a value only when two different defaults give the same answer: otherwise the
// key is absent or its value does not convert, and the reader fell back to its default.
template <typename T, typename Reader>
QString scalar(Reader read, const QString& options, const QString& key, T a, T b)
{
    const T first = read(options, key, a);
    const T second = read(options, key, b);
    if (!(first == second))
        return QStringLiteral("-");
    return QVariant::fromValue(first).toString();
}

QString joinRow(const QVector<double>& row)
{
    QStringList items;
    for (double v : row)
        items << QString::number(v, 'g', 17);
    return items.join(QLatin1Char(','));
}

int runOptions(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("string"), QStringLiteral("The option string."));
    parser.addPositionalArgument(
        QStringLiteral("key"), QStringLiteral("Keys to read."), QStringLiteral("KEY..."));
    const int status = parseCommand(
        optionsCommand, parser, arguments, 2, QStringLiteral("needs an option string and a key"));
    if (status >= 0)
        return status;
    const QStringList positional = parser.positionalArguments();
    const QString options = positional.first();
    for (const QString& key : positional.mid(1)) {
        out() << key << Qt::endl;
        const QString text = QSova::getStringValueFromString(options, key, QString());
        out() << "  text:    " << (text.isEmpty() ? QStringLiteral("(absent or empty)") : text)
              << Qt::endl;
        out() << "  integer: "
              << scalar<int>(QSova::getIntegerValueFromString, options, key, INT_MIN, INT_MAX)
              << Qt::endl;
        out() << "  double:  "
              << scalar<double>(QSova::getDoubleValueFromString, options, key, -1.5, 2.5)
              << Qt::endl;
        out() << "  boolean: "
              << scalar<bool>(QSova::getBooleanValueFromString, options, key, false, true)
              << Qt::endl;
        // Empty vectors and matrices with empty rows are what the readers give for values
        // that are not vectors or matrices.
        const QVector<double> vector = QSova::getDoubleVectorFromString(options, key);
        out() << "  vector:  ";
        if (vector.isEmpty())
            out() << '-';
        else
            out() << '[' << joinRow(vector) << "] (" << vector.size()
                  << (vector.size() == 1 ? " element)" : " elements)");
        out() << Qt::endl;
        const QVector<QVector<double>> matrix = QSova::getDoubleMatrixFromString(options, key);
        QStringList rows;
        for (const QVector<double>& row : matrix) {
            if (row.isEmpty())
                break;
            rows << QLatin1Char('[') + joinRow(row) + QLatin1Char(']');
        }
        out() << "  matrix:  ";
        if (rows.isEmpty() || rows.size() != matrix.size())
            out() << '-';
        else
            out() << '[' << rows.join(QLatin1Char(',')) << "] (" << matrix.size() << " x "
                  << matrix.first().size() << ')';
        out() << Qt::endl;
    }
    return ExitOk;
}

} // namespace

const Command optionsCommand = {"options", "Show how an option string's keys read", "STRING KEY...",
    "Prints, for each KEY, the value of STRING's item as text, integer, double, boolean,\n"
    "vector and matrix; '-' where the value does not read as that type (or the key is\n"
    "absent, or the vector empty).\n"
    "Example: sova options 'sr=44100,nc=2,gains=[0.5,1]' sr gains",
    runOptions};
