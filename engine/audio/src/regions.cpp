// Region (marker) files: the tab-separated label text that audio editors export (and that
// "sova vad --labels" writes) and CUE sheets. Both are read and written whole through the
// foundation's I/O layer; plain paths are written to a temporary file beside the target that
// is then renamed over it, so readers never see half a file.
#include "backend.h"

#include <sova/audioformats.h>
#include <sova/blerror.h>
#include <sova/blio.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using sova::audio::setError;

const _sAUDIORegionFilter kFilters[] = {
    {1, AUDIOREGION_KIND_LABELS, "labels", "Label text (*.txt)", 0,
        AUDIOREGION_READ | AUDIOREGION_WRITE | AUDIOREGION_LISTED},
    {1, AUDIOREGION_KIND_CUE, "cue", "CUE sheet (*.cue)", 0,
        AUDIOREGION_READ | AUDIOREGION_WRITE | AUDIOREGION_LISTED},
};
constexpr int32_t kFilterCount = int32_t(sizeof(kFilters) / sizeof(kFilters[0]));

constexpr int64_t kMaxFileSize = 16 << 20; // region files are small; refuse anything larger
constexpr size_t kMaxLine = 4096; // bytes per line, without the line break
constexpr size_t kMaxLabel = sizeof(_audio_region::label) - 1;
constexpr int kMaxTracks = 99; // a CUE sheet numbers its tracks with two digits
constexpr double kCueFps = 75.0; // CD frames per second
constexpr long long kMaxCueMinutes = 9999;

const _sAUDIORegionFilter* findFilter(const char* tagName)
{
    if (!tagName)
        return nullptr;
    for (const auto& f : kFilters) {
        if (std::strcmp(f.tagName, tagName) == 0)
            return &f;
    }
    return nullptr;
}


// True when the n bytes at s are well-formed UTF-8 (no overlong forms or surrogates).
bool validUtf8(const char* s, size_t n)
{
    size_t i = 0;
    while (i < n) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        size_t more = 0;
        uint32_t cp = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            more = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            more = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            more = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + more >= n)
            return false;
        for (size_t k = 1; k <= more; ++k) {
            const unsigned char d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (d & 0x3F);
        }
        static const uint32_t minimum[] = {0, 0x80, 0x800, 0x10000};
        if (cp < minimum[more] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += more + 1;
    }
    return true;
}

// Copies a label into a region, cut at a character boundary when longer than the record holds.
void storeLabel(_audio_region& region, const std::string& label)
{
    size_t n = std::min(label.size(), kMaxLabel);
    while (n > 0 && n < label.size() && (static_cast<unsigned char>(label[n]) & 0xC0) == 0x80)
        --n;
    std::memcpy(region.label, label.data(), n);
    region.label[n] = '\0';
}

// Reads the whole file; false (recorded) on failure.
bool readWhole(const char* path, std::string& text)
{
    _HFile* io = BLIO_Open(path, "r");
    if (!io) {
        setError(BLERROR_LastCode(), "'%s': %s", path, BLERROR_LastMessage());
        return false;
    }
    text.clear();
    char buffer[65536];
    for (;;) {
        const int64_t n = BLIO_ReadData(io, buffer, sizeof buffer);
        if (n < 0) {
            setError(BLERROR_LastCode(), "'%s': %s", path, BLERROR_LastMessage());
            BLIO_CloseFile(io);
            return false;
        }
        if (n == 0)
            break;
        if (int64_t(text.size()) + n > kMaxFileSize) {
            setError(AUDIOERR_CORRUPT, "'%s': larger than %lld bytes, not a region file", path,
                static_cast<long long>(kMaxFileSize));
            BLIO_CloseFile(io);
            return false;
        }
        text.append(buffer, size_t(n));
    }
    BLIO_CloseFile(io);
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        text.erase(0, 3);
    return true;
}

// Splits text into lines (LF or CRLF); false (recorded) when a line is too long or not UTF-8.
bool splitLines(const char* path, const std::string& text, std::vector<std::string>& lines)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        const size_t next = end == std::string::npos ? text.size() : end + 1;
        if (end == std::string::npos)
            end = text.size();
        if (end > start && text[end - 1] == '\r')
            --end;
        const int number = int(lines.size()) + 1;
        if (end - start > kMaxLine) {
            setError(
                AUDIOERR_CORRUPT, "'%s', line %d: longer than %zu bytes", path, number, kMaxLine);
            return false;
        }
        if (!validUtf8(text.data() + start, end - start)) {
            setError(AUDIOERR_CORRUPT, "'%s', line %d: not UTF-8 text", path, number);
            return false;
        }
        if (std::memchr(text.data() + start, '\0', end - start)) {
            setError(AUDIOERR_CORRUPT, "'%s', line %d: contains a NUL byte", path, number);
            return false;
        }
        lines.emplace_back(text, start, end - start);
        start = next;
    }
    return true;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Parses a non-negative finite number of seconds at p (locale-independent); advances p.
bool parseSeconds(const char*& p, const char* end, double& value)
{
    const auto r = std::from_chars(p, end, value, std::chars_format::general);
    if (r.ec != std::errc() || !std::isfinite(value) || value < 0.0)
        return false;
    p = r.ptr;
    return true;
}

int32_t readLabels(const char* path, const std::vector<std::string>& lines, _audio_region* regions,
    int32_t capacity)
{
    int32_t count = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const int number = int(i) + 1;
        const char* p = line.data();
        const char* end = p + line.size();
        while (p < end && isBlank(*p))
            ++p;
        // Empty lines, and the frequency range lines that follow spectral labels.
        if (p == end || *p == '\\')
            continue;
        double begin = 0, finish = 0;
        if (!parseSeconds(p, end, begin) || p == end || !isBlank(*p)) {
            setError(
                AUDIOERR_CORRUPT, "'%s', line %d: expected a begin time in seconds", path, number);
            return -1;
        }
        while (p < end && isBlank(*p))
            ++p;
        if (!parseSeconds(p, end, finish) || (p != end && !isBlank(*p))) {
            setError(
                AUDIOERR_CORRUPT, "'%s', line %d: expected an end time in seconds", path, number);
            return -1;
        }
        if (finish < begin) {
            setError(
                AUDIOERR_CORRUPT, "'%s', line %d: the region ends before it begins", path, number);
            return -1;
        }
        // One tab separates the label, which keeps any blanks of its own; blanks otherwise.
        if (p < end && *p == '\t') {
            ++p;
        } else {
            while (p < end && isBlank(*p))
                ++p;
        }
        if (count < capacity) {
            _audio_region& r = regions[count];
            r.begin = begin;
            r.end = finish;
            storeLabel(r, std::string(p, end));
            ++count;
        }
    }
    return count;
}

// The next blank-separated word of a CUE line at p; advances p.
std::string cueWord(const char*& p, const char* end)
{
    while (p < end && isBlank(*p))
        ++p;
    const char* start = p;
    while (p < end && !isBlank(*p))
        ++p;
    return std::string(start, p);
}

// The rest of a CUE line as text: between the first and the last double quote when quoted
// (so quotes inside a title survive), otherwise the remaining words as written.
bool cueText(const char* p, const char* end, std::string& text)
{
    while (p < end && isBlank(*p))
        ++p;
    while (end > p && isBlank(end[-1]))
        --end;
    if (p < end && *p == '"') {
        if (end - p < 2 || end[-1] != '"')
            return false;
        text.assign(p + 1, end - 1);
    } else {
        text.assign(p, end);
    }
    return true;
}

// The file name of a FILE line at p: quoted (up to the last quote, before the file type) or
// the first word.
std::string cueFileName(const char* p, const char* end)
{
    while (p < end && isBlank(*p))
        ++p;
    if (p == end || *p != '"')
        return cueWord(p, end);
    const char* last = end;
    while (last > p + 1 && last[-1] != '"')
        --last;
    return last > p + 1 ? std::string(p + 1, last - 1) : std::string(p + 1, end);
}

bool parseCueTime(const std::string& word, double& seconds)
{
    long long mm = 0, ss = 0, ff = 0;
    const char* p = word.data();
    const char* end = p + word.size();
    for (long long* field : {&mm, &ss, &ff}) {
        const char* start = p;
        const auto r = std::from_chars(p, end, *field);
        if (r.ec != std::errc() || r.ptr == start || r.ptr - start > 4)
            return false;
        p = r.ptr;
        if (field != &ff) {
            if (p == end || *p != ':')
                return false;
            ++p;
        }
    }
    if (p != end || mm < 0 || mm > kMaxCueMinutes || ss < 0 || ss > 59 || ff < 0 || ff > 74)
        return false;
    seconds = double(mm * 60 + ss) + double(ff) / kCueFps;
    return true;
}

bool iequals(const std::string& a, const char* b)
{
    const size_t n = std::strlen(b);
    if (a.size() != n)
        return false;
    for (size_t i = 0; i < n; ++i) {
        if (std::toupper(static_cast<unsigned char>(a[i])) != static_cast<unsigned char>(b[i]))
            return false;
    }
    return true;
}

int32_t readCue(const char* path, const std::vector<std::string>& lines, _audio_region* regions,
    int32_t capacity)
{
    struct Track
    {
        int number;
        int line;
        double start = -1.0;
        std::string title;
    };
    std::vector<Track> tracks;
    int files = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const int number = int(i) + 1;
        const char* p = line.data();
        const char* end = p + line.size();
        const std::string keyword = cueWord(p, end);
        if (keyword.empty() || iequals(keyword, "REM"))
            continue;
        if (iequals(keyword, "FILE")) {
            if (++files > 1) {
                setError(AUDIOERR_UNSUPPORTED, "'%s', line %d: more than one FILE", path, number);
                return -1;
            }
            // The sheet is not the program that formatted a memory address: never pass one on.
            const std::string file = cueFileName(p, end);
            if (BLIO_NamesMemoryAddress(file.c_str())) {
                setError(AUDIOERR_CORRUPT,
                    "'%s', line %d: FILE '%s' names a memory address, not a file", path, number,
                    file.c_str());
                return -1;
            }
        } else if (iequals(keyword, "TRACK")) {
            const std::string word = cueWord(p, end);
            int n = 0;
            const auto r = std::from_chars(word.data(), word.data() + word.size(), n);
            if (word.empty() || r.ec != std::errc() || r.ptr != word.data() + word.size() || n < 1
                || n > kMaxTracks) {
                setError(AUDIOERR_CORRUPT, "'%s', line %d: invalid track number", path, number);
                return -1;
            }
            if (int(tracks.size()) >= kMaxTracks) {
                setError(AUDIOERR_CORRUPT, "'%s', line %d: more than %d tracks", path, number,
                    kMaxTracks);
                return -1;
            }
            tracks.push_back(Track {n, number, -1.0, std::string()});
        } else if (iequals(keyword, "TITLE")) {
            if (tracks.empty())
                continue; // the title of the whole disc
            if (!cueText(p, end, tracks.back().title)) {
                setError(
                    AUDIOERR_CORRUPT, "'%s', line %d: unterminated quoted title", path, number);
                return -1;
            }
        } else if (iequals(keyword, "INDEX")) {
            const std::string index = cueWord(p, end);
            const std::string time = cueWord(p, end);
            double seconds = 0;
            if (tracks.empty() || index.empty() || !parseCueTime(time, seconds)
                || !cueWord(p, end).empty()) {
                setError(AUDIOERR_CORRUPT, "'%s', line %d: invalid INDEX", path, number);
                return -1;
            }
            if (index == "01" || index == "1") {
                if (tracks.size() > 1) {
                    const Track& previous = tracks[tracks.size() - 2];
                    if (previous.start > seconds) {
                        setError(AUDIOERR_CORRUPT,
                            "'%s', line %d: track starts before the "
                            "previous one",
                            path, number);
                        return -1;
                    }
                }
                tracks.back().start = seconds;
            }
        }
        // PERFORMER, FLAGS, ISRC, PREGAP, CATALOG and the like carry nothing for a region.
    }
    for (const Track& t : tracks) {
        if (t.start < 0) {
            setError(AUDIOERR_CORRUPT, "'%s', line %d: track %d has no INDEX 01", path, t.line,
                t.number);
            return -1;
        }
    }
    const int32_t count = std::min<int32_t>(capacity, int32_t(tracks.size()));
    for (int32_t i = 0; i < count; ++i) {
        regions[i].begin = tracks[size_t(i)].start;
        regions[i].end
            = size_t(i) + 1 < tracks.size() ? tracks[size_t(i) + 1].start : tracks[size_t(i)].start;
        storeLabel(regions[i], tracks[size_t(i)].title);
    }
    return count;
}

// Seconds with 6 decimals, whatever the C locale.
void appendSeconds(std::string& out, double seconds)
{
    char buffer[64];
    const auto r
        = std::to_chars(buffer, buffer + sizeof buffer, seconds, std::chars_format::fixed, 6);
    out.append(buffer, r.ptr);
}

bool hasLineBreak(const char* text)
{
    return std::strpbrk(text, "\r\n") != nullptr;
}

// Checks a region for writing; false (recorded) when it cannot be stored.
bool checkRegion(const char* path, const _audio_region& r, int32_t index)
{
    if (!std::isfinite(r.begin) || !std::isfinite(r.end) || r.begin < 0 || r.end < r.begin) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': region %d has invalid times (%g to %g)", path,
            index + 1, r.begin, r.end);
        return false;
    }
    const void* nul = std::memchr(r.label, '\0', sizeof r.label);
    if (!nul) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': the label of region %d is not terminated", path,
            index + 1);
        return false;
    }
    const size_t n = size_t(static_cast<const char*>(nul) - r.label);
    if (!validUtf8(r.label, n) || hasLineBreak(r.label)) {
        setError(BLERR_INVALID_ARGUMENT,
            "'%s': the label of region %d is not one line of UTF-8 text", path, index + 1);
        return false;
    }
    return true;
}

bool formatLabels(const char* path, const _audio_region* regions, int32_t count, std::string& out)
{
    for (int32_t i = 0; i < count; ++i) {
        if (!checkRegion(path, regions[i], i))
            return false;
        appendSeconds(out, regions[i].begin);
        out += '\t';
        appendSeconds(out, regions[i].end);
        out += '\t';
        out += regions[i].label;
        out += '\n';
    }
    return true;
}

// The audio file a CUE sheet names when the caller gives none: the sheet's own name with ".wav".
std::string defaultAudioFile(const std::string& path)
{
    const size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0)
        name.erase(dot);
    return name + ".wav";
}

bool formatCue(const char* path, const _audio_region* regions, int32_t count, const char* audioFile,
    std::string& out)
{
    if (count > kMaxTracks) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': a CUE sheet holds at most %d tracks, not %d", path,
            kMaxTracks, count);
        return false;
    }
    const std::string file = audioFile ? std::string(audioFile) : defaultAudioFile(path);
    if (BLIO_NamesMemoryAddress(file.c_str())) {
        setError(BLERR_INVALID_ARGUMENT,
            "'%s': the audio file '%s' names a memory address; a CUE sheet needs a file name", path,
            file.c_str());
        return false;
    }
    if (!validUtf8(file.data(), file.size()) || hasLineBreak(file.c_str())) {
        setError(
            BLERR_INVALID_ARGUMENT, "'%s': the audio file name is not one line of UTF-8", path);
        return false;
    }
    out += "FILE \"" + file + "\" WAVE\n";
    long long previous = -1;
    for (int32_t i = 0; i < count; ++i) {
        const _audio_region& r = regions[i];
        if (!checkRegion(path, r, i))
            return false;
        const long long frames = std::llround(r.begin * kCueFps);
        if (frames / 75 / 60 > kMaxCueMinutes) {
            setError(BLERR_INVALID_ARGUMENT, "'%s': region %d begins too late for a CUE sheet",
                path, i + 1);
            return false;
        }
        if (frames < previous) {
            setError(BLERR_INVALID_ARGUMENT,
                "'%s': region %d begins before the one it follows, a CUE sheet cannot say so", path,
                i + 1);
            return false;
        }
        previous = frames;
        char line[128];
        std::snprintf(line, sizeof line, "  TRACK %02d AUDIO\n", i + 1);
        out += line;
        out += "    TITLE \"";
        out += r.label;
        out += "\"\n";
        std::snprintf(line, sizeof line, "    INDEX 01 %02lld:%02lld:%02lld\n", frames / 75 / 60,
            frames / 75 % 60, frames % 75);
        out += line;
    }
    return true;
}


bool writeWhole(const char* path, const std::string& text)
{
    sova::audio::OutputPlan plan;
    if (!sova::audio::planOutput(path, plan))
        return false;
    const bool atomic = !plan.tempPath.empty();
    const std::string where = atomic ? plan.tempPath : std::string(path);
    _HFile* io = BLIO_Open(where.c_str(), plan.stream ? "wo" : "w");
    if (!io) {
        setError(BLERROR_LastCode(), "'%s': %s", path, BLERROR_LastMessage());
        if (atomic)
            sova::audio::discardTemporary(where);
        return false;
    }
    // Written in place: a failure removes the half-written target unless it is a device, a
    // FIFO or a socket.
    BLIO_FileInfo info {};
    const bool removable = !atomic && !plan.stream
        && !(BLIO_GetFileInfo(io, &info) == 1 && !info.RegularFile);
    bool ok = BLIO_WriteData(io, text.data(), int64_t(text.size())) == int64_t(text.size());
    if (!ok)
        setError(BLERROR_LastCode() ? BLERROR_LastCode() : BLERR_WRITE_FAILED,
            "'%s': cannot write: %s", path, BLERROR_LastMessage());
    if (!BLIO_CloseFile(io) && ok) {
        ok = false;
        setError(BLERROR_LastCode(), "'%s': %s", path, BLERROR_LastMessage());
    }
    if (atomic) {
        if (ok && !sova::audio::commitTemporary(where, plan.target)) {
            ok = false;
            setError(BLERROR_LastCode(), "'%s': %s", path, BLERROR_LastMessage());
        }
        if (!ok)
            sova::audio::discardTemporary(where);
    } else if (!ok && removable) {
        const int32_t code = BLERROR_LastCode();
        const std::string message = BLERROR_LastMessage();
        BLIO_RemoveFile(where.c_str());
        BLERROR_Set(code, "%s", message.c_str());
    }
    return ok;
}

} // namespace

extern "C" {

int32_t AUDIO_GetExternalRegionFilters(const _sAUDIORegionFilter** filters, int32_t capacity)
{
    if (!filters || capacity <= 0)
        return 0;
    const int32_t n = std::min(capacity, kFilterCount);
    for (int32_t i = 0; i < n; ++i)
        filters[i] = &kFilters[i];
    return n;
}

int32_t AUDIO_ReadRegions(
    const char* path, const char* tagName, _audio_region* regions, int32_t capacity)
{
    if (!path || capacity < 0 || (!regions && capacity > 0)) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': no room given to read regions", path ? path : "");
        return -1;
    }
    const _sAUDIORegionFilter* filter = findFilter(tagName);
    if (!filter || !(filter->flags & AUDIOREGION_READ)) {
        setError(AUDIOERR_UNKNOWN_FORMAT, "'%s': unknown region file format '%s'", path,
            tagName ? tagName : "");
        return -1;
    }
    std::string text;
    std::vector<std::string> lines;
    if (!readWhole(path, text) || !splitLines(path, text, lines))
        return -1;
    text.clear();
    text.shrink_to_fit();
    return filter->kind == AUDIOREGION_KIND_CUE ? readCue(path, lines, regions, capacity)
                                                : readLabels(path, lines, regions, capacity);
}

int32_t AUDIO_WriteRegions(const char* path, const char* tagName, const _audio_region* regions,
    int32_t count, const char* audioFile)
{
    if (!path || !*path || count < 0 || (!regions && count > 0)) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': no regions given to write", path ? path : "");
        return 0;
    }
    const _sAUDIORegionFilter* filter = findFilter(tagName);
    if (!filter || !(filter->flags & AUDIOREGION_WRITE)) {
        setError(AUDIOERR_UNKNOWN_FORMAT, "'%s': unknown region file format '%s'", path,
            tagName ? tagName : "");
        return 0;
    }
    std::string text;
    const bool ok = filter->kind == AUDIOREGION_KIND_CUE
        ? formatCue(path, regions, count, audioFile, text)
        : formatLabels(path, regions, count, text);
    if (!ok || !writeWhole(path, text))
        return 0;
    return 1;
}

} // extern "C"
