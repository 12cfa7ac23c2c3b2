// Polar2Rect built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Polar2RectSimd.h"

namespace twa::numeric {

Polar2Rect* NewPolar2Rect_m256()
{
    return new TWA_ISA::Polar2RectSimd("Polar2Rect_m256");
}

} // namespace twa::numeric
