#pragma once
// The SIMD Blas1 variants, written once and built per instruction set.

#include "Algorithms/Blas1.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

// Sums the lanes of a vector, pairwise.
inline float hsum(V a)
{
    float t[V::W];
    toArray(a, t);
    std::size_t w = V::W;
    while (w > 1) {
        w /= 2;
        for (std::size_t i = 0; i < w; ++i)
            t[i] = t[i] + t[i + w];
    }
    return t[0];
}

class Blas1Simd final : public Blas1 {
public:
    explicit Blas1Simd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }

    void Scale(const float* x, float a, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(out);
        const V va = set1(a);
        apply1<V>(x, out, n, [va](V v) { return va * v; });
    }
    void Add(const float* x, const float* y, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(y);
        check_ptr<V>(out);
        apply2<V>(x, y, out, n, [](V a, V b) { return a + b; });
    }
    void Mul(const float* x, const float* y, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(y);
        check_ptr<V>(out);
        apply2<V>(x, y, out, n, [](V a, V b) { return a * b; });
    }
    void MulAdd(const float* x, const float* y, const float* z, float* out,
                std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(y);
        check_ptr<V>(z);
        check_ptr<V>(out);
        apply3<V>(x, y, z, out, n, [](V a, V b, V c) { return madd(a, b, c); });
    }
    void Axpy(float a, const float* x, float* y, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(y);
        const V va = set1(a);
        apply2<V>(x, y, y, n, [va](V u, V v) { return madd(va, u, v); });
    }
    float Dot(const float* x, const float* y, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        check_ptr<V>(y);
        constexpr std::size_t W = V::W;
        // Two accumulators hide the add latency.
        V s0 = zero();
        V s1 = zero();
        std::size_t i = 0;
        for (; i + 2 * W <= n; i += 2 * W) {
            s0 = madd(load(x + i), load(y + i), s0);
            s1 = madd(load(x + i + W), load(y + i + W), s1);
        }
        if (i + W <= n) {
            s0 = madd(load(x + i), load(y + i), s0);
            i += W;
        }
        float s = hsum(s0 + s1);
        for (; i < n; ++i)
            s += x[i] * y[i];
        return s;
    }
    float Sum(const float* x, std::size_t n) const noexcept override
    {
        check_ptr<V>(x);
        constexpr std::size_t W = V::W;
        V s0 = zero();
        V s1 = zero();
        std::size_t i = 0;
        for (; i + 2 * W <= n; i += 2 * W) {
            s0 = s0 + load(x + i);
            s1 = s1 + load(x + i + W);
        }
        if (i + W <= n) {
            s0 = s0 + load(x + i);
            i += W;
        }
        float s = hsum(s0 + s1);
        for (; i < n; ++i)
            s += x[i];
        return s;
    }

private:
    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
