// Thread-local error slot and the table of error texts.
#include <sova/blerror.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

const char* const kCodeTexts[BLERR_COUNT] = {
    "no error",
    "invalid argument",
    "out of memory",
    "no I/O handler for this scheme",
    "malformed open descriptor",
    "the handler does not support this open mode",
    "cannot open file",
    "read failed",
    "write failed",
    "seek failed",
    "file is not seekable",
    "file is not open for reading",
    "file is not open for writing",
    "a handler with this scheme is already registered",
    "incomplete handler record",
    "handler is not registered",
    "operation not offered by the handler",
    "close failed",
    "key not found",
    "value does not parse",
    "buffer too small",
    "input/output error",
    "no such file",
};

struct ErrorSlot {
    int32_t code = BLERR_NONE;
    std::string message;
};

ErrorSlot& slot()
{
    thread_local ErrorSlot s;
    return s;
}

} // namespace

extern "C" {

int32_t BLERROR_LastCode(void)
{
    return slot().code;
}

const char* BLERROR_LastMessage(void)
{
    return slot().message.c_str();
}

const char* BLERROR_CodeText(int32_t code)
{
    if (code < 0 || code >= BLERR_COUNT)
        return "unknown error";
    return kCodeTexts[code];
}

void BLERROR_Set(int32_t code, const char* format, ...)
{
    ErrorSlot& s = slot();
    s.code = code;
    if (!format || !*format) {
        s.message = BLERROR_CodeText(code);
        return;
    }
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n < 0) {
        s.message = BLERROR_CodeText(code);
    } else {
        s.message.resize(static_cast<size_t>(n));
        std::vsnprintf(s.message.data(), static_cast<size_t>(n) + 1, format, args);
    }
    va_end(args);
}

void BLERROR_Clear(void)
{
    ErrorSlot& s = slot();
    s.code = BLERR_NONE;
    s.message.clear();
}

} // extern "C"
