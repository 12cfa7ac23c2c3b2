#pragma once
// The SIMD CSquareMagnitude variants, written once and built per instruction set.

#include "Algorithms/CSquareMagnitude.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class CSquareMagnitudeSimd final : public CSquareMagnitude {
public:
    explicit CSquareMagnitudeSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }
    void Process(const float* cplx, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(cplx);
        check_ptr<V>(out);
        constexpr std::size_t W = V::W;
        std::size_t i = 0;
        // Both loads come before the store, so out == cplx works.
        for (; i + W <= n; i += W) {
            V re;
            V im;
            deinterleave2(load(cplx + 2 * i), load(cplx + 2 * i + W), re, im);
            store(out + i, madd(re, re, im * im));
        }
        if (i < n) {
            float a[2 * W] = {};
            float r[W];
            copyN(cplx + 2 * i, a, 2 * (n - i));
            V re;
            V im;
            deinterleave2(load(a), load(a + W), re, im);
            store(r, madd(re, re, im * im));
            copyN(r, out + i, n - i);
        }
    }

private:
    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
