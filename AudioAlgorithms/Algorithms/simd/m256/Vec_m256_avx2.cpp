// Vec built for AVX2.
#define TWA_ISA m256_avx2
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/VecSimd.h"

namespace twa::numeric {

Vec* NewVec_m256_avx2()
{
    return new TWA_ISA::VecSimd("Vec_m256_avx2");
}

} // namespace twa::numeric
