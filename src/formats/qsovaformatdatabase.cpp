#include "qsovaformatdatabase.h"

#include <QGlobalStatic>

struct QSovaFormatDatabase::Data {
    Data()
    {
        // The count is read on every pass, as the engine may still be registering filters.
        for (int32_t i = 0; i < AUDIO_CountFormatFilters(); ++i) {
            const _sAUDIOFormatFilter* record = AUDIO_GetFormatFilter(i);
            if (!record
                || !(record->flags & (AUDIOFILTER_AUDIO | AUDIOFILTER_COMPRESSED | AUDIOFILTER_RAW)))
                continue;
            filters << Filter(record);
        }
    }

    QList<Filter> filters;
};

// The one catalogue of the process: built by the first database object (one thread builds,
// the others wait), never rebuilt, destroyed at exit. Hosts rely on it staying put: they keep
// Filter and Tag copies across dialogs and expect every later query to list the same records
// in the same order, so filters the engine registers afterwards are deliberately not seen.
Q_GLOBAL_STATIC(QSovaFormatDatabase::Data, database)

namespace {

const QList<QSovaFormatDatabase::Filter>& filtersOf(const QSovaFormatDatabase::Data* d)
{
    static const QList<QSovaFormatDatabase::Filter> none;
    return d ? d->filters : none;
}

} // namespace

QSovaFormatDatabase::QSovaFormatDatabase() : d(database()) {}

QStringList QSovaFormatDatabase::supportedExtensions(const FilterTypes& types) const
{
    QStringList extensions;
    for (const Filter& filter : filtersOf(d))
        if (filter.type() & types)
            extensions << filter.extensions();
    extensions.removeDuplicates();
    return extensions;
}

QList<QSovaFormatDatabase::Filter> QSovaFormatDatabase::filters(Operation op,
                                                                const FilterTypes& types) const
{
    QList<Filter> result;
    if (op != Read && op != Write)
        return result;
    for (const Filter& filter : filtersOf(d)) {
        if (!(filter.type() & types))
            continue;
        if (!(op == Read ? filter.readerTags() : filter.writerTags()).isEmpty())
            result << filter;
    }
    return result;
}

QList<QSovaFormatDatabase::Tag> QSovaFormatDatabase::selectTags(Operation op,
                                                                const QSovaAudioFormat& format) const
{
    // Resolution never narrows these queries: callers pick one of the tag's resolutions later.
    QList<Tag> selected;
    for (const Filter& filter : filtersOf(d)) {
        if (op == Read) {
            for (const Tag& tag : filter.readerTags())
                if (tag.supportsFormat(format, false))
                    selected << tag;
        } else if (op == Write && filter.supportsFormat(format, false)) {
            for (const Tag& tag : filter.writerTags())
                if (tag.supportsFormat(format, false))
                    selected << tag;
        }
    }
    return selected;
}

QList<QSovaAudioFormat::Container>
QSovaFormatDatabase::containers(Operation op, const QSovaAudioFormat& format) const
{
    QList<QSovaAudioFormat::Container> result;
    for (const Tag& tag : selectTags(op, format))
        if (!result.contains(tag.container()))
            result << tag.container();
    return result;
}

QList<QSovaFormatDatabase::Tag> QSovaFormatDatabase::tags(Operation op,
                                                          const QSovaAudioFormat& format) const
{
    return selectTags(op, format);
}

QList<QSovaFormatDatabase::Tag>
QSovaFormatDatabase::tags(Operation op, const QSovaAudioFormat::Container& container,
                          const QSovaAudioFormat& format) const
{
    QList<Tag> result;
    for (const Tag& tag : selectTags(op, format))
        if (tag.container() == container)
            result << tag;
    return result;
}

QList<QSovaFormatDatabase::Tag>
QSovaFormatDatabase::tags(Operation op, const QSovaAudioFormat::AudioCodec& codec,
                          const QSovaAudioFormat& format) const
{
    QList<Tag> result;
    for (const Tag& tag : selectTags(op, format))
        if (tag.codec() == codec)
            result << tag;
    return result;
}

QList<QSovaFormatDatabase::Tag>
QSovaFormatDatabase::tags(Operation op, const QSovaAudioFormat::Container& container) const
{
    QList<Tag> result;
    if (op != Read && op != Write)
        return result;
    for (const Filter& filter : filtersOf(d))
        for (const Tag& tag : op == Read ? filter.readerTags() : filter.writerTags())
            if (tag.container() == container)
                result << tag;
    return result;
}

QList<QSovaFormatDatabase::Tag>
QSovaFormatDatabase::tags(Operation op, const QSovaAudioFormat::AudioCodec& codec) const
{
    QList<Tag> result;
    if (op != Read && op != Write)
        return result;
    for (const Filter& filter : filtersOf(d))
        for (const Tag& tag : op == Read ? filter.readerTags() : filter.writerTags())
            if (tag.codec() == codec)
                result << tag;
    return result;
}

QStringList QSovaFormatDatabase::containersFileFilter(
    Operation op, const QSovaAudioFormat& format, QList<QSovaAudioFormat::Container>* containers)
{
    if (containers)
        containers->clear();
    QStringList labels;
    for (QSovaAudioFormat::Container container : this->containers(op, format)) {
        const QString label = QSovaAudioFormat::containerLabel(container, false);
        if (labels.contains(label, Qt::CaseSensitive))
            continue; // of two containers sharing a label only the first is offered
        labels << label;
        if (containers)
            containers->append(container);
    }
    return labels;
}
