#pragma once

#include "qtsovacore_export.h"

// The SSE2 kernels behind QSovaVector, on raw pointers, destination first.
//
// Every SIMD kernel processes n rounded up to its block (4 floats, or 8 samples for the two
// conversions), with aligned loads and stores: all pointers must be 16-byte aligned and have
// slack for the rounding. Each has a plain scalar twin that computes the same values for
// exactly n elements and has no alignment or slack needs; tests and benchmarks compare them.
namespace QSovaSimd {

QTSOVACORE_EXPORT void fill(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void fillScalar(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void scale(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void scaleScalar(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void offset(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void offsetScalar(float* dst, float v, unsigned n) noexcept;
QTSOVACORE_EXPORT void multiply(float* dst, const float* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void multiplyScalar(float* dst, const float* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void add(float* dst, const float* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void addScalar(float* dst, const float* src, unsigned n) noexcept;
// dst[i] += src[i] * a, with two roundings (no fused multiply-add).
QTSOVACORE_EXPORT void madd(float* dst, const float* src, float a, unsigned n) noexcept;
QTSOVACORE_EXPORT void maddScalar(float* dst, const float* src, float a, unsigned n) noexcept;

// dst[i] = src[i] * 2^-15.
QTSOVACORE_EXPORT void shortToFloat(float* dst, const short* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void shortToFloatScalar(float* dst, const short* src, unsigned n) noexcept;
// dst[i] = src[i] * 32768 rounded to nearest (ties to even), saturated to 16 bits; products
// outside the 32-bit range and NaN give -32768 (the processor's "integer indefinite").
QTSOVACORE_EXPORT void floatToShort(short* dst, const float* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void floatToShortScalar(short* dst, const float* src, unsigned n) noexcept;

// dst[2i] = a[i], dst[2i + 1] = b[i] for n frames.
QTSOVACORE_EXPORT void interleave2(float* dst, const float* a, const float* b,
                                   unsigned n) noexcept;
QTSOVACORE_EXPORT void interleave2Scalar(float* dst, const float* a, const float* b,
                                         unsigned n) noexcept;
// a[i] = src[2i], b[i] = src[2i + 1] for n frames.
QTSOVACORE_EXPORT void deinterleave2(float* a, float* b, const float* src, unsigned n) noexcept;
QTSOVACORE_EXPORT void deinterleave2Scalar(float* a, float* b, const float* src,
                                           unsigned n) noexcept;

} // namespace QSovaSimd
