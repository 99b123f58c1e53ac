#pragma once

#include "qtsovacore_export.h"

#include <QString>
#include <QStringList>
#include <QVector>

class QCommandLineParser;

// Readers of option strings: "key=value" items separated by commas, such as
// "sr=44100,nc=2,gains=[0.5,1]". Texts go to the foundation readers as Latin-1.
namespace QSova {

// The key's value converted, or def when the key is absent or its value does not convert.
QTSOVACORE_EXPORT bool getBooleanValueFromString(const QString& options, const QString& key,
                                                 bool def);
QTSOVACORE_EXPORT int getIntegerValueFromString(const QString& options, const QString& key,
                                                int def);
QTSOVACORE_EXPORT float getFloatValueFromString(const QString& options, const QString& key,
                                                float def);
QTSOVACORE_EXPORT double getDoubleValueFromString(const QString& options, const QString& key,
                                                  double def);

// The key's text. An absent or empty value gives an empty string, not def: def only widens
// the buffer the reader is given. Hosts rely on the empty result to tell "not set".
QTSOVACORE_EXPORT QString getStringValueFromString(const QString& options, const QString& key,
                                                   const QString& def);

// The key's vector ("[1,2,3]"; a scalar is a vector of one); empty when absent or unreadable.
QTSOVACORE_EXPORT QVector<float> getFloatVectorFromString(const QString& options,
                                                          const QString& key);
QTSOVACORE_EXPORT QVector<int> getInt32VectorFromString(const QString& options,
                                                        const QString& key);
QTSOVACORE_EXPORT QVector<double> getDoubleVectorFromString(const QString& options,
                                                            const QString& key);

// The key's matrix ("[[1,2],[3,4]]") as rows. Empty when the key is absent or its shape is
// unreadable; when only the values are unreadable, as many empty rows as the matrix has.
QTSOVACORE_EXPORT QVector<QVector<int>> getInt32MatrixFromString(const QString& options,
                                                                 const QString& key);
QTSOVACORE_EXPORT QVector<QVector<double>> getDoubleMatrixFromString(const QString& options,
                                                                     const QString& key);
QTSOVACORE_EXPORT QVector<QVector<float>> getFloatMatrixFromString(const QString& options,
                                                                   const QString& key);

// Lets parser process arguments, then fills the options the command line did not set from the
// top-level object of the JSON file configFile ("--key=value" for each), and processes again.
// false, with the warning "Couldn't open config file.", only when the file cannot be opened;
// a file that is not JSON adds nothing. The parser exits the program on unknown options, as
// QCommandLineParser::process does.
QTSOVACORE_EXPORT bool parseOptions(const QString& configFile, const QStringList& arguments,
                                    QCommandLineParser* parser);

} // namespace QSova
