// Ini files: the lines of the file as they were read, with an index of sections and keys.
//
// Every line is kept as a record pointing at its text; a load followed by a save gives the
// same bytes back, except that "\r\n" line ends are written as "\n". Records are addressed by
// a stable id; `order` lists the ids in file order, so inserting a line never changes an id
// and the index stays valid.
#include <sova/blinifile.h>

#include <sova/blerror.h>
#include <sova/blio.h>

#include "atomicfile.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trim(std::string_view s)
{
    size_t begin = 0, end = s.size();
    while (begin < end && isBlank(s[begin]))
        ++begin;
    while (end > begin && isBlank(s[end - 1]))
        --end;
    return s.substr(begin, end - begin);
}

char lowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view s)
{
    std::string out(s);
    for (char& c : out)
        c = lowerAscii(c);
    return out;
}

bool equalsNoCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lowerAscii(a[i]) != lowerAscii(b[i]))
            return false;
    return true;
}

// Offset of the first byte that is not valid UTF-8 (NUL counts as invalid here), or npos.
size_t invalidUtf8At(std::string_view s, bool* nul)
{
    return sova::firstNonText(s, nul);
}

bool isUtf8(std::string_view s)
{
    bool nul;
    return invalidUtf8At(s, &nul) == std::string_view::npos;
}

// ---- Values ----------------------------------------------------------------------------

struct Value
{
    int32_t type = BLINI_TYPE_TEXT;
    int64_t integer = 0; // types 3 and 12; 0 or 1 for type 10
    double number = 0; // floating types, scaled to the base unit
};

// Unquotes and unescapes a quoted value; false when it is not one: no closing quote at the
// very end, a bare quote inside or an unknown escape. \r is accepted beside \" \\ \n \t.
bool unquote(std::string_view v, std::string* out)
{
    if (v.size() < 2 || v.front() != '"' || v.back() != '"')
        return false;
    if (out)
        out->clear();
    for (size_t i = 1; i + 1 < v.size(); ++i) {
        char c = v[i];
        if (c == '"')
            return false;
        if (c == '\\') {
            if (i + 2 >= v.size())
                return false; // the closing quote itself is escaped
            switch (v[++i]) {
            case '"':
                c = '"';
                break;
            case '\\':
                c = '\\';
                break;
            case 'n':
                c = '\n';
                break;
            case 't':
                c = '\t';
                break;
            case 'r':
                c = '\r';
                break;
            default:
                return false;
            }
        }
        if (out)
            out->push_back(c);
    }
    return true;
}

std::string quote(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    for (char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            out.push_back(c);
        }
    }
    out.push_back('"');
    return out;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isBoolean(std::string_view v, int64_t* value)
{
    for (std::string_view word : {"true", "yes", "on"})
        if (equalsNoCase(v, word))
            return *value = 1, true;
    for (std::string_view word : {"false", "no", "off"})
        if (equalsNoCase(v, word))
            return *value = 0, true;
    return false;
}

// [sign] 0x hexdigits; the magnitude must fit a signed 64-bit integer (else it is text).
bool parseHex(std::string_view v, int64_t* value)
{
    const bool negative = !v.empty() && v[0] == '-';
    if (!v.empty() && (v[0] == '-' || v[0] == '+'))
        v.remove_prefix(1);
    if (v.size() < 3 || v[0] != '0' || (v[1] != 'x' && v[1] != 'X'))
        return false;
    uint64_t magnitude = 0;
    const char* end = v.data() + v.size();
    const auto result = std::from_chars(v.data() + 2, end, magnitude, 16);
    if (result.ec != std::errc() || result.ptr != end || v[2] == '-' || v[2] == '+')
        return false;
    const uint64_t limit = uint64_t(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
    if (magnitude > limit)
        return false;
    *value = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

// Length of the decimal number at the start of v: [sign] digits [. digits] [e [sign] digits],
// with at least one digit before the exponent; 0 when there is none.
size_t scanNumber(std::string_view v, bool* fraction, bool* exponent)
{
    size_t i = 0;
    if (i < v.size() && (v[i] == '-' || v[i] == '+'))
        ++i;
    size_t digits = 0;
    while (i < v.size() && isDigit(v[i]))
        ++i, ++digits;
    *fraction = i < v.size() && v[i] == '.';
    if (*fraction) {
        ++i;
        while (i < v.size() && isDigit(v[i]))
            ++i, ++digits;
    }
    if (digits == 0)
        return 0;
    *exponent = false;
    if (i < v.size() && (v[i] == 'e' || v[i] == 'E')) {
        size_t j = i + 1;
        if (j < v.size() && (v[j] == '-' || v[j] == '+'))
            ++j;
        if (j < v.size() && isDigit(v[j])) {
            while (j < v.size() && isDigit(v[j]))
                ++j;
            *exponent = true;
            i = j;
        }
    }
    return i;
}

// The unit after a number (blanks allowed before it): type and the divisor or factor that
// brings the number to the base unit. Only "dB" ignores case; "mHz" would be millihertz.
bool parseUnit(std::string_view unit, int32_t* type, double* scale, bool* divide)
{
    struct Unit
    {
        std::string_view text;
        int32_t type;
        double scale;
        bool divide;
    };
    static constexpr Unit units[] = {
        {"%", BLINI_TYPE_PERCENT, 100, true},
        {"s", BLINI_TYPE_DURATION, 1, false},
        {"ms", BLINI_TYPE_DURATION, 1e3, true},
        {"us", BLINI_TYPE_DURATION, 1e6, true},
        {"Hz", BLINI_TYPE_FREQUENCY, 1, false},
        {"kHz", BLINI_TYPE_FREQUENCY, 1e3, false},
        {"MHz", BLINI_TYPE_FREQUENCY, 1e6, false},
    };
    if (equalsNoCase(unit, "dB")) {
        *type = BLINI_TYPE_DECIBEL, *scale = 1, *divide = false;
        return true;
    }
    for (const Unit& u : units) {
        if (unit == u.text) {
            *type = u.type, *scale = u.scale, *divide = u.divide;
            return true;
        }
    }
    return false;
}

// The type of a value (already trimmed) and, for numbers, what it reads as. Tests in order:
// empty, quoted, boolean, special number, hexadecimal, decimal number with an optional unit;
// anything else is plain text.
Value classify(std::string_view v)
{
    Value value;
    if (v.empty()) {
        value.type = BLINI_TYPE_EMPTY;
        return value;
    }
    if (v[0] == '"') {
        value.type = unquote(v, nullptr) ? BLINI_TYPE_QUOTED : BLINI_TYPE_TEXT;
        return value;
    }
    if (isBoolean(v, &value.integer)) {
        value.type = BLINI_TYPE_BOOLEAN;
        return value;
    }
    {
        std::string_view magnitude = v;
        const bool negative = v[0] == '-';
        if (v[0] == '-' || v[0] == '+')
            magnitude.remove_prefix(1);
        const bool inf = equalsNoCase(magnitude, "inf");
        if (inf || equalsNoCase(v, "nan")) {
            const double special = inf ? std::numeric_limits<double>::infinity()
                                       : std::numeric_limits<double>::quiet_NaN();
            value.type = BLINI_TYPE_SPECIAL;
            value.number = negative ? -special : special;
            return value;
        }
    }
    if (parseHex(v, &value.integer)) {
        value.type = BLINI_TYPE_HEX;
        return value;
    }
    bool fraction = false, exponent = false;
    const size_t length = scanNumber(v, &fraction, &exponent);
    if (length == 0)
        return value;
    const std::string_view unitText = trim(v.substr(length));
    int32_t type = exponent ? BLINI_TYPE_SCIENTIFIC
        : fraction          ? BLINI_TYPE_DECIMAL
                            : BLINI_TYPE_INTEGER;
    double scale = 1;
    bool divide = false;
    if (!unitText.empty() && !parseUnit(unitText, &type, &scale, &divide))
        return value;
    std::string_view digits = v.substr(0, length);
    if (digits[0] == '+')
        digits.remove_prefix(1); // from_chars takes '-' only
    const char* end = digits.data() + digits.size();
    if (type == BLINI_TYPE_INTEGER) {
        const auto result = std::from_chars(digits.data(), end, value.integer);
        if (result.ec == std::errc() && result.ptr == end) {
            value.type = BLINI_TYPE_INTEGER;
            return value;
        }
        // A decimal integer beyond 64 bits is still a number: it reads as a decimal value.
        type = BLINI_TYPE_DECIMAL;
    }
    double number = 0;
    const auto result = std::from_chars(digits.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end)
        return value; // beyond the range of a double: kept as text
    value.type = type;
    value.number = divide ? number / scale : number * scale;
    return value;
}

bool isFloating(int32_t type)
{
    return (type >= BLINI_TYPE_DECIMAL && type <= BLINI_TYPE_FREQUENCY)
        || type == BLINI_TYPE_SPECIAL;
}

std::string formatFloat(double value)
{
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    // "1" would read back as an integer: keep it a decimal.
    if (text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

// ---- Lines and the index ---------------------------------------------------------------

// A line of the file. Lines as read are views into the file's text, kept whole by the handle;
// a line that is written or added holds its own text.
struct Line
{
    enum Kind : uint8_t { Other, Header, Key };

    size_t offset = 0, length = 0; // in the file's text, unless `own` is set
    std::unique_ptr<std::string> own; // text of a line written or added
    size_t nameBegin = 0, nameEnd = 0; // section or key name, within the line
    size_t valueBegin = 0, valueEnd = 0; // key value, trimmed
    Kind kind = Other;
    int8_t type = -1; // value type, -1 until first asked
    std::unique_ptr<std::string> decoded; // value as text, made on the first text read
};

// Sorts a line: comment or blank, "[name]" (blanks, then a comment allowed after it), or
// "key = value". Anything else (no '=', an empty name) is malformed and stays as it is.
void parseLine(Line& line, std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && isBlank(text[i]))
        ++i;
    if (i == text.size() || text[i] == ';' || text[i] == '#')
        return;
    if (text[i] == '[') {
        const size_t close = text.find(']', i + 1);
        if (close == std::string_view::npos)
            return;
        const std::string_view inside = text.substr(i + 1, close - i - 1);
        const std::string_view name = trim(inside);
        const std::string_view rest = trim(text.substr(close + 1));
        if (name.empty() || inside.find('[') != std::string_view::npos
            || (!rest.empty() && rest[0] != ';' && rest[0] != '#'))
            return;
        line.kind = Line::Header;
        line.nameBegin = static_cast<size_t>(name.data() - text.data());
        line.nameEnd = line.nameBegin + name.size();
        return;
    }
    const size_t equals = text.find('=', i);
    if (equals == std::string_view::npos)
        return;
    const std::string_view name = trim(text.substr(i, equals - i));
    if (name.empty())
        return;
    const std::string_view value = trim(text.substr(equals + 1));
    line.kind = Line::Key;
    line.nameBegin = static_cast<size_t>(name.data() - text.data());
    line.nameEnd = line.nameBegin + name.size();
    line.valueBegin = value.empty() ? text.size() : static_cast<size_t>(value.data() - text.data());
    line.valueEnd = line.valueBegin + value.size();
}

uint32_t hashName(std::string_view name)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (char c : name)
        h = (h ^ static_cast<unsigned char>(lowerAscii(c))) * 0x100000001b3ull;
    h ^= h >> 33; // FNV leaves the low bits weak; mix the high ones in
    h *= 0xff51afd7ed558ccdull;
    return static_cast<uint32_t>(h ^ (h >> 33));
}

// Keys of a section: name without case -> id of the key's last line. Open addressing with
// linear probing in one small array per section: a load makes no allocation per key, and a
// section's keys stay close together in memory.
class KeyIndex
{
public:
    static constexpr uint32_t kNone = UINT32_MAX;

    template <typename NameOf> uint32_t find(std::string_view name, NameOf nameOf) const
    {
        if (slots_.empty())
            return kNone;
        const uint32_t hash = hashName(name);
        for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
            const Slot& slot = slots_[i];
            if (slot.line == kNone)
                return kNone;
            if (slot.hash == hash && equalsNoCase(nameOf(slot.line), name))
                return slot.line;
        }
    }

    // Points the name at line; true when the name is new.
    template <typename NameOf> bool assign(std::string_view name, uint32_t line, NameOf nameOf)
    {
        if ((used_ + 1) * 4 > slots_.size() * 3)
            grow(slots_.empty() ? 16 : slots_.size() * 2);
        const uint32_t hash = hashName(name);
        for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
            Slot& slot = slots_[i];
            if (slot.line == kNone) {
                slot = Slot {hash, line};
                ++used_;
                return true;
            }
            if (slot.hash == hash && equalsNoCase(nameOf(slot.line), name)) {
                slot.line = line;
                return false;
            }
        }
    }

    size_t size() const { return used_; }

private:
    struct Slot
    {
        uint32_t hash = 0;
        uint32_t line = kNone;
    };

    void grow(size_t size)
    {
        std::vector<Slot> old(size);
        old.swap(slots_);
        mask_ = size - 1;
        for (const Slot& slot : old) {
            if (slot.line == kNone)
                continue;
            size_t i = slot.hash & mask_;
            while (slots_[i].line != kNone)
                i = (i + 1) & mask_;
            slots_[i] = slot;
        }
    }

    std::vector<Slot> slots_;
    size_t mask_ = 0;
    size_t used_ = 0;
};

struct Section
{
    std::string name;
    int64_t header = -1; // id of its first header line; -1 for "" or none yet
    std::vector<uint32_t> keys; // key line ids in file order, repeats included
    KeyIndex index;
};

} // namespace

struct BLINIFILE
{
    std::string fileName;
    std::string source; // the file's text as read (lines point into it)
    std::vector<Line> lines; // by id
    std::vector<uint32_t> order; // ids in file order
    std::vector<Section> sections; // first appearance order; [0] is ""
    std::unordered_map<std::string, uint32_t> sectionIndex;
    bool bom = false;
    bool finalNewline = true;
    // Values written since the file was read or last saved, in order: section, key, text.
    // Saving to the handle's own file applies these to the file as it is then.
    struct Write
    {
        std::string section, key, value;
    };
    std::vector<Write> writes;

    BLINIFILE()
    {
        sections.emplace_back();
        sectionIndex.emplace(std::string(), 0);
    }

    std::string_view text(const Line& line) const
    {
        return line.own ? std::string_view(*line.own)
                        : std::string_view(source).substr(line.offset, line.length);
    }
    std::string_view name(const Line& line) const
    {
        return text(line).substr(line.nameBegin, line.nameEnd - line.nameBegin);
    }
    std::string_view value(const Line& line) const
    {
        return text(line).substr(line.valueBegin, line.valueEnd - line.valueBegin);
    }
    bool blank(const Line& line) const
    {
        return line.kind == Line::Other && trim(text(line)).empty();
    }
    auto nameOf() const
    {
        return [this](uint32_t id) { return name(lines[id]); };
    }

    void load(std::string content)
    {
        source = std::move(content);
        std::string_view all = source;
        size_t start = 0;
        if (all.substr(0, kBom.size()) == kBom) {
            bom = true;
            start = kBom.size();
        }
        finalNewline = all.size() == start || all.back() == '\n';
        const size_t estimate = static_cast<size_t>(std::count(all.begin(), all.end(), '\n')) + 1;
        lines.reserve(estimate);
        order.reserve(estimate);
        uint32_t current = 0;
        while (start < all.size()) {
            size_t end = all.find('\n', start);
            if (end == std::string_view::npos)
                end = all.size();
            size_t stop = end;
            if (stop > start && end < all.size() && all[stop - 1] == '\r')
                --stop; // "\r\n" is read as "\n", and saved so
            const uint32_t id = static_cast<uint32_t>(lines.size());
            lines.emplace_back();
            Line& line = lines.back();
            line.offset = start;
            line.length = stop - start;
            parseLine(line, all.substr(start, stop - start));
            order.push_back(id);
            if (line.kind == Line::Header) {
                current = sectionFor(name(line), id);
            } else if (line.kind == Line::Key) {
                Section& section = sections[current];
                section.keys.push_back(id);
                section.index.assign(name(line), id, nameOf());
            }
            start = end + 1;
        }
    }

    // Index of the section of that name, made (with no lines) when new.
    uint32_t sectionFor(std::string_view name, int64_t header)
    {
        const auto [it, added]
            = sectionIndex.try_emplace(lowered(name), static_cast<uint32_t>(sections.size()));
        if (added) {
            sections.emplace_back();
            sections.back().name.assign(name);
        }
        Section& section = sections[it->second];
        if (section.header < 0)
            section.header = header;
        return it->second;
    }

    // Index of an existing section (with a header or a key), or -1.
    int64_t findSection(std::string_view name) const
    {
        const auto it = sectionIndex.find(lowered(trim(name)));
        if (it == sectionIndex.end())
            return -1;
        const Section& section = sections[it->second];
        return section.header >= 0 || !section.keys.empty() ? static_cast<int64_t>(it->second) : -1;
    }

    Line* findKey(std::string_view section, std::string_view key)
    {
        const int64_t s = findSection(section);
        if (s < 0)
            return nullptr;
        const uint32_t id = sections[static_cast<size_t>(s)].index.find(trim(key), nameOf());
        return id == KeyIndex::kNone ? nullptr : &lines[id];
    }

    // Puts a new line with text at position pos of the file order; its id.
    uint32_t insertLine(size_t pos, std::string text)
    {
        const uint32_t id = static_cast<uint32_t>(lines.size());
        lines.emplace_back();
        Line& line = lines.back();
        line.own = std::make_unique<std::string>(std::move(text));
        parseLine(line, *line.own);
        if (pos >= order.size()) {
            order.push_back(id);
            finalNewline = true;
        } else {
            order.insert(order.begin() + static_cast<ptrdiff_t>(pos), id);
        }
        return id;
    }

    // Position of a line in the file order; searched from the end, where writes mostly go.
    size_t positionOf(uint32_t id) const
    {
        for (size_t i = order.size(); i-- > 0;)
            if (order[i] == id)
                return i;
        return order.size();
    }

    // Where a first key of the global section goes: before the first header, and before the
    // comment block and blank lines just above it.
    size_t globalInsertPosition() const
    {
        size_t pos = 0;
        while (pos < order.size() && lines[order[pos]].kind != Line::Header)
            ++pos;
        if (pos == order.size())
            return pos;
        while (
            pos > 0 && lines[order[pos - 1]].kind == Line::Other && !blank(lines[order[pos - 1]]))
            --pos;
        while (pos > 0 && blank(lines[order[pos - 1]]))
            --pos;
        return pos;
    }

    void write(std::string_view sectionName, std::string_view keyName, const std::string& value)
    {
        const auto found = sectionIndex.find(lowered(sectionName));
        uint32_t s;
        if (found != sectionIndex.end()) {
            s = found->second;
        } else {
            if (!order.empty() && !blank(lines[order.back()]))
                insertLine(order.size(), std::string());
            const uint32_t header = insertLine(order.size(), "[" + std::string(sectionName) + "]");
            s = sectionFor(sectionName, header);
        }
        const uint32_t existing = sections[s].index.find(keyName, nameOf());
        if (existing != KeyIndex::kNone) {
            rewrite(lines[existing], value);
            return;
        }
        Section& section = sections[s];
        size_t pos;
        if (!section.keys.empty())
            pos = positionOf(section.keys.back()) + 1;
        else if (section.header >= 0)
            pos = positionOf(static_cast<uint32_t>(section.header)) + 1;
        else
            pos = globalInsertPosition();
        std::string text(keyName);
        text += value.empty() ? " =" : " = ";
        text += value;
        const uint32_t id = insertLine(pos, std::move(text));
        section.keys.push_back(id);
        section.index.assign(keyName, id, nameOf());
    }

    // New value in place: the text up to the value (name, spacing, '=') stays as it was.
    void rewrite(Line& line, const std::string& value)
    {
        const std::string_view old = text(line);
        const size_t equals = old.find('=', line.nameEnd);
        std::string updated(old.substr(0, equals + 1));
        if (!value.empty()) {
            if (line.valueBegin < old.size())
                updated.assign(old.substr(0, line.valueBegin)); // keeps the blanks after '='
            else if (equals > 0 && isBlank(old[equals - 1]))
                updated += ' ';
        }
        line.valueBegin = updated.size();
        updated += value;
        line.valueEnd = updated.size();
        line.own = std::make_unique<std::string>(std::move(updated));
        line.type = -1;
        line.decoded.reset();
    }

    std::string serialise() const
    {
        size_t total = bom ? kBom.size() : 0;
        for (const Line& line : lines)
            total += (line.own ? line.own->size() : line.length) + 1;
        std::string out;
        out.reserve(total);
        if (bom)
            out.append(kBom);
        for (size_t i = 0; i < order.size(); ++i) {
            out += text(lines[order[i]]);
            if (i + 1 < order.size() || finalNewline)
                out += '\n';
        }
        return out;
    }
};

namespace {

int32_t typeOf(BLINIFILE* ini, Line& line)
{
    if (line.type < 0)
        line.type = static_cast<int8_t>(classify(ini->value(line)).type);
    return line.type;
}

bool checkHandle(const BLINIFILE* ini)
{
    if (ini)
        return true;
    BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null handle");
    return false;
}

// The key's line, or null with the reason recorded.
Line* lookup(BLINIFILE* ini, const char* section, const char* key)
{
    if (!checkHandle(ini))
        return nullptr;
    if (!section || !key) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null section or key name");
        return nullptr;
    }
    Line* line = ini->findKey(section, key);
    if (!line)
        BLERROR_Set(BLERR_KEY_NOT_FOUND, "'%s': no key '%s' in section '%s'", ini->fileName.c_str(),
            key, section);
    return line;
}

void notReadableAs(BLINIFILE* ini, const char* section, const char* key, const char* what)
{
    BLERROR_Set(BLERR_PARSE, "'%s': [%s] %s does not read as %s", ini->fileName.c_str(), section,
        key, what);
}

bool validName(std::string_view name, bool isKey)
{
    if (name.find_first_of("[]=\n\r") != std::string_view::npos || !isUtf8(name))
        return false;
    return !isKey || (!name.empty() && name[0] != ';' && name[0] != '#');
}

int32_t writeValue(BLINIFILE* ini, const char* section, const char* key, const std::string& value)
{
    if (!checkHandle(ini))
        return 0;
    if (!section || !key) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null section or key name");
        return 0;
    }
    const std::string_view sectionName = trim(section);
    const std::string_view keyName = trim(key);
    if (!validName(sectionName, false) || !validName(keyName, true)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: invalid name [%s] %s", section, key);
        return 0;
    }
    ini->write(sectionName, keyName, value);
    ini->writes.push_back({std::string(sectionName), std::string(keyName), value});
    return 1;
}

// "scheme://" that the I/O layer hands to a handler other than the local one.
bool isLocal(std::string_view path, std::string_view* local)
{
    *local = path;
    const size_t colon = path.find("://");
    if (colon == std::string_view::npos || colon == 0)
        return true;
    const std::string_view scheme = path.substr(0, colon);
    const auto schemeChar = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '+'
            || c == '-' || c == '.';
    };
    const bool letter
        = (scheme[0] >= 'a' && scheme[0] <= 'z') || (scheme[0] >= 'A' && scheme[0] <= 'Z');
    if (!letter || !std::all_of(scheme.begin(), scheme.end(), schemeChar))
        return true;
    if (!equalsNoCase(scheme, "file"))
        return false;
    local->remove_prefix(colon + 3);
    return true;
}

bool readThroughLayer(const char* path, std::string& content)
{
    _HFile* file = BLIO_Open(path, "r");
    if (!file)
        return false;
    content.clear();
    char block[65536];
    for (;;) {
        const int64_t n = BLIO_ReadData(file, block, sizeof block);
        if (n < 0) {
            BLIO_CloseFile(file);
            return false;
        }
        if (n == 0)
            break;
        content.append(block, static_cast<size_t>(n));
    }
    BLIO_CloseFile(file);
    return true;
}

// Saves to a local file under the lock its writers share. To the handle's own file, the file
// as it is now gets the handle's writes since it was read (others may have changed it since);
// to another file, the handle's content as it stands. A file there that is not text is never
// replaced.
bool saveLocal(BLINIFILE* ini, const char* path, const std::string& local)
{
    sova::FileLock lock;
    if (!lock.acquire(local))
        return false;
    std::string content;
    const int32_t code = BLERROR_LastCode();
    const std::string message = BLERROR_LastMessage();
    const bool exists = sova::readWholeFile(local, content);
    if (!exists && BLERROR_LastCode() != BLERR_NOT_FOUND)
        return false;
    if (!exists) // a new file: nothing failed
        code == BLERR_NONE ? BLERROR_Clear() : BLERROR_Set(code, "%s", message.c_str());
    bool nul = false;
    const size_t bad = exists ? invalidUtf8At(content, &nul) : std::string::npos;
    if (bad != std::string::npos) {
        BLERROR_Set(BLERR_PARSE, "'%s' is not an ini file (%s at byte %zu): not replaced", path,
            nul ? "NUL byte" : "invalid UTF-8", bad);
        return false;
    }
    std::string text;
    if (ini->fileName == path) {
        BLINIFILE current;
        current.load(std::move(content));
        for (const BLINIFILE::Write& w : ini->writes)
            current.write(w.section, w.key, w.value);
        text = current.serialise();
    } else {
        text = ini->serialise();
    }
    if (!sova::writeFileAtomically(local, text, 0644))
        return false;
    if (ini->fileName == path)
        ini->writes.clear();
    return true;
}

} // namespace

extern "C" {

BLINIFILE* BLINIFILE_Open(const char* path)
{
    if (!path || !*path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null or empty path");
        return nullptr;
    }
    std::string content;
    std::string_view local;
    const bool read = isLocal(path, &local) ? sova::readWholeFile(std::string(local), content)
                                            : readThroughLayer(path, content);
    if (!read)
        return nullptr;
    bool nul;
    const size_t bad = invalidUtf8At(content, &nul);
    if (bad != std::string::npos) {
        BLERROR_Set(BLERR_PARSE, "'%s' is not an ini file: %s at byte %zu", path,
            nul ? "NUL byte" : "invalid UTF-8", bad);
        return nullptr;
    }
    auto ini = std::make_unique<BLINIFILE>();
    ini->fileName = path;
    ini->load(std::move(content));
    return ini.release();
}

BLINIFILE* BLINIFILE_Create(const char* fileName)
{
    auto* ini = new BLINIFILE;
    if (fileName)
        ini->fileName = fileName;
    return ini;
}

int32_t BLINIFILE_Save(BLINIFILE* ini, const char* path)
{
    if (!checkHandle(ini))
        return 0;
    if (!path || !*path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null or empty path");
        return 0;
    }
    std::string_view local;
    if (isLocal(path, &local))
        return saveLocal(ini, path, std::string(local)) ? 1 : 0;
    const std::string text = ini->serialise();
    _HFile* file = BLIO_Open(path, "w");
    if (!file)
        return 0;
    const bool written = BLIO_WriteData(file, text.data(), static_cast<int64_t>(text.size()))
        == static_cast<int64_t>(text.size());
    const bool closed = BLIO_CloseFile(file) == 1;
    return written && closed ? 1 : 0;
}

void BLINIFILE_Close(BLINIFILE* ini)
{
    delete ini;
}

int32_t BLINIFILE_ExistSection(BLINIFILE* ini, const char* section)
{
    if (!checkHandle(ini))
        return 0;
    return section && ini->findSection(section) >= 0 ? 1 : 0;
}

int32_t BLINIFILE_ExistSectionKey(BLINIFILE* ini, const char* section, const char* key)
{
    if (!checkHandle(ini))
        return 0;
    return section && key && ini->findKey(section, key) ? 1 : 0;
}

int32_t BLINIFILE_KeyType(BLINIFILE* ini, const char* section, const char* key)
{
    Line* line = lookup(ini, section, key);
    return line ? typeOf(ini, *line) : -1;
}

int64_t BLINIFILE_ReadIntegerValue(
    BLINIFILE* ini, const char* section, const char* key, int64_t defaultValue)
{
    Line* line = lookup(ini, section, key);
    if (!line)
        return defaultValue;
    const Value value = classify(ini->value(*line));
    if (value.type == BLINI_TYPE_INTEGER || value.type == BLINI_TYPE_HEX)
        return value.integer;
    // Truncated toward zero when the whole part fits; -2^63 <= x < 2^63.
    if (isFloating(value.type) && value.number >= -9223372036854775808.0
        && value.number < 9223372036854775808.0)
        return static_cast<int64_t>(value.number);
    notReadableAs(ini, section, key, "an integer");
    return defaultValue;
}

double BLINIFILE_ReadFloatValue(
    BLINIFILE* ini, const char* section, const char* key, double defaultValue)
{
    Line* line = lookup(ini, section, key);
    if (!line)
        return defaultValue;
    const Value value = classify(ini->value(*line));
    if (value.type == BLINI_TYPE_INTEGER || value.type == BLINI_TYPE_HEX)
        return static_cast<double>(value.integer);
    if (isFloating(value.type))
        return value.number;
    notReadableAs(ini, section, key, "a number");
    return defaultValue;
}

// Booleans read as such; integers read as true when not zero.
int32_t BLINIFILE_ReadBooleanValue(
    BLINIFILE* ini, const char* section, const char* key, int32_t defaultValue)
{
    Line* line = lookup(ini, section, key);
    if (!line)
        return defaultValue;
    const Value value = classify(ini->value(*line));
    if (value.type == BLINI_TYPE_BOOLEAN || value.type == BLINI_TYPE_INTEGER
        || value.type == BLINI_TYPE_HEX)
        return value.integer != 0 ? 1 : 0;
    notReadableAs(ini, section, key, "a boolean");
    return defaultValue;
}

const char* BLINIFILE_ReadCStringValue(
    BLINIFILE* ini, const char* section, const char* key, const char* defaultValue)
{
    Line* line = lookup(ini, section, key);
    if (!line)
        return defaultValue;
    if (!line->decoded) {
        auto text = std::make_unique<std::string>();
        if (!unquote(ini->value(*line), text.get()))
            text->assign(ini->value(*line));
        line->decoded = std::move(text);
    }
    return line->decoded->c_str();
}

int32_t BLINIFILE_WriteBooleanValue(
    BLINIFILE* ini, const char* section, const char* key, int32_t value)
{
    return writeValue(ini, section, key, value ? "true" : "false");
}

int32_t BLINIFILE_WriteIntegerValue(
    BLINIFILE* ini, const char* section, const char* key, int64_t value)
{
    return writeValue(ini, section, key, std::to_string(value));
}

int32_t BLINIFILE_WriteFloatValue(
    BLINIFILE* ini, const char* section, const char* key, double value)
{
    return writeValue(ini, section, key, formatFloat(value));
}

int32_t BLINIFILE_WriteCStringValue(
    BLINIFILE* ini, const char* section, const char* key, const char* value)
{
    if (!checkHandle(ini))
        return 0;
    if (!value || !isUtf8(value)) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "ini file: null or invalid UTF-8 value for %s",
            key ? key : "(null)");
        return 0;
    }
    const std::string_view text = value;
    const int32_t type = classify(text).type;
    const bool plain = (type == BLINI_TYPE_EMPTY || type == BLINI_TYPE_TEXT) && trim(text) == text
        && text.find_first_of("\r\n") == std::string_view::npos && text[0] != '"';
    return writeValue(ini, section, key, plain ? std::string(text) : quote(text));
}

BLSTRINGLIST BLINIFILE_ReadSectionsEx(BLINIFILE* ini, BLMEM_Descr* memory)
{
    if (!checkHandle(ini))
        return nullptr;
    std::vector<const char*> names;
    names.reserve(ini->sections.size());
    for (const Section& section : ini->sections)
        if (section.header >= 0 || !section.keys.empty())
            names.push_back(section.name.c_str());
    return BLSTRINGLIST_Create(memory, names.data(), static_cast<int32_t>(names.size()));
}

BLSTRINGLIST BLINIFILE_ReadSectionKeysEx(BLINIFILE* ini, const char* section, BLMEM_Descr* memory)
{
    if (!checkHandle(ini))
        return nullptr;
    const int64_t found = section ? ini->findSection(section) : -1;
    if (found < 0) {
        BLERROR_Set(BLERR_NOT_FOUND, "'%s': no section '%s'", ini->fileName.c_str(),
            section ? section : "(null)");
        return nullptr;
    }
    // Each name once, where it first appears (repeats are rare: only then is a set needed).
    const Section& s = ini->sections[static_cast<size_t>(found)];
    std::vector<std::string> texts;
    texts.reserve(s.index.size());
    std::unordered_set<std::string> seen;
    const bool repeats = s.index.size() != s.keys.size();
    for (uint32_t id : s.keys) {
        const std::string_view name = ini->name(ini->lines[id]);
        if (!repeats || seen.insert(lowered(name)).second)
            texts.emplace_back(name);
    }
    std::vector<const char*> names;
    names.reserve(texts.size());
    for (const std::string& text : texts)
        names.push_back(text.c_str());
    return BLSTRINGLIST_Create(memory, names.data(), static_cast<int32_t>(names.size()));
}

} // extern "C"
