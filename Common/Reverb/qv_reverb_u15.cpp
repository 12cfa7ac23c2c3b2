#include "qv_reverb_u15.h"

#include <System/twa_assert.h>

#include <algorithm>

namespace {

qv_reverb_u15_param limited(qv_reverb_u15_param p)
{
    p.inputs = std::min(p.inputs, qv_max_channels);
    p.outputs = std::min(p.outputs, qv_max_channels);
    p.max_block = std::max(p.max_block, 1u);
    return p;
}

} // namespace

qv_reverb_u15::qv_reverb_u15(const qv_reverb_u15_param& param)
    : m_param(limited(param)),
      m_inputs(m_param.inputs),
      m_outputs(m_param.outputs),
      m_maxBlock(m_param.max_block),
      m_early(m_inputs, m_maxBlock),
      m_late(m_outputs, m_maxBlock, m_param.max_delay, m_param.rate),
      m_direct(m_inputs, m_outputs),
      m_earlyMix(qv_lines, m_outputs),
      m_lateEq(m_outputs, m_maxBlock),
      m_earlyEq(m_outputs, m_maxBlock)
{
    m_in.assign(std::size_t{m_maxBlock} * std::max(m_inputs, 1u), 0.0f);
    m_taps.assign(std::size_t{m_maxBlock} * qv_lines, 0.0f);
    m_mix.assign(std::size_t{m_maxBlock} * std::max(m_outputs, 1u), 0.0f);
    for (std::uint32_t c = 0; c < m_inputs; ++c)
        m_inRows[c] = m_in.data() + std::size_t{c} * m_maxBlock;
    for (std::uint32_t c = 0; c < m_outputs; ++c)
        m_mixRows[c] = m_mix.data() + std::size_t{c} * m_maxBlock;
    set_param(m_param);
}

bool qv_reverb_u15::set_param(const qv_reverb_u15_param& p) noexcept
{
    const bool sameShape = p.inputs == m_inputs && p.outputs == m_outputs && p.max_block == m_maxBlock &&
                           p.max_delay == m_param.max_delay && p.late.outputs == m_outputs &&
                           p.direct.inputs == m_inputs && p.direct.outputs == m_outputs &&
                           p.early_mix.inputs == qv_lines && p.early_mix.outputs == m_outputs &&
                           p.late_eq.channels == m_outputs && p.early_eq.channels == m_outputs;
    QVD_ASSERT(sameShape);
    if (!sameShape)
        return false;
    m_param = p;
    m_early.set_param(p.early);
    m_late.set_param(p.late);
    m_direct.set_param(p.direct);
    m_earlyMix.set_param(p.early_mix);
    m_lateEq.set_param(p.late_eq);
    m_earlyEq.set_param(p.early_eq);
    return true;
}

void qv_reverb_u15::reset(bool clear) noexcept
{
    if (!clear)
        return;
    m_early.reset();
    m_late.reset();
    m_direct.reset();
    m_earlyMix.reset();
    m_lateEq.reset();
    m_earlyEq.reset();
}

void qv_reverb_u15::process(const float* const* in, float* const* out, std::size_t frames) noexcept
{
    const float* inPos[qv_max_channels];
    float* outPos[qv_max_channels];
    std::size_t done = 0;
    while (done < frames) {
        const std::size_t step = std::min<std::size_t>(frames - done, m_maxBlock);
        for (std::uint32_t c = 0; c < m_inputs; ++c)
            inPos[c] = in[c] + done;
        for (std::uint32_t c = 0; c < m_outputs; ++c)
            outPos[c] = out[c] + done;
        processChunk(inPos, outPos, step);
        done += step;
    }
}

void qv_reverb_u15::processChunk(const float* const* in, float* const* out, std::size_t frames) noexcept
{
    for (std::uint32_t c = 0; c < m_inputs; ++c)
        std::copy(in[c], in[c] + frames, m_inRows[c]);
    const float* const* input = m_inRows;
    float* taps = m_taps.data();
    const std::size_t stride = m_maxBlock;

    m_early.process(input, taps, stride, frames);
    m_late.process(taps, stride, m_mixRows, frames);
    m_lateEq.process(m_mixRows, out, false, frames);
    m_earlyMix.process(nullptr, taps, stride, m_mixRows, false, frames);
    m_earlyEq.process(m_mixRows, out, true, frames);
    m_direct.process(input, nullptr, 0, out, true, frames);
}
