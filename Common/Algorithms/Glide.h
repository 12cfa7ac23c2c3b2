#pragma once
// One-pole step towards a target that lands on it instead of creeping
// forever, so a settled setting costs a compare and reads back exactly.

#include <cmath>

inline double glideTo(double state, double target, double pole) noexcept
{
    const double next = target + pole * (state - target);
    return std::fabs(next - target) < 1e-9 ? target : next;
}
