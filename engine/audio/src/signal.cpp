// In-memory signals and selections.
//
// A signal keeps its frames in blocks of at most AUDIOSIGNAL_BLOCK_FRAMES interleaved frames,
// shared between duplicates and never changed in place while shared. An index of block starts
// finds a frame by binary search. An edit rebuilds only the block it lands in (plus the frames
// it adds), so its cost follows the data inserted, not the signal's length; neighbours small
// enough to share one block are merged, so that the block count stays near length / block size.
//
// Every signal carries a reader-writer lock: reads share it, edits take it alone, so that a pipe
// may grow a signal on one thread while others read it.
#include "decoder.h"

#include <sova/audio.h>

#include <sova/blerror.h>
#include <sova/blstring.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

constexpr int64_t kBlockFrames = AUDIOSIGNAL_BLOCK_FRAMES;
constexpr int64_t kOpenChunkFrames = 16384; // frames per file read while opening

// ---- Sample conversion ------------------------------------------------------------------

inline float toFloat(int16_t v)
{
    return static_cast<float>(v) * (1.0f / 32768.0f);
}

inline int16_t toInt16(float v)
{
    const float s = std::floor(v * 32768.0f + 0.5f);
    if (s >= 32767.0f)
        return 32767;
    if (s <= -32768.0f)
        return -32768;
    return s == s ? static_cast<int16_t>(s) : 0;
}

template <typename To, typename From> inline To convert(From v)
{
    if constexpr (std::is_same_v<To, From>)
        return v;
    else if constexpr (std::is_same_v<To, float>)
        return toFloat(v);
    else
        return toInt16(v);
}

// n samples from src to dst, converting the kind.
template <typename To, typename From> void convertRun(To* dst, const From* src, int64_t n)
{
    if constexpr (std::is_same_v<To, From>) {
        if (n > 0)
            std::memcpy(dst, src, static_cast<size_t>(n) * sizeof(To));
    } else {
        // Runs of a fixed length let the compiler vectorise the conversion at -O2.
        constexpr int64_t kRun = 16;
        int64_t i = 0;
        for (; i + kRun <= n; i += kRun)
            for (int64_t j = 0; j < kRun; ++j)
                dst[i + j] = convert<To>(src[i + j]);
        for (; i < n; ++i)
            dst[i] = convert<To>(src[i]);
    }
}

// ---- Block storage ----------------------------------------------------------------------

template <typename T> struct Store
{
    using Block = std::vector<T>; // frames * channels samples
    using Ptr = std::shared_ptr<Block>;

    int64_t channels = 1;
    std::vector<Ptr> blocks;
    std::vector<int64_t> starts {0}; // starts[i]: first frame of block i; back(): total

    int64_t total() const { return starts.back(); }
    int64_t frames(size_t i) const { return starts[i + 1] - starts[i]; }
    const T* data(size_t i) const { return blocks[i]->data(); }

    // The block holding frame pos, 0 <= pos < total().
    size_t find(int64_t pos) const
    {
        return static_cast<size_t>(
                   std::upper_bound(starts.begin(), starts.end(), pos) - starts.begin())
            - 1;
    }

    // Rebuilds the starts from block `from` on. Capacity was reserved by the caller.
    void reindex(size_t from)
    {
        starts.resize(blocks.size() + 1);
        for (size_t i = from; i < blocks.size(); ++i)
            starts[i + 1] = starts[i] + static_cast<int64_t>(blocks[i]->size()) / channels;
    }

    // Packs a sequence of frame runs into new blocks of equal size, as few as possible.
    class Packer
    {
    public:
        Packer(int64_t channels, int64_t totalFrames)
            : ch_(channels)
        {
            const int64_t count = (totalFrames + kBlockFrames - 1) / kBlockFrames;
            per_ = count > 0 ? (totalFrames + count - 1) / count : 0;
            out.reserve(static_cast<size_t>(count));
        }
        template <typename S> void add(const S* src, int64_t frames)
        {
            while (frames > 0) {
                if (out.empty() || static_cast<int64_t>(out.back()->size()) == per_ * ch_) {
                    out.push_back(std::make_shared<Block>());
                    out.back()->reserve(static_cast<size_t>(per_ * ch_));
                }
                Block& b = *out.back();
                const int64_t n = std::min(frames, per_ - static_cast<int64_t>(b.size()) / ch_);
                const size_t at = b.size();
                b.resize(at + static_cast<size_t>(n * ch_));
                convertRun(b.data() + at, src, n * ch_);
                src += n * ch_;
                frames -= n;
            }
        }
        std::vector<Ptr> out;

    private:
        int64_t ch_;
        int64_t per_;
    };

    // Room for `count` blocks in the index, grown geometrically; throws before any change.
    void reserveFor(size_t count)
    {
        if (blocks.capacity() < count)
            blocks.reserve(std::max(count, 2 * blocks.capacity()));
        if (starts.capacity() < count + 1)
            starts.reserve(std::max(count + 1, 2 * starts.capacity()));
    }

    // Replaces blocks [first, last) with `with`. Throws before changing anything. Blocks and
    // starts shift once; the starts behind the region move by the change in length.
    void replace(size_t first, size_t last, std::vector<Ptr>& with)
    {
        const size_t removed = last - first, added = with.size();
        reserveFor(blocks.size() - removed + added);
        int64_t newFrames = 0;
        for (const Ptr& p : with)
            newFrames += static_cast<int64_t>(p->size()) / channels;
        const int64_t delta = newFrames - (starts[last] - starts[first]);

        const auto at = [](auto& v, size_t i) { return v.begin() + static_cast<ptrdiff_t>(i); };
        const size_t common = std::min(removed, added);
        std::move(with.begin(), with.begin() + static_cast<ptrdiff_t>(common), at(blocks, first));
        if (added > removed) {
            blocks.insert(at(blocks, last), std::make_move_iterator(at(with, common)),
                std::make_move_iterator(with.end()));
            starts.insert(at(starts, last + 1), added - removed, 0);
        } else {
            blocks.erase(at(blocks, first + added), at(blocks, last));
            starts.erase(at(starts, first + added + 1), at(starts, last + 1));
        }
        for (size_t i = first; i < first + added; ++i)
            starts[i + 1] = starts[i] + static_cast<int64_t>(blocks[i]->size()) / channels;
        for (size_t i = first + added + 1; i < starts.size(); ++i)
            starts[i] += delta;
    }

    // Merges neighbours among blocks [first, last] that fit one block together. Best effort:
    // the signal is complete whether or not memory allows it.
    void mergeAround(size_t first, size_t last)
    {
        try {
            size_t i = first;
            while (i + 1 < blocks.size() && i <= last) {
                if (frames(i) + frames(i + 1) > kBlockFrames) {
                    ++i;
                    continue;
                }
                Packer packer(channels, frames(i) + frames(i + 1));
                packer.add(data(i), frames(i));
                packer.add(data(i + 1), frames(i + 1));
                replace(i, i + 2, packer.out);
                if (last > 0)
                    --last;
            }
        } catch (const std::exception&) {
        }
    }

    template <typename S> void append(const S* src, int64_t count)
    {
        // The last block takes what it has room for; new full blocks take the rest.
        const int64_t room = blocks.empty() ? 0 : kBlockFrames - frames(blocks.size() - 1);
        const int64_t head = std::min(room, count);
        std::vector<Ptr> fresh;
        fresh.reserve(static_cast<size_t>((count - head + kBlockFrames - 1) / kBlockFrames));
        for (int64_t done = head; done < count; done += kBlockFrames) {
            const int64_t n = std::min(kBlockFrames, count - done);
            fresh.push_back(std::make_shared<Block>(static_cast<size_t>(n * channels)));
            convertRun(fresh.back()->data(), src + done * channels, n * channels);
        }
        reserveFor(blocks.size() + fresh.size());
        if (head > 0) {
            Ptr& last = blocks.back();
            // Shared with a duplicate: this signal gets its own copy first.
            Ptr target = last.use_count() > 1 ? std::make_shared<Block>(*last) : last;
            const size_t at = target->size();
            const size_t need = at + static_cast<size_t>(head * channels);
            if (need > target->capacity())
                target->reserve(
                    std::min(static_cast<size_t>(kBlockFrames * channels), std::max(need, 2 * at)));
            target->resize(need);
            convertRun(target->data() + at, src, head * channels);
            last = std::move(target);
        }
        const size_t from = blocks.empty() ? 0 : blocks.size() - 1;
        for (Ptr& p : fresh)
            blocks.push_back(std::move(p));
        reindex(from);
    }

    // Adds src onto the frames from pos on; what lies past the end is appended. Blocks shared
    // with a duplicate are copied before they change.
    void overlap(const float* src, int64_t pos, int64_t count)
    {
        pos = std::min(pos, total());
        const int64_t inside = std::min(count, total() - pos);
        for (int64_t done = 0; done < inside;) {
            const size_t i = find(pos + done);
            Ptr& block = blocks[i];
            if (block.use_count() > 1)
                block = std::make_shared<Block>(*block);
            const int64_t off = pos + done - starts[i];
            const int64_t n = std::min(inside - done, frames(i) - off);
            T* dst = block->data() + off * channels;
            const float* add = src + done * channels;
            for (int64_t k = 0; k < n * channels; ++k)
                dst[k] = convert<T>(convert<float>(dst[k]) + add[k]);
            done += n;
        }
        if (count > inside)
            append(src + inside * channels, count - inside);
    }

    template <typename S> void insert(const S* src, int64_t pos, int64_t count)
    {
        if (pos >= total()) {
            append(src, count);
            return;
        }
        // The block at pos is rebuilt around the new frames.
        const size_t i = find(pos);
        const int64_t off = pos - starts[i];
        const int64_t n = frames(i);
        const T* old = data(i);
        Packer packer(channels, n + count);
        packer.add(old, off);
        packer.add(src, count);
        packer.add(old + off * channels, n - off);
        const size_t added = packer.out.size();
        replace(i, i + 1, packer.out);
        mergeAround(i > 0 ? i - 1 : 0, i + added - 1);
    }

    int64_t remove(int64_t pos, int64_t count)
    {
        const size_t i = find(pos);
        const size_t j = find(pos + count - 1);
        const int64_t keepLeft = pos - starts[i];
        const int64_t rightFrom = pos + count - starts[j];
        const int64_t keepRight = frames(j) - rightFrom;
        Packer packer(channels, keepLeft + keepRight);
        packer.add(data(i), keepLeft);
        packer.add(data(j) + rightFrom * channels, keepRight);
        const size_t added = packer.out.size();
        replace(i, j + 1, packer.out);
        mergeAround(i > 0 ? i - 1 : 0, i + added);
        return count;
    }

    // The frames [pos, pos + count) of the signal, span by span: fn(samples, frames).
    template <typename Fn> bool forEachSpan(int64_t pos, int64_t count, Fn&& fn) const
    {
        if (count <= 0)
            return true;
        size_t i = find(pos);
        while (count > 0) {
            const int64_t off = pos - starts[i];
            const int64_t n = std::min(count, frames(i) - off);
            if (!fn(data(i) + off * channels, n))
                return false;
            pos += n;
            count -= n;
            ++i;
        }
        return true;
    }
};

// What a read delivers of each frame: every channel, or the listed ones.
struct Channels
{
    const int* list = nullptr; // null: every channel in order
    int count = 0;
};

// Copies n frames, each `stride` samples after the previous, keeping the listed channels.
template <typename O, typename T>
void copyFrames(
    O* out, const T* src, int64_t n, int64_t stride, int64_t channels, const Channels& which)
{
    if (!which.list) {
        if (stride == channels) {
            convertRun(out, src, n * channels);
            return;
        }
        for (int64_t f = 0; f < n; ++f, src += stride, out += channels)
            convertRun(out, src, channels);
        return;
    }
    for (int64_t f = 0; f < n; ++f, src += stride)
        for (int c = 0; c < which.count; ++c)
            *out++ = convert<O>(src[which.list[c]]);
}

// The read behind every Get*Samples call: count frames pos, pos + step, ... Without zero
// padding only the frames inside the signal are copied, packed at the start of the buffer.
template <typename O, typename T>
int64_t readFrames(const Store<T>& store, int64_t pos, O* buffer, int64_t count, int64_t step,
    const Channels& which, bool zeroPad)
{
    const int64_t width = which.list ? which.count : store.channels;
    const __int128 total = store.total();
    // Frames k in [kBegin, kEnd) fall inside the signal.
    __int128 kBegin = pos >= 0 ? 0 : (-static_cast<__int128>(pos) + step - 1) / step;
    __int128 kEnd = total > pos ? (total - pos + step - 1) / step : 0;
    kBegin = std::min<__int128>(kBegin, count);
    kEnd = std::min<__int128>(std::max(kEnd, kBegin), count);
    const int64_t first = static_cast<int64_t>(kBegin);
    const int64_t last = static_cast<int64_t>(kEnd);

    O* out = buffer;
    if (zeroPad) {
        std::fill(buffer, buffer + first * width, O(0));
        std::fill(buffer + last * width, buffer + count * width, O(0));
        out = buffer + first * width;
    }
    int64_t k = first;
    size_t block = 0;
    while (k < last) {
        const int64_t p = pos + k * step;
        if (block + 1 >= store.starts.size() || p < store.starts[block]
            || p >= store.starts[block + 1])
            block = store.find(p);
        const int64_t off = p - store.starts[block];
        const int64_t inBlock = (store.frames(block) - off + step - 1) / step;
        const int64_t n = std::min(last - k, inBlock);
        copyFrames(out, store.data(block) + off * store.channels, n, step * store.channels,
            store.channels, which);
        out += n * width;
        k += n;
        ++block;
    }
    return zeroPad ? count : last - first;
}

} // namespace

struct _AUDIOSIGNAL
{
    mutable std::shared_mutex lock; // shared by reads, exclusive for edits
    _audio_format format {};
    uint32_t activeMask = 0;
    bool isFloat = false;
    Store<int16_t> s16;
    Store<float> f32;
    AUDIO_DamageReport damage {0, 0, -1.0, 0.0, 0}; // of the file it was read from

    int64_t total() const { return isFloat ? f32.total() : s16.total(); }
    int channels() const { return format.numChannels; }
};

namespace {

using ReadLock = std::shared_lock<std::shared_mutex>;
using WriteLock = std::unique_lock<std::shared_mutex>;

bool storesFloat(const _audio_format& format)
{
    // Resolutions above 16 bits, and decoders that name none, keep floats.
    return format.bitsPerSample <= 0 || format.bitsPerSample > 16;
}

_AUDIOSIGNAL* makeSignal(const _audio_format& format)
{
    auto* signal = new _AUDIOSIGNAL;
    signal->format = format;
    signal->format.mimeType = format.mimeType ? GetBString(format.mimeType, 1) : nullptr;
    signal->format.codecInfo = format.codecInfo ? GetBString(format.codecInfo, 1) : nullptr;
    signal->activeMask = (1u << format.numChannels) - 1u;
    signal->isFloat = storesFloat(format);
    signal->s16.channels = signal->f32.channels = format.numChannels;
    return signal;
}

void noMemory(const char* what)
{
    BLERROR_Set(BLERR_NO_MEMORY, "out of memory %s", what);
}

// Dispatches on the storage kind: fn(store).
template <typename Fn> auto withStore(_AUDIOSIGNAL* signal, Fn&& fn)
{
    return signal->isFloat ? fn(signal->f32) : fn(signal->s16);
}

// The caller holds the signal's lock.
template <typename O>
int64_t readLocked(_AUDIOSIGNAL* signal, int64_t pos, O* buffer, int64_t count, int64_t step,
    const Channels& which, int32_t flags)
{
    if (!signal || !buffer || count <= 0 || step < 1)
        return 0;
    const bool zeroPad = (flags & AUDIOSIGNAL_READ_ZEROPAD) != 0;
    return withStore(signal, [&](const auto& store) {
        return readFrames(store, pos, buffer, count, step, which, zeroPad);
    });
}

template <typename O>
int64_t read(_AUDIOSIGNAL* signal, int64_t pos, O* buffer, int64_t count, int64_t step,
    const Channels& which, int32_t flags)
{
    if (!signal)
        return 0;
    ReadLock guard(signal->lock);
    return readLocked(signal, pos, buffer, count, step, which, flags);
}

template <typename O>
int64_t readActive(_AUDIOSIGNAL* signal, int64_t pos, O* buffer, int64_t count, int32_t flags)
{
    if (!signal)
        return 0;
    ReadLock guard(signal->lock);
    int list[8];
    Channels which {list, 0};
    for (int c = 0; c < signal->channels(); ++c)
        if (signal->activeMask & (1u << c))
            list[which.count++] = c;
    if (which.count == signal->channels())
        which.list = nullptr;
    return readLocked(signal, pos, buffer, count, 1, which, flags);
}

template <typename O>
int64_t readChannel(
    _AUDIOSIGNAL* signal, int32_t channel, int64_t pos, O* buffer, int64_t count, int32_t flags)
{
    if (!signal || channel < 0 || channel >= signal->channels())
        return 0;
    const int list[1] = {channel};
    return read(signal, pos, buffer, count, 1, Channels {list, 1}, flags);
}

template <typename S>
int64_t insert(_AUDIOSIGNAL* signal, const S* data, int64_t pos, int64_t count, bool append)
{
    if (!signal || !data || count <= 0)
        return 0;
    WriteLock guard(signal->lock);
    try {
        const int64_t total = signal->total();
        const int64_t at = append ? total : std::clamp<int64_t>(pos, 0, total);
        withStore(signal, [&](auto& store) {
            store.insert(data, at, count);
            return 0;
        });
        return count;
    } catch (const std::exception&) {
        noMemory("inserting samples");
        return -1;
    }
}

} // namespace

namespace sova::audio {

int64_t overlapSignalSamples(_AUDIOSIGNAL* signal, const float* data, int64_t pos, int64_t count)
{
    if (!signal || !data || count <= 0)
        return 0;
    WriteLock guard(signal->lock);
    try {
        withStore(signal, [&](auto& store) {
            store.overlap(data, std::max<int64_t>(pos, 0), count);
            return 0;
        });
        return count;
    } catch (const std::exception&) {
        noMemory("adding samples");
        return -1;
    }
}

} // namespace sova::audio

extern "C" {

_audio_selection AUDIOSELECTION_Null(void)
{
    return _audio_selection {};
}

_audio_selection AUDIOSELECTION_Define(double begin, double end, uint32_t disabledChannelMask)
{
    _audio_selection selection {};
    selection.begin = begin;
    selection.end = end;
    selection.flags = AUDIOSELECTION_FLAG_DEFINED;
    selection.disabledChannelMask = disabledChannelMask;
    return selection;
}

_AUDIOSIGNAL* AUDIOSIGNAL_NewEx(_audio_format format)
{
    if (!AUDIO_IsValidFormat(&format)) {
        BLERROR_Set(AUDIOERR_INVALID_FORMAT,
            "no signal of %d Hz, %d channels, %d bits: the format is out of range",
            format.sampleRate, format.numChannels, format.bitsPerSample);
        return nullptr;
    }
    try {
        return makeSignal(format);
    } catch (const std::exception&) {
        noMemory("creating a signal");
        return nullptr;
    }
}

_AUDIOSIGNAL* AUDIOSIGNAL_OpenEx(const char* path, const char* format, uint32_t flags,
    int64_t startFrame, int64_t numFrames, const _audio_progress* progress)
{
    (void)flags;
    AUDIOFILE* file = AUDIO_LoadFileEx2(path, format, 0, startFrame, numFrames);
    if (!file)
        return nullptr;
    _AUDIOSIGNAL* signal = nullptr;
    try {
        _audio_format fmt {};
        AUDIO_GetAudioFileFormat(file, &fmt);
        if (fmt.numChannels < 1 || fmt.numChannels > 8 || fmt.sampleRate <= 0) {
            BLERROR_Set(AUDIOERR_UNSUPPORTED, "'%s': %d Hz, %d channels: no signal holds that",
                path, fmt.sampleRate, fmt.numChannels);
            AUDIO_CloseFile(file);
            return nullptr;
        }
        signal = makeSignal(fmt);
        const int64_t expected = AUDIO_Length(file);
        bool ok = withStore(signal, [&](auto& store) {
            using T = typename std::remove_reference_t<decltype(store)>::Block::value_type;
            const int64_t ch = store.channels;
            // Reads straight into the tail block, which grows to full size before the next.
            while (true) {
                if (store.blocks.empty() || store.frames(store.blocks.size() - 1) == kBlockFrames) {
                    store.blocks.push_back(std::make_shared<std::vector<T>>());
                    store.blocks.back()->reserve(static_cast<size_t>(kBlockFrames * ch));
                    store.starts.push_back(store.total());
                }
                auto& tail = *store.blocks.back();
                const int64_t have = static_cast<int64_t>(tail.size()) / ch;
                const int64_t want = std::min(kOpenChunkFrames, kBlockFrames - have);
                tail.resize(static_cast<size_t>((have + want) * ch));
                int64_t got;
                if constexpr (std::is_same_v<T, float>)
                    got = AUDIO_ReadIEEEFloat(file, tail.data() + have * ch, want);
                else
                    got = AUDIO_Read16(file, tail.data() + have * ch, want);
                tail.resize(static_cast<size_t>((have + std::max<int64_t>(got, 0)) * ch));
                store.starts.back() += std::max<int64_t>(got, 0);
                if (got < 0)
                    return false;
                if (got == 0)
                    break;
                if (progress && progress->report) {
                    const double fraction = expected > 0
                        ? std::min(1.0, double(store.total()) / double(expected))
                        : 0.0;
                    if (progress->report(progress->user, fraction) != 0) {
                        BLERROR_Set(AUDIOERR_CANCELLED, "reading '%s' was cancelled", path);
                        return false;
                    }
                }
            }
            if (store.blocks.back()->empty()) {
                store.blocks.pop_back();
                store.starts.pop_back();
            }
            return true;
        });
        if (ok && progress && progress->report)
            progress->report(progress->user, 1.0);
        if (ok)
            AUDIO_GetDamageReport(file, &signal->damage);
        if (!ok) {
            AUDIOSIGNAL_Destroy(signal);
            signal = nullptr;
        }
    } catch (const std::exception&) {
        BLERROR_Set(BLERR_NO_MEMORY, "'%s': out of memory reading the file into a signal", path);
        AUDIOSIGNAL_Destroy(signal);
        signal = nullptr;
    }
    AUDIO_CloseFile(file);
    return signal;
}

int32_t AUDIOSIGNAL_SaveEx(_AUDIOSIGNAL* signal, const char* path, const char* format,
    int64_t startFrame, int64_t numFrames)
{
    if (!signal)
        return 0;
    if (!path || !*path) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "no path to save the signal to");
        return 0;
    }
    ReadLock guard(signal->lock);
    const int64_t total = signal->total();
    const int64_t from = std::clamp<int64_t>(startFrame, 0, total);
    const int64_t count = numFrames <= 0 ? total - from : std::min(numFrames, total - from);
    AUDIOFILE* file = AUDIO_CreateFileEx2(
        path, format ? format : "", &signal->format, -1, -1, 0, nullptr, count);
    if (!file)
        return 0;
    const bool written = withStore(signal, [&](const auto& store) {
        return store.forEachSpan(from, count, [&](const auto* samples, int64_t n) {
            using T = std::remove_const_t<std::remove_pointer_t<decltype(samples)>>;
            if constexpr (std::is_same_v<T, float>)
                return AUDIO_WriteIEEEFloat(file, samples, n) == n;
            else
                return AUDIO_Write16(file, samples, n) == n;
        });
    });
    if (!written) {
        // Keep the writer's reason: closing an unfinished file must not replace it, unless the
        // I/O layer names the root cause (a full disk, a device that stopped taking bytes).
        const int32_t code = BLERROR_LastCode();
        char message[1024];
        std::snprintf(message, sizeof message, "%s", BLERROR_LastMessage());
        AUDIO_CloseFile(file);
        const int32_t closeCode = BLERROR_LastCode();
        const bool ioCause = closeCode == BLERR_WRITE_FAILED || closeCode == BLERR_SEEK_FAILED
            || closeCode == BLERR_CLOSE_FAILED || closeCode == BLERR_IO;
        if (ioCause)
            return 0;
        if (code != BLERR_NONE)
            BLERROR_Set(code, "%s", message);
        else
            BLERROR_Set(BLERR_WRITE_FAILED, "cannot write the signal into '%s'", path);
        return 0;
    }
    return AUDIO_CloseFile(file) == 1 ? 1 : 0;
}

_AUDIOSIGNAL* AUDIOSIGNAL_DuplicateEx(_AUDIOSIGNAL* signal, uint32_t options)
{
    if (!signal)
        return nullptr;
    ReadLock guard(signal->lock);
    try {
        auto copy = std::make_unique<_AUDIOSIGNAL>();
        copy->format = signal->format;
        copy->activeMask = signal->activeMask;
        copy->isFloat = signal->isFloat;
        copy->s16.channels = copy->f32.channels = signal->channels();
        if (!(options & AUDIOSIGNAL_DUP_FORMAT_ONLY)) {
            // Blocks are shared; whichever signal changes one first copies it.
            copy->s16.blocks = signal->s16.blocks;
            copy->s16.starts = signal->s16.starts;
            copy->f32.blocks = signal->f32.blocks;
            copy->f32.starts = signal->f32.starts;
        }
        return copy.release();
    } catch (const std::exception&) {
        noMemory("duplicating a signal");
        return nullptr;
    }
}

void AUDIOSIGNAL_Destroy(_AUDIOSIGNAL* signal)
{
    delete signal;
}

int64_t AUDIOSIGNAL_NumSamples(_AUDIOSIGNAL* signal)
{
    if (!signal)
        return 0;
    ReadLock guard(signal->lock);
    return signal->total();
}

int32_t AUDIOSIGNAL_GetDamageReport(_AUDIOSIGNAL* signal, AUDIO_DamageReport* report)
{
    if (!signal || !report) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "no signal or no report record");
        return 0;
    }
    ReadLock guard(signal->lock);
    *report = signal->damage;
    return 1;
}

double AUDIOSIGNAL_Length(_AUDIOSIGNAL* signal)
{
    if (!signal || signal->format.sampleRate <= 0)
        return 0.0;
    ReadLock guard(signal->lock);
    return static_cast<double>(signal->total()) / signal->format.sampleRate;
}

int32_t AUDIOSIGNAL_SampleRate(_AUDIOSIGNAL* signal)
{
    return signal ? signal->format.sampleRate : 0;
}

int32_t AUDIOSIGNAL_NumChannels(_AUDIOSIGNAL* signal)
{
    return signal ? signal->format.numChannels : 0;
}

int32_t AUDIOSIGNAL_BitsPerSample(_AUDIOSIGNAL* signal)
{
    return signal ? signal->format.bitsPerSample : 0;
}

const _audio_format* AUDIOSIGNAL_GetFormatRef(_AUDIOSIGNAL* signal)
{
    return signal ? &signal->format : nullptr;
}

int32_t AUDIOSIGNAL_NumActiveChannels(_AUDIOSIGNAL* signal)
{
    if (!signal)
        return 0;
    ReadLock guard(signal->lock);
    return __builtin_popcount(signal->activeMask);
}

int32_t AUDIOSIGNAL_ChannelIsActive(_AUDIOSIGNAL* signal, int32_t channel)
{
    if (!signal || channel < 0 || channel >= signal->channels())
        return 0;
    ReadLock guard(signal->lock);
    return (signal->activeMask >> channel) & 1u;
}

int32_t AUDIOSIGNAL_SetChannelActive(_AUDIOSIGNAL* signal, int32_t channel, int32_t active)
{
    if (!signal || channel < 0 || channel >= signal->channels())
        return 0;
    WriteLock guard(signal->lock);
    if (active)
        signal->activeMask |= 1u << channel;
    else
        signal->activeMask &= ~(1u << channel);
    return 1;
}

int64_t AUDIOSIGNAL_GetSamplesEx(
    _AUDIOSIGNAL* signal, int64_t pos, float* buffer, int64_t count, int32_t flags)
{
    return read(signal, pos, buffer, count, 1, Channels {}, flags);
}

int64_t AUDIOSIGNAL_GetSamples16Ex(
    _AUDIOSIGNAL* signal, int64_t pos, int16_t* buffer, int64_t count, int32_t flags)
{
    return read(signal, pos, buffer, count, 1, Channels {}, flags);
}

int64_t AUDIOSIGNAL_GetSamplesWithStepEx(
    _AUDIOSIGNAL* signal, int64_t pos, float* buffer, int64_t count, int32_t step, int32_t flags)
{
    return read(signal, pos, buffer, count, step, Channels {}, flags);
}

int64_t AUDIOSIGNAL_GetActiveSamplesEx(
    _AUDIOSIGNAL* signal, int64_t pos, float* buffer, int64_t count, int32_t flags)
{
    return readActive(signal, pos, buffer, count, flags);
}

int64_t AUDIOSIGNAL_GetActiveSamples16Ex(
    _AUDIOSIGNAL* signal, int64_t pos, int16_t* buffer, int64_t count, int32_t flags)
{
    return readActive(signal, pos, buffer, count, flags);
}

int64_t AUDIOSIGNAL_GetChannelSamplesEx(
    _AUDIOSIGNAL* signal, int32_t channel, int64_t pos, float* buffer, int64_t count, int32_t flags)
{
    return readChannel(signal, channel, pos, buffer, count, flags);
}

int64_t AUDIOSIGNAL_GetChannelSamples16Ex(_AUDIOSIGNAL* signal, int32_t channel, int64_t pos,
    int16_t* buffer, int64_t count, int32_t flags)
{
    return readChannel(signal, channel, pos, buffer, count, flags);
}

int64_t AUDIOSIGNAL_InsertSamples(
    _AUDIOSIGNAL* signal, const float* data, int64_t pos, int64_t count)
{
    return insert(signal, data, pos, count, false);
}

int64_t AUDIOSIGNAL_InsertSamples16(
    _AUDIOSIGNAL* signal, const int16_t* data, int64_t pos, int64_t count)
{
    return insert(signal, data, pos, count, false);
}

int64_t AUDIOSIGNAL_AppendSamples(_AUDIOSIGNAL* signal, const float* data, int64_t count)
{
    return insert(signal, data, 0, count, true);
}

int64_t AUDIOSIGNAL_AppendSamples16(_AUDIOSIGNAL* signal, const int16_t* data, int64_t count)
{
    return insert(signal, data, 0, count, true);
}

int64_t AUDIOSIGNAL_DeleteSamples(_AUDIOSIGNAL* signal, int64_t pos, int64_t count)
{
    if (!signal || count <= 0)
        return 0;
    WriteLock guard(signal->lock);
    const int64_t total = signal->total();
    const int64_t from = std::clamp<int64_t>(pos, 0, total);
    const int64_t to = pos > total - count ? total : std::max<int64_t>(pos + count, 0);
    if (to <= from)
        return 0;
    try {
        return withStore(signal, [&](auto& store) { return store.remove(from, to - from); });
    } catch (const std::exception&) {
        noMemory("deleting samples");
        return 0;
    }
}

} // extern "C"
