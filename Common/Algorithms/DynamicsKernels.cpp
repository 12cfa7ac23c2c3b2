#include "DynamicsKernels.h"

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
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        return {"m256_avx2", &m256_avx2::log10, &m256_avx2::exp10};
    return referenceVariant();
}

int supportedVariants(Variant* out, int capacity) noexcept
{
    __builtin_cpu_init();
    int n = 0;
    auto add = [&](const Variant& v) {
        if (n < capacity)
            out[n] = v;
        ++n;
    };
    add(referenceVariant());
    if (__builtin_cpu_supports("avx2"))
        add({"m256_avx2", &m256_avx2::log10, &m256_avx2::exp10});
    return n;
}

} // namespace qvd::dynamics
