// Running the peer tools (ffmpeg, ffprobe, sox) and sova from the tests that check our output
// against theirs: one process runner and one frame counter.
#ifndef SOVA_AUTOTESTS_PEERTOOLS_H
#define SOVA_AUTOTESTS_PEERTOOLS_H

#include <QProcess>
#include <QStringList>

namespace peer {

// status: the exit code; -1 when the program did not finish in time, -2 when it crashed.
struct Run
{
    int status = -1;
    QByteArray out;
    QByteArray err;
};

inline Run run(const QString& program, const QStringList& arguments,
    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    Run r;
    if (!process.waitForFinished(60000))
        return r;
    r.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    r.out = process.readAllStandardOutput();
    r.err = process.readAllStandardError();
    return r;
}

// Frames the ffmpeg command line decodes from a file of that many channels.
inline qint64 ffmpegFrames(const QString& file, int channels = 2)
{
    const Run r = run(QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("quiet"), QStringLiteral("-i"), file,
            QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-")});
    return r.out.size() / (4 * channels);
}

} // namespace peer

#endif
