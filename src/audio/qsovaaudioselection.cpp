#include "qsovaaudioselection.h"

#include "qsovaaudiosignal.h"

#include <sova/blstring.h>

#include <QDebug>

// The shared record: the engine record by value. Detaching copies all its fields verbatim,
// the track pointer included (the pooled string is shared, never duplicated).
class QSovaAudioSelectionPrivate : public QSharedData
{
public:
    explicit QSovaAudioSelectionPrivate(const _audio_selection& record) : selection(record)
    {
        // A record copied out of an engine chain must not keep its link.
        selection.next = nullptr;
    }

    _audio_selection selection;
};

QSovaAudioSelection::QSovaAudioSelection()
    : d(new QSovaAudioSelectionPrivate(AUDIOSELECTION_Null()))
{
}

QSovaAudioSelection::QSovaAudioSelection(const _audio_selection& selection)
    : d(new QSovaAudioSelectionPrivate(selection))
{
}

QSovaAudioSelection::QSovaAudioSelection(const _audio_selection* selection)
    : d(new QSovaAudioSelectionPrivate(selection ? *selection : AUDIOSELECTION_Null()))
{
}

QSovaAudioSelection::QSovaAudioSelection(double begin, double end,
                                         unsigned int disabledChannelMask)
    : d(new QSovaAudioSelectionPrivate(AUDIOSELECTION_Define(begin, end, disabledChannelMask)))
{
}

QSovaAudioSelection::QSovaAudioSelection(double begin, double end, const QString& trackUniqId,
                                         unsigned int disabledChannelMask)
    : QSovaAudioSelection(begin, end, disabledChannelMask)
{
    d->selection.trackUniqId = GetBString(trackUniqId.toUtf8().constData(), 1);
}

QSovaAudioSelection::QSovaAudioSelection(const QSovaAudioSelection& other) = default;
QSovaAudioSelection& QSovaAudioSelection::operator=(const QSovaAudioSelection& other) = default;
QSovaAudioSelection::~QSovaAudioSelection() = default;

double QSovaAudioSelection::begin() const
{
    return d->selection.begin;
}

double QSovaAudioSelection::end() const
{
    return d->selection.end;
}

double QSovaAudioSelection::duration() const
{
    return d->selection.end - d->selection.begin;
}

double QSovaAudioSelection::center() const
{
    return d->selection.begin + duration() * 0.5;
}

unsigned int QSovaAudioSelection::disabledChannelMask() const
{
    return d->selection.disabledChannelMask;
}

QString QSovaAudioSelection::trackUniqId() const
{
    const char* id = d->selection.trackUniqId;
    return id ? QString::fromUtf8(id) : QString();
}

bool QSovaAudioSelection::isValid() const
{
    return duration() > 0.0;
}

bool QSovaAudioSelection::isValid(const QSovaAudioSignal& signal) const
{
    if (!isValid() || !signal.isValid())
        return false;
    const double length = signal.duration();
    return d->selection.begin <= length && d->selection.end <= length;
}

bool QSovaAudioSelection::contains(double t) const
{
    return isValid() && d->selection.begin <= t && t <= d->selection.end;
}

QSovaAudioSelection::operator const _audio_selection*() const
{
    return &d.constData()->selection;
}

bool QSovaAudioSelection::operator==(const QSovaAudioSelection& other) const
{
    // The track takes no part: editors match a range across tracks by its times and mask.
    const _audio_selection& a = d->selection;
    const _audio_selection& b = other.d->selection;
    return a.begin == b.begin && a.end == b.end && a.disabledChannelMask == b.disabledChannelMask;
}

void QSovaAudioSelection::setDisabledChannelMask(unsigned int mask)
{
    d->selection.disabledChannelMask = mask;
}

void QSovaAudioSelection::setDuration(double duration)
{
    // No check: a negative duration leaves an inverted range that isValid() reports.
    d->selection.end = d->selection.begin + duration;
}

void QSovaAudioSelection::setBegin(double begin)
{
    // The end is dragged along rather than swapped: a user dragging the left edge past the
    // right one collapses the range instead of flipping it.
    _audio_selection& s = d->selection;
    s.begin = begin;
    if (!(s.end > s.begin))
        s.end = s.begin;
}

void QSovaAudioSelection::setEnd(double end)
{
    _audio_selection& s = d->selection;
    s.end = end;
    if (s.begin > s.end)
        s.begin = s.end;
}

QDebug operator<<(QDebug debug, const QSovaAudioSelection& selection)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "QSovaAudioSelection(" << selection.begin() << ',' << selection.end()
                    << ", mask 0x" << Qt::hex << selection.disabledChannelMask() << ')';
    return debug;
}
