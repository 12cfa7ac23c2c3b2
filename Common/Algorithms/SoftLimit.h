#pragma once
// Soft limiter for feedback loops: linear up to `knee`, then bending towards
// `ceiling` with slope 1 at the knee, so a loop with gain near or above one
// stays bounded without the hard edge of a clip.

#include <cmath>

inline float softLimit(float x, float knee, float ceiling) noexcept
{
    const float a = std::fabs(x);
    if (a <= knee)
        return x;
    const float room = ceiling - knee;
    const float u = (a - knee) / room;
    return std::copysign(knee + room * u / (1.0f + u), x);
}
