// CSquareMagnitude built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/CSquareMagnitudeSimd.h"

namespace twa::numeric {

CSquareMagnitude* NewCSquareMagnitude_m256()
{
    return new TWA_ISA::CSquareMagnitudeSimd("CSquareMagnitude_m256");
}

} // namespace twa::numeric
