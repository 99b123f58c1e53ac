// Inside the audio engine: the parsed format string, and the reader and writer interfaces
// that the file layer (files.cpp) drives and the backends (libsndfile, FFmpeg) implement.
#ifndef SOVA_AUDIO_BACKEND_H
#define SOVA_AUDIO_BACKEND_H

#include <sova/audio.h>
#include <sova/blio.h>

#include <cctype>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sova::audio {

// A parsed format string. Numbers left at 0 (or -1 for kbps/quality/dither) were not given.
struct FormatRequest
{
    std::string name; // lower-cased name as written, "" when none
    uint32_t container = 0; // AUDIO_CONTAINER_*, 0 = not given (detect / from extension)
    uint32_t coder = 0; // AUDIO_CODEC_* with flag bit, 0 = the container's default
    int32_t sampleRate = 0;
    int32_t numChannels = 0;
    int32_t bitsPerSample = 0;
    int32_t kbps = -1;
    int32_t quality = -1;
    int32_t dither = -1; // AUDIODITHER_*, -1 = the default kind
    int32_t endian = 0; // 0 = container default, 1 = little, 2 = big
    std::string options; // the bracketed option string as written
    // Writing: a flavour of the container named by the format string or the extension that
    // needs a muxer of its own ("webm" for Matroska), "" for the usual one.
    std::string flavour;
};

// Parses a format string; false (error recorded) when the name is unknown or an option value
// is out of range.
bool parseFormatString(const char* text, FormatRequest& request);

// What a reader knows of its stream.
struct StreamInfo
{
    _audio_format format {}; // rate, channels, resolution, container, coder, pooled texts
    int64_t frames = -1; // total frames, -1 unknown
    int64_t bitRate = 0; // bit/s of the stored stream, 0 unknown
    bool seekable = false;
    // frames is the container's own count (PCM sizes, FLAC, Ogg granules, MP4 tables) rather
    // than a guess from a first header or a bit rate; either way reading goes on to the end.
    bool framesExact = true;
    // frames is what reading gives, no more (libsndfile's sizes of PCM data): reads stop there.
    bool framesFinal = false;
};

// Damage a reader met so far: stretches it resynchronised past, and a cut-off end.
struct DamageInfo
{
    int32_t stretches = 0;
    bool truncated = false;
    double firstSeconds = -1.0; // where the first stretch starts
    double secondsLost = 0.0; // audio missing from the output, as far as timestamps tell
};

// Decodes one stream. Samples are interleaved floats normalised to +-1.0.
class Reader
{
public:
    virtual ~Reader() = default;
    virtual const StreamInfo& info() const = 0;
    // Frames read into dst (frames * channels floats), 0 at the end, -1 on error (recorded).
    virtual int64_t read(float* dst, int64_t frames) = 0;
    // The same as signed 16-bit integers; the default converts from read() with rounding and
    // clipping. Backends with a native integer path override it.
    virtual int64_t read16(int16_t* dst, int64_t frames);
    // Moves to a frame; false (recorded) when not possible.
    virtual bool seek(int64_t frame) = 0;
    // What the reader salvaged past; null when it keeps no account (then none was met).
    virtual const DamageInfo* damage() const { return nullptr; }
};

// Encodes one stream. The file layer has already clipped nothing: encoders clip as they must.
class Writer
{
public:
    virtual ~Writer() = default;
    // Frames written from src (interleaved, +-1.0), -1 on error (recorded).
    virtual int64_t write(const float* src, int64_t frames) = 0;
    // Signed 16-bit integers; the default converts to float. Backends with an integer path
    // override it (the file layer uses it after dithering for targets of 16 bits or fewer).
    virtual int64_t write16(const int16_t* src, int64_t frames);
    // Bytes already in the stored form (whole frames), -1 (recorded) where the backend cannot
    // take them: the default.
    virtual int64_t writeRaw(const void* bytes, int64_t count);
    // Flushes encoders and finishes headers; false (recorded) on failure. Called once.
    virtual bool finish() = 0;
    // The format being written.
    virtual const _audio_format& format() const = 0;
};

// Backends. `io` is an open foundation handle the reader or writer borrows; the caller closes
// it after destroying the reader or writer. `path` is used in messages only. Each returns null
// with an error recorded. For reading, request.container == 0 asks the backend to detect.
std::unique_ptr<Reader> openSndfileReader(
    _HFile* io, const std::string& path, const FormatRequest& request);
std::unique_ptr<Writer> openSndfileWriter(
    _HFile* io, const std::string& path, const FormatRequest& request, const _audio_format& fmt);
std::unique_ptr<Reader> openFfmpegReader(
    _HFile* io, const std::string& path, const FormatRequest& request);
std::unique_ptr<Writer> openFfmpegWriter(_HFile* io, const std::string& path,
    const FormatRequest& request, const _audio_format& fmt, const char* metadata);
// Turns FFmpeg's own log off, once per process: its reasons reach callers as error messages.
void quietFfmpegLogs();
// True when the backend writes this container/codec pair (coder 0 = container default).
bool sndfileWrites(uint32_t container, uint32_t coder);
bool ffmpegWrites(uint32_t container, uint32_t coder);

// A remix from one channel layout to another through AUDIO_ChannelMixMatrix (a mask of 0, or
// one whose speaker count differs from the channel count, stands for the count's default).
struct ChannelMap
{
    ChannelMap(int32_t inChannels, uint32_t inMask, int32_t outChannels, uint32_t outMask);
    // Interleaved frames; src and dst may be the same buffer only for an identity.
    void apply(const float* src, float* dst, int64_t frames) const;
    int32_t in, out;
    bool identity = false;
    std::vector<float> matrix; // out x in, row-major
};

// One-off remix of interleaved frames (see ChannelMap).
void mapChannels(const float* in, int32_t inChannels, uint32_t inMask, float* out,
    int32_t outChannels, uint32_t outMask, int64_t frames);

// The layout of a format: its own mask, else the default for its channel count.
uint32_t layoutOf(const _audio_format& format);
// The "chmask=N" option of a format string when it names `channels` speakers, else 0.
uint32_t requestedChannelMask(const FormatRequest& request, int32_t channels);
// codecInfo with its "chmask" item replaced by mask (0: removed), pooled; null when empty.
const char* withChannelMask(const char* codecInfo, uint32_t mask);

// Wraps a reader so that it delivers rate `sampleRate` and `numChannels` channels (0 = keep)
// in the layout `channelMask` (0 = the default for the count).
std::unique_ptr<Reader> convertingReader(std::unique_ptr<Reader> source, int32_t sampleRate,
    int32_t numChannels, uint32_t channelMask = 0);

// Tables of formats.cpp. Container of a file extension without the dot ("wav", "M4A"), 0 when
// unknown; the codec a container gets when the format string names none; whether a codec is
// lossy (perceptual: MP3, Vorbis, AAC, ...), so that dithering makes no sense for it; the
// resolution a codec stores (16 for ADPCM and lossy codecs, which decode to 16-bit quality).
uint32_t containerFromExtension(const std::string& extension);
uint32_t defaultCoder(uint32_t container);
// The codec a container name or extension stands for when it differs from the container's
// default (".mp2" -> Layer II, ".webm" -> Opus), 0 otherwise.
uint32_t coderForName(const std::string& nameOrExtension);
bool isLossyCoder(uint32_t coder);
// The container a bare codec name implies ("vorbis" -> Ogg Vorbis, "pcm24" -> WAV), 0 for none.
uint32_t containerForCodec(uint32_t coder);
int32_t coderBits(uint32_t coder);
// Mime type of a container (persistent text), null when it has none.
const char* containerMimeType(uint32_t container);

// True when a path names a scheme ("qfile://...", "hfile://..."): such targets are written in
// place; plain paths are written beside the target and renamed into place.
bool hasScheme(const std::string& path);
// A new file beside a plain target to write it through: unnamed (O_TMPFILE, opened by the
// path returned) where the file system has them, so that nothing is left behind whatever
// ends the process; else "<dir>/.<name>.sova-XXXXXX". It gets the target's mode, or the mode
// a plain create would give. "" with the reason recorded on failure.
std::string makeTempBeside(const std::string& target);
// The unnamed kind of the above, or "" when the file system or the system lacks it.
std::string makeUnnamedBeside(const std::string& target);
// Puts a temporary in place of target: syncs its data, renames it (or names it) over target
// and syncs the directory. false, recorded, on failure: the temporary is then still to drop.
bool commitTemporary(const std::string& temp, const std::string& target);
// Drops a temporary that is not committed; the error slot is kept.
void discardTemporary(const std::string& temp);

// Where a file written to path goes (outputs.cpp). Standard output ("-"), devices, FIFOs and
// sockets are written in place and never removed (stream); a symbolic link is kept and the
// file at the end of its chain replaced through a temporary beside it; other schemes are
// written in place. false (recorded) for a directory or a loop of links.
struct OutputPlan
{
    std::string target; // the file renamed into place (links resolved), or the path itself
    std::string tempPath; // "" when written in place
    bool stream = false;
};
bool planOutput(const std::string& path, OutputPlan& plan);
// The registry of temporary files that AUDIO_RemoveTemporaryFiles empties: a temporary is
// registered while it may be left behind, and released once renamed or removed.
void registerTemporary(const std::string& path);
void releaseTemporary(const std::string& path);
// A temporary file, already unlinked, open for reading and writing: for streams that cannot
// seek. forPath names the stream in messages. Null (recorded) on failure.
_HFile* openSpool(const std::string& forPath);

// Text helpers of the parsers: a lower-cased copy; a copy without surrounding blanks.
inline std::string lowered(std::string text)
{
    for (char& ch : text)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    return text;
}
inline std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Records an engine error in the calling thread's slot (printf-style message).
void setError(int32_t code, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// Pooled persistent copy of a text (never freed), null for null.
const char* pooled(const char* text);

} // namespace sova::audio

#endif
