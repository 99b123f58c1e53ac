// Private: crash-safe replacement of a local file's content.
#ifndef SOVA_ATOMICFILE_H
#define SOVA_ATOMICFILE_H

#include <string>
#include <string_view>

#include <sys/types.h>

namespace sova {

// Writes content to a temporary file in path's directory, syncs it, renames it over path and
// syncs the directory: after a crash path holds the old content or the new one, never a mix.
// A mode of 0600 or stricter is applied as it stands; otherwise the new file keeps the mode of
// the file it replaces, or gets mode less the umask when there was none.
// false, with the reason in the error slot, on failure; the temporary file is then removed.
bool writeFileAtomically(const std::string& path, std::string_view content, mode_t mode);

// The whole content of the local file at path; false when it cannot be read (reason in the
// error slot; a missing file gives BLERR_NOT_FOUND).
bool readWholeFile(const std::string& path, std::string& content);

} // namespace sova

#endif
