#include "QVDPeakMeter.h"

#include <cmath>

#include <emmintrin.h>

float qvdCopyPeak(const float* in, float* out, std::size_t frames) noexcept
{
    if (out == in)
        out = nullptr;
    // max(|x|, peak) returns the second operand when x is NaN.
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    __m128 lanes = _mm_setzero_ps();
    std::size_t i = 0;
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
