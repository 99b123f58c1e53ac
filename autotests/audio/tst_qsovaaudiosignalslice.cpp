#include <QSovaAudioFormat>
#include <QSovaAudioSelectionList>
#include <QSovaAudioSignal>
#include <QtTest>

namespace {

using Signal = QSovaAudioSignal;
using Slice = QSovaAudioSignal::Slice;
using Iterator = QSovaAudioSignal::SliceIterator;
using Intervals = QSovaAudioSignal::IntervalList;

const Intervals kStream = {{100, 100}, {400, 100}, {600, 50}};

// Stereo 16-bit at 1000 Hz: left i, right -i.
Signal stereoRamp(int frames)
{
    Signal signal(QSovaAudioFormat(1000, 2, 16));
    QVector<short> data;
    for (int i = 0; i < frames; ++i)
        data << short(i) << short(-i);
    signal.appendSamples(data.data(), frames);
    return signal;
}

} // namespace

class tst_QSovaAudioSignalSlice : public QObject
{
    Q_OBJECT

private slots:
    void walk_data()
    {
        QTest::addColumn<Intervals>("intervals");
        QTest::addColumn<QVector<qint64>>("args"); // size, step, start, tail
        QTest::addColumn<int>("steps");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("atEnd");
        const QVector<qint64> a = {100, 50, -50, 50};
        QTest::newRow("-50 leading zeros") << kStream << a << 0 << "Slice: 50, [100,50], 0" << false;
        QTest::newRow("0") << kStream << a << 1 << "Slice: 0, [100,100], 0" << false;
        QTest::newRow("50 across") << kStream << a << 2 << "Slice: 0, [150,50], [400,50], 0" << false;
        QTest::newRow("100") << kStream << a << 3 << "Slice: 0, [400,100], 0" << false;
        QTest::newRow("150") << kStream << a << 4 << "Slice: 0, [450,50], [600,50], 0" << false;
        QTest::newRow("200 runs out") << kStream << a << 5 << "Slice: 0, [600,50], 50" << false;
        QTest::newRow("250 end") << kStream << a << 6 << "Slice: 0, [0,0], 0" << true;
        QTest::newRow("300 past end") << kStream << a << 7 << "Slice: 0, [0,0], 0" << true;
        QTest::newRow("before start") << kStream << a << -1 << "Slice: 0, [0,0], 0" << false;
        QTest::newRow("empty interval kept")
            << Intervals{{0, 10}, {50, 0}, {100, 10}} << QVector<qint64>{20, 20, 0, 0} << 0
            << "Slice: 0, [0,10], [50,0], [100,10], 0" << false;
        QTest::newRow("inverted interval kept")
            << Intervals{{0, 30}, {500, -50}, {100, 200}} << QVector<qint64>{100, 100, 0, 0} << 0
            << "Slice: 0, [0,30], [500,-50], [100,120], 0" << false;
        QTest::newRow("all zeros") << kStream << QVector<qint64>{100, 50, -300, 0} << 0
                                   << "Slice: 100, 0" << false;
        QTest::newRow("one block, boundary start")
            << kStream << QVector<qint64>{50, 250, 100, 0} << 0 << "Slice: 0, [400,50], 0" << false;
    }

    void walk()
    {
        QFETCH(Intervals, intervals);
        QFETCH(QVector<qint64>, args);
        QFETCH(int, steps);
        QFETCH(QString, text);
        QFETCH(bool, atEnd);
        const Signal none;
        const Iterator begin = Iterator::begin(none, intervals, 0, args[0], args[1], args[2], args[3]);
        const Iterator end = Iterator::end(none, intervals, 0, args[0], args[1], args[2], args[3]);
        const Iterator it = begin + steps;
        QCOMPARE(QString(*it), text);
        QCOMPARE(it == end, atEnd);
        QCOMPARE(it - begin, qint64(steps));
        QCOMPARE((begin + (steps + 2) - 2) == it, true);
    }

    void iteratorArithmetic()
    {
        const Signal none;
        const Iterator begin = Iterator::begin(none, kStream, 0, 100, 50, -50, 50);
        const Iterator end = Iterator::end(none, kStream, 0, 100, 50, -50, 50);
        QCOMPARE(begin - end, qint64(-6));
        Iterator it = begin;
        const Iterator previous = it++;
        QVERIFY(previous == begin);
        QVERIFY(it == begin + 1);
        QVERIFY(it-- == begin + 1);
        QVERIFY(it == begin);
        it += 9;
        QVERIFY(it == end);
        it -= 6; // back from past the end
        QCOMPARE(QString(*it), QStringLiteral("Slice: 0, [400,100], 0"));
        QCOMPARE(QString(*previous), QStringLiteral("Slice: 50, [100,50], 0"));
        // Intervals and channel take no part; limit, size, step and start do.
        QVERIFY(begin == Iterator::begin(none, {{0, 250}}, 3, 100, 50, -50, 50));
        QVERIFY(begin != Iterator::begin(none, kStream, 0, 100, 50, -50, 49));
        QVERIFY(begin != Iterator::begin(none, kStream, 0, 100, 25, -50, 50));
        QVERIFY(begin != Iterator::begin(none, kStream, 0, 90, 50, -50, 50));
        QVERIFY(begin + 1 != Iterator::begin(none, kStream, 0, 100, 50, 0, 50));
        QVERIFY(Iterator() == Iterator());
        QVERIFY(Iterator::selfTest(false));
    }

    void sliceConstruction_data()
    {
        QTest::addColumn<QVector<qint64>>("args"); // begin, length, channel[, lower, upper]
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("channel");
        QTest::addColumn<qint64>("beginSample");
        QTest::addColumn<qint64>("endSample");
        QTest::newRow("before start") << QVector<qint64>{-10, 100, 0} << "Slice: 10, [-10,90], 0"
                                      << 0 << qint64(-20) << qint64(80);
        QTest::newRow("past end") << QVector<qint64>{950, 100, 0} << "Slice: 0, [950,50], 50"
                                  << 0 << qint64(950) << qint64(1100);
        QTest::newRow("both bounds") << QVector<qint64>{200, 100, 5, 250, 280}
                                     << "Slice: 50, [200,30], 20" << 1 << qint64(150) << qint64(270);
        QTest::newRow("negative lower bound") << QVector<qint64>{-5, 10, -3, -100, 1000}
                                              << "Slice: 5, [-5,5], 0" << 0 << qint64(-10)
                                              << qint64(0);
        QTest::newRow("upper past signal") << QVector<qint64>{990, 20, 1, 0, 5000}
                                           << "Slice: 0, [990,10], 10" << 1 << qint64(990)
                                           << qint64(1020);
        QTest::newRow("wholly outside") << QVector<qint64>{2000, 10, 0}
                                        << "Slice: 0, [2000,0], 10" << 0 << qint64(2000)
                                        << qint64(2020);
    }

    void sliceConstruction()
    {
        QFETCH(QVector<qint64>, args);
        QFETCH(QString, text);
        QFETCH(int, channel);
        QFETCH(qint64, beginSample);
        QFETCH(qint64, endSample);
        const Signal signal = stereoRamp(1000);
        QCOMPARE(signal.numSamples(), qint64(1000));
        const Slice slice = args.size() == 3
            ? Slice(signal, args[0], args[1], int(args[2]))
            : Slice(signal, args[0], args[1], int(args[2]), args[3], args[4]);
        QCOMPARE(QString(slice), text);
        QCOMPARE(slice.channel(), channel);
        QCOMPARE(slice.size(), args[1]);
        QCOMPARE(slice.beginSample(), beginSample);
        QCOMPARE(slice.endSample(), endSample);
        QVERIFY(slice.isValid());
        QVERIFY(slice.signal() == signal);
    }

    void sliceBasics()
    {
        const Slice none;
        QCOMPARE(QString(none), QStringLiteral("Slice: 0, [0,0], 0"));
        QCOMPARE(none.size(), qint64(0));
        QCOMPARE(none.beginSample(), qint64(0));
        QVERIFY(!none.isValid());
        QVERIFY(QVector<float>(none).isEmpty());
        const Slice pads(Signal(), Intervals(), 7, 4, 5);
        QCOMPARE(QString(pads), QStringLiteral("Slice: 4, 5"));
        QCOMPARE(pads.channel(), 7);
        QCOMPARE(pads.size(), qint64(9));
        QCOMPARE(pads.beginSample(), qint64(-1));
        QCOMPARE(pads.endSample(), qint64(-1));
        QCOMPARE(QVector<short>(pads), QVector<short>(9, 0));
        // Equal when signal and first sample agree, whatever the channel or length.
        const Signal signal = stereoRamp(100);
        QVERIFY(Slice(signal, 10, 20, 0) == Slice(signal, 10, 50, 1));
        QVERIFY(Slice(signal, 10, 20, 0) != Slice(signal, 11, 20, 0));
        QVERIFY(Slice(signal, 10, 20, 0) != Slice(signal.duplicate(), 10, 20, 0));
        QString debugText;
        QDebug(&debugText) << none << 5;
        QCOMPARE(debugText, QStringLiteral("Slice: 0, [0,0], 05"));
    }

    void sliceSamples()
    {
        const Signal signal = stereoRamp(1000);
        // The piece starts at begin itself: the ten padded samples are followed by the ten
        // read from before the start, then the signal from frame 0.
        const QVector<short> head = Slice(signal, -10, 100, 0);
        QCOMPARE(head.size(), 100);
        QCOMPARE(head.mid(0, 20), QVector<short>(20, 0));
        QCOMPARE(head.at(20), short(0));
        QCOMPARE(head.at(99), short(79));
        const QVector<short> tail = Slice(signal, 995, 10, 1);
        QCOMPARE(tail, (QVector<short>{-995, -996, -997, -998, -999, 0, 0, 0, 0, 0}));
    }

    void selectionsAgainstChannelReads_data()
    {
        QTest::addColumn<int>("channel");
        QTest::addColumn<QVector<qint64>>("args"); // size, step, start, tail
        QTest::newRow("overlapping, leading zeros") << 1 << QVector<qint64>{64, 48, -20, 30};
        QTest::newRow("gaps between blocks") << 0 << QVector<qint64>{16, 40, 0, 0};
        QTest::newRow("one block") << 0 << QVector<qint64>{200, 500, 0, 100};
    }

    void selectionsAgainstChannelReads()
    {
        QFETCH(int, channel);
        QFETCH(QVector<qint64>, args);
        const Signal signal = stereoRamp(1000);
        // The last one reaches past the signal and is cut at its end; the empty one stays.
        const QSovaAudioSelectionList selections = {QSovaAudioSelection(0.1, 0.2),
                                                    QSovaAudioSelection(0.5, 0.55),
                                                    QSovaAudioSelection(0.3, 0.3),
                                                    QSovaAudioSelection(0.9, 1.2)};
        QVector<short> stream;
        for (const QSovaAudioSelection& s : selections) {
            const qint64 first = qint64(s.begin() * 1000);
            const qint64 length = qint64(qMin(s.end(), 1.0) * 1000) - first;
            stream += signal.channelSamples16(channel, first, length);
        }
        QCOMPARE(stream.size(), 250);
        const auto range = signal.selectionsIterator(selections, channel, args[0], args[1],
                                                     args[2], args[3]);
        qint64 blocks = 0;
        for (Iterator it = range.first; it != range.second; ++it, ++blocks) {
            const qint64 position = args[2] + blocks * args[1];
            QVector<short> expected(int(args[0]), 0);
            for (int k = 0; k < expected.size(); ++k) {
                if (position + k >= 0 && position + k < stream.size())
                    expected[k] = stream.at(int(position + k));
            }
            QCOMPARE(QVector<short>(*it), expected);
            // The float form reads the same samples on the IEEE scale.
            QVector<float> floats = *it;
            for (float& v : floats)
                v *= 32768.0f;
            QCOMPARE(floats, QVector<float>(expected.begin(), expected.end()));
        }
        QCOMPARE(blocks, range.second - range.first);
        QVERIFY(blocks > 0);
        const auto none = signal.selectionsIterator(QSovaAudioSelectionList(), 0, 10, 10);
        QVERIFY(none.first == none.second);
        QVERIFY(none.first == Iterator());
        QVERIFY(!(*none.first).isValid());
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioSignalSlice)
#include "tst_qsovaaudiosignalslice.moc"
