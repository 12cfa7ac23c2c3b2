#include "QVDGain.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "QVDGainPanel.h"

QVD_REGISTER_AUDIO_PLUGIN(QVDGain)

const QVDPluginDescriptor& QVDGain::descriptor()
{
    static const QVDPluginDescriptor d{"Gain", 1.0, 1, qvdFourCC("QVGn"), 36, 36, "QVDGain", 0, 0, -1};
    return d;
}

const std::vector<QVDParameterDefinition>& QVDGain::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = [] {
        QVDParameterDefinition gain;
        gain.index = GAIN;
        gain.identifier = QStringLiteral("QVDGain::GAIN");
        gain.label = qvdTranslate("QVDGain", "Gain");
        gain.kind = qvd::kContinuous;
        gain.scale = qvd::kLinear;
        gain.minimum = -48.0f;
        gain.maximum = 48.0f;
        gain.defaultValue = 0.0f;
        gain.step = 0.1f;
        gain.unit = QStringLiteral("dB");
        gain.buildValueTable();
        return std::vector<QVDParameterDefinition>{gain};
    }();
    return table;
}

QVDGain::QVDGain(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDAudioPlugin<QVDGain>(descriptor, hostContext, services, parameterTable()),
      m_smoothing(SmoothingCoefficient::shared200ms()),
      m_maxChannels(std::max(maxInputs(), maxOutputs())),
      m_channels(std::make_unique<ChannelGain[]>(static_cast<std::size_t>(m_maxChannels))),
      m_kernel(qvd::gain::selectKernel()),
      m_bt(static_cast<std::size_t>(m_maxChannels)),
      m_state(static_cast<std::size_t>(m_maxChannels)),
      m_peak(static_cast<std::size_t>(m_maxChannels))
{
    addMeterGroup(QStringLiteral("Input"), m_maxChannels);
    addMeterGroup(QStringLiteral("Output"), m_maxChannels);
    channelCountsChanged();
    applyParameter(GAIN, parameterTable()[GAIN].defaultValue);
}

bool QVDGain::applyParameter(std::uint32_t index, float value)
{
    if (index >= static_cast<std::uint32_t>(parameterCount()))
        return false;
    m_parameters[index].exchange(value);
    if (index != GAIN)
        return true;
    // A NaN gain has no meaning; the stage keeps the gain it had.
    if (std::isnan(value))
        return true;
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
    return true;
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

void QVDGain::channelCountsChanged()
{
    setMeterGroupSize(kInputMeter, activeInputs());
    setMeterGroupSize(kOutputMeter, activeOutputs());
}

void QVDGain::resetState() noexcept
{
    // After a discontinuity there is nothing to glide from: start at the target.
    for (std::int32_t c = 0; c < m_maxChannels; ++c) {
        ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
        ch.state.store(ch.target.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
}

void QVDGain::processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                           std::int32_t frames) noexcept
{
    frames = prepareBlock(inputs, sequenceOf(block), frames);
    const std::int32_t channels = std::min(activeInputs(), activeOutputs());
    const auto n = static_cast<std::size_t>(frames);

    if (!bypassed()) {
        const double a = m_smoothing.a();
        const double b = m_smoothing.b();
        for (std::int32_t c = 0; c < channels; ++c) {
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
        const qvd::gain::KernelArgs args{inputs,          outputs,          channels,       frames,
                                         a,               m_bt.data(),      m_state.data(), m_peak.data(),
                                         m_padIn.data(),  m_padOut.data()};
        m_kernel.fn(args);
        for (std::int32_t c = 0; c < channels; ++c) {
            ChannelGain& ch = m_channels[static_cast<std::size_t>(c)];
            ch.state.store(m_state[static_cast<std::size_t>(c)], std::memory_order_relaxed);
            const float peak = m_peak[static_cast<std::size_t>(c)];
            setMeterLevel(kInputMeter, c, peak);
            // From the target, not the smoothed gain, on purpose.
            setMeterLevel(kOutputMeter, c, ch.target.load(std::memory_order_relaxed) * peak);
        }
    } else {
        for (std::int32_t c = 0; c < channels; ++c) {
            if (outputs[c] != inputs[c])
                std::memmove(outputs[c], inputs[c], n * sizeof(float));
            setMeterLevel(kInputMeter, c, 0.0f);
            setMeterLevel(kOutputMeter, c, 0.0f);
        }
    }
    // Outputs without a matching input carry silence.
    for (std::int32_t c = channels; c < activeOutputs(); ++c)
        std::memset(outputs[c], 0, n * sizeof(float));

    completeBlock(inputs, outputs, frames, 0);
}

QWidget* QVDGain::buildEditor(QWidget* parent)
{
    return new QVDGainPanel(this, parent);
}
