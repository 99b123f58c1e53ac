#include <QSovaLogger>

#include <sova/bllog.h>

#include <QtTest>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using QSova::Logger;

namespace {

struct Message
{
    int32_t level;
    QByteArray text;
};

void capture(void* user, int32_t level, const char* text)
{
    static_cast<QVector<Message>*>(user)->append({level, QByteArray(text)});
}

} // namespace

class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        captured.clear();
        savedThreshold = BLLOG_Threshold(nullptr);
        BLLOG_SetThreshold(nullptr, BLLOG_DEBUG);
        BLLOG_SetSink(nullptr, capture, &captured);
    }

    void cleanup()
    {
        BLLOG_SetSink(nullptr, nullptr, nullptr);
        BLLOG_SetThreshold(nullptr, savedThreshold);
    }

    void emitsOneMessage_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("start");
        QTest::addColumn<QString>("more");
        QTest::addColumn<int>("level");
        QTest::addColumn<QByteArray>("text");

        QTest::newRow("debug") << int(Logger::Debug) << QString() << "d" << 16 << QByteArray("d");
        QTest::newRow("info") << int(Logger::Info) << QString() << "i" << 8 << QByteArray("i");
        QTest::newRow("warning") << int(Logger::Warning) << QString() << "w" << 4
                                 << QByteArray("w");
        QTest::newRow("error") << int(Logger::Error) << QString() << "e" << 2 << QByteArray("e");
        QTest::newRow("fatal") << int(Logger::Fatal) << QString() << "f" << 1 << QByteArray("f");
        QTest::newRow("start text only") << 4 << "x" << QString() << 1 << QByteArray("x");
        QTest::newRow("start text, then more") << 2 << "open "
                                               << "failed" << 4 << QByteArray("open failed");
        QTest::newRow("percent is not a format")
            << 0 << QString() << "%d%s%n" << 16 << QByteArray("%d%s%n");
        QTest::newRow("never written") << 1 << QString() << QString() << 8 << QByteArray();
        QTest::newRow("non-ASCII") << 1 << QString() << QString::fromUtf8("Grüße") << 8
                                   << QString::fromUtf8("Grüße").toLocal8Bit();
    }

    void emitsOneMessage()
    {
        QFETCH(int, type);
        QFETCH(QString, start);
        QFETCH(QString, more);
        QFETCH(int, level);
        QFETCH(QByteArray, text);

        {
            const auto logType = static_cast<Logger::Type>(type);
            QScopedPointer<Logger> logger(
                start.isNull() ? new Logger(logType) : new Logger(logType, start));
            if (!more.isNull())
                *logger << more;
            QVERIFY2(captured.isEmpty(), "nothing is logged before the logger goes away");
        }
        QCOMPARE(captured.size(), 1);
        QCOMPARE(captured.at(0).level, level);
        QCOMPARE(captured.at(0).text, text);
    }

    void streamsNumbersAndText()
    {
        {
            Logger logger(Logger::Debug);
            logger << "a" << 1;
        }
        {
            Logger(Logger::Warning) << 2.5 << ' ' << -7 << QStringLiteral(" end");
        }
        QCOMPARE(captured.size(), 2);
        QCOMPARE(captured.at(0).level, 16);
        QCOMPARE(captured.at(0).text, QByteArray("a1"));
        QCOMPARE(captured.at(1).level, 4);
        QCOMPARE(captured.at(1).text, QByteArray("2.5 -7 end"));
    }

    void belowThresholdIsDropped()
    {
        BLLOG_SetThreshold(nullptr, BLLOG_WARNING);
        Logger(Logger::Info) << "quiet";
        Logger(Logger::Error) << "loud";
        QCOMPARE(captured.size(), 1);
        QCOMPARE(captured.at(0).text, QByteArray("loud"));
    }

    // A type outside the enumeration throws from the destructor, which cannot let it pass:
    // the process ends through std::terminate with the exception's text on standard error.
    void invalidTypeTerminates()
    {
        int pipeEnds[2];
        QCOMPARE(::pipe(pipeEnds), 0);
        const pid_t child = ::fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            ::dup2(pipeEnds[1], STDERR_FILENO);
            ::close(pipeEnds[0]);
            {
                Logger logger(static_cast<Logger::Type>(7));
                logger << "lost";
            }
            ::_exit(0);
        }
        ::close(pipeEnds[1]);
        QByteArray output;
        char chunk[512];
        ssize_t got;
        while ((got = ::read(pipeEnds[0], chunk, sizeof chunk)) > 0)
            output.append(chunk, int(got));
        ::close(pipeEnds[0]);
        int status = 0;
        QCOMPARE(::waitpid(child, &status, 0), child);
        QVERIFY2(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, output.constData());
        QVERIFY2(output.contains("std::runtime_error"), output.constData());
        QVERIFY2(output.contains("Invalid logger type"), output.constData());
        QVERIFY(captured.isEmpty());
    }

private:
    QVector<Message> captured;
    int32_t savedThreshold = BLLOG_WARNING;
};

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_qsovalogger.moc"
