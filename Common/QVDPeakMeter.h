#pragma once
// The one peak measurement every plugin's meters go through. A NaN sample
// leaves the peak as it was, in every lane and in the tail alike, so the
// result does not depend on where the NaN falls.

#include <cstddef>

// [audio-thread] Largest |x| of `frames` samples, from 0.
float qvdPeak(const float* samples, std::size_t frames) noexcept;
// [audio-thread] The same while copying `in` to `out` (nothing is copied when
// they are the same buffer).
float qvdCopyPeak(const float* in, float* out, std::size_t frames) noexcept;
