#include "QVDEqKernel.h"

#include <QVDKernelFamily.h>

#include <Algorithms/BiQuad.h>

namespace qvd::eq {

void kernel_ref(const KernelArgs& args) noexcept
{
    if (args.frames <= 0)
        return;
    const auto frames = static_cast<std::uint32_t>(args.frames);
    for (std::int32_t b = 0; b < args.bandCount; ++b) {
        const Band& band = args.bands[b];
        for (std::int32_t ch = 0; ch < args.channelCount; ++ch)
            BiQuad::run(band.c, band.states[ch], args.channels[ch], args.channels[ch], frames);
    }
}

void fusedChannel(const KernelArgs& args, std::int32_t ch, std::int32_t firstBand, std::int32_t bandCount) noexcept
{
    constexpr double e = kBiQuadFlush;
    float* samples = args.channels[ch];
    double w1[kMaxFusedBands], w2[kMaxFusedBands];
    for (std::int32_t k = 0; k < bandCount; ++k) {
        w1[k] = args.bands[firstBand + k].states[ch].w1;
        w2[k] = args.bands[firstBand + k].states[ch].w2;
    }
    for (std::int32_t n = 0; n < args.frames; ++n) {
        float v = samples[n];
        for (std::int32_t k = 0; k < bandCount; ++k) {
            const BiQuadCoefficients& c = args.bands[firstBand + k].c;
            const double x = static_cast<double>(v);
            const double w = c.gain * x + c.den2 * w2[k] + c.den1 * w1[k];
            const double y = w + c.num2 * w2[k] + c.num1 * w1[k];
            w2[k] = w1[k];
            w1[k] = (w + e) - e;
            v = static_cast<float>(y);
        }
        samples[n] = v;
    }
    for (std::int32_t k = 0; k < bandCount; ++k) {
        args.bands[firstBand + k].states[ch].w1 = w1[k];
        args.bands[firstBand + k].states[ch].w2 = w2[k];
    }
}

QVD_KERNEL_FAMILY("Tarnwick EQ",
                  {"m256", twa::IsaNeed::AVX, &twa::HasAVX, &m256::kernel},
                  {"m128", twa::IsaNeed::SSE2, &twa::HasSSE2, &m128::kernel},
                  {"ref", twa::IsaNeed::None, &twa::Always, &kernel_ref})

} // namespace qvd::eq
