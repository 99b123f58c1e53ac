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
