// CSquareMagnitude built for 128-bit FMA.
#define TWA_ISA m128_fma
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/CSquareMagnitudeSimd.h"

namespace twa::numeric {

CSquareMagnitude* NewCSquareMagnitude_m128_fma()
{
    return new TWA_ISA::CSquareMagnitudeSimd("CSquareMagnitude_m128_fma");
}

} // namespace twa::numeric
