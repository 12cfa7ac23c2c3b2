#include "QVDFlanger.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Glide.h>
#include <Algorithms/LFO.h>
#include <Algorithms/NoteValue.h>
#include <Algorithms/SoftLimit.h>
#include <Algorithms/StereoPorts.h>
#include <Algorithms/WaveTable.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDFlanger)

namespace {

// Time settings settle in about 20 ms: quick enough to follow a hand, slow
// enough that a jump of the whole range sweeps instead of clicking.
constexpr double kGlideSeconds = 0.020;
// Two samples of the line stay behind the newest for the cubic read's far tap.
constexpr double kLineMargin = 2.0;

} // namespace

std::vector<QVDParam> QVDFlanger::parameterRows()
{
    return {
        {.name = "DELAY", .label = "Delay", .minimum = kMinDelayMs, .maximum = kMaxDelayMs, .defaultValue = 2.0f,
         .step = 0.01f, .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "DEPTH", .label = "Depth", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f, .unit = "%"},
        {.name = "RATE", .label = "Rate", .minimum = 0.01f, .maximum = 10.0f, .defaultValue = 0.25f, .step = 0.01f,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        qvdListParam("SYNC", "Sync", qvd::notes::syncLabels(), 0),
        qvdListParam("SHAPE", "Shape", {"Sine", "Triangle", "Saw", "Ramp", "Square", "Random"}, 0),
        {.name = "FEEDBACK", .label = "Feedback", .minimum = -99.0f, .maximum = 99.0f, .step = 1.0f, .unit = "%"},
        {.name = "PHASE", .label = "Stereo Phase", .maximum = 360.0f, .defaultValue = 90.0f, .step = 1.0f,
         .unit = "deg"},
        qvdSwitchParam("THROUGH_ZERO", "Through Zero", false),
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f, .unit = "%"},
    };
}

void QVDFlanger::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case DELAY: m_delayMs.store(std::clamp(value, kMinDelayMs, kMaxDelayMs), relaxed); break;
    case DEPTH: m_depth.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case RATE: m_rateHz.store(std::clamp(value, 0.01f, 10.0f), relaxed); break;
    case SYNC: m_sync.store(qvdListIndex(std::clamp(value, 0.0f, float(qvd::notes::kCount))), relaxed); break;
    case SHAPE:
        m_shape.store(qvdListIndex(std::clamp(value, 0.0f, float(LFO::kWaveformCount - 1))), relaxed);
        break;
    case FEEDBACK: m_feedback.store(std::clamp(value, -99.0f, 99.0f) / 100.0f, relaxed); break;
    case PHASE: m_phaseOffset.store(std::clamp(value, 0.0f, 360.0f) / 360.0f, relaxed); break;
    case THROUGH_ZERO: m_throughZero.store(qvdSwitchOn(value), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    default: break;
    }
}

bool QVDFlanger::prepareProcessing()
{
    const double rate = sampleRate();
    // Through zero reaches the centre plus the full swing: twice the longest delay.
    m_line.prepare(rate, static_cast<std::int32_t>(std::ceil(2.0 * kMaxDelayMs * 1e-3 * rate + kLineMargin)) + 4);
    m_controlGlide = std::exp(-kControlPeriod / (kGlideSeconds * rate));
    resetState();
    return true;
}

void QVDFlanger::resetState() noexcept
{
    m_line.clear();
    m_phase = 0.0;
    m_fresh = true;
}

double QVDFlanger::lfoIncrement(const QVDBlock& block) const noexcept
{
    const int sync = m_sync.load(std::memory_order_relaxed);
    double bpm = 0.0;
    std::int32_t numerator = 4, denominator = 4;
    if (sync > 0 && hostTempo(block.record, bpm, numerator, denominator))
        return 1.0 / (qvd::notes::seconds(sync - 1, bpm) * sampleRate());
    return m_rateHz.load(std::memory_order_relaxed) / sampleRate();
}

void QVDFlanger::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const Targets t{m_delayMs.load(relaxed) * 1e-3 * sampleRate(), m_depth.load(relaxed), m_phaseOffset.load(relaxed),
                    m_mix.load(relaxed)};
    const bool throughZero = m_throughZero.load(relaxed);
    const float* table = LFO::table(m_shape.load(relaxed));
    if (m_fresh) {
        m_delayState = t.delay;
        m_depthState = t.depth;
        m_offsetState = t.offset;
        m_mixState = t.mix;
        readPositions(throughZero, table, m_read);
        m_step[0] = m_step[1] = m_step[2] = 0.0;
        m_countdown = 0;
        m_fresh = false;
    }
    if (throughZero)
        renderFrames<true>(block, t, table);
    else
        renderFrames<false>(block, t, table);
}

void QVDFlanger::readPositions(bool throughZero, const float* table, double* read) const noexcept
{
    const double limit = static_cast<double>(m_line.capacity());
    const double delay = m_delayState, depth = m_depthState;
    for (int c = 0; c < 2; ++c) {
        const float lfo = waveAt(table, c == 0 ? m_phase : m_phase + m_offsetState);
        // Plain: from delay (1 - depth) at the LFO's bottom to delay at its
        // top. Through zero: the centre plus or minus depth x delay.
        read[c] = throughZero ? delay + kLineMargin + depth * delay * lfo : delay * (1.0 - 0.5 * depth * (1.0 - lfo));
        read[c] = std::clamp(read[c], kLineMargin, limit);
    }
    read[2] = std::min(delay + kLineMargin, limit);
}

template <bool throughZero>
void QVDFlanger::renderFrames(const QVDBlock& block, const Targets& t, const float* table) noexcept
{
    const double increment = lfoIncrement(block) * kControlPeriod;
    const float feedback = m_feedback.load(std::memory_order_relaxed);
    const double a = SmoothingCoefficient::shared200ms().a();

    const auto [inL, inR, outL, outR] = StereoPorts(block);
    double mix = m_mixState;
    for (std::int32_t n = 0; n < block.frames; ++n) {
        if (m_countdown == 0) {
            // The sweep is far below audio rate: the LFO and the time settings
            // run every kControlPeriod frames, counted from the stream's start
            // so any block split gives the same reads, and the read positions
            // ramp straight to the next point.
            m_delayState = glideTo(m_delayState, t.delay, m_controlGlide);
            m_depthState = glideTo(m_depthState, t.depth, m_controlGlide);
            m_offsetState = glideTo(m_offsetState, t.offset, m_controlGlide);
            m_phase += increment;
            m_phase -= m_phase >= 1.0 ? 1.0 : 0.0;
            double next[3];
            readPositions(throughZero, table, next);
            for (int c = 0; c < 3; ++c)
                m_step[c] = (next[c] - m_read[c]) / kControlPeriod;
            m_countdown = kControlPeriod;
        }
        --m_countdown;
        for (int c = 0; c < 3; ++c)
            m_read[c] += m_step[c];
        mix = glideTo(mix, t.mix, a);

        const float wetL = m_line.tap(0, m_read[0]);
        const float wetR = m_line.tap(1, m_read[1]);
        float dryL = inL[n], dryR = inR[n];
        if constexpr (throughZero) {
            dryL = m_line.tap(0, m_read[2]);
            dryR = m_line.tap(1, m_read[2]);
        }
        // The loop's gain may reach 0.99 at a resonance: the limiter holds its
        // level within a few dB of full scale.
        m_line.write(inL[n] + softLimit(feedback * wetL, 1.0f, 2.0f), inR[n] + softLimit(feedback * wetR, 1.0f, 2.0f));
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetGain = static_cast<float>(mix);
        outL[n] = dryGain * dryL + wetGain * wetL;
        if (outR)
            outR[n] = dryGain * dryR + wetGain * wetR;
    }
    m_mixState = mix;
}
