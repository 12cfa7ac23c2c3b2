// 8-band biquad bank built for SSE2.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/BiquadBandSimd.h"

namespace twa::numeric::eq {

BiquadBand* NewBiquadBand8_m128(std::size_t bands, BiquadForm form)
{
    if (bands != 8)
        return nullptr;
    if (form == BiquadForm::DF2)
        return new TWA_ISA::BiquadBandSimd<8, BiquadForm::DF2>("BiquadBand8_m128<DF2>");
    return new TWA_ISA::BiquadBandSimd<8, BiquadForm::DF2T>("BiquadBand8_m128<DF2T>");
}

} // namespace twa::numeric::eq
