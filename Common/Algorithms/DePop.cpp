#include "DePop.h"

#include <algorithm>
#include <cmath>

#include "DynamicsMath.h"
#include "ParameterRow.h"

using namespace qvd::dynamics;

namespace {
// Longest ramp in samples; far beyond any TIME at any rate.
constexpr std::int32_t kMaxRamp = 1 << 24;
} // namespace

const std::vector<QVDParameterDefinition>& DePop::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table{
        qvd::algorithms::parameterRow("DePop", TIME, "DePop::TIME", "Ramp Time", qvd::kContinuous, 0.5f, 50.0f, 5.0f,
                                      0.1f, "ms"),
        qvd::algorithms::parameterRow("DePop", JUMP, "DePop::JUMP", "Jump", qvd::kContinuous, -40.0f, 6.0f, 0.0f,
                                      0.1f, "dB"),
        qvd::algorithms::parameterRow("DePop", ON, "DePop::ON", "On", qvd::kSwitch, 0.0f, 1.0f, 1.0f, 1.0f),
    };
    return table;
}

DePop::DePop() : QVDAudioAlgorithm(parameterTable())
{
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

bool DePop::initialise(float sampleRate, std::int32_t channelCount)
{
    setChannelCount(channelCount);
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

bool DePop::setChannelCount(std::int32_t channelCount)
{
    m_channels.resize(static_cast<std::size_t>(channelCount > 0 ? channelCount : 0));
    return QVDAudioAlgorithm::setChannelCount(channelCount);
}

bool DePop::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case TIME: {
        std::int32_t n = 0;
        if (holdSamples(m_sampleRate, value, n))
            m_rampSamples.store(std::clamp(n, 1, kMaxRamp), relaxed);
        break;
    }
    case JUMP: {
        float l = 0.0f;
        if (dbToLog10(value, l))
            m_jump.store(std::pow(10.0f, l), relaxed);
        break;
    }
    case ON:
        // A switch is on when its list index is 1; anything else (NaN too) is off.
        m_on.store(value + 0.5f >= 1.0f && value + 0.5f < 2.0f, relaxed);
        break;
    default:
        break;
    }
    return true;
}

void DePop::reset()
{
    std::fill(m_channels.begin(), m_channels.end(), Channel{});
    m_gain = m_gainTarget = m_on.load(std::memory_order_relaxed) ? 1.0f : 0.0f;
    m_gainStep = 0.0f;
    m_gainLeft = 0;
    m_gainOut.store(m_gain, std::memory_order_relaxed);
    m_discontinuity.store(false, std::memory_order_relaxed);
}

float DePop::readOut(std::uint32_t index) const
{
    return index == kGain ? m_gainOut.load(std::memory_order_relaxed) : 0.0f;
}

bool DePop::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    const std::size_t count =
        std::min(m_channels.size(), static_cast<std::size_t>(m_channelCount > 0 ? m_channelCount : 0));
    if (channels == nullptr || count == 0)
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    const std::int32_t ramp = m_rampSamples.load(relaxed);
    const float jump = m_jump.load(relaxed);
    const float target = m_on.load(relaxed) ? 1.0f : 0.0f;
    if (target != m_gainTarget) {
        m_gainTarget = target;
        m_gainStep = (target - m_gain) / static_cast<float>(ramp);
        m_gainLeft = ramp;
    }
    const bool discontinuity = m_discontinuity.exchange(false, relaxed);

    float gain = m_gain;
    std::int32_t gainLeft = m_gainLeft;
    for (std::size_t c = 0; c < count; ++c) {
        Channel& ch = m_channels[c];
        float* x = channels[c];
        bool forced = discontinuity;
        // Every channel runs the same switch ramp from the block's start.
        gain = m_gain;
        gainLeft = m_gainLeft;
        for (std::uint32_t n = 0; n < frames; ++n) {
            if (gainLeft > 0) {
                gain = --gainLeft == 0 ? m_gainTarget : gain + m_gainStep;
            }
            const float in = x[n];
            if (!std::isfinite(in)) {
                x[n] = in * gain;
                continue;
            }
            if (forced || std::fabs(in - ch.lastIn) > jump) {
                forced = false;
                ch.offset = ch.lastOut - in;
                ch.offsetStep = ch.offset / static_cast<float>(ramp);
                ch.offsetLeft = ramp;
            }
            if (ch.offsetLeft > 0)
                ch.offset = --ch.offsetLeft == 0 ? 0.0f : ch.offset - ch.offsetStep;
            const float out = in + ch.offset;
            ch.lastIn = in;
            ch.lastOut = out;
            x[n] = out * gain;
        }
    }
    m_gain = gain;
    m_gainLeft = gainLeft;
    m_gainOut.store(gain, relaxed);
    return true;
}
