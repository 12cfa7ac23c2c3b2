#include "Algorithms/Func.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

Func::Func() noexcept = default;
Func::~Func() = default;

namespace {
constexpr FuncVariant kVariants[] = {
    {"Func_m256_avx2", IsaNeed::AVX2, [] { return HasAVX2(); }, &NewFunc_m256_avx2},
    {"Func_m256", IsaNeed::AVX, [] { return HasAVX(); }, &NewFunc_m256},
    {"Func_m128_fma", IsaNeed::FMA, [] { return HasFMA(); }, &NewFunc_m128_fma},
    {"Func_m128", IsaNeed::SSE2, [] { return HasSSE2(); }, &NewFunc_m128},
    {"Func_ref", IsaNeed::None, [] { return true; }, &NewFunc_ref},
};
} // namespace

std::span<const FuncVariant> FuncVariants()
{
    return kVariants;
}

void CreateFunc(std::unique_ptr<Func>& out)
{
    InstallFirstChosen<Func>(out, FuncVariants());
}

} // namespace twa::numeric
