// Vec built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/VecSimd.h"

namespace twa::numeric {

Vec* NewVec_m128()
{
    return new TWA_ISA::VecSimd("Vec_m128");
}

} // namespace twa::numeric
