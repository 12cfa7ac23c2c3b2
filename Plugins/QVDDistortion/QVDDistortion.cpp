#include "QVDDistortion.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/BiQuad.h>
#include <SmoothingCoefficient.h>


QVD_REGISTER_AUDIO_PLUGIN(QVDDistortion)

namespace {

constexpr std::size_t kCurveFactor = 4;
// Shifting tanh off centre bends the two half-waves differently: the
// curve's even-order harmonics.
constexpr float kTubeBias = 0.35f;
constexpr double kDcBlockHz = 10.0;
constexpr double kTiltPivotHz = 700.0;

float onePole(double hz, double rate)
{
    return static_cast<float>(std::exp(-2.0 * M_PI * hz / rate));
}

} // namespace

std::vector<QVDParam> QVDDistortion::parameterRows()
{
    return {
        {.name = "DRIVE", .label = "Drive", .minimum = 0, .maximum = 36, .defaultValue = 12, .step = 0.1f,
         .unit = "dB"},
        qvdListParam("TYPE", "Type", {"Tube", "Fuzz", "Fold", "Bit Reduction", "Sample Rate Reduction"}, kTube),
        {.name = "BITS", .label = "Bits", .minimum = 1, .maximum = 24, .defaultValue = 8, .step = 1},
        {.name = "SAMPLE_RATE", .label = "Sample Rate", .minimum = 200, .maximum = 48000, .defaultValue = 8000,
         .step = 1, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "TONE", .label = "Tone", .minimum = -12, .maximum = 12, .defaultValue = 0, .step = 0.1f,
         .unit = "dB"},
        {.name = "LOW_CUT", .label = "Low Cut", .minimum = 10, .maximum = 1000, .defaultValue = 20, .step = 1,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "MIX", .label = "Mix", .minimum = 0, .maximum = 100, .defaultValue = 100, .step = 1,
         .unit = "%"},
        {.name = "OUTPUT", .label = "Output", .minimum = -24, .maximum = 12, .defaultValue = 0, .step = 0.1f,
         .unit = "dB"},
    };
}

void QVDDistortion::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case DRIVE: m_drive.store(shaper::gainOfDecibels(std::clamp(value, 0.0f, 36.0f)), relaxed); break;
    case TYPE: m_type.store(qvdListIndex(std::clamp(value, 0.0f, static_cast<float>(kSampleRate))), relaxed); break;
    case BITS: m_bits.store(qvdListIndex(std::clamp(value, 1.0f, 24.0f)), relaxed); break;
    case SAMPLE_RATE: m_reducedRate.store(std::clamp(value, 200.0f, 48000.0f), relaxed); break;
    case TONE: m_tiltDb.store(std::clamp(value, -12.0f, 12.0f), relaxed); break;
    case LOW_CUT: m_lowCutHz.store(std::clamp(value, 10.0f, 1000.0f), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case OUTPUT: m_output.store(shaper::gainOfDecibels(std::clamp(value, -24.0f, 12.0f)), relaxed); break;
    default: break;
    }
}

bool QVDDistortion::prepareProcessing()
{
    const auto channels = static_cast<std::size_t>(std::max(maxInputs(), maxOutputs()));
    m_chunk = std::max(blockSize(), 1);
    const auto chunk = static_cast<std::size_t>(m_chunk);
    const std::size_t latency = Oversampler::roundTripLatency(kCurveFactor);
    m_channels.clear();
    m_channels.resize(channels);
    for (Channel& ch : m_channels) {
        ch.curves = std::make_unique<Oversampler>(kCurveFactor, chunk);
        ch.reducer = std::make_unique<Oversampler>(1, chunk, latency);
        ch.dry.resize(latency);
        // Each path's output depends on at most this much of its input.
        ch.history.resize(2 * latency);
    }
    m_replay.assign(2 * latency, 0.0f);
    for (auto* run : {&m_dry, &m_wet, &m_driveRun, &m_mixRun, &m_outputRun})
        run->assign(chunk, 0.0f);
    const double rate = sampleRate();
    m_blockPole = onePole(kDcBlockHz, rate);
    m_tiltPole = onePole(kTiltPivotHz, rate);
    m_designedHz = 0.0f;
    resetState();
    return setLatency(latency);
}

void QVDDistortion::clearChannel(Channel& ch) noexcept
{
    ch.curves->reset();
    ch.reducer->reset();
    ch.dry.clear();
    ch.history.clear();
    ch.lowCut = BiQuadState{};
    ch.blockIn = ch.blockOut = ch.tiltLow = ch.held = 0.0f;
    ch.phase = 1.0;
}

void QVDDistortion::resetState() noexcept
{
    for (Channel& ch : m_channels)
        clearChannel(ch);
    const auto relaxed = std::memory_order_relaxed;
    m_driveGlide.jump(m_drive.load(relaxed));
    m_mixGlide.jump(m_mix.load(relaxed));
    m_outputGlide.jump(m_output.load(relaxed));
}

void QVDDistortion::render(const QVDBlock& block) noexcept
{
    const int type = m_type.load(std::memory_order_relaxed);
    if (type != m_activeType) {
        m_activeType = type;
        switchType(block.channels);
    }
    const float hz = m_lowCutHz.load(std::memory_order_relaxed);
    if (hz != m_designedHz) {
        m_lowCut = BiQuad::design(BiQuad::kHighPass, sampleRate(), hz, std::sqrt(0.5), 1.0);
        m_designedHz = hz;
    }
    for (std::int32_t done = 0; done < block.frames; done += m_chunk)
        renderChunk(block, done, std::min(m_chunk, block.frames - done));
}

void QVDDistortion::switchType(std::int32_t channels) noexcept
{
    // The path coming in holds history from its last spell: clear it and
    // replay what it missed, so it joins the outgoing one's output.
    for (Channel& ch : m_channels) {
        ch.curves->reset();
        ch.reducer->reset();
        ch.blockIn = ch.blockOut = 0.0f;
    }
    const auto chunk = static_cast<std::size_t>(m_chunk);
    for (std::int32_t c = 0; c < channels; ++c) {
        Channel& ch = m_channels[static_cast<std::size_t>(c)];
        ch.history.copyHeld(m_replay.data());
        for (std::size_t done = 0; done < m_replay.size(); done += chunk) {
            const std::size_t n = std::min(chunk, m_replay.size() - done);
            std::copy_n(m_replay.data() + done, n, m_wet.data());
            shapeChannel(ch, m_activeType, n);
        }
    }
}

void QVDDistortion::shapeChannel(Channel& ch, int type, std::size_t n) noexcept
{
    float* wet = m_wet.data();
    switch (type) {
    case kTube: {
        const float centre = std::tanh(kTubeBias);
        ch.curves->process(wet, wet, n, [centre](float x) { return std::tanh(x + kTubeBias) - centre; });
        // One-pole DC blocker.
        const float pole = m_blockPole;
        float in1 = ch.blockIn, out1 = ch.blockOut;
        for (std::size_t i = 0; i < n; ++i) {
            out1 = wet[i] - in1 + pole * out1;
            in1 = wet[i];
            wet[i] = out1;
        }
        ch.blockIn = in1;
        ch.blockOut = std::isfinite(out1) ? out1 : 0.0f;
        break;
    }
    case kFuzz:
        ch.curves->process(wet, wet, n, [](float x) { return std::copysign(1.0f - std::exp(-std::fabs(x)), x); });
        break;
    case kFold:
        // Past full scale the sine turns the wave back on itself, once per
        // further two units of drive.
        ch.curves->process(wet, wet, n, [](float x) { return std::sin(static_cast<float>(M_PI / 2.0) * x); });
        break;
    case kBits: {
        // 2^bits levels across [-1, 1], none at 0: the rounding error is
        // uniform over one step, so a full-scale sine keeps 6.02 N + 1.76 dB.
        const float step = std::ldexp(1.0f, 1 - m_bits.load(std::memory_order_relaxed));
        // Level and half step added apart: k + 0.5 no longer fits a float at 24 bits.
        const float half = 0.5f * step;
        const float top = 1.0f - half;
        ch.reducer->process(wet, wet, n, [step, half, top](float x) {
            return std::clamp(std::floor(x / step) * step + half, -top, top);
        });
        break;
    }
    default: {
        // Sample and hold at the reduced rate, no filter: the aliases are the sound.
        const double advance = std::min(1.0, static_cast<double>(m_reducedRate.load(std::memory_order_relaxed)) / sampleRate());
        ch.reducer->process(wet, wet, n, [&ch, advance](float x) {
            // The margin keeps rates that divide the host's from slipping a
            // sample when the sum of their steps rounds just below 1.
            ch.phase += advance;
            if (ch.phase >= 1.0 - 1e-9) {
                ch.phase -= 1.0;
                ch.held = x;
            }
            return ch.held;
        });
        break;
    }
    }
}

void QVDDistortion::renderChunk(const QVDBlock& block, std::int32_t offset, std::int32_t frames) noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    const auto n = static_cast<std::size_t>(frames);
    const SmoothingCoefficient& smoothing = SmoothingCoefficient::shared200ms();
    const double a = smoothing.a(), b = smoothing.b();
    const float* drive = m_driveGlide.fill(m_drive.load(relaxed), a, b, m_driveRun.data(), n);
    const float* output = m_outputGlide.fill(m_output.load(relaxed), a, b, m_outputRun.data(), n);
    const float mix = m_mix.load(relaxed);
    const bool mixSteady = m_mixGlide.run(mix, a, b, m_mixRun.data(), n);
    const float tilt = m_tiltDb.load(relaxed);
    const float lowGain = shaper::gainOfDecibels(-0.5f * tilt);
    const float highGain = shaper::gainOfDecibels(0.5f * tilt);
    const float tiltPole = m_tiltPole;
    float* dry = m_dry.data();
    float* wet = m_wet.data();

    for (std::int32_t c = 0; c < block.channels; ++c) {
        Channel& ch = m_channels[static_cast<std::size_t>(c)];
        const float* in = block.inputs[c] + offset;
        for (std::size_t i = 0; i < n; ++i)
            dry[i] = shaper::finiteOrZero(in[i]);
        BiQuad::run(m_lowCut, ch.lowCut, dry, wet, static_cast<std::uint32_t>(n));
        if (!std::isfinite(ch.lowCut.w1) || !std::isfinite(ch.lowCut.w2))
            ch.lowCut = BiQuadState{};
        for (std::size_t i = 0; i < n; ++i)
            wet[i] = std::clamp(wet[i] * drive[i], -shaper::kInputLimit, shaper::kInputLimit);
        ch.history.push(wet, n);
        shapeChannel(ch, m_activeType, n);

        // Tilt about the pivot: lows down as far as highs go up. Flat, the
        // band split would only add its rounding, but keeps running so a
        // later tilt starts from the current low band.
        float low = ch.tiltLow;
        const bool flat = lowGain == highGain;
        for (std::size_t i = 0; i < n; ++i) {
            low = wet[i] + tiltPole * (low - wet[i]);
            wet[i] = output[i] * (flat ? wet[i] : lowGain * low + highGain * (wet[i] - low));
        }
        ch.tiltLow = std::isfinite(low) ? low : 0.0f;

        ch.dry.process(dry, n);
        if (mixSteady)
            shaper::mixDryWet(dry, wet, block.outputs[c] + offset, n, mix);
        else
            shaper::mixDryWet(dry, wet, block.outputs[c] + offset, n, m_mixRun.data());
    }
}
