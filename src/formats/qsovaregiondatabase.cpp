#include "qsovaregiondatabase.h"

#include <sova/audioformats.h>

#include <cstring>

namespace {

constexpr int32_t kMaxRegionFilters = 32;

QString tagNameOf(const _sAUDIORegionFilter* record)
{
    const char* name = record->tagName;
    const void* nul = std::memchr(name, '\0', sizeof record->tagName);
    const int length
        = nul ? int(static_cast<const char*>(nul) - name) : int(sizeof record->tagName);
    return QString::fromUtf8(name, length);
}

} // namespace

QStringList QSovaRegionDatabase::formatFilters()
{
    const _sAUDIORegionFilter* records[kMaxRegionFilters] = {};
    const int32_t count = AUDIO_GetExternalRegionFilters(records, kMaxRegionFilters);
    QStringList result;
    for (int32_t i = 0; i < count && i < kMaxRegionFilters; ++i) {
        const _sAUDIORegionFilter* record = records[i];
        // Only the "listed" bit decides; a record without it stays reachable by tagForFilter.
        if (record && (record->flags & AUDIOREGION_LISTED) && record->filter)
            result.append(QString::fromUtf8(record->filter));
    }
    return result;
}

QString QSovaRegionDatabase::tagForFilter(const QString& filter)
{
    const _sAUDIORegionFilter* records[kMaxRegionFilters] = {};
    const int32_t count = AUDIO_GetExternalRegionFilters(records, kMaxRegionFilters);
    for (int32_t i = 0; i < count && i < kMaxRegionFilters; ++i) {
        const _sAUDIORegionFilter* record = records[i];
        if (record && record->filter && QString::fromUtf8(record->filter) == filter)
            return tagNameOf(record);
    }
    return QString();
}
