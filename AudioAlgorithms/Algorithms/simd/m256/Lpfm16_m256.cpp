// Lpfm16 built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Lpfm16Simd.h"

namespace twa::numeric {

Lpfm16* NewLpfm16_m256(std::size_t channels)
{
    return TWA_ISA::newLpfm16(channels, "Lpfm16_c1_m256", "Lpfm16_c2_m256");
}

} // namespace twa::numeric
