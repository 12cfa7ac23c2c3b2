#pragma once
// Runs a per-sample function at 2, 4 or 8 times the host rate between the
// polyphase upsampler and downsampler, for one channel. Nonlinear stages
// alias far less there: their harmonics above the host's Nyquist are removed
// by the downsampler instead of folding back.
//
// The round trip is a symmetric FIR whose centre falls on a whole host frame,
// so its latency is exact. A chain may be padded to a longer latency with a
// plain delay, which lets a plugin keep one latency for every factor and
// switch factors while audio runs without moving the audio in time.

#include <Algorithms/Resample/Upsampler.h>
#include <System/twa_aligned_allocator.h>

#include <cstddef>
#include <memory>
#include <vector>

// An integer delay at the host rate, sized once.
class FixedDelay {
public:
    // [not while processing]
    void resize(std::size_t frames);
    std::size_t length() const noexcept { return m_length; }
    // [audio-thread] In place; `frames` of any count.
    void process(float* samples, std::size_t frames) noexcept;
    // [audio-thread] out = in delayed; out may equal in.
    void process(const float* in, float* out, std::size_t frames) noexcept;
    // [audio-thread] Takes `frames` in without giving any out.
    void push(const float* in, std::size_t frames) noexcept;
    // [audio-thread] The length() frames held, oldest first.
    void copyHeld(float* out) const noexcept;
    // [audio-thread]
    void clear() noexcept;

private:
    std::vector<float> m_ring;
    std::size_t m_length = 0;
    std::size_t m_pos = 0;
};

class Oversampler {
public:
    // Host frames between input and output for a factor (1, 2, 4 or 8).
    static std::size_t roundTripLatency(std::size_t factor);
    static std::size_t longestLatency() { return roundTripLatency(8); }

    // [not while processing] `maxFrames` host frames per call at most; the
    // latency is padded up to `padTo` frames when that is longer. Throws
    // std::invalid_argument for another factor, std::bad_alloc.
    Oversampler(std::size_t factor, std::size_t maxFrames, std::size_t padTo = 0);
    ~Oversampler();
    Oversampler(const Oversampler&) = delete;
    Oversampler& operator=(const Oversampler&) = delete;

    std::size_t factor() const noexcept { return m_factor; }
    // Host frames from input to output, padding included.
    std::size_t latency() const noexcept { return roundTripLatency(m_factor) + m_pad.length(); }

    // [audio-thread] Upsamples `frames` (at most maxFrames) host frames and
    // returns the frames * factor samples, to be changed in place.
    float* up(const float* in, std::size_t frames) noexcept;
    // [audio-thread] Brings what up() returned back to `frames` host frames.
    void down(float* out, std::size_t frames) noexcept;
    // [audio-thread] up, `shape` on every oversampled sample, down.
    template <class Shape>
    void process(const float* in, float* out, std::size_t frames, Shape&& shape) noexcept
    {
        float* hi = up(in, frames);
        const std::size_t n = frames * m_factor;
        for (std::size_t i = 0; i < n; ++i)
            hi[i] = shape(hi[i]);
        down(out, frames);
    }
    // [audio-thread] The next call starts from silence.
    void reset() noexcept;

private:
    std::size_t m_factor;
    std::size_t m_maxFrames;
    std::unique_ptr<twa::numeric::PolyphaseResampler> m_up;
    // x8 comes down in two steps, by 2 and then by 4: the cheaper order with
    // the shorter delay, as the first filter only has to clear 4x Nyquist.
    std::unique_ptr<twa::numeric::PolyphaseResampler> m_downFirst;
    std::unique_ptr<twa::numeric::PolyphaseResampler> m_downLast;
    twa::sample_vector m_high;
    twa::sample_vector m_middle;
    FixedDelay m_pad;
};
