// sova vad: the speech segments of an audio file, found by the engine's voice activity
// detector.
#include "audiopaths.h"
#include "command.h"
#include "damage.h"
#include "streamtools.h"

#include <QFile>
#include <QSova>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>
#include <QSovaVad>

namespace {

int runVad(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("file"), QStringLiteral("The audio file to read."), QStringLiteral("FILE"));
    const QCommandLineOption paramsOption(QStringLiteral("params"),
        QStringLiteral("Detector parameters (aggressiveness=0..3,hangover=MS,minspeech=MS,"
                       "minsilence=MS)."),
        QStringLiteral("TEXT"));
    const QCommandLineOption labelsOption(QStringLiteral("labels"),
        QStringLiteral("Also write the segments as a label file."), QStringLiteral("OUT"));
    parser.addOptions({paramsOption, labelsOption, strictOption()});
    const int status
        = parseCommand(vadCommand, parser, arguments, 1, QStringLiteral("needs an audio file"), 1);
    if (status >= 0)
        return status;
    QStringList inputs {parser.positionalArguments().at(0)};
    const QString labels = parser.value(labelsOption);
    const int refused = prepareAudioPaths(
        "vad", inputs, parser.isSet(labelsOption) ? QStringList {labels} : QStringList(), true);
    if (refused >= 0)
        return refused;
    const QString in = inputs.first();

    QSovaAudioFile file(in, QString(), QSovaAudioFile::IEEEFloat);
    if (!file.open(QIODevice::ReadOnly))
        return fail("vad", engineFailure(QStringLiteral("read"), in));
    const int rate = file.sampleRate(), channels = file.numChannels();
    if (rate < 8000 || rate > 192000)
        return fail("vad",
            QStringLiteral("'%1' is at %2 Hz; the detector takes 8000 to 192000 Hz")
                .arg(in)
                .arg(rate));
    const QString params = parser.value(paramsOption);
    QSova::Vad vad(params, QSovaAudioFormat(rate, 1, 16));
    if (vad.frameNumSamples() <= 0)
        return usageError("vad",
            QStringLiteral("bad detector parameters '%1': %2")
                .arg(params, QSova::lastErrorString()));

    SpeechTracker tracker(vad, rate);
    QVector<float> block(8192 * channels);
    const qint64 bytes = qint64(block.size()) * qint64(sizeof(float));
    for (;;) {
        const qint64 got = file.read(reinterpret_cast<char*>(block.data()), bytes);
        if (got < 0)
            return fail("vad", engineFailure(QStringLiteral("read"), in));
        if (got == 0)
            break;
        const qint64 frames = got / file.frameSize();
        // Speech is judged on the mean of the channels: a voice panned to one side still
        // counts.
        const QVector<float> mono = monoMix(block.constData(), frames, channels);
        tracker.feed(mono.constData(), frames);
    }
    tracker.finish();
    if (refuseDamage("vad", in, file.damageReport(), parser.isSet(QStringLiteral("strict"))))
        return ExitFailure;

    out() << tracker.segmentLines(false);
    out().flush();
    if (parser.isSet(labelsOption)) {
        QFile labelFile(labels);
        const bool opened = labels == QLatin1String("-")
            ? labelFile.open(stdout, QIODevice::WriteOnly)
            : labelFile.open(QIODevice::WriteOnly | QIODevice::Truncate);
        if (!opened || labelFile.write(tracker.segmentLines(true).toUtf8()) < 0
            || !labelFile.flush())
            return fail("vad",
                QStringLiteral("cannot write '%1': %2").arg(labels, labelFile.errorString()));
    }
    return ExitOk;
}

} // namespace

const Command vadCommand = {"vad", "Find the speech in an audio file",
    "[--params TEXT] [--labels OUT] FILE",
    "Runs the voice activity detector over the mean of FILE's channels, 20 ms at a time, and\n"
    "prints each speech segment as 'begin<TAB>end' in seconds (3 decimals), one per line.\n"
    "--labels also writes them as a label file ('begin<TAB>end<TAB>speech' lines). --params\n"
    "tunes the detector: aggressiveness=0..3 (default 1), hangover=MS (200), minspeech=MS (60),\n"
    "minsilence=MS (200). Bad parameters are a usage error (exit status 2).",
    runVad};
