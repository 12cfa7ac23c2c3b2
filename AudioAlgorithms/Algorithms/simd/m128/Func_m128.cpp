// Func built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/FuncSimd.h"

namespace twa::numeric {

Func* NewFunc_m128()
{
    return new TWA_ISA::FuncSimd("Func_m128");
}

} // namespace twa::numeric
