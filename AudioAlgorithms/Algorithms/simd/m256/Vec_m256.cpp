// Vec built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/VecSimd.h"

namespace twa::numeric {

Vec* NewVec_m256()
{
    return new TWA_ISA::VecSimd("Vec_m256");
}

} // namespace twa::numeric
