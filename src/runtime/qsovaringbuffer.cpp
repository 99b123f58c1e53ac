#include "qsovaringbuffer.h"
#include "qsovaringbuffer_p.h"

#include <QDebug>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

namespace QSova {

namespace {

const std::pair<void*, unsigned> ERROR_VALUE{nullptr, 0};

} // namespace

std::pair<void*, unsigned> vm_allocate(unsigned size, void** handle)
{
    const auto page = static_cast<unsigned>(sysconf(_SC_PAGESIZE));
    size = (size + page - 1) / page * page;

    // Reserve the address range for both halves first, so that the two file mappings can be
    // placed over it side by side.
    // Kept: only a null result counts as failure here, MAP_FAILED is not tested. A failed
    // reservation still ends in (null, 0) at the second fixed mapping below, which cannot land
    // at MAP_FAILED + size; hosts rely on that one failure value and on the order in which
    // the steps touch the system (a temporary file is made and removed on that path too).
    auto* base = static_cast<char*>(
        mmap(nullptr, 2 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (!base)
        return ERROR_VALUE;

    char path[] = "/tmp/BLRINGBUFFERXXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        munmap(base, 2 * size);
        return ERROR_VALUE;
    }
    unlink(path); // the memory lives only as long as it is mapped

    struct stat info;
    if (ftruncate(fd, size) != 0 || fstat(fd, &info) != 0
        || info.st_size != static_cast<off_t>(size)) {
        close(fd);
        munmap(base, 2 * size);
        return ERROR_VALUE;
    }
    if (mmap(base, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) != base) {
        close(fd);
        munmap(base, 2 * size);
        return ERROR_VALUE;
    }
    if (mmap(base + size, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0)
        != base + size) {
        munmap(base, 2 * size);
        close(fd);
        return ERROR_VALUE;
    }
    close(fd); // the mappings keep the file
    *handle = nullptr;
    return {base, size};
}

void vm_free(void* base, unsigned size, void* handle)
{
    Q_UNUSED(handle); // no handle on this platform
    munmap(base, size);
    munmap(static_cast<char*>(base) + size, size);
}

template<typename T>
RingBuffer<T>::RingBuffer(unsigned bytes)
{
    const auto mapping = vm_allocate(bytes, &m_handle);
    if (!mapping.first || mapping.second == 0)
        throw std::bad_alloc();
    m_data = static_cast<T*>(mapping.first);
    m_capacity = mapping.second / sizeof(T);
}

template<typename T>
RingBuffer<T>::~RingBuffer()
{
    vm_free(m_data, m_capacity * sizeof(T), m_handle);
}

template<typename T>
void RingBuffer<T>::produce(unsigned n) noexcept
{
    while (n > m_capacity)
        n -= m_capacity;
    m_write += n;
    // Kept: an index equal to the capacity does not wrap. Hosts produce a whole buffer in one
    // call and expect the write index to land on the capacity, with the fill at the capacity.
    if (m_write > m_capacity)
        m_write -= m_capacity;
    m_fill += n;
    m_totalProduced += n;
}

template<typename T>
void RingBuffer<T>::consume(unsigned n) noexcept
{
    while (n > m_capacity)
        n -= m_capacity;
    m_read += n;
    if (m_read > m_capacity) // same rule as produce(): the capacity itself is a valid index
        m_read -= m_capacity;
    m_fill -= n;
    m_totalConsumed += n;
}

template<typename T>
void RingBuffer<T>::reset() noexcept
{
    m_write = 0;
    m_read = 0;
    m_fill = 0;
}

template<typename T>
bool RingBuffer<T>::selftest(bool verbose)
{
    return ringBufferSelftest(verbose, nullptr);
}

// Exported through the attribute on the class template.
template class RingBuffer<int>;

// The log texts, including their Portuguese verdicts and trailing blanks and newlines, are
// kept verbatim: hosts and their test scripts match the debug output literally.
bool ringBufferSelftest(bool verbose, SelftestProbe probe)
{
    qDebug("QSova::RingBuffer...");
    RingBuffer<int> buffer(16384); // throws std::bad_alloc when it cannot map
    const unsigned capacity = buffer.capacity();
    int* const data = buffer.data();

    if (verbose)
        qDebug("Testing virtual mirroring...");
    for (unsigned i = 0; i < capacity; ++i) {
        data[i] = int(i);
        if (probe)
            probe(buffer, 0, i);
        if (data[capacity + i] != int(i))
            return false; // no message of its own: the verdict is the result
    }

    if (verbose) {
        qDebug("OK");
        qDebug("Testing full-buffer produce... ");
    }
    // The write index lands exactly on the capacity here, which must not wrap.
    buffer.produce(capacity - buffer.available());
    if (verbose)
        qDebug("OK\n");

    buffer.reset();
    for (int v = 1; v <= 10; ++v) {
        int* const out = buffer.writePointer();
        for (int k = 0; k < 1000; ++k)
            out[k] = v;
        buffer.produce(1000);
        if (probe)
            probe(buffer, v, 0);
        // 1000 does not divide the capacity, so the rounds cross the mirror seam.
        const int* const in = buffer.readPointer();
        for (unsigned offset = 0; offset < buffer.available(); ++offset) {
            if (in[offset] != v) {
                if (verbose)
                    qDebug("%d round, %d offset: Expected %d, got %d\n", v, int(offset), v,
                           in[offset]);
                qDebug("FALHOU!");
                return false;
            }
        }
        buffer.consume(buffer.available());
    }

    buffer.reset();
    for (int i = 0; i < 256; ++i)
        buffer.writePointer()[i] = i;
    buffer.produce(256);
    buffer.consume(10);

    qDebug("PASSOU!\n");
    return true;
}

} // namespace QSova
