#include "Algorithms/Rect2Polar.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Rect2Polar::Rect2Polar() noexcept = default;
Rect2Polar::~Rect2Polar() = default;

namespace {
constexpr Rect2PolarVariant kVariants[] = {
    {"Rect2Polar_m256_avx2", IsaNeed::AVX2, [] { return HasAVX2(); }, &NewRect2Polar_m256_avx2},
    {"Rect2Polar_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewRect2Polar_m256},
    {"Rect2Polar_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewRect2Polar_m128},
    {"Rect2Polar_ref", IsaNeed::None, [] { return true; }, &NewRect2Polar_ref},
};
} // namespace

std::span<const Rect2PolarVariant> Rect2PolarVariants()
{
    return kVariants;
}

void CreateRect2Polar(std::unique_ptr<Rect2Polar>& out)
{
    InstallFirstChosen<Rect2Polar>(out, Rect2PolarVariants());
}

} // namespace twa::numeric
