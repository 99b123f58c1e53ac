#pragma once

#include <QString>
#include <QStringList>

// Refuses paths a user cannot mean: a memory address (see refuseMemoryAddresses) or an empty
// name. Returns ExitUsage then, -1 when every path is acceptable.
int checkPaths(const char* command, const QStringList& paths);

// Writes "\r<label> [#####.....]  42%" to standard error when it is a terminal; done = true
// finishes the line. Nothing is written when standard error is not a terminal.
void showProgress(const QString& label, double fraction, bool done = false);

// The engine's reason for the last failure, naming path: "cannot <verb> 'path': reason".
QString engineFailure(const QString& verb, const QString& path);

// Refuses (ExitUsage, naming both) an output that is the same file as an input or another
// output: by device and inode when it exists (hard and symbolic links, "./" and "file://"
// forms alike), else by its resolved name. Returns -1 when all are distinct. Nothing is
// written before the check.
int refuseSameFiles(const char* command, const QStringList& inputs, const QStringList& outputs);

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
