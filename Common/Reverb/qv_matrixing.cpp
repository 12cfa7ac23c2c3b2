#include "qv_matrixing.h"

#include <System/twa_assert.h>

#include <algorithm>

#include <xmmintrin.h>

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
    // Eight frames at a time in registers, inputs in order: the same sums as
    // one pass per input, without re-reading the output for every input.
    for (std::uint32_t o = 0; o < m_param.outputs; ++o) {
        float* y = out[o];
        std::size_t n = 0;
        for (; n + 8 <= frames; n += 8) {
            __m128 a = add ? _mm_loadu_ps(y + n) : _mm_setzero_ps();
            __m128 b = add ? _mm_loadu_ps(y + n + 4) : _mm_setzero_ps();
            for (std::uint32_t i = 0; i < m_param.inputs; ++i) {
                const float g = m_param.gain[i][o];
                if (g == 0.0f)
                    continue;
                const float* x = (in ? in[i] : rows + i * stride) + n;
                const __m128 gv = _mm_set1_ps(g);
                a = _mm_add_ps(a, _mm_mul_ps(gv, _mm_loadu_ps(x)));
                b = _mm_add_ps(b, _mm_mul_ps(gv, _mm_loadu_ps(x + 4)));
            }
            _mm_storeu_ps(y + n, a);
            _mm_storeu_ps(y + n + 4, b);
        }
        for (; n < frames; ++n) {
            float acc = add ? y[n] : 0.0f;
            for (std::uint32_t i = 0; i < m_param.inputs; ++i) {
                const float g = m_param.gain[i][o];
                if (g != 0.0f)
                    acc += g * (in ? in[i] : rows + i * stride)[n];
            }
            y[n] = acc;
        }
    }
}
