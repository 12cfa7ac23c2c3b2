#pragma once
// Copying, filling, clamping and searching float arrays.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

struct ValueIndex {
    float value;
    std::size_t index;
    bool operator==(const ValueIndex&) const = default;
};

// All variants give identical results. SIMD variants expect pointers aligned
// to their vector width.
class Vec {
public:
    virtual ~Vec();
    Vec(const Vec&) = delete;
    Vec& operator=(const Vec&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;

    // [audio-thread] out = in; the ranges must not overlap unless equal.
    virtual void Copy(const float* in, float* out, std::size_t n) const noexcept = 0;
    // [audio-thread] out = value
    virtual void Fill(float* out, float value, std::size_t n) const noexcept = 0;
    // [audio-thread] out = min(max(in, lo), hi); NaN becomes lo. in == out is allowed.
    virtual void Clamp(const float* in, float lo, float hi, float* out,
                       std::size_t n) const noexcept = 0;
    // [audio-thread] The smallest (largest) element and the index of its first
    // occurrence; NaNs are skipped unless all are NaN (then index 0). For n == 0
    // the answer is {+inf (-inf), 0}. -0 and +0 count as equal.
    virtual ValueIndex MinIndex(const float* in, std::size_t n) const noexcept = 0;
    virtual ValueIndex MaxIndex(const float* in, std::size_t n) const noexcept = 0;

protected:
    Vec() noexcept;
};

using VecVariant = KernelVariant<Vec>;

// [not while processing] Installs the preferred variant; never leaves `out` empty.
void CreateVec(std::unique_ptr<Vec>& out);
std::span<const VecVariant> VecVariants();

Vec* NewVec_ref();
Vec* NewVec_m128();
Vec* NewVec_m256();
Vec* NewVec_m256_avx2();

} // namespace twa::numeric
