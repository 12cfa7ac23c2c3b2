#include "QVDStereoFixer.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/StereoPorts.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDStereoFixer)

namespace {

// Below this normalised height the peak is no evidence of a shared source.
constexpr double kMinPeak = 0.3;
// A second peak this close to the first makes the lag a guess (periodic material).
constexpr double kRivalRatio = 0.85;
// A channel this far below the other (-40 dB) counts as dead.
constexpr double kDeadRatio = 0.01;
// Both channels below -80 dBFS RMS: nothing to measure.
constexpr double kSilentRms = 1e-4;

float finiteOrZero(float x)
{
    return x - x == 0.0f ? x : 0.0f;
}

} // namespace

std::vector<QVDParam> QVDStereoFixer::parameterRows()
{
    return {
        {.name = "WINDOW", .label = "Window", .minimum = 50.0f, .maximum = 1000.0f, .defaultValue = 250.0f,
         .step = 1.0f, .unit = "ms"},
        qvdSwitchParam("FIX_DELAY", "Fix Delay", true),
        qvdSwitchParam("FIX_POLARITY", "Fix Polarity", true),
        qvdSwitchParam("REPAIR", "Repair Dead Channel", true),
    };
}

QVDStereoFixer::QVDStereoFixer(const QVDPluginDescriptor* descriptor, void* hostContext,
                               qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    m_status = addReadout("Status", "0 aligned, 1 no clear peak, 2 rival peaks, 3 silent, 4 left repaired, "
                                    "5 right repaired");
    m_lagReadout = addReadout("Right Lag", "ms");
    m_polarityReadout = addReadout("Polarity", "");
    m_peakReadout = addReadout("Peak Correlation", "");
}

void QVDStereoFixer::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case WINDOW: m_windowSeconds.store(std::clamp(value, 50.0f, 1000.0f) * 1e-3f, relaxed); break;
    case FIX_DELAY: m_fixDelay.store(qvdSwitchOn(value), relaxed); break;
    case FIX_POLARITY: m_fixPolarity.store(qvdSwitchOn(value), relaxed); break;
    case REPAIR: m_repair.store(qvdSwitchOn(value), relaxed); break;
    default: break;
    }
}

bool QVDStereoFixer::prepareProcessing()
{
    const double rate = sampleRate();
    m_maxLag = static_cast<std::int32_t>(std::ceil(kMaxShiftSeconds * rate));
    m_span = 2 * m_maxLag + 1;
    for (auto& h : m_history)
        h.assign(2 * static_cast<std::size_t>(m_span), 0.0f);
    m_correlation.assign(static_cast<std::size_t>(m_span), 0.0f);
    m_stride = std::max(1, static_cast<std::int32_t>(std::lround(rate / 48000.0)));
    m_fadeLength = std::max(1, static_cast<std::int32_t>(std::lround(0.010 * rate)));
    resetState();
    return setLatency(static_cast<std::uint64_t>(m_maxLag));
}

void QVDStereoFixer::resetState() noexcept
{
    for (auto& h : m_history)
        std::fill(h.begin(), h.end(), 0.0f);
    std::fill(m_correlation.begin(), m_correlation.end(), 0.0f);
    m_energy[0] = m_energy[1] = 0.0;
    m_count = 0;
    m_pos = 0;
    m_current = Routing{};
    m_current.delayL = m_current.delayR = m_maxLag;
    m_previous = m_current;
    m_fade = 0;
}

void QVDStereoFixer::route(const Routing& next) noexcept
{
    const bool same = next.delayL == m_current.delayL && next.delayR == m_current.delayR &&
                      std::equal(&next.gain[0][0], &next.gain[0][0] + 4, &m_current.gain[0][0]);
    if (same)
        return;
    m_previous = m_current;
    m_current = next;
    m_fade = m_fadeLength;
}

void QVDStereoFixer::decide() noexcept
{
    const double frames = static_cast<double>((m_count + m_stride - 1) / m_stride);
    const double rms[2] = {std::sqrt(m_energy[0] / frames), std::sqrt(m_energy[1] / frames)};
    Routing next;
    next.delayL = next.delayR = m_maxLag;
    int status = kAligned;
    double lag = 0.0, polarity = 1.0, height = 0.0;
    if (!std::isfinite(rms[0] + rms[1])) {
        // Absurd but finite input overflowed the sums: this window proves nothing.
        status = kWeakPeak;
        next = m_current;
    } else if (!(std::max(rms[0], rms[1]) >= kSilentRms)) {
        status = kSilent;
        next = m_current;
    } else if (m_repair.load(std::memory_order_relaxed) && std::min(rms[0], rms[1]) < kDeadRatio * std::max(rms[0], rms[1])) {
        // Both outputs from the live channel, at the delay of an uncorrected one.
        const int live = rms[0] > rms[1] ? 0 : 1;
        status = live == 0 ? kRightRepaired : kLeftRepaired;
        next.gain[0][0] = next.gain[1][0] = live == 0 ? 1.0f : 0.0f;
        next.gain[0][1] = next.gain[1][1] = live == 1 ? 1.0f : 0.0f;
    } else {
        const double norm = std::sqrt(m_energy[0] * m_energy[1]);
        const auto magnitude = [&](std::int32_t k) { return std::fabs(m_correlation[static_cast<std::size_t>(k)]) / norm; };
        std::int32_t best = 0;
        for (std::int32_t k = 1; k < m_span; ++k)
            if (magnitude(k) > magnitude(best))
                best = k;
        // The strongest other local peak; the main peak's own slopes are not peaks.
        double rival = 0.0;
        for (std::int32_t k = 0; k < m_span; ++k) {
            const double m = magnitude(k);
            const bool peak = (k == 0 || m >= magnitude(k - 1)) && (k + 1 == m_span || m >= magnitude(k + 1));
            if (peak && k != best)
                rival = std::max(rival, m);
        }
        height = magnitude(best);
        if (!(height >= kMinPeak) || rival >= kRivalRatio * height) {
            status = !(height >= kMinPeak) ? kWeakPeak : kRivalPeaks;
            // A repair is dropped once both channels live again; a correction stays.
            const bool repaired = m_current.gain[0][0] != m_current.gain[1][1] || m_current.gain[0][1] != 0.0f;
            if (!repaired)
                next = m_current;
        } else {
            const std::int32_t shift = best - m_maxLag; // > 0: the right channel is late
            lag = shift / static_cast<double>(sampleRate()) * 1e3;
            polarity = m_correlation[static_cast<std::size_t>(best)] < 0.0f ? -1.0 : 1.0;
            if (m_fixDelay.load(std::memory_order_relaxed)) {
                next.delayL = m_maxLag - std::max(0, -shift);
                next.delayR = m_maxLag - std::max(0, shift);
            }
            if (m_fixPolarity.load(std::memory_order_relaxed) && polarity < 0.0)
                next.gain[1][1] = -1.0f;
        }
    }
    route(next);
    publishReadout(m_status, static_cast<float>(status));
    publishReadout(m_lagReadout, static_cast<float>(lag));
    publishReadout(m_polarityReadout, static_cast<float>(polarity));
    publishReadout(m_peakReadout, static_cast<float>(height));
    std::fill(m_correlation.begin(), m_correlation.end(), 0.0f);
    m_energy[0] = m_energy[1] = 0.0;
    m_count = 0;
}

float QVDStereoFixer::output(const Routing& r, int channel) const noexcept
{
    const float l = m_history[0][static_cast<std::size_t>(m_pos + m_span - r.delayL)];
    const float x = m_history[1][static_cast<std::size_t>(m_pos + m_span - r.delayR)];
    return r.gain[channel][0] * l + r.gain[channel][1] * x;
}

void QVDStereoFixer::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto [inL, inR, outL, outR] = StereoPorts(block);
    const auto window = static_cast<std::int32_t>(m_windowSeconds.load(std::memory_order_relaxed) * sampleRate());
    float* corr = m_correlation.data();
    const std::int32_t lags = m_span;
    for (std::int32_t n = 0; n < block.frames; ++n) {
        m_pos = m_pos + 1 == m_span ? 0 : m_pos + 1;
        const float x[2] = {finiteOrZero(inL[n]), finiteOrZero(inR[n])};
        for (int c = 0; c < 2; ++c)
            m_history[c][static_cast<std::size_t>(m_pos)] = m_history[c][static_cast<std::size_t>(m_pos + m_span)] = x[c];
        // The newest sample sits at m_pos + m_span. The left sample from the
        // middle of the span meets every right sample of the span: lags
        // -max .. +max with no right sample from the future.
        // Above 48 kHz only every stride-th frame adds its products: the lags
        // keep their full resolution, and the cost grows with the number of
        // lags alone rather than with lags times frames.
        if (m_count % m_stride == 0) {
            const float a = m_history[0][static_cast<std::size_t>(m_pos + m_span - m_maxLag)];
            const float* right = m_history[1].data() + (m_pos + m_span - 2 * m_maxLag);
            for (std::int32_t k = 0; k < lags; ++k)
                corr[k] += a * right[k];
            m_energy[0] += static_cast<double>(a) * a;
            m_energy[1] += static_cast<double>(right[m_maxLag]) * right[m_maxLag];
        }
        if (++m_count >= window)
            decide();

        float y[2];
        for (int c = 0; c < 2; ++c) {
            y[c] = output(m_current, c);
            if (m_fade > 0) {
                const float t = static_cast<float>(m_fade) / static_cast<float>(m_fadeLength);
                y[c] = t * output(m_previous, c) + (1.0f - t) * y[c];
            }
        }
        if (m_fade > 0)
            --m_fade;
        outL[n] = y[0];
        if (outR)
            outR[n] = y[1];
    }
}
