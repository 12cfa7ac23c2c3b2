#pragma once
// One frame of N channels, passed between the stages of multichannel engines.

#include <array>
#include <cstddef>

#include <System/twa_assert.h>

template <std::size_t N>
class MultiChannelSample {
public:
    MultiChannelSample() { m_values.fill(0.0f); }
    explicit MultiChannelSample(float value) { m_values.fill(value); }

    // Fills from [b, e); channels past e - b are zero. A range longer than N is
    // a contract failure and only its first N values are taken.
    MultiChannelSample(const float* b, const float* e)
    {
        QVD_ASSERT(e<=b+N);
        std::size_t i = 0;
        for (; b + i < e && i < N; ++i)
            m_values[i] = b[i];
        for (; i < N; ++i)
            m_values[i] = 0.0f;
    }

    static constexpr std::size_t size() { return N; }
    float& operator[](std::size_t i) { return m_values[i]; }
    float operator[](std::size_t i) const { return m_values[i]; }
    float* data() { return m_values.data(); }
    const float* data() const { return m_values.data(); }

    MultiChannelSample& operator+=(const MultiChannelSample& o)
    {
        for (std::size_t i = 0; i < N; ++i)
            m_values[i] += o.m_values[i];
        return *this;
    }
    MultiChannelSample& operator*=(float g)
    {
        for (std::size_t i = 0; i < N; ++i)
            m_values[i] *= g;
        return *this;
    }

private:
    std::array<float, N> m_values;
};
