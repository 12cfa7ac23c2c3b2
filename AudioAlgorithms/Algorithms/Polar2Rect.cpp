#include "Algorithms/Polar2Rect.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Polar2Rect::Polar2Rect() noexcept = default;
Polar2Rect::~Polar2Rect() = default;

namespace {
constexpr Polar2RectVariant kVariants[] = {
    {"Polar2Rect_m256_avx2", IsaNeed::AVX2, [] { return HasAVX2(); }, &NewPolar2Rect_m256_avx2},
    {"Polar2Rect_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewPolar2Rect_m256},
    {"Polar2Rect_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewPolar2Rect_m128},
    {"Polar2Rect_ref", IsaNeed::None, [] { return true; }, &NewPolar2Rect_ref},
};
} // namespace

std::span<const Polar2RectVariant> Polar2RectVariants()
{
    return kVariants;
}

void CreatePolar2Rect(std::unique_ptr<Polar2Rect>& out)
{
    InstallFirstChosen<Polar2Rect>(out, Polar2RectVariants());
}

} // namespace twa::numeric
