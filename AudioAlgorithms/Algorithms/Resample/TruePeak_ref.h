#pragma once
// Inter-sample (true) peak of interleaved blocks: 4x oversampling, then the
// largest magnitude of the oversampled signal, as a linear amplitude.

#include "Algorithms/FindMinMax.h"
#include "Algorithms/Resample/Upsampler.h"
#include "System/twa_aligned_allocator.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace twa::numeric {

class TruePeakImpl {
public:
    virtual ~TruePeakImpl();
    TruePeakImpl(const TruePeakImpl&) = delete;
    TruePeakImpl& operator=(const TruePeakImpl&) = delete;

    // [audio-thread] Clears the filter history and the flush count.
    virtual void Reset() noexcept = 0;
    // [audio-thread] Same as Reset.
    virtual void Clear() noexcept = 0;
    // [audio-thread] Measures `frames` interleaved frames. A null input drains
    // the filter with silence, up to the filter length (rounded down to even)
    // of zero frames in all; a real block starts the count again. When
    // `oversampled` is given it receives 4 frames per input frame. Returns the
    // block's true peak, 0 for an empty block. The filter history carries
    // over between calls; the extremes do not.
    virtual float Process(std::size_t frames, const float* in, float* oversampled = nullptr) noexcept = 0;
    // [any-thread] Half the filter length, in oversampled frames.
    virtual std::size_t Latency() const noexcept = 0;
    // [any-thread]
    virtual std::size_t ChannelCount() const noexcept = 0;
    // [any-thread] Input frames per inner pass.
    virtual std::size_t MaxFramesPerChunk() const noexcept = 0;

protected:
    TruePeakImpl() noexcept;
};

// U is the 4x upsampler: UpsamplerTruePeak_x4 for meters, or Upsampler_x4.
template <class U>
class TruePeak_ref final : public TruePeakImpl {
public:
    static constexpr std::size_t kDefaultChunkFrames = 1024;

    // [not while processing] Throws std::invalid_argument for 0 channels or a
    // chunk limit of 0, std::bad_alloc when memory runs out.
    TruePeak_ref(std::size_t channels, std::size_t maxFramesPerChunk = kDefaultChunkFrames);
    ~TruePeak_ref() override;

    void Reset() noexcept override;
    void Clear() noexcept override;
    float Process(std::size_t frames, const float* in, float* oversampled = nullptr) noexcept override;
    std::size_t Latency() const noexcept override;
    std::size_t ChannelCount() const noexcept override;
    std::size_t MaxFramesPerChunk() const noexcept override;

    // [any-thread] For reports and tests.
    const U& Upsampler() const noexcept { return m_up; }
    std::uint32_t FlushCount() const noexcept { return m_flush; }

private:
    U m_up;
    std::size_t m_maxFrames;
    std::unique_ptr<FindMinMax> m_minmax;
    sample_vector m_minmaxBuff; // minimum and maximum per channel
    sample_vector m_scratch;    // one chunk, oversampled
    std::uint32_t m_flush = 0;  // zero frames fed since the last real input
};

extern template class TruePeak_ref<UpsamplerTruePeak_x4>;
extern template class TruePeak_ref<Upsampler_x4>;

// [not while processing] The meters' true-peak measurement.
std::unique_ptr<TruePeakImpl> CreateTruePeak(std::size_t channels,
                                             std::size_t maxFramesPerChunk = TruePeak_ref<UpsamplerTruePeak_x4>::kDefaultChunkFrames);

} // namespace twa::numeric
