#include "clipwarning.h"

#include "command.h"

#include <cmath>

void warnClipped(const char* command, const QString& path, const QSovaAudioFile::ClipReport& report)
{
    if (report.clippedSamples <= 0)
        return;
    const double db = report.peak > 0.0 ? 20.0 * std::log10(report.peak) : 0.0;
    err() << "sova: " << command << ": '" << path << "': " << report.clippedSamples
          << (report.clippedSamples == 1 ? " sample" : " samples")
          << " beyond full scale clipped (peak "
          << QStringLiteral("%1%2")
                 .arg(db >= 0.0 ? QStringLiteral("+") : QString())
                 .arg(db, 0, 'f', 1)
          << " dBFS)" << Qt::endl;
}
