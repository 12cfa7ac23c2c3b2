#pragma once
// The SIMD Vec variants, written once and built per instruction set.

#include "Algorithms/Vec.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class VecSimd final : public Vec {
public:
    explicit VecSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }

    void Copy(const float* in, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(in);
        check_ptr<V>(out);
        constexpr std::size_t W = V::W;
        std::size_t i = 0;
        for (; i + 2 * W <= n; i += 2 * W) {
            const V a = load(in + i);
            const V b = load(in + i + W);
            store(out + i, a);
            store(out + i + W, b);
        }
        for (; i < n; ++i)
            out[i] = in[i];
    }
    void Fill(float* out, float value, std::size_t n) const noexcept override
    {
        check_ptr<V>(out);
        constexpr std::size_t W = V::W;
        const V v = set1(value);
        std::size_t i = 0;
        for (; i + W <= n; i += W)
            store(out + i, v);
        for (; i < n; ++i)
            out[i] = value;
    }
    void Clamp(const float* in, float lo, float hi, float* out, std::size_t n) const noexcept override
    {
        check_ptr<V>(in);
        check_ptr<V>(out);
        const V vlo = set1(lo);
        const V vhi = set1(hi);
        apply1<V>(in, out, n, [vlo, vhi](V x) { return vmin(vmax(x, vlo), vhi); });
    }
    ValueIndex MinIndex(const float* in, std::size_t n) const noexcept override
    {
        return search<true>(in, n);
    }
    ValueIndex MaxIndex(const float* in, std::size_t n) const noexcept override
    {
        return search<false>(in, n);
    }

private:
    // Lane-wise search keeping each lane's first best element, with its block
    // offset held as a float (exact below 2^24, so long inputs go in chunks).
    template <bool kMin>
    static ValueIndex search(const float* in, std::size_t n) noexcept
    {
        check_ptr<V>(in);
        if (n == 0) {
            const float inf = __builtin_inff();
            return {kMin ? inf : -inf, 0};
        }
        constexpr std::size_t kChunk = std::size_t{1} << 23;
        std::size_t best = 0;
        std::size_t start = 0;
        while (start < n) {
            const std::size_t len = (n - start < kChunk) ? n - start : kChunk;
            const std::size_t found = start + chunk<kMin>(in + start, len);
            if (betterScalar<kMin>(in[found], in[best]))
                best = found;
            start += len;
        }
        return {in[best], best};
    }

    template <bool kMin>
    static bool betterScalar(float a, float b) noexcept
    {
        if (b != b)
            return a == a;
        return kMin ? a < b : a > b;
    }

    template <bool kMin>
    static std::size_t chunk(const float* in, std::size_t n) noexcept
    {
        constexpr std::size_t W = V::W;
        std::size_t best = 0;
        std::size_t i = 0;
        if (n >= W) {
            // Each lane remembers the start of the block its best came from.
            V block = zero();
            V bestBlock = zero();
            V bestVal = load(in);
            const V step = set1(static_cast<float>(W));
            for (i = W; i + W <= n; i += W) {
                block = block + step;
                const V x = load(in + i);
                const V take = (kMin ? lt(x, bestVal) : gt(x, bestVal)) |
                               andnot(unord(x, x), unord(bestVal, bestVal));
                bestVal = select(take, x, bestVal);
                bestBlock = select(take, block, bestBlock);
            }
            float vals[W];
            float blocks[W];
            toArray(bestVal, vals);
            toArray(bestBlock, blocks);
            best = static_cast<std::size_t>(blocks[0]);
            for (std::size_t k = 1; k < W; ++k) {
                const std::size_t j = static_cast<std::size_t>(blocks[k]) + k;
                const bool tie = vals[k] == in[best];
                if (betterScalar<kMin>(vals[k], in[best]) || (tie && j < best))
                    best = j;
            }
        }
        for (; i < n; ++i)
            if (betterScalar<kMin>(in[i], in[best]))
                best = i;
        return best;
    }

    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
