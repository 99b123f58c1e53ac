// QSovaAudioFormat's channel layout accessors over the engine's "chmask" codec information.
#include <QSovaAudioFormat>

#include <QtTest>

class TestQSovaAudioLayout : public QObject
{
    Q_OBJECT

private slots:
    void setChannelMask_data()
    {
        QTest::addColumn<int>("channels");
        QTest::addColumn<uint>("mask");
        QTest::addColumn<bool>("taken");
        QTest::addColumn<QString>("name");
        QTest::newRow("side 5.1") << 6 << 0x60fu << true << "5.1(side)";
        QTest::newRow("stereo mask on 6 channels") << 6 << 0x3u << false << "5.1";
        QTest::newRow("removed") << 6 << 0u << true << "5.1";
        QTest::newRow("front pair and LFE") << 3 << 0xbu << true << "2.1";
    }

    // The mask goes into a detached copy, beside the other keys, and equality ignores it.
    void setChannelMask()
    {
        QFETCH(int, channels);
        QFETCH(uint, mask);
        QFETCH(bool, taken);
        QFETCH(QString, name);
        QSovaAudioFormat original(48000, channels, 16, QStringLiteral("bitrate=320"));
        QSovaAudioFormat copy = original;
        QCOMPARE(copy.setChannelMask(mask), taken);
        QCOMPARE(copy.channelMask(), taken ? quint32(mask) : 0u);
        QCOMPARE(copy.channelLayoutName(), name);
        QCOMPARE(copy.codecBitRate(), 320);
        QCOMPARE(original.channelMask(), 0u);
        QVERIFY(copy == original);
    }
};

QTEST_GUILESS_MAIN(TestQSovaAudioLayout)
#include "tst_qsovaaudiolayout.moc"
