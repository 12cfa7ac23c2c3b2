#include "DynamicsKernels.h"

#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>

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

Variant referenceVariant() noexcept
{
    return {"ref", &log10_ref, &exp10_ref};
}

Variant selectVariant() noexcept
{
    // Forced levels apply; the machine check keeps them from picking code
    // this processor cannot run.
    if (twa::HasAVX2() && twa::MachineRuns(twa::IsaNeed::AVX2))
        return {"m256_avx2", &m256_avx2::log10, &m256_avx2::exp10};
    return referenceVariant();
}

int supportedVariants(Variant* out, int capacity) noexcept
{
    int n = 0;
    auto add = [&](const Variant& v) {
        if (n < capacity)
            out[n] = v;
        ++n;
    };
    add(referenceVariant());
    if (twa::MachineRuns(twa::IsaNeed::AVX2))
        add({"m256_avx2", &m256_avx2::log10, &m256_avx2::exp10});
    return n;
}

} // namespace qvd::dynamics
