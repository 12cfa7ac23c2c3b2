#pragma once
// Fractional-octave bands on the base-10 series: the octave ratio is
// 10^(3/10), band centres are 1 kHz times whole (odd fractions) or half
// (even fractions) steps of it, and each band spans half a step either side.

#include <cstdint>

namespace OctaveBands {

// Bands per octave offered: 1, 3, 6 and 12.
constexpr std::int32_t kMaxBands = 128;

struct Band {
    double centre, lower, upper; // Hz
};

// [any-thread] Fills `bands` (room for kMaxBands) with the bands of
// 1/`perOctave` octave whose centres lie within the audio range (about 20 Hz
// to 20 kHz) and whose upper edge is below `nyquist`; returns how many.
std::int32_t layout(std::int32_t perOctave, double nyquist, Band* bands) noexcept;

} // namespace OctaveBands
