// Escape encoding for option-string and ini values, and percent-encoding for URLs.
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <cstdlib>
#include <cstring>

namespace {

const char kLowerHex[] = "0123456789abcdef";
const char kUpperHex[] = "0123456789ABCDEF";

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The character that follows the backslash for bytes with a short escape, else 0.
char shortEscape(unsigned char c)
{
    switch (c) {
    case '\\':
    case ',':
    case '=':
    case '"':
    case '\'':
    case '[':
    case ']':
    case ';':
    case '#':
        return static_cast<char>(c);
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    default:
        return 0;
    }
}

bool isUnreserved(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'
        || c == '.' || c == '_' || c == '~';
}

char* allocate(size_t bytes)
{
    auto* out = static_cast<char*>(std::malloc(bytes));
    if (!out)
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
    return out;
}

} // namespace

extern "C" {

char* BLSTRING_Encode(const char* text)
{
    if (!text) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null text to encode");
        return nullptr;
    }
    size_t length = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (shortEscape(*p))
            length += 2;
        else if (*p < 0x20 || *p == 0x7F)
            length += 4;
        else
            length += 1;
    }
    char* out = allocate(length + 1);
    if (!out)
        return nullptr;
    char* o = out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (const char e = shortEscape(*p)) {
            *o++ = '\\';
            *o++ = e;
        } else if (*p < 0x20 || *p == 0x7F) {
            *o++ = '\\';
            *o++ = 'x';
            *o++ = kLowerHex[*p >> 4];
            *o++ = kLowerHex[*p & 0xF];
        } else {
            *o++ = static_cast<char>(*p);
        }
    }
    *o = '\0';
    return out;
}

char* BLSTRING_Decode(const char* text, char* buffer)
{
    if (!text || !buffer) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null text or buffer to decode");
        return nullptr;
    }
    const char* p = text;
    char* o = buffer;
    while (*p) {
        if (*p != '\\') {
            *o++ = *p++;
            continue;
        }
        const char next = p[1];
        char plain = 0;
        switch (next) {
        case '\\':
        case ',':
        case '=':
        case '"':
        case '\'':
        case '[':
        case ']':
        case ';':
        case '#':
            plain = next;
            break;
        case 'n':
            plain = '\n';
            break;
        case 'r':
            plain = '\r';
            break;
        case 't':
            plain = '\t';
            break;
        case 'x': {
            const int high = hexValue(p[2]);
            const int low = high >= 0 ? hexValue(p[3]) : -1;
            // \x00 would end the text early: keep it, like any malformed escape.
            if (low >= 0 && (high | low) != 0) {
                *o++ = static_cast<char>(high << 4 | low);
                p += 4;
                continue;
            }
            break;
        }
        default:
            break;
        }
        if (plain) {
            *o++ = plain;
            p += 2;
        } else {
            *o++ = *p++; // the backslash stays; what follows is copied by the loop
        }
    }
    *o = '\0';
    return buffer;
}

char* BLUTILS_EncodeUrl(const char* text)
{
    if (!text) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null text to encode");
        return nullptr;
    }
    size_t length = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
        length += isUnreserved(*p) ? 1 : 3;
    char* out = allocate(length + 1);
    if (!out)
        return nullptr;
    char* o = out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (isUnreserved(*p)) {
            *o++ = static_cast<char>(*p);
        } else {
            *o++ = '%';
            *o++ = kUpperHex[*p >> 4];
            *o++ = kUpperHex[*p & 0xF];
        }
    }
    *o = '\0';
    return out;
}

char* BLUTILS_UrlDecode(const char* text, char* buffer)
{
    if (!text || !buffer) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null text or buffer to decode");
        return nullptr;
    }
    const char* p = text;
    char* o = buffer;
    while (*p) {
        if (*p == '%') {
            const int high = hexValue(p[1]);
            const int low = high >= 0 ? hexValue(p[2]) : -1;
            // %00 would end the text early: kept as it stands.
            if (low >= 0 && (high | low) != 0) {
                *o++ = static_cast<char>(high << 4 | low);
                p += 3;
                continue;
            }
        }
        *o++ = *p++;
    }
    *o = '\0';
    return buffer;
}

} // extern "C"
