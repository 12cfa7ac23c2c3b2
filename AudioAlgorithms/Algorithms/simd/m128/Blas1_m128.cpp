// Blas1 built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/Blas1Simd.h"

namespace twa::numeric {

Blas1* NewBlas1_m128()
{
    return new TWA_ISA::Blas1Simd("Blas1_m128");
}

} // namespace twa::numeric
