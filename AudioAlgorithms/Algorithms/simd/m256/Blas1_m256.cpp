// Blas1 built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Blas1Simd.h"

namespace twa::numeric {

Blas1* NewBlas1_m256()
{
    return new TWA_ISA::Blas1Simd("Blas1_m256");
}

} // namespace twa::numeric
