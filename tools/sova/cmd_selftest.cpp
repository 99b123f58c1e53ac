#include "command.h"

#include <QSovaAudioSignal>
#include <QSovaRingBuffer>

#include <new>

namespace {

int runSelftest(const QStringList& arguments)
{
    QCommandLineParser parser;
    const QCommandLineOption verboseOption(
        {QStringLiteral("v"), QStringLiteral("verbose")}, QStringLiteral("Show each step."));
    parser.addOption(verboseOption);
    const int status = parseCommand(selftestCommand, parser, arguments, 0, QString(), 0);
    if (status >= 0)
        return status;
    // The self tests report through the debug log; keep it off the screen unless asked.
    if (!parser.isSet(verboseOption))
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            if (type != QtDebugMsg && type != QtInfoMsg)
                err() << text << Qt::endl;
        });
    bool passed = false;
    try {
        passed = QSova::RingBuffer<int>::selftest(parser.isSet(verboseOption));
    } catch (const std::bad_alloc&) {
        return fail("selftest", QStringLiteral("ring buffer: cannot map its memory"));
    }
    out() << "ring buffer: " << (passed ? "PASS" : "FAIL") << Qt::endl;
    const bool slicesPassed = QSovaAudioSignal::SliceIterator::selfTest(false);
    out() << "slice iterator: " << (slicesPassed ? "PASS" : "FAIL") << Qt::endl;
    return passed && slicesPassed ? ExitOk : ExitFailure;
}

} // namespace

const Command selftestCommand = {"selftest", "Run the library's built-in self tests", "[--verbose]",
    "Prints PASS or FAIL for each self test; the exit status is 1 when one fails.", runSelftest};
