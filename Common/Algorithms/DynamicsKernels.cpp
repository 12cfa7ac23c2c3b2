#include "DynamicsKernels.h"

#include <Algorithms/KernelReport.h>
#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>

#include <iterator>
#include <span>

#include <cmath>

namespace qvd::dynamics {

void log10_ref(const float* in, float* out, std::int32_t n) noexcept
{
    for (std::int32_t i = 0; i < n; ++i)
        out[i] = std::log10(in[i]);
}

void exp10_ref(const float* in, float* out, std::int32_t n) noexcept
{
    for (std::int32_t i = 0; i < n; ++i)
        out[i] = std::pow(10.0f, in[i]);
}

namespace {
// Widest first, the reference last.
constexpr twa::FunctionVariant<Variant> kVariants[] = {
    {"m256_avx2", twa::IsaNeed::AVX2, &twa::HasAVX2, {"m256_avx2", &m256_avx2::log10, &m256_avx2::exp10}},
    {"ref", twa::IsaNeed::None, &twa::Always, {"ref", &log10_ref, &exp10_ref}},
};
[[maybe_unused]] const bool g_reported =
    twa::numeric::RegisterKernelFamily("Dynamics", [] { return selectVariant().name; });
} // namespace

Variant referenceVariant() noexcept
{
    return kVariants[std::size(kVariants) - 1].fn;
}

Variant selectVariant() noexcept
{
    return twa::ChooseVariant(std::span<const twa::FunctionVariant<Variant>>(kVariants)).fn;
}

int supportedVariants(Variant* out, int capacity) noexcept
{
    const auto runnable = twa::RunnableVariants(std::span<const twa::FunctionVariant<Variant>>(kVariants));
    for (std::size_t i = 0; i < runnable.size() && static_cast<int>(i) < capacity; ++i)
        out[i] = runnable[i].fn;
    return static_cast<int>(runnable.size());
}

} // namespace qvd::dynamics
