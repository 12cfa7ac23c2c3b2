#pragma once
// Cartesian to polar form of split complex arrays.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// mag = sqrt(re^2 + im^2), phase = atan2(im, re) in [-pi, pi]. Outputs may be
// the input arrays. The magnitude is exact in every variant; the SIMD phase is
// within 6e-7 rad of the C library's. SIMD variants expect aligned pointers.
class Rect2Polar {
public:
    virtual ~Rect2Polar();
    Rect2Polar(const Rect2Polar&) = delete;
    Rect2Polar& operator=(const Rect2Polar&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    // [audio-thread]
    virtual void Process(const float* re, const float* im, float* mag, float* phase,
                         std::size_t n) const noexcept = 0;

protected:
    Rect2Polar() noexcept;
};

using Rect2PolarVariant = KernelVariant<Rect2Polar>;

// [not while processing] Installs the preferred variant; never leaves `out` empty.
void CreateRect2Polar(std::unique_ptr<Rect2Polar>& out);
std::span<const Rect2PolarVariant> Rect2PolarVariants();

Rect2Polar* NewRect2Polar_ref();
Rect2Polar* NewRect2Polar_m128();
Rect2Polar* NewRect2Polar_m256();
Rect2Polar* NewRect2Polar_m256_avx2();

} // namespace twa::numeric
