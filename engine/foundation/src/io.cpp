// The I/O layer: handler registry, dispatch, buffering, open descriptors, copies and the
// "hfile://" views of open handles.
#include "io_p.h"

#include <sova/blstring.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>
#include <vector>

using sova::io::equalsNoCase;
using sova::io::schemePrefixLength;

namespace {

constexpr int64_t kDefaultBufferSize = 65536;
constexpr int64_t kMinBufferSize = 512;
constexpr int64_t kMaxBufferSize = int64_t(64) << 20;
// Bytes in front of the buffer that take push-back when the reader stands at its start.
constexpr size_t kHeadroom = 16;
constexpr int64_t kCopyBlock = int64_t(1) << 20;

} // namespace

// One open file. The read window comes first: BLIO_ReadChar's fast path reads only it.
//
// Reading (writing == false): buf[0] holds the byte at offset bufPos, [rpos, rend) is what is
// left to hand out, and the logical position is bufPos + (rpos - buf); rpos may stand in the
// headroom before buf after a push-back. Writing: buf[0, wlen) waits to go out at bufPos, and
// rpos == rend == buf so that every read takes the slow path.
struct _HFile
{
    unsigned char* rpos = nullptr;
    unsigned char* rend = nullptr;
    unsigned char* buf = nullptr;
    size_t cap = 0; // 0: unbuffered
    size_t wlen = 0;
    bool writing = false;
    bool tainted = false; // a push-back changed a buffered byte: no seeking inside the buffer
    bool seekable = false;
    int64_t bufPos = 0;
    int64_t hpos = 0; // where the handler stands, -1 when unknown
    BLIO_Handler* handler = nullptr;
    void* handle = nullptr;
    BLIOOPENMODE mode = 0;
    std::string path;
    unsigned char* mem = nullptr; // headroom and buffer of a buffered handle
    unsigned char small[kHeadroom] = {}; // headroom of an unbuffered handle
    // The first failure of the handler that lost written bytes or left them out of place (a
    // write, a seek or a flush of a handle open for writing); flush and close report it again.
    int32_t lostCode = BLERR_NONE;
    std::string lostMessage;
    // Guarded by the registry mutex.
    int views = 0;
    bool closeRequested = false;
};

namespace {

// ---- registry ---------------------------------------------------------------------------

struct Registry
{
    std::mutex mutex;
    std::vector<BLIO_Handler*> handlers; // the built-in ones first
    std::unordered_set<const _HFile*> live;
};

constexpr size_t kBuiltinHandlers = 2;
Registry& registry();

bool validScheme(const char* s)
{
    auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!alpha(s[0]))
        return false;
    for (size_t i = 1; s[i]; ++i) {
        const char c = s[i];
        if (!alpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.')
            return false;
    }
    return true;
}

// The handler of path's scheme; null (and the error recorded) for an unregistered scheme.
BLIO_Handler* handlerFor(const char* path)
{
    const size_t prefix = schemePrefixLength(path);
    if (prefix == 0)
        return &sova::io::fileHandler;
    const size_t n = prefix - 3;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        for (BLIO_Handler* h : r.handlers) {
            if (std::strlen(h->Scheme) == n && equalsNoCase(h->Scheme, path, n))
                return h;
        }
    }
    BLERROR_Set(BLERR_UNKNOWN_SCHEME, "no I/O handler for the scheme '%.*s' of '%s'",
        static_cast<int>(n), path, path);
    return nullptr;
}

// ---- errors -------------------------------------------------------------------------------

void ioError(int32_t code, const char* verb, const char* path, int err)
{
    if (err)
        BLERROR_Set(code, "cannot %s '%s': %s", verb, path, std::strerror(err));
    else
        BLERROR_Set(code, "cannot %s '%s'", verb, path);
}

// Remembers the failure just recorded when it cost f written data: a later flush or close
// must not report success for a file that lacks bytes.
void noteLoss(_HFile* f)
{
    if ((f->mode & BLIO_MODE_WRITE) && f->lostCode == BLERR_NONE) {
        f->lostCode = BLERROR_LastCode() != BLERR_NONE ? BLERROR_LastCode() : BLERR_WRITE_FAILED;
        f->lostMessage = BLERROR_LastMessage();
    }
}

// The remembered loss of f, recorded again; false when there is none.
bool reportLoss(_HFile* f)
{
    if (f->lostCode == BLERR_NONE)
        return false;
    BLERROR_Set(f->lostCode, "%s", f->lostMessage.c_str());
    return true;
}

bool nullHandle(const void* file)
{
    if (file)
        return false;
    BLERROR_Set(BLERR_INVALID_ARGUMENT, "null file handle");
    return true;
}

// Around a handler call that may record its own failure: the handler's message wins over the
// layer's generic one, and a success leaves the caller's error slot as it was.
class ErrorScope
{
public:
    ErrorScope()
        : code_(BLERROR_LastCode())
        , message_(BLERROR_LastMessage())
    {
        BLERROR_Clear();
        errno = 0;
    }
    void succeeded()
    {
        if (code_ == BLERR_NONE)
            BLERROR_Clear();
        else
            BLERROR_Set(code_, "%s", message_.c_str());
    }
    void failed(int32_t code, const char* verb, const char* path)
    {
        if (BLERROR_LastCode() == BLERR_NONE)
            ioError(code, verb, path, errno);
    }

private:
    int32_t code_;
    std::string message_;
};

// ---- buffering --------------------------------------------------------------------------

int64_t logicalPos(const _HFile* f)
{
    return f->writing ? f->bufPos + static_cast<int64_t>(f->wlen) : f->bufPos + (f->rpos - f->buf);
}

void resetRead(_HFile* f, int64_t pos)
{
    f->rpos = f->rend = f->buf;
    f->bufPos = pos;
    f->wlen = 0;
    f->writing = false;
    f->tainted = false;
}

// Brings the handler to pos. A stream cannot be moved: it stands where it stands.
bool syncHandler(_HFile* f, int64_t pos)
{
    if (f->hpos == pos)
        return true;
    if (!f->seekable) {
        f->hpos = pos;
        return true;
    }
    errno = 0;
    if (f->handler->Seek(f->handle, pos, BLIO_SEEK_SET) != 1) {
        f->hpos = -1;
        ioError(BLERR_SEEK_FAILED, "seek in", f->path.c_str(), errno);
        noteLoss(f);
        return false;
    }
    f->hpos = pos;
    return true;
}

int64_t handlerSize(_HFile* f)
{
    if (!f->handler->Size) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "cannot get the size of '%s': not offered by its handler",
            f->path.c_str());
        return -1;
    }
    errno = 0;
    const int64_t size = f->handler->Size(f->handle);
    if (size < 0)
        ioError(BLERR_IO, "get the size of", f->path.c_str(), errno);
    return size;
}

// Where an append goes: the end as the handler knows it, else where the handle stands.
int64_t appendPos(_HFile* f)
{
    const int64_t size = f->handler->Size ? f->handler->Size(f->handle) : -1;
    return size >= 0 ? size : logicalPos(f);
}

// Hands n bytes to the handler at pos (at the end in append mode). The position after them,
// or -1 with the error recorded.
int64_t putBytes(_HFile* f, int64_t pos, const unsigned char* p, int64_t n)
{
    if ((f->mode & BLIO_MODE_APPEND) && f->seekable) {
        errno = 0;
        if (f->handler->Seek(f->handle, 0, BLIO_SEEK_END) != 1) {
            f->hpos = -1;
            ioError(BLERR_SEEK_FAILED, "seek to the end of", f->path.c_str(), errno);
            noteLoss(f);
            return -1;
        }
        int64_t end = f->handler->Position ? f->handler->Position(f->handle) : -1;
        if (end < 0 && f->handler->Size)
            end = f->handler->Size(f->handle);
        pos = end >= 0 ? end : pos;
        f->hpos = pos;
    } else if (!syncHandler(f, pos)) {
        return -1;
    }
    int64_t done = 0;
    while (done < n) {
        errno = 0;
        const int64_t put = f->handler->Write(f->handle, p + done, n - done);
        if (put <= 0 || put > n - done) {
            f->hpos = -1;
            if (errno)
                ioError(BLERR_WRITE_FAILED, "write to", f->path.c_str(), errno);
            else
                BLERROR_Set(BLERR_WRITE_FAILED,
                    "cannot write to '%s': its handler took %" PRId64 " of %" PRId64 " bytes",
                    f->path.c_str(), done + std::max<int64_t>(put, 0), n);
            noteLoss(f);
            return -1;
        }
        done += put;
    }
    f->hpos = pos + n;
    return f->hpos;
}

bool flushPending(_HFile* f)
{
    if (!f->writing)
        return true;
    const int64_t start = f->bufPos;
    const int64_t n = static_cast<int64_t>(f->wlen);
    const int64_t end = putBytes(f, start, f->buf, n);
    resetRead(f, end >= 0 ? end : start + n);
    return end >= 0;
}

// One handler read into the buffer at the logical position. Bytes read, 0 at the end, -1.
int64_t fill(_HFile* f)
{
    const int64_t pos = logicalPos(f);
    if (!syncHandler(f, pos))
        return -1;
    errno = 0;
    const int64_t got = f->handler->Read(f->handle, f->buf, static_cast<int64_t>(f->cap));
    if (got < 0 || got > static_cast<int64_t>(f->cap)) {
        f->hpos = -1;
        ioError(BLERR_READ_FAILED, "read from", f->path.c_str(), errno);
        return -1;
    }
    f->rpos = f->buf;
    f->rend = f->buf + got;
    f->bufPos = pos;
    f->tainted = false;
    f->hpos = pos + got;
    return got;
}

int64_t fileSize(_HFile* f)
{
    int64_t size = handlerSize(f);
    if (size >= 0 && f->writing)
        size = std::max(size, f->bufPos + static_cast<int64_t>(f->wlen));
    return size;
}

int32_t closeNow(_HFile* f)
{
    bool ok = flushPending(f);
    if (ok && reportLoss(f))
        ok = false;
    const int64_t pos = logicalPos(f);
    // A caller's device then stands where this reader stopped, not where read-ahead left it.
    if (f->seekable && f->hpos != pos && pos >= 0)
        f->handler->Seek(f->handle, pos, BLIO_SEEK_SET);
    errno = 0;
    if (f->handler->Close(f->handle) != 1) {
        if (ok)
            ioError(BLERR_CLOSE_FAILED, "close", f->path.c_str(), errno);
        ok = false;
    }
    std::free(f->mem);
    delete f;
    return ok ? 1 : 0;
}

// ---- open descriptors ---------------------------------------------------------------------

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Index of the ']' that closes text[0] == '[', 0 when none does. Brackets inside quoted
// values do not count, as the option-string readers see them.
size_t closingBracket(const char* text)
{
    int depth = 0;
    char quote = 0;
    char previous = 0; // last non-blank character outside quotes
    for (size_t i = 0; text[i]; ++i) {
        const char c = text[i];
        if (quote) {
            if (c == '\\' && text[i + 1])
                ++i;
            else if (c == quote)
                quote = 0;
            previous = c;
            continue;
        }
        if ((c == '"' || c == '\'') && previous == '=') {
            quote = c;
            continue;
        }
        if (c == '[')
            ++depth;
        else if (c == ']' && --depth == 0)
            return i;
        if (!isBlank(c))
            previous = c;
    }
    return 0;
}

BLIOOPENMODE modeOf(const char* text, size_t n)
{
    if (n == 1 && text[0] == 'r')
        return BLIO_OPEN_READ;
    if (n == 1 && text[0] == 'w')
        return BLIO_OPEN_WRITE;
    if (n == 1 && text[0] == 'a')
        return BLIO_OPEN_APPEND;
    if (n == 2 && text[0] == 'r' && text[1] == 'w')
        return BLIO_OPEN_READWRITE;
    if (n == 2 && text[0] == 'w' && text[1] == 'o')
        return BLIO_OPEN_WRITEONLY;
    return 0;
}

bool parseDescriptor(const char* text, BLIO_OpenOptions* out)
{
    if (!text)
        return false;
    size_t n = 0;
    while (text[n] && text[n] != '[')
        ++n;
    const BLIOOPENMODE mode = modeOf(text, n);
    if (!mode)
        return false;
    int32_t buffered = 1;
    int64_t bufferSize = kDefaultBufferSize;
    if (text[n] == '[') {
        const size_t close = closingBracket(text + n);
        if (close == 0 || text[n + close + 1] != '\0')
            return false;
        const std::string options(text + n + 1, close - 1);
        const char* o = options.c_str();
        // A value present but unreadable is refused: two defaults tell it from a real value.
        if (BLSTRING_KeyExistsInString(o, "buffered")) {
            buffered = BLSTRING_GetBooleanValueFromString(o, "buffered", 0);
            if (buffered != BLSTRING_GetBooleanValueFromString(o, "buffered", 1))
                return false;
            buffered = buffered ? 1 : 0;
        }
        if (BLSTRING_KeyExistsInString(o, "bufsize")) {
            bufferSize = BLSTRING_GetInteger64ValueFromString(o, "bufsize", -1);
            if (bufferSize != BLSTRING_GetInteger64ValueFromString(o, "bufsize", -2))
                return false;
            if (bufferSize < kMinBufferSize || bufferSize > kMaxBufferSize)
                return false;
        }
    }
    if (out) {
        out->Mode = mode;
        out->Buffered = buffered;
        out->BufferSize = bufferSize;
    }
    return true;
}

// ---- "hfile://" views -----------------------------------------------------------------------

struct View
{
    _HFile* parent;
    int64_t pos;
};

// The address in "hfile://0x...", without looking at what it points to.
bool metaAddress(const char* path, uintptr_t* address)
{
    if (schemePrefixLength(path) != 8 || !equalsNoCase(path, "hfile://", 8))
        return false;
    const char* p = path + 8;
    if (p[0] != '0' || (p[1] != 'x' && p[1] != 'X') || !p[2])
        return false;
    uintptr_t value = 0;
    for (p += 2; *p; ++p) {
        int digit;
        if (*p >= '0' && *p <= '9')
            digit = *p - '0';
        else if (*p >= 'a' && *p <= 'f')
            digit = *p - 'a' + 10;
        else if (*p >= 'A' && *p <= 'F')
            digit = *p - 'A' + 10;
        else
            return false;
        if (value > (UINTPTR_MAX >> 4))
            return false;
        value = (value << 4) | static_cast<uintptr_t>(digit);
    }
    *address = value;
    return true;
}

// The open handle named by a meta descriptor, or null. Compares addresses only. Call with the
// registry mutex held.
_HFile* liveHandle(Registry& r, const char* path)
{
    uintptr_t address;
    if (!metaAddress(path, &address))
        return nullptr;
    const auto it = r.live.find(reinterpret_cast<const _HFile*>(address));
    return it == r.live.end() ? nullptr : const_cast<_HFile*>(*it);
}

void* viewOpen(void*, const char* path, BLIOOPENMODE mode)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    _HFile* parent = liveHandle(r, path);
    if (!parent) {
        BLERROR_Set(BLERR_NOT_FOUND, "cannot open '%s': no open file has that address", path);
        return nullptr;
    }
    const BLIOOPENMODE access = mode & (BLIO_MODE_READ | BLIO_MODE_WRITE);
    if ((access & parent->mode) != access) {
        BLERROR_Set(BLERR_MODE_NOT_SUPPORTED, "cannot open '%s': '%s' is not open for %s", path,
            parent->path.c_str(),
            (access & BLIO_MODE_WRITE) && !(parent->mode & BLIO_MODE_WRITE) ? "writing"
                                                                            : "reading");
        return nullptr;
    }
    auto* v = new (std::nothrow) View {parent, 0};
    if (!v) {
        BLERROR_Set(BLERR_NO_MEMORY, "cannot open '%s': out of memory", path);
        return nullptr;
    }
    ++parent->views;
    return v;
}

int32_t viewClose(void* handle)
{
    auto* v = static_cast<View*>(handle);
    _HFile* parent = v->parent;
    delete v;
    bool last;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        last = --parent->views == 0 && parent->closeRequested;
    }
    return last ? closeNow(parent) : 1;
}

// Runs op on the parent at the view's position and puts the parent back where it stood.
template <typename Op> int64_t throughParent(View* v, Op op)
{
    _HFile* p = v->parent;
    if (!p->seekable) {
        const int64_t n = op(p);
        if (n > 0)
            v->pos += n;
        return n;
    }
    const int64_t saved = logicalPos(p);
    if (BLIO_Seek(p, v->pos, BLIO_SEEK_SET) != 1)
        return -1;
    const int64_t n = op(p);
    v->pos = logicalPos(p);
    BLIO_Seek(p, saved, BLIO_SEEK_SET);
    return n;
}

int64_t viewRead(void* handle, void* buffer, int64_t count)
{
    return throughParent(
        static_cast<View*>(handle), [&](_HFile* p) { return BLIO_ReadData(p, buffer, count); });
}

int64_t viewWrite(void* handle, const void* buffer, int64_t count)
{
    return throughParent(
        static_cast<View*>(handle), [&](_HFile* p) { return BLIO_WriteData(p, buffer, count); });
}

int32_t viewSeek(void* handle, int64_t offset, int32_t origin)
{
    auto* v = static_cast<View*>(handle);
    if (!v->parent->seekable)
        return 0;
    int64_t base = 0;
    if (origin == BLIO_SEEK_CUR) {
        base = v->pos;
    } else if (origin == BLIO_SEEK_END) {
        base = BLIO_FileSize(v->parent);
        if (base < 0)
            return 0;
    }
    if (offset < 0 ? base + offset < 0 : base > INT64_MAX - offset)
        return 0;
    v->pos = base + offset;
    return 1;
}

int64_t viewSize(void* handle)
{
    return BLIO_FileSize(static_cast<View*>(handle)->parent);
}

int64_t viewPosition(void* handle)
{
    return static_cast<View*>(handle)->pos;
}

int32_t viewIsSeekable(void* handle)
{
    return static_cast<View*>(handle)->parent->seekable ? 1 : 0;
}

int32_t viewFlush(void* handle)
{
    return BLIO_Flush(static_cast<View*>(handle)->parent);
}

int32_t viewInfo(void* handle, BLIO_FileInfo* info)
{
    return BLIO_GetFileInfo(static_cast<View*>(handle)->parent, info);
}

int32_t viewExists(const char* path)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return liveHandle(r, path) ? 1 : 0;
}

int32_t viewKind(void*, const char* path)
{
    std::string parentPath;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        const _HFile* parent = liveHandle(r, path);
        if (!parent)
            return BLIO_KIND_NONE;
        parentPath = parent->path;
    }
    return BLIO_FileKind(parentPath.c_str());
}

BLIO_Handler hfileHandler = {
    "hfile",
    nullptr,
    BLIO_MODE_READ | BLIO_MODE_WRITE | BLIO_MODE_TRUNCATE | BLIO_MODE_APPEND,
    viewOpen,
    viewClose,
    viewRead,
    viewWrite,
    viewSeek,
    viewSize,
    viewPosition,
    nullptr,
    nullptr,
    viewIsSeekable,
    nullptr,
    viewFlush,
    viewInfo,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    viewExists,
    viewKind,
    nullptr,
};

Registry& registry()
{
    // Never destroyed: handles may still be closed by other static destructors at exit.
    static Registry* r = [] {
        auto* created = new Registry;
        created->handlers = {&sova::io::fileHandler, &hfileHandler};
        return created;
    }();
    return *r;
}

// ---- copies -------------------------------------------------------------------------------

// Copies up to length bytes (a negative length: to the end) from where source stands.
int64_t copyBlocks(_HFile* source, _HFile* destination, int64_t length)
{
    const int64_t blockSize = length < 0 ? kCopyBlock : std::min(length, kCopyBlock);
    std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[blockSize]);
    if (!block) {
        BLERROR_Set(BLERR_NO_MEMORY, "cannot copy '%s': out of memory", source->path.c_str());
        return -1;
    }
    int64_t total = 0;
    while (length < 0 || total < length) {
        const int64_t want = length < 0 ? blockSize : std::min(blockSize, length - total);
        const int64_t got = BLIO_ReadData(source, block.get(), want);
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        if (BLIO_WriteData(destination, block.get(), got) != got)
            return -1;
        total += got;
    }
    return total;
}

bool copyArguments(_HFile* source, _HFile* destination)
{
    if (nullHandle(source) || nullHandle(destination))
        return false;
    if (source == destination) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot copy '%s' onto itself", source->path.c_str());
        return false;
    }
    return true;
}

__attribute__((noinline)) int32_t readCharSlow(_HFile* file)
{
    unsigned char c;
    return BLIO_ReadData(file, &c, 1) == 1 ? c : -1;
}

} // namespace

extern "C" {

int32_t BLIO_AddIOHandler(BLIO_Handler* handler)
{
    if (!handler) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot add a null I/O handler");
        return 0;
    }
    if (!handler->Scheme || !handler->Open || !handler->Close) {
        BLERROR_Set(BLERR_HANDLER_INVALID,
            "cannot add an I/O handler without a scheme, an open or a close callback");
        return 0;
    }
    if (!validScheme(handler->Scheme)) {
        BLERROR_Set(BLERR_HANDLER_INVALID, "cannot add an I/O handler: '%s' is not a scheme name",
            handler->Scheme);
        return 0;
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const size_t n = std::strlen(handler->Scheme);
    for (const BLIO_Handler* h : r.handlers) {
        if (h == handler
            || (std::strlen(h->Scheme) == n && equalsNoCase(h->Scheme, handler->Scheme, n))) {
            BLERROR_Set(BLERR_HANDLER_EXISTS, "cannot add an I/O handler for '%s': '%s' is taken",
                handler->Scheme, h->Scheme);
            return 0;
        }
    }
    try {
        r.handlers.push_back(handler);
    } catch (const std::bad_alloc&) {
        BLERROR_Set(BLERR_NO_MEMORY, "cannot add an I/O handler: out of memory");
        return 0;
    }
    return 1;
}

int32_t BLIO_DelIOHandler(BLIO_Handler* handler)
{
    if (!handler) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot remove a null I/O handler");
        return 0;
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto it = std::find(r.handlers.begin(), r.handlers.end(), handler);
    if (it == r.handlers.end()) {
        BLERROR_Set(BLERR_HANDLER_NOT_FOUND, "cannot remove an I/O handler that is not registered");
        return 0;
    }
    if (it - r.handlers.begin() < static_cast<std::ptrdiff_t>(kBuiltinHandlers)) {
        BLERROR_Set(BLERR_HANDLER_NOT_FOUND, "cannot remove the built-in I/O handler '%s'",
            handler->Scheme);
        return 0;
    }
    r.handlers.erase(it);
    return 1;
}

int32_t BLIO_ParseOpenDescriptor(const char* descriptor, BLIO_OpenOptions* options)
{
    if (!parseDescriptor(descriptor, options)) {
        BLERROR_Set(BLERR_BAD_DESCRIPTOR, "malformed open descriptor '%s'",
            descriptor ? descriptor : "(null)");
        return 0;
    }
    return 1;
}

_HFile* BLIO_Open(const char* path, const char* descriptor)
{
    if (!path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot open a null path");
        return nullptr;
    }
    BLIO_OpenOptions options;
    if (!parseDescriptor(descriptor, &options)) {
        BLERROR_Set(BLERR_BAD_DESCRIPTOR, "cannot open '%s': malformed open descriptor '%s'", path,
            descriptor ? descriptor : "(null)");
        return nullptr;
    }
    BLIO_Handler* handler = handlerFor(path);
    if (!handler)
        return nullptr;
    if (static_cast<uintptr_t>(options.Mode) & ~handler->Flags) {
        BLERROR_Set(BLERR_MODE_NOT_SUPPORTED,
            "cannot open '%s': the '%s' handler does not take open mode %d", path, handler->Scheme,
            static_cast<int>(options.Mode));
        return nullptr;
    }
    ErrorScope scope;
    void* handle = handler->Open(handler->Context, path, options.Mode);
    if (!handle) {
        scope.failed(BLERR_OPEN_FAILED, "open", path);
        return nullptr;
    }
    _HFile* f = nullptr;
    try {
        f = new _HFile;
        f->path = path;
        if (options.Buffered) {
            f->cap = static_cast<size_t>(options.BufferSize);
            f->mem = static_cast<unsigned char*>(std::malloc(kHeadroom + f->cap));
            if (!f->mem)
                throw std::bad_alloc();
            f->buf = f->mem + kHeadroom;
        } else {
            f->buf = f->small + kHeadroom;
        }
        f->handler = handler;
        f->handle = handle;
        f->mode = options.Mode;
        f->seekable
            = handler->Seek && (handler->IsSeekable ? handler->IsSeekable(handle) == 1 : true);
        // A host's device may already stand past its start; the handle starts where it stands.
        int64_t start = handler->Position ? handler->Position(handle) : 0;
        if (start < 0)
            start = 0;
        f->hpos = start;
        resetRead(f, start);
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        r.live.insert(f);
    } catch (const std::bad_alloc&) {
        if (f)
            std::free(f->mem);
        delete f;
        handler->Close(handle);
        BLERROR_Set(BLERR_NO_MEMORY, "cannot open '%s': out of memory", path);
        return nullptr;
    }
    scope.succeeded();
    return f;
}

int32_t BLIO_CloseFile(_HFile* file)
{
    if (nullHandle(file))
        return 0;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        r.live.erase(file);
        if (file->views > 0) {
            // The last view closes the file; until then the views read and write through it.
            file->closeRequested = true;
            file = nullptr;
        }
    }
    return file ? closeNow(file) : 1;
}

int64_t BLIO_ReadData(_HFile* file, void* buffer, int64_t count)
{
    if (nullHandle(file))
        return -1;
    if (count < 0 || (!buffer && count > 0)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot read from '%s': bad buffer or count",
            file->path.c_str());
        return -1;
    }
    if (!(file->mode & BLIO_MODE_READ)) {
        BLERROR_Set(
            BLERR_NOT_READABLE, "cannot read from '%s': not open for reading", file->path.c_str());
        return -1;
    }
    if (!file->handler->Read) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "cannot read from '%s': not offered by its handler",
            file->path.c_str());
        return -1;
    }
    if (count == 0)
        return 0;
    if (file->writing && !flushPending(file))
        return -1;
    auto* out = static_cast<unsigned char*>(buffer);
    int64_t done = 0;
    while (done < count) {
        const int64_t avail = file->rend - file->rpos;
        if (avail > 0) {
            const int64_t n = std::min(avail, count - done);
            std::memcpy(out + done, file->rpos, static_cast<size_t>(n));
            file->rpos += n;
            done += n;
            continue;
        }
        const int64_t want = count - done;
        if (want < static_cast<int64_t>(file->cap)) {
            const int64_t got = fill(file);
            if (got < 0)
                return done > 0 ? done : -1;
            if (got == 0)
                break;
            continue;
        }
        // Larger than the buffer: straight into the caller's memory.
        const int64_t pos = logicalPos(file);
        if (!syncHandler(file, pos))
            return done > 0 ? done : -1;
        errno = 0;
        const int64_t got = file->handler->Read(file->handle, out + done, want);
        if (got < 0 || got > want) {
            file->hpos = -1;
            ioError(BLERR_READ_FAILED, "read from", file->path.c_str(), errno);
            return done > 0 ? done : -1;
        }
        if (got == 0)
            break;
        done += got;
        resetRead(file, pos + got);
        file->hpos = pos + got;
    }
    return done;
}

int64_t BLIO_WriteData(_HFile* file, const void* buffer, int64_t count)
{
    if (nullHandle(file))
        return -1;
    if (count < 0 || (!buffer && count > 0)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot write to '%s': bad buffer or count",
            file->path.c_str());
        return -1;
    }
    if (!(file->mode & BLIO_MODE_WRITE)) {
        BLERROR_Set(
            BLERR_NOT_WRITABLE, "cannot write to '%s': not open for writing", file->path.c_str());
        return -1;
    }
    if (!file->handler->Write) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "cannot write to '%s': not offered by its handler",
            file->path.c_str());
        return -1;
    }
    if (count == 0)
        return 0;
    const auto* in = static_cast<const unsigned char*>(buffer);
    if (!file->writing) {
        // Read-ahead and push-back are dropped; the handler is moved when the bytes go out.
        const int64_t pos = (file->mode & BLIO_MODE_APPEND) ? appendPos(file) : logicalPos(file);
        resetRead(file, pos);
    }
    if (static_cast<uint64_t>(count) <= file->cap - file->wlen) {
        std::memcpy(file->buf + file->wlen, in, static_cast<size_t>(count));
        file->wlen += static_cast<size_t>(count);
        file->writing = true;
        return count;
    }
    if (!flushPending(file))
        return -1;
    if (count >= static_cast<int64_t>(file->cap)) {
        const int64_t end = putBytes(file, file->bufPos, in, count);
        if (end < 0)
            return -1;
        resetRead(file, end);
        return count;
    }
    std::memcpy(file->buf, in, static_cast<size_t>(count));
    file->wlen = static_cast<size_t>(count);
    file->writing = true;
    return count;
}

int32_t BLIO_Seek(_HFile* file, int64_t offset, int32_t origin)
{
    if (nullHandle(file))
        return 0;
    if (!file->seekable) {
        BLERROR_Set(BLERR_NOT_SEEKABLE, "cannot seek in '%s': not seekable", file->path.c_str());
        return 0;
    }
    int64_t base = 0;
    if (origin == BLIO_SEEK_CUR) {
        base = logicalPos(file);
    } else if (origin == BLIO_SEEK_END) {
        base = fileSize(file);
        if (base < 0)
            return 0;
    }
    if (offset < 0 ? base + offset < 0 : base > INT64_MAX - offset) {
        BLERROR_Set(BLERR_SEEK_FAILED, "cannot seek in '%s': offset %" PRId64 " is out of range",
            file->path.c_str(), offset);
        return 0;
    }
    const int64_t target = base + offset;
    if (!file->writing && file->cap > 0 && !file->tainted && target >= file->bufPos
        && target <= file->bufPos + (file->rend - file->buf)) {
        file->rpos = file->buf + (target - file->bufPos);
        return 1;
    }
    if (!flushPending(file))
        return 0;
    errno = 0;
    if (file->handler->Seek(file->handle, target, BLIO_SEEK_SET) != 1) {
        file->hpos = -1;
        ioError(BLERR_SEEK_FAILED, "seek in", file->path.c_str(), errno);
        // A writer seeks to put bytes in place (a header's sizes): they would land elsewhere.
        noteLoss(file);
        return 0;
    }
    resetRead(file, target);
    file->hpos = target;
    return 1;
}

int64_t BLIO_FileSize(_HFile* file)
{
    if (nullHandle(file))
        return -1;
    return fileSize(file);
}

int64_t BLIO_FilePosition(_HFile* file)
{
    if (nullHandle(file))
        return -1;
    return logicalPos(file);
}

int32_t BLIO_IsEndOfFile(_HFile* file)
{
    if (!file)
        return 1;
    if (file->rpos < file->rend)
        return 0;
    if (file->handler->IsEOF) {
        if (!flushPending(file) || !syncHandler(file, logicalPos(file)))
            return 1;
        return file->handler->IsEOF(file->handle) ? 1 : 0;
    }
    if (file->seekable && file->handler->Size) {
        const int64_t size = fileSize(file);
        if (size >= 0)
            return logicalPos(file) >= size ? 1 : 0;
    }
    // A stream tells whether anything is left only by reading it: keep what comes.
    if (!(file->mode & BLIO_MODE_READ) || !file->handler->Read || !flushPending(file))
        return 1;
    if (file->cap > 0)
        return fill(file) > 0 ? 0 : 1;
    const int64_t pos = logicalPos(file);
    if (!syncHandler(file, pos))
        return 1;
    unsigned char* slot = file->buf - 1;
    if (file->handler->Read(file->handle, slot, 1) != 1) {
        file->hpos = -1;
        return 1;
    }
    file->rpos = slot;
    file->rend = file->buf;
    file->bufPos = pos + 1;
    file->hpos = pos + 1;
    return 0;
}

int32_t BLIO_Flush(_HFile* file)
{
    if (nullHandle(file) || !flushPending(file))
        return 0;
    if (file->handler->Flush) {
        errno = 0;
        if (file->handler->Flush(file->handle) != 1) {
            ioError(BLERR_IO, "flush", file->path.c_str(), errno);
            noteLoss(file);
            return 0;
        }
    }
    return reportLoss(file) ? 0 : 1;
}

int32_t BLIO_ReadChar(_HFile* file)
{
    if (__builtin_expect(file != nullptr && file->rpos < file->rend, 1))
        return *file->rpos++;
    return readCharSlow(file);
}

int32_t BLIO_UnReadChar(_HFile* file, int32_t c)
{
    if (nullHandle(file))
        return 0;
    if (c < 0 || c > 255) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot push %d back into '%s': not a byte", c,
            file->path.c_str());
        return 0;
    }
    if (!(file->mode & BLIO_MODE_READ)) {
        BLERROR_Set(BLERR_NOT_READABLE, "cannot push back into '%s': not open for reading",
            file->path.c_str());
        return 0;
    }
    if (file->writing && !flushPending(file))
        return 0;
    if (logicalPos(file) <= 0) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot push back into '%s': nothing was read",
            file->path.c_str());
        return 0;
    }
    if (file->rpos <= file->buf - kHeadroom) {
        BLERROR_Set(
            BLERR_BUFFER_TOO_SMALL, "cannot push back into '%s': no room left", file->path.c_str());
        return 0;
    }
    unsigned char* p = file->rpos - 1;
    if (p >= file->buf && *p != static_cast<unsigned char>(c))
        file->tainted = true;
    *p = static_cast<unsigned char>(c);
    file->rpos = p;
    return 1;
}

int32_t BLIO_IsSeekable(_HFile* file)
{
    if (nullHandle(file))
        return 0;
    return file->seekable ? 1 : 0;
}

BLIOOPENMODE BLIO_CurrentOpenMode(_HFile* file)
{
    if (nullHandle(file))
        return 0;
    return file->mode;
}

const char* BLIO_FileName(_HFile* file)
{
    if (nullHandle(file))
        return "";
    return file->path.c_str();
}

int64_t BLIO_CopyHFileToHFile(_HFile* source, _HFile* destination)
{
    if (!copyArguments(source, destination))
        return -1;
    if (source->seekable && BLIO_Seek(source, 0, BLIO_SEEK_SET) != 1)
        return -1;
    return copyBlocks(source, destination, -1);
}

int64_t BLIO_CopyHFileChunkToHFile(
    _HFile* source, int64_t offset, int64_t length, _HFile* destination)
{
    if (!copyArguments(source, destination))
        return -1;
    if (offset < 0) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "cannot copy from '%s': negative offset", source->path.c_str());
        return -1;
    }
    if (source->seekable) {
        if (BLIO_Seek(source, offset, BLIO_SEEK_SET) != 1)
            return -1;
    } else if (offset != logicalPos(source)) {
        BLERROR_Set(BLERR_NOT_SEEKABLE, "cannot copy from offset %" PRId64 " of '%s': not seekable",
            offset, source->path.c_str());
        return -1;
    }
    if (length == 0)
        return 0;
    return copyBlocks(source, destination, length);
}

int32_t BLIO_ComposeMetaHFileDescr(char* buffer, _HFile* file)
{
    if (!buffer) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null buffer for a meta descriptor");
        return 0;
    }
    buffer[0] = '\0';
    if (nullHandle(file))
        return 0;
    std::snprintf(
        buffer, BLIO_MAX_META_DESCR, "hfile://0x%" PRIxPTR, reinterpret_cast<uintptr_t>(file));
    return 1;
}

int32_t BLIO_GetFileInfo(_HFile* file, BLIO_FileInfo* info)
{
    if (nullHandle(file))
        return 0;
    if (!info) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null information record for '%s'", file->path.c_str());
        return 0;
    }
    if (!flushPending(file))
        return 0;
    if (!file->handler->GetFileInfo) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "no file information on '%s' from its handler",
            file->path.c_str());
        return 0;
    }
    ErrorScope scope;
    if (file->handler->GetFileInfo(file->handle, info) != 1) {
        scope.failed(BLERR_IO, "get information on", file->path.c_str());
        return 0;
    }
    scope.succeeded();
    return 1;
}

int32_t BLIO_FileExists(const char* path)
{
    if (!path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null path");
        return 0;
    }
    const BLIO_Handler* handler = handlerFor(path);
    if (!handler || !handler->Exists)
        return 0;
    return handler->Exists(path) == 1 ? 1 : 0;
}

int32_t BLIO_FileKind(const char* path)
{
    if (!path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null path");
        return BLIO_KIND_NONE;
    }
    const BLIO_Handler* handler = handlerFor(path);
    if (!handler || !handler->Kind)
        return BLIO_KIND_NONE;
    return handler->Kind(handler->Context, path);
}

int32_t BLIO_RemoveFile(const char* path)
{
    if (!path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot remove a null path");
        return 0;
    }
    const BLIO_Handler* handler = handlerFor(path);
    if (!handler)
        return 0;
    if (!handler->Remove) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "cannot remove '%s': not offered by the '%s' handler",
            path, handler->Scheme);
        return 0;
    }
    ErrorScope scope;
    if (handler->Remove(handler->Context, path) != 1) {
        scope.failed(BLERR_IO, "remove", path);
        return 0;
    }
    scope.succeeded();
    return 1;
}

int32_t BLIO_RenameFile(const char* from, const char* to)
{
    if (!from || !to) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "cannot rename a null path");
        return 0;
    }
    const BLIO_Handler* handler = handlerFor(from);
    if (!handler)
        return 0;
    const BLIO_Handler* target = handlerFor(to);
    if (!target)
        return 0;
    if (target != handler) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "cannot rename '%s' to '%s': not the same scheme", from, to);
        return 0;
    }
    if (!handler->Rename) {
        BLERROR_Set(BLERR_NOT_SUPPORTED, "cannot rename '%s': not offered by the '%s' handler",
            from, handler->Scheme);
        return 0;
    }
    ErrorScope scope;
    if (handler->Rename(handler->Context, from, to) != 1) {
        std::string what = std::string(from) + "' to '" + to;
        scope.failed(BLERR_IO, "rename", what.c_str());
        return 0;
    }
    scope.succeeded();
    return 1;
}

int32_t BLIO_NamesMemoryAddress(const char* path)
{
    const size_t prefix = schemePrefixLength(path);
    for (const char* scheme : {"hfile://", "qiodevice://"})
        if (prefix == std::strlen(scheme) && equalsNoCase(path, scheme, prefix))
            return 1;
    return 0;
}

} // extern "C"
