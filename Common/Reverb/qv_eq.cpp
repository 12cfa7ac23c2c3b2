#include "qv_eq.h"

#include <System/twa_assert.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr double kFlush = static_cast<double>(1e-18f);

// One band from in to out (which may be the same buffer).
void runBand(const qv_eq_band& b, double& s1, double& s2, const float* in, float* out, std::size_t frames) noexcept
{
    const double gain = b.gain, den2 = b.den2, den1 = b.den1, num2 = b.num2, num1 = b.num1;
    double w1 = s1, w2 = s2;
    for (std::size_t i = 0; i < frames; ++i) {
        const double w = gain * static_cast<double>(in[i]) + den2 * w2 + den1 * w1;
        const double y = w + num2 * w2 + num1 * w1;
        w2 = w1;
        // Flushed per sample, not per block, so the result does not depend
        // on how the host cuts its blocks.
        w1 = (w + kFlush) - kFlush;
        out[i] = static_cast<float>(y);
    }
    // A non-finite state starts again from silence.
    if (!std::isfinite(w1) || !std::isfinite(w2))
        w1 = w2 = 0.0;
    s1 = w1;
    s2 = w2;
}

} // namespace

qv_eq::qv_eq(std::uint32_t channels, std::uint32_t maxBlock) : m_maxBlock(maxBlock)
{
    m_param.channels = std::min(channels, qv_max_channels);
    m_scratch.assign(maxBlock, 0.0f);
}

bool qv_eq::set_param(const qv_eq_param& p) noexcept
{
    QVD_ASSERT(p.channels == m_param.channels);
    if (p.channels != m_param.channels)
        return false;
    m_param = p;
    return true;
}

void qv_eq::process(const float* const* in, float* const* out, bool add, std::size_t frames) noexcept
{
    QVD_ASSERT(frames <= m_maxBlock);
    frames = std::min<std::size_t>(frames, m_maxBlock);
    const bool low = !m_param.bands[0].neutral();
    const bool high = !m_param.bands[1].neutral();
    for (std::uint32_t c = 0; c < m_param.channels; ++c) {
        float* y = out[c];
        // Adding needs the filtered signal apart first.
        float* dst = add ? m_scratch.data() : y;
        const float* src = in[c];
        if (low) {
            runBand(m_param.bands[0], m_state[c][0].w1, m_state[c][0].w2, src, dst, frames);
            src = dst;
        }
        if (high) {
            runBand(m_param.bands[1], m_state[c][1].w1, m_state[c][1].w2, src, dst, frames);
            src = dst;
        }
        if (add) {
            for (std::size_t n = 0; n < frames; ++n)
                y[n] += src[n];
        } else if (src != y) {
            std::copy(src, src + frames, y);
        }
    }
}

void qv_eq::reset() noexcept
{
    for (auto& ch : m_state)
        ch = {};
}
