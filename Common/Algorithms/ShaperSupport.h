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

} // namespace shaper
