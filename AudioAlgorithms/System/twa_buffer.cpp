#include "System/twa_buffer.h"

#include "System/twa_assert.h"

#include <algorithm>

namespace twa {

interleaved_buffer::interleaved_buffer(std::size_t channels, std::size_t frames, std::size_t width)
{
    Resize(channels, frames, width);
}

void interleaved_buffer::Resize(std::size_t channels, std::size_t frames, std::size_t width)
{
    m_shape = shape{channels, std::max(width, channels), frames};
    m_data.assign(m_shape.samples(), 0.0f);
}

buffer::buffer(std::size_t channel_count, std::size_t length)
{
    Resize(channel_count, length);
}

void buffer::Resize(std::size_t channel_count, std::size_t length)
{
    m_channels.resize(channel_count);
    for (auto& ch : m_channels)
        ch.resize(length, 0.0f);
}

void buffer::SetLength(std::size_t length)
{
    Resize(m_channels.size(), length);
}

void buffer::Clear() noexcept
{
    for (auto& ch : m_channels)
        std::fill(ch.begin(), ch.end(), 0.0f);
}

std::size_t buffer::GetLength() const noexcept
{
    return m_channels.empty() ? 0 : m_channels.front().size();
}

namespace {
sample_vector& noChannel() noexcept
{
    static sample_vector none;
    return none;
}
} // namespace

sample_vector& buffer::GetMono() noexcept
{
    QVD_ASSERT(GetChannelCount() == 1u);
    return m_channels.empty() ? noChannel() : m_channels.front();
}

const sample_vector& buffer::GetMono() const noexcept
{
    QVD_ASSERT(GetChannelCount() == 1u);
    return m_channels.empty() ? noChannel() : m_channels.front();
}

void buffer::CopyFrom(const buffer& in)
{
    if (&in == this)
        return;
    QVD_ASSERT(GetChannelCount() == in.GetChannelCount());
    const std::size_t n = std::min(GetChannelCount(), in.GetChannelCount());
    for (std::size_t ch = 0; ch < n; ++ch)
        m_channels[ch].assign(in.m_channels[ch].begin(), in.m_channels[ch].end());
}

void buffer::FromInterleaved(const interleaved_buffer& in, std::size_t channel_count)
{
    QVD_ASSERT(channel_count == in.GetChannelCount());
    QVD_ASSERT(channel_count == in.GetChannelWidth());
    const std::size_t frames = in.GetFrameCount();
    const std::size_t width = in.GetChannelWidth();
    Resize(channel_count, frames);
    const std::size_t n = std::min(channel_count, in.GetChannelCount());
    const float* src = in.data();
    for (std::size_t ch = 0; ch < n; ++ch) {
        float* dst = m_channels[ch].data();
        for (std::size_t f = 0; f < frames; ++f)
            dst[f] = src[f * width + ch];
    }
}

void buffer::ToInterleaved(interleaved_buffer& out) const
{
    const std::size_t channels = GetChannelCount();
    const std::size_t frames = GetLength();
    if (out.GetChannelCount() != channels || out.GetChannelWidth() != channels ||
        out.GetFrameCount() != frames)
        out.Resize(channels, frames);
    float* dst = out.data();
    for (std::size_t ch = 0; ch < channels; ++ch) {
        const float* src = m_channels[ch].data();
        const std::size_t n = std::min(frames, m_channels[ch].size());
        for (std::size_t f = 0; f < n; ++f)
            dst[f * channels + ch] = src[f];
    }
}

void buffer::DropFront(std::size_t n) noexcept
{
    for (auto& ch : m_channels) {
        const std::size_t k = std::min(n, ch.size());
        ch.erase(ch.begin(), ch.begin() + static_cast<std::ptrdiff_t>(k));
    }
}

bool buffer::GetPointers(std::size_t offset, buffer_view& out) noexcept
{
    out.channels.clear();
    out.length = 0;
    const std::size_t length = GetLength();
    if (m_channels.empty() || offset >= length)
        return false;
    return GetView(offset, length - offset, out);
}

bool buffer::GetView(std::size_t offset, std::size_t length, buffer_view& out) noexcept
{
    out.channels.clear();
    out.length = 0;
    if (m_channels.empty())
        return false;
    for (const auto& ch : m_channels)
        if (offset > ch.size() || length > ch.size() - offset)
            return false;
    if (out.channels.capacity() < m_channels.size()) {
        try {
            out.channels.reserve(m_channels.size());
        } catch (...) {
            return false;
        }
    }
    for (auto& ch : m_channels)
        out.channels.push_back(ch.data() + offset);
    out.length = length;
    return true;
}

} // namespace twa
