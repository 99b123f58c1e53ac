// Where written files go: in place for standard streams, devices, FIFOs and sockets; through a
// temporary file beside the file a chain of links names otherwise. Also the registry of live
// temporary files that a signal handler empties, and spool files for streams that cannot seek.
#include "backend.h"

#include <sova/blerror.h>
#include <sova/blio.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Fixed storage: the signal path may neither allocate nor lock. A slot is free (0), being
// filled or emptied (1), or names a live temporary (2).
constexpr int kSlots = 64;
constexpr size_t kSlotPath = PATH_MAX;
struct Slot
{
    std::atomic<int> state {0};
    char path[kSlotPath];
};
Slot slots[kSlots];
static_assert(std::atomic<int>::is_always_lock_free, "the signal path needs lock-free atomics");

constexpr int kMaxLinks = 40; // as the kernel's own limit on a chain of symbolic links

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Unnamed temporaries (O_TMPFILE) are opened by the path "/proc/self/fd/N" of a descriptor
// held here until the file is named or dropped: every opener (the I/O layer, and through it
// libsndfile and FFmpeg) takes a path, and a reopened descriptor of such a file is the same
// file. Closing the last descriptor frees it, however the process ends.
constexpr char kProcFd[] = "/proc/self/fd/";
std::mutex unnamedLock;
std::set<int> unnamedFds;

std::string procPath(int fd)
{
    return kProcFd + std::to_string(fd);
}

// The descriptor behind an unnamed temporary's path, or -1 for a named one.
int unnamedFd(const std::string& temp)
{
    if (temp.compare(0, sizeof kProcFd - 1, kProcFd) != 0)
        return -1;
    const int fd = std::atoi(temp.c_str() + sizeof kProcFd - 1);
    std::lock_guard<std::mutex> locked(unnamedLock);
    return unnamedFds.count(fd) && procPath(fd) == temp ? fd : -1;
}

void closeUnnamed(int fd)
{
    {
        std::lock_guard<std::mutex> locked(unnamedLock);
        unnamedFds.erase(fd);
    }
    ::close(fd);
}

} // namespace

namespace sova::audio {

void registerTemporary(const std::string& path)
{
    if (path.empty() || path.size() >= kSlotPath)
        return;
    for (Slot& slot : slots) {
        int expected = 0;
        if (!slot.state.compare_exchange_strong(expected, 1, std::memory_order_acquire))
            continue;
        std::memcpy(slot.path, path.c_str(), path.size() + 1);
        slot.state.store(2, std::memory_order_release);
        return;
    }
    // Every slot is taken: this temporary is not cleaned up by a signal, which loses nothing.
}

void releaseTemporary(const std::string& path)
{
    if (path.empty())
        return;
    for (Slot& slot : slots) {
        int expected = 2;
        if (slot.state.load(std::memory_order_acquire) != 2 || std::strcmp(slot.path, path.c_str()))
            continue;
        if (slot.state.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
            slot.path[0] = '\0';
            slot.state.store(0, std::memory_order_release);
            return;
        }
    }
}

std::string makeUnnamedBeside(const std::string& target)
{
    const std::string dir = directoryOf(target);
    // The mode a plain create gives; a file it replaces lends its own at the commit.
    const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0)
        return std::string(); // not offered here (EOPNOTSUPP, EISDIR, EINVAL): a named one
    const std::string proc = procPath(fd);
    if (::access(proc.c_str(), F_OK) != 0) { // no /proc to reopen or name it through
        ::close(fd);
        return std::string();
    }
    std::lock_guard<std::mutex> locked(unnamedLock);
    unnamedFds.insert(fd);
    return proc;
}

bool commitTemporary(const std::string& temp, const std::string& target)
{
    const int unnamed = unnamedFd(temp);
    const int fd = unnamed >= 0 ? unnamed : ::open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    // The data reaches the disk before the name does: a power cut after the rename must not
    // leave the target empty.
    bool ok = fd >= 0 && ::fsync(fd) == 0;
    if (ok && unnamed >= 0) {
        struct stat existing;
        if (::stat(target.c_str(), &existing) == 0)
            ::fchmod(fd, existing.st_mode & 07777);
        ok = BLIO_NameUnnamedFile(fd, target.c_str()) == 1;
    } else if (ok) {
        ok = ::rename(temp.c_str(), target.c_str()) == 0;
    }
    const int err = errno;
    if (unnamed < 0 && fd >= 0)
        ::close(fd);
    if (!ok) {
        setError(BLERR_WRITE_FAILED, "cannot write '%s': %s", target.c_str(), std::strerror(err));
        return false;
    }
    if (unnamed >= 0)
        closeUnnamed(unnamed);
    else
        releaseTemporary(temp);
    const std::string dir = directoryOf(target);
    const int dirFd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

void discardTemporary(const std::string& temp)
{
    if (temp.empty())
        return;
    const int unnamed = unnamedFd(temp);
    if (unnamed >= 0) {
        closeUnnamed(unnamed);
        return;
    }
    const int saved = errno;
    ::unlink(temp.c_str());
    errno = saved;
    releaseTemporary(temp);
}

bool planOutput(const std::string& path, OutputPlan& plan)
{
    plan = OutputPlan();
    plan.target = path;
    if (hasScheme(path))
        return true;
    if (path == "-") {
        plan.stream = true;
        return true;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            setError(BLERR_OPEN_FAILED, "cannot write '%s': it is a directory", path.c_str());
            return false;
        }
        // Replacing a device, a FIFO or a socket by a regular file would take it away from
        // everyone else (as root even /dev/null): they are written where they are.
        if (!S_ISREG(st.st_mode)) {
            plan.stream = true;
            return true;
        }
    }
    // A link stays a link: the file at the end of the chain is replaced, or created when the
    // chain ends nowhere.
    std::string final = path;
    for (int hops = 0;; ++hops) {
        struct stat ls;
        if (::lstat(final.c_str(), &ls) != 0 || !S_ISLNK(ls.st_mode))
            break;
        std::vector<char> buffer(PATH_MAX + 1);
        const ssize_t n = ::readlink(final.c_str(), buffer.data(), PATH_MAX);
        if (hops == kMaxLinks || n <= 0) {
            setError(BLERR_OPEN_FAILED, "cannot write '%s': %s", path.c_str(),
                n <= 0 ? std::strerror(errno) : std::strerror(ELOOP));
            return false;
        }
        const std::string link(buffer.data(), size_t(n));
        final = link[0] == '/' ? link : directoryOf(final) + link;
    }
    plan.target = final;
    plan.tempPath = makeTempBeside(final);
    return !plan.tempPath.empty();
}

_HFile* openSpool(const std::string& forPath)
{
    const char* dir = std::getenv("TMPDIR");
    const std::string unnamed
        = makeUnnamedBeside(std::string(dir && *dir ? dir : "/tmp") + "/.sova-spool");
    if (!unnamed.empty()) {
        _HFile* io = BLIO_Open(unnamed.c_str(), "w");
        closeUnnamed(unnamedFd(unnamed)); // the handle keeps the file
        if (!io)
            setError(BLERROR_LastCode(), "'%s': %s", forPath.c_str(), BLERROR_LastMessage());
        return io;
    }
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/.sova-spool-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) {
        setError(BLERR_OPEN_FAILED, "'%s': cannot create a temporary file in '%s': %s",
            forPath.c_str(), dir && *dir ? dir : "/tmp", std::strerror(errno));
        return nullptr;
    }
    const std::string spool(name.data());
    registerTemporary(spool);
    _HFile* io = BLIO_Open(spool.c_str(), "w");
    ::close(fd);
    // Unlinked at once: the space goes back when the handle closes, however the process ends.
    ::unlink(spool.c_str());
    releaseTemporary(spool);
    if (!io)
        setError(BLERROR_LastCode(), "'%s': %s", forPath.c_str(), BLERROR_LastMessage());
    return io;
}

} // namespace sova::audio

extern "C" {

int32_t AUDIO_RemoveTemporaryFiles(void)
{
    const int saved = errno;
    int32_t removed = 0;
    for (Slot& slot : slots) {
        int expected = 2;
        if (!slot.state.compare_exchange_strong(expected, 1, std::memory_order_acquire))
            continue;
        if (::unlink(slot.path) == 0)
            ++removed;
        slot.state.store(0, std::memory_order_release);
    }
    errno = saved;
    return removed;
}

} // extern "C"
