#include "Oversampler.h"

#include <algorithm>
#include <stdexcept>

using namespace twa::numeric;

void FixedDelay::resize(std::size_t frames)
{
    m_ring.assign(frames, 0.0f);
    m_length = frames;
    m_pos = 0;
}

void FixedDelay::process(float* samples, std::size_t frames) noexcept
{
    process(samples, samples, frames);
}

void FixedDelay::process(const float* in, float* out, std::size_t frames) noexcept
{
    if (m_length == 0) {
        if (out != in)
            std::copy_n(in, frames, out);
        return;
    }
    float* ring = m_ring.data();
    std::size_t pos = m_pos;
    for (std::size_t n = 0; n < frames; ++n) {
        const float x = in[n];
        out[n] = ring[pos];
        ring[pos] = x;
        if (++pos == m_length)
            pos = 0;
    }
    m_pos = pos;
}

void FixedDelay::push(const float* in, std::size_t frames) noexcept
{
    if (m_length == 0)
        return;
    // Only the last length() frames can stay.
    const std::size_t skip = frames > m_length ? frames - m_length : 0;
    m_pos = (m_pos + skip) % m_length;
    for (std::size_t n = skip; n < frames; ++n) {
        m_ring[m_pos] = in[n];
        if (++m_pos == m_length)
            m_pos = 0;
    }
}

void FixedDelay::copyHeld(float* out) const noexcept
{
    const auto split = static_cast<std::ptrdiff_t>(m_pos);
    std::copy(m_ring.begin() + split, m_ring.end(), out);
    std::copy(m_ring.begin(), m_ring.begin() + split, out + (m_length - m_pos));
}

void FixedDelay::clear() noexcept
{
    std::fill(m_ring.begin(), m_ring.end(), 0.0f);
    m_pos = 0;
}

std::size_t Oversampler::roundTripLatency(std::size_t factor)
{
    // Half of each filter's taps per phase, in host frames: the upsampler's
    // 24, the final downsampler's 48 and, at x8, the 48 frames of the 4x
    // rate the first half-band adds. The tests hold the impulse to it.
    switch (factor) {
    case 1: return 0;
    case 2:
    case 4: return 72;
    case 8: return 84;
    default: return 0;
    }
}

Oversampler::Oversampler(std::size_t factor, std::size_t maxFrames, std::size_t padTo)
    : m_factor(factor), m_maxFrames(std::max<std::size_t>(maxFrames, 1))
{
    const std::size_t n = m_maxFrames;
    switch (factor) {
    case 1: break;
    case 2:
        m_up = std::make_unique<Upsampler_x2>(1, n);
        m_downLast = std::make_unique<Downsampler_x2>(1, n * 2);
        break;
    case 4:
        m_up = std::make_unique<Upsampler_x4>(1, n);
        m_downLast = std::make_unique<Downsampler_x4>(1, n * 4);
        break;
    case 8:
        m_up = std::make_unique<Upsampler_x8>(1, n);
        m_downFirst = std::make_unique<Downsampler_x2>(1, n * 8);
        m_downLast = std::make_unique<Downsampler_x4>(1, n * 4);
        m_middle.assign(n * 4, 0.0f);
        break;
    default: throw std::invalid_argument("Oversampler: factor must be 1, 2, 4 or 8");
    }
    m_high.assign(n * factor, 0.0f);
    const std::size_t own = roundTripLatency(factor);
    m_pad.resize(padTo > own ? padTo - own : 0);
}

Oversampler::~Oversampler() = default;

float* Oversampler::up(const float* in, std::size_t frames) noexcept
{
    frames = std::min(frames, m_maxFrames);
    if (m_up)
        m_up->Process(in, frames, m_high.data());
    else
        std::copy_n(in, frames, m_high.data());
    return m_high.data();
}

void Oversampler::down(float* out, std::size_t frames) noexcept
{
    frames = std::min(frames, m_maxFrames);
    if (m_downFirst) {
        m_downFirst->Process(m_high.data(), frames * m_factor, m_middle.data());
        m_downLast->Process(m_middle.data(), frames * 4, out);
    } else if (m_downLast) {
        m_downLast->Process(m_high.data(), frames * m_factor, out);
    } else {
        std::copy_n(m_high.data(), frames, out);
    }
    m_pad.process(out, frames);
}

void Oversampler::reset() noexcept
{
    for (auto* r : {m_up.get(), m_downFirst.get(), m_downLast.get()})
        if (r)
            r->Reset();
    m_pad.clear();
}
