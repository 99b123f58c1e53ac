#pragma once

#include "qtsovacore_export.h"

#include <QtGlobal>

#include <utility>

namespace QSova {

// Maps size bytes (rounded up to whole pages) twice, back to back: the bytes at base + size + k
// are the bytes at base + k. Returns (base, mapped size) and sets *handle to null; on failure
// returns (null, 0), leaves *handle alone and keeps nothing mapped. Never throws.
QTSOVACORE_EXPORT std::pair<void*, unsigned> vm_allocate(unsigned size, void** handle);
// Releases both halves of a mapping; size is the mapped size vm_allocate returned.
QTSOVACORE_EXPORT void vm_free(void* base, unsigned size, void* handle);

// A ring buffer over a mirrored mapping: from any index between 0 and the capacity, a whole
// capacity of elements is contiguous, so producers and consumers always copy in one piece.
// An index may equal the capacity; it wraps only once it is past it.
//
// No locking: a producer and a consumer on different threads must order the index updates
// themselves. produce() and consume() trust the caller to stay within the free space and the
// fill.
template<typename T>
class QTSOVACORE_EXPORT RingBuffer
{
public:
    // Maps at least bytes bytes; throws std::bad_alloc when the mapping fails.
    explicit RingBuffer(unsigned bytes);
    ~RingBuffer();
    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    unsigned capacity() const noexcept { return m_capacity; }
    // The base of the mapping; valid for 2 * capacity() elements.
    T* data() const noexcept { return m_data; }
    T* writePointer() const noexcept { return m_data + m_write; }
    T* readPointer() const noexcept { return m_data + m_read; }
    unsigned available() const noexcept { return m_fill; }
    unsigned freeSpace() const noexcept { return m_capacity - m_fill; }
    quint64 totalProduced() const noexcept { return m_totalProduced; }
    quint64 totalConsumed() const noexcept { return m_totalConsumed; }

    // Account for n elements written at writePointer() / read at readPointer(). Whole
    // capacities are dropped from n first.
    void produce(unsigned n) noexcept;
    void consume(unsigned n) noexcept;
    // Indices and fill back to 0; the running totals stay.
    void reset() noexcept;

    // Checks the mirroring and ten rounds of produce and consume across the seam, logging to
    // the debug output. Throws std::bad_alloc when it cannot map its buffer.
    static bool selftest(bool verbose);

private:
    unsigned m_capacity = 0;
    T* m_data = nullptr;
    unsigned m_write = 0;
    unsigned m_read = 0;
    unsigned m_fill = 0;
    quint64 m_totalConsumed = 0;
    quint64 m_totalProduced = 0;
    void* m_handle = nullptr;
};

extern template class RingBuffer<int>;

} // namespace QSova
