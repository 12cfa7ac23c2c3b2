#include "Algorithms/BiquadBand.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric::eq {

BiquadBand::BiquadBand() noexcept = default;
BiquadBand::~BiquadBand() = default;

namespace {
bool handled(std::size_t bands)
{
    return bands == 2 || bands == 4 || bands == 8;
}

constexpr BiquadBandVariant kVariants[] = {
    {"BiquadBand8_m128", IsaNeed::SSE2,
     [](std::size_t b, BiquadForm) { return HasSSE2() && b == 8; }, &NewBiquadBand8_m128},
    {"BiquadBand4_m128", IsaNeed::SSE2,
     [](std::size_t b, BiquadForm) { return HasSSE2() && b == 4; }, &NewBiquadBand4_m128},
    {"BiquadBand_ref", IsaNeed::None, [](std::size_t b, BiquadForm) { return handled(b); },
     &NewBiquadBand_ref},
};
} // namespace

std::span<const BiquadBandVariant> BiquadBandVariants()
{
    return kVariants;
}

void CreateBiquadBand(std::unique_ptr<BiquadBand>& out, std::size_t bands, BiquadForm form)
{
    InstallFirstChosen<BiquadBand, std::size_t, BiquadForm>(out, BiquadBandVariants(), bands, form);
}

} // namespace twa::numeric::eq
