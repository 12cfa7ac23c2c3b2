#include "QVDChorus.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Glide.h>
#include <Algorithms/LFO.h>
#include <Algorithms/NoteValue.h>
#include <Algorithms/WaveTable.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDChorus)

namespace {

// Each of the two one-poles of the delay and depth glide takes 20 ms: a jump
// over the whole delay range peaks near half a sample per sample.
constexpr double kGlideSeconds = 0.020;
// A raised-cosine fade this long moves between voice counts without a kink.
constexpr double kVoiceFadeSeconds = 0.020;

} // namespace

std::vector<QVDParam> QVDChorus::parameterRows()
{
    return {
        qvdListParam("VOICES", "Voices", {"1", "2", "3", "4"}, 1),
        {.name = "RATE", .label = "Rate", .minimum = 0.05f, .maximum = 5.0f, .defaultValue = 0.8f, .step = 0.01f,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "DEPTH", .label = "Depth", .maximum = kMaxDepthMs, .defaultValue = 3.0f, .step = 0.1f,
         .unit = "ms"},
        {.name = "DELAY", .label = "Delay", .minimum = kMinDelayMs, .maximum = kMaxDelayMs, .defaultValue = 8.0f,
         .step = 0.1f, .unit = "ms"},
        {.name = "SPREAD", .label = "Stereo Spread", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f,
         .unit = "%"},
        {.name = "FEEDBACK", .label = "Feedback", .maximum = 90.0f, .step = 1.0f, .unit = "%"},
        {.name = "HIGH_CUT", .label = "High Cut", .minimum = 1000.0f, .maximum = kHighCutOff,
         .defaultValue = kHighCutOff, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f, .unit = "%"},
        qvdListParam("SYNC", "Sync", qvd::notes::syncLabels(), 0),
    };
}

void QVDChorus::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case VOICES: m_voices.store(1 + qvdListIndex(std::clamp(value, 0.0f, 3.0f)), relaxed); break;
    case RATE: m_rateHz.store(std::clamp(value, 0.05f, 5.0f), relaxed); break;
    case DEPTH: m_depthMs.store(std::clamp(value, 0.0f, kMaxDepthMs), relaxed); break;
    case DELAY: m_delayMs.store(std::clamp(value, kMinDelayMs, kMaxDelayMs), relaxed); break;
    case SPREAD: m_spread.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case FEEDBACK: m_feedback.store(std::clamp(value, 0.0f, 90.0f) / 100.0f, relaxed); break;
    case HIGH_CUT: m_highCut.store(std::clamp(value, 1000.0f, kHighCutOff), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case SYNC: m_sync.store(qvdListIndex(std::clamp(value, 0.0f, float(qvd::notes::kCount))), relaxed); break;
    default: break;
    }
}

bool QVDChorus::prepareProcessing()
{
    const double rate = sampleRate();
    // The interpolator's far taps reach two samples past the longest delay.
    m_line.prepare(rate, static_cast<std::int32_t>(std::ceil((kMaxDelayMs + kMaxDepthMs) * 1e-3 * rate)) + 4);
    // A read `d` frames back within a period of `p` frames needs d - p + 1 >= 2.
    const auto shortest = static_cast<int>(std::floor(kMinDelayMs * 1e-3 * rate));
    m_period = std::clamp(shortest - 1, 1, kMaxPeriod);
    m_controlGlide = std::exp(-m_period / (kGlideSeconds * rate));
    m_fadeLength = std::max(1, static_cast<int>(std::lround(kVoiceFadeSeconds * rate)));
    resetState();
    return true;
}

void QVDChorus::resetState() noexcept
{
    m_line.clear();
    m_phase = 0.0;
    m_countdown = 0;
    m_fresh = true;
    m_fadeLeft = 0;
    m_lowPassed[0] = m_lowPassed[1] = 0.0;
}

double QVDChorus::lfoIncrement(const QVDBlock& block) const noexcept
{
    const int sync = m_sync.load(std::memory_order_relaxed);
    double bpm = 0.0;
    std::int32_t numerator = 4, denominator = 4;
    if (sync > 0 && hostTempo(block.record, bpm, numerator, denominator))
        return 1.0 / (qvd::notes::seconds(sync - 1, bpm) * sampleRate());
    return m_rateHz.load(std::memory_order_relaxed) / sampleRate();
}

void QVDChorus::controlPoint(double increment, int voices, bool jump) noexcept
{
    const double g = m_controlGlide;
    m_delay[0] = glideTo(m_delay[0], m_delayTarget, g);
    m_delay[1] = glideTo(m_delay[1], m_delay[0], g);
    m_halfDepth[0] = glideTo(m_halfDepth[0], m_halfDepthTarget, g);
    m_halfDepth[1] = glideTo(m_halfDepth[1], m_halfDepth[0], g);
    m_side = glideTo(m_side, m_sideTarget, g);
    m_phase += increment * m_period;
    m_phase -= std::floor(m_phase);
    aimVoices(m_read, m_step, voices, jump);
    if (m_fadeLeft > 0)
        aimVoices(m_readOld, m_stepOld, m_fadeVoices, false);
}

void QVDChorus::aimVoices(Reads& read, Reads& step, int voices, bool jump) const noexcept
{
    const float* table = LFO::table(LFO::kSine);
    const double spacing = 1.0 / voices;
    const double delay = m_delay[1], halfDepth = m_halfDepth[1];
    const double limit = m_line.capacity();
    for (int c = 0; c < 2; ++c)
        for (int v = 0; v < voices; ++v) {
            // Below one cycle and a half: inside the table reader's range.
            const double offset = spacing * v + (c == 1 ? m_side * spacing : 0.0);
            const double lfo = waveAt(table, m_phase + offset);
            // Delay + depth (1 + lfo) / 2: never outside [delay, delay + depth].
            const double next = std::min(delay + halfDepth * (1.0 + lfo), limit);
            if (jump)
                read[c][v] = next;
            step[c][v] = (next - read[c][v]) / m_period;
        }
}

template <int voices>
void QVDChorus::readVoices(Reads& read, const Reads& step, int frames, float (*wet)[kMaxPeriod]) const noexcept
{
    constexpr float gain = 1.0f / voices;
    for (int c = 0; c < 2; ++c) {
        double at[voices];
        for (int v = 0; v < voices; ++v)
            at[v] = read[c][v];
        // Frame k reads as if k frames had been written already. Taking the
        // whole k off is exact, so any block split gives the same reads.
        double written = 0.0;
        for (int k = 0; k < frames; ++k, written += 1.0) {
            float sum = 0.0f;
            for (int v = 0; v < voices; ++v) {
                at[v] += step[c][v];
                sum += m_line.tap(c, at[v] - written);
            }
            wet[c][k] = gain * sum;
        }
        for (int v = 0; v < voices; ++v)
            read[c][v] = at[v];
    }
}

void QVDChorus::readSet(int voices, Reads& read, const Reads& step, int frames,
                        float (*wet)[kMaxPeriod]) const noexcept
{
    switch (voices) {
    case 1: readVoices<1>(read, step, frames, wet); break;
    case 2: readVoices<2>(read, step, frames, wet); break;
    case 3: readVoices<3>(read, step, frames, wet); break;
    default: readVoices<4>(read, step, frames, wet); break;
    }
}

void QVDChorus::fadeVoices(int frames, float (*wet)[kMaxPeriod]) noexcept
{
    float old[2][kMaxPeriod];
    readSet(m_fadeVoices, m_readOld, m_stepOld, frames, old);
    const double length = m_fadeLength;
    for (int k = 0; k < frames; ++k) {
        // Counted in frames from the change, so any block split fades alike.
        const int done = m_fadeLength - m_fadeLeft + k + 1;
        const float x = done >= m_fadeLength ? 1.0f : static_cast<float>(0.5 - 0.5 * std::cos(M_PI * done / length));
        for (int c = 0; c < 2; ++c)
            wet[c][k] = old[c][k] + x * (wet[c][k] - old[c][k]);
    }
    m_fadeLeft = std::max(0, m_fadeLeft - frames);
}

void QVDChorus::renderSegment(const QVDBlock& block, std::int32_t n, int frames, int voices,
                              const Settings& settings) noexcept
{
    float wet[2][kMaxPeriod];
    readSet(voices, m_read, m_step, frames, wet);
    if (m_fadeLeft > 0)
        fadeVoices(frames, wet);

    const float* inL = block.inputs[0] + n;
    const float* inR = (block.inputCount >= 2 ? block.inputs[1] : block.inputs[0]) + n;
    for (int k = 0; k < frames; ++k)
        m_line.write(inL[k] + settings.feedback * wet[0][k], inR[k] + settings.feedback * wet[1][k]);
    if (settings.lowPass > 0.0) {
        const double lp = settings.lowPass;
        for (int c = 0; c < 2; ++c) {
            double state = m_lowPassed[c];
            for (int k = 0; k < frames; ++k)
                wet[c][k] = static_cast<float>(state = (1.0 - lp) * wet[c][k] + lp * state);
            m_lowPassed[c] = state;
        }
    }

    float* outL = block.outputs[0] + n;
    float* outR = block.outputCount >= 2 ? block.outputs[1] + n : nullptr;
    double mix = m_mixState;
    if (mix == settings.mix) {
        // Settled: one pair of gains for the whole segment.
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetGain = static_cast<float>(mix);
        for (int k = 0; k < frames; ++k)
            outL[k] = dryGain * inL[k] + wetGain * wet[0][k];
        if (outR)
            for (int k = 0; k < frames; ++k)
                outR[k] = dryGain * inR[k] + wetGain * wet[1][k];
        return;
    }
    for (int k = 0; k < frames; ++k) {
        mix = glideTo(mix, settings.mix, settings.mixGlide);
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetGain = static_cast<float>(mix);
        outL[k] = dryGain * inL[k] + wetGain * wet[0][k];
        if (outR)
            outR[k] = dryGain * inR[k] + wetGain * wet[1][k];
    }
    m_mixState = mix;
}

void QVDChorus::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    const int voices = m_voices.load(relaxed);
    m_delayTarget = m_delayMs.load(relaxed) * 1e-3 * rate;
    m_halfDepthTarget = 0.5 * m_depthMs.load(relaxed) * 1e-3 * rate;
    // Full spread puts the right voices halfway between the left ones (half a
    // cycle for one voice); with an even count a plain half cycle would land
    // them on the left phases again.
    m_sideTarget = 0.5 * m_spread.load(relaxed);
    const double increment = lfoIncrement(block);
    const float highCut = m_highCut.load(relaxed);
    const bool highCutOn = highCut < kHighCutOff && highCut < 0.45f * static_cast<float>(rate);
    const Settings settings{.feedback = m_feedback.load(relaxed),
                            .lowPass = highCutOn ? std::exp(-2.0 * M_PI * highCut / rate) : 0.0,
                            .mix = m_mix.load(relaxed),
                            .mixGlide = SmoothingCoefficient::shared200ms().a()};
    if (m_fresh) {
        m_delay[0] = m_delay[1] = m_delayTarget;
        m_halfDepth[0] = m_halfDepth[1] = m_halfDepthTarget;
        m_side = m_sideTarget;
        m_mixState = m_mix.load(relaxed);
        m_phase -= increment * m_period; // the first control point lands on phase 0
        controlPoint(increment, voices, true);
        m_voiceCount = voices;
        m_countdown = m_period;
        m_fresh = false;
    }
    for (std::int32_t n = 0; n < block.frames;) {
        if (m_countdown == 0) {
            // Counted from the stream's start, so any block split gives the same reads.
            const bool change = voices != m_voiceCount && m_fadeLeft == 0;
            if (change) {
                std::copy(&m_read[0][0], &m_read[0][0] + 2 * kMaxVoices, &m_readOld[0][0]);
                m_fadeVoices = m_voiceCount;
                m_fadeLeft = m_fadeLength;
                m_voiceCount = voices;
            }
            controlPoint(increment, m_voiceCount, change);
            m_countdown = m_period;
        }
        const int frames = std::min(m_countdown, block.frames - n);
        renderSegment(block, n, frames, m_voiceCount, settings);
        m_countdown -= frames;
        n += frames;
    }
    for (double& s : m_lowPassed)
        if (!std::isfinite(s))
            s = 0.0;
}
