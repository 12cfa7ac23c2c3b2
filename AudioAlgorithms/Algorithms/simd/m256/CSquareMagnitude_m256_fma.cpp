// CSquareMagnitude built for AVX with FMA.
#define TWA_ISA m256_fma
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/CSquareMagnitudeSimd.h"

namespace twa::numeric {

CSquareMagnitude* NewCSquareMagnitude_m256_fma()
{
    return new TWA_ISA::CSquareMagnitudeSimd("CSquareMagnitude_m256_fma");
}

} // namespace twa::numeric
