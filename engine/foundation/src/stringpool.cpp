// The pool of persistent strings: interned texts that live until the process ends.
#include <sova/blerror.h>
#include <sova/blstring.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string_view>
#include <unordered_set>

namespace {

constexpr size_t kBlockSize = 64 * 1024;

// Storage is never freed; every block stays linked from the pool so that leak checkers see it
// as reachable at exit.
struct Block
{
    Block* next;
    char data[1];
};

// A hasher of our own keeps the set's code internal to the library.
struct Hash
{
    size_t operator()(std::string_view text) const { return std::hash<std::string_view> {}(text); }
};

struct Pool
{
    std::shared_mutex mutex;
    std::unordered_set<std::string_view, Hash> texts;
    Block* blocks = nullptr;
    char* cursor = nullptr;
    size_t left = 0;

    const char* store(std::string_view text)
    {
        const size_t need = text.size() + 1;
        char* at;
        if (need <= left) {
            at = cursor;
            cursor += need;
            left -= need;
        } else {
            // Texts larger than a quarter block get a block of their own; the current block
            // keeps its free space for the small ones.
            const bool own = need > kBlockSize / 4;
            const size_t size = own ? need : kBlockSize;
            auto* block = static_cast<Block*>(std::malloc(offsetof(Block, data) + size));
            if (!block)
                return nullptr;
            block->next = blocks;
            blocks = block;
            at = block->data;
            if (!own) {
                cursor = block->data + need;
                left = size - need;
            }
        }
        std::memcpy(at, text.data(), text.size());
        at[text.size()] = '\0';
        return at;
    }
};

Pool& pool()
{
    // Never destroyed: pooled texts must outlive every static object that holds one.
    static Pool* p = new Pool;
    return *p;
}

} // namespace

extern "C" {

const char* GetBString(const char* text, int32_t persistent)
{
    if (!text)
        return nullptr;
    const std::string_view key(text);
    Pool& p = pool();
    {
        std::shared_lock<std::shared_mutex> lock(p.mutex);
        const auto found = p.texts.find(key);
        if (found != p.texts.end())
            return found->data();
    }
    if (!persistent)
        return nullptr;
    std::unique_lock<std::shared_mutex> lock(p.mutex);
    // Another thread may have added it between the two locks.
    const auto found = p.texts.find(key);
    if (found != p.texts.end())
        return found->data();
    const char* copy = p.store(key);
    if (!copy) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    try {
        p.texts.insert(std::string_view(copy, key.size()));
    } catch (const std::bad_alloc&) {
        // The copy stays in its block, unused; the pool is still consistent.
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    return copy;
}

} // extern "C"
