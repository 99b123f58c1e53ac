#include <QSovaAudioFormat>
#include <QSovaAudioSelectionList>
#include <QSovaAudioSignal>
#include <QtTest>

#include <cstdlib>
#include <memory>

using Sel = QSovaAudioSelection;
Q_DECLARE_METATYPE(QSovaAudioSelection)

class tst_QSovaAudioSelection : public QObject
{
    Q_OBJECT

private slots:
    void construction_data()
    {
        QTest::addColumn<Sel>("selection");
        QTest::addColumn<double>("begin");
        QTest::addColumn<double>("end");
        QTest::addColumn<uint>("mask");
        QTest::addColumn<QString>("track");
        QTest::addColumn<uint>("flags");
        _audio_selection linked = AUDIOSELECTION_Define(1.5, 2.5, 6);
        linked.next = &linked;
        QTest::newRow("default") << Sel() << 0.0 << 0.0 << 0u << QString() << 0u;
        QTest::newRow("null record") << Sel(static_cast<const _audio_selection*>(nullptr)) << 0.0
                                     << 0.0 << 0u << QString() << 0u;
        QTest::newRow("defined") << Sel(2.0, 5.0, 3u) << 2.0 << 5.0 << 3u << QString()
                                 << uint(AUDIOSELECTION_FLAG_DEFINED);
        QTest::newRow("track") << Sel(2.0, 5.0, QStringLiteral("trk-é"), 1u) << 2.0 << 5.0 << 1u
                               << QStringLiteral("trk-é") << uint(AUDIOSELECTION_FLAG_DEFINED);
        QTest::newRow("record with link") << Sel(linked) << 1.5 << 2.5 << 6u << QString()
                                          << uint(AUDIOSELECTION_FLAG_DEFINED);
        QTest::newRow("pointer with link") << Sel(&linked) << 1.5 << 2.5 << 6u << QString()
                                           << uint(AUDIOSELECTION_FLAG_DEFINED);
    }

    void construction()
    {
        QFETCH(Sel, selection);
        QFETCH(double, begin);
        QFETCH(double, end);
        QFETCH(uint, mask);
        QFETCH(QString, track);
        QFETCH(uint, flags);
        const _audio_selection* record = selection;
        QCOMPARE(selection.begin(), begin);
        QCOMPARE(selection.end(), end);
        QCOMPARE(selection.disabledChannelMask(), mask);
        QCOMPARE(selection.trackUniqId(), track);
        QCOMPARE(selection.trackUniqId().isNull(), track.isNull());
        QCOMPARE(record->flags, flags);
        QVERIFY(!record->next);
        QCOMPARE(record->begin, begin);
    }

    void setters_data()
    {
        QTest::addColumn<QString>("setter");
        QTest::addColumn<double>("value");
        QTest::addColumn<double>("begin");
        QTest::addColumn<double>("end");
        QTest::addColumn<bool>("valid");
        QTest::newRow("begin past end drags it") << "begin" << 10.0 << 10.0 << 10.0 << false;
        QTest::newRow("begin inside") << "begin" << 3.0 << 3.0 << 5.0 << true;
        QTest::newRow("begin onto end") << "begin" << 5.0 << 5.0 << 5.0 << false;
        QTest::newRow("begin earlier") << "begin" << -1.0 << -1.0 << 5.0 << true;
        QTest::newRow("end before begin drags it") << "end" << 1.0 << 1.0 << 1.0 << false;
        QTest::newRow("end later") << "end" << 8.0 << 2.0 << 8.0 << true;
        QTest::newRow("negative duration") << "duration" << -1.0 << 2.0 << 1.0 << false;
        QTest::newRow("duration") << "duration" << 0.5 << 2.0 << 2.5 << true;
    }

    void setters()
    {
        QFETCH(QString, setter);
        QFETCH(double, value);
        QFETCH(double, begin);
        QFETCH(double, end);
        QFETCH(bool, valid);
        const Sel original(2.0, 5.0, QStringLiteral("t1"), 4u);
        Sel copy = original;
        if (setter == QLatin1String("begin"))
            copy.setBegin(value);
        else if (setter == QLatin1String("end"))
            copy.setEnd(value);
        else
            copy.setDuration(value);
        QCOMPARE(copy.begin(), begin);
        QCOMPARE(copy.end(), end);
        QCOMPARE(copy.isValid(), valid);
        // The copy detached: the original is untouched, the pooled track is shared.
        QCOMPARE(original.begin(), 2.0);
        QCOMPARE(original.end(), 5.0);
        QVERIFY(static_cast<const _audio_selection*>(copy)
                != static_cast<const _audio_selection*>(original));
        QCOMPARE(static_cast<const _audio_selection*>(copy)->trackUniqId,
                 static_cast<const _audio_selection*>(original)->trackUniqId);
        copy.setDisabledChannelMask(9);
        QCOMPARE(copy.disabledChannelMask(), 9u);
        QCOMPARE(original.disabledChannelMask(), 4u);
    }

    void contains_data()
    {
        QTest::addColumn<double>("begin");
        QTest::addColumn<double>("end");
        QTest::addColumn<double>("t");
        QTest::addColumn<bool>("contained");
        QTest::newRow("at begin") << 2.0 << 5.0 << 2.0 << true;
        QTest::newRow("at end") << 2.0 << 5.0 << 5.0 << true;
        QTest::newRow("inside") << 2.0 << 5.0 << 3.5 << true;
        QTest::newRow("before") << 2.0 << 5.0 << 1.999 << false;
        QTest::newRow("after") << 2.0 << 5.0 << 5.001 << false;
        QTest::newRow("empty range, its point") << 3.0 << 3.0 << 3.0 << false;
        QTest::newRow("inverted, between") << 5.0 << 2.0 << 3.0 << false;
    }

    void contains()
    {
        QFETCH(double, begin);
        QFETCH(double, end);
        QFETCH(double, t);
        QFETCH(bool, contained);
        const Sel s(begin, end);
        QCOMPARE(s.contains(t), contained);
        QCOMPARE(s.duration(), end - begin);
        QCOMPARE(s.center(), begin + (end - begin) / 2);
    }

    void equality_data()
    {
        QTest::addColumn<Sel>("a");
        QTest::addColumn<Sel>("b");
        QTest::addColumn<bool>("equal");
        QTest::newRow("default and null record")
            << Sel() << Sel(static_cast<const _audio_selection*>(nullptr)) << true;
        QTest::newRow("other tracks") << Sel(1, 2, QStringLiteral("a"), 1)
                                      << Sel(1, 2, QStringLiteral("b"), 1) << true;
        QTest::newRow("engine words differ") << Sel() << Sel(0, 0) << true;
        QTest::newRow("mask") << Sel(1, 2, 1) << Sel(1, 2, 3) << false;
        QTest::newRow("end") << Sel(1, 2) << Sel(1, 2.5) << false;
    }

    void equality()
    {
        QFETCH(Sel, a);
        QFETCH(Sel, b);
        QFETCH(bool, equal);
        QCOMPARE(a == b, equal);
        QCOMPARE(a != b, !equal);
    }

    void listConversion()
    {
        const QSovaAudioSelectionList list = {Sel(0, 1), Sel(2, 3, QStringLiteral("x"), 5),
                                              Sel(4, 3)};
        std::unique_ptr<_audio_selection, decltype(&std::free)> block(list, &std::free);
        QVERIFY(block);
        _audio_selection* r = block.get();
        QCOMPARE(r[0].next, &r[1]);
        QCOMPARE(r[1].next, &r[2]);
        QVERIFY(!r[2].next);
        for (int i = 0; i < list.size(); ++i) {
            const _audio_selection* source = list.at(i);
            QCOMPARE(r[i].begin, source->begin);
            QCOMPARE(r[i].end, source->end);
            QCOMPARE(r[i].flags, source->flags);
            QCOMPARE(r[i].disabledChannelMask, source->disabledChannelMask);
            QCOMPARE(r[i].trackUniqId, source->trackUniqId);
        }
        QVERIFY(!static_cast<_audio_selection*>(QSovaAudioSelectionList()));
    }

    void validForSignal_data()
    {
        QTest::addColumn<double>("begin");
        QTest::addColumn<double>("end");
        QTest::addColumn<bool>("withSignal");
        QTest::addColumn<bool>("valid");
        // The signal lasts 1.5 s.
        QTest::newRow("inside") << 0.5 << 1.0 << true << true;
        QTest::newRow("to the end") << 0.5 << 1.5 << true << true;
        QTest::newRow("past the end") << 0.5 << 1.6 << true << false;
        QTest::newRow("empty") << 1.0 << 1.0 << true << false;
        QTest::newRow("invalid signal") << 0.5 << 1.0 << false << false;
    }

    void validForSignal()
    {
        QFETCH(double, begin);
        QFETCH(double, end);
        QFETCH(bool, withSignal);
        QFETCH(bool, valid);
        QSovaAudioSignal signal;
        if (withSignal) {
            signal = QSovaAudioSignal(QSovaAudioFormat(1000, 1, 16));
            signal.appendSamples(QVector<short>(1500, 7));
            QCOMPARE(signal.duration(), 1.5);
        }
        QCOMPARE(Sel(begin, end).isValid(signal), valid);
    }
};

QTEST_GUILESS_MAIN(tst_QSovaAudioSelection)
#include "tst_qsovaaudioselection.moc"
