#pragma once
// Elementwise functions on float arrays.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// Every call computes out[i] = f(in[i]) for i < n and accepts in == out.
// The SIMD variants expect pointers aligned to their vector width (16 bytes
// for _m128, 32 for _m256) and report a contract failure otherwise.
// Abs and Sqrt are exact in every variant; Exp, Log, Log10 and Pow10 of the
// SIMD variants are within a few ulp of the C library (see the tests).
class Func {
public:
    virtual ~Func();
    Func(const Func&) = delete;
    Func& operator=(const Func&) = delete;

    // [any-thread] The variant's name, such as "Func_m256_avx2".
    virtual const char* Name() const noexcept = 0;

    // [audio-thread]
    virtual void Abs(const float* in, float* out, std::size_t n) const noexcept = 0;
    virtual void Sqrt(const float* in, float* out, std::size_t n) const noexcept = 0;
    virtual void Exp(const float* in, float* out, std::size_t n) const noexcept = 0;
    virtual void Log(const float* in, float* out, std::size_t n) const noexcept = 0;
    virtual void Log10(const float* in, float* out, std::size_t n) const noexcept = 0;
    virtual void Pow10(const float* in, float* out, std::size_t n) const noexcept = 0;

protected:
    Func() noexcept;
};

using FuncVariant = KernelVariant<Func>;

// [not while processing] Installs the preferred variant for the current
// instruction-set answers; never leaves `out` empty.
void CreateFunc(std::unique_ptr<Func>& out);
// Every variant, in order of preference.
std::span<const FuncVariant> FuncVariants();

Func* NewFunc_ref();
Func* NewFunc_m128();
Func* NewFunc_m128_fma();
Func* NewFunc_m256();
Func* NewFunc_m256_avx2();

} // namespace twa::numeric
