#include "QVDStereoWidth.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <Algorithms/BiQuad.h>
#include <Algorithms/Crossover.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDStereoWidth)

std::vector<QVDParam> QVDStereoWidth::parameterRows()
{
    return {
        {.name = "WIDTH", .label = "Width", .minimum = 0.0f, .maximum = 200.0f, .defaultValue = 100.0f,
         .step = 1.0f, .unit = "%"},
        qvdSwitchParam("BASS_MONO", "Bass Mono", false),
        {.name = "BASS_FREQ", .label = "Bass Mono Below", .minimum = 40.0f, .maximum = 500.0f,
         .defaultValue = 120.0f, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "BALANCE", .label = "Balance", .minimum = -100.0f, .maximum = 100.0f, .step = 1.0f,
         .unit = "%"},
        qvdSwitchParam("INVERT_L", "Invert Left", false),
        qvdSwitchParam("INVERT_R", "Invert Right", false),
        qvdSwitchParam("SWAP", "Swap", false),
        qvdSwitchParam("MONO", "Mono Check", false),
    };
}

QVDStereoWidth::QVDStereoWidth(const QVDPluginDescriptor* descriptor, void* hostContext,
                               qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    setMeterGroupSize(addMeterGroup(QStringLiteral("Correlation"), 1), 1);
}

void QVDStereoWidth::parameterChanged(std::uint32_t index, float value)
{
    // NaN leaves every setting where it was.
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case WIDTH: m_width.store(std::clamp(value, 0.0f, 200.0f) / 100.0f, relaxed); break;
    case BASS_MONO: m_bassMono.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case BASS_FREQ: m_bassHz.store(std::clamp(value, 40.0f, 500.0f), relaxed); break;
    case BALANCE: m_balance.store(std::clamp(value, -100.0f, 100.0f) / 100.0f, relaxed); break;
    case INVERT_L: m_invertL.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case INVERT_R: m_invertR.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case SWAP: m_swap.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case MONO: m_mono.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    default: break;
    }
}

bool QVDStereoWidth::prepareProcessing()
{
    m_sideBuffer.assign(static_cast<std::size_t>(blockSize()), 0.0f);
    // Correlation sums average over about 300 ms.
    m_corrPole = std::exp(-1.0 / (static_cast<double>(sampleRate()) * 0.3));
    m_designedHz = 0.0f;
    resetState();
    return true;
}

void QVDStereoWidth::resetState() noexcept
{
    m_fresh = true;
    for (BiQuadState& s : m_state)
        s = BiQuadState{};
    m_sumLR = m_sumLL = m_sumRR = 0.0;
}

StereoMatrix QVDStereoWidth::target() const noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    StereoMatrix m = StereoMatrix::polarity(m_invertL.load(relaxed), m_invertR.load(relaxed));
    if (m_swap.load(relaxed))
        m = StereoMatrix::swap() * m;
    m = StereoMatrix::width(m_width.load(relaxed)) * m;
    return m;
}

void QVDStereoWidth::bassMono(float* left, float* right, std::int32_t frames) noexcept
{
    const float hz = m_bassHz.load(std::memory_order_relaxed);
    if (hz != m_designedHz) {
        // Butterworth sections squared make a Linkwitz-Riley pair whose sum is
        // the all-pass with the low pass's poles.
        m_lowPass = BiQuad::design(BiQuad::kLowPass, sampleRate(), hz, std::sqrt(0.5), 1.0);
        m_allPass = Crossover::allPassOf(m_lowPass);
        m_designedHz = hz;
    }
    // Low(M) + High(L) = AllPass(L) - Low(S) by linearity, with S = (L - R)/2:
    // one Linkwitz-Riley low pass on the side instead of a full split per channel.
    const auto n = static_cast<std::uint32_t>(frames);
    float* side = m_sideBuffer.data();
    for (std::int32_t i = 0; i < frames; ++i)
        side[i] = 0.5f * (left[i] - right[i]);
    BiQuad::run(m_lowPass, m_state[0], side, side, n);
    BiQuad::run(m_lowPass, m_state[1], side, side, n);
    BiQuad::run(m_allPass, m_state[2], left, left, n);
    BiQuad::run(m_allPass, m_state[3], right, right, n);
    for (BiQuadState& s : m_state)
        if (!std::isfinite(s.w1) || !std::isfinite(s.w2))
            s = BiQuadState{};
    for (std::int32_t i = 0; i < frames; ++i) {
        left[i] -= side[i];
        right[i] += side[i];
    }
}

void QVDStereoWidth::measureCorrelation(const float* left, const float* right, std::int32_t frames) noexcept
{
    const double p = m_corrPole;
    double lr = m_sumLR, ll = m_sumLL, rr = m_sumRR;
    for (std::int32_t i = 0; i < frames; ++i) {
        const double l = left[i], r = right[i];
        lr = p * lr + l * r;
        ll = p * ll + l * l;
        rr = p * rr + r * r;
    }
    if (!std::isfinite(lr) || !std::isfinite(ll) || !std::isfinite(rr))
        lr = ll = rr = 0.0;
    m_sumLR = lr, m_sumLL = ll, m_sumRR = rr;
    const double energy = std::sqrt(ll * rr);
    // Silence reads as fully correlated: nothing is out of phase.
    const double r = energy > 1e-12 ? std::clamp(lr / energy, -1.0, 1.0) : 1.0;
    m_correlation.store(static_cast<float>(r), std::memory_order_relaxed);
    // The meter shows levels up to 0 dB: +1 reads full scale, -1 silence.
    setMeterLevel(kCorrelationMeter, 0, static_cast<float>(0.5 * (r + 1.0)));
}

void QVDStereoWidth::render(const QVDBlock& block) noexcept
{
    if (block.channels < 2) {
        // A single channel has no stereo image: it passes unchanged.
        for (std::int32_t c = 0; c < block.channels; ++c)
            if (block.outputs[c] != block.inputs[c])
                std::memcpy(block.outputs[c], block.inputs[c], static_cast<std::size_t>(block.frames) * sizeof(float));
        return;
    }
    const auto relaxed = std::memory_order_relaxed;
    const SmoothingCoefficient& smoothing = SmoothingCoefficient::shared200ms();
    const double a = smoothing.a();
    const double b = smoothing.b();
    float* left = block.outputs[0];
    float* right = block.outputs[1];

    const bool bass = m_bassMono.load(relaxed);
    StereoMatrix m = target();
    StereoMatrix after = StereoMatrix::balance(m_balance.load(relaxed));
    if (m_mono.load(relaxed))
        after = StereoMatrix::mono() * after;
    // Without the split both stages fold into one matrix.
    if (!bass)
        m = after * m;
    if (m_fresh) {
        m_mixer.jump(m);
        m_after.jump(after);
        m_fresh = false;
    }
    m_mixer.process(m, a, b, block.inputs[0], block.inputs[1], left, right, block.frames);
    if (bass) {
        bassMono(left, right, block.frames);
        m_after.process(after, a, b, left, right, left, right, block.frames);
    } else {
        // Folded into the first stage: the second starts from here when the split comes on.
        m_after.jump(after);
    }
    measureCorrelation(left, right, block.frames);
}
