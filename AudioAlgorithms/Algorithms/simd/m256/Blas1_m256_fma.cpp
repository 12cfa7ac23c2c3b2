// Blas1 built for AVX with FMA.
#define TWA_ISA m256_fma
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/Blas1Simd.h"

namespace twa::numeric {

Blas1* NewBlas1_m256_fma()
{
    return new TWA_ISA::Blas1Simd("Blas1_m256_fma");
}

} // namespace twa::numeric
