#pragma once

#include "qtsovacore_export.h"

#include <sova/audio.h>

#include <QSharedDataPointer>
#include <QString>

class QDebug;
class QSovaAudioSignal;
class QSovaAudioSelectionPrivate;

// A selected time range of a signal: begin and end in seconds, a mask of the channels it
// leaves out and the track it belongs to. An implicitly shared wrapper around the engine's
// _audio_selection, whose next link it always keeps null. The track identifier is a pooled
// foundation string: copies share the pointer and nobody frees it.
class QTSOVACORE_EXPORT QSovaAudioSelection
{
public:
    // The engine's record of no selection.
    QSovaAudioSelection();
    explicit QSovaAudioSelection(const _audio_selection& selection);
    // Null: as the default constructor.
    explicit QSovaAudioSelection(const _audio_selection* selection);
    QSovaAudioSelection(double begin, double end, unsigned int disabledChannelMask = 0);
    QSovaAudioSelection(double begin, double end, const QString& trackUniqId,
                        unsigned int disabledChannelMask = 0);
    QSovaAudioSelection(const QSovaAudioSelection& other);
    QSovaAudioSelection& operator=(const QSovaAudioSelection& other);
    QSovaAudioSelection& operator=(QSovaAudioSelection&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~QSovaAudioSelection();
    void swap(QSovaAudioSelection& other) noexcept { d.swap(other.d); }

    double begin() const;
    double end() const;
    // end - begin; negative for an inverted range.
    double duration() const;
    double center() const;
    unsigned int disabledChannelMask() const;
    // Null without a track.
    QString trackUniqId() const;
    // A range of positive length.
    bool isValid() const;
    // Valid and lying within the valid signal (it may end exactly at its end).
    bool isValid(const QSovaAudioSignal& signal) const;
    // Valid and begin <= t <= end.
    bool contains(double t) const;

    // The held record itself, lent until this value is changed or goes.
    operator const _audio_selection*() const;

    // Range and mask; the track and the engine words are not compared.
    bool operator==(const QSovaAudioSelection& other) const;
    bool operator!=(const QSovaAudioSelection& other) const { return !(*this == other); }

    void setDisabledChannelMask(unsigned int mask);
    // end = begin + d, unchecked.
    void setDuration(double d);
    // Moving one bound across the other drags it along: never swapped.
    void setBegin(double begin);
    void setEnd(double end);

private:
    QSharedDataPointer<QSovaAudioSelectionPrivate> d;
};

Q_DECLARE_SHARED(QSovaAudioSelection)

// "QSovaAudioSelection(2,5, mask 0x0)".
QTSOVACORE_EXPORT QDebug operator<<(QDebug debug, const QSovaAudioSelection& selection);
