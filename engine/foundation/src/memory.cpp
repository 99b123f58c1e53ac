// Arenas (memory descriptors) and the string lists that live in them.
#include <sova/blerror.h>
#include <sova/bllist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

struct Block
{
    Block* next;
    size_t size; // bytes usable after the header, before alignment
};

constexpr size_t kDefaultChunk = 16 * 1024;
constexpr size_t kMaxChunk = 1024 * 1024;
constexpr size_t kMaxAlignment = 4096;

uintptr_t alignUp(uintptr_t value, size_t alignment)
{
    return (value + alignment - 1) & ~static_cast<uintptr_t>(alignment - 1);
}

} // namespace

struct BLMEM_Descr
{
    char* name = nullptr;
    size_t alignment = 8;
    size_t nextChunk = kDefaultChunk;
    Block* blocks = nullptr; // every block, current one first
    uintptr_t cursor = 0; // free space of the current block
    uintptr_t end = 0;
    size_t handedOut = 0;
};

namespace {

// A block whose usable space holds `payload` bytes at any alignment the arena uses.
Block* newBlock(BLMEM_Descr* memory, size_t payload)
{
    const size_t header = sizeof(Block);
    if (payload > SIZE_MAX - header - memory->alignment)
        return nullptr;
    const size_t total = header + memory->alignment + payload;
    auto* block = static_cast<Block*>(std::malloc(total));
    if (!block)
        return nullptr;
    block->size = total - header;
    return block;
}

uintptr_t blockStart(Block* block)
{
    return reinterpret_cast<uintptr_t>(block) + sizeof(Block);
}

} // namespace

extern "C" {

BLMEM_Descr* BLMEM_CreateMemDescrEx(const char* name, uint32_t chunkSize, uint32_t alignment)
{
    if (alignment == 0)
        alignment = 8;
    if (alignment > kMaxAlignment || (alignment & (alignment - 1)) != 0) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "arena alignment %u is not a power of two up to %u",
            alignment, static_cast<unsigned>(kMaxAlignment));
        return nullptr;
    }
    auto* memory = new (std::nothrow) BLMEM_Descr;
    if (!memory) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    if (name) {
        const size_t n = std::strlen(name);
        memory->name = static_cast<char*>(std::malloc(n + 1));
        if (!memory->name) {
            delete memory;
            BLERROR_Set(BLERR_NO_MEMORY, nullptr);
            return nullptr;
        }
        std::memcpy(memory->name, name, n + 1);
    }
    memory->alignment = alignment;
    memory->nextChunk = chunkSize ? chunkSize : kDefaultChunk;
    return memory;
}

void BLMEM_DisposeMemDescr(BLMEM_Descr* memory)
{
    if (!memory)
        return;
    for (Block* block = memory->blocks; block;) {
        Block* next = block->next;
        std::free(block);
        block = next;
    }
    std::free(memory->name);
    delete memory;
}

void* BLMEM_NewEx(BLMEM_Descr* memory, size_t size)
{
    if (!memory) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null arena");
        return nullptr;
    }
    // A zero-sized request still takes a byte so that every pointer is unique.
    const size_t need = size ? size : 1;
    if (memory->blocks) {
        const uintptr_t at = alignUp(memory->cursor, memory->alignment);
        if (at >= memory->cursor && at <= memory->end && memory->end - at >= need) {
            memory->cursor = at + need;
            memory->handedOut += size;
            return reinterpret_cast<void*>(at);
        }
    }
    // Large requests get a block of their own so the current block keeps its free space.
    if (memory->blocks && need > memory->nextChunk / 4) {
        Block* block = newBlock(memory, need);
        if (!block) {
            BLERROR_Set(BLERR_NO_MEMORY, "arena '%s': cannot allocate %zu bytes",
                memory->name ? memory->name : "", size);
            return nullptr;
        }
        block->next = memory->blocks->next;
        memory->blocks->next = block;
        memory->handedOut += size;
        return reinterpret_cast<void*>(alignUp(blockStart(block), memory->alignment));
    }
    size_t chunk = memory->nextChunk;
    if (chunk < need)
        chunk = need;
    Block* block = newBlock(memory, chunk);
    if (!block) {
        BLERROR_Set(BLERR_NO_MEMORY, "arena '%s': cannot allocate %zu bytes",
            memory->name ? memory->name : "", size);
        return nullptr;
    }
    block->next = memory->blocks;
    memory->blocks = block;
    memory->end = blockStart(block) + block->size;
    const uintptr_t at = alignUp(blockStart(block), memory->alignment);
    memory->cursor = at + need;
    memory->handedOut += size;
    if (memory->nextChunk < kMaxChunk)
        memory->nextChunk *= 2;
    return reinterpret_cast<void*>(at);
}

char* BLMEM_StrDup(BLMEM_Descr* memory, const char* text)
{
    if (!text)
        return nullptr;
    const size_t n = std::strlen(text);
    auto* copy = static_cast<char*>(BLMEM_NewEx(memory, n + 1));
    if (copy)
        std::memcpy(copy, text, n + 1);
    return copy;
}

size_t BLMEM_BytesAllocated(const BLMEM_Descr* memory)
{
    return memory ? memory->handedOut : 0;
}

BLSTRINGLIST BLSTRINGLIST_Create(BLMEM_Descr* memory, const char* const* texts, int32_t count)
{
    if (!memory || count < 0 || (count > 0 && !texts)) {
        BLERROR_Set(
            BLERR_INVALID_ARGUMENT, "string list: null arena, null texts or count %d", count);
        return nullptr;
    }
    auto* list = static_cast<char**>(
        BLMEM_NewEx(memory, (static_cast<size_t>(count) + 1) * sizeof(char*)));
    if (!list)
        return nullptr;
    int32_t n = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (!texts[i])
            continue;
        list[n] = BLMEM_StrDup(memory, texts[i]);
        if (!list[n])
            return nullptr;
        ++n;
    }
    list[n] = nullptr;
    return list;
}

int32_t GetStringListLength(BLSTRINGLIST list)
{
    if (!list)
        return 0;
    int32_t n = 0;
    while (list[n])
        ++n;
    return n;
}

const char* GetStringInStringList(BLSTRINGLIST list, int32_t index)
{
    if (!list || index < 0)
        return nullptr;
    for (int32_t i = 0; list[i]; ++i) {
        if (i == index)
            return list[i];
    }
    return nullptr;
}

} // extern "C"
