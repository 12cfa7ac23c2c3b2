// CSquareMagnitude built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/CSquareMagnitudeSimd.h"

namespace twa::numeric {

CSquareMagnitude* NewCSquareMagnitude_m128()
{
    return new TWA_ISA::CSquareMagnitudeSimd("CSquareMagnitude_m128");
}

} // namespace twa::numeric
