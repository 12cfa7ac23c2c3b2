// Func built for AVX2.
#define TWA_ISA m256_avx2
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/FuncSimd.h"

namespace twa::numeric {

Func* NewFunc_m256_avx2()
{
    return new TWA_ISA::FuncSimd("Func_m256_avx2");
}

} // namespace twa::numeric
