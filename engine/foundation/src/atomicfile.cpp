#include "atomicfile.h"

#include <sova/blerror.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sova {

namespace {

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

} // namespace

bool writeFileAtomically(const std::string& path, std::string_view content, mode_t mode)
{
    std::string pattern = path + ".XXXXXX";
    std::vector<char> temp(pattern.begin(), pattern.end());
    temp.push_back('\0');
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        BLERROR_Set(BLERR_WRITE_FAILED, "cannot create a temporary file beside '%s': %s",
                    path.c_str(), std::strerror(errno));
        return false;
    }
    // mkstemp makes 0600. A private file stays so; otherwise the replacement keeps the mode
    // of the file it replaces, or gets what a plain create would give.
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
    const bool written = writeAll(fd, content.data(), content.size()) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!written || ::rename(temp.data(), path.c_str()) != 0) {
        const int err = written ? errno : savedErrno;
        ::unlink(temp.data());
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

} // namespace sova
