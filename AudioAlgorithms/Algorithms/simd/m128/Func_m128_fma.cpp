// Func built for 128-bit FMA.
#define TWA_ISA m128_fma
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/FuncSimd.h"

namespace twa::numeric {

Func* NewFunc_m128_fma()
{
    return new TWA_ISA::FuncSimd("Func_m128_fma");
}

} // namespace twa::numeric
