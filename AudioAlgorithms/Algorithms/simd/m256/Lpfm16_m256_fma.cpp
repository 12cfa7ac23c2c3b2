// Lpfm16 built for AVX with FMA.
#define TWA_ISA m256_fma
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Lpfm16Simd.h"

namespace twa::numeric {

Lpfm16* NewLpfm16_m256_fma(std::size_t channels)
{
    return TWA_ISA::newLpfm16(channels, "Lpfm16_c1_m256_fma", "Lpfm16_c2_m256_fma");
}

} // namespace twa::numeric
