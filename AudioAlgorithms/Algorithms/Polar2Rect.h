#pragma once
// Polar to cartesian form of split complex arrays.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// re = mag * cos(phase), im = mag * sin(phase). Outputs may be the input
// arrays. SIMD variants are within 1.5e-7 * mag of the C library for
// |phase| <= 8192 and expect aligned pointers.
class Polar2Rect {
public:
    virtual ~Polar2Rect();
    Polar2Rect(const Polar2Rect&) = delete;
    Polar2Rect& operator=(const Polar2Rect&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    // [audio-thread]
    virtual void Process(const float* mag, const float* phase, float* re, float* im,
                         std::size_t n) const noexcept = 0;

protected:
    Polar2Rect() noexcept;
};

using Polar2RectVariant = KernelVariant<Polar2Rect>;

// [not while processing] Installs the preferred variant; never leaves `out` empty.
void CreatePolar2Rect(std::unique_ptr<Polar2Rect>& out);
std::span<const Polar2RectVariant> Polar2RectVariants();

Polar2Rect* NewPolar2Rect_ref();
Polar2Rect* NewPolar2Rect_m128();
Polar2Rect* NewPolar2Rect_m256();
Polar2Rect* NewPolar2Rect_m256_avx2();

} // namespace twa::numeric
