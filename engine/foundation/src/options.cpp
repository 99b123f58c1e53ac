// Option strings: "key=value" items separated by commas (syntax in blstring.h).
//
// Every reader goes through one scanner that walks the items in place, without allocating,
// and keeps the last item whose key matches. Decisions beyond the header:
//   - Quotes and brackets open only at the start of a value (or of a vector element), so an
//     apostrophe inside a plain word ("Don't") is an ordinary character.
//   - Outside quotes a backslash keeps the next character from ending the value, and stays
//     in it: BLSTRING_Encode output can be used as a value and decoded by the caller.
//   - An unterminated quote or bracket makes the rest of the text that value, and the item
//     is malformed; so is text after the closing quote or bracket. A malformed item reads
//     like an absent one (default or failure), but BLSTRING_KeyExistsInString still sees it.
//   - "key=" is an empty value: a vector of none, a 0x0 matrix, no number or boolean.
//     A bare "key" is true, an empty text, and no vector at all.
// Error slot: every reader that returns a default or fails records why (BLERR_KEY_NOT_FOUND,
// BLERR_PARSE, ...) even though a missing key is normal operation; KeyExists records nothing.
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>

namespace {

struct Span
{
    const char* begin = nullptr;
    const char* end = nullptr;

    size_t size() const { return static_cast<size_t>(end - begin); }
    bool empty() const { return begin == end; }
    int length() const { return static_cast<int>(size() > 64 ? 64 : size()); }
};

enum class Kind { Bare, Plain, Quoted, Bracketed };

struct Item
{
    Span key;
    Span value; // Quoted: between the quotes, escapes still in; Bracketed: with the brackets
    Kind kind = Kind::Bare;
    const char* malformed = nullptr; // why, when it is
};

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

Span trim(Span s)
{
    while (s.begin < s.end && isBlank(*s.begin))
        ++s.begin;
    while (s.end > s.begin && isBlank(s.end[-1]))
        --s.end;
    return s;
}

// True when the quoted run starting at p is closed before the NUL.
bool quoteClosed(const char* p, const char** after)
{
    const char quote = *p;
    ++p;
    while (*p) {
        if (*p == '\\') {
            if (!p[1]) {
                *after = p + 1;
                return false;
            }
            p += 2;
            continue;
        }
        if (*p == quote) {
            *after = p + 1;
            return true;
        }
        ++p;
    }
    *after = p;
    return false;
}

// True when the bracketed run starting at p is closed before the NUL.
bool bracketClosed(const char* p, const char** after)
{
    int depth = 0;
    bool elementStart = true;
    while (*p) {
        const char c = *p;
        if (isBlank(c)) {
            ++p;
            continue;
        }
        if (c == '\\') {
            elementStart = false;
            if (!p[1]) {
                *after = p + 1;
                return false;
            }
            p += 2;
            continue;
        }
        if (elementStart && (c == '"' || c == '\'')) {
            if (!quoteClosed(p, &p)) {
                *after = p;
                return false;
            }
            elementStart = false;
            continue;
        }
        if (c == '[') {
            ++depth;
            elementStart = true;
        } else if (c == ']') {
            elementStart = false;
            if (--depth == 0) {
                *after = p + 1;
                return true;
            }
        } else {
            elementStart = c == ',';
        }
        ++p;
    }
    *after = p;
    return false;
}

// Reads the value starting at p (blanks skipped) into item; returns the ',' or NUL after it.
const char* scanValue(const char* p, Item& item)
{
    while (isBlank(*p))
        ++p;
    const char* start = p;
    const char* rest = p;
    if (*p == '"' || *p == '\'') {
        const char* after;
        if (!quoteClosed(p, &after)) {
            item.kind = Kind::Quoted;
            item.value = {start, after};
            item.malformed = "unterminated quote";
            return after;
        }
        item.kind = Kind::Quoted;
        item.value = {start + 1, after - 1};
        rest = after;
    } else if (*p == '[') {
        const char* after;
        if (!bracketClosed(p, &after)) {
            item.kind = Kind::Bracketed;
            item.value = {start, after};
            item.malformed = "unterminated bracket";
            return after;
        }
        item.kind = Kind::Bracketed;
        item.value = {start, after};
        rest = after;
    } else {
        item.kind = Kind::Plain;
        const char* lastSignificant = p;
        while (*p && *p != ',') {
            if (*p == '\\' && p[1]) {
                p += 2;
                lastSignificant = p;
                continue;
            }
            if (!isBlank(*p))
                lastSignificant = p + 1;
            ++p;
        }
        item.value = {start, lastSignificant};
        return p;
    }
    // After a closing quote or bracket only blanks may come before the separator.
    p = rest;
    while (*p && *p != ',') {
        if (!isBlank(*p))
            item.malformed = item.kind == Kind::Quoted ? "text after the closing quote"
                                                       : "text after the closing bracket";
        if (*p == '\\' && p[1])
            ++p;
        ++p;
    }
    return p;
}

bool keyEquals(Span key, const char* wanted, size_t wantedLength)
{
    if (key.size() != wantedLength)
        return false;
    for (size_t i = 0; i < wantedLength; ++i) {
        if (lower(key.begin[i]) != lower(wanted[i]))
            return false;
    }
    return true;
}

// The last item of options whose key is key; false when there is none.
bool findItem(const char* options, const char* key, Item& found)
{
    if (!options || !key || !*key)
        return false;
    const size_t keyLength = std::strlen(key);
    bool any = false;
    const char* p = options;
    while (*p) {
        while (isBlank(*p))
            ++p;
        if (*p == ',') {
            ++p;
            continue;
        }
        if (!*p)
            break;
        Item item;
        const char* keyStart = p;
        while (*p && *p != '=' && *p != ',')
            ++p;
        item.key = trim({keyStart, p});
        item.value = {p, p};
        if (*p == '=')
            p = scanValue(p + 1, item);
        if (keyEquals(item.key, key, keyLength)) {
            found = item;
            any = true;
        }
        if (*p == ',')
            ++p;
    }
    return any;
}

// findItem for the readers: records why nothing usable was found.
bool lookup(const char* options, const char* key, Item& item)
{
    if (!key) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null option key");
        return false;
    }
    if (!findItem(options, key, item)) {
        BLERROR_Set(BLERR_KEY_NOT_FOUND, "no option '%s'", key);
        return false;
    }
    if (item.malformed) {
        BLERROR_Set(BLERR_PARSE, "value of '%s' is malformed: %s", key, item.malformed);
        return false;
    }
    return true;
}

void parseError(const char* key, const char* what, Span text)
{
    BLERROR_Set(
        BLERR_PARSE, "value of '%s' is not %s: '%.*s'", key, what, text.length(), text.begin);
}

// The text a scalar reader converts; false for vectors and bare keys.
bool scalarText(const Item& item, Span& text)
{
    if (item.kind != Kind::Plain && item.kind != Kind::Quoted)
        return false;
    text = trim(item.value);
    return true;
}

// Decimal or 0x hexadecimal, optionally signed, within [low, high].
bool parseInteger(Span s, int64_t low, int64_t high, int64_t& out)
{
    s = trim(s);
    const char* p = s.begin;
    bool negative = false;
    if (p < s.end && (*p == '+' || *p == '-')) {
        negative = *p == '-';
        ++p;
    }
    unsigned base = 10;
    if (s.end - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (p == s.end)
        return false;
    uint64_t magnitude = 0;
    for (; p < s.end; ++p) {
        unsigned digit;
        const char c = *p;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        if (magnitude > (std::numeric_limits<uint64_t>::max() - digit) / base)
            return false;
        magnitude = magnitude * base + digit;
    }
    constexpr uint64_t kMinMagnitude = uint64_t {1} << 63;
    int64_t value;
    if (negative) {
        if (magnitude > kMinMagnitude)
            return false;
        value = magnitude == kMinMagnitude ? std::numeric_limits<int64_t>::min()
                                           : -static_cast<int64_t>(magnitude);
    } else {
        if (magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            return false;
        value = static_cast<int64_t>(magnitude);
    }
    if (value < low || value > high)
        return false;
    out = value;
    return true;
}

// C-locale decimal with optional exponent, "inf" and "nan", an optional '+' allowed.
template <typename T> bool parseFloating(Span s, T& out)
{
    s = trim(s);
    const char* p = s.begin;
    if (p < s.end && *p == '+') {
        ++p;
        if (p < s.end && (*p == '-' || *p == '+'))
            return false;
    }
    if (p == s.end)
        return false;
    T value {};
    const auto result = std::from_chars(p, s.end, value, std::chars_format::general);
    if (result.ec != std::errc() || result.ptr != s.end)
        return false;
    out = value;
    return true;
}

bool convert(Span s, float& out)
{
    return parseFloating(s, out);
}

bool convert(Span s, double& out)
{
    return parseFloating(s, out);
}

bool convert(Span s, uint32_t& out)
{
    int64_t value;
    if (!parseInteger(
            s, std::numeric_limits<int32_t>::min(), std::numeric_limits<uint32_t>::max(), value))
        return false;
    out = static_cast<uint32_t>(value);
    return true;
}

const char* typeName(float)
{
    return "a float";
}
const char* typeName(double)
{
    return "a double";
}
const char* typeName(uint32_t)
{
    return "a 32-bit integer";
}

bool equalsNoCase(Span s, const char* word)
{
    const size_t n = std::strlen(word);
    return keyEquals(s, word, n);
}

// Calls visit(element) for each element of the bracketed span [ ... ] (brackets included),
// blanks trimmed and the quotes of a quoted element removed; visit returns false to stop.
// False when an element is empty ("[1,,2]", "[1,]"). Brackets and quotes are balanced: the
// scanner checked them.
template <typename Visit> bool forEachElement(Span bracketed, Visit&& visit)
{
    const char* p = bracketed.begin + 1;
    const char* end = bracketed.end - 1;
    while (p < end && isBlank(*p))
        ++p;
    if (p == end)
        return true;
    for (;;) {
        while (p < end && isBlank(*p))
            ++p;
        const char* start = p;
        const char* closed = nullptr; // after the closing quote or bracket
        bool quoted = false;
        if (p < end && (*p == '"' || *p == '\'')) {
            quoteClosed(p, &p);
            quoted = true;
            closed = p;
        } else if (p < end && *p == '[') {
            bracketClosed(p, &p);
            closed = p;
        }
        if (p > end)
            return false;
        const char* last = p;
        while (p < end && *p != ',') {
            if (*p == '\\' && p + 1 < end) {
                p += 2;
                last = p;
                continue;
            }
            if (!isBlank(*p))
                last = p + 1;
            ++p;
        }
        if (closed && last != closed)
            return false; // text after the closing quote or bracket
        Span element {start, last};
        if (element.empty())
            return false;
        if (quoted)
            element = {start + 1, last - 1};
        if (!visit(element, quoted))
            return true;
        if (p == end)
            return true;
        ++p; // the ','
    }
}

bool isNested(Span element, bool quoted)
{
    return !quoted && !element.empty() && *element.begin == '[';
}

// Element count of a vector value; false when it is not one.
bool vectorSize(const Item& item, int64_t& count)
{
    switch (item.kind) {
    case Kind::Bare:
        return false;
    case Kind::Plain:
        count = item.value.empty() ? 0 : 1;
        return true;
    case Kind::Quoted:
        count = 1;
        return true;
    case Kind::Bracketed:
        break;
    }
    int64_t n = 0;
    bool flat = true;
    const bool ok = forEachElement(item.value, [&](Span element, bool quoted) {
        if (isNested(element, quoted)) {
            flat = false;
            return false;
        }
        ++n;
        return true;
    });
    if (!ok || !flat || n > std::numeric_limits<int32_t>::max())
        return false;
    count = n;
    return true;
}

// Shape of a matrix value; false when it is not one (ragged, deeper, malformed).
bool matrixSize(const Item& item, int64_t& rows, int64_t& columns)
{
    if (item.kind != Kind::Bracketed) {
        int64_t n;
        if (!vectorSize(item, n))
            return false;
        rows = n ? 1 : 0;
        columns = n;
        return true;
    }
    int64_t rowCount = 0;
    int64_t width = -1;
    int nestedRows = 0;
    bool ok = forEachElement(item.value, [&](Span element, bool quoted) {
        if (!isNested(element, quoted)) {
            ++rowCount; // counts elements of a flat vector
            return true;
        }
        ++nestedRows;
        int64_t n = 0;
        bool flat = true;
        if (!forEachElement(element,
                [&](Span inner, bool innerQuoted) {
                    if (isNested(inner, innerQuoted)) {
                        flat = false;
                        return false;
                    }
                    ++n;
                    return true;
                })
            || !flat || (width >= 0 && n != width)) {
            width = -2;
            return false;
        }
        width = n;
        ++rowCount;
        return true;
    });
    if (!ok || width == -2)
        return false;
    if (nestedRows == 0) {
        rows = rowCount ? 1 : 0;
        columns = rowCount;
    } else {
        if (nestedRows != rowCount)
            return false; // rows mixed with scalars
        rows = rowCount;
        columns = width;
    }
    return rows <= std::numeric_limits<int32_t>::max()
        && columns <= std::numeric_limits<int32_t>::max();
}

// Converts the first count scalar elements of a vector or matrix value into values.
template <typename T>
bool readElements(const char* key, const Item& item, T* values, int64_t count, bool matrix)
{
    if (count == 0)
        return true;
    Span text;
    if (scalarText(item, text)) {
        if (!convert(text, values[0])) {
            parseError(key, typeName(T {}), text);
            return false;
        }
        return true;
    }
    int64_t index = 0;
    bool ok = true;
    auto one = [&](Span element, bool) {
        if (!convert(element, values[index])) {
            parseError(key, typeName(T {}), element);
            ok = false;
            return false;
        }
        return ++index < count;
    };
    forEachElement(item.value, [&](Span element, bool quoted) {
        if (matrix && isNested(element, quoted)) {
            forEachElement(element, one);
            return ok && index < count;
        }
        return one(element, quoted);
    });
    return ok && index == count;
}

template <typename T>
int32_t vectorValues(const char* options, const char* key, T* values, int32_t count)
{
    if (count < 0 || (count > 0 && !values)) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "option '%s': null values or count %d", key ? key : "", count);
        return 0;
    }
    Item item;
    if (!lookup(options, key, item))
        return 0;
    int64_t size;
    if (!vectorSize(item, size)) {
        parseError(key, "a vector", item.value);
        return 0;
    }
    if (size < count) {
        BLERROR_Set(BLERR_PARSE, "value of '%s' has %lld elements, %d wanted", key,
            static_cast<long long>(size), count);
        return 0;
    }
    return readElements(key, item, values, count, false) ? 1 : 0;
}

template <typename T>
int32_t matrixValues(const char* options, const char* key, T* values, int32_t rows, int32_t columns)
{
    const int64_t count = static_cast<int64_t>(rows) * columns;
    if (rows < 0 || columns < 0 || (count > 0 && !values)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "option '%s': null values or shape %dx%d",
            key ? key : "", rows, columns);
        return 0;
    }
    Item item;
    if (!lookup(options, key, item))
        return 0;
    int64_t actualRows, actualColumns;
    if (!matrixSize(item, actualRows, actualColumns)) {
        parseError(key, "a matrix", item.value);
        return 0;
    }
    if (actualRows != rows || actualColumns != columns) {
        BLERROR_Set(BLERR_PARSE, "value of '%s' is a %lldx%lld matrix, %dx%d wanted", key,
            static_cast<long long>(actualRows), static_cast<long long>(actualColumns), rows,
            columns);
        return 0;
    }
    return readElements(key, item, values, count, true) ? 1 : 0;
}

// Length of the value as the string readers return it.
size_t textLength(const Item& item)
{
    if (item.kind != Kind::Quoted)
        return item.value.size();
    size_t n = 0;
    for (const char* p = item.value.begin; p < item.value.end; ++p, ++n) {
        if (*p == '\\' && p + 1 < item.value.end)
            ++p;
    }
    return n;
}

void copyText(const Item& item, char* out)
{
    if (item.kind != Kind::Quoted) {
        std::memcpy(out, item.value.begin, item.value.size());
        out[item.value.size()] = '\0';
        return;
    }
    for (const char* p = item.value.begin; p < item.value.end; ++p) {
        if (*p == '\\' && p + 1 < item.value.end)
            ++p;
        *out++ = *p;
    }
    *out = '\0';
}

// The key's scalar value converted by parse, or the default (with the reason recorded).
template <typename T, typename Parse>
T readScalar(const char* options, const char* key, T defaultValue, const char* what, Parse parse)
{
    Item item;
    if (!lookup(options, key, item))
        return defaultValue;
    Span text;
    T value;
    if (!scalarText(item, text) || !parse(text, value)) {
        parseError(key, what, item.value);
        return defaultValue;
    }
    return value;
}

} // namespace

extern "C" {

int32_t BLSTRING_KeyExistsInString(const char* options, const char* key)
{
    Item item;
    return findItem(options, key, item) ? 1 : 0;
}

int32_t BLSTRING_GetBooleanValueFromString(
    const char* options, const char* key, int32_t defaultValue)
{
    Item item;
    if (!lookup(options, key, item))
        return defaultValue;
    if (item.kind == Kind::Bare)
        return 1;
    Span text;
    if (scalarText(item, text)) {
        for (const char* word : {"1", "true", "yes", "on"}) {
            if (equalsNoCase(text, word))
                return 1;
        }
        for (const char* word : {"0", "false", "no", "off"}) {
            if (equalsNoCase(text, word))
                return 0;
        }
    }
    parseError(key, "a boolean", item.value);
    return defaultValue;
}

int32_t BLSTRING_GetIntegerValueFromString(
    const char* options, const char* key, int32_t defaultValue)
{
    return readScalar(options, key, defaultValue, "a 32-bit integer", [](Span text, int32_t& out) {
        int64_t wide;
        if (!parseInteger(text, std::numeric_limits<int32_t>::min(),
                std::numeric_limits<int32_t>::max(), wide))
            return false;
        out = static_cast<int32_t>(wide);
        return true;
    });
}

int64_t BLSTRING_GetInteger64ValueFromString(
    const char* options, const char* key, int64_t defaultValue)
{
    return readScalar(options, key, defaultValue, "a 64-bit integer", [](Span text, int64_t& out) {
        return parseInteger(
            text, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(), out);
    });
}

float BLSTRING_GetFloatValueFromString(const char* options, const char* key, float defaultValue)
{
    return readScalar(options, key, defaultValue, "a float",
        [](Span text, float& out) { return parseFloating(text, out); });
}

double BLSTRING_GetDoubleValueFromString(const char* options, const char* key, double defaultValue)
{
    return readScalar(options, key, defaultValue, "a double",
        [](Span text, double& out) { return parseFloating(text, out); });
}

int32_t BLSTRING_GetStringLengthFromString(const char* options, const char* key)
{
    Item item;
    if (!lookup(options, key, item))
        return -1;
    const size_t n = textLength(item);
    if (n > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        BLERROR_Set(BLERR_PARSE, "value of '%s' is too long", key);
        return -1;
    }
    return static_cast<int32_t>(n);
}

int32_t BLSTRING_GetStringValueFromString(
    const char* options, const char* key, const char* defaultValue, char* buffer, int32_t size)
{
    if (!buffer || size < 0) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "option '%s': null buffer or size %d", key ? key : "", size);
        return 0;
    }
    buffer[0] = '\0';
    Item item;
    if (!lookup(options, key, item)) {
        if (!defaultValue)
            return 0;
        const size_t n = std::strlen(defaultValue);
        if (n > static_cast<size_t>(size)) {
            BLERROR_Set(BLERR_BUFFER_TOO_SMALL, "default of '%s' needs %zu bytes, %d given",
                key ? key : "", n, size);
            return 0;
        }
        std::memcpy(buffer, defaultValue, n + 1);
        return 1;
    }
    const size_t n = textLength(item);
    if (n > static_cast<size_t>(size)) {
        BLERROR_Set(
            BLERR_BUFFER_TOO_SMALL, "value of '%s' needs %zu bytes, %d given", key, n, size);
        return 0;
    }
    copyText(item, buffer);
    return 1;
}

int32_t BLSTRING_GetVectorSizeFromString(const char* options, const char* key, int32_t* count)
{
    if (!count) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null count");
        return 0;
    }
    Item item;
    if (!lookup(options, key, item))
        return 0;
    int64_t n;
    if (!vectorSize(item, n)) {
        parseError(key, "a vector", item.value);
        return 0;
    }
    *count = static_cast<int32_t>(n);
    return 1;
}

int32_t BLSTRING_GetFloatVectorValuesFromString(
    const char* options, const char* key, float* values, int32_t count)
{
    return vectorValues(options, key, values, count);
}

int32_t BLSTRING_GetWord32VectorValuesFromString(
    const char* options, const char* key, uint32_t* values, int32_t count)
{
    return vectorValues(options, key, values, count);
}

int32_t BLSTRING_GetDoubleVectorValuesFromString(
    const char* options, const char* key, double* values, int32_t count)
{
    return vectorValues(options, key, values, count);
}

int32_t BLSTRING_GetMatrixSizeFromString(
    const char* options, const char* key, int32_t* rows, int32_t* columns)
{
    if (!rows || !columns) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null rows or columns");
        return 0;
    }
    Item item;
    if (!lookup(options, key, item))
        return 0;
    int64_t r, c;
    if (!matrixSize(item, r, c)) {
        parseError(key, "a matrix", item.value);
        return 0;
    }
    *rows = static_cast<int32_t>(r);
    *columns = static_cast<int32_t>(c);
    return 1;
}

int32_t BLSTRING_GetWord32MatrixValuesFromString(
    const char* options, const char* key, uint32_t* values, int32_t rows, int32_t columns)
{
    return matrixValues(options, key, values, rows, columns);
}

int32_t BLSTRING_GetDoubleMatrixValuesFromString(
    const char* options, const char* key, double* values, int32_t rows, int32_t columns)
{
    return matrixValues(options, key, values, rows, columns);
}

int32_t BLSTRING_GetFloatMatrixValuesFromString(
    const char* options, const char* key, float* values, int32_t rows, int32_t columns)
{
    return matrixValues(options, key, values, rows, columns);
}

} // extern "C"
