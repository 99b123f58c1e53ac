#pragma once

#include "qtsovacore_export.h"

#include <sova/audio.h>

#include <QCoreApplication>
#include <QMetaType>
#include <QObject>
#include <QSharedDataPointer>
#include <QString>
#include <QVector>

class QDebug;
class QTextStream;
class QSovaAudioFormatPrivate;

// The kind of audio: sample rate, channels, resolution, and the engine's container, codec and
// codec parameters. An implicitly shared wrapper around the engine's _audio_format, so that it
// converts to the engine record for any engine call. Copies share one record and detach before
// a change; copies may travel between threads, one value is modified by one thread at a time.
class QTSOVACORE_EXPORT QSovaAudioFormat
{
    Q_GADGET
    Q_DECLARE_TR_FUNCTIONS(QSovaAudioFormat)

public:
    // Containers, numbered for this class. The names are the text form (containerToString).
    // The last four are choices offered to a user, not containers of a file; they map to the
    // engine's code 0. Any int may be stored: the mappings answer for values out of range.
    enum Container : int {
        Undefined = 0,
        Raw = 1,
        Wav = 2,
        Avi = 3,
        Nsp = 4,
        Mp4 = 5,
        Snd = 6,
        Txt = 7,
        Aif = 8,
        Wav64 = 9,
        SonyW64 = 10,
        Mpeg = 11,
        Ogg = 12,
        Asf = 13,
        Flac = 14,
        WvPck = 15,
        Mpc = 16,
        Voc = 17,
        Caf = 18,
        Ape = 19,
        Tta = 20,
        Mkv = 21,
        Ad4v1 = 22,
        Ad4v2 = 23,
        Ac3 = 24,
        Dts = 25,
        GsmAmr = 26,
        Wsig = 27,
        Others = 28,
        FromFile = 29,
        LastSaved = 30,
        LastExported = 31
    };
    Q_ENUM(Container)

    // Codecs, numbered for this class; each stands for one engine codec (AUDIO_CODEC_<name>).
    enum AudioCodec : int {
        NoCodec = 0,
        ULAW = 1,
        ALAW = 2,
        PCM24 = 3,
        PCM32 = 4,
        PCM16 = 5,
        PCM_S8 = 6,
        PCM_U8 = 7,
        FLOAT32 = 8,
        FLOAT64 = 9,
        IMA_ADPCM = 10,
        MS_ADPCM = 11,
        GSM610 = 12,
        G721 = 13,
        G723_24 = 14,
        G723_40 = 15,
        VOX_ADPCM = 16,
        NMS_ADPCM = 17,
        DWVW12 = 18,
        DWVW16 = 19,
        DWVW24 = 20,
        FLAC = 21,
        ALAC = 22,
        WAVPACK = 23,
        APE = 24,
        TTA = 25,
        SHORTEN = 26,
        TAK = 27,
        MP4ALS = 28,
        MPEG_L1 = 29,
        MPEG_L2 = 30,
        MPEG_L3 = 31,
        AAC = 32,
        HE_AAC = 33,
        HE_AAC_V2 = 34,
        AC3 = 35,
        EAC3 = 36,
        DTS = 37,
        TRUEHD = 38,
        WMA_V1 = 39,
        WMA_V2 = 40,
        WMA_PRO = 41,
        MUSEPACK_SV7 = 42,
        MUSEPACK_SV8 = 43,
        ATRAC3 = 44,
        ATRAC3P = 45,
        COOK = 46,
        NELLYMOSER = 47,
        WMA_VOICE = 48,
        WMA_LOSSLESS = 49,
        G722 = 50,
        G726 = 51,
        G729 = 52,
        G723_1 = 53,
        AMR_NB = 54,
        AMR_WB = 55,
        SPEEX = 56,
        OPUS = 57,
        VORBIS = 58
    };
    Q_ENUM(AudioCodec)

    // The engine's null format with a resolution of 16 bits.
    QSovaAudioFormat();
    // A copy of *format; for null, the engine's null format as it is (resolution not set).
    explicit QSovaAudioFormat(const _audio_format* format);
    // No range check. A resolution below 1 takes the setting "libqtsova.defaults.resolution"
    // (default 16). Non-empty texts are stored in the foundation's string pool, the codec
    // information as UTF-8, the mime type as Latin-1.
    QSovaAudioFormat(int sampleRate, int numChannels, int resolution,
                     const QString& codecInfo = QString(), const QString& mimeType = QString());
    // Parses "sr=%1,nc=%2,nbits=%3" (see fromString).
    explicit QSovaAudioFormat(const QString& text);
    QSovaAudioFormat(const QSovaAudioFormat& other);
    QSovaAudioFormat& operator=(const QSovaAudioFormat& other);
    QSovaAudioFormat& operator=(QSovaAudioFormat&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~QSovaAudioFormat();
    void swap(QSovaAudioFormat& other) noexcept { d.swap(other.d); }

    // A copy of the engine record.
    operator _audio_format() const;
    // The shared record, lent: valid while this value lives and is not modified.
    operator const _audio_format*() const;
    // Detaches, then lends the now unshared record so that an engine call may fill it.
    operator _audio_format*();

    // The machine form: keys (any case, ';' or ',' between items, blanks ignored) "sr",
    // "samplerate", "rate"; "nc", "nch", "numchannels", "channels"; "nbits", "numbits",
    // "resolution". Of synonyms the later in that list wins; absent keys keep the defaults
    // (0 Hz, 0 channels, 16 bits). Codec, container and mime type stay empty.
    static QSovaAudioFormat fromString(const QString& text);
    static QSovaAudioFormat fromString(const char* text); // ASCII

    int sampleRate() const; // Hz
    int numChannels() const;
    int resolution() const; // bits per sample
    bool isStereo() const;
    bool isMono() const;
    bool hasCodecExtendedInfo() const;
    // true when the engine accepts the format.
    bool isValid() const;
    Container container() const;
    // NoCodec, with a warning, for an engine codec this class does not know.
    AudioCodec audioCodec() const;
    // Null when the format has none.
    QString mimeType() const;
    // Sample frames to seconds and back at the format's rate; 0 without a rate.
    double toSeconds(qint64 samples) const;
    qint64 toSamples(double seconds) const;

    // Codec parameters from the codec information ("use_vbr", "quality", "avg_bitrate",
    // "bitrate", "min_bitrate", "max_bitrate"); 0 or false when absent. Bit rates in kbps.
    bool codecVBR() const;
    int codecQuality() const;
    double codecAvgRate() const;
    // "bitrate" when above 0, else "avg_bitrate" truncated.
    int codecBitRate() const;
    // "min_bitrate" / "max_bitrate" when above 0, else codecBitRate().
    int codecMinBitRate() const;
    int codecMaxBitRate() const;
    // The whole codec information for empty keys; else the value of the last of the
    // "|"-separated alternative keys that is present, empty when none is.
    QString codecExtendedInfo(const QString& keys = QString()) const;

    // The channel layout: a speaker mask (AUDIO_SPEAKER_* of <sova/audio.h>) kept in the codec
    // information under "chmask"; 0 when unspecified, which stands for the default layout of
    // numChannels() (AUDIO_DefaultChannelMask). setChannelMask() keeps the other keys; 0 removes
    // the mask; false, changing nothing, for a mask of another speaker count than numChannels().
    quint32 channelMask() const;
    bool setChannelMask(quint32 mask);
    // "mono", "stereo", "5.1", "5.1(side)", "7.1", ..., else "FL+FR+LFE"; the default layout's
    // name when unspecified.
    QString channelLayoutName() const;

    // Setters: no range check; channels and resolution are stored in 16 bits.
    void setSampleRate(int sampleRate);
    void setNumChannels(int numChannels);
    void setResolution(int resolution);
    void setStereo();
    void setMono();
    // Copies with 2 / 1 channels; this value is left alone.
    QSovaAudioFormat toStereo() const;
    QSovaAudioFormat toMono() const;
    // A decimal number, or one of the labels for 16, 32 and 8 bits ("16 bits"); anything else
    // leaves the resolution at 0.
    void setResolution(const QString& text);
    // setNumChannels(numChannelsFromString(text)).
    void setNumChannels(const QString& text);

    // "sr=44100,nc=2,nbits=16".
    QString fmtString() const;
    // ":fmtconv[sr=44100,nc=2,nbits=16]", the suffix of a path read converted to this format.
    QString fmtConvString() const;
    // "16 bits" (translated).
    QString resolutionString() const;
    QString numChannelsString() const;
    QString sampleRateString() const;
    // "128 kbps", "96 - 192 kbps (VBR)", "128 kbps (VBR)"; empty without a bit rate.
    QString bitRateLabel() const;
    // The engine's description of container().
    QString containerLabel() const;
    // The engine's name of audioCodec().
    QString audioCodecLabel() const;

    // "mono", "stereo", else "%1 ch" (short form) or "%1 channels"; translated.
    static QString numChannelsToString(int numChannels, bool shortForm = false);
    // "mono" gives 1, "strereo" 2 (the word saved settings hold; the printed "stereo" reads
    // as 0), else the leading integer; 0 when unreadable.
    static int numChannelsFromString(const QString& text);
    // "44100 Hz"; in the kilo form (or from 100000 Hz) "44.1 kHz", "48 kHz", yet the low
    // telephone and broadcast rates stay in Hz ("11025 Hz"). Translated.
    static QString sampleRateToString(int sampleRate, bool kiloForm = false);
    // "22.05 kHz", "44,1 kHz", "44100Hz", "48000"; 0 when unreadable.
    static int sampleRateFromString(const QString& text);

    // Container to and from the engine's container code; unknown values give Raw.
    static unsigned fromQSovaContainer(Container container);
    static Container toQSovaContainer(unsigned code);
    // Codec to and from the engine's codec code. fromQSovaAudioCodec gives 0 above VORBIS;
    // toQSovaAudioCodec ignores the flag bits above bit 14 and warns for an unknown codec.
    static unsigned fromQSovaAudioCodec(AudioCodec codec);
    static AudioCodec toQSovaAudioCodec(unsigned code);
    // The engine's name of the codec ("PCM 16-bit"); empty when it has none.
    static QString audioCodecString(AudioCodec codec);

    // "Raw" ... "LastExported"; "Undefined" for anything else.
    static QString containerToString(Container container);
    // Exact, case-sensitive inverse of containerToString; Undefined when unknown.
    static Container stringToContainer(const QString& name);
    // The engine's short ("WAV") or extended description of the container, UTF-8.
    static QString containerLabel(Container container, bool shortForm = false);

    // Sample rates offered by default: 6000 to 192000 Hz, ascending.
    static const QVector<int>& defaultSampleRates();

    // Equal when rate, channels and resolution are equal: codec, container, mime type and
    // codec information are not compared.
    bool operator==(const QSovaAudioFormat& other) const;
    bool operator!=(const QSovaAudioFormat& other) const { return !(*this == other); }

private:
    QSharedDataPointer<QSovaAudioFormatPrivate> d;
};

Q_DECLARE_SHARED(QSovaAudioFormat)
Q_DECLARE_METATYPE(QSovaAudioFormat)

// "QSovaAudioFormat(44100,2,16)".
QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaAudioFormat& format);
// "QSovaAudioFormat(44100 Hz,stereo,16 bits)", with the translated labels.
QTSOVACORE_EXPORT QTextStream& operator<<(QTextStream& stream, const QSovaAudioFormat& format);
