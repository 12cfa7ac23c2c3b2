#pragma once
// Analysis and synthesis windows. Every window is periodic: its period is the
// window length N and n runs over 0 .. N - 1. Values are computed in double
// and stored as float.

#include "System/twa_aligned_allocator.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace twa::fft {

enum WindowType : std::int32_t {
    kWindowRectangular = 0,
    // 0.53836 - 0.46164 cos(2 pi n / N)
    kWindowHamming = 1,
    kWindowHann = 2,
    kWindowSqrtHann = 3,
    kWindowBlackman = 4,
    kWindowBlackmanHarris = 5,
    // Hann-shaped rise over the first N/10 samples and fall over the last N/10.
    kWindowTapered = 6,
    kWindowSqrtTapered = 7,
    // exp((N - n + 1) * (-6.9077554 / N)): from about -60 dB up to nearly 1.
    kWindowExponential = 8,
    // x e^(1 - x) with x = 15.918666 (N - n) / N: peaks at 1 where N - n = N / 15.918666.
    kWindowRisingPeak = 9,
};

// [not while processing] Fills w[0 .. n) with the window `type`; a type
// outside 0 .. 9 gives zeros.
void FillWindow(float* w, std::size_t n, std::int32_t type) noexcept;

// [not while processing] A window of `length` samples (empty for 0).
sample_vector MakeWindow(std::size_t length, std::int32_t type);

// [any-thread] Overlap-add normalisation for hop `stride`: 1 / the sum of
// w[k]^2 over k = stride/2, stride/2 + stride, ... below N, or 1 when that sum
// is below 1e-7. Analysing and resynthesising with w at that hop and scaling
// by the result gives back the input. A stride of 0 is a contract failure and
// answers 1.
float WindowOverlapAddFactor(std::span<const float> w, std::size_t stride) noexcept;

// [any-thread] The mean of w; 0 for an empty window.
float WindowMean(std::span<const float> w) noexcept;

} // namespace twa::fft
