#pragma once
// Helpers every per-ISA kernel file shares: the alignment contract and loops
// with a padded tail, so the last few elements take the same vector path.

#ifndef TWA_ISA
#error "define TWA_ISA before including a SIMD header"
#endif

#include "System/twa_assert.h"

#include <cstddef>
#include <cstdint>

namespace twa::simd::TWA_ISA {

template <class TAG>
inline bool v_test(const void* p)
{
    return (reinterpret_cast<std::uintptr_t>(p) & (TAG::kAlign - 1)) == 0;
}

// Every sample pointer a SIMD kernel receives must be non-null and aligned to
// its vector width. Loads are unaligned anyway, so a release build carries on.
template <class TAG>
inline void check_ptr(const void* p)
{
    QVD_ASSERT(p && v_test<TAG>(p));
}

inline void copyN(const float* in, float* out, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = in[i];
}

// out[i] = f(in[i]) a vector at a time; the tail goes through a zero-padded copy.
template <class TAG, class F>
inline void apply1(const float* in, float* out, std::size_t n, F f)
{
    constexpr std::size_t W = TAG::W;
    std::size_t i = 0;
    for (; i + W <= n; i += W)
        store(out + i, f(load(in + i)));
    if (i < n) {
        float a[W] = {};
        float r[W];
        copyN(in + i, a, n - i);
        store(r, f(load(a)));
        copyN(r, out + i, n - i);
    }
}

// out[i] = f(x[i], y[i]).
template <class TAG, class F>
inline void apply2(const float* x, const float* y, float* out, std::size_t n, F f)
{
    constexpr std::size_t W = TAG::W;
    std::size_t i = 0;
    for (; i + W <= n; i += W)
        store(out + i, f(load(x + i), load(y + i)));
    if (i < n) {
        float a[W] = {};
        float b[W] = {};
        float r[W];
        copyN(x + i, a, n - i);
        copyN(y + i, b, n - i);
        store(r, f(load(a), load(b)));
        copyN(r, out + i, n - i);
    }
}

// out[i] = f(x[i], y[i], z[i]).
template <class TAG, class F>
inline void apply3(const float* x, const float* y, const float* z, float* out, std::size_t n, F f)
{
    constexpr std::size_t W = TAG::W;
    std::size_t i = 0;
    for (; i + W <= n; i += W)
        store(out + i, f(load(x + i), load(y + i), load(z + i)));
    if (i < n) {
        float a[W] = {};
        float b[W] = {};
        float c[W] = {};
        float r[W];
        copyN(x + i, a, n - i);
        copyN(y + i, b, n - i);
        copyN(z + i, c, n - i);
        store(r, f(load(a), load(b), load(c)));
        copyN(r, out + i, n - i);
    }
}

// Two inputs, two outputs: f(a, b, outA, outB).
template <class TAG, class F>
inline void apply2to2(const float* x, const float* y, float* u, float* v, std::size_t n, F f)
{
    constexpr std::size_t W = TAG::W;
    std::size_t i = 0;
    for (; i + W <= n; i += W) {
        auto a = load(x + i);
        auto b = load(y + i);
        decltype(a) p;
        decltype(a) q;
        f(a, b, p, q);
        store(u + i, p);
        store(v + i, q);
    }
    if (i < n) {
        float a[W] = {};
        float b[W] = {};
        float p[W];
        float q[W];
        copyN(x + i, a, n - i);
        copyN(y + i, b, n - i);
        decltype(load(a)) vp;
        decltype(load(a)) vq;
        f(load(a), load(b), vp, vq);
        store(p, vp);
        store(q, vq);
        copyN(p, u + i, n - i);
        copyN(q, v + i, n - i);
    }
}

} // namespace twa::simd::TWA_ISA
