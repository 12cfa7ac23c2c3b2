#include "qv_matrixing.h"

#include <System/twa_assert.h>

#include <algorithm>

qv_matrixing::qv_matrixing(std::uint32_t inputs, std::uint32_t outputs)
{
    m_param.inputs = std::min(inputs, qv_lines);
    m_param.outputs = std::min(outputs, qv_max_channels);
}

bool qv_matrixing::set_param(const qv_matrixing_param& p) noexcept
{
    QVD_ASSERT(p.inputs == m_param.inputs && p.outputs == m_param.outputs);
    if (p.inputs != m_param.inputs || p.outputs != m_param.outputs)
        return false;
    m_param = p;
    return true;
}

void qv_matrixing::process(const float* const* in, const float* rows, std::size_t stride, float* const* out, bool add,
                           std::size_t frames) const noexcept
{
    for (std::uint32_t o = 0; o < m_param.outputs; ++o) {
        float* y = out[o];
        if (!add)
            std::fill(y, y + frames, 0.0f);
        for (std::uint32_t i = 0; i < m_param.inputs; ++i) {
            const float g = m_param.gain[i][o];
            if (g == 0.0f)
                continue;
            const float* x = in ? in[i] : rows + i * stride;
            for (std::size_t n = 0; n < frames; ++n)
                y[n] += g * x[n];
        }
    }
}
