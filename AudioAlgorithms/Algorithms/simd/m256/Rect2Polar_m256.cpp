// Rect2Polar built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Rect2PolarSimd.h"

namespace twa::numeric {

Rect2Polar* NewRect2Polar_m256()
{
    return new TWA_ISA::Rect2PolarSimd("Rect2Polar_m256");
}

} // namespace twa::numeric
