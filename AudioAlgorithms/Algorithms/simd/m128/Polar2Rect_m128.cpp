// Polar2Rect built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/Polar2RectSimd.h"

namespace twa::numeric {

Polar2Rect* NewPolar2Rect_m128()
{
    return new TWA_ISA::Polar2RectSimd("Polar2Rect_m128");
}

} // namespace twa::numeric
