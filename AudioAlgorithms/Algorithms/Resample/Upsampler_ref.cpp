// Reference polyphase kernels: any factor, any channel count, any alignment.

#include "Algorithms/Resample/ResampleKernels.h"

namespace twa::numeric {

namespace {

// Sum of x[k * stride] * h[k * step] over k, in order, four at a time.
inline float dot(const float* x, std::size_t stride, const float* h, std::size_t step, std::size_t taps) noexcept
{
    float acc = 0.0f;
    std::size_t k = 0;
    for (; k + 4 <= taps; k += 4) {
        acc = acc + x[k * stride] * h[k * step];
        acc = acc + x[(k + 1) * stride] * h[(k + 1) * step];
        acc = acc + x[(k + 2) * stride] * h[(k + 2) * step];
        acc = acc + x[(k + 3) * stride] * h[(k + 3) * step];
    }
    for (; k < taps; ++k)
        acc = acc + x[k * stride] * h[k * step];
    return acc;
}

} // namespace

std::size_t SingleTap(const float* h, std::size_t factor, std::size_t phase, std::size_t taps) noexcept
{
    std::size_t found = taps;
    for (std::size_t k = 0; k < taps; ++k) {
        const float v = h[factor * k + phase];
        if (v == 0.0f)
            continue;
        if (found != taps)
            return taps;
        found = k;
    }
    return found;
}

const float* UpsampleFIR_ref(std::size_t factor, std::size_t channels, const float* h, std::size_t taps,
                             const float* in, float* out, std::size_t frames) noexcept
{
    const std::size_t c = channels;
    const std::size_t d = factor ? SingleTap(h, factor, 0, taps) : taps;
    for (std::size_t n = 0; n < frames; ++n)
        for (std::size_t p = 0; p < factor; ++p)
            for (std::size_t j = 0; j < c; ++j)
                out[(factor * n + p) * c + j] = p == 0 && d < taps ? in[(n + d) * c + j] * h[factor * d]
                                                                   : dot(in + n * c + j, c, h + p, factor, taps);
    return in + frames * c;
}

const float* DownsampleFIR_ref(std::size_t factor, std::size_t channels, const float* h, std::size_t taps,
                               const float* in, float* out, std::size_t frames) noexcept
{
    const std::size_t c = channels;
    const std::size_t outs = factor ? frames / factor : 0;
    const std::size_t last = factor ? factor - 1 : 0;
    const std::size_t d = factor ? SingleTap(h, factor, last, taps) : taps;
    for (std::size_t n = 0; n < outs; ++n) {
        for (std::size_t j = 0; j < c; ++j) {
            // One partial sum per phase, added in phase order.
            float r = 0.0f;
            for (std::size_t p = 0; p < factor; ++p) {
                const float s = p == last && d < taps
                                    ? in[(factor * (n + d) + p) * c + j] * h[factor * d + p]
                                    : dot(in + (factor * n + p) * c + j, factor * c, h + p, factor, taps);
                r = p == 0 ? s : r + s;
            }
            out[n * c + j] = r;
        }
    }
    return in + outs * factor * c;
}

} // namespace twa::numeric
