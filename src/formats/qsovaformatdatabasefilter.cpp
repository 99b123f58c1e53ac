#include "qsovaformatdatabase.h"

#include <QSharedData>

#include <stdexcept>

struct QSovaFormatDatabase::Tag::Data : QSharedData {
    bool null = true;
    QString description;
    QString formatTag;
    QString extension;
    QString mimeTypes;
    QString specificParams;
    QSovaAudioFormat::Container container = QSovaAudioFormat::Undefined;
    QSovaAudioFormat::AudioCodec codec = QSovaAudioFormat::NoCodec;
    QList<int> supportedSampleRates;
    QList<int> supportedNumChannels;
    QList<int> supportedResolutions;
    bool supportsDithering = false;
    bool supportsBitRate = false;
};

struct QSovaFormatDatabase::Filter::Data : QSharedData {
    QString name;
    QString description;
    QString fileDialogFilter;
    QStringList extensions;
    FilterTypes type;
    QList<Tag> readerTags;
    QList<Tag> writerTags;
    const _sAUDIOFormatFilter* formatFilter = nullptr;
};

namespace {

QString utf8(const char* text)
{
    return text ? QString::fromUtf8(text) : QString();
}

// The filter's extension text split at "|", empty parts dropped. Latin-1: extensions are ASCII.
QStringList extensionParts(const char* text)
{
    return QString::fromLatin1(text ? text : "").split(QLatin1Char('|'), Qt::SkipEmptyParts);
}

// Rates in the order the capability table lists them, highest bit first.
const struct {
    uint32_t bit;
    int rate;
} rateBits[] = {{AUDIOCAP_RATE_6000, 6000},     {AUDIOCAP_RATE_8000, 8000},
                {AUDIOCAP_RATE_11025, 11025},   {AUDIOCAP_RATE_12000, 12000},
                {AUDIOCAP_RATE_16000, 16000},   {AUDIOCAP_RATE_22050, 22050},
                {AUDIOCAP_RATE_24000, 24000},   {AUDIOCAP_RATE_32000, 32000},
                {AUDIOCAP_RATE_44100, 44100},   {AUDIOCAP_RATE_48000, 48000},
                {AUDIOCAP_RATE_96000, 96000},   {AUDIOCAP_RATE_192000, 192000},
                {AUDIOCAP_RATE_ANY, -1}};

QList<int> channelsFromCaps(uint32_t caps)
{
    QList<int> channels;
    if (caps & AUDIOCAP_MONO)
        channels << 1;
    if (caps & AUDIOCAP_STEREO)
        channels << 2;
    if (caps & AUDIOCAP_MULTI) {
        channels << 3 << 4 << 5 << 6 << 7 << 8;
        return channels;
    }
    // Without the multi-channel bit mono and stereo are listed a second time (1, 2, 1, 2).
    // Channel pickers fed from this list have always shown that order, and hosts count the
    // entries to size their menus, so the duplicates stay.
    if (caps & AUDIOCAP_MONO)
        channels << 1;
    if (caps & AUDIOCAP_STEREO)
        channels << 2;
    if (caps & AUDIOCAP_51)
        channels << 51;
    return channels;
}

QList<int> resolutionsFromCaps(uint32_t caps)
{
    QList<int> bits;
    if (caps & (AUDIOCAP_BITS8 | AUDIOCAP_BITS8S))
        bits << 8;
    if (caps & AUDIOCAP_BITS16)
        bits << 16;
    if (caps & AUDIOCAP_BITS24)
        bits << 24;
    if (caps & (AUDIOCAP_BITS32 | AUDIOCAP_FLOAT32))
        bits << 32;
    return bits;
}

} // namespace

// ---- Tag ---------------------------------------------------------------------------------

QSovaFormatDatabase::Tag::Tag() : d(new Data) {}

QSovaFormatDatabase::Tag::Tag(const _sAUDIOFormatFilter* filter, const _sAUDIOFormatTag* tag)
{
    // The exception texts are part of the interface: hosts catch std::logic_error and match
    // these exact messages in their crash reports and tests.
    if (!tag)
        throw std::logic_error("Null formatTag in Tag constructor!");
    Q_ASSERT(filter);
    d = new Data;
    d->null = false;
    d->description = utf8(tag->description);
    d->formatTag = QString::fromUtf8(tag->name, int(qstrnlen(tag->name, sizeof(tag->name))));
    const QStringList exts = extensionParts(filter ? filter->extensions : nullptr);
    if (!exts.isEmpty())
        d->extension = exts.first();
    d->mimeTypes = utf8(tag->mimeTypes ? tag->mimeTypes : (filter ? filter->mimeType : nullptr));
    d->specificParams = utf8(tag->specificParams);
    d->container = QSovaAudioFormat::toQSovaContainer(AUDIO_FormatTagContainer(tag));
    d->codec = QSovaAudioFormat::toQSovaAudioCodec(AUDIO_FormatTagAudioCoder(tag));

    const uint32_t caps = tag->capabilities;
    for (const auto& entry : rateBits)
        if (caps & entry.bit)
            d->supportedSampleRates << entry.rate;
    d->supportedNumChannels = channelsFromCaps(caps);
    d->supportedResolutions = resolutionsFromCaps(caps);
    d->supportsDithering = (caps & AUDIOCAP_DITHER) != 0;
    d->supportsBitRate = (caps & AUDIOCAP_BITRATE) != 0;
}

QSovaFormatDatabase::Tag::Tag(const Tag& other) = default;
QSovaFormatDatabase::Tag& QSovaFormatDatabase::Tag::operator=(const Tag& other) = default;
QSovaFormatDatabase::Tag::~Tag() = default;

bool QSovaFormatDatabase::Tag::isNull() const { return d->null; }
const QString& QSovaFormatDatabase::Tag::formatTag() const { return d->formatTag; }
const QString& QSovaFormatDatabase::Tag::description() const { return d->description; }
const QString& QSovaFormatDatabase::Tag::extension() const { return d->extension; }
const QString& QSovaFormatDatabase::Tag::mimeTypes() const { return d->mimeTypes; }
const QString& QSovaFormatDatabase::Tag::specificParams() const { return d->specificParams; }
QSovaAudioFormat::Container QSovaFormatDatabase::Tag::container() const { return d->container; }
QSovaAudioFormat::AudioCodec QSovaFormatDatabase::Tag::codec() const { return d->codec; }

const QList<int>& QSovaFormatDatabase::Tag::supportedSampleRates() const
{
    return d->supportedSampleRates;
}

const QList<int>& QSovaFormatDatabase::Tag::supportedNumChannels() const
{
    return d->supportedNumChannels;
}

const QList<int>& QSovaFormatDatabase::Tag::supportedResolutions() const
{
    return d->supportedResolutions;
}

bool QSovaFormatDatabase::Tag::supportsDithering() const { return d->supportsDithering; }
bool QSovaFormatDatabase::Tag::supportsBitRate() const { return d->supportsBitRate; }

bool QSovaFormatDatabase::Tag::supportsFormat(const QSovaAudioFormat& format,
                                              bool checkResolution) const
{
    if (!d->supportedSampleRates.contains(-1)
        && !d->supportedSampleRates.contains(format.sampleRate()))
        return false;
    if (!d->supportedNumChannels.contains(format.numChannels()))
        return false;
    return !checkResolution || d->supportedResolutions.contains(format.resolution());
}

// ---- Filter ------------------------------------------------------------------------------

QSovaFormatDatabase::Filter::Filter() : d(new Data) {}

QSovaFormatDatabase::Filter::Filter(const _sAUDIOFormatFilter* filter)
{
    if (!filter)
        throw std::logic_error("Null formatFilter in Filter constructor!");
    d = new Data;
    d->formatFilter = filter;
    d->name = utf8(filter->name);
    d->description = utf8(filter->description);
    d->fileDialogFilter = utf8(filter->fileDialogFilter);
    // Case-sensitive de-duplication: "wav" and "WAV" are both kept, because hosts build their
    // case-sensitive file-name globs from this list.
    d->extensions = extensionParts(filter->extensions);
    d->extensions.removeDuplicates();
    if (filter->flags & AUDIOFILTER_AUDIO)
        d->type |= AudioFiles;
    if (filter->flags & AUDIOFILTER_COMPRESSED)
        d->type |= CompressedFiles;
    if (filter->flags & AUDIOFILTER_RAW)
        d->type |= RawFiles;

    for (int i = 0; filter->tags && i < filter->tagCount; ++i) {
        const _sAUDIOFormatTag* record = &filter->tags[i];
        if (utf8(record->description) == QLatin1String("-"))
            continue;
        const Tag tag(filter, record);
        if (record->direction & AUDIOTAG_READ)
            d->readerTags << tag;
        if (record->direction & AUDIOTAG_WRITE)
            d->writerTags << tag;
    }
}

QSovaFormatDatabase::Filter::Filter(const Filter& other) = default;
QSovaFormatDatabase::Filter& QSovaFormatDatabase::Filter::operator=(const Filter& other) = default;
QSovaFormatDatabase::Filter::~Filter() = default;

bool QSovaFormatDatabase::Filter::isNull() const { return !d->formatFilter; }
const QString& QSovaFormatDatabase::Filter::name() const { return d->name; }
const QString& QSovaFormatDatabase::Filter::description() const { return d->description; }

const QString& QSovaFormatDatabase::Filter::fileDialogFilter() const
{
    return d->fileDialogFilter;
}

const QStringList& QSovaFormatDatabase::Filter::extensions() const { return d->extensions; }
QSovaFormatDatabase::FilterTypes QSovaFormatDatabase::Filter::type() const { return d->type; }

const QList<QSovaFormatDatabase::Tag>& QSovaFormatDatabase::Filter::readerTags() const
{
    return d->readerTags;
}

const QList<QSovaFormatDatabase::Tag>& QSovaFormatDatabase::Filter::writerTags() const
{
    return d->writerTags;
}

QList<QSovaFormatDatabase::Tag>
QSovaFormatDatabase::Filter::writerTags(const QSovaAudioFormat& format) const
{
    QList<Tag> fitting;
    for (const Tag& tag : d->writerTags)
        if (tag.supportsFormat(format, false))
            fitting << tag;
    return fitting;
}

bool QSovaFormatDatabase::Filter::supportsExtension(const QString& ext) const
{
    return d->extensions.contains(ext, Qt::CaseSensitive);
}

bool QSovaFormatDatabase::Filter::supportsReader(const QString& formatTag) const
{
    for (const Tag& tag : d->readerTags)
        if (tag.formatTag() == formatTag)
            return true;
    return false;
}

bool QSovaFormatDatabase::Filter::supportsWriter(const QString& formatTag) const
{
    for (const Tag& tag : d->writerTags)
        if (tag.formatTag() == formatTag)
            return true;
    return false;
}

bool QSovaFormatDatabase::Filter::supportsFormat(const QSovaAudioFormat& format,
                                                 bool checkResolution) const
{
    if (d->formatFilter && d->formatFilter->formatCheck
        && !d->formatFilter->formatCheck(static_cast<const _audio_format*>(format)))
        return false;
    // Only writer tags are consulted: save dialogs ask this to decide which file types to
    // offer, and a type the engine can merely read must not show up there.
    for (const Tag& tag : d->writerTags)
        if (tag.supportsFormat(format, checkResolution))
            return true;
    return false;
}
