#include "ChannelTruePeaks.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Resample/TruePeak_ref.h>

ChannelTruePeaks::ChannelTruePeaks() = default;
ChannelTruePeaks::~ChannelTruePeaks() = default;

void ChannelTruePeaks::build(std::int32_t channels)
{
    // Built whole first, then swapped in: a failure leaves the old ones running.
    std::vector<std::unique_ptr<twa::numeric::TruePeakImpl>> peaks;
    for (std::int32_t c = 0; c < std::max(channels, 1); ++c)
        peaks.push_back(twa::numeric::CreateTruePeak(1));
    m_peaks.swap(peaks);
}

void ChannelTruePeaks::reset() noexcept
{
    for (auto& p : m_peaks)
        p->Reset();
}

float ChannelTruePeaks::process(std::int32_t channel, const float* samples, std::size_t frames) noexcept
{
    if (channel < 0 || channel >= channels())
        return 0.0f;
    const float peak = m_peaks[static_cast<std::size_t>(channel)]->Process(frames, samples);
    return std::isfinite(peak) ? peak : 0.0f;
}
