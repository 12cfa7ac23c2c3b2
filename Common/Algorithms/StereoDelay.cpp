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
    m_whole[0] = m_whole[1] = false;
}

void StereoDelay::setDelay(int line, double samples, bool glideTo) noexcept
{
    Head& h = m_heads[line];
    h.target = std::clamp(samples, 2.0, static_cast<double>(m_maxDelay));
    if (!glideTo) {
        h.position = h.target;
        h.velocity = 0.0;
        m_whole[line] = false;
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
