// log10 and 10^x over eight lanes. Compiled with -mavx2 (no FMA): no
// standard-library code here, so nothing built with these flags can stand in
// for a baseline copy at link time. Tails run through the same lane code on a
// padded copy, so every element sees the same arithmetic.
#include <immintrin.h>

#include "../../DynamicsKernels.h"

namespace qvd::dynamics::m256_avx2 {
namespace {

// log10(x) for x in [FLT_MIN, FLT_MAX]: x = m * 2^e with m in [sqrt(1/2), sqrt(2)),
// ln(m) by the classic degree-9 minimax polynomial in f = m - 1, then
// log10(x) = ln(m) * log10(e) + e * log10(2) with both constants split in two
// so the large products stay exact.
inline __m256 log10Lanes(__m256 x)
{
    const __m256i bits = _mm256_castps_si256(x);
    __m256i e = _mm256_sub_epi32(_mm256_srli_epi32(bits, 23), _mm256_set1_epi32(126));
    // Mantissa in [0.5, 1).
    __m256 m = _mm256_castsi256_ps(
        _mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi32(0x007fffff)), _mm256_set1_epi32(0x3f000000)));
    const __m256 small = _mm256_cmp_ps(m, _mm256_set1_ps(0.707106781186547524f), _CMP_LT_OQ);
    // Below sqrt(1/2): f = 2m - 1 and one less in the exponent; else f = m - 1.
    e = _mm256_add_epi32(e, _mm256_castps_si256(small)); // the mask is -1 where small
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 f = _mm256_sub_ps(_mm256_add_ps(m, _mm256_and_ps(small, m)), one);
    const __m256 ef = _mm256_cvtepi32_ps(e);

    const __m256 z = _mm256_mul_ps(f, f);
    __m256 p = _mm256_set1_ps(7.0376836292e-2f);
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(-1.1514610310e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(1.1676998740e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(-1.2420140846e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(1.4249322787e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(-1.6668057665e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(2.0000714765e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(-2.4999993993e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, f), _mm256_set1_ps(3.3333331174e-1f));
    // y = ln(1 + f) - f
    __m256 y = _mm256_mul_ps(_mm256_mul_ps(p, f), z);
    y = _mm256_sub_ps(y, _mm256_mul_ps(_mm256_set1_ps(0.5f), z));

    // log10(e) = A1 + B1, log10(2) = A2 + B2; A1 and A2 have few bits.
    const __m256 a1 = _mm256_set1_ps(4.3359375e-1f);
    const __m256 b1 = _mm256_set1_ps(7.00731903251827651129e-4f);
    const __m256 a2 = _mm256_set1_ps(3.0078125e-1f);
    const __m256 b2 = _mm256_set1_ps(2.48745663981195213739e-4f);
    __m256 r = _mm256_mul_ps(y, b1);
    r = _mm256_add_ps(r, _mm256_mul_ps(f, b1));
    r = _mm256_add_ps(r, _mm256_mul_ps(ef, b2));
    r = _mm256_add_ps(r, _mm256_mul_ps(y, a1));
    r = _mm256_add_ps(r, _mm256_mul_ps(f, a1));
    r = _mm256_add_ps(r, _mm256_mul_ps(ef, a2));
    return r;
}

// 10^x: x = n*log10(2) + r with |r| <= log10(2)/2, 10^r by its Taylor series
// to degree 7 (truncation below 0.1 ulp there), times 2^n built in the exponent.
inline __m256 exp10Lanes(__m256 x)
{
    // Inside these bounds 2^n and the result stay normal and finite.
    x = _mm256_max_ps(x, _mm256_set1_ps(-37.5f));
    x = _mm256_min_ps(x, _mm256_set1_ps(38.0f));
    const __m256 n =
        _mm256_round_ps(_mm256_mul_ps(x, _mm256_set1_ps(3.32192809488736234787f)), _MM_FROUND_TO_NEAREST_INT |
                                                                                         _MM_FROUND_NO_EXC);
    // log10(2) split: the high part has 7 bits, so n * high is exact.
    __m256 r = _mm256_sub_ps(x, _mm256_mul_ps(n, _mm256_set1_ps(3.0078125e-1f)));
    r = _mm256_sub_ps(r, _mm256_mul_ps(n, _mm256_set1_ps(2.48745663981195213739e-4f)));

    // ln(10)^k / k!
    __m256 p = _mm256_set1_ps(6.808936507e-2f);
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(2.069958487e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(5.393829292e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(1.171255149e+0f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(2.034678592e+0f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(2.650949055e+0f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(2.302585093e+0f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(1.0f));

    const __m256i scale =
        _mm256_slli_epi32(_mm256_add_epi32(_mm256_cvtps_epi32(n), _mm256_set1_epi32(127)), 23);
    return _mm256_mul_ps(p, _mm256_castsi256_ps(scale));
}

} // namespace

void log10(const float* in, float* out, std::int32_t n) noexcept
{
    std::int32_t i = 0;
    for (; i + 8 <= n; i += 8)
        _mm256_storeu_ps(out + i, log10Lanes(_mm256_loadu_ps(in + i)));
    if (i < n) {
        alignas(32) float pad[8] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
        for (std::int32_t k = 0; k < n - i; ++k)
            pad[k] = in[i + k];
        _mm256_store_ps(pad, log10Lanes(_mm256_load_ps(pad)));
        for (std::int32_t k = 0; k < n - i; ++k)
            out[i + k] = pad[k];
    }
}

void exp10(const float* in, float* out, std::int32_t n) noexcept
{
    std::int32_t i = 0;
    for (; i + 8 <= n; i += 8)
        _mm256_storeu_ps(out + i, exp10Lanes(_mm256_loadu_ps(in + i)));
    if (i < n) {
        alignas(32) float pad[8] = {};
        for (std::int32_t k = 0; k < n - i; ++k)
            pad[k] = in[i + k];
        _mm256_store_ps(pad, exp10Lanes(_mm256_load_ps(pad)));
        for (std::int32_t k = 0; k < n - i; ++k)
            out[i + k] = pad[k];
    }
}

} // namespace qvd::dynamics::m256_avx2
