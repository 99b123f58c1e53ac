#pragma once

#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

// Checks of what a user types, made before any file is opened: each failure is a usage
// error (exit status 2) that names the option or the path.

// The first path that names a memory address ("qiodevice://0x1", "hfile://0x2", also with a
// ":fmtconv[...]" suffix) is refused with "sova: 'PATH': memory-address paths come from
// programs, not from users"; returns ExitUsage then, else -1. Only a program that formatted
// such an address from its own object can hand it to the library safely.
int refuseMemoryAddresses(const QStringList& paths);

// Prints "sova: --NAME VALUE: why" and a pointer to the command's help; returns ExitUsage.
int optionError(const char* command, const QCommandLineOption& option, const QString& value,
    const QString& why);

// Reads option's value in full as a 64-bit integer within [low, high] into *value (left alone
// when the option is not given); returns -1, else prints "sova: --NAME VALUE: out of range
// (LOW–HIGH)" (or "not a whole number") with a pointer to the command's help and returns
// ExitUsage. Nothing is narrowed before the check.
int integerOption(const char* command, const QCommandLineParser& parser,
    const QCommandLineOption& option, qint64 low, qint64 high, qint64* value);

// The resolutions in bits the engine knows (AUDIO_IsValidFormat), ascending.
QList<int> engineResolutions();

// "3, 4, 5, ... or 64".
QString resolutionList();

// Like integerOption for a resolution in bits: one of engineResolutions().
int resolutionOption(const char* command, const QCommandLineParser& parser,
    const QCommandLineOption& option, qint64* value);

// Checks the format string of each option given (the language of AUDIO_CheckFormatString);
// returns -1, else a usage error naming the option and the reason.
int checkFormatOptions(const char* command, const QCommandLineParser& parser,
    const QList<QCommandLineOption>& options);

// Checks the ":fmtconv[...]" suffix of each input that has one; -1, else a usage error.
int checkFmtConvSuffixes(const char* command, const QStringList& inputs);
