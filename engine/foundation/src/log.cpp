// The log: leveled, time-stamped lines to standard error, a file or a sink.
#include <sova/blerror.h>
#include <sova/bllog.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>

#include <fcntl.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

struct BLLOG
{
    std::mutex mutex;
    std::atomic<int32_t> threshold {BLLOG_WARNING};
    int fd = -1; // -1: standard error
    BLLOG_Sink sink = nullptr;
    void* user = nullptr;
    std::string name;
};

namespace {

bool isLevel(int32_t level)
{
    return level == BLLOG_FATAL || level == BLLOG_ERROR || level == BLLOG_WARNING
        || level == BLLOG_INFO || level == BLLOG_DEBUG;
}

// SOVA_LOG_LEVEL: a level name in any case or its number; anything else is ignored.
int32_t levelFromEnvironment()
{
    const char* value = std::getenv("SOVA_LOG_LEVEL");
    if (!value || !*value)
        return BLLOG_WARNING;
    for (int32_t level = BLLOG_FATAL; level <= BLLOG_DEBUG; level <<= 1) {
        if (strcasecmp(value, BLLOG_LevelName(level)) == 0)
            return level;
    }
    char* end = nullptr;
    const long number = std::strtol(value, &end, 10);
    if (end != value && *end == '\0' && isLevel(static_cast<int32_t>(number)))
        return static_cast<int32_t>(number);
    return BLLOG_WARNING;
}

BLLOG* defaultLog()
{
    // Never deleted: objects destroyed at exit may still log.
    static BLLOG* log = [] {
        auto* created = new BLLOG;
        created->name = "default";
        created->threshold = levelFromEnvironment();
        return created;
    }();
    return log;
}

BLLOG* resolve(BLLOG* log)
{
    return log ? log : defaultLog();
}

void writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

// "2026-11-22 01:23:45.678 warning: " in local time.
size_t formatPrefix(char* out, size_t size, int32_t level)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm parts;
    localtime_r(&now.tv_sec, &parts);
    const size_t n = std::strftime(out, size, "%Y-%m-%d %H:%M:%S", &parts);
    const int m = std::snprintf(out + n, size - n,
        ".%03d %s: ", static_cast<int>(now.tv_usec / 1000), BLLOG_LevelName(level));
    return n + static_cast<size_t>(m > 0 ? m : 0);
}

} // namespace

extern "C" {

BLLOG* BLLOG_Create(const char* name)
{
    auto* log = new (std::nothrow) BLLOG;
    if (!log) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    try {
        log->name = name ? name : "";
    } catch (const std::bad_alloc&) {
        delete log;
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    return log;
}

void BLLOG_Destroy(BLLOG* log)
{
    // The default log is never destroyed.
    if (!log || log == defaultLog())
        return;
    if (log->fd >= 0)
        ::close(log->fd);
    delete log;
}

void BLLOG_Log(BLLOG* log, int32_t level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    BLLOG_LogV(log, level, format, arguments);
    va_end(arguments);
}

void BLLOG_LogV(BLLOG* log, int32_t level, const char* format, va_list arguments)
{
    log = resolve(log);
    if (!isLevel(level))
        level = BLLOG_ERROR;
    if (level > log->threshold.load(std::memory_order_relaxed) || !format)
        return;

    // Prefix, message and newline in one buffer so that the line is a single write.
    char stack[1024];
    char* line = stack;
    char* heap = nullptr;
    const size_t prefix = formatPrefix(stack, sizeof stack, level);
    va_list copy;
    va_copy(copy, arguments);
    const int n = std::vsnprintf(stack + prefix, sizeof stack - prefix, format, copy);
    va_end(copy);
    if (n < 0)
        return;
    const size_t length = prefix + static_cast<size_t>(n);
    if (length + 2 > sizeof stack) {
        heap = static_cast<char*>(std::malloc(length + 2));
        if (!heap)
            return;
        std::memcpy(heap, stack, prefix);
        std::vsnprintf(heap + prefix, static_cast<size_t>(n) + 1, format, arguments);
        line = heap;
    }
    line[length] = '\n';
    line[length + 1] = '\0';

    {
        std::lock_guard<std::mutex> lock(log->mutex);
        if (log->sink) {
            line[length] = '\0';
            log->sink(log->user, level, line + prefix);
        } else {
            writeAll(log->fd >= 0 ? log->fd : STDERR_FILENO, line, length + 1);
        }
    }
    std::free(heap);
}

void BLLOG_SetThreshold(BLLOG* log, int32_t level)
{
    if (!isLevel(level))
        level = BLLOG_ERROR;
    resolve(log)->threshold.store(level, std::memory_order_relaxed);
}

int32_t BLLOG_Threshold(const BLLOG* log)
{
    return resolve(const_cast<BLLOG*>(log))->threshold.load(std::memory_order_relaxed);
}

int32_t BLLOG_SetFile(BLLOG* log, const char* path)
{
    log = resolve(log);
    int fd = -1;
    if (path) {
        fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) {
            BLERROR_Set(errno == ENOENT ? BLERR_NOT_FOUND : BLERR_OPEN_FAILED,
                "cannot open '%s': %s", path, std::strerror(errno));
            return 0;
        }
    }
    std::lock_guard<std::mutex> lock(log->mutex);
    if (log->fd >= 0)
        ::close(log->fd);
    log->fd = fd;
    return 1;
}

void BLLOG_SetSink(BLLOG* log, BLLOG_Sink sink, void* user)
{
    log = resolve(log);
    std::lock_guard<std::mutex> lock(log->mutex);
    log->sink = sink;
    log->user = user;
}

const char* BLLOG_LevelName(int32_t level)
{
    switch (level) {
    case BLLOG_FATAL:
        return "fatal";
    case BLLOG_ERROR:
        return "error";
    case BLLOG_WARNING:
        return "warning";
    case BLLOG_INFO:
        return "info";
    case BLLOG_DEBUG:
        return "debug";
    default:
        return "unknown";
    }
}

} // extern "C"
