#pragma once
// Buffers fenced by guard bytes, placed at a chosen distance from a 64-byte
// boundary, so a test can hand a kernel aligned or misaligned pointers and
// see whether it wrote outside what it was given.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <vector>

namespace qvd::test {

template <class T = float>
class GuardedBuffer {
public:
    static constexpr std::size_t kGuardBytes = 64;
    // Read as a float, a guard word is the NaN 0x7FBADBAD.
    static constexpr std::uint32_t kSentinel = 0x7FBADBADu;

    // n elements starting `offsetBytes` past a 64-byte boundary.
    explicit GuardedBuffer(std::size_t n, std::size_t offsetBytes = 0) : m_n(n)
    {
        m_store.resize(n * sizeof(T) + offsetBytes + 2 * kGuardBytes + 64);
        for (std::size_t i = 0; i < m_store.size(); ++i)
            m_store[i] = sentinelByte(i);
        const auto base = reinterpret_cast<std::uintptr_t>(m_store.data());
        m_begin = static_cast<std::size_t>((64 - base % 64) % 64) + kGuardBytes + offsetBytes;
    }
    GuardedBuffer(GuardedBuffer&&) noexcept = default;
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    T* data() { return reinterpret_cast<T*>(m_store.data() + m_begin); }
    const T* data() const { return reinterpret_cast<const T*>(m_store.data() + m_begin); }
    std::size_t size() const { return m_n; }
    T& operator[](std::size_t i) { return data()[i]; }
    const T& operator[](std::size_t i) const { return data()[i]; }

    void assign(std::span<const T> values) { std::memcpy(data(), values.data(), m_n * sizeof(T)); }

    // True when no byte outside the n elements changed.
    bool guardsIntact() const
    {
        const std::size_t end = m_begin + m_n * sizeof(T);
        for (std::size_t i = 0; i < m_store.size(); ++i)
            if ((i < m_begin || i >= end) && m_store[i] != sentinelByte(i))
                return false;
        return true;
    }

private:
    static unsigned char sentinelByte(std::size_t i) { return static_cast<unsigned char>(kSentinel >> (8 * (i % 4))); }

    std::size_t m_n;
    std::size_t m_begin = 0;
    std::vector<unsigned char> m_store;
};

// n values drawn uniformly from [lo, hi); the same seed gives the same values.
template <class Container = std::vector<float>>
Container uniform(std::size_t n, float lo, float hi, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(lo, hi);
    Container v(n);
    for (auto& x : v)
        x = d(rng);
    return v;
}

inline std::uint32_t bitsOf(float x)
{
    std::uint32_t b;
    std::memcpy(&b, &x, sizeof b);
    return b;
}

} // namespace qvd::test
