#pragma once
// 128-bit BiquadBand kernels: each vector holds four bands of one frame.

#include "Algorithms/BiquadBand.h"
#include "Algorithms/BiquadBandState.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::eq::TWA_ISA {

using namespace twa::simd::TWA_ISA;

template <std::size_t N, BiquadForm F>
class BiquadBandSimd final : public BiquadBand {
    static constexpr std::size_t G = N / V::W; // vectors per frame
    static_assert(G * V::W == N);

public:
    explicit BiquadBandSimd(const char* name) noexcept : m_name(name) {}
    const char* Name() const noexcept override { return m_name; }
    std::size_t BandCount() const noexcept override { return N; }
    BiquadForm Form() const noexcept override { return F; }
    void SetCoefficients(std::size_t band, const BiquadCoeffs& c) noexcept override
    {
        if (band < N)
            m_d.set(band, c);
    }
    void Reset() noexcept override { m_d.clear(); }

    void Process(const float* in, float* out, std::size_t frames) noexcept override
    {
        check_ptr<V>(in);
        check_ptr<V>(out);
        V b0[G], b1[G], b2[G], a1[G], a2[G], s1[G], s2[G];
        for (std::size_t g = 0; g < G; ++g) {
            const std::size_t o = g * V::W;
            b0[g] = load(m_d.b0 + o);
            b1[g] = load(m_d.b1 + o);
            b2[g] = load(m_d.b2 + o);
            a1[g] = load(m_d.a1 + o);
            a2[g] = load(m_d.a2 + o);
            s1[g] = load(m_d.s1 + o);
            s2[g] = load(m_d.s2 + o);
        }
        for (std::size_t k = 0; k < frames; ++k) {
            for (std::size_t g = 0; g < G; ++g) {
                const std::size_t at = k * N + g * V::W;
                const V x = load(in + at);
                if constexpr (F == BiquadForm::DF2) {
                    const V w = (x - a1[g] * s1[g]) - a2[g] * s2[g];
                    store(out + at, (b0[g] * w + b1[g] * s1[g]) + b2[g] * s2[g]);
                    s2[g] = s1[g];
                    s1[g] = w;
                } else {
                    const V y = b0[g] * x + s1[g];
                    s1[g] = (b1[g] * x - a1[g] * y) + s2[g];
                    s2[g] = b2[g] * x - a2[g] * y;
                    store(out + at, y);
                }
            }
        }
        for (std::size_t g = 0; g < G; ++g) {
            store(m_d.s1 + g * V::W, s1[g]);
            store(m_d.s2 + g * V::W, s2[g]);
        }
        m_d.sanitise();
    }

private:
    BiquadBandData<N> m_d;
    const char* m_name;
};

} // namespace twa::numeric::eq::TWA_ISA
