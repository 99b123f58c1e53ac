// Private: crash-safe replacement of a local file's content, and the lock its writers share.
#ifndef SOVA_ATOMICFILE_H
#define SOVA_ATOMICFILE_H

#include <string>
#include <string_view>

#include <sys/types.h>

namespace sova {

// Writes content to a new file in path's directory, syncs it, renames it over path and syncs
// the directory: after a crash path holds the old content or the new one, never a mix. Where
// the file system allows it the new file has no name until that rename (O_TMPFILE), so a
// process killed meanwhile leaves nothing behind; elsewhere it is a hidden temporary beside
// path. A mode of 0600 or stricter is applied as it stands; otherwise the new file keeps the
// mode of the file it replaces, or gets mode less the umask when there was none.
// false, with the reason in the error slot, on failure; the new file is then gone.
bool writeFileAtomically(const std::string& path, std::string_view content, mode_t mode);

// The whole content of the local file at path; false when it cannot be read (reason in the
// error slot; a missing file gives BLERR_NOT_FOUND).
bool readWholeFile(const std::string& path, std::string& content);

// Offset of the first NUL byte or invalid UTF-8 sequence in content (*nul tells which), or
// npos when content is text.
size_t firstNonText(std::string_view content, bool* nul);

// An advisory lock (flock) that the writers of one file take around read-modify-write-rename.
// The lock is held on ".NAME.lock" beside the file, not on the file itself: the file is
// replaced by a rename, and a lock on the inode it replaced would guard nothing. The lock file
// stays (empty) once made: removing it would let a late writer lock a file that is no longer
// the one the next writer opens.
class FileLock
{
public:
    FileLock() = default;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    // Waits up to a few seconds for the lock of path; false, with "'path' is locked by another
    // writer" (or why the lock file cannot be opened) in the error slot, when it is not had.
    bool acquire(const std::string& path);

private:
    int fd_ = -1;
};

} // namespace sova

#endif
