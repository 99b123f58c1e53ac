#include "qsovaaudioformat.h"

#include "qsovaoptions.h"
#include "qsovasetting.h"

#include <sova/blstring.h>

#include <QDebug>
#include <QRegularExpression>
#include <QStringList>
#include <QTextStream>

#include <iterator>

// The shared record: the engine's format by value. Detaching copies its six fields as they
// are; the two texts are pooled and never freed, so both records may point at them.
class QSovaAudioFormatPrivate : public QSharedData
{
public:
    QSovaAudioFormatPrivate() { AUDIO_NullFormat(&format); }
    explicit QSovaAudioFormatPrivate(const _audio_format& other) : format(other) {}

    _audio_format format;
};

namespace {

// Engine container code of each Container, in enumeration order.
const unsigned kContainerCodes[] = {
    AUDIO_CONTAINER_NONE,    AUDIO_CONTAINER_RAW,     AUDIO_CONTAINER_WAV,
    AUDIO_CONTAINER_AVI,     AUDIO_CONTAINER_NIST,    AUDIO_CONTAINER_MP4,
    AUDIO_CONTAINER_AU,      AUDIO_CONTAINER_TXT,     AUDIO_CONTAINER_AIFF,
    AUDIO_CONTAINER_RF64,    AUDIO_CONTAINER_W64,     AUDIO_CONTAINER_MPEG,
    AUDIO_CONTAINER_OGG_VORBIS, AUDIO_CONTAINER_ASF,  AUDIO_CONTAINER_FLAC,
    AUDIO_CONTAINER_WAVPACK, AUDIO_CONTAINER_MPC,     AUDIO_CONTAINER_VOC,
    AUDIO_CONTAINER_CAF,     AUDIO_CONTAINER_APE,     AUDIO_CONTAINER_TTA,
    AUDIO_CONTAINER_MKV,     AUDIO_CONTAINER_VOX,     AUDIO_CONTAINER_OKI,
    AUDIO_CONTAINER_AC3,     AUDIO_CONTAINER_DTS,     AUDIO_CONTAINER_AMR,
    AUDIO_CONTAINER_WSIG,    0,                       0,
    0,                       0};
static_assert(std::size(kContainerCodes) == QSovaAudioFormat::LastExported + 1,
              "one engine code per Container");

// Container of each engine container code 0 to 35. The engine's codes without a Container of
// their own (HTK, IRCAM, PAF, AVR, MAT, MPC2K) are headerless or exotic: shown as raw.
const QSovaAudioFormat::Container kContainersOfCodes[] = {
    QSovaAudioFormat::Undefined, QSovaAudioFormat::Raw,   QSovaAudioFormat::Raw,
    QSovaAudioFormat::Wav,       QSovaAudioFormat::Avi,   QSovaAudioFormat::Nsp,
    QSovaAudioFormat::Mp4,       QSovaAudioFormat::Snd,   QSovaAudioFormat::Txt,
    QSovaAudioFormat::Aif,       QSovaAudioFormat::Raw,   QSovaAudioFormat::Raw,
    QSovaAudioFormat::Wav64,     QSovaAudioFormat::Mpeg,  QSovaAudioFormat::Ogg,
    QSovaAudioFormat::Ogg,       QSovaAudioFormat::Ogg,   QSovaAudioFormat::Asf,
    QSovaAudioFormat::Raw,       QSovaAudioFormat::Flac,  QSovaAudioFormat::WvPck,
    QSovaAudioFormat::Mpc,       QSovaAudioFormat::Voc,   QSovaAudioFormat::Caf,
    QSovaAudioFormat::Wsig,      QSovaAudioFormat::Tta,   QSovaAudioFormat::SonyW64,
    QSovaAudioFormat::Ape,       QSovaAudioFormat::Raw,   QSovaAudioFormat::Raw,
    QSovaAudioFormat::Mkv,       QSovaAudioFormat::Ad4v1, QSovaAudioFormat::Ad4v2,
    QSovaAudioFormat::Ac3,       QSovaAudioFormat::Dts,   QSovaAudioFormat::GsmAmr};
static_assert(std::size(kContainersOfCodes) == AUDIO_CONTAINER_COUNT,
              "one Container per engine container code");

// The text form of each Container; saved settings and project files hold these names.
const char* const kContainerNames[] = {
    "Undefined", "Raw",   "Wav",   "Avi", "Nsp",  "Mp4",   "Snd",   "Txt",
    "Aif",       "Wav64", "SonyW64", "Mpeg", "Ogg", "Asf", "Flac",  "WvPck",
    "Mpc",       "Voc",   "Caf",   "Ape", "Tta",  "Mkv",   "Ad4v1", "Ad4v2",
    "Ac3",       "Dts",   "GsmAmr", "Wsig", "Others", "FromFile", "LastSaved", "LastExported"};
static_assert(std::size(kContainerNames) == QSovaAudioFormat::LastExported + 1,
              "one name per Container");

// Engine codec code of each AudioCodec, in enumeration order. The order is that of saved
// settings, not of the engine's codes: new codecs were appended over the years.
const unsigned kCodecCodes[] = {
    AUDIO_CODEC_NONE,        AUDIO_CODEC_ULAW,         AUDIO_CODEC_ALAW,
    AUDIO_CODEC_PCM24,       AUDIO_CODEC_PCM32,        AUDIO_CODEC_PCM16,
    AUDIO_CODEC_PCM_S8,      AUDIO_CODEC_PCM_U8,       AUDIO_CODEC_FLOAT32,
    AUDIO_CODEC_FLOAT64,     AUDIO_CODEC_IMA_ADPCM,    AUDIO_CODEC_MS_ADPCM,
    AUDIO_CODEC_GSM610,      AUDIO_CODEC_G721,         AUDIO_CODEC_G723_24,
    AUDIO_CODEC_G723_40,     AUDIO_CODEC_VOX_ADPCM,    AUDIO_CODEC_NMS_ADPCM,
    AUDIO_CODEC_DWVW12,      AUDIO_CODEC_DWVW16,       AUDIO_CODEC_DWVW24,
    AUDIO_CODEC_FLAC,        AUDIO_CODEC_ALAC,         AUDIO_CODEC_WAVPACK,
    AUDIO_CODEC_APE,         AUDIO_CODEC_TTA,          AUDIO_CODEC_SHORTEN,
    AUDIO_CODEC_TAK,         AUDIO_CODEC_MP4ALS,       AUDIO_CODEC_MPEG_L1,
    AUDIO_CODEC_MPEG_L2,     AUDIO_CODEC_MPEG_L3,      AUDIO_CODEC_AAC,
    AUDIO_CODEC_HE_AAC,      AUDIO_CODEC_HE_AAC_V2,    AUDIO_CODEC_AC3,
    AUDIO_CODEC_EAC3,        AUDIO_CODEC_DTS,          AUDIO_CODEC_TRUEHD,
    AUDIO_CODEC_WMA_V1,      AUDIO_CODEC_WMA_V2,       AUDIO_CODEC_WMA_PRO,
    AUDIO_CODEC_MUSEPACK_SV7, AUDIO_CODEC_MUSEPACK_SV8, AUDIO_CODEC_ATRAC3,
    AUDIO_CODEC_ATRAC3P,     AUDIO_CODEC_COOK,         AUDIO_CODEC_NELLYMOSER,
    AUDIO_CODEC_WMA_VOICE,   AUDIO_CODEC_WMA_LOSSLESS, AUDIO_CODEC_G722,
    AUDIO_CODEC_G726,        AUDIO_CODEC_G729,         AUDIO_CODEC_G723_1,
    AUDIO_CODEC_AMR_NB,      AUDIO_CODEC_AMR_WB,       AUDIO_CODEC_SPEEX,
    AUDIO_CODEC_OPUS,        AUDIO_CODEC_VORBIS};
static_assert(std::size(kCodecCodes) == QSovaAudioFormat::VORBIS + 1,
              "one engine code per AudioCodec");

// The number in a label: "6 ch", "-2", "5,1", "1.5e3".
const QRegularExpression& numberExpression()
{
    static const QRegularExpression expression(
        QStringLiteral("(-?\\d+(?:[\\.,]\\d+(?:e\\d+)?)?)"));
    return expression;
}

// The whole number of a label as an integer: 0 when there is none or it is a decimal.
int leadingInteger(const QString& text)
{
    const QRegularExpressionMatch match = numberExpression().match(text);
    return match.hasMatch() ? match.captured(0).toInt() : 0;
}

QString kiloHertz(const QString& number)
{
    return QSovaAudioFormat::tr("%1 kHz").arg(number);
}

QString hertz(int rate)
{
    return QSovaAudioFormat::tr("%1 Hz").arg(rate);
}

} // namespace

QSovaAudioFormat::QSovaAudioFormat() : d(new QSovaAudioFormatPrivate)
{
    d->format.bitsPerSample = 16;
}

// A null record gives the engine's null format untouched, not 16 bits as the default
// constructor: hosts pass the result of a failed engine query here and test for resolution 0.
QSovaAudioFormat::QSovaAudioFormat(const _audio_format* format)
    : d(format ? new QSovaAudioFormatPrivate(*format) : new QSovaAudioFormatPrivate)
{
}

QSovaAudioFormat::QSovaAudioFormat(int sampleRate, int numChannels, int resolution,
                                   const QString& codecInfo, const QString& mimeType)
    : QSovaAudioFormat()
{
    if (resolution < 1)
        resolution = QSovaSetting::global().getInt(QStringLiteral("libqtsova.defaults.resolution"),
                                                   16);
    d->format.sampleRate = sampleRate;
    d->format.numChannels = static_cast<int16_t>(numChannels);
    d->format.bitsPerSample = static_cast<int16_t>(resolution);
    if (!codecInfo.isEmpty())
        d->format.codecInfo = GetBString(codecInfo.toUtf8().constData(), 1);
    if (!mimeType.isEmpty())
        d->format.mimeType = GetBString(mimeType.toLatin1().constData(), 1);
}

QSovaAudioFormat::QSovaAudioFormat(const QString& text) : QSovaAudioFormat()
{
    QString options = text.toLower();
    options.replace(QLatin1Char(';'), QLatin1Char(','));
    options.remove(QLatin1Char(' '));
    // Each synonym is read with the value so far as its default: the later one present wins.
    static const char* const rateKeys[] = {"sr", "samplerate", "rate"};
    static const char* const channelKeys[] = {"nc", "nch", "numchannels", "channels"};
    static const char* const resolutionKeys[] = {"nbits", "numbits", "resolution"};
    int rate = sampleRate();
    for (const char* key : rateKeys)
        rate = QSova::getIntegerValueFromString(options, QLatin1String(key), rate);
    int channels = numChannels();
    for (const char* key : channelKeys)
        channels = QSova::getIntegerValueFromString(options, QLatin1String(key), channels);
    int bits = resolution();
    for (const char* key : resolutionKeys)
        bits = QSova::getIntegerValueFromString(options, QLatin1String(key), bits);
    d->format.sampleRate = rate;
    d->format.numChannels = static_cast<int16_t>(channels);
    d->format.bitsPerSample = static_cast<int16_t>(bits);
}

QSovaAudioFormat::QSovaAudioFormat(const QSovaAudioFormat& other) = default;

QSovaAudioFormat& QSovaAudioFormat::operator=(const QSovaAudioFormat& other) = default;

QSovaAudioFormat::~QSovaAudioFormat() = default;

QSovaAudioFormat::operator _audio_format() const
{
    return d->format;
}

QSovaAudioFormat::operator const _audio_format*() const
{
    return &d->format;
}

QSovaAudioFormat::operator _audio_format*()
{
    return &d->format; // non-const access detaches
}

QSovaAudioFormat QSovaAudioFormat::fromString(const QString& text)
{
    return QSovaAudioFormat(text);
}

QSovaAudioFormat QSovaAudioFormat::fromString(const char* text)
{
    return QSovaAudioFormat(QString::fromLatin1(text));
}

int QSovaAudioFormat::sampleRate() const
{
    return d->format.sampleRate;
}

int QSovaAudioFormat::numChannels() const
{
    return d->format.numChannels;
}

int QSovaAudioFormat::resolution() const
{
    return d->format.bitsPerSample;
}

bool QSovaAudioFormat::isStereo() const
{
    return d->format.numChannels == 2;
}

bool QSovaAudioFormat::isMono() const
{
    return d->format.numChannels == 1;
}

bool QSovaAudioFormat::hasCodecExtendedInfo() const
{
    return d->format.codecInfo != nullptr;
}

bool QSovaAudioFormat::isValid() const
{
    const _audio_format copy = d->format;
    return AUDIO_IsValidFormat(&copy) != 0;
}

QSovaAudioFormat::Container QSovaAudioFormat::container() const
{
    const _audio_format copy = d->format;
    return toQSovaContainer(AUDIO_FormatContainer(&copy));
}

QSovaAudioFormat::AudioCodec QSovaAudioFormat::audioCodec() const
{
    const _audio_format copy = d->format;
    return toQSovaAudioCodec(AUDIO_FormatAudioCoder(&copy));
}

QString QSovaAudioFormat::mimeType() const
{
    if (!d->format.mimeType)
        return QString();
    return QString::fromLatin1(d->format.mimeType);
}

double QSovaAudioFormat::toSeconds(qint64 samples) const
{
    const _audio_format copy = d->format;
    return AUDIO_Sample2Time(&copy, samples);
}

qint64 QSovaAudioFormat::toSamples(double seconds) const
{
    const _audio_format copy = d->format;
    return AUDIO_Time2Sample(&copy, seconds);
}

bool QSovaAudioFormat::codecVBR() const
{
    // The reader answers the default for a null option string.
    return BLSTRING_GetBooleanValueFromString(d->format.codecInfo, "use_vbr", 0) != 0;
}

int QSovaAudioFormat::codecQuality() const
{
    if (!d->format.codecInfo)
        return 0;
    return BLSTRING_GetIntegerValueFromString(d->format.codecInfo, "quality", 0);
}

double QSovaAudioFormat::codecAvgRate() const
{
    if (!d->format.codecInfo)
        return 0.0;
    return BLSTRING_GetFloatValueFromString(d->format.codecInfo, "avg_bitrate", 0.0f);
}

int QSovaAudioFormat::codecBitRate() const
{
    const char* info = d->format.codecInfo;
    if (!info)
        return 0;
    const int bitRate = BLSTRING_GetIntegerValueFromString(info, "bitrate", 0);
    if (bitRate > 0)
        return bitRate;
    // Variable-rate encoders write only the average, often with decimals: truncate it.
    return static_cast<int>(
        BLSTRING_GetFloatValueFromString(info, "avg_bitrate", static_cast<float>(bitRate)));
}

int QSovaAudioFormat::codecMinBitRate() const
{
    if (!d->format.codecInfo)
        return 0;
    const int rate = BLSTRING_GetIntegerValueFromString(d->format.codecInfo, "min_bitrate", 0);
    return rate > 0 ? rate : codecBitRate();
}

int QSovaAudioFormat::codecMaxBitRate() const
{
    if (!d->format.codecInfo)
        return 0;
    const int rate = BLSTRING_GetIntegerValueFromString(d->format.codecInfo, "max_bitrate", 0);
    return rate > 0 ? rate : codecBitRate();
}

QString QSovaAudioFormat::codecExtendedInfo(const QString& keys) const
{
    const char* info = d->format.codecInfo;
    if (!info)
        return QString();
    if (keys.isEmpty())
        return QString::fromLatin1(info);
    QString result;
    const QStringList alternatives = keys.split(QLatin1Char('|'));
    for (const QString& key : alternatives) {
        char buffer[256];
        // Without a default the reader fails for an absent key, so that only the keys that
        // are present count; the size excludes the terminator.
        if (BLSTRING_GetStringValueFromString(info, key.toLatin1().constData(), nullptr, buffer,
                                              sizeof buffer - 1))
            result = QString::fromUtf8(buffer);
    }
    return result;
}

void QSovaAudioFormat::setSampleRate(int sampleRate)
{
    d->format.sampleRate = sampleRate;
}

quint32 QSovaAudioFormat::channelMask() const
{
    return AUDIO_FormatChannelMask(&d->format);
}

bool QSovaAudioFormat::setChannelMask(quint32 mask)
{
    _audio_format format = d->format;
    if (!AUDIO_SetFormatChannelMask(&format, mask))
        return false;
    d->format.codecInfo = format.codecInfo;
    return true;
}

QString QSovaAudioFormat::channelLayoutName() const
{
    return QString::fromUtf8(AUDIO_ChannelLayoutName(channelMask(), d->format.numChannels));
}

void QSovaAudioFormat::setNumChannels(int numChannels)
{
    d->format.numChannels = static_cast<int16_t>(numChannels);
}

void QSovaAudioFormat::setResolution(int resolution)
{
    d->format.bitsPerSample = static_cast<int16_t>(resolution);
}

void QSovaAudioFormat::setStereo()
{
    setNumChannels(2);
}

void QSovaAudioFormat::setMono()
{
    setNumChannels(1);
}

QSovaAudioFormat QSovaAudioFormat::toStereo() const
{
    QSovaAudioFormat copy(*this);
    copy.setStereo();
    return copy;
}

QSovaAudioFormat QSovaAudioFormat::toMono() const
{
    QSovaAudioFormat copy(*this);
    copy.setMono();
    return copy;
}

void QSovaAudioFormat::setResolution(const QString& text)
{
    bool ok = false;
    setResolution(text.toInt(&ok, 10)); // 0 when it is no number: hosts test for that
    if (ok)
        return;
    // Only the labels of the choices the editor has always offered; "24 bits" is left at 0
    // because hosts take 0 to mean "ask the user", and their menus rely on it.
    const QString lower = text.toLower();
    const QString label = tr("%1 bits");
    if (lower == label.arg(16))
        setResolution(16);
    if (lower == label.arg(32))
        setResolution(32);
    if (lower == label.arg(8))
        setResolution(8);
}

void QSovaAudioFormat::setNumChannels(const QString& text)
{
    setNumChannels(numChannelsFromString(text));
}

QString QSovaAudioFormat::fmtString() const
{
    return QStringLiteral("sr=%1,nc=%2,nbits=%3")
        .arg(sampleRate())
        .arg(numChannels())
        .arg(resolution());
}

QString QSovaAudioFormat::fmtConvString() const
{
    return QStringLiteral(":fmtconv[%1]").arg(fmtString());
}

QString QSovaAudioFormat::resolutionString() const
{
    return tr("%1 bits").arg(resolution());
}

QString QSovaAudioFormat::numChannelsString() const
{
    return numChannelsToString(numChannels(), false);
}

QString QSovaAudioFormat::sampleRateString() const
{
    return sampleRateToString(sampleRate(), false);
}

QString QSovaAudioFormat::bitRateLabel() const
{
    if (!codecVBR()) {
        const int rate = codecBitRate();
        if (rate < 1)
            return QString();
        return tr("%1 kbps").arg(rate);
    }
    const int maximum = codecMaxBitRate();
    const int minimum = codecMinBitRate();
    if (maximum < 1 || minimum < 1)
        return QString();
    if (minimum < maximum)
        return tr("%1 - %2 kbps (VBR)").arg(minimum).arg(maximum);
    return tr("%1 kbps (VBR)").arg(qMax(minimum, maximum));
}

QString QSovaAudioFormat::containerLabel() const
{
    return containerLabel(container(), false);
}

QString QSovaAudioFormat::audioCodecLabel() const
{
    return audioCodecString(audioCodec());
}

QString QSovaAudioFormat::numChannelsToString(int numChannels, bool shortForm)
{
    if (numChannels == 1)
        return tr("mono");
    if (numChannels == 2)
        return tr("stereo");
    return shortForm ? tr("%1 ch").arg(numChannels) : tr("%1 channels").arg(numChannels);
}

int QSovaAudioFormat::numChannelsFromString(const QString& text)
{
    const QString lower = text.trimmed().toLower();
    if (lower.isEmpty())
        return 0;
    // The parser has always known the misspelt "strereo", and saved settings hold it; the
    // label "stereo" that the printer writes reads as 0, which hosts take as "unchanged".
    if (lower == tr("mono"))
        return 1;
    if (lower == tr("strereo"))
        return 2;
    if (lower == QLatin1String("mono"))
        return 1;
    if (lower == QLatin1String("strereo"))
        return 2;
    return leadingInteger(lower);
}

QString QSovaAudioFormat::sampleRateToString(int sampleRate, bool kiloForm)
{
    if (!kiloForm && sampleRate < 100000)
        return hertz(sampleRate);
    switch (sampleRate) {
    // Telephone and broadcast rates read better in Hz even in menus of kHz: hosts show them so.
    case 6000:
    case 8000:
    case 11025:
    case 16000:
    case 22050:
        return hertz(sampleRate);
    case 32000:
    case 48000:
    case 96000:
    case 192000:
        return kiloHertz(QString::number(sampleRate / 1000));
    case 44100:
    case 88200:
        return kiloHertz(QString::asprintf("%.1f", sampleRate / 1000.0));
    default:
        break;
    }
    if (sampleRate <= 9999)
        return hertz(sampleRate);
    if (sampleRate % 1000 == 0)
        return kiloHertz(QString::number(sampleRate / 1000));
    if (sampleRate % 100 == 0)
        return kiloHertz(QString::asprintf("%.1f", sampleRate / 1000.0));
    return kiloHertz(QString::asprintf("%.2f", sampleRate / 1000.0));
}

int QSovaAudioFormat::sampleRateFromString(const QString& text)
{
    QString lower = text.trimmed().toLower();
    if (lower.isEmpty())
        return 0;
    if (lower.contains(QLatin1String("khz"))) {
        lower.remove(QLatin1String("khz"));
        lower = lower.trimmed();
        lower.replace(QLatin1Char(','), QLatin1Char('.'));
        // Single precision, as labels were always read: 22.05f * 1000 still gives 22050.
        const float kilo = lower.toFloat();
        const float hz = kilo * 1000.0f;
        return static_cast<int>(hz);
    }
    if (lower.contains(QLatin1String("hz"))) {
        lower.remove(QLatin1String("hz"));
        return lower.trimmed().toInt();
    }
    return leadingInteger(lower);
}

unsigned QSovaAudioFormat::fromQSovaContainer(Container container)
{
    const unsigned index = static_cast<unsigned>(container);
    if (index >= std::size(kContainerCodes))
        return AUDIO_CONTAINER_RAW;
    return kContainerCodes[index];
}

QSovaAudioFormat::Container QSovaAudioFormat::toQSovaContainer(unsigned code)
{
    if (code >= std::size(kContainersOfCodes))
        return Raw;
    return kContainersOfCodes[code];
}

unsigned QSovaAudioFormat::fromQSovaAudioCodec(AudioCodec codec)
{
    const unsigned index = static_cast<unsigned>(codec);
    if (index >= std::size(kCodecCodes))
        return AUDIO_CODEC_NONE;
    return kCodecCodes[index];
}

QSovaAudioFormat::AudioCodec QSovaAudioFormat::toQSovaAudioCodec(unsigned code)
{
    const unsigned codec = code & AUDIO_CODEC_MASK; // the byte-order flag is no codec
    for (unsigned i = 0; i < std::size(kCodecCodes); ++i) {
        if (kCodecCodes[i] == codec)
            return static_cast<AudioCodec>(i);
    }
    qWarning() << "QSovaAudioFormat::toQSovaAudioCodec: Missing QSovaAudioFormat for codec:"
               << AUDIODEF_AudioFormatString(code) << "(" << code << ")";
    return NoCodec;
}

QString QSovaAudioFormat::audioCodecString(AudioCodec codec)
{
    const char* name = AUDIODEF_AudioFormatString(fromQSovaAudioCodec(codec));
    return name ? QString::fromUtf8(name) : QString();
}

QString QSovaAudioFormat::containerToString(Container container)
{
    if (container < Raw || container > LastExported)
        return QLatin1String(kContainerNames[Undefined]);
    return QLatin1String(kContainerNames[container]);
}

QSovaAudioFormat::Container QSovaAudioFormat::stringToContainer(const QString& name)
{
    for (int i = Raw; i <= LastExported; ++i) {
        if (name == QLatin1String(kContainerNames[i]))
            return static_cast<Container>(i);
    }
    return Undefined;
}

QString QSovaAudioFormat::containerLabel(Container container, bool shortForm)
{
    const unsigned code = fromQSovaContainer(container);
    const char* label = shortForm ? AUDIODEF_ContainerStringShort(code)
                                  : AUDIODEF_ContainerStringExtended(code);
    if (label)
        return QString::fromUtf8(label);
    if (container == Flac)
        return tr("Flac");
    if (container == WvPck)
        return tr("WavPack");
    return tr("Stream");
}

const QVector<int>& QSovaAudioFormat::defaultSampleRates()
{
    static const QVector<int> rates = {6000,  8000,  11025, 12000, 16000, 22050, 24000,
                                       32000, 44100, 48000, 64000, 88200, 96000, 192000};
    return rates;
}

bool QSovaAudioFormat::operator==(const QSovaAudioFormat& other) const
{
    if (d == other.d)
        return true;
    if (!d || !other.d)
        return false;
    // Codec, container and texts are left out on purpose: hosts match a file against the
    // formats they offer by rate, channels and resolution alone.
    return d->format.sampleRate == other.d->format.sampleRate
        && d->format.numChannels == other.d->format.numChannels
        && d->format.bitsPerSample == other.d->format.bitsPerSample;
}

QDebug operator<<(QDebug debug, const QSovaAudioFormat& format)
{
    const QDebugStateSaver saver(debug);
    debug.nospace() << "QSovaAudioFormat(" << format.sampleRate() << ',' << format.numChannels()
                    << ',' << format.resolution() << ')';
    return debug;
}

QTextStream& operator<<(QTextStream& stream, const QSovaAudioFormat& format)
{
    stream << "QSovaAudioFormat(" << format.sampleRateString() << ','
           << format.numChannelsString() << ',' << format.resolutionString() << ')';
    return stream;
}
