// Polar2Rect built for AVX2.
#define TWA_ISA m256_avx2
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Polar2RectSimd.h"

namespace twa::numeric {

Polar2Rect* NewPolar2Rect_m256_avx2()
{
    return new TWA_ISA::Polar2RectSimd("Polar2Rect_m256_avx2");
}

} // namespace twa::numeric
