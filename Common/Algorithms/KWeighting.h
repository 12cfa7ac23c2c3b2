#pragma once
// The K-weighting of loudness measurement: a high shelf that models the
// head, then a high pass (RLB). Both come from their analog prototypes by the
// bilinear transform, so any rate gets the response the 48 kHz tables have.

#include <cstdint>

struct KWeightingCoefficients {
    // Shelf: (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2).
    double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
    // High pass: (1 - 2 z^-1 + z^-2) / (1 + h1 z^-1 + h2 z^-2), unnormalised
    // as the standard tabulates it; the -0.691 dB offset accounts for it.
    double h1 = 0.0, h2 = 0.0;
};

// Running state of one channel, transposed direct form II for both sections.
struct KWeightingState {
    double s1 = 0.0, s2 = 0.0, h1 = 0.0, h2 = 0.0;
};

namespace KWeighting {

KWeightingCoefficients design(double sampleRate);

// [audio-thread] Filters `frames` samples and returns the sum of the squared
// weighted samples. A state that went non-finite (a NaN in the input) or
// decayed to the subnormal range is cleared on the way out.
double energy(const KWeightingCoefficients& c, KWeightingState& s, const float* x, std::int32_t frames) noexcept;
// The same for two channels at once: their recursions interleave.
void energy2(const KWeightingCoefficients& c, KWeightingState& sa, KWeightingState& sb, const float* a,
             const float* b, std::int32_t frames, double& ea, double& eb) noexcept;

} // namespace KWeighting
