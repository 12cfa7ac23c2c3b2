#include "Compressor.h"

#include <cfloat>
#include <cmath>

#include "DynamicsMath.h"
#include "DynamicsPasses.h"
#include "ParameterRow.h"

using namespace qvd::dynamics;

namespace {
QVDParameterDefinition row(std::int32_t index, const char* id, const char* label, std::int32_t kind, float min,
                           float max, float def, float step, const char* unit)
{
    return qvd::algorithms::parameterRow("Compressor", index, id, label, kind, min, max, def, step, unit);
}
} // namespace

const std::vector<QVDParameterDefinition>& Compressor::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table{
        row(RATIO, "Compressor::RATIO", "Ratio", qvd::kContinuous, 1.2f, 20.0f, 2.0f, 0.1f, ""),
        row(THRES, "Compressor::THRES", "Threshold", qvd::kContinuous, -50.0f, 0.0f, -15.0f, 0.1f, "dB"),
        row(ATTACK, "Compressor::ATTACK", "Attack", qvd::kContinuous, 0.1f, 100.0f, 1.4f, 0.1f, "ms"),
        row(HOLD, "Compressor::HOLD", "Hold", qvd::kContinuous, 0.0f, 4000.0f, 0.0f, 1.0f, "ms"),
        row(RELEASE, "Compressor::RELEASE", "Release", qvd::kContinuous, 50.0f, 4000.0f, 150.0f, 1.0f, "ms"),
        row(MAKEUP_GAIN, "Compressor::MAKEUP_GAIN", "Makeup", qvd::kContinuous, 0.0f, 20.0f, 0.0f, 0.1f, "dB"),
        row(SIDECHAIN_ON, "Compressor::SIDECHAIN_ON", "Sidechain", qvd::kSwitch, 0.0f, 1.0f, 0.0f, 1.0f, ""),
        row(GR_LIMIT, "Compressor::GR_LIMIT", "Gain Redc Limit", qvd::kContinuous, 0.0f, 50.0f, 50.0f, 0.1f, "dB"),
    };
    return table;
}

Compressor::Compressor() : QVDAudioAlgorithm(parameterTable()), m_variant(selectVariant())
{
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

bool Compressor::initialise(float sampleRate, std::int32_t channelCount)
{
    setChannelCount(channelCount);
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

bool Compressor::setChannelCount(std::int32_t channelCount)
{
    m_detectors.assign(static_cast<std::size_t>(channelCount > 0 ? channelCount : 0), nullptr);
    return QVDAudioAlgorithm::setChannelCount(channelCount);
}

void Compressor::setInterleavedChannels(std::int32_t channels)
{
    m_interleaved = channels > 1 ? channels : 1;
}

bool Compressor::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    float a = 0.0f;
    switch (index) {
    case RATIO:
        if (value > 0.0f) {
            const float ratio = value > 1.0f ? value : 1.0f;
            m_slope.store(1.0f - 1.0f / ratio, relaxed);
        }
        break;
    case THRES:
        if (dbToLog10(value, a))
            m_threshold.store(a, relaxed);
        break;
    case ATTACK:
        storeTime(m_attack, m_attackC, m_sampleRate, value);
        break;
    case HOLD:
        storeHold(m_holdSamples, m_sampleRate, value);
        break;
    case RELEASE:
        storeTime(m_release, m_releaseC, m_sampleRate, value);
        break;
    case MAKEUP_GAIN:
        if (dbToLog10(value, a))
            m_makeup.store(a, relaxed);
        break;
    case SIDECHAIN_ON:
        m_sidechain.store(listIndexNonZero(value), relaxed);
        break;
    case GR_LIMIT:
        if (dbToLog10(value, a))
            m_limit.store(-a, relaxed);
        break;
    default:
        break;
    }
    return true;
}

void Compressor::reset()
{
    m_envelope = m_threshold.load(std::memory_order_relaxed);
    m_hold = 0;
    m_restart = true;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
    m_reductionDb.store(0.0f, std::memory_order_relaxed);
}

float Compressor::readOut(std::uint32_t index) const
{
    return index == kGainReduction ? m_reductionDb.load(std::memory_order_relaxed) : 0.0f;
}

Compressor::Coefficients Compressor::load() const noexcept
{
    constexpr auto relaxed = std::memory_order_relaxed;
    return {m_threshold.load(relaxed), m_attack.load(relaxed),  m_attackC.load(relaxed),
            m_release.load(relaxed),   m_releaseC.load(relaxed), m_slope.load(relaxed),
            m_makeup.load(relaxed),    m_limit.load(relaxed),    m_holdSamples.load(relaxed),
            m_sidechain.load(relaxed)};
}

bool Compressor::processChannel(std::uint32_t, float* samples, std::uint32_t frames) noexcept
{
    if (m_sidechain.load(std::memory_order_relaxed) || samples == nullptr)
        return false;
    const float* detector = samples;
    run(&samples, &detector, 1, 1, frames);
    return true;
}

bool Compressor::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    const std::int32_t buffers = m_channelCount;
    if (channels == nullptr || buffers < 1 || static_cast<std::size_t>(buffers) > m_detectors.size())
        return false;
    const bool side = m_sidechain.load(std::memory_order_relaxed);
    if (m_interleaved > 1) {
        if (buffers != 1)
            return false;
        const float* detector = channels[side ? 1 : 0];
        run(channels, &detector, 1, m_interleaved, frames);
        return true;
    }
    for (std::int32_t k = 0; k < buffers; ++k)
        m_detectors[static_cast<std::size_t>(k)] = channels[side ? buffers + k : k];
    run(channels, m_detectors.data(), buffers, 1, frames);
    return true;
}

void Compressor::envelope(const Coefficients& c, const float* level, float* gain, std::int32_t n,
                          float& lastReduction) noexcept
{
    double env = m_envelope;
    std::int32_t hold = m_hold;
    float reduction = lastReduction;
    const double a = c.attack, ca = c.attackC, rel = c.release, cr = c.releaseC;
    const double thr = c.threshold, slope = c.slope;
    for (std::int32_t i = 0; i < n; ++i) {
        const float lv = level[i];
        const double l = lv > c.threshold ? lv : c.threshold;
        const bool rising = l > env;
        const double attacked = a * env + ca * l;
        const double released = rel * env + cr * l;
        const bool holding = hold > 0;
        env = rising ? attacked : (holding ? env : released);
        hold = rising ? c.holdSamples : (holding ? hold - 1 : hold);
        const auto r = static_cast<float>((thr - env) * slope);
        reduction = r > c.limit ? r : c.limit;
        gain[i] = reduction + c.makeup;
    }
    m_envelope = env;
    m_hold = hold;
    lastReduction = reduction;
}

void Compressor::run(float* const* mains, const float* const* detectors, std::int32_t lists, std::int32_t stride,
                     std::uint32_t frames) noexcept
{
    const Coefficients c = load();
    if (m_restart) {
        // The threshold may have changed since reset.
        m_envelope = c.threshold;
        m_restart = false;
    }
    float reduction = 0.0f;
    bool overflow = false;
    for (std::uint32_t start = 0; start < frames; start += kChunk) {
        const auto n = static_cast<std::int32_t>(frames - start < kChunk ? frames - start : kChunk);
        float* level = m_level.data();
        float* gain = m_gain.data();
        if (stride == 1)
            detectPlanar(detectors, lists, start, n, kLevelFloor, level);
        else
            detectInterleaved(detectors[0], stride, start, n, kLevelFloor, level);
        overflow |= capLevels(level, n);
        m_variant.log10(level, level, n);
        envelope(c, level, gain, n, reduction);
        m_variant.exp10(gain, gain, n);
        if (stride == 1)
            applyPlanar(mains, lists, start, n, gain);
        else
            applyInterleaved(mains[0], stride, start, n, gain);
    }
    if (frames > 0)
        m_reductionDb.store(-20.0f * reduction, std::memory_order_relaxed);
    m_envelope = sanitiseState(m_envelope, c.threshold, overflow);
    if (overflow)
        m_hold = 0;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
}
