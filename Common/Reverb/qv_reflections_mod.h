#pragma once
// Early reflections: the mono mix of the inputs runs through one delay line
// read by sixteen taps, one tap per output channel of the stage.

#include "qv_reverb_kernels.h"
#include "qv_reverb_u15_param.h"

#include <System/twa_aligned_allocator.h>

#include <cstddef>
#include <cstdint>

class qv_reflections_mod {
public:
    // [not while processing] The line holds taps up to max_length samples,
    // which may not exceed DelayLines::MaxLength. Throws std::bad_alloc.
    qv_reflections_mod(std::uint32_t inputs, std::uint32_t maxBlock,
                       std::uint32_t max_length = qv_reflections_mod_param::DelayLines::MaxLength);

    // [audio-thread] Between blocks; taps are limited to [1, max_length].
    void set_param(const qv_reflections_mod_param& p) noexcept;
    // [audio-thread] frames <= maxBlock. Tap t goes to taps + t * stride.
    // A non-finite input sample enters the line as silence, so one bad sample
    // cannot poison the reverb.
    void process(const float* const* in, float* taps, std::size_t stride, std::size_t frames) noexcept;
    // [audio-thread]
    void reset() noexcept;

    std::uint32_t inputs() const { return m_inputs; }
    const qv_reflections_mod_param& param() const { return m_param; }

private:
    qv_reflections_mod_param m_param{};
    std::uint32_t m_inputs;
    std::uint32_t m_maxBlock;
    std::uint32_t m_maxLength;
    float m_inputScale;
    twa::sample_vector m_line;
    std::size_t m_mask;
    std::size_t m_write = 0;
    const qvd::reverb::Kernels* m_k;
};
