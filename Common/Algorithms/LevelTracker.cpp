#include "LevelTracker.h"

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
    return qvd::algorithms::parameterRow("LevelTracker", index, id, label, qvd::kContinuous, min, max, def, step,
                                         unit);
}
} // namespace

const std::vector<QVDParameterDefinition>& LevelTracker::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table{
        row(FLOOR, "LevelTracker::FLOOR", "Floor", -100.0f, 0.0f, -60.0f, 0.1f, "dB"),
        row(ATTACK, "LevelTracker::ATTACK", "Attack", 0.1f, 100.0f, 1.4f, 0.1f, "ms"),
        row(HOLD, "LevelTracker::HOLD", "Hold", 0.0f, 4000.0f, 0.0f, 1.0f, "ms"),
        row(RELEASE, "LevelTracker::RELEASE", "Release", 50.0f, 4000.0f, 150.0f, 1.0f, "ms"),
    };
    return table;
}

LevelTracker::LevelTracker() : QVDAudioAlgorithm(parameterTable()), m_variant(selectVariant())
{
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

bool LevelTracker::initialise(float sampleRate, std::int32_t channelCount)
{
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

bool LevelTracker::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    float a = 0.0f;
    switch (index) {
    case FLOOR:
        if (dbToLog10(value, a))
            m_floor.store(a, relaxed);
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

void LevelTracker::reset()
{
    m_envelope = m_floor.load(std::memory_order_relaxed);
    m_hold = 0;
    m_restart = true;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
}

float LevelTracker::readOut(std::uint32_t index) const
{
    return index == kLevelDb ? 20.0f * m_envelopeOut.load(std::memory_order_relaxed) : 0.0f;
}

bool LevelTracker::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    return track(channels, frames, nullptr);
}

bool LevelTracker::track(const float* const* channels, std::uint32_t frames, float* levels) noexcept
{
    const std::int32_t count = m_channelCount;
    if (channels == nullptr || count < 1)
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    const float lowest = m_floor.load(relaxed);
    const float a = m_attack.load(relaxed), ca = m_attackC.load(relaxed);
    const float r = m_release.load(relaxed), cr = m_releaseC.load(relaxed);
    const std::int32_t holdSamples = m_holdSamples.load(relaxed);
    if (m_restart) {
        m_envelope = lowest;
        m_restart = false;
    }
    double env = m_envelope;
    std::int32_t hold = m_hold;
    bool overflow = false;
    const double ad = a, cad = ca, rd = r, crd = cr;
    for (std::uint32_t start = 0; start < frames; start += kChunk) {
        const auto n = static_cast<std::int32_t>(frames - start < kChunk ? frames - start : kChunk);
        float* level = m_level.data();
        detectPlanar(channels, count, start, n, FLT_MIN, level);
        overflow |= capLevels(level, n);
        m_variant.log10(level, level, n);
        for (std::int32_t i = 0; i < n; ++i) {
            const float lv = level[i];
            const double l = lv > lowest ? lv : lowest;
            const bool rising = l > env;
            const double attacked = ad * env + cad * l;
            const double released = rd * env + crd * l;
            const bool holding = hold > 0;
            env = rising ? attacked : (holding ? env : released);
            hold = rising ? holdSamples : (holding ? hold - 1 : hold);
            level[i] = static_cast<float>(env);
        }
        if (levels != nullptr)
            for (std::int32_t i = 0; i < n; ++i)
                levels[start + static_cast<std::uint32_t>(i)] = level[i];
    }
    m_envelope = sanitiseState(env, lowest, overflow);
    m_hold = overflow ? 0 : hold;
    m_envelopeOut.store(static_cast<float>(m_envelope), relaxed);
    return true;
}
