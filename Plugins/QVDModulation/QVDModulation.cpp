#include "QVDModulation.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Glide.h>
#include <Algorithms/LFO.h>
#include <Algorithms/NoteValue.h>
#include <Algorithms/WaveTable.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDModulation)

namespace {

// Depth settles in about 20 ms, so a vibrato's delay never jumps.
constexpr double kGlideSeconds = 0.020;
// The phaser sweeps up to four octaves above its base frequency at full depth.
constexpr double kPhaserOctaves = 4.0;
// Frames between phaser corner updates; coefficients ramp between them.
constexpr int kControlPeriod = 16;

} // namespace

std::vector<QVDParam> QVDModulation::parameterRows()
{
    return {
        qvdListParam("MODE", "Mode", {"Tremolo", "Vibrato", "Auto-Pan", "Ring Modulator", "Phaser"}, 0),
        {.name = "RATE", .label = "Rate", .minimum = 0.01f, .maximum = 20.0f, .defaultValue = 2.0f, .step = 0.01f,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "DEPTH", .label = "Depth", .maximum = 100.0f, .defaultValue = 50.0f, .step = 1.0f, .unit = "%"},
        qvdListParam("SHAPE", "Shape", {"Sine", "Triangle", "Saw", "Ramp", "Square", "Random"}, 0),
        {.name = "PHASE", .label = "Channel Phase", .maximum = 360.0f, .defaultValue = 90.0f, .step = 1.0f,
         .unit = "deg"},
        {.name = "FREQUENCY", .label = "Carrier / Phaser Base", .minimum = 20.0f, .maximum = 5000.0f,
         .defaultValue = 440.0f, .step = 1.0f, .unit = "Hz", .scale = qvd::kLogarithmic},
        qvdListParam("STAGES", "Phaser Stages", {"4", "6", "8", "10", "12"}, 0),
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 100.0f, .step = 1.0f, .unit = "%"},
        qvdListParam("SYNC", "Sync", qvd::notes::syncLabels(), 0),
    };
}

void QVDModulation::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case MODE: m_mode.store(qvdListIndex(std::clamp(value, 0.0f, 4.0f)), relaxed); break;
    case RATE: m_rateHz.store(std::clamp(value, 0.01f, 20.0f), relaxed); break;
    case DEPTH: m_depth.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case SHAPE: m_shape.store(qvdListIndex(std::clamp(value, 0.0f, float(LFO::kWaveformCount - 1))), relaxed); break;
    case PHASE: m_phaseOffset.store(std::clamp(value, 0.0f, 360.0f) / 360.0f, relaxed); break;
    case FREQUENCY: m_frequency.store(std::clamp(value, 20.0f, 5000.0f), relaxed); break;
    case STAGES: m_stages.store(4 + 2 * qvdListIndex(std::clamp(value, 0.0f, 4.0f)), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case SYNC: m_sync.store(qvdListIndex(std::clamp(value, 0.0f, float(qvd::notes::kCount))), relaxed); break;
    default: break;
    }
}

bool QVDModulation::prepareProcessing()
{
    const double rate = sampleRate();
    for (StereoDelay& line : m_lines)
        line.prepare(rate, static_cast<std::int32_t>(std::ceil(kVibratoMs * 1e-3 * rate)) + 4);
    m_glide = std::exp(-1.0 / (kGlideSeconds * rate));
    resetState();
    return true;
}

void QVDModulation::resetState() noexcept
{
    for (StereoDelay& line : m_lines)
        line.clear();
    for (int c = 0; c < kChannels; ++c)
        for (int s = 0; s < kMaxStages; ++s)
            m_x1[c][s] = m_y1[c][s] = 0.0;
    m_lfoPhase = m_carrierPhase = 0.0;
    m_countdown = 0;
    m_fresh = true;
}

double QVDModulation::lfoIncrement(const QVDBlock& block) const noexcept
{
    const int sync = m_sync.load(std::memory_order_relaxed);
    double bpm = 0.0;
    std::int32_t numerator = 4, denominator = 4;
    if (sync > 0 && hostTempo(block.record, bpm, numerator, denominator))
        return 1.0 / (qvd::notes::seconds(sync - 1, bpm) * sampleRate());
    return static_cast<double>(m_rateHz.load(std::memory_order_relaxed)) / static_cast<double>(sampleRate());
}

double QVDModulation::allPassCoefficient(double hz) const noexcept
{
    const double t = std::tan(M_PI * std::min(hz, 0.45 * sampleRate()) / sampleRate());
    return (t - 1.0) / (t + 1.0);
}

void QVDModulation::channelWaves(const float* table, double phase, int channels, float* out) const noexcept
{
    const double offset = m_phaseOffset.load(std::memory_order_relaxed);
    for (int c = 0; c < channels; ++c) {
        double shifted = offset * c;
        shifted -= std::floor(shifted);
        out[c] = waveAt(table, phase + shifted);
    }
}

void QVDModulation::updateCorners(const float* table, double base, int channels) noexcept
{
    float waves[kChannels];
    channelWaves(table, m_lfoPhase, channels, waves);
    for (int c = 0; c < channels; ++c) {
        const double sweep = m_depthState * kPhaserOctaves * 0.5 * (1.0 + waves[c]);
        const double next = allPassCoefficient(base * std::exp2(sweep));
        m_coefficientStep[c] = (next - m_coefficient[c]) / kControlPeriod;
    }
}

void QVDModulation::render(const QVDBlock& block) noexcept
{
    const int channels = std::min(block.channels, kChannels);
    if (channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    const int mode = m_mode.load(relaxed);
    const int stages = m_stages.load(relaxed);
    const float* table = LFO::table(m_shape.load(relaxed));
    const double lfoStep = lfoIncrement(block);
    const double carrierStep = m_frequency.load(relaxed) / rate;
    const double base = m_frequency.load(relaxed);
    const double depthTarget = m_depth.load(relaxed), mixTarget = m_mix.load(relaxed);
    const double vibratoSpan = kVibratoMs * 1e-3 * rate;
    if (m_fresh) {
        m_depthState = depthTarget;
        m_mixState = mixTarget;
        updateCorners(table, base, channels);
        for (int c = 0; c < channels; ++c) {
            m_coefficient[c] += kControlPeriod * m_coefficientStep[c];
            m_coefficientStep[c] = 0.0;
        }
        m_fresh = false;
    }
    const double a = SmoothingCoefficient::shared200ms().a();
    float waves[kChannels], wet[kChannels];
    for (std::int32_t n = 0; n < block.frames; ++n) {
        m_depthState = glideTo(m_depthState, depthTarget, m_glide);
        m_mixState = glideTo(m_mixState, mixTarget, a);
        const double depth = m_depthState;
        if (m_countdown == 0) {
            // Counted from the stream's start, so any block split updates at the same frames.
            if (mode == kPhaser)
                updateCorners(table, base, channels);
            m_countdown = kControlPeriod;
        }
        --m_countdown;
        channelWaves(table, mode == kRing ? m_carrierPhase : m_lfoPhase, channels, waves);
        m_lfoPhase += lfoStep;
        m_lfoPhase -= m_lfoPhase >= 1.0 ? 1.0 : 0.0;
        m_carrierPhase += carrierStep;
        m_carrierPhase -= m_carrierPhase >= 1.0 ? 1.0 : 0.0;

        for (int c = 0; c < channels; ++c) {
            const float x = block.inputs[c][n];
            switch (mode) {
            case kTremolo: wet[c] = static_cast<float>(x * (1.0 - depth * 0.5 * (1.0 - waves[c]))); break;
            case kVibrato: {
                const double at = 2.0 + depth * vibratoSpan * 0.5 * (1.0 + waves[c]);
                wet[c] = m_lines[c / 2].tap(c % 2, at);
                break;
            }
            case kAutoPan: {
                // A pair moves between its sides by the pair's first LFO; a
                // channel without a partner stays where it is.
                if ((c % 2 == 1 || c + 1 < channels)) {
                    const double position = depth * waves[c - c % 2];
                    wet[c] = static_cast<float>(x * std::min(1.0, c % 2 == 0 ? 1.0 - position : 1.0 + position));
                } else {
                    wet[c] = x;
                }
                break;
            }
            case kRing: wet[c] = static_cast<float>(x * (1.0 - depth + depth * waves[c])); break;
            default: {
                m_coefficient[c] += m_coefficientStep[c];
                const double k = m_coefficient[c];
                double y = x;
                for (int s = 0; s < stages; ++s) {
                    const double out = k * y + m_x1[c][s] - k * m_y1[c][s];
                    m_x1[c][s] = y;
                    m_y1[c][s] = out;
                    y = out;
                }
                // Equal parts of the input and the shifted copy: a notch wherever they are opposite.
                wet[c] = static_cast<float>(0.5 * (x + y));
                break;
            }
            }
        }
        // Always written, so switching to vibrato finds the recent past.
        for (int p = 0; 2 * p < channels; ++p)
                m_lines[p].write(block.inputs[2 * p][n], 2 * p + 1 < channels ? block.inputs[2 * p + 1][n] : 0.0f);
        const auto dryGain = static_cast<float>(1.0 - m_mixState);
        const auto wetGain = static_cast<float>(m_mixState);
        for (int c = 0; c < channels; ++c)
            block.outputs[c][n] = dryGain * block.inputs[c][n] + wetGain * wet[c];
    }
    for (int c = 0; c < kChannels; ++c)
        for (int s = 0; s < kMaxStages; ++s)
            if (!std::isfinite(m_x1[c][s]) || !std::isfinite(m_y1[c][s]))
                m_x1[c][s] = m_y1[c][s] = 0.0;
}
