// Downsampler_x4_c1 kernel built for 256-bit FMA.
#define TWA_ISA m256_fma
#define TWA_RESAMPLE_LANES 8
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/Resample/ResampleKernels.h"
#include "Algorithms/Resample/ResampleSimd.h"

namespace twa::numeric::TWA_ISA {

const float* Downsampler_x4_c1_FIR(const float* h, std::size_t taps, const float* in, float* out, std::size_t frames) noexcept
{
    return polyphase::downsample<4, 1>(h, taps, in, out, frames);
}

} // namespace twa::numeric::TWA_ISA
