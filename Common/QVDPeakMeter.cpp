#include "QVDPeakMeter.h"

#include <cmath>

#include <emmintrin.h>

float qvdCopyPeak(const float* in, float* out, std::size_t frames) noexcept
{
    if (out == in)
        out = nullptr;
    // max(|x|, peak) returns the second operand when x is NaN.
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    // Four running maxima, so each max waits on the one four steps back
    // rather than the one before: the loop runs at load speed, not at the
    // latency of a max. The maximum of maxima is the same in any order.
    __m128 l0 = _mm_setzero_ps(), l1 = l0, l2 = l0, l3 = l0;
    std::size_t i = 0;
    for (; i + 16 <= frames; i += 16) {
        const __m128 a = _mm_loadu_ps(in + i), b = _mm_loadu_ps(in + i + 4);
        const __m128 c = _mm_loadu_ps(in + i + 8), d = _mm_loadu_ps(in + i + 12);
        l0 = _mm_max_ps(_mm_and_ps(a, absMask), l0);
        l1 = _mm_max_ps(_mm_and_ps(b, absMask), l1);
        l2 = _mm_max_ps(_mm_and_ps(c, absMask), l2);
        l3 = _mm_max_ps(_mm_and_ps(d, absMask), l3);
        if (out) {
            _mm_storeu_ps(out + i, a);
            _mm_storeu_ps(out + i + 4, b);
            _mm_storeu_ps(out + i + 8, c);
            _mm_storeu_ps(out + i + 12, d);
        }
    }
    __m128 lanes = _mm_max_ps(_mm_max_ps(l0, l1), _mm_max_ps(l2, l3));
    for (; i + 4 <= frames; i += 4) {
        const __m128 v = _mm_loadu_ps(in + i);
        lanes = _mm_max_ps(_mm_and_ps(v, absMask), lanes);
        if (out)
            _mm_storeu_ps(out + i, v);
    }
    alignas(16) float part[4];
    _mm_store_ps(part, lanes);
    float peak = 0.0f;
    for (const float p : part)
        peak = p > peak ? p : peak;
    for (; i < frames; ++i) {
        const float a = std::fabs(in[i]);
        peak = a > peak ? a : peak;
        if (out)
            out[i] = in[i];
    }
    return peak;
}

float qvdPeak(const float* samples, std::size_t frames) noexcept
{
    return qvdCopyPeak(samples, nullptr, frames);
}
