#include "Algorithms/Blas1.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Blas1::Blas1() noexcept = default;
Blas1::~Blas1() = default;

namespace {
// The reference variant closes the list so the factory always has an answer.
constexpr Blas1Variant kVariants[] = {
    {"Blas1_m256_fma", IsaNeed::FMA, [] { return HasAVX() && HasFMA(); }, &NewBlas1_m256_fma},
    {"Blas1_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewBlas1_m256},
    {"Blas1_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewBlas1_m128},
    {"Blas1_ref", IsaNeed::None, [] { return true; }, &NewBlas1_ref},
};
} // namespace

std::span<const Blas1Variant> Blas1Variants()
{
    return kVariants;
}

void CreateBlas1(std::unique_ptr<Blas1>& out)
{
    InstallFirstChosen<Blas1>(out, Blas1Variants());
}

} // namespace twa::numeric
