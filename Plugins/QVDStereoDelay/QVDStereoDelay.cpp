#include "QVDStereoDelay.h"

#include <Algorithms/Glide.h>
#include <Algorithms/NoteValue.h>

#include <algorithm>
#include <cmath>

#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDStereoDelay)

namespace {

// Feedback and the loop filters settle in about 20 ms: an automation step
// becomes a sweep of the repeats' level and colour, not a click.
constexpr double kGlideSeconds = 0.020;

} // namespace

std::vector<QVDParam> QVDStereoDelay::parameterRows()
{
    return {
        {.name = "TIME_L", .label = "Time Left", .minimum = 1.0f, .maximum = 4000.0f, .defaultValue = 375.0f,
         .step = 0.1f, .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "TIME_R", .label = "Time Right", .minimum = 1.0f, .maximum = 4000.0f, .defaultValue = 500.0f,
         .step = 0.1f, .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "FEEDBACK", .label = "Feedback", .maximum = 100.0f, .defaultValue = 35.0f, .step = 0.1f,
         .unit = "%"},
        {.name = "CROSSFEED", .label = "Cross-feed", .maximum = 100.0f, .step = 1.0f, .unit = "%"},
        {.name = "LOW_CUT", .label = "Low Cut", .minimum = kLowCutOff, .maximum = 2000.0f,
         .defaultValue = kLowCutOff, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "HIGH_CUT", .label = "High Cut", .minimum = 1000.0f, .maximum = kHighCutOff,
         .defaultValue = kHighCutOff, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "DUCK", .label = "Ducking", .maximum = 24.0f, .step = 0.1f, .unit = "dB"},
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 35.0f, .step = 1.0f, .unit = "%"},
        qvdListParam("NOTE_L", "Sync Left", qvd::notes::syncLabels(), 0),
        qvdListParam("NOTE_R", "Sync Right", qvd::notes::syncLabels(), 0),
    };
}

float QVDStereoDelay::limit(float x) noexcept
{
    constexpr float knee = 0.5f;
    constexpr float room = 0.98f - knee;
    const float a = std::fabs(x);
    if (a <= knee)
        return x;
    // u / (1 + u) meets the line with slope 1 and approaches the ceiling.
    const float u = (a - knee) / room;
    return std::copysign(knee + room * u / (1.0f + u), x);
}

void QVDStereoDelay::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case TIME_L:
    case TIME_R: m_timeMs[index].store(std::clamp(value, 1.0f, 4000.0f), relaxed); break;
    case FEEDBACK: m_feedback.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case CROSSFEED: m_crossfeed.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case LOW_CUT: m_lowCut.store(std::clamp(value, kLowCutOff, 2000.0f), relaxed); break;
    case HIGH_CUT: m_highCut.store(std::clamp(value, 1000.0f, kHighCutOff), relaxed); break;
    case DUCK: m_duckDb.store(std::clamp(value, 0.0f, 24.0f), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case NOTE_L:
    case NOTE_R:
        m_note[index - NOTE_L].store(qvdListIndex(std::clamp(value, 0.0f, static_cast<float>(qvd::notes::kCount))),
                                     relaxed);
        break;
    default: break;
    }
}

bool QVDStereoDelay::prepareProcessing()
{
    const double rate = sampleRate();
    m_delay.prepare(rate, static_cast<std::int32_t>(std::ceil(kMaxSeconds * rate)));
    // The duck follows the input in 5 ms and lets go over 250 ms.
    m_attack = std::exp(-1.0 / (rate * 0.005));
    m_release = std::exp(-1.0 / (rate * 0.250));
    m_glide = std::exp(-1.0 / (kGlideSeconds * rate));
    m_controlGlide = std::exp(-kControlPeriod / (kGlideSeconds * rate));
    resetState();
    return true;
}

void QVDStereoDelay::resetState() noexcept
{
    m_delay.clear();
    m_fresh = true;
    m_envelope = 0.0;
    m_countdown = 0;
    for (int c = 0; c < 2; ++c)
        m_lowPassed[c] = m_lowCutState[c] = 0.0;
}

double QVDStereoDelay::pole(float hz) const noexcept
{
    return std::exp(-2.0 * M_PI * static_cast<double>(hz) / static_cast<double>(sampleRate()));
}

void QVDStereoDelay::stepTowards(double& octave, double target, double& pole, double& step) const noexcept
{
    if (octave == target) {
        // Arrived: the pole lands on the corner's own value and stays.
        if (step != 0.0) {
            pole = this->pole(static_cast<float>(std::exp2(target)));
            step = 0.0;
        }
        return;
    }
    octave = glideTo(octave, target, m_controlGlide);
    step = (this->pole(static_cast<float>(std::exp2(octave))) - pole) / kControlPeriod;
}

void QVDStereoDelay::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    // A synced line takes its note's length at the host's tempo; without a
    // tempo from the host it keeps its free time.
    double bpm = 0.0;
    std::int32_t numerator = 4, denominator = 4;
    const bool tempo = hostTempo(block.record, bpm, numerator, denominator);
    for (int c = 0; c < 2; ++c) {
        const int note = m_note[c].load(relaxed);
        const double seconds = note > 0 && tempo ? std::min(qvd::notes::seconds(note - 1, bpm), 4.0)
                                                 : m_timeMs[c].load(relaxed) * 1e-3;
        m_delay.setDelay(c, std::round(seconds * rate), !m_fresh);
    }
    const double mixTarget = m_mix.load(relaxed);
    if (m_fresh)
        m_mixState = mixTarget;
    const bool freshLoop = m_fresh;
    m_fresh = false;

    const double feedbackTarget = m_feedback.load(relaxed);
    const float cross = m_crossfeed.load(relaxed);
    const float lowCut = m_lowCut.load(relaxed);
    const float highCut = m_highCut.load(relaxed);
    // Both filters always run; an off one fades out of the loop and then
    // drops out exactly, so repeats keep their exact ratio. An off one's
    // corner heads for the end of its range, where fading it in is seamless.
    const double topHz = std::min(static_cast<double>(kHighCutOff), 0.45 * rate);
    const double lowAmountTarget = lowCut > kLowCutOff ? 1.0 : 0.0;
    const double highAmountTarget = highCut < kHighCutOff && highCut < topHz ? 1.0 : 0.0;
    const double lowTarget = std::log2(static_cast<double>(lowCut));
    const double highTarget = std::log2(std::min(static_cast<double>(highCut), topHz));
    if (freshLoop) {
        m_feedbackState = feedbackTarget;
        m_lowAmount = lowAmountTarget;
        m_highAmount = highAmountTarget;
        m_lowOctave = lowTarget;
        m_highOctave = highTarget;
        m_hp = pole(static_cast<float>(std::exp2(m_lowOctave)));
        m_lp = pole(static_cast<float>(std::exp2(m_highOctave)));
        m_hpStep = m_lpStep = 0.0;
        m_countdown = 0;
    }
    const double duckDb = m_duckDb.load(relaxed);
    const bool ducking = duckDb > 0.0;
    const double duckDepth = 1.0 - std::pow(10.0, -duckDb / 20.0);
    const SmoothingCoefficient& smoothing = SmoothingCoefficient::shared200ms();
    const double a = smoothing.a(), b = smoothing.b();

    const bool stereo = block.inputCount >= 2;
    const float* inL = block.inputs[0];
    const float* inR = stereo ? block.inputs[1] : block.inputs[0];
    float* outL = block.outputs[0];
    float* outR = block.outputCount >= 2 ? block.outputs[1] : nullptr;
    // A filter that is out of the loop and staying out costs nothing; it
    // starts again from rest, which its fade-in hides.
    const bool lowRuns = m_lowAmount != 0.0 || lowAmountTarget != 0.0;
    const bool highRuns = m_highAmount != 0.0 || highAmountTarget != 0.0;
    for (int c = 0; c < 2; ++c) {
        if (!lowRuns)
            m_lowCutState[c] = 0.0;
        if (!highRuns)
            m_lowPassed[c] = 0.0;
    }
    double env = m_envelope;
    double mix = m_mixState;
    for (std::int32_t n = 0; n < block.frames; ++n) {
        const float dryL = inL[n], dryR = inR[n];
        float wet[2];
        m_delay.read(wet[0], wet[1]);
        if (m_countdown == 0) {
            // Corners glide in octaves every few frames, counted from the
            // stream's start; the poles ramp straight between those points
            // and land exactly once the corner has arrived.
            stepTowards(m_lowOctave, lowTarget, m_hp, m_hpStep);
            stepTowards(m_highOctave, highTarget, m_lp, m_lpStep);
            m_countdown = kControlPeriod;
        }
        --m_countdown;
        m_hp += m_hpStep;
        m_lp += m_lpStep;
        if (m_feedbackState != feedbackTarget)
            m_feedbackState = glideTo(m_feedbackState, feedbackTarget, m_glide);
        if (m_lowAmount != lowAmountTarget)
            m_lowAmount = glideTo(m_lowAmount, lowAmountTarget, m_glide);
        if (m_highAmount != highAmountTarget)
            m_highAmount = glideTo(m_highAmount, highAmountTarget, m_glide);
        const auto feedback = static_cast<float>(m_feedbackState);
        float back[2];
        for (int c = 0; c < 2; ++c) {
            // Each line feeds back its own echo, or with cross-feed the other's.
            double v = (1.0f - cross) * wet[c] + cross * wet[1 - c];
            if (highRuns) {
                m_lowPassed[c] = (1.0 - m_lp) * v + m_lp * m_lowPassed[c];
                v += m_highAmount * (m_lowPassed[c] - v);
            }
            if (lowRuns) {
                m_lowCutState[c] = (1.0 - m_hp) * v + m_hp * m_lowCutState[c];
                v -= m_lowAmount * m_lowCutState[c];
            }
            back[c] = limit(feedback * static_cast<float>(v));
        }
        m_delay.write(dryL + back[0], dryR + back[1]);

        if (mix != mixTarget) {
            mix = a * mix + b * mixTarget;
            if (std::fabs(mix - mixTarget) < 1e-7)
                mix = mixTarget;
        }
        double wetGain = mix;
        if (ducking) {
            const double level = std::max(std::fabs(dryL), std::fabs(dryR));
            env = level > env ? m_attack * env + (1.0 - m_attack) * level : m_release * env;
            // Full reduction from -12 dBFS of input up, linear in the envelope below.
            wetGain *= 1.0 - duckDepth * std::min(1.0, env * 4.0);
        }
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetF = static_cast<float>(wetGain);
        outL[n] = dryGain * dryL + wetF * wet[0];
        if (outR)
            outR[n] = dryGain * dryR + wetF * wet[1];
    }
    if (!std::isfinite(env))
        env = 0.0;
    m_envelope = env;
    m_mixState = mix;
    for (int c = 0; c < 2; ++c) {
        if (!std::isfinite(m_lowPassed[c]))
            m_lowPassed[c] = 0.0;
        if (!std::isfinite(m_lowCutState[c]))
            m_lowCutState[c] = 0.0;
    }
}
