#pragma once
// The SIMD Polar2Rect variants, written once and built per instruction set.

#include "Algorithms/Polar2Rect.h"
#include "System/simd/twa_simd_kernel.h"
#include "System/simd/twa_simd_math.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class Polar2RectSimd final : public Polar2Rect {
public:
    explicit Polar2RectSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }
    void Process(const float* mag, const float* phase, float* re, float* im,
                 std::size_t n) const noexcept override
    {
        check_ptr<V>(mag);
        check_ptr<V>(phase);
        check_ptr<V>(re);
        check_ptr<V>(im);
        apply2to2<V>(mag, phase, re, im, n, [](V m, V p, V& x, V& y) {
            V s;
            V c;
            vsincos(p, s, c);
            x = m * c;
            y = m * s;
        });
    }

private:
    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
