#pragma once
// Reads one of the LFO's 257-entry tables (LFO::table) at a phase in cycles,
// linearly interpolated, for callers that run their own phases (several
// voices or sides on one clock, tempo-locked rates).

#include <cstdint>

#include "LFO.h"

// `cycles` in [0, 2): a phase plus an offset below one cycle.
inline float waveAt(const float* table, double cycles) noexcept
{
    const double p = cycles * LFO::kSteps;
    const auto whole = static_cast<std::int32_t>(p);
    const auto frac = static_cast<float>(p - whole);
    const std::int32_t i = whole & (LFO::kSteps - 1);
    return table[i] + frac * (table[i + 1] - table[i]);
}
