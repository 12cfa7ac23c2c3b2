#include "BiQuad.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <QVDParameter.h>

namespace {
constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
} // namespace

bool BiQuadCoefficients::isNeutral() const
{
    return den2 == 0.0 && den1 == 0.0 && num2 == 0.0 && num1 == 0.0 && gain == 1.0;
}

bool BiQuadCoefficients::isStable() const
{
    if (!std::isfinite(den2) || !std::isfinite(den1) || !std::isfinite(num2) || !std::isfinite(num1)
        || !std::isfinite(gain))
        return false;
    // Denominator 1 + a1 z^-1 + a2 z^-2 with a1 = -den1, a2 = -den2: the
    // stability triangle |a2| < 1, |a1| < 1 + a2.
    const double a1 = -den1;
    const double a2 = -den2;
    return std::fabs(a2) < 1.0 && std::fabs(a1) < 1.0 + a2;
}

double BiQuadCoefficients::magnitude(double hz, double sampleRate) const
{
    const double w = kTwoPi * hz / sampleRate;
    const double c1 = std::cos(w), s1 = std::sin(w);
    const double c2 = std::cos(2.0 * w), s2 = std::sin(2.0 * w);
    // z^-1 = cos w - j sin w.
    const double nr = 1.0 + num1 * c1 + num2 * c2;
    const double ni = -(num1 * s1 + num2 * s2);
    const double dr = 1.0 - den1 * c1 - den2 * c2;
    const double di = den1 * s1 + den2 * s2;
    return std::fabs(gain) * std::sqrt((nr * nr + ni * ni) / (dr * dr + di * di));
}

const std::vector<QVDParameterDefinition>& BiQuad::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = [] {
        auto make = [](std::uint32_t index, const char* id, const char* label, std::int32_t kind,
                       std::int32_t scale, float minimum, float maximum, float defaultValue, float step,
                       const char* unit) {
            QVDParameterDefinition d;
            d.index = static_cast<std::int32_t>(index);
            d.identifier = QString::fromLatin1(id);
            d.label = qvdTranslate("BiQuad", label);
            d.kind = kind;
            d.scale = scale;
            d.minimum = minimum;
            d.maximum = maximum;
            d.defaultValue = defaultValue;
            d.step = step;
            d.unit = QString::fromLatin1(unit);
            d.buildValueTable();
            return d;
        };
        std::vector<QVDParameterDefinition> t;
        t.push_back(make(IN, "BiQuad::IN", "In", qvd::kSwitch, qvd::kLinear, 0.0f, 1.0f, 0.0f, 1.0f, ""));
        QVDParameterDefinition shape =
            make(SHAPE, "BiQuad::SHAPE", "Shape", qvd::kList, qvd::kLinear, 0.0f, 4.0f, 4.0f, 1.0f, "");
        // Six labels under a maximum of 4: "Notch" is reached by setting 5 directly.
        shape.options = QStringList{QStringLiteral("LPF"),    QStringLiteral("HPF"),  QStringLiteral("LShelf"),
                                    QStringLiteral("HShelf"), QStringLiteral("Bell"), QStringLiteral("Notch")};
        t.push_back(shape);
        t.push_back(make(GAIN, "BiQuad::GAIN", "Gain", qvd::kContinuous, qvd::kLinear, -18.0f, 18.0f, 0.0f, 0.1f,
                         "dB"));
        t.push_back(make(FREQ, "BiQuad::FREQ", "Freq", qvd::kContinuous, qvd::kLogarithmic, 20.0f, 22000.0f,
                         1000.0f, 1.0f, "Hz"));
        t.push_back(make(Q, "BiQuad::Q", "Q", qvd::kContinuous, qvd::kLinear, 0.1f, 15.0f, 1.5f, 1.0f, ""));
        return t;
    }();
    return table;
}

BiQuad::BiQuad() : QVDAudioAlgorithm(parameterTable())
{
    const BiQuadCoefficients neutral;
    m_published[0].store(neutral.den2, std::memory_order_relaxed);
    m_published[1].store(neutral.den1, std::memory_order_relaxed);
    m_published[2].store(neutral.num2, std::memory_order_relaxed);
    m_published[3].store(neutral.num1, std::memory_order_relaxed);
    m_published[4].store(neutral.gain, std::memory_order_relaxed);
}

BiQuad::~BiQuad() = default;

BiQuadCoefficients BiQuad::design(std::uint32_t kind, double fs, double f, double q, double linearGain)
{
    BiQuadCoefficients c;
    const double G = linearGain;
    double K = std::tan(kPi * f / fs);
    switch (kind) {
    case kLowPass:
    case kHighPass:
    case kBandPass: {
        const double D = K * K * q + K + q;
        c.den1 = 2.0 * q * (1.0 - K * K) / D;
        c.den2 = (K - K * K * q - q) / D;
        if (kind == kLowPass) {
            c.gain = K * K * q / D;
            c.num1 = 2.0;
            c.num2 = 1.0;
        } else if (kind == kHighPass) {
            c.gain = q / D;
            c.num1 = -2.0;
            c.num2 = 1.0;
        } else {
            // The bilinear band-pass with 0 dB at its centre.
            c.gain = K / D;
            c.num1 = 0.0;
            c.num2 = -1.0;
        }
        break;
    }
    case kBell: {
        // Q places the lower edge at f * (1 - 1/(2Q)); Q' is the warped Q that does so.
        const double qp = 0.5 * K / (K - std::tan((1.0 - 0.5 / q) * f * kPi / fs));
        const double A = std::sqrt(std::fabs(G));
        const double Dn = A * K + K * K * qp + qp;
        const double Dd = K * K * qp * A + K + qp * A;
        c.num2 = (K * K * qp - A * K + qp) / Dn;
        c.num1 = 2.0 * qp * (K * K - 1.0) / Dn;
        c.den2 = (K - K * K * qp * A - qp * A) / Dd;
        c.den1 = 2.0 * qp * A * (1.0 - K * K) / Dd;
        c.gain = (K * G + K * K * qp * A + qp * A) / Dd;
        break;
    }
    case kLowShelf: {
        if (G == 1.0)
            break;
        const double g0 = std::fabs(G);
        const double s = std::sqrt(g0);
        // Boosts only; a cut keeps the unwarped corner.
        if (g0 > 1.0)
            K = K / s;
        const double Dd = K * K * q + K + q;
        const double Dn = s * K + q * g0 * K * K + q;
        c.den1 = 2.0 * q * (1.0 - K * K) / Dd;
        c.den2 = (K - K * K * q - q) / Dd;
        c.num1 = 2.0 * q * (g0 * K * K - 1.0) / Dn;
        c.num2 = (q * g0 * K * K - s * K + q) / Dn;
        c.gain = Dn / Dd;
        break;
    }
    case kHighShelf: {
        if (G == 1.0)
            break;
        double g0 = std::fabs(G);
        double s;
        const double r = fs / (2.0 * f);
        if (g0 > r * r) {
            g0 = r * r;
            s = r;
        } else {
            s = std::sqrt(g0);
        }
        // Cuts only: the mirror image of the low shelf's warp, on purpose.
        if (g0 < 1.0)
            K = K / s;
        const double Dn = K + K * K * q + q;
        const double Dd = g0 * K * K * q + s * K + q;
        c.num2 = (K * K * q - K + q) / Dn;
        c.num1 = 2.0 * q * (K * K - 1.0) / Dn;
        c.den2 = (s * K - g0 * K * K * q - q) / Dd;
        c.den1 = 2.0 * q * (1.0 - g0 * K * K) / Dd;
        c.gain = g0 * Dn / Dd;
        break;
    }
    case kNotch: {
        // The one kind designed without prewarping.
        const double w = kTwoPi * f / fs;
        const double alpha = std::sin(w) / (2.0 * q);
        c.num2 = 1.0;
        c.num1 = -2.0 * std::cos(w);
        c.den2 = -(1.0 - alpha) / (1.0 + alpha);
        c.den1 = 2.0 * std::cos(w) / (1.0 + alpha);
        c.gain = 1.0 / (1.0 + alpha);
        break;
    }
    default:
        // Neutral, including the cascade: no parameter sets its extra corners.
        break;
    }
    return c;
}

std::uint32_t BiQuad::kindOfShape(float shape)
{
    // Checked before the conversion: NaN and huge values select nothing.
    if (!(shape > -1.0f && shape < 6.0f))
        return kNeutral;
    static constexpr std::uint32_t kKinds[6] = {kLowPass, kHighPass, kLowShelf, kHighShelf, kBell, kNotch};
    return kKinds[static_cast<int>(shape)];
}

void BiQuad::run(const BiQuadCoefficients& c, BiQuadState& s, const float* in, float* out,
                 std::uint32_t frames) noexcept
{
    const double gain = c.gain, den2 = c.den2, den1 = c.den1, num2 = c.num2, num1 = c.num1;
    double w1 = s.w1, w2 = s.w2;
    if (out) {
#pragma GCC unroll 4
        for (std::uint32_t i = 0; i < frames; ++i) {
            const double x = static_cast<double>(in[i]);
            const double w = gain * x + den2 * w2 + den1 * w1;
            const double y = w + num2 * w2 + num1 * w1;
            w2 = w1;
            w1 = (w + kFlush) - kFlush;
            out[i] = static_cast<float>(y);
        }
    } else {
#pragma GCC unroll 4
        for (std::uint32_t i = 0; i < frames; ++i) {
            const double x = static_cast<double>(in[i]);
            const double w = gain * x + den2 * w2 + den1 * w1;
            w2 = w1;
            w1 = (w + kFlush) - kFlush;
        }
    }
    s.w1 = w1;
    s.w2 = w2;
}

bool BiQuad::initialise(float sampleRate, std::int32_t channelCount)
{
    QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    setChannelCount(channelCount);
    reset();
    return true;
}

bool BiQuad::setChannelCount(std::int32_t channelCount)
{
    const std::int32_t n = std::max(0, channelCount);
    QVDAudioAlgorithm::setChannelCount(n);
    // New channels start from silence; the first ones keep their history.
    m_states.resize(static_cast<std::size_t>(n));
    return true;
}

void BiQuad::reset()
{
    std::fill(m_states.begin(), m_states.end(), BiQuadState{});
}

bool BiQuad::setParameter(std::uint32_t index, float value)
{
    if (index >= parameterCount())
        return false;
    m_parameters[index].exchange(value);
    switch (index) {
    case IN: {
        const bool in = value == 1.0f;
        if (in != m_in) {
            m_in = in;
            ++m_clearGeneration;
        }
        break;
    }
    case SHAPE:
        m_kind = kindOfShape(value);
        break;
    case GAIN:
        m_gain = std::pow(10.0, static_cast<double>(value) / 20.0);
        break;
    case FREQ:
        m_frequency = static_cast<double>(value);
        break;
    case Q:
        m_q = static_cast<double>(value);
        break;
    default:
        break;
    }
    redesign();
    return true;
}

void BiQuad::redesign()
{
    BiQuadCoefficients c;
    if (m_in)
        c = design(m_kind, static_cast<double>(m_sampleRate), m_frequency, m_q, m_gain);
    // Settings outside the filter's domain (a Q of 0, a frequency at or past
    // Nyquist, an unset rate) would give a set that rings up to infinity;
    // the band passes audio unchanged instead.
    if (!c.isStable())
        c = BiQuadCoefficients{};
    m_designed = c;
    publish();
}

void BiQuad::publish()
{
    // Sequence lock with one writer: odd while the set is being written.
    const std::uint32_t seq = m_sequence.load(std::memory_order_relaxed);
    m_sequence.store(seq + 1u, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    m_published[0].store(m_designed.den2, std::memory_order_relaxed);
    m_published[1].store(m_designed.den1, std::memory_order_relaxed);
    m_published[2].store(m_designed.num2, std::memory_order_relaxed);
    m_published[3].store(m_designed.num1, std::memory_order_relaxed);
    m_published[4].store(m_designed.gain, std::memory_order_relaxed);
    m_publishedClear.store(m_clearGeneration, std::memory_order_relaxed);
    m_sequence.store(seq + 2u, std::memory_order_release);
}

const BiQuadCoefficients& BiQuad::acquire() noexcept
{
    const std::uint32_t seq = m_sequence.load(std::memory_order_acquire);
    if (seq == m_activeSequence || (seq & 1u) != 0)
        return m_active;
    BiQuadCoefficients c;
    c.den2 = m_published[0].load(std::memory_order_relaxed);
    c.den1 = m_published[1].load(std::memory_order_relaxed);
    c.num2 = m_published[2].load(std::memory_order_relaxed);
    c.num1 = m_published[3].load(std::memory_order_relaxed);
    c.gain = m_published[4].load(std::memory_order_relaxed);
    const std::uint32_t clear = m_publishedClear.load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    // Torn by a write in progress: keep the previous set and look again next block.
    if (m_sequence.load(std::memory_order_relaxed) != seq)
        return m_active;
    m_active = c;
    m_activeSequence = seq;
    if (clear != m_activeClear) {
        m_activeClear = clear;
        std::fill(m_states.begin(), m_states.end(), BiQuadState{});
    }
    return m_active;
}

void BiQuad::recoverStates(std::uint32_t count) noexcept
{
    const std::size_t n = std::min<std::size_t>(count, m_states.size());
    for (std::size_t c = 0; c < n; ++c) {
        BiQuadState& s = m_states[c];
        if (!std::isfinite(s.w1) || !std::isfinite(s.w2))
            s = BiQuadState{};
    }
}

bool BiQuad::processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept
{
    const BiQuadCoefficients& c = acquire();
    if (channel >= m_states.size()) {
        std::memset(samples, 0, static_cast<std::size_t>(frames) * sizeof(float));
        return true;
    }
    if (c.isNeutral())
        return true;
    BiQuadState& s = m_states[channel];
    run(c, s, samples, samples, frames);
    if (!std::isfinite(s.w1) || !std::isfinite(s.w2))
        s = BiQuadState{};
    return true;
}

bool BiQuad::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    return processChannels(channels, static_cast<std::uint32_t>(std::max(0, m_channelCount)), frames);
}

bool BiQuad::processChannels(float* const* channels, std::uint32_t count, std::uint32_t frames) noexcept
{
    return process(channels, channels, count, frames);
}

bool BiQuad::process(const float* const* inputs, float* const* outputs, std::uint32_t count,
                     std::uint32_t frames) noexcept
{
    if (!inputs)
        return false;
    const BiQuadCoefficients& c = acquire();
    const bool neutral = c.isNeutral();
    for (std::uint32_t ch = 0; ch < count; ++ch) {
        const float* in = inputs[ch];
        float* out = outputs ? outputs[ch] : nullptr;
        if (ch >= m_states.size()) {
            if (out)
                std::memset(out, 0, static_cast<std::size_t>(frames) * sizeof(float));
            continue;
        }
        // A neutral band is an exact pass-through (-0 and NaN included) and
        // leaves its state alone.
        if (neutral) {
            if (out && out != in)
                std::memmove(out, in, static_cast<std::size_t>(frames) * sizeof(float));
            continue;
        }
        run(c, m_states[ch], in, out, frames);
    }
    recoverStates(count);
    return true;
}
