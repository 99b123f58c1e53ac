#pragma once

#include "qtsovacore_export.h"

#include <QString>

#include <cstdint>

extern "C" {

// Starts the library: the first call registers the "qfile" and "qiodevice" I/O handlers and
// returns 1 when both were registered, 0 when not; each further call returns the number of
// starts now outstanding (2, 3, ...). Call from one thread, before any other use.
QTSOVACORE_EXPORT int QTSOVACORE_Initialize();

// Undoes one QTSOVACORE_Initialize. Returns the starts still outstanding, or, on the call
// that balances the first start, 1 when both handlers were removed and 0 when not. Without a
// start outstanding it does nothing and returns 0.
QTSOVACORE_EXPORT int QTSOVACORE_Finalize();

// Writes 3, 11, 5 and 1 through each pointer that is not null.
QTSOVACORE_EXPORT void QtSovaCoreVersionNumber(int32_t* major, int32_t* minor, int32_t* patch,
                                               int32_t* build);

// "libsovacore version 3.11.5.1 (built in Mmm dd yyyy)", in a static buffer of the library.
QTSOVACORE_EXPORT const char* QtSovaCoreVersionString();
}

namespace QSova {

// QTSOVACORE_Initialize and QTSOVACORE_Finalize, with the same results.
QTSOVACORE_EXPORT int initialize();
QTSOVACORE_EXPORT int finalize();

// The ranges a format may take; offered to dialogs, not enforced by the library.
QTSOVACORE_EXPORT int minNumChannels();
QTSOVACORE_EXPORT int maxNumChannels();
QTSOVACORE_EXPORT int minSampleRate(); // Hz
QTSOVACORE_EXPORT int maxSampleRate(); // Hz

// Why the last failing engine call of this thread failed ("cannot read 'x.wav': ..."), for
// messages to a user; empty when nothing failed. The wrappers themselves report failure only
// through their results.
QTSOVACORE_EXPORT QString lastErrorString();

} // namespace QSova
