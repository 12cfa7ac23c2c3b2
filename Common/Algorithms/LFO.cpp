#include "LFO.h"

#include <array>
#include <cmath>
#include <numbers>

#include "LFOTables.h"
#include "ParameterRow.h"

static_assert(LFO::kTableSize == qvd::lfo::kTableSize);

namespace {

// Row of each parameter index in the table.
constexpr std::array<std::uint32_t, 6> kRowOf{0, 1, 4, 2, 3, 5};
constexpr float kValueLimit = 1e6f;
// Longest step per call: half the table, i.e. half the sample rate.
constexpr float kMaxIncrement = 128.0f;

struct FormulaTables {
    float sine[LFO::kTableSize];
    float tri[LFO::kTableSize];
    float saw1[LFO::kTableSize];
    FormulaTables()
    {
        for (int i = 0; i < LFO::kTableSize; ++i) {
            sine[i] = static_cast<float>(std::sin(2.0 * std::numbers::pi * (i % 256) / 256.0));
            const float t = static_cast<float>(i);
            tri[i] = i <= 64 ? t / 64.0f : (i <= 192 ? (128.0f - t) / 64.0f : (t - 256.0f) / 64.0f);
            saw1[i] = i <= 192 ? -1.0f + t / 96.0f : 1.0f - (t - 192.0f) / 32.0f;
        }
    }
};

const FormulaTables& formulaTables()
{
    static const FormulaTables t;
    return t;
}

bool clampValue(float value, float& out)
{
    if (std::isnan(value))
        return false;
    out = value < -kValueLimit ? -kValueLimit : (value > kValueLimit ? kValueLimit : value);
    return true;
}

QVDParameterDefinition row(std::int32_t index, const char* id, const char* label, std::int32_t kind, float min,
                           float max, float def, float step)
{
    return qvd::algorithms::parameterRow("LFO", index, id, label, kind, min, max, def, step);
}

} // namespace

const std::vector<QVDParameterDefinition>& LFO::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = [] {
        QVDParameterDefinition waveform =
            row(WAVEFORM, "LFO::WAVEFORM", "Waveform", qvd::kList, 0.0f, 5.0f, 0.0f, 1.0f);
        for (const char* name : {"Sine", "Tri", "Saw1", "Saw2", "Square", "Random"})
            waveform.options << qvdTranslate("LFO", name);
        return std::vector<QVDParameterDefinition>{
            waveform,
            row(FREQ, "LFO::FREQ", "Frequency", qvd::kContinuous, 0.05f, 2000.0f, 1.0f, 0.01f),
            row(WIDTH, "LFO::WIDTH", "Width", qvd::kContinuous, 0.0f, 4.0f, 4.0f, 1.0f),
            row(OFFSET, "LFO::OFFSET", "Offset", qvd::kContinuous, 0.0f, 4.0f, 4.0f, 1.0f),
            row(ANGLE, "LFO::ANGLE", "Angle", qvd::kContinuous, -1.0f, 1.0f, 0.0f, 0.001f),
            row(ALT_OUTPUT_OFFSET, "LFO::ALT_OUTPUT_OFFSET", "Angle Offset", qvd::kContinuous, -1.0f, 1.0f, 0.0f,
                0.001f),
        };
    }();
    return table;
}

const float* LFO::table(std::int32_t waveform)
{
    const FormulaTables& f = formulaTables();
    switch (waveform) {
    case kSine: return f.sine;
    case kTri: return f.tri;
    case kSaw1: return f.saw1;
    case kSaw2: return qvd::lfo::kSaw2;
    case kSquare: return qvd::lfo::kSquare;
    case kRandom: return qvd::lfo::kRandom;
    default: return nullptr;
    }
}

LFO::LFO() : QVDAudioAlgorithm(parameterTable()), m_smoothing(SmoothingCoefficient::shared200ms())
{
    m_sampleRate = 48000;
    m_table.store(table(kSine), std::memory_order_relaxed);
}

bool LFO::initialise(float sampleRate, std::int32_t channelCount)
{
    QVDAudioAlgorithm::setChannelCount(channelCount);
    QVDAudioAlgorithm::setSampleRate(sampleRate >= 0.0f && sampleRate < 2e9f ? static_cast<std::int32_t>(sampleRate)
                                                                              : 0);
    for (const QVDParameterEntry& e : m_parameters)
        setParameter(static_cast<std::uint32_t>(e.definition().index), e.definition().defaultValue);
    return true;
}

void LFO::recomputeIncrement()
{
    const float f = m_frequency.load(std::memory_order_relaxed);
    const float hz = m_waveform.load(std::memory_order_relaxed) == kRandom ? f * 0.03125f : f;
    // Without a sample rate the phase stands still.
    float inc = m_sampleRate > 0 ? hz * 256.0f / static_cast<float>(m_sampleRate) : 0.0f;
    if (!(inc >= 0.0f))
        inc = 0.0f;
    else if (inc > kMaxIncrement)
        inc = kMaxIncrement;
    m_increment.store(inc, std::memory_order_relaxed);
}

bool LFO::setParameter(std::uint32_t index, float value)
{
    if (index >= kRowOf.size())
        return false;
    m_parameters[kRowOf[index]].exchange(value);
    constexpr auto relaxed = std::memory_order_relaxed;
    float v = 0.0f;
    switch (index) {
    case WAVEFORM: {
        // truncate(value + 0.5) within 0..5, decided before any conversion.
        const float r = value + 0.5f;
        if (!(r > -1.0f && r < 6.0f))
            return false;
        const auto w = static_cast<std::int32_t>(r);
        m_table.store(table(w), relaxed);
        m_waveform.store(w, relaxed);
        recomputeIncrement();
        return true;
    }
    case FREQ:
        if (!std::isnan(value)) {
            m_frequency.store(value, relaxed);
            recomputeIncrement();
        }
        return true;
    case ANGLE:
        return false;
    case WIDTH:
        if (clampValue(value, v)) {
            m_targetDepth.exchange(v);
            if (!m_smoothing.enabled())
                m_depth.store(v, relaxed);
        }
        return true;
    case OFFSET:
        if (clampValue(value, v))
            m_offset.store(v, relaxed);
        return true;
    case ALT_OUTPUT_OFFSET:
        if (clampValue(value, v))
            m_altTarget.store(v * 256.0f, relaxed);
        return true;
    default:
        return false;
    }
}

float LFO::getParameter(std::uint32_t index) const
{
    return index < kRowOf.size() ? m_parameters[kRowOf[index]].value() : 0.0f;
}

void LFO::reset()
{
    m_phase.store(0.0f, std::memory_order_relaxed);
    m_altOffset.store(0.0f, std::memory_order_relaxed);
}

float LFO::read(float p) const noexcept
{
    // [0, 512) is read as truncate(p) mod 256; anything else is wrapped first.
    if (!(p >= 0.0f && p < 512.0f)) {
        p -= 256.0f * std::floor(p / 256.0f);
        if (!(p >= 0.0f && p < 256.0f))
            p = 0.0f;
    }
    const float* t = m_table.load(std::memory_order_relaxed);
    const auto whole = static_cast<std::int32_t>(p);
    const float frac = p - static_cast<float>(whole);
    const std::int32_t i = whole & (kSteps - 1);
    return t[i] + frac * (t[i + 1] - t[i]);
}

double LFO::stepDepth() noexcept
{
    const double d = m_smoothing.a() * m_depth.load(std::memory_order_relaxed) +
                     m_smoothing.b() * static_cast<double>(m_targetDepth.load(std::memory_order_relaxed));
    m_depth.store(d, std::memory_order_relaxed);
    return d;
}

float LFO::nextValue() noexcept
{
    float p = m_phase.load(std::memory_order_relaxed);
    if (p < 0.0f)
        p += 256.0f;
    float v = read(p);
    if (m_waveform.load(std::memory_order_relaxed) == kRandom) {
        m_random1 = 0.98f * m_random1 + 0.02f * v;
        v = m_random1;
    }
    const double d = stepDepth();
    const float out = static_cast<float>(d) * v + m_offset.load(std::memory_order_relaxed);
    advance();
    return out;
}

float LFO::alternativeValue() noexcept
{
    const float target = m_altTarget.load(std::memory_order_relaxed);
    float current = m_altOffset.load(std::memory_order_relaxed);
    if (target - current > 0.03f)
        current += 0.03f;
    else if (target - current < -0.03f)
        current -= 0.03f;
    m_altOffset.store(current, std::memory_order_relaxed);
    float p = current + m_phase.load(std::memory_order_relaxed);
    if (p < 0.0f)
        p += 256.0f;
    float v = read(p);
    if (m_waveform.load(std::memory_order_relaxed) == kRandom) {
        m_random2 = 0.98f * m_random2 + 0.02f * v;
        v = m_random2;
    }
    const double d = stepDepth();
    return static_cast<float>(d) * v + m_offset.load(std::memory_order_relaxed);
}

void LFO::advance() noexcept
{
    float phase = m_phase.load(std::memory_order_relaxed) + m_increment.load(std::memory_order_relaxed);
    if (phase >= 256.0f)
        phase -= 256.0f;
    m_phase.store(phase, std::memory_order_relaxed);
}

float LFO::rawValue(float offset) const noexcept
{
    return read(m_phase.load(std::memory_order_relaxed) + offset);
}
