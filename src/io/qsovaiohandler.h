#pragma once

#include "qtsovacore_export.h"

#include <sova/blio.h>

// I/O handlers that let the engines read and write through Qt.
//
// "qfile://NAME" opens the local file NAME with a QFile owned by the handle.
// "qiodevice://%p" reaches an open QIODevice of the caller, whose address follows the scheme
// as printed by "%p". The device is never opened, closed or deleted by the handler; it must
// stay open and alive until the engine has closed the file, and its owner must not use it
// meanwhile. The address is taken as it stands: pass only addresses of live devices.
extern "C" {

// The handler records, registered with the foundation I/O layer between the first
// QTSOVACORE_Initialize and the last QTSOVACORE_Finalize.
QTSOVACORE_EXPORT extern BLIO_Handler QTSOVA_QFileHandler;
QTSOVACORE_EXPORT extern BLIO_Handler QTSOVA_QIODeviceHandler;

// Registers "qfile", then "qiodevice" (not tried when the first fails). 1 when both were
// registered, else 0; nothing is undone on failure.
QTSOVACORE_EXPORT int QTSOVAIO_AddQFileHandler();

// Removes "qiodevice", then "qfile" (likewise). 1 when both were removed, else 0.
QTSOVACORE_EXPORT int QTSOVAIO_DelQFileHandler();
}
