#include "QVDDeesser.h"

#include <algorithm>
#include <cmath>

QVD_REGISTER_AUDIO_PLUGIN(QVDDeesser)

std::vector<QVDParam> QVDDeesser::parameterRows()
{
    return {
        {.name = "FREQ", .label = "Frequency", .minimum = DeEsser::kMinFrequency, .maximum = DeEsser::kMaxFrequency,
         .defaultValue = 6000, .step = 10, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "Q", .label = "Q", .minimum = 0.5f, .maximum = 8, .defaultValue = 1.5f, .step = 0.01f,
         .scale = qvd::kLogarithmic},
        {.name = "THRESHOLD", .label = "Threshold", .minimum = -60, .maximum = 0, .defaultValue = -30, .step = 0.1f,
         .unit = "dB"},
        {.name = "RANGE", .label = "Range", .minimum = 0, .maximum = 30, .defaultValue = 6, .step = 0.1f,
         .unit = "dB"},
        {.name = "ATTACK", .label = "Attack", .minimum = 0.1f, .maximum = 50, .defaultValue = 1, .step = 0.1f,
         .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "RELEASE", .label = "Release", .minimum = 10, .maximum = 1000, .defaultValue = 80, .step = 1,
         .unit = "ms", .scale = qvd::kLogarithmic},
        qvdListParam("MODE", "Mode", {"Wide Band", "Split Band"}, DeEsser::kSplitBand),
        {.name = "SPLIT", .label = "Split", .minimum = DeEsser::kMinFrequency, .maximum = DeEsser::kMaxFrequency,
         .defaultValue = 4000, .step = 10, .unit = "Hz", .scale = qvd::kLogarithmic},
        qvdSwitchParam("LISTEN", "Listen", false),
        qvdSwitchParam("LINK", "Link", true, "Per Channel", "Linked"),
    };
}

QVDDeesser::QVDDeesser(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    m_reductionReadout = addReadout(QStringLiteral("Gain Reduction"), QStringLiteral("dB"));
    addAlgorithmRef(&m_deesser);
}

QString QVDDeesser::valueText(std::int32_t index, float value) const
{
    if ((index == FREQ || index == SPLIT) && std::isfinite(value) && value >= 1000.0f)
        return QString::number(static_cast<double>(value) / 1000.0, 'f', 2) + QStringLiteral(" kHz");
    return QVDEffect::valueText(index, value);
}

void QVDDeesser::parameterChanged(std::uint32_t index, float value)
{
    // The block clamps to the same ranges and ignores NaN.
    m_deesser.setParameter(index, value);
}

bool QVDDeesser::prepareProcessing()
{
    const std::int32_t channels = std::clamp(activeInputs(), 1, 2);
    if (!m_deesser.initialise(static_cast<float>(sampleRate()), channels))
        return false;
    // Initialising restores the block's defaults: hand it the settings again.
    for (std::uint32_t i = 0; i < m_parameters.size(); ++i)
        m_deesser.setParameter(i, m_parameters[i].value());
    // Fixed by the rate alone, so a change of mode never moves the audio.
    return setLatency(static_cast<std::uint64_t>(m_deesser.latency()));
}

void QVDDeesser::render(const QVDBlock& block) noexcept
{
    if (block.frames <= 0 || block.channels <= 0)
        return;
    const std::int32_t channels = std::min(block.channels, 2);
    if (m_deesser.channelCount() != channels)
        m_deesser.setChannelCount(channels);
    m_deesser.processChannels(block.outputs, static_cast<std::uint32_t>(block.frames));
    publishReadout(m_reductionReadout, m_deesser.readOut(DeEsser::kGainReduction));
}
