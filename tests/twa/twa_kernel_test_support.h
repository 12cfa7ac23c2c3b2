#pragma once
// Guarded buffers, the standard counts and comparisons for kernel tests.

#include "System/twa_aligned_allocator.h"
#include "System/twa_dispatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace twa::test {

inline const std::vector<std::size_t>& kernelCounts()
{
    static const std::vector<std::size_t> counts = [] {
        std::vector<std::size_t> c;
        for (std::size_t n = 0; n <= 15; ++n)
            c.push_back(n);
        for (std::size_t n : {31, 32, 33, 64, 65, 999, 4095})
            c.push_back(n);
        return c;
    }();
    return counts;
}

inline std::uint32_t bitsOf(float x)
{
    std::uint32_t b;
    std::memcpy(&b, &x, sizeof b);
    return b;
}

// n floats between guard words, starting `offset` floats past a 32-byte boundary.
class Guarded {
public:
    static constexpr std::size_t kGuard = 16;
    static constexpr std::uint32_t kSentinel = 0x7FBADBADu;

    explicit Guarded(std::size_t n, std::size_t offset = 0)
        : m_n(n), m_offset(offset), m_store(n + 2 * kGuard + 8)
    {
        float sentinel;
        const std::uint32_t bits = kSentinel;
        std::memcpy(&sentinel, &bits, sizeof sentinel);
        for (float& f : m_store)
            f = sentinel;
    }
    float* data() { return m_store.data() + kGuard + m_offset; }
    const float* data() const { return m_store.data() + kGuard + m_offset; }
    std::size_t size() const { return m_n; }
    float& operator[](std::size_t i) { return data()[i]; }
    float operator[](std::size_t i) const { return data()[i]; }

    // True when nothing outside [data, data + n) was touched.
    bool guardsIntact() const
    {
        for (std::size_t i = 0; i < m_store.size(); ++i) {
            const bool inside = i >= kGuard + m_offset && i < kGuard + m_offset + m_n;
            if (!inside && bitsOf(m_store[i]) != kSentinel)
                return false;
        }
        return true;
    }
    void fill(std::span<const float> values)
    {
        for (std::size_t i = 0; i < m_n; ++i)
            data()[i] = values[i];
    }

private:
    std::size_t m_n;
    std::size_t m_offset;
    std::vector<float, memory::aligned_allocator<float, 32>> m_store;
};

inline std::vector<float> uniform(std::size_t n, float lo, float hi, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (float& x : v)
        x = d(rng);
    return v;
}

// Distance in representable floats; 0 for two NaNs, huge for NaN vs number.
inline std::uint64_t ulpDistance(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return (std::isnan(a) && std::isnan(b)) ? 0 : ~std::uint64_t{0};
    auto ordered = [](float x) {
        const std::int64_t i = static_cast<std::int32_t>(bitsOf(x));
        return i < 0 ? -(i & 0x7FFFFFFF) : i;
    };
    const std::int64_t d = ordered(a) - ordered(b);
    return static_cast<std::uint64_t>(d < 0 ? -d : d);
}

inline bool sameBits(float a, float b)
{
    return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

// The variants this machine can run, each built fresh.
template <class Base, class... Args>
std::vector<std::unique_ptr<Base>> runnableVariants(std::span<const KernelVariant<Base, Args...>> list,
                                                    Args... args)
{
    std::vector<std::unique_ptr<Base>> out;
    for (const auto& v : list) {
        if (!MachineRuns(v.needs))
            continue;
        if (Base* p = v.create(args...))
            out.emplace_back(p);
    }
    return out;
}

} // namespace twa::test
