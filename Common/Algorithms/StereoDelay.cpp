#include "StereoDelay.h"

#include <algorithm>
#include <cmath>

void StereoDelay::prepare(double sampleRate, std::int32_t maxDelay)
{
    m_maxDelay = std::max(maxDelay, 2);
    // Two samples beyond the longest delay for the interpolator's far taps.
    std::uint32_t size = 4;
    while (size < static_cast<std::uint32_t>(m_maxDelay) + 4u)
        size <<= 1;
    for (auto& line : m_lines)
        line.assign(size, 0.0f);
    m_mask = size - 1;
    // Full speed after 10 ms of acceleration; the last stretch closes in at
    // 5 ms time constant so the head lands without overshoot.
    m_maxAccel = kMaxSpeed / (0.010 * sampleRate);
    m_settle = 1.0 / (0.005 * sampleRate);
    clear();
}

void StereoDelay::clear() noexcept
{
    for (auto& line : m_lines)
        std::fill(line.begin(), line.end(), 0.0f);
    for (Head& h : m_heads) {
        h.position = h.target;
        h.velocity = 0.0;
    }
}

void StereoDelay::setDelay(int line, double samples, bool glideTo) noexcept
{
    Head& h = m_heads[line];
    h.target = std::clamp(samples, 2.0, static_cast<double>(m_maxDelay));
    if (!glideTo) {
        h.position = h.target;
        h.velocity = 0.0;
    }
}

void StereoDelay::glide(Head& h) noexcept
{
    const double e = h.target - h.position;
    if (e == 0.0 && h.velocity == 0.0)
        return;
    const double distance = std::fabs(e);
    // The fastest speed from which the head can still brake in time, and a
    // linear approach for the last samples.
    const double want =
        std::copysign(std::min({kMaxSpeed, std::sqrt(2.0 * m_maxAccel * distance), distance * m_settle}), e);
    h.velocity += std::clamp(want - h.velocity, -m_maxAccel, m_maxAccel);
    h.position += h.velocity;
    if (std::fabs(h.target - h.position) < 1e-6 && std::fabs(h.velocity) < 1e-6) {
        h.position = h.target;
        h.velocity = 0.0;
    }
    h.position = std::clamp(h.position, 2.0, static_cast<double>(m_maxDelay));
}

float StereoDelay::readLine(int line) noexcept
{
    Head& h = m_heads[line];
    glide(h);
    const double whole = std::floor(h.position);
    const auto d = static_cast<std::uint32_t>(whole);
    const auto t = static_cast<float>(h.position - whole);
    const float* x = m_lines[line].data();
    // x1 is `d` frames old counting the frame about to be written; x0 is
    // newer, x2 and x3 older.
    const std::uint32_t at = m_write + 1 - d;
    const float x0 = x[(at + 1) & m_mask];
    const float x1 = x[at & m_mask];
    const float x2 = x[(at - 1) & m_mask];
    const float x3 = x[(at - 2) & m_mask];
    if (t == 0.0f)
        return x1;
    const float c1 = 0.5f * (x2 - x0);
    const float c2 = x0 - 2.5f * x1 + 2.0f * x2 - 0.5f * x3;
    const float c3 = 0.5f * (x3 - x0) + 1.5f * (x1 - x2);
    return ((c3 * t + c2) * t + c1) * t + x1;
}
