#pragma once

#include "qsovaaudioselection.h"

#include <QList>

// A list of selections that converts to the engine's array-and-chain form.
class QTSOVACORE_EXPORT QSovaAudioSelectionList : public QList<QSovaAudioSelection>
{
public:
    QSovaAudioSelectionList() = default;
    using QList<QSovaAudioSelection>::QList;
    QSovaAudioSelectionList(const QList<QSovaAudioSelection>& list)
        : QList<QSovaAudioSelection>(list)
    {
    }

    // A calloc'ed block of size() records in list order, at once an array and a chain through
    // next (null in the last). The caller frees it with free(); the track strings in it stay
    // pooled. Null for an empty list, which callers must not convert.
    operator _audio_selection*() const;
};
