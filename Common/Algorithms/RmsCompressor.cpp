#include "RmsCompressor.h"

#include <algorithm>

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
    return qvd::algorithms::parameterRow("RmsCompressor", index, id, label, kind, min, max, def, step, unit);
}
// acos(1/ratio) must stay above 0 for the knee radius; beyond 1e6 nothing changes audibly.
float effectiveRatio(float ratio)
{
    return std::fmin(std::fmax(ratio, 1.001f), 1e6f);
}
} // namespace

const std::vector<QVDParameterDefinition>& RmsCompressor::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table{
        row(RMS_SPEED, "RmsCompressor::RMS_SPEED", "RMS Speed", qvd::kContinuous, 0.1f, 200.0f, 30.0f, 0.1f, "ms"),
        row(THRES, "RmsCompressor::THRES", "Threshold", qvd::kContinuous, -50.0f, 0.0f, -15.0f, 0.1f, "dB"),
        row(RATIO, "RmsCompressor::RATIO", "Ratio", qvd::kContinuous, 1.2f, 20.0f, 2.0f, 0.1f, ""),
        row(KNEE, "RmsCompressor::KNEE", "Knee", qvd::kContinuous, 0.0f, 15.0f, 5.0f, 0.1f, "dB"),
        row(ATTACK, "RmsCompressor::ATTACK", "Attack", qvd::kContinuous, 0.1f, 100.0f, 1.4f, 0.1f, "ms"),
        row(RELEASE, "RmsCompressor::RELEASE", "Release", qvd::kContinuous, 50.0f, 4000.0f, 150.0f, 1.0f, "ms"),
        row(MAKEUP_GAIN, "RmsCompressor::MAKEUP_GAIN", "Makeup", qvd::kContinuous, 0.0f, 20.0f, 0.0f, 0.1f, "dB"),
        row(AUTO_MAKEUP, "RmsCompressor::AUTO_MAKEUP", "Auto Makeup", qvd::kSwitch, 0.0f, 1.0f, 0.0f, 1.0f, ""),
        row(MAKEUP_REF, "RmsCompressor::MAKEUP_REF", "Makeup Ref", qvd::kContinuous, -30.0f, 0.0f, -13.0f, 0.1f, "dB"),
    };
    return table;
}

RmsCompressor::RmsCompressor() : QVDAudioAlgorithm(parameterTable()), m_variant(selectVariant())
{
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

bool RmsCompressor::initialise(float sampleRate, std::int32_t channelCount)
{
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

void RmsCompressor::recomputeKnee()
{
    const float thresholdDb = m_parameters[THRES].value();
    const float kneeDb = m_parameters[KNEE].value();
    const float rawRatio = m_parameters[RATIO].value();
    if (std::isnan(thresholdDb) || std::isnan(kneeDb) || std::isnan(rawRatio))
        return;
    const float thr = std::fmin(std::fmax(thresholdDb, -kDbLimit), kDbLimit);
    const float knee = std::fmin(std::fmax(kneeDb, 0.0f), kDbLimit);
    const float ratio = effectiveRatio(rawRatio);
    const float lower = (thr - knee) / 20.0f;
    const float upper = (thr + knee) / 20.0f;
    const float centre = (upper + lower) * 0.5f;
    const float theta = std::acos(1.0f / ratio);
    const float width = upper - lower;
    constexpr auto relaxed = std::memory_order_relaxed;
    m_lower.store(lower, relaxed);
    m_upper.store(upper, relaxed);
    m_centre.store(centre, relaxed);
    m_invRatio.store(1.0f / ratio, relaxed);
    m_theta.store(theta, relaxed);
    // With no knee the arc is never used.
    m_thetaPerWidth.store(width > 0.0f ? theta / width : 0.0f, relaxed);
    m_radius.store(((upper - centre) / ratio + centre - lower) / std::sin(theta), relaxed);
}

void RmsCompressor::recomputeMakeup()
{
    float makeup = 0.0f;
    if (!(m_parameters[AUTO_MAKEUP].value() > 0.0f)) {
        if (!dbToLog10(m_parameters[MAKEUP_GAIN].value(), makeup))
            return;
    } else {
        const float ref = m_parameters[MAKEUP_REF].value();
        const float thr = m_parameters[THRES].value();
        const float rawRatio = m_parameters[RATIO].value();
        if (std::isnan(ref) || std::isnan(thr) || std::isnan(rawRatio))
            return;
        const float r = std::fmin(std::fmax(ref, -kDbLimit), kDbLimit);
        const float t = std::fmin(std::fmax(thr, -kDbLimit), kDbLimit);
        // The hard-knee reduction of a signal at the reference level, given back.
        const float m = std::fmax(0.0f, r - (std::fmax(0.0f, r - t) / effectiveRatio(rawRatio) + t));
        makeup = m / 20.0f;
    }
    m_makeup.store(makeup, std::memory_order_relaxed);
}

bool RmsCompressor::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    switch (index) {
    case RMS_SPEED:
        storeTime(m_rms, m_rmsC, m_sampleRate, value);
        break;
    case THRES:
    case RATIO:
        recomputeKnee();
        recomputeMakeup();
        break;
    case KNEE:
        // The automatic make-up does not depend on the knee.
        recomputeKnee();
        break;
    case ATTACK:
        storeTime(m_attack, m_attackC, m_sampleRate, value);
        break;
    case RELEASE:
        storeTime(m_release, m_releaseC, m_sampleRate, value);
        break;
    case MAKEUP_GAIN:
    case AUTO_MAKEUP:
    case MAKEUP_REF:
        recomputeMakeup();
        break;
    default:
        break;
    }
    return true;
}

void RmsCompressor::reset()
{
    m_meanSquare.fill(0.0);
    m_envelope = m_lower.load(std::memory_order_relaxed);
    m_restart = true;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
    m_lastGain.store(0.0f, std::memory_order_relaxed);
}

void RmsCompressor::resumeFrom(const double* meanSquares, std::int32_t count, double envelope, bool restart) noexcept
{
    m_meanSquare.fill(0.0);
    std::copy_n(meanSquares, std::clamp(count, 0, kMaxChannels), m_meanSquare.begin());
    m_envelope = envelope;
    m_restart = restart;
    m_envelopeOut.store(static_cast<float>(m_envelope), std::memory_order_relaxed);
}

float RmsCompressor::readOut(std::uint32_t index) const
{
    return index == kGainReduction ? -20.0f * m_lastGain.load(std::memory_order_relaxed) : 0.0f;
}

RmsCompressor::Knee RmsCompressor::loadKnee() const noexcept
{
    constexpr auto relaxed = std::memory_order_relaxed;
    return {m_lower.load(relaxed),    m_upper.load(relaxed),         m_centre.load(relaxed), m_invRatio.load(relaxed),
            m_theta.load(relaxed),    m_thetaPerWidth.load(relaxed), m_radius.load(relaxed)};
}

float RmsCompressor::gainFor(const Knee& k, float e) noexcept
{
    // Comparisons rather than std::fmax, which is a library call here; a NaN
    // y still gives the floor.
    if (e >= k.upper) {
        const float y = (e - k.centre) * k.invRatio - (e - k.centre);
        return y > kGainFloor ? y : kGainFloor;
    }
    if (e >= k.lower) {
        const float y = k.radius * std::sin((e - k.lower) * k.thetaPerWidth) - (e - k.lower);
        return y > kGainFloor ? y : kGainFloor;
    }
    return 0.0f;
}

float RmsCompressor::gainFor(float e) const noexcept
{
    return gainFor(loadKnee(), e);
}

bool RmsCompressor::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    const std::int32_t count = m_channelCount;
    if (channels == nullptr || count < 1 || count >= kMaxChannels)
        return false;
    constexpr auto relaxed = std::memory_order_relaxed;
    const Knee knee = loadKnee();
    const float makeup = m_makeup.load(relaxed);
    const float k = m_rms.load(relaxed), ck = m_rmsC.load(relaxed);
    const float a = m_attack.load(relaxed), ca = m_attackC.load(relaxed);
    const float r = m_release.load(relaxed), cr = m_releaseC.load(relaxed);
    if (m_restart) {
        m_envelope = knee.lower;
        m_restart = false;
    }
    double env = m_envelope;
    float y = 0.0f;
    const double kd = k, ckd = ck, ad = a, cad = ca, rd = r, crd = cr;
    bool overflow = false;
    for (std::uint32_t start = 0; start < frames; start += kChunk) {
        const auto n = static_cast<std::int32_t>(frames - start < kChunk ? frames - start : kChunk);
        float* level = m_level.data();
        float* gain = m_gain.data();
        for (std::int32_t i = 0; i < n; ++i)
            level[i] = kLevelFloor;
        // The mean squares are independent recursions: two channels per pass
        // let their latencies overlap.
        std::int32_t c = 0;
        for (; c + 1 < count; c += 2) {
            const float* x0 = channels[c] + start;
            const float* x1 = channels[c + 1] + start;
            double ms0 = m_meanSquare[static_cast<std::size_t>(c)];
            double ms1 = m_meanSquare[static_cast<std::size_t>(c + 1)];
            for (std::int32_t i = 0; i < n; ++i) {
                const double a0 = x0[i], a1 = x1[i];
                ms0 = kd * ms0 + ckd * (a0 * a0);
                ms1 = kd * ms1 + ckd * (a1 * a1);
                const auto s0 = static_cast<float>(std::sqrt(ms0));
                const auto s1 = static_cast<float>(std::sqrt(ms1));
                float m = level[i];
                m = s0 > m ? s0 : m;
                m = s1 > m ? s1 : m;
                level[i] = m;
            }
            m_meanSquare[static_cast<std::size_t>(c)] = ms0;
            m_meanSquare[static_cast<std::size_t>(c + 1)] = ms1;
        }
        for (; c < count; ++c) {
            const float* x = channels[c] + start;
            double ms = m_meanSquare[static_cast<std::size_t>(c)];
            for (std::int32_t i = 0; i < n; ++i) {
                const double xd = x[i];
                ms = kd * ms + ckd * (xd * xd);
                const auto s = static_cast<float>(std::sqrt(ms));
                level[i] = s > level[i] ? s : level[i];
            }
            m_meanSquare[static_cast<std::size_t>(c)] = ms;
        }
        overflow |= capLevels(level, n);
        m_variant.log10(level, level, n);
        for (std::int32_t i = 0; i < n; ++i) {
            const float lv = level[i];
            const double l = lv > knee.lower ? lv : knee.lower;
            env = l > env ? ad * env + cad * l : rd * env + crd * l;
            level[i] = static_cast<float>(env);
        }
        for (std::int32_t i = 0; i < n; ++i) {
            y = gainFor(knee, level[i]);
            gain[i] = y + makeup;
        }
        m_variant.exp10(gain, gain, n);
        applyPlanar(channels, count, start, n, gain);
    }
    if (frames > 0)
        m_lastGain.store(y, relaxed);
    for (std::int32_t c = 0; c < count; ++c) {
        double& ms = m_meanSquare[static_cast<std::size_t>(c)];
        ms = sanitiseState(ms, 0.0, false);
    }
    m_envelope = sanitiseState(env, knee.lower, overflow);
    m_envelopeOut.store(static_cast<float>(m_envelope), relaxed);
    return true;
}
