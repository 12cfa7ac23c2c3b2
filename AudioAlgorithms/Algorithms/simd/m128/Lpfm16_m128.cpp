// Lpfm16 built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/Lpfm16Simd.h"

namespace twa::numeric {

Lpfm16* NewLpfm16_m128(std::size_t channels)
{
    return TWA_ISA::newLpfm16(channels, "Lpfm16_c1_m128", "Lpfm16_c2_m128");
}

} // namespace twa::numeric
