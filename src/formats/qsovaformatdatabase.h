#pragma once

#include "qtsovacore_export.h"

#include "qsovaaudioformat.h"

#include <sova/audioformats.h>

#include <QExplicitlySharedDataPointer>
#include <QFlags>
#include <QList>
#include <QString>
#include <QStringList>

// The catalogue of the file formats the audio engine reads and writes, built once per process
// from the engine's format filters, and the queries a user interface needs over it. Copies
// share the one catalogue; all queries only read and may run from any thread.
class QTSOVACORE_EXPORT QSovaFormatDatabase
{
public:
    // Which tags of a filter a query uses. Any other value selects nothing.
    enum Operation : int { Read = 0, Write = 1 };

    // The kinds of filter; they mirror the engine's filter flags AUDIOFILTER_AUDIO (0x10),
    // AUDIOFILTER_COMPRESSED (0x20) and AUDIOFILTER_RAW (0x40).
    enum FilterType : int { AudioFiles = 1, CompressedFiles = 2, RawFiles = 4 };
    Q_DECLARE_FLAGS(FilterTypes, FilterType)

    // One concrete encoding of a filter, usable for reading, writing or both: an immutable,
    // implicitly shared copy of the engine's _sAUDIOFormatTag.
    class QTSOVACORE_EXPORT Tag
    {
    public:
        // A null tag: texts and lists empty, Undefined container, NoCodec, no flags.
        Tag();
        // Throws std::logic_error for a null tag; filter must not be null (its extension list
        // and MIME type fill in for the tag).
        Tag(const _sAUDIOFormatFilter* filter, const _sAUDIOFormatTag* tag);
        Tag(const Tag& other);
        Tag& operator=(const Tag& other);
        ~Tag();

        bool isNull() const;
        // The engine's format string of the encoding ("flac[nbits=24]").
        const QString& formatTag() const;
        operator const QString&() const { return formatTag(); }
        const QString& description() const;
        // The first extension of the owning filter; empty when it lists none.
        const QString& extension() const;
        // The tag's MIME types, else the filter's.
        const QString& mimeTypes() const;
        const QString& specificParams() const;
        QSovaAudioFormat::Container container() const;
        QSovaAudioFormat::AudioCodec codec() const;
        // -1 stands for any rate.
        const QList<int>& supportedSampleRates() const;
        // 51 stands for the 5.1 layout. See the constructor for the duplicated entries.
        const QList<int>& supportedNumChannels() const;
        const QList<int>& supportedResolutions() const;
        bool supportsDithering() const;
        bool supportsBitRate() const;

        // Rate (unless any rate is accepted) and channel count are listed; with checkResolution
        // the resolution too.
        bool supportsFormat(const QSovaAudioFormat& format, bool checkResolution) const;

        struct Data;

    private:
        QExplicitlySharedDataPointer<Data> d;
    };

    // One file type (a container with its extensions) and its reader and writer tags: an
    // immutable, implicitly shared copy of the engine's _sAUDIOFormatFilter. The engine record
    // is kept (not owned): it lives as long as the process.
    class QTSOVACORE_EXPORT Filter
    {
    public:
        // A null filter: no engine record, texts, lists and type empty.
        Filter();
        // Throws std::logic_error for a null record. Tags described "-" are left out.
        explicit Filter(const _sAUDIOFormatFilter* filter);
        Filter(const Filter& other);
        Filter& operator=(const Filter& other);
        ~Filter();

        bool isNull() const;
        const QString& name() const;
        operator const QString&() const { return name(); }
        const QString& description() const;
        // The line a file dialog offers ("Microsoft RIFF WAVE (*.wav *.wave)").
        const QString& fileDialogFilter() const;
        // Without empty entries and duplicates (case-sensitive), in the engine's order.
        const QStringList& extensions() const;
        FilterTypes type() const;
        const QList<Tag>& readerTags() const;
        const QList<Tag>& writerTags() const;
        // The writer tags that take the format's rate and channel count.
        QList<Tag> writerTags(const QSovaAudioFormat& format) const;

        // Exact, case-sensitive comparisons.
        bool supportsExtension(const QString& ext) const;
        bool supportsReader(const QString& formatTag) const;
        bool supportsWriter(const QString& formatTag) const;
        // Whether a file of this type can be written in the format: the engine's own check of
        // the filter, then any writer tag.
        bool supportsFormat(const QSovaAudioFormat& format, bool checkResolution) const;

        struct Data;

    private:
        QExplicitlySharedDataPointer<Data> d;
    };

    // Binds to the process catalogue, building it on first use.
    QSovaFormatDatabase();

    // The extensions of the filters of the given types, each once, in catalogue order.
    QStringList supportedExtensions(const FilterTypes& types) const;
    // The filters of the given types that have tags for the operation.
    QList<Filter> filters(Operation op, const FilterTypes& types) const;
    // The containers of the tags that fit the operation and the format's rate and channels,
    // each once, in order of first appearance.
    QList<QSovaAudioFormat::Container> containers(Operation op,
                                                  const QSovaAudioFormat& format) const;
    // The tags that fit the operation and the format's rate and channels (resolution is not
    // checked), in catalogue order, not de-duplicated.
    QList<Tag> tags(Operation op, const QSovaAudioFormat& format) const;
    QList<Tag> tags(Operation op, const QSovaAudioFormat::Container& container,
                    const QSovaAudioFormat& format) const;
    QList<Tag> tags(Operation op, const QSovaAudioFormat::AudioCodec& codec,
                    const QSovaAudioFormat& format) const;
    // Every reader or writer tag of the container or codec, whatever the format.
    QList<Tag> tags(Operation op, const QSovaAudioFormat::Container& container) const;
    QList<Tag> tags(Operation op, const QSovaAudioFormat::AudioCodec& codec) const;
    // The short labels of containers(op, format), each label once; when containers is given
    // it is emptied, then receives the container of each label, aligned with the result.
    QStringList containersFileFilter(Operation op, const QSovaAudioFormat& format,
                                     QList<QSovaAudioFormat::Container>* containers);

    struct Data;

private:
    QList<Tag> selectTags(Operation op, const QSovaAudioFormat& format) const;

    // The process catalogue; null once it was destroyed at exit.
    Data* d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QSovaFormatDatabase::FilterTypes)
