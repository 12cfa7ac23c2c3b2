#include "Algorithms/Lpfm16.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Lpfm16::Lpfm16() noexcept = default;
Lpfm16::~Lpfm16() = default;

namespace {
// Widest first; the reference closes the list for the channel counts it takes.
constexpr Lpfm16Variant kVariants[] = {
    {"Lpfm16_c1_m256_fma", IsaNeed::FMA, [](std::size_t c) { return HasAVX() && HasFMA() && c == 1; }, &NewLpfm16_m256_fma},
    {"Lpfm16_c2_m256_fma", IsaNeed::FMA, [](std::size_t c) { return HasAVX() && HasFMA() && c == 2; }, &NewLpfm16_m256_fma},
    {"Lpfm16_c1_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c == 1; }, &NewLpfm16_m256},
    {"Lpfm16_c2_m256", IsaNeed::AVX, [](std::size_t c) { return HasAVX() && c == 2; }, &NewLpfm16_m256},
    {"Lpfm16_c1_m128_fma", IsaNeed::FMA, [](std::size_t c) { return HasFMA() && c == 1; }, &NewLpfm16_m128_fma},
    {"Lpfm16_c2_m128_fma", IsaNeed::FMA, [](std::size_t c) { return HasFMA() && c == 2; }, &NewLpfm16_m128_fma},
    {"Lpfm16_c1_m128", IsaNeed::SSE2, [](std::size_t c) { return HasSSE2() && c == 1; }, &NewLpfm16_m128},
    {"Lpfm16_c2_m128", IsaNeed::SSE2, [](std::size_t c) { return HasSSE2() && c == 2; }, &NewLpfm16_m128},
    {"Lpfm16_c1_ref", IsaNeed::None, [](std::size_t c) { return c == 1; }, &NewLpfm16_ref},
    {"Lpfm16_c2_ref", IsaNeed::None, [](std::size_t c) { return c == 2; }, &NewLpfm16_ref},
};
} // namespace

std::span<const Lpfm16Variant> Lpfm16Variants()
{
    return kVariants;
}

void CreateLpfm16(std::unique_ptr<Lpfm16>& out, std::size_t channels)
{
    InstallFirstChosen<Lpfm16, std::size_t>(out, Lpfm16Variants(), channels);
}

} // namespace twa::numeric
