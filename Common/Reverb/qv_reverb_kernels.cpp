#include "qv_reverb_kernels.h"

#include <QVDKernelFamily.h>

namespace qvd::reverb {
namespace ref {

void downmix(const float* const* in, std::uint32_t inputs, float scale, float* out, std::size_t frames) noexcept
{
    for (std::size_t k = 0; k < frames; ++k) {
        float sum = 0.0f;
        for (std::uint32_t c = 0; c < inputs; ++c)
            sum += in[c][k];
        const float v = sum * scale;
        out[k] = v - v == 0.0f ? v : 0.0f; // v - v is NaN for an infinity or NaN
    }
}

void scale(const float* src, float g, float* out, std::size_t frames) noexcept
{
    for (std::size_t k = 0; k < frames; ++k)
        out[k] = g * src[k];
}

void mix(const float* const* x, const float* g, std::uint32_t inputs, float* y, bool add,
         std::size_t frames) noexcept
{
    for (std::size_t k = 0; k < frames; ++k) {
        float acc = add ? y[k] : 0.0f;
        for (std::uint32_t i = 0; i < inputs; ++i)
            if (g[i] != 0.0f)
                acc += g[i] * x[i][k];
        y[k] = acc;
    }
}

void interpolate(const float* a, const float* at, float df, float off0, float slope, float kf, float* row,
                 std::size_t frames) noexcept
{
    // b[k] is the sample before a[k]; a[k - 1] would wrap the unsigned index.
    const float* b = a - 1;
    for (std::size_t k = 0; k < frames; ++k) {
        const float d = df - (off0 + at[k] * slope);
        const float f = (d < 1.0f ? 1.0f : d) - kf;
        row[k] = a[k] + f * (b[k] - a[k]);
    }
}

void write(const float* w, const float* t, float* dst, std::size_t frames) noexcept
{
    for (std::size_t k = 0; k < frames; ++k)
        dst[k] = ((w[k] + t[k]) + kLineFlush) - kLineFlush;
}

} // namespace ref

namespace {
bool wide() { return twa::WideKernelsChosen(); }
} // namespace

const Kernels kernels_ref = {&ref::downmix, &ref::scale, &ref::mix, &ref::interpolate, &ref::write};

QVD_KERNEL_FAMILY("reverb lines", Variant{"m512", twa::IsaNeed::AVX512, &wide, &m512::kernels},
                  Variant{"m256_avx2", twa::IsaNeed::AVX2, &twa::HasAVX2, &m256::kernels},
                  Variant{"ref", twa::IsaNeed::None, &twa::Always, &kernels_ref})

} // namespace qvd::reverb
