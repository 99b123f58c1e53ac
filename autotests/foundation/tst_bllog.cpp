// The log: thresholds, level mapping, the sink, file output and whole lines under threads.
#include <sova/blerror.h>
#include <sova/bllog.h>

#include <QtTest>

#include <mutex>
#include <thread>
#include <vector>

namespace {

struct Captured
{
    std::mutex mutex;
    QList<QPair<int, QByteArray>> messages;
};

void capture(void* user, int32_t level, const char* text)
{
    auto* captured = static_cast<Captured*>(user);
    std::lock_guard<std::mutex> lock(captured->mutex);
    captured->messages.append({level, QByteArray(text)});
}

QList<QByteArray> fileLines(const QString& path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    QList<QByteArray> lines = file.readAll().split('\n');
    lines.removeLast(); // after the last newline
    return lines;
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
        QTest::newRow("fatal passes warning")
            << BLLOG_WARNING << BLLOG_FATAL << BLLOG_FATAL << true;
        QTest::newRow("at the threshold") << BLLOG_INFO << BLLOG_INFO << BLLOG_INFO << true;
        QTest::newRow("info under warning") << BLLOG_WARNING << BLLOG_INFO << BLLOG_INFO << false;
        QTest::newRow("error under fatal") << BLLOG_FATAL << BLLOG_ERROR << BLLOG_ERROR << false;
        QTest::newRow("zero") << BLLOG_DEBUG << 0 << BLLOG_ERROR << true;
        QTest::newRow("two bits") << BLLOG_ERROR << (BLLOG_ERROR | BLLOG_INFO) << BLLOG_ERROR
                                  << true;
        QTest::newRow("above debug") << BLLOG_FATAL << 32 << BLLOG_ERROR << false;
        QTest::newRow("negative") << BLLOG_DEBUG << -1 << BLLOG_ERROR << true;
    }
    void levels()
    {
        QFETCH(int, threshold);
        QFETCH(int, level);
        QFETCH(int, effective);
        QFETCH(bool, written);
        BLLOG* log = BLLOG_Create("levels");
        QCOMPARE(BLLOG_Threshold(log), BLLOG_WARNING); // the environment is for the default
        Captured captured;
        BLLOG_SetSink(log, capture, &captured);
        BLLOG_SetThreshold(log, threshold);
        BLLOG_Log(log, level, "message");
        QCOMPARE(captured.messages.size(), int(written));
        if (written)
            QCOMPARE(captured.messages[0].first, effective);
        BLLOG_SetThreshold(log, level);
        QCOMPARE(BLLOG_Threshold(log), effective);
        QCOMPARE(QByteArray(BLLOG_LevelName(level)) == "unknown", effective != level);
        BLLOG_Destroy(log);
    }

    void formatting_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("percent signs kept") << QByteArray("100% %d %s");
        QTest::newRow("longer than a stack buffer") << QByteArray(5000, 'z');
    }
    void formatting()
    {
        QFETCH(QByteArray, text);
        BLLOG* log = BLLOG_Create("format");
        Captured captured;
        BLLOG_SetSink(log, capture, &captured);
        BLLOG_Log(log, BLLOG_WARNING, "%s", text.constData());
        BLLOG_Log(log, BLLOG_WARNING, "%d-%s|%.2f", 7, text.constData(), 0.5);
        QCOMPARE(captured.messages.size(), 2);
        QCOMPARE(captured.messages[0].second, text);
        QCOMPARE(captured.messages[1].second, "7-" + text + "|0.50");
        BLLOG_Destroy(log);
    }

    // Two logs append to one file from several threads: every line whole and stamped, the
    // earlier content kept, a failed SetFile leaving the destination as it was.
    void fileFromThreads()
    {
        QTemporaryDir dir;
        const QByteArray path = dir.filePath("threads.log").toLocal8Bit();
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("earlier\n") == 8);
        file.close();
        BLLOG* logs[2] = {BLLOG_Create("a"), BLLOG_Create("b")};
        for (BLLOG* log : logs) {
            QVERIFY(BLLOG_SetFile(log, path.constData()));
            QVERIFY(!BLLOG_SetFile(log, dir.filePath("no/such/x.log").toLocal8Bit()));
            QVERIFY(QByteArray(BLERROR_LastMessage()).contains("no/such/x.log"));
        }
        const int threads = 4, perThread = 500;
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i)
                    BLLOG_Log(logs[t % 2], BLLOG_WARNING, "t%d %0300d", t, i);
            });
        }
        for (auto& worker : workers)
            worker.join();
        for (BLLOG* log : logs)
            BLLOG_Destroy(log);

        const QList<QByteArray> lines = fileLines(path);
        QCOMPARE(lines.size(), threads * perThread + 1);
        QCOMPARE(lines[0], QByteArray("earlier"));
        const QRegularExpression line(
            "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} warning: t\\d \\d{300}$");
        for (int i = 1; i < lines.size(); ++i)
            QVERIFY2(line.match(QString::fromLatin1(lines[i])).hasMatch(), lines[i]);
    }
};

QTEST_APPLESS_MAIN(TestBlLog)

#include "tst_bllog.moc"
