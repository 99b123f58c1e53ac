#include "qsovaaudioselectionlist.h"

#include <cstdlib>
#include <cstring>

QSovaAudioSelectionList::operator _audio_selection*() const
{
    const int n = size();
    if (n == 0)
        return nullptr;
    auto* records = static_cast<_audio_selection*>(std::calloc(n, sizeof(_audio_selection)));
    if (!records)
        return nullptr;
    // Each record verbatim (the engine words and the pooled track pointer included), then
    // the links: the block is an array and a chain at once, as engine calls take either.
    for (int i = 0; i < n; ++i) {
        std::memcpy(&records[i], static_cast<const _audio_selection*>(at(i)),
                    sizeof(_audio_selection));
        records[i].next = nullptr;
        if (i > 0)
            records[i - 1].next = &records[i];
    }
    return records;
}
