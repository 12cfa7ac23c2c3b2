#pragma once
// Two-band tone equaliser (low shelf, high shelf) on every channel, with
// double-precision state.

#include "qv_reverb_u15_param.h"

#include <System/twa_aligned_allocator.h>

#include <array>
#include <cstddef>
#include <cstdint>

class qv_eq {
public:
    // [not while processing] Throws std::bad_alloc.
    qv_eq(std::uint32_t channels, std::uint32_t maxBlock);

    // [audio-thread] Between blocks; the channel count must match. Filter
    // state is kept, so a tone change does not restart the sound.
    bool set_param(const qv_eq_param& p) noexcept;
    // [audio-thread] in[c] -> out[c], overwriting or adding; frames <= maxBlock.
    // in and out may be the same buffers when not adding.
    void process(const float* const* in, float* const* out, bool add, std::size_t frames) noexcept;
    // [audio-thread]
    void reset() noexcept;

    const qv_eq_param& param() const { return m_param; }

private:
    struct State {
        double w1 = 0.0, w2 = 0.0;
    };
    qv_eq_param m_param{};
    std::uint32_t m_maxBlock;
    std::array<std::array<State, 2>, qv_max_channels> m_state{};
    twa::sample_vector m_scratch;
};
