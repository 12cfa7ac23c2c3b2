#include "Algorithms/Resample/TruePeak_ref.h"

#include "System/twa_assert.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace twa::numeric {

TruePeakImpl::TruePeakImpl() noexcept = default;
TruePeakImpl::~TruePeakImpl() = default;

namespace {
std::size_t checkedChannels(std::size_t channels, std::size_t maxFrames)
{
    if (channels == 0 || maxFrames == 0)
        throw std::invalid_argument("TruePeak: channels and frames per chunk must not be 0");
    return channels;
}
} // namespace

template <class U>
TruePeak_ref<U>::TruePeak_ref(std::size_t channels, std::size_t maxFramesPerChunk)
    : m_up(checkedChannels(channels, maxFramesPerChunk), maxFramesPerChunk), m_maxFrames(maxFramesPerChunk),
      m_minmaxBuff(2 * channels, 0.0f), m_scratch(maxFramesPerChunk * 4 * channels, 0.0f)
{
    CreateFindMinMax(m_minmax, channels);
}

template <class U>
TruePeak_ref<U>::~TruePeak_ref() = default;

template <class U>
void TruePeak_ref<U>::Reset() noexcept
{
    m_up.Reset();
    m_flush = 0;
}

template <class U>
void TruePeak_ref<U>::Clear() noexcept
{
    Reset();
}

template <class U>
std::size_t TruePeak_ref<U>::Latency() const noexcept
{
    return m_up.FilterLength() / 2;
}

template <class U>
std::size_t TruePeak_ref<U>::ChannelCount() const noexcept
{
    return m_minmax->ChannelCount();
}

template <class U>
std::size_t TruePeak_ref<U>::MaxFramesPerChunk() const noexcept
{
    return m_maxFrames;
}

template <class U>
float TruePeak_ref<U>::Process(std::size_t frames, const float* in, float* oversampled) noexcept
{
    const std::size_t c = m_up.ChannelCount();
    if (!in) {
        // Enough zeros to push the last real samples through the filter, no more.
        const std::size_t limit = m_up.FilterLength() & ~std::size_t{1};
        const std::size_t left = limit > m_flush ? limit - m_flush : 0;
        frames = std::min(frames, left);
        m_flush += static_cast<std::uint32_t>(frames);
    } else {
        m_flush = 0;
    }
    if (frames == 0)
        return 0.0f;

    bool first = true;
    for (std::size_t done = 0; done < frames;) {
        const std::size_t chunk = std::min(frames - done, m_maxFrames);
        const std::size_t produced = m_up.Process(in ? in + done * c : nullptr, chunk, m_scratch.data());
        const bool ok = m_minmax->Process(m_scratch.data(), produced, m_minmaxBuff.data(), first);
        QVD_ASSERT(ok);
        (void)ok;
        first = false;
        if (oversampled) {
            std::copy_n(m_scratch.data(), produced * c, oversampled);
            oversampled += produced * c;
        }
        done += chunk;
    }

    for (float& v : m_minmaxBuff)
        v = std::fabs(v);
    const auto it = std::max_element(m_minmaxBuff.cbegin(), m_minmaxBuff.cend());
    QVD_ASSERT(it != m_minmaxBuff.cend());
    return it != m_minmaxBuff.cend() ? *it : 0.0f;
}

template class TruePeak_ref<UpsamplerTruePeak_x4>;
template class TruePeak_ref<Upsampler_x4>;

std::unique_ptr<TruePeakImpl> CreateTruePeak(std::size_t channels, std::size_t maxFramesPerChunk)
{
    return std::make_unique<TruePeak_ref<UpsamplerTruePeak_x4>>(channels, maxFramesPerChunk);
}

} // namespace twa::numeric
