#include "QVDChorus.h"

#include <algorithm>
#include <cmath>

#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDChorus)

std::vector<QVDParam> QVDChorus::parameterRows()
{
    return {
        qvdListParam("VOICES", "Voices", {"1", "2", "3", "4"}, 1),
        {.name = "RATE", .label = "Rate", .minimum = 0.05f, .maximum = 5.0f, .defaultValue = 0.8f, .step = 0.01f,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "DEPTH", .label = "Depth", .maximum = kMaxDepthMs, .defaultValue = 3.0f, .step = 0.1f,
         .unit = "ms"},
        {.name = "DELAY", .label = "Delay", .minimum = 1.0f, .maximum = kMaxDelayMs, .defaultValue = 8.0f,
         .step = 0.1f, .unit = "ms"},
        {.name = "SPREAD", .label = "Stereo Spread", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f,
         .unit = "%"},
        {.name = "FEEDBACK", .label = "Feedback", .maximum = 90.0f, .step = 1.0f, .unit = "%"},
        {.name = "HIGH_CUT", .label = "High Cut", .minimum = 1000.0f, .maximum = kHighCutOff,
         .defaultValue = kHighCutOff, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f, .unit = "%"},
    };
}

QVDChorus::QVDChorus(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    m_lfo.initialise(48000.0f, 1);
}

void QVDChorus::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case VOICES: m_voices.store(1 + qvdListIndex(std::clamp(value, 0.0f, 3.0f)), relaxed); break;
    case RATE: m_lfo.setParameter(LFO::FREQ, std::clamp(value, 0.05f, 5.0f)); break;
    case DEPTH: m_depthMs.store(std::clamp(value, 0.0f, kMaxDepthMs), relaxed); break;
    case DELAY: m_delayMs.store(std::clamp(value, 1.0f, kMaxDelayMs), relaxed); break;
    case SPREAD: m_spread.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case FEEDBACK: m_feedback.store(std::clamp(value, 0.0f, 90.0f) / 100.0f, relaxed); break;
    case HIGH_CUT: m_highCut.store(std::clamp(value, 1000.0f, kHighCutOff), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    default: break;
    }
}

bool QVDChorus::prepareProcessing()
{
    const double rate = sampleRate();
    // The interpolator's far taps reach two samples past the longest delay.
    m_line.prepare(rate, static_cast<std::int32_t>(std::ceil((kMaxDelayMs + kMaxDepthMs) * 1e-3 * rate)) + 4);
    const float hz = m_lfo.getParameter(LFO::FREQ);
    m_lfo.initialise(static_cast<float>(rate), 1);
    // Initialise restores the oscillator's defaults: a sine at the set rate.
    m_lfo.setParameter(LFO::FREQ, hz);
    resetState();
    return true;
}

void QVDChorus::resetState() noexcept
{
    m_line.clear();
    m_lfo.reset();
    m_fresh = true;
    m_lowPassed[0] = m_lowPassed[1] = 0.0;
}

void QVDChorus::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    const int voices = m_voices.load(relaxed);
    // Each voice reads at delay + depth (1 + lfo) / 2: never outside [delay, delay + depth].
    const double base = m_delayMs.load(relaxed) * 1e-3 * rate;
    const double halfDepth = 0.5 * m_depthMs.load(relaxed) * 1e-3 * rate;
    // Full spread puts the right voices halfway between the left ones (half a
    // cycle for one voice); with an even count a plain half cycle would land
    // them on the left phases again.
    const float spacing = static_cast<float>(LFO::kSteps) / static_cast<float>(voices);
    const float sideOffset = 0.5f * spacing * m_spread.load(relaxed);
    float offsets[2][kMaxVoices];
    for (int v = 0; v < voices; ++v) {
        offsets[0][v] = spacing * static_cast<float>(v);
        offsets[1][v] = offsets[0][v] + sideOffset;
    }
    const float voiceGain = 1.0f / static_cast<float>(voices);
    const auto feedback = static_cast<float>(m_feedback.load(relaxed));
    const float highCut = m_highCut.load(relaxed);
    const bool highCutOn = highCut < kHighCutOff && highCut < 0.45f * static_cast<float>(rate);
    const double lp = highCutOn ? std::exp(-2.0 * M_PI * highCut / rate) : 0.0;
    const double mixTarget = m_mix.load(relaxed);
    if (m_fresh)
        m_mixState = mixTarget;
    m_fresh = false;
    const SmoothingCoefficient& smoothing = SmoothingCoefficient::shared200ms();
    const double a = smoothing.a(), b = smoothing.b();

    const float* inL = block.inputs[0];
    const float* inR = block.inputCount >= 2 ? block.inputs[1] : block.inputs[0];
    float* outL = block.outputs[0];
    float* outR = block.outputCount >= 2 ? block.outputs[1] : nullptr;
    double mix = m_mixState;
    // The oscillator's own sine table, read at each voice's phase here rather
    // than through a call per voice and sample.
    const float* table = LFO::table(LFO::kSine);
    for (std::int32_t n = 0; n < block.frames; ++n) {
        const float phase = m_lfo.phase();
        float wet[2];
        for (int c = 0; c < 2; ++c) {
            float sum = 0.0f;
            for (int v = 0; v < voices; ++v) {
                // phase < 256 and offsets < 384: the sum stays below 640.
                const float p = phase + offsets[c][v];
                const auto whole = static_cast<std::int32_t>(p);
                const float frac = p - static_cast<float>(whole);
                const std::int32_t i = whole & (LFO::kSteps - 1);
                const float lfo = table[i] + frac * (table[i + 1] - table[i]);
                sum += m_line.tap(c, base + halfDepth * (1.0 + lfo));
            }
            wet[c] = voiceGain * sum;
        }
        m_lfo.advance();
        const float dryL = inL[n], dryR = inR[n];
        m_line.write(dryL + feedback * wet[0], dryR + feedback * wet[1]);
        if (highCutOn)
            for (int c = 0; c < 2; ++c)
                wet[c] = static_cast<float>(m_lowPassed[c] = (1.0 - lp) * wet[c] + lp * m_lowPassed[c]);
        if (mix != mixTarget) {
            mix = a * mix + b * mixTarget;
            if (std::fabs(mix - mixTarget) < 1e-7)
                mix = mixTarget;
        }
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetGain = static_cast<float>(mix);
        outL[n] = dryGain * dryL + wetGain * wet[0];
        if (outR)
            outR[n] = dryGain * dryR + wetGain * wet[1];
    }
    m_mixState = mix;
    for (double& s : m_lowPassed)
        if (!std::isfinite(s))
            s = 0.0;
}
