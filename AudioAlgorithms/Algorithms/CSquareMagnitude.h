#pragma once
// Squared magnitude of interleaved complex values.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// out[i] = re_i^2 + im_i^2 for n complex values stored (re, im) pairs. The
// non-_fma variants agree exactly; _fma variants round once less. SIMD
// variants expect aligned pointers. out may be the input array (it then holds
// the n results at its start).
class CSquareMagnitude {
public:
    virtual ~CSquareMagnitude();
    CSquareMagnitude(const CSquareMagnitude&) = delete;
    CSquareMagnitude& operator=(const CSquareMagnitude&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    // [audio-thread]
    virtual void Process(const float* cplx, float* out, std::size_t n) const noexcept = 0;

protected:
    CSquareMagnitude() noexcept;
};

using CSquareMagnitudeVariant = KernelVariant<CSquareMagnitude>;

// [not while processing] Installs the preferred variant; never leaves `out` empty.
void CreateCSquareMagnitude(std::unique_ptr<CSquareMagnitude>& out);
std::span<const CSquareMagnitudeVariant> CSquareMagnitudeVariants();

CSquareMagnitude* NewCSquareMagnitude_ref();
CSquareMagnitude* NewCSquareMagnitude_m128();
CSquareMagnitude* NewCSquareMagnitude_m128_fma();
CSquareMagnitude* NewCSquareMagnitude_m256();
CSquareMagnitude* NewCSquareMagnitude_m256_fma();

} // namespace twa::numeric
