#include "atomicfile.h"

#include <sova/blerror.h>
#include <sova/blio.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sova {

namespace {

// How long a writer waits for another one to finish, and how often it looks.
constexpr auto kLockWait = std::chrono::seconds(5);
constexpr auto kLockPoll = std::chrono::milliseconds(20);

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "<dir>/.<name>.sova-<pid>-" and six random characters: a name for a new file beside path
// that tells which process made it.
std::string hiddenNameBeside(const std::string& path)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    thread_local std::mt19937_64 random(std::random_device {}() ^ uint64_t(::getpid()) << 32);
    std::string name = directoryOf(path) + "/." + nameOf(path) + ".sova-"
        + std::to_string(::getpid()) + "-";
    for (int i = 0; i < 6; ++i)
        name += letters[random() % (sizeof letters - 1)];
    return name;
}

// Removes the hidden names beside path of writers that died between naming their file and
// renaming it over path (a complete copy each, the one thing a kill can leave): those whose
// process is gone. A live writer's name is never touched.
void removeOrphans(const std::string& path)
{
    DIR* dir = ::opendir(directoryOf(path).c_str());
    if (!dir)
        return;
    const std::string prefix = "." + nameOf(path) + ".sova-";
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0)
            continue;
        const char* rest = entry->d_name + prefix.size();
        char* end = nullptr;
        const long pid = std::strtol(rest, &end, 10);
        if (end == rest || pid <= 0 || *end != '-' || std::strlen(end + 1) != 6)
            continue;
        if (::kill(pid_t(pid), 0) == 0 || errno != ESRCH)
            continue;
        ::unlinkat(::dirfd(dir), entry->d_name, 0);
    }
    ::closedir(dir);
}

} // namespace

bool writeFileAtomically(const std::string& path, std::string_view content, mode_t mode)
{
    // The unnamed file first; any refusal of it (an old kernel, a file system without it, no
    // /proc to name it through) falls back to a named temporary, which reports real failures.
    std::string named;
    int fd = ::open(directoryOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
        char proc[64];
        std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
        if (::access(proc, F_OK) != 0 && ::geteuid() != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    if (fd < 0) {
        std::string pattern = path + ".XXXXXX";
        std::vector<char> temp(pattern.begin(), pattern.end());
        temp.push_back('\0');
        fd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (fd < 0) {
            BLERROR_Set(BLERR_WRITE_FAILED, "cannot create a temporary file beside '%s': %s",
                        path.c_str(), std::strerror(errno));
            return false;
        }
        named = temp.data();
    }
    // The new file starts at 0600. A private file stays so; otherwise the replacement keeps
    // the mode of the file it replaces, or gets what a plain create would give.
    if ((mode & 077) != 0) {
        struct stat existing;
        if (::stat(path.c_str(), &existing) == 0) {
            ::fchmod(fd, existing.st_mode & 07777);
        } else {
            const mode_t mask = ::umask(0);
            ::umask(mask);
            ::fchmod(fd, mode & ~mask);
        }
    }
    bool done = writeAll(fd, content.data(), content.size()) && ::fsync(fd) == 0;
    if (done)
        done = named.empty() ? BLIO_NameUnnamedFile(fd, path.c_str()) == 1 : ::rename(named.c_str(), path.c_str()) == 0;
    const int err = errno;
    ::close(fd);
    if (!done) {
        if (!named.empty())
            ::unlink(named.c_str());
        BLERROR_Set(BLERR_WRITE_FAILED, "cannot write '%s': %s", path.c_str(), std::strerror(err));
        return false;
    }
    // The rename itself must reach the disk before the caller counts on it.
    const int dir = ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

bool readWholeFile(const std::string& path, std::string& content)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        BLERROR_Set(errno == ENOENT ? BLERR_NOT_FOUND : BLERR_OPEN_FAILED, "cannot open '%s': %s",
                    path.c_str(), std::strerror(errno));
        return false;
    }
    content.clear();
    char block[65536];
    for (;;) {
        const ssize_t n = ::read(fd, block, sizeof block);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            BLERROR_Set(BLERR_READ_FAILED, "cannot read '%s': %s", path.c_str(),
                        std::strerror(errno));
            ::close(fd);
            return false;
        }
        if (n == 0)
            break;
        content.append(block, static_cast<size_t>(n));
    }
    ::close(fd);
    return true;
}

size_t firstNonText(std::string_view s, bool* nul)
{
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const size_t n = s.size();
    size_t i = 0;
    *nul = false;
    while (i < n) {
        // Plain ASCII eight bytes at a time; NUL bytes fall through to the careful path.
        while (i + 8 <= n) {
            uint64_t word;
            std::memcpy(&word, p + i, 8);
            const uint64_t high = word & 0x8080808080808080ull;
            const uint64_t zero = (word - 0x0101010101010101ull) & ~word & 0x8080808080808080ull;
            if (high | zero)
                break;
            i += 8;
        }
        if (i >= n)
            break;
        const unsigned char c = p[i];
        if (c == 0) {
            *nul = true;
            return i;
        }
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t length;
        uint32_t min;
        uint32_t code;
        if ((c & 0xE0) == 0xC0) {
            length = 2, min = 0x80, code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3, min = 0x800, code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4, min = 0x10000, code = c & 0x07;
        } else {
            return i;
        }
        if (i + length > n)
            return i;
        for (size_t k = 1; k < length; ++k) {
            if ((p[i + k] & 0xC0) != 0x80)
                return i;
            code = (code << 6) | (p[i + k] & 0x3F);
        }
        if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return i;
        i += length;
    }
    return std::string_view::npos;
}

FileLock::~FileLock()
{
    if (fd_ >= 0)
        ::close(fd_); // closing the last descriptor releases the lock
}

bool FileLock::acquire(const std::string& path)
{
    const std::string lockPath = directoryOf(path) + "/." + nameOf(path) + ".lock";
    fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd_ < 0 && (errno == EACCES || errno == EROFS))
        fd_ = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); // flock needs no more
    if (fd_ < 0) {
        BLERROR_Set(BLERR_WRITE_FAILED, "cannot write '%s': %s (its lock file '%s')",
                    path.c_str(), std::strerror(errno), lockPath.c_str());
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + kLockWait;
    for (;;) {
        if (::flock(fd_, LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno == EINTR)
            continue;
        if (errno != EWOULDBLOCK) {
            // A file system without locks: writing unlocked, as every writer there must.
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(kLockPoll);
    }
    ::close(fd_);
    fd_ = -1;
    BLERROR_Set(BLERR_WRITE_FAILED, "'%s' is locked by another writer (waited %d s)",
                path.c_str(), int(std::chrono::seconds(kLockWait).count()));
    return false;
}

} // namespace sova

extern "C" int32_t BLIO_NameUnnamedFile(int32_t fd, const char* path)
{
    if (fd < 0 || !path || !*path) {
        errno = EINVAL;
        return 0;
    }
    const std::string target(path);
    char proc[64];
    std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", int(fd));
    const auto link = [&](const std::string& name) {
        if (::linkat(AT_FDCWD, proc, AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return true;
        // Without /proc; AT_EMPTY_PATH needs a privilege most callers lack.
        return errno == ENOENT && ::linkat(fd, "", AT_FDCWD, name.c_str(), AT_EMPTY_PATH) == 0;
    };
    if (link(target))
        return 1;
    if (errno != EEXIST)
        return 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string hidden = sova::hiddenNameBeside(target);
        if (!link(hidden)) {
            if (errno == EEXIST)
                continue;
            return 0;
        }
        if (::rename(hidden.c_str(), target.c_str()) != 0) {
            const int err = errno;
            ::unlink(hidden.c_str());
            errno = err;
            return 0;
        }
        sova::removeOrphans(target);
        return 1;
    }
    errno = EEXIST;
    return 0;
}
