#include <QSovaAudioFormat>
#include <QSovaSetting>
#include <QtTest>

#include <sova/blstring.h>

namespace {

using F = QSovaAudioFormat;
using L = QList<int>;

// A 44100/2/16 format as the engine fills it: container, codec (with flags) and texts set.
F engineFormat(uint32_t container, uint32_t coder, const char* info = nullptr,
               const char* mime = nullptr)
{
    _audio_format record = AUDIO_FormatEx(44100, 2, 16);
    record.container = container;
    record.coder = coder;
    record.codecInfo = GetBString(info, 1);
    record.mimeType = GetBString(mime, 1);
    return F(&record);
}

F withInfo(const char* info)
{
    return engineFormat(AUDIO_CONTAINER_MPEG, AUDIO_CODEC_MPEG_L3, info);
}

// The text forms: each kind prints a number and parses it back.
enum Form { ChannelsLong, ChannelsShort, RateHz, RateKilo, Bits };

QString print(Form form, int value)
{
    switch (form) {
    case ChannelsLong:
    case ChannelsShort: return F::numChannelsToString(value, form == ChannelsShort);
    case RateHz:
    case RateKilo: return F::sampleRateToString(value, form == RateKilo);
    case Bits: return F(8000, 1, value).resolutionString();
    }
    return QString();
}

int parse(Form form, const QString& text)
{
    F format(8000, 3, 12);
    switch (form) {
    case ChannelsLong:
    case ChannelsShort:
        format.setNumChannels(text);
        return format.numChannels();
    case RateHz:
    case RateKilo: return F::sampleRateFromString(text);
    case Bits: format.setResolution(text); return format.resolution();
    }
    return -1;
}

} // namespace

Q_DECLARE_METATYPE(Form)

class tst_QSovaAudioFormat : public QObject {
    Q_OBJECT

private slots:
    void construction_data()
    {
        QTest::addColumn<F>("format");
        QTest::addColumn<L>("expected"); // rate, channels, resolution
        QTest::newRow("default") << F() << L{0, 0, 16};
        QTest::newRow("null record keeps engine resolution") << F(nullptr) << L{0, 0, 0};
        QTest::newRow("parts") << F(22050, 6, 24) << L{22050, 6, 24};
        QTest::newRow("resolution 0 from setting") << F(8000, 1, 0) << L{8000, 1, 16};
        QTest::newRow("text") << F(QStringLiteral("SR=48000; NC=1")) << L{48000, 1, 16};
        QTest::newRow("rate after sr") << F::fromString("rate=8000,sr=22050") << L{8000, 0, 16};
        QTest::newRow("later synonyms win") << F::fromString("nch=2,nc=1,resolution=32,nbits=8")
                                            << L{0, 2, 32};
        QTest::newRow("garbage keeps defaults") << F::fromString("wav[x") << L{0, 0, 16};
        QTest::newRow("round trip") << F::fromString(F(96000, 8, 3).fmtString()) << L{96000, 8, 3};
    }

    void construction()
    {
        QFETCH(F, format);
        QFETCH(L, expected);
        QCOMPARE((L{format.sampleRate(), format.numChannels(), format.resolution()}),
                 expected);
        QVERIFY(!format.hasCodecExtendedInfo() && format.mimeType().isNull());
    }

    void resolutionSetting()
    {
        const QString key = QStringLiteral("libqtsova.defaults.resolution");
        QVERIFY(QSovaSetting::global().change(key, 24));
        QCOMPARE(F(8000, 1, -1).resolution(), 24);
        QCOMPARE(F(8000, 1, 8).resolution(), 8);
        QVERIFY(QSovaSetting::global().remove(key));
    }

    void accessorsAndStreams()
    {
        const F format = engineFormat(AUDIO_CONTAINER_FLAC, AUDIO_CODEC_FLAC, nullptr, "a/b");
        QCOMPARE(format.fmtConvString(), QStringLiteral(":fmtconv[sr=44100,nc=2,nbits=16]"));
        QCOMPARE(format.mimeType(), QStringLiteral("a/b"));
        QCOMPARE(format.container(), F::Flac);
        QCOMPARE(format.audioCodecLabel(), QString::fromUtf8(AUDIODEF_AudioFormatString(33)));
        QCOMPARE(format.containerLabel(), QStringLiteral("Free Lossless Audio Codec"));
        QCOMPARE(F::containerLabel(F::Wav, true), QStringLiteral("WAV"));
        QCOMPARE(F::containerLabel(F::LastSaved, true), QStringLiteral("Stream"));
        QVERIFY(format.isValid() && format.isStereo() && !format.isMono() && !F().isValid());
        QCOMPARE(format.toSeconds(66150), 1.5);
        QCOMPARE(format.toSamples(0.5), qint64(22050));
        const F parts(8000, 1, 8, QStringLiteral("bitrate=64"), QStringLiteral("audio/basic"));
        QCOMPARE(parts.codecExtendedInfo(), QStringLiteral("bitrate=64"));
        QCOMPARE(parts.mimeType(), QStringLiteral("audio/basic"));

        QString debugText;
        QDebug(&debugText) << format << 7; // spacing back on after the format
        QCOMPARE(debugText, QStringLiteral("QSovaAudioFormat(44100,2,16) 7 "));
        QString streamText;
        QTextStream stream(&streamText); // a temporary stream would print the pointer
        stream << format << Qt::flush;
        QCOMPARE(streamText, QStringLiteral("QSovaAudioFormat(44100 Hz,stereo,16 bits)"));
    }

    void equality_data()
    {
        QTest::addColumn<F>("a");
        QTest::addColumn<F>("b");
        QTest::addColumn<bool>("equal");
        QTest::newRow("defaults") << F() << F() << true;
        QTest::newRow("null record vs default") << F(nullptr) << F() << false;
        QTest::newRow("codecs differ") << engineFormat(3, AUDIO_CODEC_PCM16)
                                       << engineFormat(19, AUDIO_CODEC_FLAC, "a=1", "x") << true;
        QTest::newRow("rate") << F(44100, 2, 16) << F(48000, 2, 16) << false;
        QTest::newRow("channels") << F(44100, 2, 16) << F(44100, 1, 16) << false;
        QTest::newRow("resolution") << F(44100, 2, 16) << F(44100, 2, 24) << false;
    }

    void equality()
    {
        QFETCH(F, a);
        QFETCH(F, b);
        QFETCH(bool, equal);
        QCOMPARE(a == b, equal);
        QCOMPARE(b != a, !equal);
    }

    void sharing()
    {
        const F original(44100, 2, 16);
        F copy = original;
        const _audio_format* record = original;
        QCOMPARE(static_cast<const _audio_format*>(std::as_const(copy)), record);
        copy.setNumChannels(70000);
        QCOMPARE(copy.numChannels(), 70000 - 65536); // low 16 bits, no check
        QCOMPARE(static_cast<const _audio_format*>(original), record);
        QCOMPARE(record->numChannels, int16_t(2));
        QCOMPARE(original.toMono().numChannels(), 1);
        QCOMPARE(original.numChannels(), 2);

        F writer = original;
        _audio_format* writable = writer; // detaches
        QVERIFY(writable != record);
        writable->sampleRate = 8000;
        QCOMPARE(writer.sampleRate(), 8000);
        QCOMPARE(original.sampleRate(), 44100);
    }

    void containers_data()
    {
        QTest::addColumn<int>("container");
        QTest::addColumn<uint>("code");
        QTest::addColumn<QString>("name");
        const uint codes[] = {0,  2,  3,  4,  5,  6,  7,  8,  9,  12, 26, 13, 14, 17, 19, 20,
                              21, 22, 23, 27, 25, 30, 31, 32, 33, 34, 35, 24, 0,  0,  0,  0};
        const char* names[] = {"Undefined", "Raw", "Wav", "Avi", "Nsp", "Mp4", "Snd", "Txt",
                               "Aif", "Wav64", "SonyW64", "Mpeg", "Ogg", "Asf", "Flac", "WvPck",
                               "Mpc", "Voc", "Caf", "Ape", "Tta", "Mkv", "Ad4v1", "Ad4v2",
                               "Ac3", "Dts", "GsmAmr", "Wsig", "Others", "FromFile",
                               "LastSaved", "LastExported"};
        for (int c = 0; c < 32; ++c)
            QTest::newRow(names[c]) << c << codes[c] << QString::fromLatin1(names[c]);
        QTest::newRow("above the range") << 40 << 2u << "Undefined";
        QTest::newRow("negative") << -1 << 2u << "Undefined";
    }

    void containers()
    {
        QFETCH(int, container);
        QFETCH(uint, code);
        QFETCH(QString, name);
        const auto value = static_cast<F::Container>(container);
        QCOMPARE(F::fromQSovaContainer(value), code);
        QCOMPARE(F::containerToString(value), name);
        if (container >= 0 && container <= F::Wsig)
            QCOMPARE(F::toQSovaContainer(code), value);
        if (container > 0 && container <= F::LastExported) {
            QCOMPARE(F::stringToContainer(name), value);
            QCOMPARE(F::stringToContainer(name.toLower()), F::Undefined); // case matters
        }
    }

    void engineContainers()
    {
        // Engine containers without one of their own show as Raw, the Ogg family as Ogg.
        for (uint code : {1u, 10u, 11u, 18u, 28u, 29u, 36u, 99u, 0xffffffffu})
            QCOMPARE(F::toQSovaContainer(code), F::Raw);
        QVERIFY(F::toQSovaContainer(15) == F::Ogg && F::toQSovaContainer(16) == F::Ogg);
    }

    void codecs_data()
    {
        QTest::addColumn<int>("codec");
        QTest::addColumn<uint>("code");
        const uint codes[] = {0,   8,   9,   4,   5,   1,   3,   2,   6,   7,   17,  18,
                              19,  20,  21,  22,  23,  24,  26,  27,  28,  33,  34,  35,
                              36,  37,  38,  39,  40,  65,  66,  67,  68,  69,  70,  71,
                              72,  73,  74,  97,  98,  99,  128, 129, 130, 131, 132, 133,
                              101, 100, 29,  30,  160, 161, 48,  49,  45,  42,  41};
        for (int c = 0; c < 59; ++c)
            QTest::newRow(QMetaEnum::fromType<F::AudioCodec>().valueToKey(c)) << c << codes[c];
        QTest::newRow("above the range") << 59 << 0u;
    }

    void codecs()
    {
        QFETCH(int, codec);
        QFETCH(uint, code);
        const auto value = static_cast<F::AudioCodec>(codec);
        QCOMPARE(F::fromQSovaAudioCodec(value), code);
        QCOMPARE(F::audioCodecString(value).isEmpty(), code == 0);
        if (codec > F::VORBIS)
            return;
        QCOMPARE(F::toQSovaAudioCodec(code), value);
        QCOMPARE(F::toQSovaAudioCodec(code | AUDIO_CODEC_FLAG_BIGENDIAN | 0x10000u), value);
        QCOMPARE(engineFormat(AUDIO_CONTAINER_RAW, code).audioCodec(), value);
    }

    void unknownCodecs_data()
    {
        QTest::addColumn<uint>("code");
        QTest::newRow("10") << 10u;
        QTest::newRow("flagged 25") << 0x8019u;
        QTest::newRow("200 beyond 15 bits") << 0x100c8u;
    }

    void unknownCodecs()
    {
        QFETCH(uint, code);
        // The engine has no name for these: the name is printed empty.
        const QByteArray warning = "QSovaAudioFormat::toQSovaAudioCodec: Missing QSovaAudioFormat "
                                   "for codec:  ( " + QByteArray::number(code) + " )";
        QTest::ignoreMessage(QtWarningMsg, warning.constData());
        QCOMPARE(F::toQSovaAudioCodec(code), F::NoCodec);
    }

    void codecParameters_data()
    {
        QTest::addColumn<F>("format");
        QTest::addColumn<L>("expected"); // vbr, quality, bitrate, min, max
        QTest::addColumn<double>("average");
        QTest::addColumn<QString>("label");
        QTest::newRow("no info") << F() << L{0, 0, 0, 0, 0} << 0.0 << "";
        QTest::newRow("average truncated") << withInfo("bitrate=0,avg_bitrate=127.9")
                                           << L{0, 0, 127, 127, 127} << 127.9 << "127 kbps";
        QTest::newRow("bitrate wins") << withInfo("bitrate=192,avg_bitrate=100,quality=7")
                                      << L{0, 7, 192, 192, 192} << 100.0 << "192 kbps";
        QTest::newRow("vbr same bounds") << withInfo("use_vbr=1,min_bitrate=128,max_bitrate=128")
                                         << L{1, 0, 0, 128, 128} << 0.0 << "128 kbps (VBR)";
        QTest::newRow("vbr range") << withInfo("use_vbr=yes,min_bitrate=96,max_bitrate=192")
                                   << L{1, 0, 0, 96, 192} << 0.0 << "96 - 192 kbps (VBR)";
        QTest::newRow("vbr swapped") << withInfo("use_vbr,min_bitrate=192,max_bitrate=96,bitrate=1")
                                     << L{1, 0, 1, 192, 96} << 0.0 << "192 kbps (VBR)";
        QTest::newRow("vbr from bitrate") << withInfo("use_vbr=on,min_bitrate=-5,bitrate=160")
                                          << L{1, 0, 160, 160, 160} << 0.0 << "160 kbps (VBR)";
        QTest::newRow("vbr without minimum") << withInfo("use_vbr=1,max_bitrate=320")
                                             << L{1, 0, 0, 0, 320} << 0.0 << "";
    }

    void codecParameters()
    {
        QFETCH(F, format);
        QFETCH(L, expected);
        QFETCH(double, average);
        QFETCH(QString, label);
        QCOMPARE((L{format.codecVBR(), format.codecQuality(), format.codecBitRate(),
                             format.codecMinBitRate(), format.codecMaxBitRate()}),
                 expected);
        QCOMPARE(float(format.codecAvgRate()), float(average));
        QCOMPARE(format.bitRateLabel(), label);
    }

    void codecExtendedInfo_data()
    {
        QTest::addColumn<F>("format");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QString>("expected");
        QTest::newRow("last alternative wins") << withInfo("a=1,b=2") << "a|b" << "2";
        QTest::newRow("absent alternative ignored") << withInfo("a=1") << "a|b" << "1";
        QTest::newRow("none present") << withInfo("a=1") << "c|d" << "";
        QTest::newRow("whole text") << withInfo("a=1,b=2") << "" << "a=1,b=2";
        QTest::newRow("quoted utf-8") << withInfo("t=\"x, \xc3\xa9\"") << "t"
                                      << QString::fromUtf8("x, \xc3\xa9");
        QTest::newRow("no info") << F() << "" << "";
    }

    void codecExtendedInfo()
    {
        QFETCH(F, format);
        QFETCH(QString, keys);
        QFETCH(QString, expected);
        QCOMPARE(format.codecExtendedInfo(keys), expected);
    }

    void labels_data()
    {
        QTest::addColumn<Form>("form");
        QTest::addColumn<int>("value");
        QTest::addColumn<QString>("label");
        QTest::addColumn<int>("parsed"); // the label read back
        QTest::newRow("mono") << ChannelsShort << 1 << "mono" << 1;
        QTest::newRow("stereo reads as 0") << ChannelsLong << 2 << "stereo" << 0;
        QTest::newRow("6 ch") << ChannelsShort << 6 << "6 ch" << 6;
        QTest::newRow("0 channels") << ChannelsLong << 0 << "0 channels" << 0;
        QTest::newRow("44100 Hz") << RateHz << 44100 << "44100 Hz" << 44100;
        QTest::newRow("44.1 kHz") << RateKilo << 44100 << "44.1 kHz" << 44100;
        QTest::newRow("11025 stays in Hz") << RateKilo << 11025 << "11025 Hz" << 11025;
        QTest::newRow("48 kHz") << RateKilo << 48000 << "48 kHz" << 48000;
        QTest::newRow("two decimals") << RateKilo << 12345 << "12.35 kHz" << 12350;
        QTest::newRow("one decimal") << RateKilo << 37800 << "37.8 kHz" << 37800;
        QTest::newRow("small rate") << RateKilo << 9999 << "9999 Hz" << 9999;
        QTest::newRow("250 kHz unasked") << RateHz << 250000 << "250 kHz" << 250000;
        QTest::newRow("110.25 kHz unasked") << RateHz << 110250 << "110.25 kHz" << 110250;
        QTest::newRow("16 bits") << Bits << 16 << "16 bits" << 16;
        QTest::newRow("8 bits") << Bits << 8 << "8 bits" << 8;
        QTest::newRow("24 bits reads as 0") << Bits << 24 << "24 bits" << 0;
    }

    void labels()
    {
        QFETCH(Form, form);
        QFETCH(int, value);
        QFETCH(QString, label);
        QFETCH(int, parsed);
        QCOMPARE(print(form, value), label);
        QCOMPARE(parse(form, label), parsed);
    }

    void parsing_data()
    {
        QTest::addColumn<Form>("form");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("value");
        QTest::newRow("Stereo") << ChannelsLong << "Stereo" << 0;
        QTest::newRow("strereo") << ChannelsLong << " STREREO " << 2;
        QTest::newRow("number inside") << ChannelsLong << "channels: 4" << 4;
        QTest::newRow("blanks") << ChannelsLong << "  " << 0;
        QTest::newRow("5.1") << ChannelsLong << "5.1" << 0;
        QTest::newRow("negative") << ChannelsLong << "-2" << -2;
        QTest::newRow("22.05 kHz") << RateKilo << "22.05 kHz" << 22050;
        QTest::newRow("decimal comma") << RateKilo << "44,1 kHz" << 44100;
        QTest::newRow("upper case") << RateKilo << " 48 KHZ " << 48000;
        QTest::newRow("hz glued") << RateHz << "44100Hz" << 44100;
        QTest::newRow("decimal hz") << RateHz << "44.1 Hz" << 0;
        QTest::newRow("bare") << RateHz << "48000" << 48000;
        QTest::newRow("bare decimal") << RateHz << "44.1" << 0;
        QTest::newRow("empty rate") << RateHz << "" << 0;
        QTest::newRow("bits number") << Bits << "24" << 24;
        QTest::newRow("bits upper case") << Bits << "32 BITS" << 32;
        QTest::newRow("bits words") << Bits << "high" << 0;
    }

    void parsing()
    {
        QFETCH(Form, form);
        QFETCH(QString, text);
        QFETCH(int, value);
        QCOMPARE(parse(form, text), value);
    }

    void defaultRates()
    {
        const QVector<int>& rates = F::defaultSampleRates();
        QCOMPARE(&F::defaultSampleRates(), &rates);
        QCOMPARE(rates.size(), 14);
        QVERIFY(std::is_sorted(rates.begin(), rates.end()));
        QCOMPARE(rates.front(), 6000);
        QCOMPARE(rates.back(), 192000);
        for (int rate : rates) {
            QCOMPARE(parse(RateHz, print(RateHz, rate)), rate);
            QCOMPARE(parse(RateKilo, print(RateKilo, rate)), rate);
        }
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioFormat)
#include "tst_qsovaaudioformat.moc"
