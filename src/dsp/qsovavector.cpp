#include "qsovavector.h"
#include "qsovavector_p.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

// Spare elements behind every allocated vector: they absorb both the alignment shift and the
// over-run of the block loops.
constexpr unsigned kSlack = 32;

} // namespace

// ---------------------------------------------------------------------------------------------
// Kernels

namespace QSovaSimd {

void fill(float* dst, float v, unsigned n) noexcept
{
    const __m128 x = _mm_set1_ps(v);
    for (unsigned i = 0; i < n; i += 4)
        _mm_store_ps(dst + i, x);
}

void fillScalar(float* dst, float v, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] = v;
}

void scale(float* dst, float v, unsigned n) noexcept
{
    const __m128 x = _mm_set1_ps(v);
    for (unsigned i = 0; i < n; i += 4)
        _mm_store_ps(dst + i, _mm_mul_ps(_mm_load_ps(dst + i), x));
}

void scaleScalar(float* dst, float v, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] *= v;
}

void offset(float* dst, float v, unsigned n) noexcept
{
    const __m128 x = _mm_set1_ps(v);
    for (unsigned i = 0; i < n; i += 4)
        _mm_store_ps(dst + i, _mm_add_ps(_mm_load_ps(dst + i), x));
}

void offsetScalar(float* dst, float v, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] += v;
}

void multiply(float* dst, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; i += 4)
        _mm_store_ps(dst + i, _mm_mul_ps(_mm_load_ps(dst + i), _mm_load_ps(src + i)));
}

void multiplyScalar(float* dst, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] *= src[i];
}

void add(float* dst, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; i += 4)
        _mm_store_ps(dst + i, _mm_add_ps(_mm_load_ps(dst + i), _mm_load_ps(src + i)));
}

void addScalar(float* dst, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] += src[i];
}

void madd(float* dst, const float* src, float a, unsigned n) noexcept
{
    const __m128 x = _mm_set1_ps(a);
    for (unsigned i = 0; i < n; i += 4) {
        const __m128 product = _mm_mul_ps(_mm_load_ps(src + i), x);
        _mm_store_ps(dst + i, _mm_add_ps(_mm_load_ps(dst + i), product));
    }
}

void maddScalar(float* dst, const float* src, float a, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i) {
        const float product = src[i] * a;
        dst[i] = dst[i] + product;
    }
}

void shortToFloat(float* dst, const short* src, unsigned n) noexcept
{
    // 2^-15 in every lane (bit pattern 0x38000000).
    static const __m128 xmm_scale = _mm_set1_ps(3.0517578125e-05f);
    for (unsigned i = 0; i < n; i += 8) {
        const __m128i s = _mm_load_si128(reinterpret_cast<const __m128i*>(src + i));
        // Each 16-bit lane into the top half of a 32-bit lane, then an arithmetic shift back
        // down: sign extension without SSE4.1.
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(s, s), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(s, s), 16);
        _mm_store_ps(dst + i, _mm_mul_ps(_mm_cvtepi32_ps(lo), xmm_scale));
        _mm_store_ps(dst + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(hi), xmm_scale));
    }
}

void shortToFloatScalar(float* dst, const short* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i)
        dst[i] = static_cast<float>(src[i]) * 3.0517578125e-05f;
}

void floatToShort(short* dst, const float* src, unsigned n) noexcept
{
    // 32768 in every lane (bit pattern 0x47000000).
    static const __m128 xmm_32768 = _mm_set1_ps(32768.0f);
    for (unsigned i = 0; i < n; i += 8) {
        // The conversion rounds with the current mode: to nearest, ties to even.
        const __m128i lo = _mm_cvtps_epi32(_mm_mul_ps(_mm_load_ps(src + i), xmm_32768));
        const __m128i hi = _mm_cvtps_epi32(_mm_mul_ps(_mm_load_ps(src + i + 4), xmm_32768));
        _mm_store_si128(reinterpret_cast<__m128i*>(dst + i), _mm_packs_epi32(lo, hi));
    }
}

void floatToShortScalar(short* dst, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i) {
        const float product = src[i] * 32768.0f;
        std::int32_t value = INT32_MIN; // out of range and NaN, as the processor converts them
        if (product >= -2147483648.0f && product < 2147483648.0f)
            value = static_cast<std::int32_t>(std::nearbyint(product));
        dst[i] = static_cast<short>(std::clamp<std::int32_t>(value, -32768, 32767));
    }
}

void interleave2(float* dst, const float* a, const float* b, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; i += 4) {
        const __m128 x = _mm_load_ps(a + i);
        const __m128 y = _mm_load_ps(b + i);
        _mm_store_ps(dst + 2 * i, _mm_unpacklo_ps(x, y));
        _mm_store_ps(dst + 2 * i + 4, _mm_unpackhi_ps(x, y));
    }
}

void interleave2Scalar(float* dst, const float* a, const float* b, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i) {
        dst[2 * i] = a[i];
        dst[2 * i + 1] = b[i];
    }
}

void deinterleave2(float* a, float* b, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; i += 4) {
        const __m128 x = _mm_load_ps(src + 2 * i);     // a0 b0 a1 b1
        const __m128 y = _mm_load_ps(src + 2 * i + 4); // a2 b2 a3 b3
        _mm_store_ps(a + i, _mm_shuffle_ps(x, y, _MM_SHUFFLE(2, 0, 2, 0)));
        _mm_store_ps(b + i, _mm_shuffle_ps(x, y, _MM_SHUFFLE(3, 1, 3, 1)));
    }
}

void deinterleave2Scalar(float* a, float* b, const float* src, unsigned n) noexcept
{
    for (unsigned i = 0; i < n; ++i) {
        a[i] = src[2 * i];
        b[i] = src[2 * i + 1];
    }
}

} // namespace QSovaSimd

// ---------------------------------------------------------------------------------------------
// QSovaVector

template<typename T, int A>
void QSovaVector<T, A>::allocate(unsigned n)
{
    m_allocation = new T[n + kSlack];
    // Kept: the block is moved forward by its own address modulo A, not rounded up. With the
    // 8-byte alignment that the platform allocator guarantees this lands on an A-byte boundary
    // (offset 0 stays, offset 8 moves by 8), and hosts rely on the exact data offset inside
    // the block that this gives. A port to an allocator with only 4-byte alignment must round
    // up instead.
    const auto misalignment = reinterpret_cast<std::uintptr_t>(m_allocation) % A;
    m_data = reinterpret_cast<T*>(reinterpret_cast<char*>(m_allocation) + misalignment);
    m_size = n;
    m_capacity = n + kSlack;
}

template<typename T, int A>
QSovaVector<T, A>::QSovaVector(unsigned n)
{
    allocate(n);
}

template<typename T, int A>
QSovaVector<T, A>::QSovaVector(const T* src, unsigned n)
{
    allocate(n);
    if (n)
        std::memcpy(m_data, src, n * sizeof(T));
}

template<typename T, int A>
QSovaVector<T, A>::QSovaVector(T* p, unsigned n, bool copyIfUnaligned)
{
    if (copyIfUnaligned && reinterpret_cast<std::uintptr_t>(p) % A != 0) {
        allocate(n);
        if (n)
            std::memcpy(m_data, p, n * sizeof(T));
        return;
    }
    m_data = p;
    m_size = n;
    m_capacity = n;
}

template<typename T, int A>
QSovaVector<T, A>::QSovaVector(const QSovaVector& other)
{
    allocate(other.m_size);
    if (other.m_size)
        std::memcpy(m_data, other.m_data, other.m_size * sizeof(T));
}

template<typename T, int A>
QSovaVector<T, A>::~QSovaVector()
{
    delete[] m_allocation;
    m_allocation = nullptr;
    m_data = nullptr;
}

template<typename T, int A>
void QSovaVector<T, A>::zero() noexcept
{
    std::fill(m_data, m_data + m_size, T(0));
}

template<typename T, int A>
void QSovaVector<T, A>::zero(unsigned start, unsigned end) noexcept
{
    const unsigned limit = std::min(end, m_size);
    if (start >= m_size || start > limit)
        return;
    std::fill(m_data + start, m_data + limit, T(0));
}

template<typename T, int A>
void QSovaVector<T, A>::copyContents(const QSovaVector& o) noexcept
{
    if (o.m_size)
        std::memmove(m_data, o.m_data, o.m_size * sizeof(T));
}

template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator=(float v) noexcept
{
    QSovaSimd::fill(m_data, v, m_size);
    return *this;
}

template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator*=(float v) noexcept
{
    QSovaSimd::scale(m_data, v, m_size);
    return *this;
}

template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator+=(float v) noexcept
{
    QSovaSimd::offset(m_data, v, m_size);
    return *this;
}

template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator*=(const QSovaVector& o) noexcept
{
    QSovaSimd::multiply(m_data, o.m_data, std::min(m_size, o.m_size));
    return *this;
}

template<>
QSovaVector<float, 16>& QSovaVector<float, 16>::operator+=(const QSovaVector& o) noexcept
{
    QSovaSimd::add(m_data, o.m_data, std::min(m_size, o.m_size));
    return *this;
}

template<>
void QSovaVector<float, 16>::madd(float a, const QSovaVector& o) noexcept
{
    QSovaSimd::madd(m_data, o.m_data, a, m_size);
}

// The class template carries the export attribute, so these instantiations are exported.
template class QSovaVector<float, 16>;
template class QSovaVector<short, 16>;

// ---------------------------------------------------------------------------------------------
// Conversions and channel layout

void short_to_float(const QSovaVector<short, 16>& in, QSovaVector<float, 16>& out) noexcept
{
    QSovaSimd::shortToFloat(out.data(), in.constData(), std::min(out.size(), in.size()));
}

void float_to_short(const QSovaVector<float, 16>& in, QSovaVector<short, 16>& out) noexcept
{
    QSovaSimd::floatToShort(out.data(), in.constData(), std::min(out.size(), in.size()));
}

template<>
void interleave<2>(const QSovaVector<float, 16>* in, QSovaVector<float, 16>& out) noexcept
{
    QSovaSimd::interleave2(out.data(), in[0].constData(), in[1].constData(), in[0].size());
}

template<>
void de_interleave<2>(const QSovaVector<float, 16>& in, QSovaVector<float, 16>* out) noexcept
{
    QSovaSimd::deinterleave2(out[0].data(), out[1].data(), in.constData(), out[0].size());
}

void interleave(const QSovaVector<float, 16>* in, QSovaVector<float, 16>& out,
                unsigned nch) noexcept
{
    if (nch == 0)
        return;
    if (nch == 1) {
        out.copyContents(in[0]);
        return;
    }
    if (nch == 2) {
        interleave<2>(in, out);
        return;
    }
    const unsigned n = in[0].size();
    for (unsigned c = 0; c < nch; ++c)
        for (unsigned i = 0; i < n; ++i)
            out[int(i * nch + c)] = in[c][int(i)];
}

void de_interleave(const QSovaVector<float, 16>& in, QSovaVector<float, 16>* out,
                   unsigned nch) noexcept
{
    if (nch == 0)
        return;
    if (nch == 1) {
        out[0].copyContents(in);
        return;
    }
    if (nch == 2) {
        de_interleave<2>(in, out);
        return;
    }
    const unsigned n = out[0].size();
    for (unsigned c = 0; c < nch; ++c)
        for (unsigned i = 0; i < n; ++i)
            out[c][int(i)] = in[int(i * nch + c)];
}
