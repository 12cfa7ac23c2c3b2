#pragma once
// The SIMD Func variants, written once and built per instruction set.

#include "Algorithms/Func.h"
#include "System/simd/twa_simd_kernel.h"
#include "System/simd/twa_simd_math.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class FuncSimd final : public Func {
public:
    explicit FuncSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }

    void Abs(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vabs(x); });
    }
    void Sqrt(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vsqrt(x); });
    }
    void Exp(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vexp(x); });
    }
    void Log(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vlog(x); });
    }
    void Log10(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vlog10(x); });
    }
    void Pow10(const float* in, float* out, std::size_t n) const noexcept override
    {
        run(in, out, n, [](V x) { return vpow10(x); });
    }

private:
    template <class F>
    static void run(const float* in, float* out, std::size_t n, F f) noexcept
    {
        check_ptr<V>(in);
        check_ptr<V>(out);
        if (!in || !out)
            return;
        apply1<V>(in, out, n, f);
    }

    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
