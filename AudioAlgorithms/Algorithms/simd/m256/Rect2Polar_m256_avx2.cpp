// Rect2Polar built for AVX2.
#define TWA_ISA m256_avx2
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Rect2PolarSimd.h"

namespace twa::numeric {

Rect2Polar* NewRect2Polar_m256_avx2()
{
    return new TWA_ISA::Rect2PolarSimd("Rect2Polar_m256_avx2");
}

} // namespace twa::numeric
