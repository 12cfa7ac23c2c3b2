#include "QVDGain.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

QVD_REGISTER_AUDIO_PLUGIN(QVDGain)

std::vector<QVDParam> QVDGain::parameterRows()
{
    return {{.name = "GAIN", .label = "Gain", .minimum = -48.0f, .maximum = 48.0f, .step = 0.1f, .unit = "dB"}};
}

QVDGain::QVDGain(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services),
      m_smoothing(SmoothingCoefficient::shared200ms()),
      m_maxChannels(std::max(maxInputs(), maxOutputs())),
      m_channels(std::make_unique<ChannelGain[]>(static_cast<std::size_t>(m_maxChannels))),
      m_kernel(&qvd::gain::selectKernel()),
      m_bt(static_cast<std::size_t>(m_maxChannels)),
      m_state(static_cast<std::size_t>(m_maxChannels)),
      m_peak(static_cast<std::size_t>(m_maxChannels))
{
}

void QVDGain::parameterChanged(std::uint32_t index, float value)
{
    // A NaN gain has no meaning; the stage keeps the gain it had.
    if (index != GAIN || std::isnan(value))
        return;
    const double linear = std::pow(10.0, static_cast<double>(value) / 20.0);
    // Never zero or subnormal, and never infinite: the state must stay finite.
    const float g = static_cast<float>(std::min(linear, static_cast<double>(FLT_MAX)));
    const float target = std::max(g, FLT_MIN);
    const bool smoothing = m_smoothing.enabled();
    for (std::int32_t c = 0; c < m_maxChannels; ++c) {
        ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
        ch.target.exchange(target);
        if (!smoothing)
            ch.state.store(target, std::memory_order_relaxed);
    }
}

float QVDGain::targetGain(std::int32_t channel) const
{
    if (channel < 0 || channel >= m_maxChannels)
        return 0.0f;
    return m_channels[static_cast<std::size_t>(channel)].target.load(std::memory_order_relaxed);
}

double QVDGain::smoothedGain(std::int32_t channel) const
{
    if (channel < 0 || channel >= m_maxChannels)
        return 0.0;
    return m_channels[static_cast<std::size_t>(channel)].state.load(std::memory_order_relaxed);
}

bool QVDGain::prepareProcessing()
{
    const auto frames = static_cast<std::size_t>(blockSize());
    m_padIn.assign(frames, 0.0f);
    m_padOut.assign(frames, 0.0f);
    return true;
}

void QVDGain::resetState() noexcept
{
    // After a discontinuity there is nothing to glide from: start at the target.
    for (std::int32_t c = 0; c < m_maxChannels; ++c) {
        ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
        ch.state.store(ch.target.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
}

void QVDGain::render(const QVDBlock& block) noexcept
{
    const double a = m_smoothing.a();
    const double b = m_smoothing.b();
    for (std::int32_t c = 0; c < block.channels; ++c) {
        const ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
        const float target = ch.target.load(std::memory_order_relaxed);
        double state = ch.state.load(std::memory_order_relaxed);
        // A state can only be non-finite through memory damage; restart at the target.
        if (!std::isfinite(state))
            state = target;
        m_bt[static_cast<std::size_t>(c)] = b * static_cast<double>(target);
        m_state[static_cast<std::size_t>(c)] = state;
        m_peak[static_cast<std::size_t>(c)] = 0.0f;
    }
    const qvd::gain::KernelArgs args{block.inputs, block.outputs, block.channels, block.frames,  a,
                                     m_bt.data(),  m_state.data(), m_peak.data(), m_padIn.data(), m_padOut.data()};
    m_kernel->fn(args);
    for (std::int32_t c = 0; c < block.channels; ++c) {
        ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
        ch.state.store(m_state[static_cast<std::size_t>(c)], std::memory_order_relaxed);
        const float peak = m_peak[static_cast<std::size_t>(c)];
        block.inputPeak[c] = peak;
        // From the target, not the smoothed gain, on purpose.
        block.outputPeak[c] = ch.target.load(std::memory_order_relaxed) * peak;
    }
}
