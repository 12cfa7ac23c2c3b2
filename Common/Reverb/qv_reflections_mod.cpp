#include "qv_reflections_mod.h"

#include <System/twa_assert.h>

#include <algorithm>
#include <bit>
#include <cmath>

qv_reflections_mod::qv_reflections_mod(std::uint32_t inputs, std::uint32_t maxBlock, std::uint32_t max_length)
    : m_inputs(inputs), m_maxBlock(maxBlock), m_inputScale(inputs > 0 ? 1.0f / static_cast<float>(inputs) : 0.0f),
      m_k(qvd::reverb::selectKernel().fn)
{
    QVD_ASSERT(max_length <= qv_reflections_mod_param::DelayLines::MaxLength);
    QVD_ASSERT(inputs <= qv_max_channels);
    m_maxLength = std::clamp<std::uint32_t>(max_length, 1, qv_reflections_mod_param::DelayLines::MaxLength);
    const std::size_t size = std::bit_ceil(std::size_t{m_maxLength} + maxBlock + 1);
    m_line.assign(size, 0.0f);
    m_mask = size - 1;
    m_param.delays.fill(1);
}

void qv_reflections_mod::set_param(const qv_reflections_mod_param& p) noexcept
{
    m_param = p;
    for (auto& d : m_param.delays)
        d = static_cast<std::uint16_t>(std::clamp<std::uint32_t>(d, 1, m_maxLength));
}

void qv_reflections_mod::process(const float* const* in, float* taps, std::size_t stride, std::size_t frames) noexcept
{
    QVD_ASSERT(frames <= m_maxBlock);
    float* line = m_line.data();
    // Into the ring in at most two runs.
    const std::size_t first = std::min(frames, m_line.size() - m_write);
    m_k->downmix(in, m_inputs, m_inputScale, line + m_write, first);
    if (first < frames) {
        const float* rest[qv_max_channels];
        for (std::uint32_t c = 0; c < m_inputs; ++c)
            rest[c] = in[c] + first;
        m_k->downmix(rest, m_inputs, m_inputScale, line, frames - first);
    }
    for (std::uint32_t t = 0; t < qv_lines; ++t) {
        float* out = taps + t * stride;
        const float g = m_param.gains[t];
        std::size_t pos = (m_write - m_param.delays[t]) & m_mask;
        std::size_t n = 0;
        while (n < frames) {
            // Contiguous runs up to the end of the ring.
            const std::size_t run = std::min(frames - n, m_line.size() - pos);
            m_k->scale(line + pos, g, out + n, run);
            n += run;
            pos = (pos + run) & m_mask;
        }
    }
    m_write = (m_write + frames) & m_mask;
}

void qv_reflections_mod::reset() noexcept
{
    std::fill(m_line.begin(), m_line.end(), 0.0f);
    m_write = 0;
}
