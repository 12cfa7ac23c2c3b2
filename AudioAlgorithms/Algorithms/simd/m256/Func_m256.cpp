// Func built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/FuncSimd.h"

namespace twa::numeric {

Func* NewFunc_m256()
{
    return new TWA_ISA::FuncSimd("Func_m256");
}

} // namespace twa::numeric
