#pragma once

#include "qtsovacore_export.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include "qsovaaudiofile.h"

namespace QSova {

// Splits a multichannel audio file into one mono file per channel, at the input's rate:
// channel c goes to outputFiles[c], each created with the format string
// "<outputFormat>[sr=<input rate>,nch=1]" (options added to any it has) and the input's
// resolution and sample kind. Channels without a name are dropped; names beyond
// the channel count are ignored; an output that cannot be created is skipped and reported on
// the debug output. False for more than 8 names or when the input cannot be opened; true
// otherwise, even when outputs were skipped.
QTSOVACORE_EXPORT bool ChannelDemultiplexer(const QString& inputFile,
    const QStringList& outputFiles, const QString& inputFormat, const QString& outputFormat);
// What became of one output of a demultiplexing: created or not (and the engine's reason),
// and what writing it clipped.
struct DemultiplexedOutput
{
    bool created = false;
    QString error;
    QSovaAudioFile::ClipReport clips;
};
// The same, filling results (when not null) with one entry per name.
QTSOVACORE_EXPORT bool ChannelDemultiplexer(const QString& inputFile,
    const QStringList& outputFiles, const QString& inputFormat, const QString& outputFormat,
    QVector<DemultiplexedOutput>* results);

// Joins mono files into one file with a channel per input, in the order given, at the first
// input's rate; an input of another rate, or with more channels, is converted to mono at that
// rate on the way in. Shorter inputs are padded with silence up to the longest one. The output
// is created with "<outputFormat>[sr=<rate>,nch=<inputs>]" and the resolution and sample
// kind of the widest input (float when any input is float). False for more than 8 inputs, or
// when an input cannot be opened or the output cannot be created (reported on the debug output;
// nothing is written then).
QTSOVACORE_EXPORT bool ChannelMultiplexer(const QStringList& inputFiles, const QString& outputFile,
    const QString& inputFormat, const QString& outputFormat);

} // namespace QSova
