#include "Algorithms/Vec.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Vec::Vec() noexcept = default;
Vec::~Vec() = default;

namespace {
// The reference variant closes the list so the factory always has an answer.
constexpr VecVariant kVariants[] = {
    {"Vec_m256_avx2", IsaNeed::AVX2, [] { return HasAVX2(); }, &NewVec_m256_avx2},
    {"Vec_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewVec_m256},
    {"Vec_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewVec_m128},
    {"Vec_ref", IsaNeed::None, [] { return true; }, &NewVec_ref},
};
} // namespace

std::span<const VecVariant> VecVariants()
{
    return kVariants;
}

void CreateVec(std::unique_ptr<Vec>& out)
{
    InstallFirstChosen<Vec>(out, VecVariants());
}

} // namespace twa::numeric
