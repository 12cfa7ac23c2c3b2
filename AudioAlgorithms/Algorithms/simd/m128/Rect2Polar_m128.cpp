// Rect2Polar built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/Rect2PolarSimd.h"

namespace twa::numeric {

Rect2Polar* NewRect2Polar_m128()
{
    return new TWA_ISA::Rect2PolarSimd("Rect2Polar_m128");
}

} // namespace twa::numeric
