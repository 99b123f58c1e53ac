#include <QSovaTracer>

#include <QtTest>

#include <mutex>
#include <thread>
#include <unistd.h>

using QSova::Tracer;

namespace {

const QString stamp = QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d: ");
// A std::mutex, not a QMutex: Qt 5's QMutex waits on a bare futex, which ThreadSanitizer does
// not see, so it would report the handler's appends from several threads as a race.
std::mutex messagesMutex;
QStringList messages;

QString readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

QStringList readLines(const QString& path)
{
    return readText(path).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// The text after the time stamp, which must be well-formed and close to the local time.
QString payload(const QString& line)
{
    const QDateTime time
        = QDateTime::fromString(line.left(19), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    if (!QRegularExpression(stamp).match(line).hasMatch()
        || qAbs(time.secsTo(QDateTime::currentDateTime())) > 60)
        return QStringLiteral("<bad: %1>").arg(line);
    return line.mid(21);
}

// While it exists, the debug messages of every thread go to messages and file descriptor 2
// into a temporary file; finish() puts both back and returns the lines standard error got.
struct Capture
{
    QTemporaryFile file;
    int saved = file.open() ? ::dup(STDERR_FILENO) : -1;
    QtMessageHandler previous
        = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
              std::lock_guard<std::mutex> locker(messagesMutex);
              messages << text;
          });
    Capture() { ::dup2(file.handle(), STDERR_FILENO); }
    QStringList finish()
    {
        qInstallMessageHandler(previous);
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
        return readLines(file.fileName());
    }
};

} // namespace

class TestTracer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(!Tracer::isActive()); } // off until switched on

    void init()
    {
        QVERIFY(dir.isValid());
        path = dir.filePath(QStringLiteral("trace.txt"));
        Tracer::setActive(false);
        Tracer::setOutput(dir.filePath(QStringLiteral("missing/none"))); // unsets the output
        QFile::remove(path);
        messages.clear();
    }

    void writesLine_data()
    {
        QTest::addColumn<bool>("active");
        QTest::addColumn<bool>("output");
        QTest::addColumn<QString>("tag");
        QTest::addColumn<QString>("expected"); // the file after the time stamp; null: no file

        QTest::newRow("defaults") << false << false << "io" << QString();
        QTest::newRow("output, not active") << false << true << "io"
                                            << "";
        QTest::newRow("active, no output") << true << false << "io" << QString();
        QTest::newRow("tag") << true << true << "io"
                             << "io open 3\n";
        QTest::newRow("no tag") << true << true << QString() << "open 3\n";
        QTest::newRow("empty tag") << true << true << ""
                                   << "open 3\n";
    }

    void writesLine()
    {
        QFETCH(bool, active);
        QFETCH(bool, output);
        QFETCH(QString, tag);
        QFETCH(QString, expected);

        QCOMPARE(output && Tracer::setOutput(path), output);
        Tracer::setActive(active);
        {
            QScopedPointer<Tracer> tracer(tag.isNull() ? new Tracer : new Tracer(tag));
            *tracer << "open " << 3;
            QCOMPARE(tracer->text(), QStringLiteral("open 3"));
        }
        QCOMPARE(QFile::exists(path), !expected.isNull());
        const QString content = readText(path);
        const QString pattern
            = stamp + QRegularExpression::escape(expected) + QStringLiteral("\\z");
        QVERIFY2(expected.isEmpty() ? content.isEmpty()
                                    : QRegularExpression(pattern).match(content).hasMatch(),
            qPrintable(content));
    }

    void outputLifecycle()
    {
        Tracer::setActive(true);
        QVERIFY(!Tracer::clearOutput()); // nothing set
        QVERIFY(Tracer::setOutput(path));
        Tracer() << "old";
        QCOMPARE(readLines(path).size(), 1);
        QVERIFY(Tracer::setOutput(path)); // an existing file is emptied at once
        QCOMPARE(QFileInfo(path).size(), 0);
        Tracer() << "one";
        Tracer() << "two";
        QCOMPARE(readLines(path).size(), 2); // appended, not overwritten
        QVERIFY(QFile::remove(path));
        QVERIFY(!Tracer::clearOutput()); // the file is gone: the setting is kept ...
        Tracer() << "three";
        QCOMPARE(readLines(path).size(), 1); // ... and the next line creates the file again
        QVERIFY(Tracer::clearOutput() && !QFile::exists(path));
        QVERIFY(!Tracer::clearOutput());
        QVERIFY(Tracer::setOutput(path));
        QVERIFY(!Tracer::setOutput(dir.filePath(QStringLiteral("missing/trace.txt"))));
        Tracer() << "dropped";
        QCOMPARE(QFileInfo(path).size(), 0); // the failed call unset the earlier output
        QVERIFY(!Tracer::clearOutput());
    }

    void contentionFallsBack()
    {
        QVERIFY(Tracer::setOutput(path));
        Tracer::setActive(true);
        QSemaphore locked, release;
        std::thread holder([&] {
            Tracer::lock();
            Tracer() << "held"; // the mutex is recursive: the holder's own lines still go out
            locked.release();
            release.acquire();
            Tracer::unlock();
        });
        locked.acquire();
        Capture capture;
        QElapsedTimer timer;
        timer.start();
        std::thread([] { Tracer(QStringLiteral("tag")) << "late line"; }).join();
        const qint64 elapsed = timer.elapsed();
        const bool failed
            = !Tracer::isActive() && !Tracer::setOutput(path) && !Tracer::clearOutput();
        Tracer::setActive(false);
        const QStringList fallback = capture.finish();
        release.release();
        holder.join();

        QVERIFY2(elapsed >= 32, QByteArray::number(elapsed));
        QCOMPARE(fallback.size(), 1);
        QCOMPARE(payload(fallback.at(0)), QStringLiteral("late line")); // no tag on this path
        QVERIFY(failed);
        QStringList expected;
        for (const char* name : {"~Tracer", "isActive", "setOutput", "clearOutput", "setActive"})
            expected << QStringLiteral("QSova::Tracer::%1: Tracer fail to lock!")
                            .arg(QLatin1String(name));
        QCOMPARE(messages, expected);
        QVERIFY(Tracer::isActive()); // the failed setActive(false) changed nothing
        QCOMPARE(readLines(path).size(), 1);
        QCOMPARE(payload(readLines(path).at(0)), QStringLiteral("held"));
    }

    void manyThreadsLoseNothing()
    {
        const int threads = 8, perThread = 200;
        QVERIFY(Tracer::setOutput(path));
        Tracer::setActive(true);
        Capture capture;
        std::vector<std::thread> workers;
        for (int n = 0; n < threads; ++n)
            workers.emplace_back([n] {
                for (int m = 0; m < perThread; ++m)
                    Tracer() << "thread " << n << " line " << m;
            });
        for (std::thread& worker : workers)
            worker.join();
        const QStringList fallback = capture.finish();

        // A line that waited more than 32 ms went to standard error instead; none may be lost.
        const QStringList inFile = readLines(path);
        QCOMPARE(inFile.size() + fallback.size(), threads * perThread);
        QCOMPARE(fallback.size(), messages.size());
        const QRegularExpression expected(QStringLiteral("^thread [0-7] line \\d{1,3}$"));
        QSet<QString> seen;
        for (const QString& line : inFile + fallback) {
            const QString text = payload(line);
            QVERIFY2(expected.match(text).hasMatch() && !seen.contains(text), qPrintable(line));
            seen.insert(text);
        }
    }

private:
    QTemporaryDir dir;
    QString path;
};

QTEST_GUILESS_MAIN(TestTracer)
#include "tst_qsovatracer.moc"
