#pragma once
// Multichannel sample buffers: planar channels of equal length, and interleaved
// frames described by a shape.

#include "System/twa_aligned_allocator.h"
#include "System/twa_shape.h"

#include <cstddef>
#include <vector>

namespace twa {

// Frames of `width` samples, the first `channels` of which carry audio.
class interleaved_buffer {
public:
    interleaved_buffer() = default;
    // [not while processing] width 0 means width == channels.
    interleaved_buffer(std::size_t channels, std::size_t frames, std::size_t width = 0);
    // [not while processing] Zero-fills; width 0 means width == channels.
    void Resize(std::size_t channels, std::size_t frames, std::size_t width = 0);

    // [any-thread] Reads only.
    std::size_t GetChannelCount() const noexcept { return m_shape.channels; }
    std::size_t GetChannelWidth() const noexcept { return m_shape.width; }
    std::size_t GetFrameCount() const noexcept { return m_shape.frames; }
    const shape& GetShape() const noexcept { return m_shape; }
    float* data() noexcept { return m_data.data(); }
    const float* data() const noexcept { return m_data.data(); }

private:
    shape m_shape;
    sample_vector m_data;
};

// Pointers to every channel from one offset on, and how many samples follow.
struct buffer_view {
    std::vector<float*> channels;
    std::size_t length = 0;
    bool empty() const noexcept { return channels.empty(); }
};

class buffer {
public:
    buffer() = default;
    // [not while processing]
    buffer(std::size_t channel_count, std::size_t length);

    // [not while processing] Keeps the samples that fit, zero-fills new ones.
    void Resize(std::size_t channel_count, std::size_t length);
    // [not while processing] Same as Resize with the current channel count.
    void SetLength(std::size_t length);
    // [audio-thread] Zeroes every sample.
    void Clear() noexcept;

    // [any-thread] Reads only, like the accessors below.
    std::size_t GetChannelCount() const noexcept { return m_channels.size(); }
    // Length of the first channel (all are equal unless a caller resized one).
    std::size_t GetLength() const noexcept;

    sample_vector& operator[](std::size_t ch) noexcept { return m_channels[ch]; }
    const sample_vector& operator[](std::size_t ch) const noexcept { return m_channels[ch]; }
    float* GetChannel(std::size_t ch) noexcept { return m_channels[ch].data(); }
    const float* GetChannel(std::size_t ch) const noexcept { return m_channels[ch].data(); }

    // Mono accessors; asserts a single channel and then answers for channel 0
    // (an empty static vector when there is none).
    sample_vector& GetMono() noexcept;
    const sample_vector& GetMono() const noexcept;

    // [audio-thread] when the lengths already match (it allocates only when a
    // channel must grow). Copies every channel of `in`; asserts equal channel
    // counts and copies the channels both have.
    void CopyFrom(const buffer& in);

    // Deinterleaves `in` into `channel_count` channels of in.GetFrameCount()
    // samples. Asserts that `in` is a dense frame of exactly that many channels;
    // otherwise copies the channels both have. [not while processing] unless the
    // buffer already has that shape.
    void FromInterleaved(const interleaved_buffer& in, std::size_t channel_count);
    // [not while processing] unless `out` already has the shape. Interleaves
    // into `out`, resizing it to this buffer's channels and length.
    void ToInterleaved(interleaved_buffer& out) const;

    // [audio-thread] Removes the first n samples of every channel, keeping the
    // rest in order; n beyond the length empties the channels.
    void DropFront(std::size_t n) noexcept;

    // [audio-thread] Views. Both fail (false, empty view) when there is no
    // channel or the range passes the channel length; a pointer view needs
    // offset < length. They do not allocate when `out` already has room for
    // every channel.
    bool GetPointers(std::size_t offset, buffer_view& out) noexcept;
    bool GetView(std::size_t offset, std::size_t length, buffer_view& out) noexcept;

private:
    std::vector<sample_vector> m_channels;
};

} // namespace twa
