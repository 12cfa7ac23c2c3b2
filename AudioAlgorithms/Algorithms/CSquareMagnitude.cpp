#include "Algorithms/CSquareMagnitude.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

CSquareMagnitude::CSquareMagnitude() noexcept = default;
CSquareMagnitude::~CSquareMagnitude() = default;

namespace {
constexpr CSquareMagnitudeVariant kVariants[] = {
    {"CSquareMagnitude_m256_fma", IsaNeed::FMA, [] { return HasAVX() && HasFMA(); }, &NewCSquareMagnitude_m256_fma},
    {"CSquareMagnitude_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewCSquareMagnitude_m256},
    {"CSquareMagnitude_m128_fma", IsaNeed::FMA, [] { return HasFMA(); }, &NewCSquareMagnitude_m128_fma},
    {"CSquareMagnitude_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewCSquareMagnitude_m128},
    {"CSquareMagnitude_ref", IsaNeed::None, [] { return true; }, &NewCSquareMagnitude_ref},
};
} // namespace

std::span<const CSquareMagnitudeVariant> CSquareMagnitudeVariants()
{
    return kVariants;
}

void CreateCSquareMagnitude(std::unique_ptr<CSquareMagnitude>& out)
{
    InstallFirstChosen<CSquareMagnitude>(out, CSquareMagnitudeVariants());
}

} // namespace twa::numeric
