// The audio-file functions of audio.h: opening through the I/O layer, backend dispatch, the
// three sample kinds, dithering, the read window, atomic creation and whole-file conversion.
#include "backend.h"

#include <sova/blerror.h>
#include <sova/blio.h>
#include <sova/blstring.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace sova::audio;

namespace {

// Frames moved per call inside the engine: bounds every temporary buffer whatever the caller
// asks for. Budgets in samples keep files with many channels from growing the buffers.
constexpr int64_t kSampleBudget = 32768;
constexpr int64_t kConvertFrames = 8192;
// Readers may report up to this many channels (libsndfile's own limit); anything above is
// taken as a corrupt header.
constexpr int32_t kMaxReadChannels = 1024;
constexpr int32_t kMaxReadRate = 10000000;

int64_t blockFrames(int32_t channels)
{
    return std::max<int64_t>(1, kSampleBudget / std::max<int32_t>(1, channels));
}

bool isPcmInteger(uint32_t coder)
{
    switch (coder & AUDIO_CODEC_MASK) {
    case AUDIO_CODEC_PCM16:
    case AUDIO_CODEC_PCM_U8:
    case AUDIO_CODEC_PCM_S8:
    case AUDIO_CODEC_PCM24:
    case AUDIO_CODEC_PCM32:
        return true;
    default:
        return false;
    }
}

// Lossless codecs whose resolution is the caller's to choose ("flac" names one, but the
// table's 16 bits are no more than a default).
bool storesAnyResolution(uint32_t coder)
{
    switch (coder & AUDIO_CODEC_MASK) {
    case AUDIO_CODEC_FLAC:
    case AUDIO_CODEC_ALAC:
    case AUDIO_CODEC_WAVPACK:
    case AUDIO_CODEC_APE:
    case AUDIO_CODEC_TTA:
    case AUDIO_CODEC_TAK:
    case AUDIO_CODEC_SHORTEN:
    case AUDIO_CODEC_MP4ALS:
    case AUDIO_CODEC_WMA_LOSSLESS:
    case AUDIO_CODEC_TRUEHD:
        return true;
    default:
        return false;
    }
}

bool isFloatCoder(uint32_t coder)
{
    const uint32_t c = coder & AUDIO_CODEC_MASK;
    return c == AUDIO_CODEC_FLOAT32 || c == AUDIO_CODEC_FLOAT64;
}

// Containers libsndfile reads; the rest goes to FFmpeg.
bool sndfileReads(uint32_t container)
{
    switch (container) {
    case AUDIO_CONTAINER_RAW:
    case AUDIO_CONTAINER_WAV:
    case AUDIO_CONTAINER_AIFF:
    case AUDIO_CONTAINER_AU:
    case AUDIO_CONTAINER_CAF:
    case AUDIO_CONTAINER_FLAC:
    case AUDIO_CONTAINER_OGG_VORBIS:
    case AUDIO_CONTAINER_OGG_OPUS:
    case AUDIO_CONTAINER_OGG_OTHER:
    case AUDIO_CONTAINER_VOC:
    case AUDIO_CONTAINER_W64:
    case AUDIO_CONTAINER_RF64:
    case AUDIO_CONTAINER_IRCAM:
    case AUDIO_CONTAINER_PAF:
    case AUDIO_CONTAINER_NIST:
    case AUDIO_CONTAINER_AVR:
    case AUDIO_CONTAINER_MAT:
    case AUDIO_CONTAINER_MPC2K:
    case AUDIO_CONTAINER_HTK:
    case AUDIO_CONTAINER_MPEG:
    case AUDIO_CONTAINER_VOX:
    case AUDIO_CONTAINER_WSIG:
        return true;
    default:
        return false;
    }
}

// Compressed containers FFmpeg reads better than libsndfile: it resynchronises past damage,
// gives back a cut file up to the cut, honours gapless headers and decodes MP3 faster.
bool ffmpegReadsBetter(uint32_t container)
{
    return container == AUDIO_CONTAINER_FLAC || container == AUDIO_CONTAINER_MPEG
        || container == AUDIO_CONTAINER_OGG_VORBIS || container == AUDIO_CONTAINER_OGG_OPUS;
}

bool isOgg(uint32_t container)
{
    return container == AUDIO_CONTAINER_OGG_VORBIS || container == AUDIO_CONTAINER_OGG_OPUS
        || container == AUDIO_CONTAINER_OGG_OTHER;
}

// libsndfile leaks the Vorbis header state (about 6 KB) of every Ogg stream whose headers it
// cannot parse, so an Ogg stream FFmpeg has just failed on goes to it only when FFmpeg read
// the headers and declined the stream (Opus headed 8 to 24 kHz, which libsndfile keeps at its
// rate). Call right after FFmpeg failed.
bool sndfileMayRetryOgg()
{
    return BLERROR_LastCode() == AUDIOERR_UNSUPPORTED;
}

std::string extensionOf(const std::string& path)
{
    const size_t slash = path.find_last_of("/\\");
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return std::string();
    return path.substr(dot + 1);
}

// The ":fmtconv[...]" suffix of a read path.
struct FmtConv
{
    bool present = false;
    int32_t sampleRate = 0;
    int32_t numChannels = 0;
    int32_t bitsPerSample = 0;
};

// Splits ":fmtconv[...]" (any case) off the end of path. false (recorded) when its options are
// out of range.
bool splitFmtConv(std::string& path, FmtConv& conv)
{
    std::string lower = path;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const size_t at = lower.rfind(":fmtconv");
    if (at == std::string::npos)
        return true;
    const std::string rest = path.substr(at + 8);
    std::string options;
    if (rest.empty()) {
        options.clear();
    } else if (rest.front() == '[' && rest.back() == ']') {
        options = rest.substr(1, rest.size() - 2);
    } else {
        return true; // not a suffix, part of the name
    }
    const std::string original = path;
    path.erase(at);
    conv.present = true;
    FormatRequest request;
    if (!parseFormatString(("[" + options + "]").c_str(), request)) {
        setError(BLERROR_LastCode(), "'%s': %s", original.c_str(), BLERROR_LastMessage());
        return false;
    }
    conv.sampleRate = request.sampleRate;
    conv.numChannels = request.numChannels;
    conv.bitsPerSample = request.bitsPerSample;
    return true;
}

// The error slot of a failed call, kept so that a later call can report it again.
struct SavedError
{
    int32_t code = 0;
    std::string message;
    void save()
    {
        code = BLERROR_LastCode();
        message = BLERROR_LastMessage();
    }
    void restore() const
    {
        if (code != 0)
            BLERROR_Set(code, "%s", message.c_str());
    }
};

// A deterministic per-file noise source for dithering (xorshift32).
struct Dither
{
    int32_t kind = AUDIODITHER_NONE;
    uint32_t state = 0x9E3779B9u;
    // Uniform in [-0.5, 0.5).
    double uniform()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return (state >> 8) * (1.0 / 16777216.0) - 0.5;
    }
    double noise()
    {
        switch (kind) {
        case AUDIODITHER_RECTANGULAR:
            return uniform();
        case AUDIODITHER_TRIANGULAR:
            return uniform() + uniform();
        default:
            return 0.0;
        }
    }
};

// The clip report of the last file a thread closed after writing.
struct ClipReport
{
    bool valid = false;
    int64_t clipped = 0;
    double peak = 0.0;
};
thread_local ClipReport gLastClips;

} // namespace

struct _AUDIOFILE
{
    std::string path; // as the caller gave it, for messages
    _HFile* io = nullptr;
    std::unique_ptr<Reader> reader;
    std::unique_ptr<Writer> writer;

    // Reading: the window and the position in it.
    int64_t windowStart = 0;
    int64_t windowLength = -1; // -1 unknown
    int64_t windowLimit = INT64_MAX; // frames the window allows, known length or not
    int64_t position = 0;
    bool lengthExact = true; // windowLength is a count, not a guess
    bool ended = false; // a read met the end of the stream: windowLength is what came out
    bool blindSeek = false; // sought into a guessed length: the position may lie past the end
    int16_t reportedBits = 0; // ":fmtconv[nbits=]", 0 = as stored

    // Writing.
    std::string target; // where the file goes
    std::string tempPath; // "" when written in place
    bool stream = false; // a standard stream, device, FIFO or socket: never removed
    _HFile* sink = nullptr; // a stream that cannot seek, given io's content at close
    bool keepTarget = false; // written in place over something that is not a regular file
    int64_t written = 0;
    bool failed = false;
    SavedError failure;
    Dither dither;
    bool quantise = false; // float input is dithered to integers
    bool eightBit = false; // ...of 8 bits, stored as multiples of 256
    std::vector<float> floatBlock;
    std::vector<float> roundBlock;
    std::vector<int16_t> intBlock;
    // Range: samples beyond full scale that the target cannot keep, and the peak given.
    bool countClips = false;
    bool roundTo24 = false; // 24-bit integer target: floats rounded to its grid first
    int64_t clipped = 0;
    double peak = 0.0;
    // Size: bytes of audio the container's 32-bit fields allow (0: no such limit).
    uint64_t byteLimit = 0;
    double bytesPerFrame = 0.0;
    // A WAV of unknown length that becomes RF64 at the limit instead, and how it was opened.
    bool growsToRf64 = false;
    FormatRequest request;
    _audio_format requested {};
};

namespace sova::audio {

bool hasScheme(const std::string& path)
{
    const size_t colon = path.find("://");
    if (colon == std::string::npos || colon == 0)
        return false;
    if (!std::isalpha(static_cast<unsigned char>(path[0])))
        return false;
    for (size_t i = 0; i < colon; ++i) {
        const unsigned char c = static_cast<unsigned char>(path[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.')
            return false;
    }
    return true;
}

// Creates "<dir>/.<name>.sova-XXXXXX" beside a local target with the mode a plain create
// would give (or the target's own); "" with the reason recorded on failure.
std::string makeTempBeside(const std::string& target)
{
    // An unnamed file where the file system has them: nothing to leave behind.
    const std::string unnamed = makeUnnamedBeside(target);
    if (!unnamed.empty())
        return unnamed;
    const size_t slash = target.rfind('/');
    const std::string dir
        = slash == std::string::npos ? std::string() : target.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string pattern = dir + "." + name + ".sova-XXXXXX";
    std::vector<char> temp(pattern.begin(), pattern.end());
    temp.push_back('\0');
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        setError(BLERR_OPEN_FAILED, "cannot create a temporary file beside '%s': %s",
            target.c_str(), std::strerror(errno));
        return std::string();
    }
    struct stat existing;
    if (::stat(target.c_str(), &existing) == 0) {
        ::fchmod(fd, existing.st_mode & 07777);
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::fchmod(fd, 0666 & ~mask);
    }
    ::close(fd);
    registerTemporary(temp.data());
    return std::string(temp.data());
}

void setError(int32_t code, const char* format, ...)
{
    char buffer[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    BLERROR_Set(code, "%s", buffer);
}

const char* pooled(const char* text)
{
    return text ? GetBString(text, 1) : nullptr;
}

int64_t Reader::read16(int16_t* dst, int64_t frames)
{
    const int32_t channels = std::max<int32_t>(1, info().format.numChannels);
    const int64_t block = blockFrames(channels);
    std::vector<float> buffer(static_cast<size_t>(std::min(frames, block) * channels));
    int64_t done = 0;
    while (done < frames) {
        const int64_t n = read(buffer.data(), std::min(block, frames - done));
        if (n < 0)
            return done > 0 ? done : -1;
        if (n == 0)
            break;
        int16_t* out = dst + done * channels;
        for (int64_t i = 0; i < n * channels; ++i) {
            const double v = std::floor(static_cast<double>(buffer[i]) * 32768.0 + 0.5);
            out[i] = static_cast<int16_t>(v >= 32767.0 ? 32767
                    : v <= -32768.0                    ? -32768
                    : v == v                           ? v
                                                       : 0);
        }
        done += n;
    }
    return done;
}

int64_t Writer::write16(const int16_t* src, int64_t frames)
{
    const int32_t channels = std::max<int32_t>(1, format().numChannels);
    const int64_t block = blockFrames(channels);
    std::vector<float> buffer(static_cast<size_t>(std::min(frames, block) * channels));
    int64_t done = 0;
    while (done < frames) {
        const int64_t n = std::min(block, frames - done);
        const int16_t* in = src + done * channels;
        for (int64_t i = 0; i < n * channels; ++i)
            buffer[i] = static_cast<float>(in[i] * (1.0 / 32768.0));
        const int64_t w = write(buffer.data(), n);
        if (w < 0)
            return -1;
        done += w;
        if (w < n)
            break;
    }
    return done;
}

int64_t Writer::writeRaw(const void*, int64_t)
{
    setError(AUDIOERR_UNSUPPORTED, "this writer takes no stored bytes");
    return -1;
}

} // namespace sova::audio

namespace {

void destroy(AUDIOFILE* file)
{
    file->reader.reset();
    file->writer.reset();
    if (file->io)
        BLIO_CloseFile(file->io);
    if (file->sink)
        BLIO_CloseFile(file->sink);
    delete file;
}

// Opens the stream of path with the backend the request or the content calls for.
std::unique_ptr<Reader> openReader(
    _HFile* io, const std::string& path, const FormatRequest& request)
{
    if (request.container != 0) {
        if (ffmpegReadsBetter(request.container)) {
            if (auto reader = openFfmpegReader(io, path, request))
                return reader;
            if (isOgg(request.container) && !sndfileMayRetryOgg())
                return nullptr;
            if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
                return nullptr;
        }
        if (sndfileReads(request.container))
            return openSndfileReader(io, path, request);
        return openFfmpegReader(io, path, request);
    }
    if (request.coder != 0) {
        // A codec alone: look in its container first, then let the content decide.
        FormatRequest withContainer = request;
        withContainer.container = containerForCodec(request.coder);
        // Ogg is left to the content test below, which tries FFmpeg first.
        if (sndfileReads(withContainer.container) && !isOgg(withContainer.container))
            if (auto reader = openSndfileReader(io, path, withContainer))
                return reader;
        if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
            return nullptr;
    }
    // FLAC, Ogg and MP3 by their first bytes go straight to FFmpeg (libsndfile would refuse a
    // cut FLAC, and its MP3 decoder prints to stderr while probing).
    unsigned char magic[4] = {};
    const int64_t got = BLIO_ReadData(io, magic, 4);
    if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
        return nullptr;
    if (got == 4
        && (!std::memcmp(magic, "fLaC", 4) || !std::memcmp(magic, "OggS", 4)
            || !std::memcmp(magic, "ID3", 3) || (magic[0] == 0xFF && (magic[1] & 0xE0) == 0xE0))) {
        if (auto reader = openFfmpegReader(io, path, request))
            return reader;
        if (!std::memcmp(magic, "OggS", 4) && !sndfileMayRetryOgg())
            return nullptr;
        if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
            return nullptr;
    }
    if (auto reader = openSndfileReader(io, path, request)) {
        if (!ffmpegReadsBetter(reader->info().format.container))
            return reader;
        reader.reset();
        if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
            return nullptr;
        if (auto better = openFfmpegReader(io, path, request))
            return better;
        if (!BLIO_Seek(io, 0, BLIO_SEEK_SET))
            return nullptr;
        return openSndfileReader(io, path, request);
    }
    SavedError sndfile;
    sndfile.save();
    // A stream libsndfile opened but found out of the engine's range (16 channels, say) is
    // no better in FFmpeg: say so rather than report FFmpeg's view of it.
    if (sndfile.code == AUDIOERR_UNSUPPORTED || !BLIO_Seek(io, 0, BLIO_SEEK_SET)) {
        sndfile.restore();
        return nullptr;
    }
    if (auto reader = openFfmpegReader(io, path, request))
        return reader;
    // When both fail, the backend that recognised the container has the telling reason.
    const int32_t ffmpeg = BLERROR_LastCode();
    if (sndfile.code != AUDIOERR_UNRECOGNISED || ffmpeg == AUDIOERR_UNRECOGNISED
        || ffmpeg == BLERR_NONE)
        sndfile.restore();
    return nullptr;
}

AUDIOFILE* openForReading(const char* pathText, const char* format, int64_t startFrame,
    int64_t numFrames, int32_t convertRate, int32_t convertChannels)
{
    if (!pathText) {
        setError(BLERR_INVALID_ARGUMENT, "no path given to open");
        return nullptr;
    }
    if (startFrame < 0 || numFrames < 0) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': negative window (start %lld, frames %lld)",
            pathText, static_cast<long long>(startFrame), static_cast<long long>(numFrames));
        return nullptr;
    }
    std::string path = pathText;
    FmtConv conv;
    if (!splitFmtConv(path, conv))
        return nullptr;
    FormatRequest request;
    if (!parseFormatString(format, request)) {
        setError(BLERROR_LastCode(), "'%s': %s", pathText, BLERROR_LastMessage());
        return nullptr;
    }

    auto file = new (std::nothrow) AUDIOFILE;
    if (!file) {
        setError(BLERR_NO_MEMORY, "'%s': out of memory", pathText);
        return nullptr;
    }
    file->path = pathText;
    file->io = BLIO_Open(path.c_str(), "r");
    if (!file->io) {
        destroy(file);
        return nullptr;
    }
    if (!BLIO_IsSeekable(file->io)) {
        // Readers probe, and some containers keep their index at the end: a pipe is read
        // whole into a temporary file first (disk, not memory, holds it).
        _HFile* spool = openSpool(pathText);
        const bool copied = spool && BLIO_CopyHFileToHFile(file->io, spool) >= 0
            && BLIO_Seek(spool, 0, BLIO_SEEK_SET);
        if (!copied) {
            SavedError error;
            error.save();
            if (spool)
                BLIO_CloseFile(spool);
            destroy(file);
            error.restore();
            return nullptr;
        }
        BLIO_CloseFile(file->io);
        file->io = spool;
    }
    file->reader = openReader(file->io, path, request);
    if (!file->reader) {
        if (BLERROR_LastCode() == BLERR_NONE)
            setError(
                AUDIOERR_UNRECOGNISED, "'%s': not an audio file the engine can read", pathText);
        destroy(file);
        return nullptr;
    }

    const StreamInfo& info = file->reader->info();
    if (info.format.numChannels < 1 || info.format.numChannels > kMaxReadChannels
        || info.format.sampleRate < 1 || info.format.sampleRate > kMaxReadRate) {
        setError(AUDIOERR_CORRUPT, "'%s': impossible format (%d Hz, %d channels)", pathText,
            info.format.sampleRate, info.format.numChannels);
        destroy(file);
        return nullptr;
    }

    const int32_t rate = conv.sampleRate ? conv.sampleRate : convertRate;
    const int32_t channels = conv.numChannels ? conv.numChannels : convertChannels;
    if ((rate && rate != info.format.sampleRate)
        || (channels && channels != info.format.numChannels)) {
        file->reader = convertingReader(std::move(file->reader), rate, channels);
        if (!file->reader) {
            setError(BLERROR_LastCode(), "'%s': %s", pathText, BLERROR_LastMessage());
            destroy(file);
            return nullptr;
        }
    }
    file->reportedBits = static_cast<int16_t>(conv.bitsPerSample);

    // The window. A length from the header bounds nothing: readers go on to the real end.
    const int64_t total = file->reader->info().frames;
    file->lengthExact = file->reader->info().framesExact && total >= 0;
    if (file->lengthExact && startFrame > total) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': start frame %lld is beyond the end (%lld frames)",
            pathText, static_cast<long long>(startFrame), static_cast<long long>(total));
        destroy(file);
        return nullptr;
    }
    if (startFrame > 0) {
        if (file->reader->info().seekable) {
            if (!file->reader->seek(startFrame)) {
                destroy(file);
                return nullptr;
            }
        } else {
            const int32_t ch = file->reader->info().format.numChannels;
            const int64_t block = blockFrames(ch);
            std::vector<float> scratch(static_cast<size_t>(block * ch));
            int64_t skipped = 0;
            while (skipped < startFrame) {
                const int64_t n
                    = file->reader->read(scratch.data(), std::min(block, startFrame - skipped));
                if (n < 0) {
                    destroy(file);
                    return nullptr;
                }
                if (n == 0) {
                    setError(BLERR_INVALID_ARGUMENT, "'%s': start frame %lld is beyond the end",
                        pathText, static_cast<long long>(startFrame));
                    destroy(file);
                    return nullptr;
                }
                skipped += n;
            }
        }
    }
    file->windowStart = startFrame;
    file->windowLimit = numFrames > 0 ? numFrames : INT64_MAX;
    if (total >= 0 && file->reader->info().framesFinal)
        file->windowLimit = std::min(file->windowLimit, total - startFrame);
    if (total >= 0)
        file->windowLength = std::min(file->windowLimit, std::max<int64_t>(0, total - startFrame));
    else if (numFrames > 0)
        file->lengthExact = false;
    return file;
}

// The stream ended (or the window filled) here: the length is what came out.
void noteEnd(AUDIOFILE* file)
{
    file->ended = true;
    file->lengthExact = true;
    file->windowLength = file->position;
}

int64_t windowRemaining(const AUDIOFILE* file)
{
    return std::max<int64_t>(0, file->windowLimit - file->position);
}

bool checkReadable(AUDIOFILE* file, const void* buffer, int64_t frames)
{
    if (!file || !file->reader) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for reading");
        return false;
    }
    if (!buffer || frames < 0) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': invalid read buffer", file->path.c_str());
        return false;
    }
    return true;
}

// Reads in bounded calls until frames are read or the stream ends.
template <typename T, typename Fn>
int64_t readBlocks(AUDIOFILE* file, T* buffer, int64_t frames, Fn readFn)
{
    frames = std::min(frames, windowRemaining(file));
    const int32_t channels = file->reader->info().format.numChannels;
    const int64_t block = std::max<int64_t>(blockFrames(channels), 4096);
    int64_t done = 0;
    bool end = false;
    while (done < frames) {
        const int64_t n = readFn(buffer + done * channels, std::min(block, frames - done));
        if (n < 0) {
            if (done > 0)
                break; // the next call reports it
            return -1;
        }
        if (n == 0) {
            end = true;
            break;
        }
        done += n;
    }
    file->position += done;
    if (done > 0)
        file->blindSeek = false;
    if ((end && !file->blindSeek)
        || (file->position >= file->windowLimit && file->windowLimit != INT64_MAX))
        noteEnd(file);
    return done;
}

bool checkWritable(AUDIOFILE* file, const void* buffer, int64_t frames)
{
    if (!file || !file->writer) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for writing");
        return false;
    }
    if ((!buffer && frames > 0) || frames < 0) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': invalid write buffer", file->path.c_str());
        return false;
    }
    if (file->failed) {
        file->failure.restore();
        return false;
    }
    return true;
}

int64_t noteWrite(AUDIOFILE* file, int64_t written)
{
    if (written < 0) {
        file->failed = true;
        file->failure.save();
        return -1;
    }
    file->written += written;
    return written;
}

// Counts what the target will clip before anyone clips it: encoders and converters clip
// without a word.
void noteRange(AUDIOFILE* file, const float* in, int64_t samples)
{
    double peak = file->peak;
    int64_t clipped = 0;
    for (int64_t i = 0; i < samples; ++i) {
        const double a = std::fabs(static_cast<double>(in[i]));
        if (a > peak)
            peak = a;
        if (a > 1.0)
            ++clipped;
    }
    file->peak = peak;
    if (file->countClips)
        file->clipped += clipped;
}

// The limit of 32-bit size fields, lowered by SOVA_TEST_SIZE_LIMIT (a test hook, read once).
uint64_t sizeLimit()
{
    static const uint64_t limit = [] {
        const char* text = std::getenv("SOVA_TEST_SIZE_LIMIT");
        const unsigned long long hook = text ? std::strtoull(text, nullptr, 10) : 0;
        // A margin for the header and trailing chunks the writer adds.
        return hook > 0 ? uint64_t(hook) : uint64_t(0xFFFFFFFFu) - 65536u;
    }();
    return limit;
}

// Containers whose headers store sizes or lengths in 32 bits.
bool has32BitSizes(uint32_t container)
{
    switch (container) {
    case AUDIO_CONTAINER_WAV:
    case AUDIO_CONTAINER_AIFF:
    case AUDIO_CONTAINER_AU:
    case AUDIO_CONTAINER_VOC:
    case AUDIO_CONTAINER_AVR:
    case AUDIO_CONTAINER_HTK:
    case AUDIO_CONTAINER_MAT:
    case AUDIO_CONTAINER_MPC2K:
        return true;
    default:
        return false;
    }
}

// Bytes of stored audio per frame of a format (sub-byte codecs count their bits).
double storedBytesPerFrame(const _audio_format& format)
{
    const int bits = format.bitsPerSample > 0 ? format.bitsPerSample : 16;
    return bits / 8.0 * std::max<int32_t>(1, format.numChannels);
}

void refuseSize(const std::string& path, uint32_t container, double bytes)
{
    const char* name = AUDIODEF_ContainerStringShort(container);
    const double limit = static_cast<double>(sizeLimit());
    const bool gib = limit >= 1073741824.0;
    setError(AUDIOERR_UNSUPPORTED,
        "'%s': %s holds at most %.0f %s of audio (its sizes are 32-bit), this needs %.1f %s; "
        "write rf64, w64 or caf",
        path.c_str(), name ? name : "the container", gib ? std::ceil(limit / 1073741824.0) : limit,
        gib ? "GiB" : "bytes", gib ? bytes / 1073741824.0 : bytes, gib ? "GiB" : "bytes");
}

uint32_t littleEndian32(const unsigned char* p)
{
    return p[0] | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Copies the data chunk of a finished WAV (PCM or float, frameBytes a frame) to writer: integer
// PCM as stored bytes, floats through the float path so that the writer's PEAK chunk covers
// them (every stored float came from a float, so nothing is rounded). False (recorded) unless
// exactly `frames` frames were there.
bool copyWavData(_HFile* wav, Writer* writer, int32_t frameBytes, int64_t frames)
{
    const _audio_format& fmt = writer->format();
    const uint32_t coder = fmt.coder & AUDIO_CODEC_MASK;
    unsigned char header[12];
    int64_t size = -1;
    if (BLIO_ReadData(wav, header, 12) == 12 && !std::memcmp(header, "RIFF", 4)
        && !std::memcmp(header + 8, "WAVE", 4)) {
        while (BLIO_ReadData(wav, header, 8) == 8) {
            const uint32_t length = littleEndian32(header + 4);
            if (!std::memcmp(header, "data", 4)) {
                size = length;
                break;
            }
            if (!BLIO_Seek(wav, int64_t(length) + (length & 1), BLIO_SEEK_CUR))
                break;
        }
    }
    if (size != frames * frameBytes) {
        setError(AUDIOERR_ENCODE, "the audio written so far could not be read back");
        return false;
    }
    const int64_t blockFrames = std::max<int64_t>(1, (1 << 20) / frameBytes);
    std::vector<unsigned char> bytes(static_cast<size_t>(blockFrames * frameBytes));
    std::vector<float> samples;
    const int32_t channels = std::max<int32_t>(1, fmt.numChannels);
    for (int64_t done = 0; done < frames;) {
        const int64_t n = std::min(blockFrames, frames - done);
        if (BLIO_ReadData(wav, bytes.data(), n * frameBytes) != n * frameBytes) {
            setError(AUDIOERR_ENCODE, "the audio written so far could not be read back");
            return false;
        }
        int64_t w;
        if (coder == AUDIO_CODEC_FLOAT32 || coder == AUDIO_CODEC_FLOAT64) {
            const int64_t count = n * channels;
            samples.resize(static_cast<size_t>(count));
            for (int64_t i = 0; i < count; ++i) {
                if (coder == AUDIO_CODEC_FLOAT32) {
                    const uint32_t word = littleEndian32(&bytes[size_t(i) * 4]);
                    std::memcpy(&samples[size_t(i)], &word, 4);
                } else {
                    const uint64_t word = littleEndian32(&bytes[size_t(i) * 8])
                        | uint64_t(littleEndian32(&bytes[size_t(i) * 8 + 4])) << 32;
                    double value;
                    std::memcpy(&value, &word, 8);
                    samples[size_t(i)] = static_cast<float>(value);
                }
            }
            w = writer->write(samples.data(), n) == n ? n : -1;
        } else {
            w = writer->writeRaw(bytes.data(), n * frameBytes) == n * frameBytes ? n : -1;
        }
        if (w < 0)
            return false;
        done += n;
    }
    return true;
}

// Turns a WAV of unknown length that reached the limit of its 32-bit sizes into RF64: the
// audio so far is finished as a WAV, copied into an RF64 writer on a new temporary beside the
// target, and writing goes on there. One copy, once, and only for files that large.
bool switchToRf64(AUDIOFILE* file)
{
    FormatRequest request = file->request;
    _audio_format fmt = file->requested;
    request.container = AUDIO_CONTAINER_RF64;
    request.name = "rf64";
    fmt.container = AUDIO_CONTAINER_RF64;
    fmt.mimeType = containerMimeType(AUDIO_CONTAINER_RF64);
    const _audio_format& was = file->writer->format();
    const int32_t frameBytes = was.bitsPerSample / 8 * std::max<int32_t>(1, was.numChannels);
    const std::string next = makeTempBeside(file->target);
    if (next.empty())
        return false;
    _HFile* io = BLIO_Open(next.c_str(), "w");
    std::unique_ptr<Writer> writer = io ? openSndfileWriter(io, file->path, request, fmt) : nullptr;
    // After finish() the old writer is done with either way: a failure below fails the file,
    // and closing it then finishes nothing more.
    bool ok = writer && file->writer->finish() && BLIO_Flush(file->io);
    _HFile* wav = ok ? BLIO_Open(file->tempPath.c_str(), "r") : nullptr;
    ok = ok && wav && copyWavData(wav, writer.get(), frameBytes, file->written);
    if (wav)
        BLIO_CloseFile(wav);
    if (!ok) {
        SavedError error;
        error.save();
        writer.reset();
        if (io)
            BLIO_CloseFile(io);
        discardTemporary(next);
        error.restore();
        return false;
    }
    file->writer.reset();
    BLIO_CloseFile(file->io);
    discardTemporary(file->tempPath);
    file->io = io;
    file->writer = std::move(writer);
    file->tempPath = next;
    file->byteLimit = 0;
    return true;
}

// False (recorded, and the file marked failed) when frames more would pass the container's
// size limit, unless the file could become RF64.
bool withinSizeLimit(AUDIOFILE* file, int64_t frames)
{
    if (file->byteLimit == 0)
        return true;
    const double bytes = static_cast<double>(file->written + frames) * file->bytesPerFrame;
    if (bytes <= static_cast<double>(file->byteLimit))
        return true;
    if (file->growsToRf64) {
        if (switchToRf64(file))
            return true;
        file->failed = true;
        file->failure.save();
        return false;
    }
    refuseSize(file->target, file->writer->format().container, bytes);
    file->failed = true;
    file->failure.save();
    return false;
}

// Writes normalised floats, dithering them when the target stores 16 bits or fewer (samples
// that fall on the target's grid exactly are not dithered).
int64_t writeNormalised(AUDIOFILE* file, const float* src, int64_t frames)
{
    const int32_t channels = file->writer->format().numChannels;
    const int64_t block = blockFrames(channels);
    int64_t done = 0;
    while (done < frames) {
        const int64_t n = std::min(block, frames - done);
        const float* in = src + done * channels;
        noteRange(file, in, n * channels);
        int64_t w;
        if (file->quantise) {
            file->intBlock.resize(static_cast<size_t>(block * channels));
            const double scale = file->eightBit ? 128.0 : 32768.0;
            const double step = 32768.0 / scale;
            for (int64_t i = 0; i < n * channels; ++i) {
                // A sample already on the target's grid has no quantisation error to
                // decorrelate: it is written as it is, so 16-bit material passed through
                // floats (split, join, convert) comes back bit for bit and silence stays
                // digital silence.
                const double scaled = static_cast<double>(in[i]) * scale;
                const double exact = std::floor(scaled);
                double v
                    = exact == scaled ? exact : std::floor(scaled + file->dither.noise() + 0.5);
                if (!(v == v))
                    v = 0.0;
                v = std::min(std::max(v, -scale), scale - 1.0);
                file->intBlock[i] = static_cast<int16_t>(v * step);
            }
            w = file->writer->write16(file->intBlock.data(), n);
        } else if (file->roundTo24) {
            // libsndfile and FFmpeg's 24-bit paths truncate the bits below the grid (a bias of
            // half a step, errors up to one); samples already on it pass exactly.
            file->roundBlock.resize(static_cast<size_t>(block * channels));
            for (int64_t i = 0; i < n * channels; ++i)
                file->roundBlock[i] = static_cast<float>(
                    std::nearbyint(static_cast<double>(in[i]) * 8388608.0) / 8388608.0);
            w = file->writer->write(file->roundBlock.data(), n);
        } else {
            w = file->writer->write(in, n);
        }
        if (w < 0)
            return done > 0 ? done : -1;
        done += w;
        if (w < n)
            break;
    }
    return done;
}

// Resolves the format to write from the request, the caller's fmt and the path; false (recorded)
// when it cannot be told or makes no sense.
bool resolveWriteFormat(
    const std::string& path, FormatRequest& request, const _audio_format* fmt, _audio_format& out)
{
    AUDIO_NullFormat(&out);
    uint32_t container = request.container;
    // The word that chose the container: the format string's name, else the extension.
    const std::string word = request.container ? request.name
        : request.coder                        ? std::string()
                                               : lowered(extensionOf(path));
    if (container == 0 && request.coder != 0)
        container = containerForCodec(request.coder);
    if (container == 0)
        container = containerFromExtension(extensionOf(path));
    if (container == 0) {
        setError(AUDIOERR_UNKNOWN_FORMAT, "cannot tell the format of '%s': give a format string",
            path.c_str());
        return false;
    }
    const bool fmtValid = fmt && AUDIO_IsValidFormat(fmt);
    int32_t rate = request.sampleRate ? request.sampleRate : fmtValid ? fmt->sampleRate : 0;
    int32_t channels = request.numChannels ? request.numChannels : fmtValid ? fmt->numChannels : 0;
    if (rate < 10 || rate > 500000 || channels < 1 || channels > 8) {
        setError(AUDIOERR_INVALID_FORMAT,
            "'%s': no valid sample rate and channel count (%d Hz, %d channels)", path.c_str(), rate,
            channels);
        return false;
    }

    uint32_t coder = request.coder ? request.coder : defaultCoder(container);
    if (!request.coder && coderForName(word))
        coder = coderForName(word);
    if (container == AUDIO_CONTAINER_MKV && word == "webm") {
        const uint32_t codec = coder & AUDIO_CODEC_MASK;
        if (codec != AUDIO_CODEC_OPUS && codec != AUDIO_CODEC_VORBIS) {
            setError(AUDIOERR_UNSUPPORTED,
                "'%s': WebM holds Opus or Vorbis audio only, not %s; write mka for it",
                path.c_str(),
                AUDIODEF_AudioFormatString(coder) ? AUDIODEF_AudioFormatString(coder)
                                                  : "this codec");
            return false;
        }
        request.flavour = "webm";
    }
    // Float material stays float where the container's default is PCM: a float signal or
    // file saved as "x.wav" keeps its samples rather than turning into 32-bit integers.
    if (!request.coder && request.bitsPerSample == 0 && fmtValid && isFloatCoder(fmt->coder)
        && (fmt->bitsPerSample == 32 || fmt->bitsPerSample == 64) && isPcmInteger(coder)) {
        const uint32_t floatCoder
            = (fmt->coder & AUDIO_CODEC_MASK) | (coder & AUDIO_CODEC_FLAG_BIGENDIAN);
        if (sndfileWrites(container, floatCoder))
            coder = floatCoder;
    }
    int32_t bits = request.bitsPerSample;
    if (bits == 0 && request.coder != 0 && !storesAnyResolution(request.coder))
        bits = coderBits(request.coder);
    if (bits == 0 && fmtValid) {
        bits = fmt->bitsPerSample;
        // A resolution FLAC lacks, taken from a source or a default rather than asked for by
        // name, becomes the nearest one it has.
        if ((coder & AUDIO_CODEC_MASK) == AUDIO_CODEC_FLAC && bits != 8 && bits != 16)
            bits = bits > 16 ? 24 : 16;
    }
    if (bits == 0)
        bits = coderBits(coder);
    if (bits == 0)
        bits = 16;
    // A float-only container's default (wsig) given an integer source's resolution stores
    // floats of its own width: every integer resolution fits in them.
    if (!request.coder && request.bitsPerSample == 0 && isFloatCoder(coder) && bits != 64)
        bits = coderBits(coder);
    if (isLossyCoder(coder))
        bits = coderBits(coder) ? coderBits(coder) : 16;

    // PCM follows the resolution; the flag bit survives.
    const uint32_t flag = coder & AUDIO_CODEC_FLAG_BIGENDIAN;
    if (isPcmInteger(coder) || isFloatCoder(coder)) {
        uint32_t pcm = 0;
        if (isFloatCoder(coder)) {
            pcm = bits == 32 ? AUDIO_CODEC_FLOAT32 : bits == 64 ? AUDIO_CODEC_FLOAT64 : 0;
        } else {
            switch (bits) {
            case 8:
                pcm = (container == AUDIO_CONTAINER_WAV || container == AUDIO_CONTAINER_W64
                          || container == AUDIO_CONTAINER_RF64)
                    ? AUDIO_CODEC_PCM_U8
                    : (coder & AUDIO_CODEC_MASK) == AUDIO_CODEC_PCM_U8 ? AUDIO_CODEC_PCM_U8
                                                                       : AUDIO_CODEC_PCM_S8;
                break;
            case 16:
                pcm = AUDIO_CODEC_PCM16;
                break;
            case 24:
                pcm = AUDIO_CODEC_PCM24;
                break;
            case 32:
                pcm = AUDIO_CODEC_PCM32;
                break;
            case 64:
                pcm = AUDIO_CODEC_FLOAT64;
                break;
            default:
                break;
            }
        }
        if (pcm == 0) {
            setError(AUDIOERR_INVALID_FORMAT, "'%s': %s cannot store %d bits", path.c_str(),
                AUDIODEF_AudioFormatString(coder) ? AUDIODEF_AudioFormatString(coder)
                                                  : "this codec",
                bits);
            return false;
        }
        // A PCM width taken from the source rather than asked for, which the container does
        // not store (32-bit into VOC, say), becomes the widest one it does.
        const bool widthAskedFor = request.bitsPerSample != 0 || request.coder != 0;
        while (!widthAskedFor && bits > 16 && !isFloatCoder(pcm)
            && !sndfileWrites(container, pcm | flag)) {
            bits = bits > 24 ? 24 : 16;
            pcm = bits == 24 ? AUDIO_CODEC_PCM24 : AUDIO_CODEC_PCM16;
        }
        coder = pcm | flag;
        if (request.endian == 1)
            coder &= ~static_cast<uint32_t>(AUDIO_CODEC_FLAG_BIGENDIAN);
        else if (request.endian == 2 && (coder & AUDIO_CODEC_MASK) != AUDIO_CODEC_PCM_U8
            && (coder & AUDIO_CODEC_MASK) != AUDIO_CODEC_PCM_S8)
            coder |= AUDIO_CODEC_FLAG_BIGENDIAN;
    }

    out.sampleRate = rate;
    out.numChannels = static_cast<int16_t>(channels);
    out.bitsPerSample = static_cast<int16_t>(bits);
    out.container = container;
    out.coder = coder;
    out.mimeType = containerMimeType(container);
    uint32_t mask = requestedChannelMask(request, channels);
    if (!mask && fmtValid && fmt->numChannels == channels)
        mask = AUDIO_FormatChannelMask(fmt);
    AUDIO_SetFormatChannelMask(&out, mask);
    request.container = container;
    request.coder = coder;
    request.sampleRate = rate;
    request.numChannels = channels;
    request.bitsPerSample = bits;
    return true;
}

// Damage met in the last file the thread closed after reading it (the source of a conversion).
thread_local AUDIO_DamageReport lastConversionDamage {0, 0, -1.0, 0.0, 0};

} // namespace

extern "C" {

AUDIOFILE* AUDIO_LoadFileEx2(
    const char* path, const char* format, uint32_t flags, int64_t startFrame, int64_t numFrames)
{
    (void)flags;
    return openForReading(path, format, startFrame, numFrames, 0, 0);
}

AUDIOFILE* AUDIO_CreateFileEx2(const char* pathText, const char* format, const _audio_format* fmt,
    int32_t kbps, int32_t quality, uint32_t flags, const char* metadata, int64_t expectedFrames)
{
    (void)flags;
    if (!pathText || !*pathText) {
        setError(BLERR_INVALID_ARGUMENT, "no path given to create");
        return nullptr;
    }
    const std::string path = pathText;
    FormatRequest request;
    if (!parseFormatString(format, request)) {
        setError(BLERROR_LastCode(), "'%s': %s", pathText, BLERROR_LastMessage());
        return nullptr;
    }
    if ((kbps != -1 && (kbps < 0 || kbps > 3200))
        || (quality != -1 && (quality < 0 || quality > 10))) {
        setError(AUDIOERR_INVALID_FORMAT, "'%s': bit rate %d kbit/s or quality %d out of range",
            pathText, kbps, quality);
        return nullptr;
    }
    if (request.kbps < 0 && kbps > 0)
        request.kbps = kbps;
    if (request.quality < 0 && quality >= 0)
        request.quality = quality;
    _audio_format out;
    if (!resolveWriteFormat(path, request, fmt, out))
        return nullptr;
    // A length known to pass the 32-bit sizes: WAV becomes RF64 under the same name, as other
    // tools do; the other containers cannot hold it.
    const double expectedBytes
        = expectedFrames > 0 ? expectedFrames * storedBytesPerFrame(out) : 0.0;
    if (has32BitSizes(out.container) && expectedBytes > static_cast<double>(sizeLimit())) {
        if (out.container != AUDIO_CONTAINER_WAV) {
            refuseSize(path, out.container, expectedBytes);
            return nullptr;
        }
        out.container = AUDIO_CONTAINER_RF64;
        out.mimeType = containerMimeType(AUDIO_CONTAINER_RF64);
        request.container = AUDIO_CONTAINER_RF64;
        request.name = "rf64";
    }
    if ((out.coder & AUDIO_CODEC_MASK) == AUDIO_CODEC_MPEG_L1) {
        setError(AUDIOERR_UNSUPPORTED,
            "'%s': the engine reads MPEG-1 Layer I but has no encoder for it; write mp2 (Layer "
            "II) or mp3",
            pathText);
        return nullptr;
    }
    // FFmpeg's FLAC encoder is both faster and tighter than libFLAC at the same level (about
    // 0.6 of the time and 0.75 of the size at the default level); libsndfile keeps 8-bit FLAC,
    // which FFmpeg does not encode.
    const bool flacByFfmpeg = out.container == AUDIO_CONTAINER_FLAC
        && (out.bitsPerSample == 16 || out.bitsPerSample == 24)
        && ffmpegWrites(out.container, out.coder);
    const bool bySndfile = !flacByFfmpeg && sndfileWrites(out.container, out.coder);
    if (!bySndfile && !ffmpegWrites(out.container, out.coder)) {
        const char* name = AUDIODEF_AudioFormatString(out.coder);
        const char* container = AUDIODEF_ContainerStringShort(out.container);
        setError(AUDIOERR_UNSUPPORTED, "'%s': the engine cannot write %s%s%s", pathText,
            name ? name : "this codec", container ? " in " : "", container ? container : "");
        return nullptr;
    }

    auto file = new (std::nothrow) AUDIOFILE;
    if (!file) {
        setError(BLERR_NO_MEMORY, "'%s': out of memory", pathText);
        return nullptr;
    }
    file->path = path;
    OutputPlan plan;
    if (!planOutput(path, plan)) {
        delete file;
        return nullptr;
    }
    file->target = plan.target;
    file->tempPath = plan.tempPath;
    file->stream = plan.stream;
    const std::string& where = file->tempPath.empty() ? path : file->tempPath;
    // Streams are opened write-only: a FIFO then waits for its reader, and a reader that goes
    // away fails the write instead of leaving it blocked.
    file->io = BLIO_Open(where.c_str(), file->stream ? "wo" : "w");
    if (!file->io) {
        discardTemporary(file->tempPath);
        delete file;
        return nullptr;
    }
    if (bySndfile && !BLIO_IsSeekable(file->io)) {
        // libsndfile finishes headers by seeking back: such a file is made in a spool and
        // copied out whole at close. FFmpeg's muxers write for a pipe as they go.
        file->sink = file->io;
        file->io = openSpool(path);
        if (!file->io) {
            destroy(file);
            return nullptr;
        }
    }
    if (file->tempPath.empty()) {
        // A failed write removes the target, unless it is a device, a FIFO or a socket: those
        // stay where they are whatever was written into them.
        BLIO_FileInfo info {};
        const int32_t code = BLERROR_LastCode();
        const std::string message = BLERROR_LastMessage();
        file->keepTarget
            = BLIO_GetFileInfo(file->sink ? file->sink : file->io, &info) == 1 && !info.RegularFile;
        if (code == BLERR_NONE)
            BLERROR_Clear();
        else
            BLERROR_Set(code, "%s", message.c_str());
    }
    if (bySndfile)
        file->writer = openSndfileWriter(file->io, path, request, out);
    else
        file->writer = openFfmpegWriter(file->io, path, request, out, metadata);
    if (!file->writer) {
        if (BLERROR_LastCode() == BLERR_NONE)
            setError(AUDIOERR_ENCODE, "'%s': the encoder could not start", pathText);
        SavedError error;
        error.save();
        BLIO_CloseFile(file->io);
        file->io = nullptr;
        if (!file->tempPath.empty())
            discardTemporary(file->tempPath);
        else if (!file->stream && !file->keepTarget)
            BLIO_RemoveFile(where.c_str());
        destroy(file);
        error.restore();
        return nullptr;
    }

    const _audio_format& written = file->writer->format();
    const uint32_t coder = written.coder & AUDIO_CODEC_MASK;
    file->quantise = !isLossyCoder(written.coder) && !isFloatCoder(written.coder)
        && written.bitsPerSample > 0 && written.bitsPerSample <= 16;
    file->eightBit
        = written.bitsPerSample == 8 && coder != AUDIO_CODEC_ULAW && coder != AUDIO_CODEC_ALAW;
    file->dither.kind = request.dither >= 0 ? request.dither : AUDIODITHER_DefaultKind();
    file->countClips = !isFloatCoder(written.coder);
    file->roundTo24 = written.bitsPerSample == 24 && !isLossyCoder(written.coder)
        && !isFloatCoder(written.coder);
    // A stream (pipe, socket) never gets its sizes filled in: nothing there can wrap.
    if (has32BitSizes(written.container) && BLIO_IsSeekable(file->io)) {
        file->byteLimit = sizeLimit();
        file->bytesPerFrame = storedBytesPerFrame(written);
        // Written beside its target, a WAV of PCM or floats can still become RF64 when it
        // gets there.
        file->growsToRf64 = written.container == AUDIO_CONTAINER_WAV && bySndfile
            && !file->tempPath.empty() && !file->sink
            && (isPcmInteger(written.coder) || isFloatCoder(written.coder))
            && written.bitsPerSample % 8 == 0;
        file->request = request;
        file->requested = out;
    }
    return file;
}

int32_t AUDIO_GetAudioFileFormat(AUDIOFILE* file, _audio_format* format)
{
    if (!file || !format || (!file->reader && !file->writer)) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file or no format record");
        return 0;
    }
    if (file->writer) {
        *format = file->writer->format();
    } else {
        *format = file->reader->info().format;
        if (file->reportedBits)
            format->bitsPerSample = file->reportedBits;
    }
    return 1;
}

int64_t AUDIO_ReadIEEEFloat(AUDIOFILE* file, float* buffer, int64_t frames)
{
    if (!checkReadable(file, buffer, frames))
        return -1;
    Reader* reader = file->reader.get();
    return readBlocks(
        file, buffer, frames, [reader](float* dst, int64_t n) { return reader->read(dst, n); });
}

int64_t AUDIO_ReadFloat(AUDIOFILE* file, float* buffer, int64_t frames)
{
    const int64_t n = AUDIO_ReadIEEEFloat(file, buffer, frames);
    if (n <= 0)
        return n;
    for (int64_t i = 0; i < n * file->reader->info().format.numChannels; ++i)
        buffer[i] *= 32768.0f;
    return n;
}

int64_t AUDIO_Read16(AUDIOFILE* file, int16_t* buffer, int64_t frames)
{
    if (!checkReadable(file, buffer, frames))
        return -1;
    Reader* reader = file->reader.get();
    return readBlocks(
        file, buffer, frames, [reader](int16_t* dst, int64_t n) { return reader->read16(dst, n); });
}

int64_t AUDIO_WriteIEEEFloat(AUDIOFILE* file, const float* buffer, int64_t frames)
{
    if (!checkWritable(file, buffer, frames) || !withinSizeLimit(file, frames))
        return -1;
    return noteWrite(file, writeNormalised(file, buffer, frames));
}

int64_t AUDIO_WriteFloat(AUDIOFILE* file, const float* buffer, int64_t frames)
{
    if (!checkWritable(file, buffer, frames) || !withinSizeLimit(file, frames))
        return -1;
    const int32_t channels = file->writer->format().numChannels;
    const int64_t block = blockFrames(channels);
    file->floatBlock.resize(static_cast<size_t>(block * channels));
    int64_t done = 0;
    while (done < frames) {
        const int64_t n = std::min(block, frames - done);
        const float* in = buffer + done * channels;
        for (int64_t i = 0; i < n * channels; ++i)
            file->floatBlock[i] = in[i] * (1.0f / 32768.0f);
        const int64_t w = writeNormalised(file, file->floatBlock.data(), n);
        if (w < 0)
            return noteWrite(file, -1);
        done += w;
        if (w < n)
            break;
    }
    return noteWrite(file, done);
}

int64_t AUDIO_Write16(AUDIOFILE* file, const int16_t* buffer, int64_t frames)
{
    if (!checkWritable(file, buffer, frames) || !withinSizeLimit(file, frames))
        return -1;
    if (file->peak < 1.0) {
        const int32_t ch = file->writer->format().numChannels;
        for (int64_t i = 0; i < frames * ch; ++i)
            file->peak = std::max(file->peak, std::fabs(buffer[i] / 32768.0));
    }
    const int32_t channels = file->writer->format().numChannels;
    const int64_t block = std::max<int64_t>(blockFrames(channels), 4096);
    int64_t done = 0;
    while (done < frames) {
        const int64_t n = std::min(block, frames - done);
        const int64_t w = file->writer->write16(buffer + done * channels, n);
        if (w < 0)
            return noteWrite(file, -1);
        done += w;
        if (w < n)
            break;
    }
    return noteWrite(file, done);
}

int32_t AUDIO_Seek(AUDIOFILE* file, int64_t frame)
{
    if (!file || !file->reader) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for reading");
        return 0;
    }
    if (frame < 0 || frame > file->windowLimit
        || (file->lengthExact && file->windowLength >= 0 && frame > file->windowLength)) {
        setError(BLERR_INVALID_ARGUMENT, "'%s': cannot seek to frame %lld", file->path.c_str(),
            static_cast<long long>(frame));
        return 0;
    }
    if (!file->reader->info().seekable) {
        setError(BLERR_NOT_SEEKABLE, "'%s': the stream cannot seek", file->path.c_str());
        return 0;
    }
    if (!file->reader->seek(file->windowStart + frame))
        return 0;
    file->position = frame;
    file->blindSeek = frame > 0 && !file->lengthExact;
    return 1;
}

int64_t AUDIO_Length(AUDIOFILE* file)
{
    if (!file)
        return -1;
    if (file->writer)
        return file->written;
    // A guess is at least what has come out so far.
    if (!file->lengthExact && file->windowLength >= 0)
        return std::max(file->windowLength, file->position);
    return file->windowLength >= 0 ? file->windowLength : -1;
}

double AUDIO_Duration(AUDIOFILE* file)
{
    const int64_t frames = AUDIO_Length(file);
    if (frames < 0)
        return -1.0;
    const int32_t rate
        = file->writer ? file->writer->format().sampleRate : file->reader->info().format.sampleRate;
    return rate > 0 ? static_cast<double>(frames) / rate : -1.0;
}

int64_t AUDIO_BitRate(AUDIOFILE* file)
{
    if (!file || !file->reader)
        return 0;
    const StreamInfo& info = file->reader->info();
    if (info.bitRate > 0)
        return info.bitRate;
    const int64_t size = BLIO_FileSize(file->io);
    if (info.frames > 0 && size > 0 && info.format.sampleRate > 0)
        return static_cast<int64_t>(static_cast<double>(size) * 8.0 * info.format.sampleRate
            / static_cast<double>(info.frames));
    return 0;
}

int32_t AUDIO_CloseFile(AUDIOFILE* file)
{
    if (!file)
        return 1;
    if (!file->writer) {
        if (file->reader)
            AUDIO_GetDamageReport(file, &lastConversionDamage);
        destroy(file);
        return 1;
    }
    gLastClips = {true, file->clipped, file->peak};
    bool ok = !file->failed;
    SavedError error = file->failure;
    if (ok && !file->writer->finish()) {
        ok = false;
        error.save();
    }
    file->writer.reset();
    if (file->sink) {
        // Only a finished file goes out: a consumer never gets a half-made header.
        if (ok && BLIO_CopyHFileToHFile(file->io, file->sink) < 0) {
            ok = false;
            error.save();
        }
        if (!BLIO_CloseFile(file->sink) && ok) {
            ok = false;
            error.save();
        }
        file->sink = nullptr;
    }
    if (!BLIO_CloseFile(file->io)) {
        // The I/O layer knows the root cause of a write gone wrong (a full disk, a device that
        // stopped taking bytes); an encoder saw only its consequence.
        if (!file->tempPath.empty())
            setError(BLERROR_LastCode(), "cannot write '%s': %s", file->target.c_str(),
                BLERROR_LastMessage());
        ok = false;
        error.save();
    }
    file->io = nullptr;
    if (!file->tempPath.empty()) {
        if (ok && !commitTemporary(file->tempPath, file->target)) {
            ok = false;
            error.save();
        }
        if (!ok)
            discardTemporary(file->tempPath);
    } else if (!ok && !file->stream && !file->keepTarget) {
        BLIO_RemoveFile(file->target.c_str());
    }
    delete file;
    if (!ok)
        error.restore();
    return ok ? 1 : 0;
}

int32_t AUDIO_AbandonFile(AUDIOFILE* file)
{
    if (file && file->writer) {
        // Closing a failed write removes what it wrote; the caller's error slot is kept.
        SavedError caller;
        caller.save();
        file->failed = true;
        file->failure = caller;
        AUDIO_CloseFile(file);
        BLERROR_Clear();
        caller.restore();
        return 1;
    }
    AUDIO_CloseFile(file);
    return 1;
}

double AUDIO_GetAudioFileDurationEx(const char* path, const char* format)
{
    AUDIOFILE* file = AUDIO_LoadFileEx2(path, format, 0, 0, 0);
    if (!file)
        return -1.0;
    double seconds = AUDIO_LengthIsExact(file) ? AUDIO_Duration(file) : -1.0;
    if (seconds < 0.0) {
        const int32_t channels = file->reader->info().format.numChannels;
        const int64_t block = blockFrames(channels);
        std::vector<float> buffer(static_cast<size_t>(block * channels));
        int64_t frames = 0;
        int64_t n;
        while ((n = file->reader->read(buffer.data(), block)) > 0)
            frames += n;
        seconds
            = n < 0 ? -1.0 : static_cast<double>(frames) / file->reader->info().format.sampleRate;
    }
    AUDIO_CloseFile(file);
    return seconds;
}

int32_t AUDIO_ConvertEx(const AUDIO_Progress* progress, const char* source,
    const char* sourceFormat, const char* target, const char* targetFormat, _audio_format* fmt)
{
    if (!source || !target || !*source || !*target) {
        setError(BLERR_INVALID_ARGUMENT, "conversion needs a source and a target path");
        return 0;
    }
    FormatRequest targetSpec;
    if (!parseFormatString(targetFormat, targetSpec)) {
        setError(BLERROR_LastCode(), "'%s': %s", target, BLERROR_LastMessage());
        return 0;
    }
    lastConversionDamage = AUDIO_DamageReport {0, 0, -1.0, 0.0, 0};
    AUDIOFILE* in = AUDIO_LoadFileEx2(source, sourceFormat, 0, 0, 0);
    if (!in)
        return 0;
    const _audio_format sourceFormatRecord = in->reader->info().format;
    const bool fmtValid = fmt && AUDIO_IsValidFormat(fmt);
    const int32_t rate = targetSpec.sampleRate ? targetSpec.sampleRate
        : fmtValid                             ? fmt->sampleRate
                                               : sourceFormatRecord.sampleRate;
    const int32_t channels = targetSpec.numChannels ? targetSpec.numChannels
        : fmtValid                                  ? fmt->numChannels
                                                    : sourceFormatRecord.numChannels;
    uint32_t mask = requestedChannelMask(targetSpec, channels);
    if (!mask && fmtValid && fmt->numChannels == channels)
        mask = AUDIO_FormatChannelMask(fmt);
    if (rate != sourceFormatRecord.sampleRate || channels != sourceFormatRecord.numChannels
        || (mask && mask != layoutOf(sourceFormatRecord))) {
        in->reader = convertingReader(std::move(in->reader), rate, channels, mask);
        if (!in->reader) {
            SavedError error;
            error.save();
            AUDIO_CloseFile(in);
            error.restore();
            return 0;
        }
        in->windowLength = in->reader->info().frames;
        in->lengthExact = in->reader->info().framesExact && in->windowLength >= 0;
    }
    // Without a resolution from the caller, a PCM or lossless source keeps its own; companded,
    // ADPCM and lossy sources decode to 16-bit quality.
    int32_t bits = 16;
    const uint32_t sourceCoder = sourceFormatRecord.coder;
    if (fmtValid) {
        bits = fmt->bitsPerSample;
    } else if (isPcmInteger(sourceCoder) || isFloatCoder(sourceCoder)
        || storesAnyResolution(sourceCoder)) {
        switch (sourceFormatRecord.bitsPerSample) {
        case 8:
        case 16:
        case 24:
        case 32:
        case 64:
            bits = sourceFormatRecord.bitsPerSample;
            break;
        default:
            break;
        }
    }
    _audio_format wanted
        = AUDIO_FormatEx(rate, static_cast<int16_t>(channels), static_cast<int16_t>(bits));
    // Float samples stay float where the target can hold them (and then nothing clips).
    const uint32_t kind = fmtValid ? fmt->coder : sourceCoder;
    if (isFloatCoder(kind) && (bits == 32 || bits == 64))
        wanted.coder = kind & AUDIO_CODEC_MASK;
    AUDIO_SetFormatChannelMask(&wanted, AUDIO_FormatChannelMask(&in->reader->info().format));
    const int64_t expected = std::max<int64_t>(0, AUDIO_Length(in));
    AUDIOFILE* out
        = AUDIO_CreateFileEx2(target, targetFormat, &wanted, -1, -1, 0, nullptr, expected);
    if (!out) {
        SavedError error;
        error.save();
        AUDIO_CloseFile(in);
        error.restore();
        return 0;
    }

    const int64_t total = AUDIO_Length(in);
    const int32_t readChannels = in->reader->info().format.numChannels;
    std::vector<float> buffer(static_cast<size_t>(kConvertFrames * readChannels));
    bool ok = true;
    int64_t copied = 0;
    for (;;) {
        const int64_t n = AUDIO_ReadIEEEFloat(in, buffer.data(), kConvertFrames);
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0)
            break;
        if (AUDIO_WriteIEEEFloat(out, buffer.data(), n) != n) {
            if (BLERROR_LastCode() == BLERR_NONE)
                setError(AUDIOERR_ENCODE, "'%s': short write", target);
            ok = false;
            break;
        }
        copied += n;
        if (progress && progress->report) {
            const double fraction = total > 0 ? std::min(1.0, double(copied) / double(total)) : 0.0;
            if (progress->report(progress->user, fraction) != 0) {
                setError(
                    AUDIOERR_CANCELLED, "conversion of '%s' to '%s' cancelled", source, target);
                ok = false;
                break;
            }
        }
    }
    if (ok && progress && progress->report && progress->report(progress->user, 1.0) != 0) {
        setError(AUDIOERR_CANCELLED, "conversion of '%s' to '%s' cancelled", source, target);
        ok = false;
    }
    SavedError error;
    if (!ok) {
        error.save();
        out->failed = true;
        out->failure = error;
    }
    const _audio_format written = out->writer->format();
    AUDIO_CloseFile(in); // records its damage
    if (!AUDIO_CloseFile(out))
        return 0;
    if (fmt)
        *fmt = written;
    return 1;
}

int32_t AUDIO_GetClipReport(AUDIOFILE* file, int64_t* clippedSamples, double* peak)
{
    if (!file || !file->writer) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for writing");
        return 0;
    }
    if (clippedSamples)
        *clippedSamples = file->clipped;
    if (peak)
        *peak = file->peak;
    return 1;
}

int32_t AUDIO_GetLastClipReport(int64_t* clippedSamples, double* peak)
{
    if (clippedSamples)
        *clippedSamples = gLastClips.clipped;
    if (peak)
        *peak = gLastClips.peak;
    return gLastClips.valid ? 1 : 0;
}

int32_t AUDIO_LengthIsExact(AUDIOFILE* file)
{
    if (!file)
        return 0;
    return file->writer || (file->lengthExact && file->windowLength >= 0) ? 1 : 0;
}

int64_t AUDIO_CountFrames(AUDIOFILE* file)
{
    if (!file || !file->reader) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for reading");
        return -1;
    }
    if (AUDIO_LengthIsExact(file))
        return file->windowLength;
    const int64_t here = file->position;
    if (here > 0 && !file->reader->info().seekable) {
        setError(BLERR_NOT_SEEKABLE, "'%s': cannot count the frames of a stream already read",
            file->path.c_str());
        return -1;
    }
    const int32_t channels = file->reader->info().format.numChannels;
    std::vector<float> scratch(static_cast<size_t>(blockFrames(channels) * channels));
    for (int pass = 0; pass < 2 && !file->ended; ++pass) {
        // A position sought past the real end reads nothing: count again from the start.
        if (pass == 1 && !AUDIO_Seek(file, 0))
            return -1;
        int64_t n;
        while (!file->ended
            && (n = AUDIO_ReadIEEEFloat(file, scratch.data(), blockFrames(channels))) != 0)
            if (n < 0)
                return -1;
    }
    const int64_t total = file->windowLength;
    if (!file->ended)
        return -1;
    if (here > total && file->reader->info().seekable)
        return AUDIO_Seek(file, total) ? total : -1;
    if (file->position != here) {
        if (!file->reader->info().seekable) {
            // Nothing was read before: the count stands, the frames are gone.
            setError(BLERR_NOT_SEEKABLE, "'%s': counted to the end; the stream cannot go back",
                file->path.c_str());
            return -1;
        }
        if (!AUDIO_Seek(file, here))
            return -1;
    }
    return total;
}

int32_t AUDIO_LastConversionDamage(AUDIO_DamageReport* report)
{
    if (!report) {
        setError(BLERR_INVALID_ARGUMENT, "no report record");
        return 0;
    }
    *report = lastConversionDamage;
    return 1;
}

int32_t AUDIO_GetDamageReport(AUDIOFILE* file, AUDIO_DamageReport* report)
{
    if (!file || !report || !file->reader) {
        setError(BLERR_INVALID_ARGUMENT, "no audio file open for reading, or no report record");
        return 0;
    }
    *report = AUDIO_DamageReport {};
    report->firstSeconds = -1.0;
    if (const DamageInfo* damage = file->reader->damage()) {
        report->stretches = damage->stretches;
        report->truncated = damage->truncated ? 1 : 0;
        report->firstSeconds = damage->firstSeconds;
        report->secondsLost = damage->secondsLost;
        report->framesLost = static_cast<int64_t>(
            std::llround(damage->secondsLost * file->reader->info().format.sampleRate));
    }
    return 1;
}

} // extern "C"
