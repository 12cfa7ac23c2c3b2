// Lpfm16 built for 128-bit FMA.
#define TWA_ISA m128_fma
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/Lpfm16Simd.h"

namespace twa::numeric {

Lpfm16* NewLpfm16_m128_fma(std::size_t channels)
{
    return TWA_ISA::newLpfm16(channels, "Lpfm16_c1_m128_fma", "Lpfm16_c2_m128_fma");
}

} // namespace twa::numeric
