#include "QVDPhaseMeter.h"

#include <algorithm>
#include <cmath>

#include <QVDPeakMeter.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDPhaseMeter)

namespace {

// Balance reads within this when one side is silent.
constexpr double kBalanceLimitDb = 60.0;

} // namespace

std::vector<QVDParam> QVDPhaseMeter::parameterRows()
{
    return {
        {.name = "INTEGRATION", .label = "Integration", .minimum = 10.0f, .maximum = 10000.0f, .defaultValue = 300.0f,
         .step = 1.0f, .unit = "ms", .scale = qvd::kLogarithmic},
    };
}

QVDPhaseMeter::QVDPhaseMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Correlation"), QString());
    addReadout(QStringLiteral("Balance"), QStringLiteral("dB"));
    addReadout(QStringLiteral("Goniometer"), QString(), 2 * kPoints);
}

void QVDPhaseMeter::parameterChanged(std::uint32_t index, float value)
{
    if (index == INTEGRATION && !std::isnan(value))
        m_integrationMs.store(std::clamp(value, 10.0f, 10000.0f), std::memory_order_relaxed);
}

bool QVDPhaseMeter::prepareProcessing()
{
    const double rate = sampleRate();
    m_decimation = std::max(1, static_cast<std::int32_t>(std::lround(rate * 0.05 / kPoints)));
    // About 50 snapshots a second, enough for a smooth display.
    m_publishEvery = std::max(1, static_cast<std::int32_t>(rate / 50.0));
    m_poleMs = 0.0f;
    resetState();
    return true;
}

void QVDPhaseMeter::resetState() noexcept
{
    m_sumLR = m_sumLL = m_sumRR = 0.0;
    m_phase = 0;
    m_sinceSnapshot = 0;
    m_pointPos = 0;
    m_points.fill(0.0f);
}

void QVDPhaseMeter::integrate(const float* left, const float* right, std::int32_t frames) noexcept
{
    const float ms = m_integrationMs.load(std::memory_order_relaxed);
    if (ms != m_poleMs) {
        m_pole = std::exp(-1000.0 / (static_cast<double>(ms) * sampleRate()));
        m_poleMs = ms;
    }
    const double p = m_pole;
    double lr = m_sumLR, ll = m_sumLL, rr = m_sumRR;
    for (std::int32_t i = 0; i < frames; ++i) {
        const double l = left[i], r = right[i];
        lr = p * lr + l * r;
        ll = p * ll + l * l;
        rr = p * rr + r * r;
    }
    // A non-finite input would stick; long silence would decay into subnormals.
    if (!std::isfinite(lr + ll + rr) || ll + rr < 1e-30)
        lr = ll = rr = 0.0;
    m_sumLR = lr, m_sumLL = ll, m_sumRR = rr;
}

void QVDPhaseMeter::collectPoints(const float* left, const float* right, std::int32_t frames) noexcept
{
    constexpr float kHalfRoot2 = 0.70710678f;
    std::int32_t i = m_phase;
    for (; i < frames; i += m_decimation) {
        const float l = left[i], r = right[i];
        m_points[static_cast<std::size_t>(2 * m_pointPos)] = kHalfRoot2 * (r - l);
        m_points[static_cast<std::size_t>(2 * m_pointPos + 1)] = kHalfRoot2 * (l + r);
        m_pointPos = (m_pointPos + 1) % kPoints;
    }
    m_phase = i - frames;

    m_sinceSnapshot += frames;
    if (m_sinceSnapshot < m_publishEvery)
        return;
    m_sinceSnapshot %= m_publishEvery;
    const auto split = static_cast<std::size_t>(2 * m_pointPos);
    std::copy(m_points.begin() + static_cast<std::ptrdiff_t>(split), m_points.end(), m_snapshot.begin());
    std::copy(m_points.begin(), m_points.begin() + static_cast<std::ptrdiff_t>(split),
              m_snapshot.end() - static_cast<std::ptrdiff_t>(split));
    publishReadout(kGoniometer, m_snapshot.data(), 2 * kPoints);
}

void QVDPhaseMeter::render(const QVDBlock& block) noexcept
{
    const auto frames = static_cast<std::size_t>(block.frames);
    for (std::int32_t c = 0; c < block.channels; ++c)
        block.inputPeak[c] = block.outputPeak[c] = qvdCopyPeak(block.inputs[c], block.outputs[c], frames);
    if (block.channels < 1)
        return;
    const float* left = block.outputs[0];
    const float* right = block.channels > 1 ? block.outputs[1] : left;
    integrate(left, right, block.frames);
    collectPoints(left, right, block.frames);

    const double energy = std::sqrt(m_sumLL * m_sumRR);
    // Silence reads as fully correlated: nothing is out of phase.
    const double correlation = energy > 1e-30 ? std::clamp(m_sumLR / energy, -1.0, 1.0) : 1.0;
    double balance = 0.0;
    if (m_sumLL + m_sumRR > 1e-30)
        balance = std::clamp(10.0 * std::log10(std::max(m_sumRR, 1e-300) / std::max(m_sumLL, 1e-300)),
                             -kBalanceLimitDb, kBalanceLimitDb);
    publishReadout(kCorrelation, static_cast<float>(correlation));
    publishReadout(kBalance, static_cast<float>(balance));
}
