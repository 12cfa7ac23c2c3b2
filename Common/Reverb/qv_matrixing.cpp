#include "qv_matrixing.h"

#include <System/twa_assert.h>

#include <algorithm>

qv_matrixing::qv_matrixing(std::uint32_t inputs, std::uint32_t outputs) : m_k(qvd::reverb::selectKernel().fn)
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
    // Inputs in order for every frame: the same sums as one pass per input,
    // without re-reading the output for every input.
    const float* x[qv_lines];
    for (std::uint32_t i = 0; i < m_param.inputs; ++i)
        x[i] = in ? in[i] : rows + i * stride;
    for (std::uint32_t o = 0; o < m_param.outputs; ++o) {
        float g[qv_lines];
        for (std::uint32_t i = 0; i < m_param.inputs; ++i)
            g[i] = m_param.gain[i][o];
        m_k->mix(x, g, m_param.inputs, out[o], add, frames);
    }
}
