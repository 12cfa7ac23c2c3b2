#pragma once
// The SIMD FindMinMax variants, written once and built per instruction set.

#include "Algorithms/FindMinMax.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

class FindMinMaxSimd final : public FindMinMax {
public:
    // channels must divide the vector width or be a multiple of it.
    FindMinMaxSimd(std::size_t channels, const char* name) noexcept
        : m_channels(channels), m_name(name)
    {
    }
    const char* Name() const noexcept override { return m_name; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }

    bool Process(const float* in, std::size_t frames, float* minmax, bool start) const noexcept override
    {
        check_ptr<V>(in);
        if (!in || !minmax || m_channels == 0 || (start && frames == 0))
            return false;
        if (start) {
            for (std::size_t ch = 0; ch < m_channels; ++ch)
                minmax[2 * ch] = minmax[2 * ch + 1] = in[ch];
        }
        if (m_channels <= V::W)
            sideBySide(in, frames, minmax);
        else
            grouped(in, frames, minmax);
        return true;
    }

private:
    static float fmin(float x, float m) { return x < m ? x : m; }
    static float fmax(float x, float m) { return x > m ? x : m; }

    // Channels repeat across the lanes: lane l carries channel l % C.
    void sideBySide(const float* in, std::size_t frames, float* minmax) const noexcept
    {
        constexpr std::size_t W = V::W;
        const std::size_t c = m_channels;
        const std::size_t samples = frames * c;
        std::size_t i = 0;
        if (samples >= W) {
            V mn = load(in);
            V mx = mn;
            for (i = W; i + W <= samples; i += W) {
                const V x = load(in + i);
                mn = vmin(x, mn);
                mx = vmax(x, mx);
            }
            float lmin[W];
            float lmax[W];
            toArray(mn, lmin);
            toArray(mx, lmax);
            for (std::size_t l = 0; l < W; ++l) {
                const std::size_t ch = l % c;
                minmax[2 * ch] = fmin(lmin[l], minmax[2 * ch]);
                minmax[2 * ch + 1] = fmax(lmax[l], minmax[2 * ch + 1]);
            }
        }
        for (; i < samples; ++i) {
            const std::size_t ch = i % c;
            minmax[2 * ch] = fmin(in[i], minmax[2 * ch]);
            minmax[2 * ch + 1] = fmax(in[i], minmax[2 * ch + 1]);
        }
    }

    // Groups of W channels, one vector per frame and group.
    void grouped(const float* in, std::size_t frames, float* minmax) const noexcept
    {
        constexpr std::size_t W = V::W;
        const std::size_t c = m_channels;
        for (std::size_t g = 0; g < c; g += W) {
            float lmin[W];
            float lmax[W];
            for (std::size_t l = 0; l < W; ++l) {
                lmin[l] = minmax[2 * (g + l)];
                lmax[l] = minmax[2 * (g + l) + 1];
            }
            V mn = load(lmin);
            V mx = load(lmax);
            const float* p = in + g;
            for (std::size_t f = 0; f < frames; ++f, p += c) {
                const V x = load(p);
                mn = vmin(x, mn);
                mx = vmax(x, mx);
            }
            toArray(mn, lmin);
            toArray(mx, lmax);
            for (std::size_t l = 0; l < W; ++l) {
                minmax[2 * (g + l)] = lmin[l];
                minmax[2 * (g + l) + 1] = lmax[l];
            }
        }
    }

    std::size_t m_channels;
    const char* m_name;
};

} // namespace twa::numeric::TWA_ISA
