#pragma once

#include "qtsovacore_export.h"

// Fixed-size sample arrays whose data start on an A-byte boundary and that keep slack storage
// behind the last element, so that every loop over them runs in whole SSE blocks (4 floats or
// 8 shorts) without a scalar tail. The library instantiates QSovaVector<float, 16> (the full
// interface) and QSovaVector<short, 16> (the 16-bit side of the conversions).
//
// Every block operation may touch up to 3 floats (or 7 shorts) past its bound. That is safe for
// vectors that allocated (32 spare elements) and for wrapped memory that has such slack of its
// own; wrapped memory must also be A-byte aligned, since all loads and stores are aligned.
template<typename T, int A = 16>
class QTSOVACORE_EXPORT QSovaVector
{
public:
    // Empty: no storage, size 0.
    QSovaVector() noexcept = default;
    // n elements, not initialised.
    explicit QSovaVector(unsigned n);
    // n elements copied from src.
    QSovaVector(const T* src, unsigned n);
    // Wraps p without owning it. Only when p is not A-byte aligned and copyIfUnaligned is set
    // does the vector allocate and copy the n elements instead.
    QSovaVector(T* p, unsigned n, bool copyIfUnaligned);
    // Deep copy of other's elements.
    QSovaVector(const QSovaVector& other);
    ~QSovaVector();

    QSovaVector& operator=(const QSovaVector&) = delete;

    unsigned size() const noexcept { return m_size; }
    T* data() noexcept { return m_data; }
    const T* data() const noexcept { return m_data; }
    const T* constData() const noexcept { return m_data; }
    T* begin() noexcept { return m_data; }
    const T* begin() const noexcept { return m_data; }
    T* checkedIterator() noexcept { return m_data; }
    T* end() noexcept { return m_data + m_size; }
    const T* end() const noexcept { return m_data + m_size; }
    // No bounds check.
    T& operator[](int i) noexcept { return m_data[i]; }
    const T& operator[](int i) const noexcept { return m_data[i]; }

    // Float only. Each runs in blocks of 4 up to its bound rounded up to a multiple of 4.
    // Bound: size.
    QSovaVector& operator=(float v) noexcept;
    QSovaVector& operator*=(float v) noexcept;
    QSovaVector& operator+=(float v) noexcept;
    // Element-wise; bound: the smaller of the two sizes.
    QSovaVector& operator*=(const QSovaVector& o) noexcept;
    QSovaVector& operator+=(const QSovaVector& o) noexcept;
    // this[i] += o[i] * a; bound: this vector's size (o must be at least as long).
    void madd(float a, const QSovaVector& o) noexcept;

    // Exactly size elements set to 0, no rounding.
    void zero() noexcept;
    // Elements from start up to min(end, size), exclusive, set to 0; nothing when start lies
    // at or past the size or past that limit.
    void zero(unsigned start, unsigned end) noexcept;
    // o.size elements copied into this vector's data; this vector's size is neither changed
    // nor checked (the caller guarantees the room).
    void copyContents(const QSovaVector& o) noexcept;

private:
    void allocate(unsigned n);

    T* m_allocation = nullptr; // owned block, null when wrapping foreign memory
    T* m_data = nullptr;
    unsigned m_size = 0;
    unsigned m_capacity = 0; // size + 32 when allocated, else size
};

// The float operations exist for float only.
template<> QSovaVector<float, 16>& QSovaVector<float, 16>::operator=(float v) noexcept;
template<> QSovaVector<float, 16>& QSovaVector<float, 16>::operator*=(float v) noexcept;
template<> QSovaVector<float, 16>& QSovaVector<float, 16>::operator+=(float v) noexcept;
template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator*=(const QSovaVector& o) noexcept;
template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator+=(const QSovaVector& o) noexcept;
template<> void QSovaVector<float, 16>::madd(float a, const QSovaVector& o) noexcept;

extern template class QSovaVector<float, 16>;
extern template class QSovaVector<short, 16>;

// 16-bit to float: n = min(in.size, out.size), out[i] = in[i] / 32768, in blocks of 8.
QTSOVACORE_EXPORT void short_to_float(const QSovaVector<short, 16>& in,
                                      QSovaVector<float, 16>& out) noexcept;
// Float to 16-bit: n = min(in.size, out.size), in blocks of 8. in[i] * 32768 is rounded to
// the nearest integer (ties to even) and saturated, so 1.0 gives 32767 and anything below -1.0
// gives -32768. Products outside the 32-bit integer range (and NaN) give -32768: that is what
// the processor's conversion yields for them, and the result must not depend on the path.
QTSOVACORE_EXPORT void float_to_short(const QSovaVector<float, 16>& in,
                                      QSovaVector<short, 16>& out) noexcept;

// Fixed channel counts; only 2 exists.
template<int N>
void interleave(const QSovaVector<float, 16>* in, QSovaVector<float, 16>& out) noexcept;
template<int N>
void de_interleave(const QSovaVector<float, 16>& in, QSovaVector<float, 16>* out) noexcept;

// Two channels: n = in[0].size frames, out[2i] = in[0][i], out[2i + 1] = in[1][i].
template<>
QTSOVACORE_EXPORT void interleave<2>(const QSovaVector<float, 16>* in,
                                     QSovaVector<float, 16>& out) noexcept;
// Two channels: n = out[0].size frames, out[0][i] = in[2i], out[1][i] = in[2i + 1].
template<>
QTSOVACORE_EXPORT void de_interleave<2>(const QSovaVector<float, 16>& in,
                                        QSovaVector<float, 16>* out) noexcept;

// Any channel count: 1 copies in[0] (in[0].size elements), 2 is interleave<2>, more run a plain
// loop over n = in[0].size frames: out[i * nch + c] = in[c][i]. 0 does nothing.
QTSOVACORE_EXPORT void interleave(const QSovaVector<float, 16>* in, QSovaVector<float, 16>& out,
                                  unsigned nch) noexcept;
// The inverse: 1 copies in (in.size elements) into out[0], 2 is de_interleave<2>, more take
// n = out[0].size frames: out[c][i] = in[i * nch + c]. 0 does nothing.
QTSOVACORE_EXPORT void de_interleave(const QSovaVector<float, 16>& in,
                                     QSovaVector<float, 16>* out, unsigned nch) noexcept;
