// FindMinMax built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/FindMinMaxSimd.h"

namespace twa::numeric {

FindMinMax* NewFindMinMax_m128(std::size_t channels)
{
    const char* name = channels == 1             ? "FindMinMax_c1_m128"
                       : channels == 2           ? "FindMinMax_c2_m128"
                       : channels != 0 && channels % 4 == 0 ? "FindMinMax_c4m_m128"
                                                 : nullptr;
    return name ? new TWA_ISA::FindMinMaxSimd(channels, name) : nullptr;
}

} // namespace twa::numeric
