// The format-string language of audio.h: "name[key=value,...]".
//
//   name     a container ("wav", "flac", "m4a") or a codec ("pcm24", "vorbis", "ulaw"); a codec
//            alone leaves the container to the file layer, which puts PCM-family codecs in WAV
//            and the others in their usual container. A name that is both ("flac", "mp2",
//            "opus") sets both codes. Empty: detect (reading) or use the extension (writing).
//   options  sr|samplerate|rate          10..500000 Hz
//            nch|nc|channels             1..8
//            nbits|resolution            4, 8, 16, 24, 32, 64
//            codec                       a codec name inside the container
//            kbps|bitrate                1..3200
//            quality                     0..10
//            endian                      little|big
//            dither                      none|rectangular|triangular
//            Keys in any case; other keys are left to the backends (request.options).
#include "backend.h"

#include <sova/blstring.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <initializer_list>

namespace sova::audio {

namespace {

// The first of the alias keys present in options, or null.
const char* presentKey(const char* options, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
        if (BLSTRING_KeyExistsInString(options, key))
            return key;
    return nullptr;
}

// Reads an integer option under any of its aliases into *value (left alone when absent).
// false when present but not a number within [low, high].
bool readInteger(const char* options, std::initializer_list<const char*> keys, int64_t low,
                 int64_t high, int32_t* value, const char* text)
{
    const char* key = presentKey(options, keys);
    if (!key)
        return true;
    const int64_t sentinel = INT64_MIN;
    const int64_t v = BLSTRING_GetInteger64ValueFromString(options, key, sentinel);
    if (v == sentinel || v < low || v > high) {
        setError(AUDIOERR_INVALID_FORMAT,
                 "format '%s': %s must be a whole number from %lld to %lld", text, key,
                 static_cast<long long>(low), static_cast<long long>(high));
        return false;
    }
    *value = static_cast<int32_t>(v);
    return true;
}

// Reads a short word option (lower-cased) into word; false when present but empty or too long.
bool readWord(const char* options, const char* key, std::string& word, const char* text)
{
    if (!BLSTRING_KeyExistsInString(options, key))
        return true;
    char buffer[64];
    if (!BLSTRING_GetStringValueFromString(options, key, "", buffer, sizeof buffer - 1)
        || buffer[0] == '\0') {
        setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': %s needs a value", text, key);
        return false;
    }
    word = lowered(trimmed(buffer));
    return true;
}

// Why an option list is not "key[=value],..." in the option-string syntax, or null. Brackets
// and quotes may open a value and must close it; anywhere else they are junk that the
// option-string readers would silently skip ("wav[[[]]]").
const char* optionListProblem(const std::string& list)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    const auto keyChar = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
    };
    const size_t n = list.size();
    size_t i = 0;
    while (i <= n) {
        while (i < n && blank(list[i]))
            ++i;
        const size_t key = i;
        while (i < n && keyChar(list[i]))
            ++i;
        const bool named = i > key;
        while (i < n && blank(list[i]))
            ++i;
        const bool valued = i < n && list[i] == '=';
        if (valued) {
            if (!named)
                return "an option without a name";
            for (++i; i < n && blank(list[i]); ++i) { }
            if (i < n && (list[i] == '"' || list[i] == '\'')) {
                const char quote = list[i++];
                while (i < n && list[i] != quote)
                    i += list[i] == '\\' && i + 1 < n ? 2 : 1;
                if (i >= n)
                    return "a quote is not closed";
                ++i;
            } else if (i < n && list[i] == '[') {
                int depth = 0;
                do {
                    depth += list[i] == '[' ? 1 : list[i] == ']' ? -1 : 0;
                    ++i;
                } while (i < n && depth > 0);
                if (depth > 0)
                    return "a '[' is not closed";
            } else {
                while (i < n && list[i] != ',') {
                    if (list[i] == '[' || list[i] == ']')
                        return "a bracket inside a value (quote the value)";
                    i += list[i] == '\\' && i + 1 < n ? 2 : 1;
                }
            }
            while (i < n && blank(list[i]))
                ++i;
        }
        if (i < n && list[i] != ',')
            return valued ? "junk after a value"
                          : "an option name may hold only letters, digits and '_', '-', '.'";
        ++i; // past ',' or the end
    }
    return nullptr;
}

} // namespace

bool parseFormatString(const char* text, FormatRequest& request)
{
    request = FormatRequest();
    if (!text)
        return true;
    const std::string all = trimmed(text);
    if (all.empty())
        return true;

    std::string name = all;
    const size_t open = all.find('[');
    if (open != std::string::npos) {
        if (all.back() != ']') {
            setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': the option list is not closed by ']'",
                     text);
            return false;
        }
        name = trimmed(all.substr(0, open));
        request.options = all.substr(open + 1, all.size() - open - 2);
    } else if (all.find(']') != std::string::npos) {
        setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': ']' without '['", text);
        return false;
    }

    request.name = lowered(name);
    if (!request.name.empty()) {
        request.container = AUDIODEF_ContainerFromName(request.name.c_str());
        request.coder = AUDIODEF_CodecFromName(request.name.c_str());
        if (request.container == 0 && request.coder == 0) {
            setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': unknown format name '%s'", text,
                     name.c_str());
            return false;
        }
    }

    if (const char* problem = optionListProblem(request.options)) {
        setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': %s", text, problem);
        return false;
    }

    const char* options = request.options.c_str();
    if (!readInteger(options, {"sr", "samplerate", "rate"}, 10, 500000, &request.sampleRate, text)
        || !readInteger(options, {"nch", "nc", "channels"}, 1, 8, &request.numChannels, text)
        || !readInteger(options, {"nbits", "resolution"}, 4, 64, &request.bitsPerSample, text)
        || !readInteger(options, {"kbps", "bitrate"}, 1, 3200, &request.kbps, text)
        || !readInteger(options, {"quality"}, 0, 10, &request.quality, text))
        return false;
    switch (request.bitsPerSample) {
    case 0: case 4: case 8: case 16: case 24: case 32: case 64:
        break;
    default:
        setError(AUDIOERR_INVALID_FORMAT, "format '%s': nbits must be 4, 8, 16, 24, 32 or 64",
                 text);
        return false;
    }

    std::string word;
    if (!readWord(options, "codec", word, text))
        return false;
    if (!word.empty()) {
        const uint32_t coder = AUDIODEF_CodecFromName(word.c_str());
        if (coder == 0) {
            setError(AUDIOERR_UNKNOWN_FORMAT, "format '%s': unknown codec '%s'", text,
                     word.c_str());
            return false;
        }
        request.coder = coder;
    }

    word.clear();
    if (!readWord(options, "endian", word, text))
        return false;
    if (word == "little") {
        request.endian = 1;
    } else if (word == "big") {
        request.endian = 2;
    } else if (!word.empty()) {
        setError(AUDIOERR_INVALID_FORMAT, "format '%s': endian must be little or big", text);
        return false;
    }

    word.clear();
    if (!readWord(options, "dither", word, text))
        return false;
    if (!word.empty()) {
        request.dither = AUDIODITHER_KindFromString(word.c_str());
        if (request.dither < 0) {
            setError(AUDIOERR_INVALID_FORMAT,
                     "format '%s': dither must be none, rectangular or triangular", text);
            return false;
        }
    }
    return true;
}

} // namespace sova::audio

extern "C" int32_t AUDIO_CheckFormatString(const char* format)
{
    sova::audio::FormatRequest request;
    return sova::audio::parseFormatString(format, request) ? 1 : 0;
}
