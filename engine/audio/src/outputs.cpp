// Where written files go: in place for standard streams, devices, FIFOs and sockets; through a
// temporary file beside the file a chain of links names otherwise. Also the registry of live
// temporary files that a signal handler empties, and spool files for streams that cannot seek.
#include "backend.h"

#include <sova/blerror.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
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
