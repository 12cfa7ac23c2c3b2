#pragma once
// One true-peak interpolator per channel, so every channel reads its own
// peak from planar buffers without interleaving.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace twa::numeric {
class TruePeakImpl;
}

class ChannelTruePeaks {
public:
    ChannelTruePeaks();
    ~ChannelTruePeaks();

    // [not while processing] One interpolator per channel, at least one.
    void build(std::int32_t channels);
    std::int32_t channels() const { return static_cast<std::int32_t>(m_peaks.size()); }
    // [audio-thread] Clears the filter histories.
    void reset() noexcept;
    // [audio-thread] The block's true peak of `channel` (linear); 0 for a
    // channel past the built ones or a non-finite result.
    float process(std::int32_t channel, const float* samples, std::size_t frames) noexcept;

private:
    std::vector<std::unique_ptr<twa::numeric::TruePeakImpl>> m_peaks;
};
