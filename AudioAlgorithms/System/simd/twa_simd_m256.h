#pragma once
// 256-bit float vector for the per-ISA kernel files; see twa_simd_m128.h for
// the TWA_ISA rule. Integer lanes use AVX2 when the file is built for it and
// two SSE halves otherwise; FMA is used when the file is built with it.

#ifndef TWA_ISA
#error "define TWA_ISA before including a SIMD header"
#endif

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace twa::simd::TWA_ISA {

struct V {
    static constexpr std::size_t W = 8;
    static constexpr std::size_t kAlign = 32;
    __m256 r;
};

struct VI {
    __m256i r;
};

inline V load(const float* p) { return {_mm256_loadu_ps(p)}; }
inline void store(float* p, V a) { _mm256_storeu_ps(p, a.r); }
inline V set1(float x) { return {_mm256_set1_ps(x)}; }
inline V zero() { return {_mm256_setzero_ps()}; }

inline V operator+(V a, V b) { return {_mm256_add_ps(a.r, b.r)}; }
inline V operator-(V a, V b) { return {_mm256_sub_ps(a.r, b.r)}; }
inline V operator*(V a, V b) { return {_mm256_mul_ps(a.r, b.r)}; }
inline V operator/(V a, V b) { return {_mm256_div_ps(a.r, b.r)}; }
inline V operator&(V a, V b) { return {_mm256_and_ps(a.r, b.r)}; }
inline V operator|(V a, V b) { return {_mm256_or_ps(a.r, b.r)}; }
inline V operator^(V a, V b) { return {_mm256_xor_ps(a.r, b.r)}; }
inline V andnot(V a, V b) { return {_mm256_andnot_ps(a.r, b.r)}; }
inline V vmin(V a, V b) { return {_mm256_min_ps(a.r, b.r)}; }
inline V vmax(V a, V b) { return {_mm256_max_ps(a.r, b.r)}; }
inline V vsqrt(V a) { return {_mm256_sqrt_ps(a.r)}; }
inline V lt(V a, V b) { return {_mm256_cmp_ps(a.r, b.r, _CMP_LT_OS)}; }
inline V le(V a, V b) { return {_mm256_cmp_ps(a.r, b.r, _CMP_LE_OS)}; }
inline V gt(V a, V b) { return {_mm256_cmp_ps(a.r, b.r, _CMP_GT_OS)}; }
inline V eq(V a, V b) { return {_mm256_cmp_ps(a.r, b.r, _CMP_EQ_OQ)}; }
inline V unord(V a, V b) { return {_mm256_cmp_ps(a.r, b.r, _CMP_UNORD_Q)}; }
inline bool any(V m) { return _mm256_movemask_ps(m.r) != 0; }
// mask ? a : b, for all-ones or all-zeros lanes. Without AVX2, GCC turns
// blendv into a sign test it can only do lane by lane, so use plain logic.
inline V select(V mask, V a, V b)
{
#if defined(__AVX2__)
    return {_mm256_blendv_ps(b.r, a.r, mask.r)};
#else
    return {_mm256_or_ps(_mm256_and_ps(mask.r, a.r), _mm256_andnot_ps(mask.r, b.r))};
#endif
}

inline V madd(V a, V b, V c)
{
#if defined(__FMA__)
    return {_mm256_fmadd_ps(a.r, b.r, c.r)};
#else
    return {_mm256_add_ps(_mm256_mul_ps(a.r, b.r), c.r)};
#endif
}

inline VI iset1(std::int32_t x) { return {_mm256_set1_epi32(x)}; }
inline VI roundToInt(V a) { return {_mm256_cvtps_epi32(a.r)}; }
inline V toFloat(VI a) { return {_mm256_cvtepi32_ps(a.r)}; }
inline V asFloat(VI a) { return {_mm256_castsi256_ps(a.r)}; }
inline VI asInt(V a) { return {_mm256_castps_si256(a.r)}; }

#if defined(__AVX2__)
inline VI operator+(VI a, VI b) { return {_mm256_add_epi32(a.r, b.r)}; }
inline VI operator-(VI a, VI b) { return {_mm256_sub_epi32(a.r, b.r)}; }
inline VI operator&(VI a, VI b) { return {_mm256_and_si256(a.r, b.r)}; }
inline VI shl(VI a, int n) { return {_mm256_slli_epi32(a.r, n)}; }
inline VI shr(VI a, int n) { return {_mm256_srli_epi32(a.r, n)}; }
inline V ieq(VI a, VI b) { return {_mm256_castsi256_ps(_mm256_cmpeq_epi32(a.r, b.r))}; }
#else
inline __m128i lo128(VI a) { return _mm256_castsi256_si128(a.r); }
inline __m128i hi128(VI a) { return _mm256_extractf128_si256(a.r, 1); }
inline VI join(__m128i lo, __m128i hi) { return {_mm256_insertf128_si256(_mm256_castsi128_si256(lo), hi, 1)}; }
inline VI operator+(VI a, VI b) { return join(_mm_add_epi32(lo128(a), lo128(b)), _mm_add_epi32(hi128(a), hi128(b))); }
inline VI operator-(VI a, VI b) { return join(_mm_sub_epi32(lo128(a), lo128(b)), _mm_sub_epi32(hi128(a), hi128(b))); }
inline VI operator&(VI a, VI b) { return {_mm256_castps_si256(_mm256_and_ps(_mm256_castsi256_ps(a.r), _mm256_castsi256_ps(b.r)))}; }
inline VI shl(VI a, int n) { return join(_mm_slli_epi32(lo128(a), n), _mm_slli_epi32(hi128(a), n)); }
inline VI shr(VI a, int n) { return join(_mm_srli_epi32(lo128(a), n), _mm_srli_epi32(hi128(a), n)); }
inline V ieq(VI a, VI b)
{
    return {_mm256_castsi256_ps(join(_mm_cmpeq_epi32(lo128(a), lo128(b)), _mm_cmpeq_epi32(hi128(a), hi128(b))).r)};
}
#endif

inline VI truncToInt(V a) { return {_mm256_cvttps_epi32(a.r)}; }
#if defined(__AVX2__)
inline VI sra(VI a, int n) { return {_mm256_srai_epi32(a.r, n)}; }
#else
inline VI sra(VI a, int n) { return join(_mm_srai_epi32(lo128(a), n), _mm_srai_epi32(hi128(a), n)); }
#endif

// Splits interleaved pairs of two vectors into the even and the odd elements.
inline void deinterleave2(V lo, V hi, V& even, V& odd)
{
    const __m256 a = _mm256_permute2f128_ps(lo.r, hi.r, 0x20);
    const __m256 b = _mm256_permute2f128_ps(lo.r, hi.r, 0x31);
    even.r = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    odd.r = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

// Inverse of deinterleave2.
inline void interleave2(V even, V odd, V& lo, V& hi)
{
    const __m256 a = _mm256_unpacklo_ps(even.r, odd.r);
    const __m256 b = _mm256_unpackhi_ps(even.r, odd.r);
    lo.r = _mm256_permute2f128_ps(a, b, 0x20);
    hi.r = _mm256_permute2f128_ps(a, b, 0x31);
}

inline void toArray(V a, float* out) { _mm256_storeu_ps(out, a.r); }

// Rows become columns of each 4x4 block held in the 128-bit lanes.
inline void transpose4inLanes(V& a, V& b, V& c, V& d)
{
    const __m256 t0 = _mm256_unpacklo_ps(a.r, b.r);
    const __m256 t1 = _mm256_unpacklo_ps(c.r, d.r);
    const __m256 t2 = _mm256_unpackhi_ps(a.r, b.r);
    const __m256 t3 = _mm256_unpackhi_ps(c.r, d.r);
    a.r = _mm256_shuffle_ps(t0, t1, 0x44);
    b.r = _mm256_shuffle_ps(t0, t1, 0xEE);
    c.r = _mm256_shuffle_ps(t2, t3, 0x44);
    d.r = _mm256_shuffle_ps(t2, t3, 0xEE);
}

// 8 x 8 transpose of r[0..8).
inline void transposeSquare(V* r)
{
    transpose4inLanes(r[0], r[1], r[2], r[3]);
    transpose4inLanes(r[4], r[5], r[6], r[7]);
    for (int k = 0; k < 4; ++k) {
        const __m256 lo = _mm256_permute2f128_ps(r[k].r, r[k + 4].r, 0x20);
        const __m256 hi = _mm256_permute2f128_ps(r[k].r, r[k + 4].r, 0x31);
        r[k].r = lo;
        r[k + 4].r = hi;
    }
}

// Four vectors of interleaved 4-channel frames (two frames each) to one vector
// per channel, and back.
inline void deinterleave4(V* r)
{
    V t0{_mm256_permute2f128_ps(r[0].r, r[2].r, 0x20)};
    V t1{_mm256_permute2f128_ps(r[0].r, r[2].r, 0x31)};
    V t2{_mm256_permute2f128_ps(r[1].r, r[3].r, 0x20)};
    V t3{_mm256_permute2f128_ps(r[1].r, r[3].r, 0x31)};
    transpose4inLanes(t0, t1, t2, t3);
    r[0] = t0;
    r[1] = t1;
    r[2] = t2;
    r[3] = t3;
}
inline void interleave4(V* r)
{
    transpose4inLanes(r[0], r[1], r[2], r[3]);
    const V t0{_mm256_permute2f128_ps(r[0].r, r[1].r, 0x20)};
    const V t1{_mm256_permute2f128_ps(r[2].r, r[3].r, 0x20)};
    const V t2{_mm256_permute2f128_ps(r[0].r, r[1].r, 0x31)};
    const V t3{_mm256_permute2f128_ps(r[2].r, r[3].r, 0x31)};
    r[0] = t0;
    r[1] = t1;
    r[2] = t2;
    r[3] = t3;
}

} // namespace twa::simd::TWA_ISA
