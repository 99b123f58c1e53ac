// sova fx: an audio file through a chain of effects of the engine.
#include "audiopaths.h"
#include "clipwarning.h"
#include "command.h"
#include "damage.h"
#include "streamtools.h"
#include "usage.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSova>
#include <QSovaAudioEffect>
#include <QSovaAudioFile>
#include <QSovaAudioFormat>

namespace {

int runFx(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(
        QStringLiteral("in"), QStringLiteral("The audio file to read."), QStringLiteral("IN"));
    parser.addPositionalArgument(
        QStringLiteral("out"), QStringLiteral("The file to write."), QStringLiteral("OUT"));
    const QCommandLineOption chainOption(QStringLiteral("chain"),
        QStringLiteral("The effects, e.g. gain[db=-6];lowpass[fc=4000]."), QStringLiteral("TEXT"));
    const QCommandLineOption formatOption({QStringLiteral("f"), QStringLiteral("format")},
        QStringLiteral("Format string of OUT (default: from its extension)."),
        QStringLiteral("STRING"));
    const QCommandLineOption quietOption(
        {QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("No progress bar."));
    parser.addOptions({chainOption, formatOption, quietOption, strictOption()});
    const int status = parseCommand(
        fxCommand, parser, arguments, 2, QStringLiteral("needs an input and an output file"), 2);
    if (status >= 0)
        return status;
    if (!parser.isSet(chainOption))
        return usageError("fx", QStringLiteral("needs --chain"));
    const int usage = checkFormatOptions("fx", parser, {formatOption});
    if (usage >= 0)
        return usage;
    QStringList inputs {parser.positionalArguments().at(0)};
    const QString target = parser.positionalArguments().at(1);
    const int refused = prepareAudioPaths("fx", inputs, {target}, parser.isSet(formatOption));
    if (refused >= 0)
        return refused;
    const QString in = inputs.first();

    QSovaAudioFile source(in, QString(), QSovaAudioFile::IEEEFloat);
    if (!source.open(QIODevice::ReadOnly))
        return fail("fx", engineFailure(QStringLiteral("read"), in));
    const QString chain = parser.value(chainOption);
    QSovaAudioEffect effect(chain, source.format());
    if (!effect.isValid())
        return usageError(
            "fx", QStringLiteral("bad chain '%1': %2").arg(chain, QSova::lastErrorString()));

    // The effect decides rate and channels; the resolution and sample kind (float stays
    // float) stay the source's unless the format string names others.
    const QSovaAudioFormat produced = effect.outputFormat();
    QSovaAudioFormat format = source.format();
    format.setSampleRate(produced.sampleRate());
    format.setNumChannels(produced.numChannels());
    const QDateTime before = QFileInfo(target).lastModified();
    QSovaAudioFile sink(target, parser.value(formatOption), format);
    if (source.numSamples() > 0 && source.sampleRate() > 0)
        sink.setExpectedFrames(qint64(
            double(source.numSamples()) * produced.sampleRate() / source.sampleRate() + 0.5));
    if (!sink.open(QIODevice::WriteOnly))
        return fail("fx", engineFailure(QStringLiteral("write"), target));

    const bool quiet = parser.isSet(quietOption);
    const QString label = QStringLiteral("processing");
    const qint64 total = source.numSamples();
    const int inChannels = source.numChannels();
    EffectRunner runner(effect, inChannels, produced.numChannels());
    QString error;
    const EffectRunner::Sink write = [&](const float* frames, qint64 count) {
        const qint64 bytes = count * sink.frameSize();
        if (sink.write(reinterpret_cast<const char*>(frames), bytes) != bytes) {
            error = engineFailure(QStringLiteral("write"), target);
            return false;
        }
        return true;
    };
    QVector<float> block(8192 * inChannels);
    qint64 done = 0;
    bool ok = true;
    for (;;) {
        const qint64 got = source.read(
            reinterpret_cast<char*>(block.data()), qint64(block.size()) * qint64(sizeof(float)));
        if (got < 0) {
            error = engineFailure(QStringLiteral("read"), in);
            ok = false;
            break;
        }
        if (got == 0)
            break;
        const qint64 frames = got / source.frameSize();
        if (!runner.push(block.constData(), frames, write)) {
            ok = false;
            break;
        }
        done += frames;
        if (!quiet && total > 0)
            showProgress(label, double(done) / double(total));
    }
    ok = ok && runner.flush(write);
    if (!quiet)
        showProgress(label, ok ? 1.0 : 0.0, true);
    if (!ok) {
        // A run that failed half-way leaves OUT as it was.
        sink.abandon();
        return fail("fx", error.isEmpty() ? runner.error() : error);
    }
    if (refuseDamage("fx", in, source.damageReport(), parser.isSet(QStringLiteral("strict")))) {
        sink.abandon();
        return ExitFailure;
    }
    sink.close();
    // A close that failed (the last bytes met a full disk) left the old file in place.
    const QFileInfo written(target);
    if (target != QLatin1String("-")
        && (!written.exists() || (written.isFile() && written.lastModified() == before)))
        return fail("fx", engineFailure(QStringLiteral("write"), target));
    warnClipped("fx", target, sink.clipReport());
    const auto channelText = [](int n) {
        return n == 1 ? QStringLiteral("1 channel") : QStringLiteral("%1 channels").arg(n);
    };
    out() << QStringLiteral("%1 Hz, %2 in; %3 Hz, %4 out")
                 .arg(source.sampleRate())
                 .arg(channelText(inChannels))
                 .arg(produced.sampleRate())
                 .arg(channelText(produced.numChannels()))
          << Qt::endl;
    return ExitOk;
}

} // namespace

const Command fxCommand = {"fx", "Put an audio file through a chain of effects",
    "--chain TEXT [--format STRING] IN OUT",
    "The chain is a list of effects separated by ';', each with its options in brackets:\n"
    "gain[db=D], resample[sr=HZ], mix[nch=N], highpass[fc=HZ,order=2|4],\n"
    "lowpass[fc=HZ,order=2|4], speed[factor=F], dcblock. OUT gets the rate and channels the\n"
    "chain produces and IN's resolution; its format comes from --format or its extension. A\n"
    "chain the engine refuses is a usage error (exit status 2). OUT is replaced only when the\n"
    "whole file went through.",
    runFx};
