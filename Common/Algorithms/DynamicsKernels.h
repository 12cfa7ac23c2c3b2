#pragma once
// Block-wide log10 and 10^x passes that bracket the serial envelope recursion
// of the dynamics blocks, one variant per instruction set. Declarations only:
// the per-ISA files include this and nothing with inline code.

#include <cstdint>

namespace qvd::dynamics {

// out[i] = log10(in[i]) for in[i] in [FLT_MIN, FLT_MAX] (callers clamp first:
// the fast variants do not handle zero, subnormals, infinities or NaN).
using Log10Fn = void (*)(const float* in, float* out, std::int32_t n) noexcept;
// out[i] = 10^in[i]. Exact variants follow std::pow; the fast ones are
// accurate to a few ulp for in[i] in [-37.5, 38] and saturate outside it.
using Exp10Fn = void (*)(const float* in, float* out, std::int32_t n) noexcept;

// The reference: std::log10 and std::pow(10.0f, x) per element.
void log10_ref(const float* in, float* out, std::int32_t n) noexcept;
void exp10_ref(const float* in, float* out, std::int32_t n) noexcept;

namespace m256_avx2 {
// Eight lanes at a time with polynomial approximations (no FMA).
void log10(const float* in, float* out, std::int32_t n) noexcept;
void exp10(const float* in, float* out, std::int32_t n) noexcept;
} // namespace m256_avx2

struct Variant {
    const char* name; // "ref", "m256_avx2"
    Log10Fn log10;
    Exp10Fn exp10;
};

// The fastest variant this processor runs.
Variant selectVariant() noexcept;
// The reference variant, the floor every processor runs.
Variant referenceVariant() noexcept;
// Every variant this processor runs, the reference first; returns how many
// there are (entries beyond `capacity` are not written).
int supportedVariants(Variant* out, int capacity) noexcept;

} // namespace qvd::dynamics
