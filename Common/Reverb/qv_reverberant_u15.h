#pragma once
// The late reverb: sixteen modulated delay lines closed through a feedback
// matrix with a one-pole low-pass per line, fed one to one by the sixteen
// early-reflection taps and tapped into the output channels.

#include "qv_reverb_kernels.h"
#include "qv_reverb_u15_param.h"

#include <Algorithms/Lpfm16.h>
#include <System/twa_aligned_allocator.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

class qv_reverberant_u15 {
public:
    // Modulation is a slow sine per line, evaluated every kSegment frames on a
    // grid of absolute frames and ramped linearly in between, so the result
    // never depends on where blocks begin.
    static constexpr std::uint32_t kSegment = 64;

    // [not while processing] Lines hold up to maxDelay samples plus the
    // modulation excursion. Throws std::bad_alloc.
    qv_reverberant_u15(std::uint32_t outputs, std::uint32_t maxBlock, std::uint32_t maxDelay, float rate);

    // [audio-thread] Between blocks; the output count must match. Delays are
    // limited to [1, maxDelay], depths to the delay and the excursion limit.
    bool set_param(const qv_reverberant_u15_param& p) noexcept;
    // [audio-thread] taps: 16 rows of `stride` floats; out: planar outputs.
    // frames <= maxBlock.
    void process(const float* taps, std::size_t stride, float* const* out, std::size_t frames) noexcept;
    // [audio-thread] Silence in every line and filter.
    void reset() noexcept;

    const qv_reverberant_u15_param& param() const { return m_param; }
    std::uint32_t delay(std::uint32_t line) const { return m_delay[line]; }
    const char* kernelName() const { return m_kernel ? m_kernel->Name() : ""; }

private:
    void beginSegment() noexcept;
    void updateReadLimit() noexcept;
    void readLines(std::size_t frames) noexcept;
    void writeLines(const float* taps, std::size_t stride, std::size_t frames) noexcept;

    qv_reverberant_u15_param m_param{};
    std::uint32_t m_outputs;
    std::uint32_t m_maxBlock;
    std::uint32_t m_maxDelay;
    std::size_t m_size;
    std::size_t m_mask;
    twa::sample_vector m_lines; // line i at i * m_size
    std::size_t m_write = 0;

    std::array<std::uint32_t, qv_lines> m_delay{};
    std::array<float, qv_lines> m_depth{};
    std::unique_ptr<twa::numeric::Lpfm16> m_kernel;
    const qvd::reverb::Kernels* m_loops; // chosen at construction
    twa::numeric::Lpfm16Coefs m_coefs{};
    twa::numeric::Lpfm16State m_state{};
    twa::sample_vector m_x;    // kSegment frames of 16 line outputs
    twa::sample_vector m_w;    // their new line inputs
    twa::sample_vector m_rows; // the same, line by line
    twa::sample_vector m_tapOut; // kSegment frames of up to 2 outputs

    std::array<float, qv_max_channels> m_tone{};
    std::array<float, qv_max_channels> m_toneState{};

    // Each line's oscillator as a unit phasor, turned by one segment's step.
    std::array<double, qv_lines> m_cos{};
    std::array<double, qv_lines> m_sin{};
    std::array<double, qv_lines> m_stepCos{};
    std::array<double, qv_lines> m_stepSin{};
    std::uint64_t m_segments = 0;
    std::array<float, qv_lines> m_offStart{};
    std::array<float, qv_lines> m_offEnd{};
    std::array<float, qv_lines> m_slope{};
    std::uint32_t m_segmentPos = 0;
    std::size_t m_readLimit = 1;
};
