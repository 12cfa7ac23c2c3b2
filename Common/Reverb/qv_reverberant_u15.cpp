#include "qv_reverberant_u15.h"

#include "qv_reverb_u15_control.h"

#include <System/twa_assert.h>

#include <xmmintrin.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

namespace {

constexpr float kFlush = qvd::reverb::kLineFlush;

inline float flush(float v)
{
    return (v + kFlush) - kFlush;
}

// dst[c * ds + r] = src[r * ss + c] for a rows x cols block, four by four
// where it can.
void transpose(const float* src, std::size_t ss, float* dst, std::size_t ds, std::size_t rows,
               std::size_t cols) noexcept
{
    std::size_t r = 0;
    for (; r + 4 <= rows; r += 4) {
        std::size_t c = 0;
        for (; c + 4 <= cols; c += 4) {
            __m128 a = _mm_loadu_ps(src + r * ss + c);
            __m128 b = _mm_loadu_ps(src + (r + 1) * ss + c);
            __m128 e = _mm_loadu_ps(src + (r + 2) * ss + c);
            __m128 f = _mm_loadu_ps(src + (r + 3) * ss + c);
            _MM_TRANSPOSE4_PS(a, b, e, f);
            _mm_storeu_ps(dst + c * ds + r, a);
            _mm_storeu_ps(dst + (c + 1) * ds + r, b);
            _mm_storeu_ps(dst + (c + 2) * ds + r, e);
            _mm_storeu_ps(dst + (c + 3) * ds + r, f);
        }
        for (; c < cols; ++c)
            for (std::size_t k = r; k < r + 4; ++k)
                dst[c * ds + k] = src[k * ss + c];
    }
    for (; r < rows; ++r)
        for (std::size_t c = 0; c < cols; ++c)
            dst[c * ds + r] = src[r * ss + c];
}

} // namespace

qv_reverberant_u15::qv_reverberant_u15(std::uint32_t outputs, std::uint32_t maxBlock, std::uint32_t maxDelay,
                                       float rate)
    : m_outputs(std::min(outputs, qv_max_channels)), m_maxBlock(maxBlock), m_maxDelay(std::max(maxDelay, 1u)),
      m_loops(qvd::reverb::selectKernel().fn)
{
    const auto excursion = static_cast<std::size_t>(std::ceil(qv_reverb_u15_control::kMaxModulation));
    m_size = std::bit_ceil(std::size_t{m_maxDelay} + excursion + 2);
    m_mask = m_size - 1;
    m_lines.assign(m_size * qv_lines, 0.0f);
    m_x.assign(kSegment * qv_lines, 0.0f);
    m_w.assign(kSegment * qv_lines, 0.0f);
    m_rows.assign(kSegment * qv_lines, 0.0f);
    m_tapOut.assign(kSegment * 2, 0.0f);
    twa::numeric::CreateLpfm16(m_kernel, std::clamp<std::uint32_t>(m_outputs, 1, 2));

    // Slow, unrelated rates (0.35 to 1.3 Hz) and spread starting phases, so
    // the lines never move together.
    const double r = rate > 0.0f ? static_cast<double>(rate) : 48000.0;
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const double hz = 0.35 * std::pow(1.09, static_cast<double>(i));
        const double step = 2.0 * std::numbers::pi * hz / r * kSegment;
        m_stepCos[i] = std::cos(step);
        m_stepSin[i] = std::sin(step);
    }
    m_delay.fill(1);
    m_param.outputs = m_outputs;
    reset();
}

bool qv_reverberant_u15::set_param(const qv_reverberant_u15_param& p) noexcept
{
    QVD_ASSERT(p.outputs == m_outputs);
    if (p.outputs != m_outputs)
        return false;
    m_param = p;
    const auto& core = p.core;
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        m_delay[i] = std::clamp(core.delays[i], 1u, m_maxDelay);
        const float maxDepth = std::min(qv_reverb_u15_control::kMaxModulation, static_cast<float>(m_delay[i] - 1));
        const float depth = core.modulation[i];
        m_depth[i] = depth > 0.0f ? std::min(depth, maxDepth) : 0.0f;
    }
    // The feedback gain of line j scales column j: each pass through a line
    // costs that line's gain once. The low-pass weight is 1 + damping, which
    // gives unity at DC and (1 + d) / (1 - d) at Nyquist. Its pole is kept
    // where the filter's delay at DC stays under an eighth of the line's own,
    // or very dark settings would stretch the decay of the lowest frequencies.
    for (std::uint32_t r = 0; r < qv_lines; ++r) {
        for (std::uint32_t j = 0; j < qv_lines; ++j)
            m_coefs.m[r][j] = core.matrix[r * qv_lines + j] * core.gains[j];
        const float kMin = 8.0f / (static_cast<float>(m_delay[r]) + 8.0f);
        const float k = std::max(1.0f + std::clamp(core.damping[r], -0.9999f, 0.0f), kMin);
        m_coefs.k[r] = k;
        m_coefs.km[r] = 1.0f - k;
    }
    for (std::uint32_t c = 0; c < 2; ++c)
        for (std::uint32_t j = 0; j < qv_lines; ++j)
            m_coefs.g[c][j] = c < m_outputs ? p.out_gains[c][j] : 0.0f;
    for (std::uint32_t c = 0; c < m_outputs; ++c)
        m_tone[c] = std::clamp(core.tone[c], 0.0f, 1.0f);
    updateReadLimit();
    return true;
}

void qv_reverberant_u15::reset() noexcept
{
    std::fill(m_lines.begin(), m_lines.end(), 0.0f);
    m_write = 0;
    m_state = {};
    m_toneState.fill(0.0f);
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const double phase = 2.0 * std::numbers::pi * std::fmod(0.6180339887 * i, 1.0);
        m_cos[i] = std::cos(phase);
        m_sin[i] = std::sin(phase);
    }
    m_segments = 0;
    m_offStart.fill(0.0f);
    m_offEnd.fill(0.0f);
    m_slope.fill(0.0f);
    m_segmentPos = 0;
    updateReadLimit();
}

void qv_reverberant_u15::beginSegment() noexcept
{
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        m_offStart[i] = m_offEnd[i];
        // Rotate the oscillator one segment on; cheaper than a sine per line.
        const double c = m_cos[i], s = m_sin[i];
        m_cos[i] = c * m_stepCos[i] - s * m_stepSin[i];
        m_sin[i] = s * m_stepCos[i] + c * m_stepSin[i];
        m_offEnd[i] = m_depth[i] * static_cast<float>(0.5 * (1.0 + m_sin[i]));
        m_slope[i] = (m_offEnd[i] - m_offStart[i]) * (1.0f / kSegment);
    }
    // Rounding would slowly change the oscillators' amplitude; pull it back
    // to one now and then.
    if (++m_segments % 1024 == 0) {
        for (std::uint32_t i = 0; i < qv_lines; ++i) {
            const double norm = 1.0 / std::sqrt(m_cos[i] * m_cos[i] + m_sin[i] * m_sin[i]);
            m_cos[i] *= norm;
            m_sin[i] *= norm;
        }
    }
    updateReadLimit();
}

void qv_reverberant_u15::updateReadLimit() noexcept
{
    // A step may only read samples written before it: its length is at most
    // the shortest delay any line reaches during the segment.
    std::size_t limit = kSegment;
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const float reach = static_cast<float>(m_delay[i]) - std::max(m_offStart[i], m_offEnd[i]);
        const float whole = std::floor(reach) - 1.0f;
        limit = std::min<std::size_t>(limit, whole >= 1.0f ? static_cast<std::size_t>(whole) : 1);
    }
    m_readLimit = limit;
}

void qv_reverberant_u15::readLines(std::size_t frames) noexcept
{
    // Each line is read into its own row of m_rows, contiguously where the
    // ring allows, then all sixteen rows are turned into frames for the kernel.
    float* rows = m_rows.data();
    const float* lines = m_lines.data();
    // Frame positions within the segment, as floats, shared by every line.
    float at[kSegment];
    for (std::size_t n = 0; n < frames; ++n)
        at[n] = static_cast<float>(m_segmentPos + n);
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const float* buf = lines + i * m_size;
        float* __restrict row = rows + i * kSegment;
        const std::size_t d = m_delay[i];
        if (m_offStart[i] == 0.0f && m_slope[i] == 0.0f) {
            const std::size_t p = (m_write - d) & m_mask;
            if (p + frames <= m_size) {
                std::copy(buf + p, buf + p + frames, row);
            } else {
                for (std::size_t n = 0; n < frames; ++n)
                    row[n] = buf[(p + n) & m_mask];
            }
            continue;
        }
        const float df = static_cast<float>(d);
        const float off0 = m_offStart[i], slope = m_slope[i];
        const auto delayAt = [&](std::size_t n) { return std::max(df - (off0 + at[n] * slope), 1.0f); };
        // The delay moves by far less than a sample per segment, so its whole
        // part rarely changes within a step.
        const auto k = static_cast<std::size_t>(delayAt(0));
        const std::size_t p = (m_write - k) & m_mask;
        if (static_cast<std::size_t>(delayAt(frames - 1)) == k && p >= 1 && p + frames <= m_size) {
            m_loops->interpolate(buf + p, at, df, off0, slope, static_cast<float>(k), row, frames);
            continue;
        }
        for (std::size_t n = 0; n < frames; ++n) {
            const float D = delayAt(n);
            const auto kn = static_cast<std::size_t>(D);
            const float f = D - static_cast<float>(kn);
            const std::size_t q = (m_write + n - kn) & m_mask;
            const float a = buf[q];
            const float b = buf[(q - 1) & m_mask];
            row[n] = a + f * (b - a);
        }
    }
    transpose(rows, kSegment, m_x.data(), qv_lines, qv_lines, frames);
}

void qv_reverberant_u15::writeLines(const float* taps, std::size_t stride, std::size_t frames) noexcept
{
    float* rows = m_rows.data();
    transpose(m_w.data(), qv_lines, rows, kSegment, frames, qv_lines);
    float* lines = m_lines.data();
    const std::size_t p = m_write;
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        float* buf = lines + i * m_size;
        const float* t = taps + i * stride;
        const float* w = rows + i * kSegment;
        if (p + frames <= m_size) {
            m_loops->write(w, t, buf + p, frames);
        } else {
            for (std::size_t n = 0; n < frames; ++n)
                buf[(p + n) & m_mask] = flush(w[n] + t[n]);
        }
    }
}

void qv_reverberant_u15::process(const float* taps, std::size_t stride, float* const* out,
                                 std::size_t frames) noexcept
{
    QVD_ASSERT(frames <= m_maxBlock);
    const std::uint32_t tapped = std::min<std::uint32_t>(m_outputs, 2);
    std::size_t done = 0;
    while (done < frames) {
        if (m_segmentPos == 0)
            beginSegment();
        const std::size_t step =
            std::min({frames - done, static_cast<std::size_t>(kSegment - m_segmentPos), m_readLimit});
        readLines(step);
        m_kernel->Process(m_coefs, m_state, m_x.data(), m_w.data(), tapped ? m_tapOut.data() : nullptr, step);

        std::uint32_t c = 0;
        if (tapped == 2) {
            // Both taps in one loop: their tone recursions overlap instead of
            // one waiting for the other.
            float* __restrict y0 = out[0] + done;
            float* __restrict y1 = out[1] + done;
            const float* taps2 = m_tapOut.data();
            const float t0 = m_tone[0], dry0 = 1.0f - t0, t1 = m_tone[1], dry1 = 1.0f - t1;
            float prev0 = m_toneState[0], prev1 = m_toneState[1];
            for (std::size_t n = 0; n < step; ++n) {
                prev0 = dry0 * taps2[2 * n] + t0 * prev0;
                prev1 = dry1 * taps2[2 * n + 1] + t1 * prev1;
                y0[n] = prev0;
                y1[n] = prev1;
            }
            m_toneState[0] = prev0;
            m_toneState[1] = prev1;
            c = 2;
        }
        for (; c < m_outputs; ++c) {
            float* y = out[c] + done;
            if (c < tapped) {
                for (std::size_t n = 0; n < step; ++n)
                    y[n] = m_tapOut[n * tapped + c];
            } else {
                const float* g = m_param.out_gains[c].data();
                for (std::size_t n = 0; n < step; ++n) {
                    const float* xn = m_x.data() + n * qv_lines;
                    float s = 0.0f;
                    for (std::uint32_t j = 0; j < qv_lines; ++j)
                        s += g[j] * xn[j];
                    y[n] = s;
                }
            }
            // The output tone: a one-pole low-pass, darker as brightness falls.
            const float t = m_tone[c], dry = 1.0f - t;
            float prev = m_toneState[c];
            for (std::size_t n = 0; n < step; ++n) {
                prev = dry * y[n] + t * prev;
                y[n] = prev;
            }
            m_toneState[c] = prev;
        }

        writeLines(taps + done, stride, step);
        m_write = (m_write + step) & m_mask;
        m_segmentPos = static_cast<std::uint32_t>((m_segmentPos + step) % kSegment);
        done += step;
    }

    bool finite = true;
    for (float& z : m_state.z) {
        z = flush(z);
        finite = finite && std::isfinite(z);
    }
    for (std::uint32_t c = 0; c < m_outputs; ++c) {
        m_toneState[c] = flush(m_toneState[c]);
        finite = finite && std::isfinite(m_toneState[c]);
    }
    // An overflow that reached the feedback clears the network rather than
    // circulating for ever.
    if (!finite)
        reset();
}
