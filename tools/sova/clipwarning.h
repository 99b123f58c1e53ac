// The warning a command prints when writing clipped samples beyond full scale.
#pragma once

#include <QSovaAudioFile>
#include <QString>

// Prints "sova: COMMAND: 'PATH': N samples beyond full scale clipped (peak +X.X dBFS)" to
// standard error when report counts any; nothing otherwise.
void warnClipped(
    const char* command, const QString& path, const QSovaAudioFile::ClipReport& report);
