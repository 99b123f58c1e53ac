// The log: thresholds, level mapping, the sink, file output and whole lines under threads.
#include <sova/blerror.h>
#include <sova/bllog.h>

#include <QtTest>

#include <thread>

namespace {

using Captured = QList<QPair<int, QByteArray>>;

void capture(void* user, int32_t level, const char* text)
{
    static_cast<Captured*>(user)->append({level, QByteArray(text)});
}

// Logs to the default log while statics are destroyed: the default log must still be there.
struct LogsAtExit
{
    ~LogsAtExit() { BLLOG_Log(nullptr, BLLOG_FATAL, "logged during static destruction"); }
} logsAtExit;

} // namespace

class TestBlLog : public QObject
{
    Q_OBJECT

private slots:
    void environmentReadOnce()
    {
        qputenv("SOVA_LOG_LEVEL", "Info");
        QCOMPARE(BLLOG_Threshold(nullptr), BLLOG_INFO);
        qputenv("SOVA_LOG_LEVEL", "1");
        QCOMPARE(BLLOG_Threshold(nullptr), BLLOG_INFO);
    }

    void levels_data()
    {
        QTest::addColumn<int>("threshold");
        QTest::addColumn<int>("level");
        QTest::addColumn<int>("effective"); // the level as the log takes it
        QTest::addColumn<bool>("written");
        QTest::addColumn<QByteArray>("text"); // formatted once, also past a stack buffer
        const QByteArray text = "100% %d %s", longer = text + QByteArray(5000, 'z');
        QTest::newRow("severe") << BLLOG_WARNING << BLLOG_FATAL << BLLOG_FATAL << true << text;
        QTest::newRow("at threshold") << BLLOG_INFO << BLLOG_INFO << BLLOG_INFO << true << longer;
        QTest::newRow("less severe") << BLLOG_WARNING << BLLOG_INFO << BLLOG_INFO << false << text;
        QTest::newRow("0 is an error") << BLLOG_DEBUG << 0 << BLLOG_ERROR << true << longer;
        QTest::newRow("32 is an error") << BLLOG_ERROR << 32 << BLLOG_ERROR << true << text;
    }
    void levels()
    {
        QFETCH(int, threshold);
        QFETCH(int, level);
        QFETCH(int, effective);
        QFETCH(bool, written);
        QFETCH(QByteArray, text);
        BLLOG* log = BLLOG_Create("levels");
        QCOMPARE(BLLOG_Threshold(log), BLLOG_WARNING); // the environment is for the default
        Captured captured;
        BLLOG_SetSink(log, capture, &captured);
        BLLOG_SetThreshold(log, threshold);
        BLLOG_Log(log, level, "%d-%s|%.2f", 7, text.constData(), 0.5);
        QCOMPARE(captured, written ? Captured({{effective, "7-" + text + "|0.50"}}) : Captured());
        BLLOG_SetThreshold(log, level);
        QCOMPARE(BLLOG_Threshold(log), effective);
        QCOMPARE(QByteArray(BLLOG_LevelName(level)) == "unknown", effective != level);
        BLLOG_Destroy(log);
    }

    // Two logs append to one file from several threads: every line whole and stamped, the
    // earlier content kept, a failed SetFile leaving the destination as it was.
    void fileFromThreads()
    {
        QTemporaryDir dir;
        QFile file(dir.filePath("threads.log"));
        QVERIFY(file.open(QIODevice::ReadWrite) && file.write("earlier\n") == 8 && file.flush());
        BLLOG* logs[2] = {BLLOG_Create("a"), BLLOG_Create("b")};
        for (BLLOG* log : logs) {
            QVERIFY(BLLOG_SetFile(log, file.fileName().toLocal8Bit()));
            QVERIFY(!BLLOG_SetFile(log, dir.filePath("no/such/x.log").toLocal8Bit()));
            QVERIFY(QByteArray(BLERROR_LastMessage()).contains("no/such/x.log"));
        }
        const auto logLines = [&](int t) {
            for (int i = 0; i < 500; ++i)
                BLLOG_Log(logs[t % 2], BLLOG_WARNING, "t%d %0300d", t, i);
        };
        std::thread workers[] = {std::thread(logLines, 0), std::thread(logLines, 1),
            std::thread(logLines, 2), std::thread(logLines, 3)};
        for (auto& worker : workers)
            worker.join();
        for (BLLOG* log : logs)
            BLLOG_Destroy(log);
        QVERIFY(file.seek(0));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.size(), 4 * 500 + 2); // and nothing after the last newline
        QVERIFY(lines.first() == "earlier" && lines.last().isEmpty());
        const QRegularExpression line(
            "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} warning: t\\d \\d{300}$");
        for (int i = 1; i < lines.size() - 1; ++i)
            QVERIFY2(line.match(QString::fromLatin1(lines[i])).hasMatch(), lines[i]);
    }
};

QTEST_APPLESS_MAIN(TestBlLog)

#include "tst_bllog.moc"
