#pragma once
// A gain matrix between planar channel sets: out[o] (+)= sum_i gain[i][o] * in[i].

#include "qv_reverb_kernels.h"
#include "qv_reverb_u15_param.h"

#include <cstddef>
#include <cstdint>

class qv_matrixing {
public:
    qv_matrixing(std::uint32_t inputs, std::uint32_t outputs);

    // [audio-thread] Between blocks; counts must match this stage's.
    bool set_param(const qv_matrixing_param& p) noexcept;
    // [audio-thread] Overwrites out, or adds to it when `add` is set. Input
    // rows are read from in[i] (planar) or, when `in` is null, from
    // rows + i * stride.
    void process(const float* const* in, const float* rows, std::size_t stride, float* const* out, bool add,
                 std::size_t frames) const noexcept;
    // [audio-thread] The stage holds no signal; nothing to clear.
    void reset() noexcept {}

    const qv_matrixing_param& param() const { return m_param; }

private:
    qv_matrixing_param m_param{};
    const qvd::reverb::Kernels* m_k;
};
