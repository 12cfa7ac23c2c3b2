#pragma once
// The sixteen-line room reverb at its own rate: early reflections, the late
// network, a tone equaliser for each, and the direct and early mixing.
//
// Threads: construction on the setting thread; set_param, process and reset
// on the audio thread, never concurrently. Nothing here allocates after
// construction.

#include "qv_eq.h"
#include "qv_matrixing.h"
#include "qv_reflections_mod.h"
#include "qv_reverb_u15_param.h"
#include "qv_reverberant_u15.h"

#include <System/twa_aligned_allocator.h>

#include <cstddef>
#include <cstdint>

class qv_reverb_u15 {
public:
    // [not while processing] Channel counts, largest block, line capacity and
    // rate come from p, which is also the first record in force. Counts above
    // qv_max_channels are limited to it. Throws std::bad_alloc.
    explicit qv_reverb_u15(const qv_reverb_u15_param& p);

    // [audio-thread] Between blocks. A record for other channel counts or
    // sizes is a programming error: it asserts and the running one stays.
    bool set_param(const qv_reverb_u15_param& p) noexcept;
    // [audio-thread] Planar in (inputs()) and out (outputs()); out may be in.
    // Any frame count: longer blocks run in steps of max_block.
    void process(const float* const* in, float* const* out, std::size_t frames) noexcept;
    // [audio-thread] Clears every delay line and filter.
    void reset(bool clear = true) noexcept;

    std::uint32_t inputs() const { return m_inputs; }
    std::uint32_t outputs() const { return m_outputs; }
    std::uint32_t max_block() const { return m_maxBlock; }
    const qv_reverb_u15_param& param() const { return m_param; }
    const qv_reverberant_u15& late() const { return m_late; }

private:
    void processChunk(const float* const* in, float* const* out, std::size_t frames) noexcept;

    qv_reverb_u15_param m_param;
    std::uint32_t m_inputs;
    std::uint32_t m_outputs;
    std::uint32_t m_maxBlock;
    qv_reflections_mod m_early;
    qv_reverberant_u15 m_late;
    qv_matrixing m_direct;
    qv_matrixing m_earlyMix;
    qv_eq m_lateEq;
    qv_eq m_earlyEq;

    twa::sample_vector m_in;   // inputs x max_block: the input kept apart, since out may be in
    twa::sample_vector m_taps; // 16 x max_block (scratch A)
    twa::sample_vector m_mix;  // outputs x max_block (scratch B)
    float* m_inRows[qv_max_channels] = {};
    float* m_mixRows[qv_max_channels] = {};
};
