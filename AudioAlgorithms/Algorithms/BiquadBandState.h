#pragma once
// Coefficient and state storage shared by every BiquadBand variant, laid out
// band by band so a vector load picks up consecutive bands. Only files built
// for the baseline (SSE2) include it, so its inline code is the same everywhere.

#include "Algorithms/BiquadBand.h"

#include <cstddef>

namespace twa::numeric::eq {

template <std::size_t N>
struct alignas(16) BiquadBandData {
    float b0[N];
    float b1[N];
    float b2[N];
    float a1[N];
    float a2[N];
    float s1[N]; // DF2: w[n-1]; DF2T: first state
    float s2[N]; // DF2: w[n-2]; DF2T: second state

    BiquadBandData() noexcept
    {
        for (std::size_t b = 0; b < N; ++b)
            set(b, BiquadCoeffs{});
        clear();
    }
    void set(std::size_t b, const BiquadCoeffs& c) noexcept
    {
        b0[b] = c.b0;
        b1[b] = c.b1;
        b2[b] = c.b2;
        a1[b] = c.a1;
        a2[b] = c.a2;
    }
    void clear() noexcept
    {
        for (std::size_t b = 0; b < N; ++b)
            s1[b] = s2[b] = 0.0f;
    }
    // Flushes denormal-range state and restarts bands that blew up.
    void sanitise() noexcept
    {
        for (std::size_t b = 0; b < N; ++b) {
            const float u = (s1[b] + 1e-18f) - 1e-18f;
            const float v = (s2[b] + 1e-18f) - 1e-18f;
            const bool finite = (u - u == 0.0f) && (v - v == 0.0f);
            s1[b] = finite ? u : 0.0f;
            s2[b] = finite ? v : 0.0f;
        }
    }
};

} // namespace twa::numeric::eq
