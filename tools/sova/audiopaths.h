#pragma once

#include <QString>
#include <QStringList>

// Audio commands take file names from a user. The "qiodevice://" and "hfile://" schemes name
// objects in memory by address, which only a program can hand out safely: refuse them here.
// Returns an empty string when the path is acceptable, else the reason.
QString refusedPathReason(const QString& path);

// Refuses the first unacceptable path with "sova: COMMAND: reason"; returns ExitFailure then,
// -1 when every path is acceptable.
int checkPaths(const char* command, const QStringList& paths);

// Writes "\r<label> [#####.....]  42%" to standard error when it is a terminal; done = true
// finishes the line. Nothing is written when standard error is not a terminal.
void showProgress(const QString& label, double fraction, bool done = false);

// The engine's reason for the last failure, naming path: "cannot <verb> 'path': reason".
QString engineFailure(const QString& verb, const QString& path);

// Checks the paths of an audio command before any work, after checkPaths: "-" reads standard
// input (at most one input) and writes standard output (at most one output, and only when
// formatGiven, as nothing else tells its format); an output that is the same file as an input
// or another output is refused (ExitUsage); each output's directory must exist and take new
// files, and an output may not be a directory (ExitFailure). Standard input and FIFOs among
// inputs are then copied once to an unlinked temporary file that inputs is changed to name
// (messages still show the name given), so that a command may open an input more than once.
// With standard output among the outputs, what the command prints goes to standard error.
// Returns -1 to go on, else the exit status.
int prepareAudioPaths(
    const char* command, QStringList& inputs, const QStringList& outputs, bool formatGiven);
