#pragma once
// The SIMD Rect2Polar variants, written once and built per instruction set.

#include "Algorithms/Rect2Polar.h"
#include "System/simd/twa_simd_kernel.h"
#include "System/simd/twa_simd_math.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class Rect2PolarSimd final : public Rect2Polar {
public:
    explicit Rect2PolarSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }
    void Process(const float* re, const float* im, float* mag, float* phase,
                 std::size_t n) const noexcept override
    {
        check_ptr<V>(re);
        check_ptr<V>(im);
        check_ptr<V>(mag);
        check_ptr<V>(phase);
        // Unfused on purpose: the magnitude matches the scalar formula exactly.
        apply2to2<V>(re, im, mag, phase, n, [](V x, V y, V& m, V& p) {
            m = vsqrt(x * x + y * y);
            p = vatan2(y, x);
        });
    }

private:
    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
