#pragma once
// Small pieces the waveshaping plugins share.

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace shaper {

// Far beyond any drive, low enough that the resampling filters never overflow.
constexpr float kInputLimit = 1.0e4f;

inline float finiteOrZero(float x)
{
    return std::isfinite(x) ? x : 0.0f;
}

inline float gainOfDecibels(float db)
{
    return static_cast<float>(std::pow(10.0, static_cast<double>(db) / 20.0));
}

// [audio-thread] out = dry + mix (wet - dry). Mix 0 copies the dry signal bit
// for bit, signed zeros too, which the blend would turn positive.
inline void mixDryWet(const float* dry, const float* wet, float* out, std::size_t frames, float mix) noexcept
{
    if (mix <= 0.0f)
        std::copy_n(dry, frames, out);
    else if (mix >= 1.0f)
        std::copy_n(wet, frames, out);
    else
        for (std::size_t i = 0; i < frames; ++i)
            out[i] = dry[i] + mix * (wet[i] - dry[i]);
}

// [audio-thread] The blend above with a mix per frame.
inline void mixDryWet(const float* dry, const float* wet, float* out, std::size_t frames, const float* mix) noexcept
{
    for (std::size_t i = 0; i < frames; ++i)
        out[i] = dry[i] + mix[i] * (wet[i] - dry[i]);
}

// A setting that moves to its target along a one-pole curve, one value per
// frame. It lands on the target exactly, so a settled glide hands on the
// exact value (a mix of 0 stays bit exact).
class Glide {
public:
    // [audio-thread] No glide: the value is the target from now on.
    void jump(float target) noexcept { m_state = target; }
    // [audio-thread] Writes the next `frames` values; a and b are the
    // smoothing pair (0 and 1 land at once). Returns true when every one of
    // them is the target, and then `values` is left unwritten.
    bool run(float target, double a, double b, float* values, std::size_t frames) noexcept
    {
        if (!std::isfinite(m_state))
            m_state = target;
        if (m_state == static_cast<double>(target))
            return true;
        const double goal = target;
        const double close = 1e-7 * std::max(1.0, std::fabs(goal));
        for (std::size_t i = 0; i < frames; ++i) {
            m_state = a * m_state + b * goal;
            if (std::fabs(m_state - goal) <= close)
                m_state = goal;
            values[i] = static_cast<float>(m_state);
        }
        return false;
    }

    // [audio-thread] run(), with the settled target written out too.
    const float* fill(float target, double a, double b, float* values, std::size_t frames) noexcept
    {
        if (run(target, a, b, values, frames))
            std::fill_n(values, frames, target);
        return values;
    }

private:
    double m_state = 0.0;
};

} // namespace shaper
