#include <QSova>
#include <QSovaAudioFile>
#include <QSovaChannelMultiplexer>
#include <QtTest>

#include <algorithm>
#include <cstring>

namespace {

// Sample i of channel c: never 0 and different per channel, so silence and mix-ups both show.
float level(int i, int c)
{
    return float(1000 * (c + 1) + i % 200);
}

struct Decoded
{
    int rate = 0;
    int channels = 0;
    QVector<float> samples; // interleaved, in the 16-bit scale
};

Decoded decode(const QString& path)
{
    Decoded out;
    QSovaAudioFile file(path, QString(), QSovaAudioFile::Float);
    if (!file.open(QIODevice::ReadOnly))
        return out;
    out.rate = file.sampleRate();
    out.channels = file.numChannels();
    const QByteArray bytes = file.readAll();
    out.samples.resize(bytes.size() / 4);
    std::memcpy(out.samples.data(), bytes.constData(), size_t(bytes.size()));
    return out;
}

} // namespace

class tst_QSovaChannelMultiplexer : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;

    QString out(const QString& name) { return dir.filePath(name); }

    // "<rate>-<channels>-<frames>.wav" of level(), written once.
    QString input(int rate, int channels, int frames)
    {
        const QString path
            = out(QStringLiteral("%1-%2-%3.wav").arg(rate).arg(channels).arg(frames));
        QSovaAudioFile file(path,
            QStringLiteral("wav[sr=%1,nch=%2,dither=none]").arg(rate).arg(channels),
            QSovaAudioFile::Float);
        if (QFile::exists(path) || !file.open(QIODevice::WriteOnly))
            return path;
        QVector<float> samples;
        for (int i = 0; i < frames * channels; ++i)
            samples << level(i / channels, i % channels);
        file.writeSamples(samples);
        return path;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QCOMPARE(QSova::initialize(), 1);
    }

    void cleanupTestCase() { QCOMPARE(QSova::finalize(), 1); }

    void nineNamesRefused()
    {
        QStringList names, inputs;
        for (int i = 0; i < 9; ++i)
            names << out(QStringLiteral("nine-%1.wav").arg(i)), inputs << input(8000, 1, 100);
        QVERIFY(!QSova::ChannelDemultiplexer(input(8000, 2, 100), names, QString(), "float"));
        QVERIFY(!QSova::ChannelMultiplexer(inputs, names.first(), QString(), "float"));
        QVERIFY(!QFile::exists(names.first()));
        QVERIFY(QSova::ChannelMultiplexer(inputs.mid(1), names.first(), QString(), "float"));
        QCOMPARE(decode(names.first()).channels, 8);
    }

    void demultiplex_data()
    {
        QTest::addColumn<int>("names");
        QTest::addColumn<int>("unwritable"); // index of a name in a missing directory, or -1
        QTest::newRow("a name per channel") << 2 << -1;
        QTest::newRow("third name ignored") << 3 << -1;
        QTest::newRow("one name: channel 0 only") << 1 << -1;
        QTest::newRow("failed output skipped") << 2 << 0;
    }

    void demultiplex()
    {
        QFETCH(int, names);
        QFETCH(int, unwritable);
        QStringList outputs;
        for (int i = 0; i < names; ++i)
            outputs << out(QStringLiteral("%1-%2.wav").arg(QTest::currentDataTag()).arg(i));
        if (unwritable >= 0) {
            outputs[unwritable] = out(QStringLiteral("missing/out.wav"));
            QTest::ignoreMessage(QtDebugMsg,
                QRegularExpression(QStringLiteral("^QSova::AudioFileMultiplexer: Error creating "
                                                  "file '.*missing/out.wav.*'!$")));
        }
        // 10000 frames: more than one block.
        QVERIFY(QSova::ChannelDemultiplexer(input(22050, 2, 10000), outputs, QString(), "float"));
        for (int c = 0; c < names; ++c) {
            const Decoded mono = decode(outputs.at(c));
            QCOMPARE(QFile::exists(outputs.at(c)), c < 2 && c != unwritable);
            if (c >= 2 || c == unwritable)
                continue;
            QCOMPARE(mono.rate, 22050);
            QCOMPARE(mono.channels, 1);
            QCOMPARE(mono.samples.size(), 10000);
            for (int i : {0, 8191, 8192, 9999})
                QCOMPARE(mono.samples.at(i), level(i, c));
        }
    }

    void demultiplexAtAskedRate()
    {
        // Regression: the rate of "float[sr=11025]" was overridden by the input's, silently.
        const QStringList outputs {
            out(QStringLiteral("half-0.wav")), out(QStringLiteral("half-1.wav"))};
        QVERIFY(QSova::ChannelDemultiplexer(
            input(22050, 2, 10000), outputs, QString(), QStringLiteral("float[sr=11025]")));
        for (const QString& output : outputs) {
            const Decoded mono = decode(output);
            QCOMPARE(mono.rate, 11025);
            QCOMPARE(mono.channels, 1);
            QVERIFY2(qAbs(mono.samples.size() - 5000) <= 1,
                qPrintable(QString::number(mono.samples.size())));
        }
    }

    void demultiplexUnreadableInput()
    {
        // The device is printed, not the name.
        QTest::ignoreMessage(QtDebugMsg,
            QRegularExpression(QStringLiteral("^QSova::AudioFileDemultiplexer: Error opening "
                                              "file ' \\w+\\(0x[0-9a-f]+\\) '!$")));
        const QString never = out(QStringLiteral("never.wav"));
        QVERIFY(
            !QSova::ChannelDemultiplexer(out(QStringLiteral("none.wav")), {never}, {}, "float"));
        QVERIFY(!QFile::exists(never));
    }

    void multiplex_data()
    {
        QTest::addColumn<QStringList>("inputs");
        QTest::addColumn<int>("rate");
        QTest::addColumn<QVector<int>>("lengths"); // per channel, at the result's rate
        QTest::addColumn<QString>("format");
        QTest::newRow("uneven lengths") << QStringList {input(8000, 1, 10000), input(8000, 1, 5000)}
                                        << 8000 << QVector<int> {10000, 5000} << "float";
        QTest::newRow("other rate and stereo converted")
            << QStringList {input(8000, 1, 5000), input(16000, 1, 20000), input(8000, 2, 3000)}
            << 8000 << QVector<int> {5000, 10000, 3000} << "float";
        QTest::newRow("stereo first")
            << QStringList {input(11025, 2, 3000)} << 11025 << QVector<int> {3000} << "float";
        // Regression: the format's rate was overridden by the first input's, silently.
        QTest::newRow("rate asked by the format")
            << QStringList {input(8000, 1, 5000), input(16000, 1, 20000)} << 16000
            << QVector<int> {10000, 20000} << "float[sr=16000]";
    }

    void multiplex()
    {
        QFETCH(QStringList, inputs);
        QFETCH(int, rate);
        QFETCH(QVector<int>, lengths);
        QFETCH(QString, format);
        const QString output = out(QString::fromLatin1(QTest::currentDataTag()) + ".wav");
        QVERIFY(QSova::ChannelMultiplexer(inputs, output, QString(), format));
        const Decoded result = decode(output);
        const int channels = lengths.size();
        const int frames = *std::max_element(lengths.begin(), lengths.end());
        QCOMPARE(result.rate, rate);
        QCOMPARE(result.channels, channels);
        QCOMPARE(result.samples.size(), frames * channels);
        for (int c = 0; c < channels; ++c) {
            const Decoded source = decode(inputs.at(c));
            const bool asIs = source.rate == rate && source.channels == 1;
            // Converted inputs are compared away from the resampler's edges.
            for (int i = 20; i < lengths.at(c) - 20; i += 97) {
                const float sample = result.samples.at(i * channels + c);
                if (asIs)
                    QCOMPARE(sample, level(i, 0));
                else
                    QVERIFY2(sample > 500, qPrintable(QString::number(sample)));
            }
            for (int i = lengths.at(c); i < frames; ++i)
                QCOMPARE(result.samples.at(i * channels + c), 0.0f);
        }
    }

    void multiplexFailures_data()
    {
        QTest::addColumn<QString>("second");
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("message");
        const QString good = input(8000, 1, 100), prefix = "^QSova::AudioFileMultiplexer: Error ";
        QTest::newRow("missing input")
            << out("absent.wav") << out("m1.wav") << prefix + "opening file '.*absent.wav.*'!$";
        QTest::newRow("unnamed input") << QString() << out("m2.wav") << prefix + "opening file$";
        QTest::newRow("uncreatable output")
            << good << out("missing/m3.wav") << prefix + "creating file '.*missing/m3.wav.*'!$";
        QTest::newRow("unnamed output") << good << QString() << prefix + "creating file$";
    }

    void multiplexFailures()
    {
        QFETCH(QString, second);
        QFETCH(QString, output);
        QFETCH(QString, message);
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(message));
        QVERIFY(!QSova::ChannelMultiplexer({input(8000, 1, 100), second}, output, {}, "float"));
        QVERIFY(output.isEmpty() || !QFile::exists(output));
    }
};

QTEST_GUILESS_MAIN(tst_QSovaChannelMultiplexer)
#include "tst_qsovachannelmultiplexer.moc"
