#pragma once
// 128-bit float vector for the per-ISA kernel files. Each including file
// defines TWA_ISA, the namespace its code lives in, so that inline code built
// with different target flags never merges across files. SSE4.1 and FMA
// instructions are used when the file is built with them.

#ifndef TWA_ISA
#error "define TWA_ISA before including a SIMD header"
#endif

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace twa::simd::TWA_ISA {

struct V {
    static constexpr std::size_t W = 4;
    static constexpr std::size_t kAlign = 16;
    __m128 r;
};

struct VI {
    __m128i r;
};

inline V load(const float* p) { return {_mm_loadu_ps(p)}; }
inline void store(float* p, V a) { _mm_storeu_ps(p, a.r); }
inline V set1(float x) { return {_mm_set1_ps(x)}; }
inline V zero() { return {_mm_setzero_ps()}; }

inline V operator+(V a, V b) { return {_mm_add_ps(a.r, b.r)}; }
inline V operator-(V a, V b) { return {_mm_sub_ps(a.r, b.r)}; }
inline V operator*(V a, V b) { return {_mm_mul_ps(a.r, b.r)}; }
inline V operator/(V a, V b) { return {_mm_div_ps(a.r, b.r)}; }
inline V operator&(V a, V b) { return {_mm_and_ps(a.r, b.r)}; }
inline V operator|(V a, V b) { return {_mm_or_ps(a.r, b.r)}; }
inline V operator^(V a, V b) { return {_mm_xor_ps(a.r, b.r)}; }
inline V andnot(V a, V b) { return {_mm_andnot_ps(a.r, b.r)}; } // ~a & b
// a < b ? a : b, with the second operand on NaN, as minps does.
inline V vmin(V a, V b) { return {_mm_min_ps(a.r, b.r)}; }
inline V vmax(V a, V b) { return {_mm_max_ps(a.r, b.r)}; }
inline V vsqrt(V a) { return {_mm_sqrt_ps(a.r)}; }
inline V lt(V a, V b) { return {_mm_cmplt_ps(a.r, b.r)}; }
inline V le(V a, V b) { return {_mm_cmple_ps(a.r, b.r)}; }
inline V gt(V a, V b) { return {_mm_cmpgt_ps(a.r, b.r)}; }
inline V eq(V a, V b) { return {_mm_cmpeq_ps(a.r, b.r)}; }
inline V unord(V a, V b) { return {_mm_cmpunord_ps(a.r, b.r)}; }
inline bool any(V m) { return _mm_movemask_ps(m.r) != 0; }

// mask ? a : b, for all-ones or all-zeros lanes.
inline V select(V mask, V a, V b)
{
#if defined(__SSE4_1__)
    return {_mm_blendv_ps(b.r, a.r, mask.r)};
#else
    return {_mm_or_ps(_mm_and_ps(mask.r, a.r), _mm_andnot_ps(mask.r, b.r))};
#endif
}

// a * b + c; one rounding only in files built for FMA.
inline V madd(V a, V b, V c)
{
#if defined(__FMA__)
    return {_mm_fmadd_ps(a.r, b.r, c.r)};
#else
    return {_mm_add_ps(_mm_mul_ps(a.r, b.r), c.r)};
#endif
}

inline VI iset1(std::int32_t x) { return {_mm_set1_epi32(x)}; }
inline VI roundToInt(V a) { return {_mm_cvtps_epi32(a.r)}; } // nearest, ties to even
inline V toFloat(VI a) { return {_mm_cvtepi32_ps(a.r)}; }
inline V asFloat(VI a) { return {_mm_castsi128_ps(a.r)}; }
inline VI asInt(V a) { return {_mm_castps_si128(a.r)}; }
inline VI operator+(VI a, VI b) { return {_mm_add_epi32(a.r, b.r)}; }
inline VI operator-(VI a, VI b) { return {_mm_sub_epi32(a.r, b.r)}; }
inline VI operator&(VI a, VI b) { return {_mm_and_si128(a.r, b.r)}; }
inline VI shl(VI a, int n) { return {_mm_slli_epi32(a.r, n)}; }
inline VI shr(VI a, int n) { return {_mm_srli_epi32(a.r, n)}; }
inline V ieq(VI a, VI b) { return {_mm_castsi128_ps(_mm_cmpeq_epi32(a.r, b.r))}; }

inline VI truncToInt(V a) { return {_mm_cvttps_epi32(a.r)}; }
inline VI sra(VI a, int n) { return {_mm_srai_epi32(a.r, n)}; }

// Splits interleaved pairs (a0 b0 a1 b1 | a2 b2 a3 b3) into a0..a3 and b0..b3.
inline void deinterleave2(V lo, V hi, V& even, V& odd)
{
    even.r = _mm_shuffle_ps(lo.r, hi.r, _MM_SHUFFLE(2, 0, 2, 0));
    odd.r = _mm_shuffle_ps(lo.r, hi.r, _MM_SHUFFLE(3, 1, 3, 1));
}

// Inverse of deinterleave2.
inline void interleave2(V even, V odd, V& lo, V& hi)
{
    lo.r = _mm_unpacklo_ps(even.r, odd.r);
    hi.r = _mm_unpackhi_ps(even.r, odd.r);
}

inline void toArray(V a, float* out) { _mm_storeu_ps(out, a.r); }

// Rows become columns of the 4x4 block (within each 128-bit lane on wider vectors).
inline void transpose4inLanes(V& a, V& b, V& c, V& d)
{
    const __m128 t0 = _mm_unpacklo_ps(a.r, b.r);
    const __m128 t1 = _mm_unpacklo_ps(c.r, d.r);
    const __m128 t2 = _mm_unpackhi_ps(a.r, b.r);
    const __m128 t3 = _mm_unpackhi_ps(c.r, d.r);
    a.r = _mm_shuffle_ps(t0, t1, 0x44);
    b.r = _mm_shuffle_ps(t0, t1, 0xEE);
    c.r = _mm_shuffle_ps(t2, t3, 0x44);
    d.r = _mm_shuffle_ps(t2, t3, 0xEE);
}

// W x W transpose of r[0..W).
inline void transposeSquare(V* r)
{
    transpose4inLanes(r[0], r[1], r[2], r[3]);
}

// Four vectors of interleaved 4-channel frames to one vector per channel, and back.
inline void deinterleave4(V* r)
{
    transpose4inLanes(r[0], r[1], r[2], r[3]);
}
inline void interleave4(V* r)
{
    transpose4inLanes(r[0], r[1], r[2], r[3]);
}

} // namespace twa::simd::TWA_ISA
