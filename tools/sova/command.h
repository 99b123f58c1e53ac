#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <QTextStream>

// One subcommand of the sova tool.
struct Command {
    const char* name;
    const char* summary; // one line for "sova help"
    const char* usage;   // arguments after the name, for "sova help NAME"
    const char* help;    // further lines for "sova help NAME", may be empty
    // Runs with the arguments after the name; returns the exit status.
    int (*run)(const QStringList& arguments);
};

// Exit statuses of the tool.
enum ExitStatus { ExitOk = 0, ExitFailure = 1, ExitUsage = 2 };

QTextStream& out();
QTextStream& err();

// Writes "sova: NAME: message" to standard error; returns ExitFailure.
int fail(const char* command, const QString& message);

// Writes the usage error and a pointer to "sova help NAME"; returns ExitUsage.
int usageError(const char* command, const QString& message);

// From now on fail() and usageError() show actual as shown (a temporary that stands in for
// standard input, say).
void showPathAs(const QString& actual, const QString& shown);

// Sends what out() prints to standard error: standard output carries a command's audio.
void moveOutputToStandardError();

// Prints "Usage: sova NAME USAGE", the summary and the help text.
void printCommandHelp(const Command& command);

// Parses a command's arguments with parser, whose options and positional arguments the
// command has added; adds -h/--help. Returns -1 to go on, else the exit status to return
// (after printing the help, or a usage error when the parse fails, fewer than
// minimumPositional or more than maximumPositional (when not negative) positional arguments
// are given).
int parseCommand(const Command& command, QCommandLineParser& parser, const QStringList& arguments,
                 int minimumPositional, const QString& missingMessage,
                 int maximumPositional = -1);

// Every subcommand, in the order "sova help" lists them.
const QList<const Command*>& commands();

extern const Command versionCommand;
extern const Command optionsCommand;
extern const Command settingsCommand;
extern const Command iniCommand;
extern const Command selftestCommand;
extern const Command windowsCommand;
extern const Command infoCommand;
extern const Command convertCommand;
extern const Command splitCommand;
extern const Command joinCommand;
extern const Command demoCommand;
extern const Command statsCommand;
extern const Command spectrumCommand;
extern const Command vadCommand;
extern const Command fxCommand;
extern const Command decodeCommand;
extern const Command formatsCommand;
