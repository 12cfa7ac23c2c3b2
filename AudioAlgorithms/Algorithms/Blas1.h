#pragma once
// Vector arithmetic on float arrays (level-1 BLAS style).

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// Outputs may alias inputs element for element. SIMD variants expect pointers
// aligned to their vector width. All variants agree exactly on Scale, Add and
// Mul; MulAdd and Axpy round once in _fma variants; Dot and Sum add in a
// different order in every SIMD variant (see the tests for the bound).
class Blas1 {
public:
    virtual ~Blas1();
    Blas1(const Blas1&) = delete;
    Blas1& operator=(const Blas1&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;

    // [audio-thread] out = a * x
    virtual void Scale(const float* x, float a, float* out, std::size_t n) const noexcept = 0;
    // [audio-thread] out = x + y
    virtual void Add(const float* x, const float* y, float* out, std::size_t n) const noexcept = 0;
    // [audio-thread] out = x * y
    virtual void Mul(const float* x, const float* y, float* out, std::size_t n) const noexcept = 0;
    // [audio-thread] out = x * y + z
    virtual void MulAdd(const float* x, const float* y, const float* z, float* out,
                        std::size_t n) const noexcept = 0;
    // [audio-thread] y = a * x + y
    virtual void Axpy(float a, const float* x, float* y, std::size_t n) const noexcept = 0;
    // [audio-thread] sum of x * y; 0 for n == 0
    virtual float Dot(const float* x, const float* y, std::size_t n) const noexcept = 0;
    // [audio-thread] sum of x; 0 for n == 0
    virtual float Sum(const float* x, std::size_t n) const noexcept = 0;

protected:
    Blas1() noexcept;
};

using Blas1Variant = KernelVariant<Blas1>;

// [not while processing] Installs the preferred variant; never leaves `out` empty.
void CreateBlas1(std::unique_ptr<Blas1>& out);
std::span<const Blas1Variant> Blas1Variants();

Blas1* NewBlas1_ref();
Blas1* NewBlas1_m128();
Blas1* NewBlas1_m256();
Blas1* NewBlas1_m256_fma();

} // namespace twa::numeric
