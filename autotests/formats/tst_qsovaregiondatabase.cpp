// The region file formats offered to file dialogs, and the tag behind a chosen filter text:
// exact matches only, and every offered filter leads to a format the engine writes and reads.
#include "qsovaregiondatabase.h"

#include <sova/audio.h>

#include <QtTest>

#include <cstring>

class TestQSovaRegionDatabase : public QObject
{
    Q_OBJECT

private slots:
    void formatFilters()
    {
        const QStringList expected {
            QStringLiteral("Label text (*.txt)"), QStringLiteral("CUE sheet (*.cue)")};
        QCOMPARE(QSovaRegionDatabase::formatFilters(), expected);
    }

    void tagForFilter_data()
    {
        QTest::addColumn<QString>("filter");
        QTest::addColumn<QString>("tag");
        QTest::newRow("labels") << QStringLiteral("Label text (*.txt)") << QStringLiteral("labels");
        QTest::newRow("cue") << QStringLiteral("CUE sheet (*.cue)") << QStringLiteral("cue");
        QTest::newRow("other case") << QStringLiteral("cue sheet (*.cue)") << QString();
        QTest::newRow("trailing blank") << QStringLiteral("CUE sheet (*.cue) ") << QString();
        QTest::newRow("tag name instead of filter") << QStringLiteral("cue") << QString();
        QTest::newRow("empty") << QStringLiteral("") << QString();
        QTest::newRow("null") << QString() << QString();
    }

    void tagForFilter()
    {
        QFETCH(QString, filter);
        QFETCH(QString, tag);
        const QString found = QSovaRegionDatabase::tagForFilter(filter);
        QCOMPARE(found, tag);
        QCOMPARE(found.isNull(), tag.isNull());
    }

    void offeredFiltersWork_data()
    {
        QTest::addColumn<QString>("filter");
        for (const QString& filter : QSovaRegionDatabase::formatFilters())
            QTest::newRow(qPrintable(filter)) << filter;
    }

    void offeredFiltersWork()
    {
        QFETCH(QString, filter);
        const QByteArray tag = QSovaRegionDatabase::tagForFilter(filter).toUtf8();
        QVERIFY(!tag.isEmpty());
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QByteArray path = dir.filePath(QStringLiteral("marks")).toUtf8();
        _audio_region written[2] {};
        written[0].begin = 1.0;
        written[0].end = 2.0;
        std::strcpy(written[0].label, "first");
        written[1].begin = 2.0;
        written[1].end = 2.0;
        std::strcpy(written[1].label, "second");
        QCOMPARE(AUDIO_WriteRegions(path.constData(), tag.constData(), written, 2, "a.wav"), 1);
        _audio_region back[4] {};
        QCOMPARE(AUDIO_ReadRegions(path.constData(), tag.constData(), back, 4), 2);
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(back[i].begin, written[i].begin);
            QCOMPARE(back[i].end, written[i].end);
            QCOMPARE(QByteArray(back[i].label), QByteArray(written[i].label));
        }
    }
};

QTEST_GUILESS_MAIN(TestQSovaRegionDatabase)
#include "tst_qsovaregiondatabase.moc"
