// FindMinMax built for AVX.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/FindMinMaxSimd.h"

namespace twa::numeric {

FindMinMax* NewFindMinMax_m256(std::size_t channels)
{
    const char* name = channels == 1             ? "FindMinMax_c1_m256"
                       : channels == 2           ? "FindMinMax_c2_m256"
                       : channels == 4           ? "FindMinMax_c4_m256"
                       : channels != 0 && channels % 8 == 0 ? "FindMinMax_c8m_m256"
                                                 : nullptr;
    return name ? new TWA_ISA::FindMinMaxSimd(channels, name) : nullptr;
}

} // namespace twa::numeric
