#pragma once
// Block passes shared by the dynamics blocks: detector maxima across linked
// channels and the application of one gain per frame. Plain loops the
// compiler vectorises; each frame's arithmetic is that of the per-sample
// formula. Internal to Common/Algorithms.

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace qvd::dynamics {

// level[i] = max(floor, |d_0[start+i]|, |d_1[start+i]|, ...). Written as
// v > m ? v : m so a NaN sample never wins.
inline void detectPlanar(const float* const* detectors, std::int32_t lists, std::uint32_t start, std::int32_t n,
                         float floor, float* __restrict level) noexcept
{
    const float* d0 = detectors[0] + start;
    for (std::int32_t i = 0; i < n; ++i) {
        const float v = std::fabs(d0[i]);
        level[i] = v > floor ? v : floor;
    }
    for (std::int32_t k = 1; k < lists; ++k) {
        const float* d = detectors[k] + start;
        for (std::int32_t i = 0; i < n; ++i) {
            const float v = std::fabs(d[i]);
            level[i] = v > level[i] ? v : level[i];
        }
    }
}

// The same over frames of `stride` interleaved values.
inline void detectInterleaved(const float* detector, std::int32_t stride, std::uint32_t start, std::int32_t n,
                              float floor, float* __restrict level) noexcept
{
    const float* d = detector + static_cast<std::size_t>(start) * static_cast<std::size_t>(stride);
    if (stride == 2) { // stereo, the common case, with a fixed stride the compiler vectorises
        for (std::int32_t i = 0; i < n; ++i) {
            const float l = std::fabs(d[2 * i]), r = std::fabs(d[2 * i + 1]);
            float m = l > floor ? l : floor;
            m = r > m ? r : m;
            level[i] = m;
        }
        return;
    }
    for (std::int32_t i = 0; i < n; ++i) {
        float m = floor;
        for (std::int32_t c = 0; c < stride; ++c) {
            const float v = std::fabs(d[static_cast<std::size_t>(i) * static_cast<std::size_t>(stride) +
                                        static_cast<std::size_t>(c)]);
            m = v > m ? v : m;
        }
        level[i] = m;
    }
}

// Keeps levels finite for the logarithm (an infinite sample reads as FLT_MAX);
// true when any level was infinite.
inline bool capLevels(float* __restrict level, std::int32_t n) noexcept
{
    int over = 0;
    for (std::int32_t i = 0; i < n; ++i) {
        const float v = level[i];
        over |= v > FLT_MAX;
        level[i] = v > FLT_MAX ? FLT_MAX : v;
    }
    return over != 0;
}

inline void applyPlanar(float* const* mains, std::int32_t lists, std::uint32_t start, std::int32_t n,
                        const float* __restrict gain) noexcept
{
    for (std::int32_t k = 0; k < lists; ++k) {
        float* x = mains[k] + start;
        for (std::int32_t i = 0; i < n; ++i)
            x[i] *= gain[i];
    }
}

inline void applyInterleaved(float* main, std::int32_t stride, std::uint32_t start, std::int32_t n,
                             const float* __restrict gain) noexcept
{
    float* x = main + static_cast<std::size_t>(start) * static_cast<std::size_t>(stride);
    if (stride == 2) {
        for (std::int32_t i = 0; i < n; ++i) {
            x[2 * i] *= gain[i];
            x[2 * i + 1] *= gain[i];
        }
        return;
    }
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t c = 0; c < stride; ++c)
            x[static_cast<std::size_t>(i) * static_cast<std::size_t>(stride) + static_cast<std::size_t>(c)] *= gain[i];
}

// End-of-block care of a feedback state: a non-finite value, or any block that
// saw an infinite sample, restarts it from `restart`; a value that has decayed
// into the subnormal range's neighbourhood becomes 0 so it cannot slow the
// recursion down.
inline double sanitiseState(double state, double restart, bool overflow) noexcept
{
    if (overflow || !std::isfinite(state))
        return restart;
    return std::fabs(state) < 1e-20 ? 0.0 : state;
}

} // namespace qvd::dynamics
