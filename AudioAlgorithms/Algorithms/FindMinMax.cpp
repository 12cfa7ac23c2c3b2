#include "Algorithms/FindMinMax.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

FindMinMax::FindMinMax() noexcept = default;
FindMinMax::~FindMinMax() = default;

namespace {
// 256-bit lanes take one, two or four channels side by side, or eight-channel
// groups; 128-bit lanes one or two channels, or groups of four.
constexpr FindMinMaxVariant kVariants[] = {
    {"FindMinMax_c1_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c == 1; }, &NewFindMinMax_m256},
    {"FindMinMax_c2_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c == 2; }, &NewFindMinMax_m256},
    {"FindMinMax_c4_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c == 4; }, &NewFindMinMax_m256},
    {"FindMinMax_c8m_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c != 0 && c % 8 == 0; }, &NewFindMinMax_m256},
    {"FindMinMax_c1_m128", IsaNeed::SSE2, [](std::size_t c) { return HasSSE2() && c == 1; }, &NewFindMinMax_m128},
    {"FindMinMax_c2_m128", IsaNeed::SSE2, [](std::size_t c) { return HasSSE2() && c == 2; }, &NewFindMinMax_m128},
    {"FindMinMax_c4m_m128", IsaNeed::SSE2, [](std::size_t c) { return HasSSE2() && c != 0 && c % 4 == 0; }, &NewFindMinMax_m128},
    {"FindMinMax_ref", IsaNeed::None, [](std::size_t c) { return c != 0; }, &NewFindMinMax_ref},
};
} // namespace

std::span<const FindMinMaxVariant> FindMinMaxVariants()
{
    return kVariants;
}

void CreateFindMinMax(std::unique_ptr<FindMinMax>& out, std::size_t channels)
{
    InstallFirstChosen<FindMinMax, std::size_t>(out, FindMinMaxVariants(), channels);
}

} // namespace twa::numeric
