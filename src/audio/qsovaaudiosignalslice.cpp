#include "qsovaaudiosignal.h"

#include "qsovaaudioselectionlist.h"

#include <QDebug>

#include <limits>

class QSovaAudioSignalSlicePrivate : public QSharedData
{
public:
    QSovaAudioSignal signal;
    int channel = 0;
    qint64 leadingPad = 0;
    qint64 trailingPad = 0;
    QSovaAudioSignal::IntervalList pieces;
    qint64 size = 0;
    qint64 beginSample = -1;
    qint64 endSample = -1;
};

namespace {

// max(low, min(value, high)): low wins when high < low.
qint64 clampTo(qint64 value, qint64 low, qint64 high)
{
    return qMax(low, qMin(value, high));
}

qint64 intervalsSize(const QSovaAudioSignal::IntervalList& intervals)
{
    qint64 sum = 0;
    for (const QSovaAudioSignal::Interval& interval : intervals)
        sum += interval.second;
    return sum;
}

} // namespace

// ---- Slice -------------------------------------------------------------------------------

QSovaAudioSignal::Slice::Slice() : Slice(QSovaAudioSignal(), 0, 0, 0) {}

QSovaAudioSignal::Slice::Slice(const QSovaAudioSignal& signal, const IntervalList& pieces,
                               int channel, qint64 leadingPad, qint64 trailingPad)
    : d(new QSovaAudioSignalSlicePrivate)
{
    d->signal = signal;
    d->channel = channel;
    d->leadingPad = leadingPad;
    d->trailingPad = trailingPad;
    d->pieces = pieces;
    d->size = leadingPad + trailingPad + intervalsSize(pieces);
    if (!pieces.isEmpty()) {
        d->beginSample = pieces.first().first - leadingPad;
        d->endSample = pieces.last().first + pieces.last().second + trailingPad;
    }
}

QSovaAudioSignal::Slice::Slice(const QSovaAudioSignal& signal, qint64 begin, qint64 length,
                               int channel, qint64 lowerBound, qint64 upperBound)
    : d(new QSovaAudioSignalSlicePrivate)
{
    const int channels = signal.numChannels();
    const qint64 lead = clampTo(qMax<qint64>(lowerBound, 0) - begin, 0, length);
    const qint64 trail = clampTo(begin + length - qMin(upperBound, signal.numSamples()), 0,
                                 length);
    d->signal = signal;
    d->channel = channels > 0 ? qBound(0, channel, channels - 1) : 0;
    d->leadingPad = lead;
    d->trailingPad = trail;
    d->size = length;
    d->beginSample = begin - lead;
    d->endSample = begin - lead + length + trail;
    // The piece starts at begin, not at begin + lead: hosts lay the block out from begin and
    // read the samples before the lower bound as the engine's zero padding, so a block at the
    // signal's start keeps its samples aligned with the signal's own positions.
    d->pieces.append(Interval(begin, qMax<qint64>(0, length - lead - trail)));
}

QSovaAudioSignal::Slice::Slice(const QSovaAudioSignal& signal, qint64 begin, qint64 length,
                               int channel)
    : Slice(signal, begin, length, channel, 0, signal.numSamples())
{
}

QSovaAudioSignal::Slice::Slice(const Slice& other) = default;
QSovaAudioSignal::Slice& QSovaAudioSignal::Slice::operator=(const Slice& other) = default;
QSovaAudioSignal::Slice::~Slice() = default;

qint64 QSovaAudioSignal::Slice::size() const
{
    return d->size;
}

int QSovaAudioSignal::Slice::channel() const
{
    return d->channel;
}

qint64 QSovaAudioSignal::Slice::beginSample() const
{
    return d->beginSample;
}

qint64 QSovaAudioSignal::Slice::endSample() const
{
    return d->endSample;
}

const QSovaAudioSignal& QSovaAudioSignal::Slice::signal() const
{
    return d->signal;
}

bool QSovaAudioSignal::Slice::isValid() const
{
    return d->signal.isValid();
}

bool QSovaAudioSignal::Slice::operator==(const Slice& other) const
{
    // Blocks are identified by where they start in a signal: analysers match the blocks of
    // two walks over one signal whatever their channel or length.
    return static_cast<_AUDIOSIGNAL*>(d->signal) == static_cast<_AUDIOSIGNAL*>(other.d->signal)
        && d->beginSample == other.d->beginSample;
}

template<typename T>
static QVector<T> sliceSamples(const QSovaAudioSignalSlicePrivate& slice)
{
    if (slice.size < 1 || slice.size > std::numeric_limits<int>::max())
        return QVector<T>();
    QVector<T> values(int(slice.size), T(0));
    T* data = values.data();
    qint64 index = slice.leadingPad;
    for (const QSovaAudioSignal::Interval& piece : slice.pieces) {
        // A piece that delivers less moves the later ones earlier; the rest stays zero.
        // Reads are kept inside the vector even for pieces a caller made inconsistent.
        const qint64 room = index >= 0 ? slice.size - index : 0;
        const qint64 count = qMin(piece.second, room);
        if (count <= 0)
            continue;
        index += slice.signal.getChannelSamples(data + index, slice.channel, piece.first, count);
    }
    return values;
}

QSovaAudioSignal::Slice::operator QVector<float>() const
{
    return sliceSamples<float>(*d);
}

QSovaAudioSignal::Slice::operator QVector<short>() const
{
    return sliceSamples<short>(*d);
}

QSovaAudioSignal::Slice::operator QString() const
{
    QString text = QStringLiteral("Slice: ") + QString::number(d->leadingPad);
    for (const Interval& piece : d->pieces)
        text += QStringLiteral(", [") + QString::number(piece.first) + QLatin1Char(',')
            + QString::number(piece.second) + QLatin1Char(']');
    return text + QStringLiteral(", ") + QString::number(d->trailingPad);
}

QDebug operator<<(QDebug debug, const QSovaAudioSignal::Slice& slice)
{
    // As a plain (unquoted) text, and the stream stays without its separating space.
    debug.nospace() << QString(slice).toUtf8().constData();
    return debug;
}

// ---- SliceIterator -----------------------------------------------------------------------

class QSovaAudioSignal::SliceIterator::Data : public QSharedData
{
public:
    // Index of the interval holding stream position x, x turned into the offset inside it. A
    // position on a boundary belongs to the next interval; past all of them, the count and
    // what remains of x.
    int indexOfPosition(qint64& x) const
    {
        int i = 0;
        for (; i < intervals.size(); ++i) {
            if (x < intervals.at(i).second)
                break;
            x -= intervals.at(i).second;
        }
        return i;
    }

    bool isEnd() const { return position > limit - sliceSize; }

    void changePosition(int steps)
    {
        position += steps * step;
        updateSlice();
    }

    void updateSlice();

    QSovaAudioSignal signal;
    IntervalList intervals;
    int channel = -1;
    qint64 sliceSize = 0;
    qint64 step = 0;
    qint64 start = 0;
    qint64 limit = -1;
    qint64 position = 0;
    Slice slice;
};

void QSovaAudioSignal::SliceIterator::Data::updateSlice()
{
    if (position < start || position > limit - sliceSize) {
        slice = Slice();
        return;
    }
    const qint64 pad = qMax<qint64>(0, -position) + clampTo(start - position, 0, sliceSize);
    if (pad >= sliceSize) {
        slice = Slice(signal, IntervalList(), channel, sliceSize, 0);
        return;
    }
    qint64 x = position + pad;
    int i = indexOfPosition(x);
    qint64 filled = pad;
    qint64 trailingPad = 0;
    IntervalList pieces;
    while (filled < sliceSize) {
        if (i == intervals.size()) {
            trailingPad = sliceSize - filled;
            break;
        }
        // A zero-length interval yields a zero-length piece: the block's text shows every
        // selection it crossed, empty ones included.
        const qint64 length = intervals.at(i).second;
        const qint64 take = qMin(length - x, sliceSize - filled);
        pieces.append(Interval(intervals.at(i).first + x, take));
        x += take;
        if (x == length) {
            x = 0;
            ++i;
        }
        filled += take;
    }
    slice = Slice(signal, pieces, channel, pad, trailingPad);
}

QSovaAudioSignal::SliceIterator::SliceIterator() : d(new Data) {}

QSovaAudioSignal::SliceIterator::SliceIterator(const QSovaAudioSignal& signal,
                                               const IntervalList& intervals, int channel,
                                               qint64 sliceSize, qint64 step, qint64 start,
                                               qint64 tailAllowance)
    : d(new Data)
{
    d->signal = signal;
    d->intervals = intervals;
    d->channel = channel;
    d->sliceSize = sliceSize;
    d->step = step;
    d->start = start;
    d->limit = intervalsSize(intervals) + tailAllowance;
    d->position = start;
    d->updateSlice();
}

QSovaAudioSignal::SliceIterator::SliceIterator(const SliceIterator& other) = default;
QSovaAudioSignal::SliceIterator&
QSovaAudioSignal::SliceIterator::operator=(const SliceIterator& other) = default;
QSovaAudioSignal::SliceIterator::~SliceIterator() = default;

QSovaAudioSignal::SliceIterator
QSovaAudioSignal::SliceIterator::begin(const QSovaAudioSignal& signal,
                                       const IntervalList& intervals, int channel,
                                       qint64 sliceSize, qint64 step, qint64 start,
                                       qint64 tailAllowance)
{
    return SliceIterator(signal, intervals, channel, sliceSize, step, start, tailAllowance);
}

QSovaAudioSignal::SliceIterator
QSovaAudioSignal::SliceIterator::end(const QSovaAudioSignal& signal,
                                     const IntervalList& intervals, int channel,
                                     qint64 sliceSize, qint64 step, qint64 start,
                                     qint64 tailAllowance)
{
    SliceIterator it(signal, intervals, channel, sliceSize, step, start, tailAllowance);
    // One step past the last block; the slice is left as built, nobody reads it at the end.
    it.d->position = it.d->limit + step - sliceSize;
    return it;
}

const QSovaAudioSignal::Slice& QSovaAudioSignal::SliceIterator::operator*() const
{
    return d->slice;
}

QSovaAudioSignal::Slice& QSovaAudioSignal::SliceIterator::operator*()
{
    return d->slice;
}

QSovaAudioSignal::Slice* QSovaAudioSignal::SliceIterator::operator->()
{
    return &d->slice;
}

QSovaAudioSignal::SliceIterator& QSovaAudioSignal::SliceIterator::operator++()
{
    d->changePosition(1);
    return *this;
}

QSovaAudioSignal::SliceIterator QSovaAudioSignal::SliceIterator::operator++(int)
{
    const SliceIterator previous = *this;
    d->changePosition(1);
    return previous;
}

QSovaAudioSignal::SliceIterator& QSovaAudioSignal::SliceIterator::operator--()
{
    d->changePosition(-1);
    return *this;
}

QSovaAudioSignal::SliceIterator QSovaAudioSignal::SliceIterator::operator--(int)
{
    const SliceIterator previous = *this;
    d->changePosition(-1);
    return previous;
}

QSovaAudioSignal::SliceIterator& QSovaAudioSignal::SliceIterator::operator+=(int steps)
{
    d->changePosition(steps);
    return *this;
}

QSovaAudioSignal::SliceIterator& QSovaAudioSignal::SliceIterator::operator-=(int steps)
{
    d->changePosition(-steps);
    return *this;
}

QSovaAudioSignal::SliceIterator QSovaAudioSignal::SliceIterator::operator+(int steps) const
{
    SliceIterator moved = *this;
    moved += steps;
    return moved;
}

QSovaAudioSignal::SliceIterator QSovaAudioSignal::SliceIterator::operator-(int steps) const
{
    SliceIterator moved = *this;
    moved -= steps;
    return moved;
}

qint64 QSovaAudioSignal::SliceIterator::operator-(const SliceIterator& other) const
{
    return (d->position - other.d->position) / d->step;
}

bool QSovaAudioSignal::SliceIterator::operator==(const SliceIterator& other) const
{
    const Data& a = *d;
    const Data& b = *other.d;
    if (static_cast<_AUDIOSIGNAL*>(a.signal) != static_cast<_AUDIOSIGNAL*>(b.signal))
        return false;
    if (a.sliceSize != b.sliceSize || a.step != b.step || a.start != b.start
        || a.limit != b.limit)
        return false;
    // Every position past the last block is the end: loops stop whatever step overshot it.
    return a.position == b.position || (a.isEnd() && b.isEnd());
}

bool QSovaAudioSignal::SliceIterator::selfTest(bool verbose)
{
    Q_UNUSED(verbose) // the checks print their blocks to the debug output either way
    // Three intervals totalling 250 samples, blocks of 100 every 50 from -50, 50 samples of
    // tail: the walk crosses both boundaries and runs out of material in its last block.
    const IntervalList intervals = {{100, 100}, {400, 100}, {600, 50}};
    const QSovaAudioSignal none;
    const char* const expected[] = {"Slice: 0, [150,50], [400,50], 0", "Slice: 0, [400,100], 0",
                                    "Slice: 0, [450,50], [600,50], 0", "Slice: 0, [600,50], 50"};
    SliceIterator it = begin(none, intervals, 0, 100, 50, -50, 50) + 4 - 2;
    bool passed = true;
    for (const char* text : expected) {
        const QString actual = *it;
        const bool match = actual == QLatin1String(text);
        qDebug().noquote() << (match ? "ok:  " : "FAIL:") << actual;
        passed = passed && match;
        ++it;
    }
    return passed;
}

// ---- Selections --------------------------------------------------------------------------

QPair<QSovaAudioSignal::SliceIterator, QSovaAudioSignal::SliceIterator>
QSovaAudioSignal::selectionsIterator(const QSovaAudioSelectionList& selections, int channel,
                                     qint64 sliceSize, qint64 step, qint64 start,
                                     qint64 tailAllowance) const
{
    if (selections.isEmpty())
        return qMakePair(SliceIterator(), SliceIterator());
    // Selections are taken as the host gave them, in order: not merged, sorted or dropped
    // when empty or inverted, so that block positions map back to the host's own list.
    IntervalList intervals;
    const double length = duration();
    for (const QSovaAudioSelection& selection : selections) {
        const qint64 first = toSamples(qMax(selection.begin(), 0.0));
        const qint64 last = toSamples(qMin(selection.end(), length));
        intervals.append(Interval(first, last - first));
    }
    return qMakePair(
        SliceIterator::begin(*this, intervals, channel, sliceSize, step, start, tailAllowance),
        SliceIterator::end(*this, intervals, channel, sliceSize, step, start, tailAllowance));
}
