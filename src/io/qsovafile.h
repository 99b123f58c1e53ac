#pragma once

#include "qtsovacore_export.h"

#include <QIODevice>
#include <QString>

#include <memory>

#include <sova/blio.h>

// A QIODevice over a file of the foundation I/O layer: plain paths, every registered scheme
// ("qfile://", "qiodevice://%p", "hfile://..."), and open descriptors with bracketed options.
// It can also hand an _HFile that other code opened to Qt code.
//
// Failures are results only (false, -1, 0); nothing is thrown or logged.
class QTSOVACORE_EXPORT QSovaFile : public QIODevice
{
public:
    // No name and no handle: open() always fails.
    QSovaFile();
    // name: a path or descriptor handed to the I/O layer as UTF-8 at open().
    explicit QSovaFile(const QString& name);
    // The same as QSovaFile(name): meta is ignored here; give meta options to open().
    QSovaFile(const QString& name, const QString& meta);
    // Wraps a handle that is already open; the device reports it open in the mode the handle
    // was opened with (mode code 2 ReadOnly, 4 WriteOnly, 6 ReadWrite, 14 Truncate alone,
    // 22 Append alone). Another mode code leaves the device closed. owns: close() and the
    // destructor close the handle; otherwise the caller keeps it and must keep it open for as
    // long as the device is in use.
    QSovaFile(_HFile* handle, bool owns);
    // Closes an owned open handle.
    ~QSovaFile() override;

    // Opens the named file. The open descriptor comes from mode and meta: with meta empty
    // "rw" (ReadWrite), "w" (WriteOnly, also with Append), "a" (Append) or "r[buffered=1]";
    // a meta that is already a descriptor ("r[...]", "rw[...]") as it stands; other meta text
    // as the options of the mode: "rw[meta]", "w[meta]", "a[meta]", "r[meta]". Truncate, Text
    // and Unbuffered do not change the descriptor. False when already open, unnamed, or the
    // layer refuses. A device wrapping a handle it does not own reopens only in its mode.
    bool open(OpenMode mode, const QString& meta);
    bool open(OpenMode mode) override;
    // Closes an owned handle, or only marks a borrowed one closed. When the layer reports a
    // failed close the handle is gone but the device still reports itself open.
    void close() override;

    // Size from the layer, pending writes included; 0 without a handle.
    qint64 size() const override;
    // Moves to pos bytes from the start; false without an open handle or when the layer fails.
    bool seek(qint64 pos) override;
    // True for handles the layer cannot seek.
    bool isSequential() const override;

    // "hfile://0x..." naming the open handle, which the layer and the audio engine open as a
    // view of this file while it stays open; empty without a handle.
    QString metaFilename() const;
    // The handle (borrowed; null until opened).
    _HFile* internalFilePointer() const;
    operator _HFile*() const;

    // Creates path (descriptor "w") and copies length bytes from offset into it; a negative
    // length copies up to the end. Bytes copied, or -1 without a handle, when path cannot be
    // created, on a copy error, or when length is 0 (path is then left created and empty).
    qint64 copyTo(const QString& path, qint64 offset, qint64 length);

protected:
    // 0 for a zero size even when closed; -1 when not open; else the layer's count.
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 maxSize) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
