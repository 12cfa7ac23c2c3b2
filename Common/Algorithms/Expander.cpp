#include "Expander.h"

#include <cfloat>
#include <cmath>

#include "DynamicsMath.h"
#include "DynamicsPasses.h"
#include "ParameterRow.h"

using namespace qvd::dynamics;

namespace {
QVDParameterDefinition row(std::int32_t index, const char* id, const char* label, float min, float max, float def,
                           float step, const char* unit)
{
    return qvd::algorithms::parameterRow("Expander", index, id, label, qvd::kContinuous, min, max, def, step, unit);
}
// Ratios beyond this make (envelope - threshold) * ratio overflow for no audible gain.
constexpr float kMaxRatio = 1e6f;
} // namespace

const std::vector<QVDParameterDefinition>& Expander::parameterTable()
{
    // HOLD shares ATTACK's range on purpose.
    static const std::vector<QVDParameterDefinition> table{
        row(THRES, "Expander::THRES", "Threshold", -80.0f, 0.0f, -30.0f, 0.1f, "dB"),
        row(RATIO, "Expander::RATIO", "Ratio", 1.0f, 20.0f, 2.0f, 0.1f, ""),
        row(RANGE, "Expander::RANGE", "Range", 0.0f, 50.0f, 10.0f, 0.1f, "dB"),
        row(ATTACK, "Expander::ATTACK", "Attack", 0.1f, 100.0f, 1.4f, 0.1f, "ms"),
        row(HOLD, "Expander::HOLD", "Hold", 0.1f, 100.0f, 1.4f, 0.1f, "ms"),
        row(RELEASE, "Expander::RELEASE", "Release", 50.0f, 4000.0f, 150.0f, 1.0f, "ms"),
    };
    return table;
}

Expander::Expander() : QVDAudioAlgorithm(parameterTable()), m_variant(selectVariant())
{
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

bool Expander::initialise(float sampleRate, std::int32_t channelCount)
{
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

void Expander::recomputeLevels()
{
    const float thresholdDb = m_parameters[THRES].value();
    const float ratio = m_parameters[RATIO].value();
    const float rangeDb = m_parameters[RANGE].value();
    float threshold = 0.0f, range = 0.0f;
    if (!dbToLog10(thresholdDb, threshold) || !dbToLog10(rangeDb, range) || std::isnan(ratio))
        return;
    const float effective = std::fmin(std::fmax(ratio, 1.0f), kMaxRatio);
    constexpr auto relaxed = std::memory_order_relaxed;
    m_threshold.store(threshold, relaxed);
    m_ratio.store(effective, relaxed);
    m_floor.store(threshold - range / effective, relaxed);
}

bool Expander::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    switch (index) {
    case THRES:
    case RATIO:
    case RANGE:
        recomputeLevels();
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
    default:
        break;
    }
    return true;
}

void Expander::reset()
{
    m_envelope = m_threshold.load(std::memory_order_relaxed);
    m_hold = 0;
    m_restart = true;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
    m_lastGain.store(0.0f, std::memory_order_relaxed);
}

float Expander::readOut(std::uint32_t index) const
{
    return index == kGainReduction ? -20.0f * m_lastGain.load(std::memory_order_relaxed) : 0.0f;
}

bool Expander::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    const std::int32_t count = m_channelCount;
    if (channels == nullptr || count < 1)
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    const float thr = m_threshold.load(relaxed), ratio = m_ratio.load(relaxed), lowest = m_floor.load(relaxed);
    const float a = m_attack.load(relaxed), ca = m_attackC.load(relaxed);
    const float r = m_release.load(relaxed), cr = m_releaseC.load(relaxed);
    const std::int32_t holdSamples = m_holdSamples.load(relaxed);
    if (m_restart) {
        m_envelope = thr;
        m_restart = false;
    }
    double env = m_envelope;
    std::int32_t hold = m_hold;
    float g = 0.0f;
    const double ad = a, cad = ca, rd = r, crd = cr, thrd = thr, ratiod = ratio;
    bool overflow = false;
    for (std::uint32_t start = 0; start < frames; start += kChunk) {
        const auto n = static_cast<std::int32_t>(frames - start < kChunk ? frames - start : kChunk);
        float* level = m_level.data();
        float* gain = m_gain.data();
        detectPlanar(channels, count, start, n, FLT_MIN, level);
        overflow |= capLevels(level, n);
        m_variant.log10(level, level, n);
        for (std::int32_t i = 0; i < n; ++i) {
            const float lv = level[i];
            const double l = lv > lowest ? lv : lowest;
            const bool rising = l > env;
            const double up = ad * env + cad * l;
            const bool top = up >= thrd;
            const double down = rd * env + crd * l;
            const bool holding = hold >= 1;
            env = rising ? (top ? thrd : up) : (holding ? env : down);
            hold = rising ? (top ? holdSamples : hold) : (holding ? hold - 1 : hold);
            g = static_cast<float>((env - thrd) * ratiod);
            gain[i] = g;
        }
        m_variant.exp10(gain, gain, n);
        applyPlanar(channels, count, start, n, gain);
    }
    if (frames > 0)
        m_lastGain.store(g, relaxed);
    m_envelope = sanitiseState(env, thr, overflow);
    m_hold = overflow ? 0 : hold;
    m_envelopeOut.store(static_cast<float>(m_envelope), relaxed);
    return true;
}
