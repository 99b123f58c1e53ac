#include "damage.h"

#include "command.h"

#include <QSovaAudioFile>

#include <cmath>

namespace {

QString clockText(double seconds)
{
    const qint64 ms = qint64(std::llround(std::max(seconds, 0.0) * 1000.0));
    return QStringLiteral("%1:%2:%3.%4")
        .arg(ms / 3600000, 2, 10, QLatin1Char('0'))
        .arg(ms / 60000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms / 1000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms % 1000, 3, 10, QLatin1Char('0'));
}

} // namespace

QCommandLineOption strictOption()
{
    return QCommandLineOption(QStringLiteral("strict"),
        QStringLiteral("Treat a damaged or cut-off input as a failure (OUT is not written)."));
}

bool isDamaged(const AUDIO_DamageReport& report)
{
    return report.stretches > 0 || report.truncated != 0;
}

QString damageText(const QString& path, const AUDIO_DamageReport& report)
{
    QString text = QStringLiteral("'%1' is damaged: ").arg(path);
    const int plain = report.stretches - (report.truncated ? 1 : 0);
    if (plain > 0)
        text += QStringLiteral("%1 damaged stretch%2 from %3")
                    .arg(plain)
                    .arg(plain == 1 ? QString() : QStringLiteral("es"))
                    .arg(clockText(report.firstSeconds));
    if (report.truncated)
        text += (plain > 0 ? QStringLiteral(", ") : QString())
            + (plain > 0 || report.firstSeconds < 0.0
                    ? QStringLiteral("cut off before its end")
                    : QStringLiteral("cut off at %1").arg(clockText(report.firstSeconds)));
    if (report.secondsLost > 0.0)
        text += QStringLiteral("; about %1 s of audio lost").arg(report.secondsLost, 0, 'f', 3);
    else
        text += QStringLiteral("; how much audio is lost is not known");
    return text;
}

bool refuseDamage(
    const char* command, const QString& path, const AUDIO_DamageReport& report, bool strict)
{
    if (!isDamaged(report))
        return false;
    if (strict) {
        fail(command, damageText(path, report) + QStringLiteral(" (--strict)"));
        return true;
    }
    err() << "sova: " << command << ": warning: " << damageText(path, report) << Qt::endl;
    return false;
}

bool scanDamage(const QString& path, const QString& format, AUDIO_DamageReport* report)
{
    QSovaAudioFile file(path, format, QSovaAudioFile::IEEEFloat);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray block(65536, Qt::Uninitialized);
    for (;;) {
        const qint64 got = file.read(block.data(), block.size());
        if (got < 0)
            return false;
        if (got == 0)
            break;
    }
    *report = file.damageReport();
    return true;
}
