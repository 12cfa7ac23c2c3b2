#include "QVDLoudnessMeter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <QVDPeakMeter.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDLoudnessMeter)

namespace {

constexpr double kTargets[] = {-23.0, -24.0, -14.0, -16.0};
constexpr double kMinusInf = -std::numeric_limits<double>::infinity();
constexpr std::int32_t kMomentarySteps = 4;
constexpr std::int32_t kShortTermSteps = 30;
constexpr std::int32_t kStepsPerHistoryValue = 10;
constexpr double kIntegratedGate = -10.0; // LU
constexpr double kRangeGate = -20.0;      // LU

float decibels(float linear)
{
    return linear > 0.0f ? 20.0f * std::log10(linear) : -std::numeric_limits<float>::infinity();
}

double meanOfLast(const std::array<double, 30>& ring, std::int32_t newest, std::int32_t count)
{
    double sum = 0.0;
    for (std::int32_t i = 0; i < count; ++i)
        sum += ring[static_cast<std::size_t>((newest - i + 30) % 30)];
    return sum / count;
}

} // namespace

std::vector<QVDParam> QVDLoudnessMeter::parameterRows()
{
    return {
        qvdListParam("TARGET", "Target",
                     {"EBU R128 -23 LUFS", "ATSC A/85 -24 LUFS", "Streaming -14 LUFS", "Streaming -16 LUFS"}, 0),
        qvdSwitchParam("TRUE_PEAK", "True Peak", true),
        qvdSwitchParam("RESET", "Reset", false),
    };
}

QVDLoudnessMeter::QVDLoudnessMeter(const QVDPluginDescriptor* descriptor, void* hostContext,
                                   qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Momentary"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Short-Term"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Integrated"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Loudness Range"), QStringLiteral("LU"));
    addReadout(QStringLiteral("Deviation"), QStringLiteral("LU"));
    addReadout(QStringLiteral("Max Momentary"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Max Short-Term"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Max True Peak"), QStringLiteral("dBTP"));
    addReadout(QStringLiteral("True Peak"), QStringLiteral("dBTP"), kMaxChannels);
    addReadout(QStringLiteral("Sample Peak"), QStringLiteral("dBFS"), kMaxChannels);
    addReadout(QStringLiteral("History"), QStringLiteral("LUFS"), kHistorySeconds);
}

void QVDLoudnessMeter::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const float v = std::clamp(value, 0.0f, 3.0f);
    switch (index) {
    case TARGET: m_target.store(static_cast<float>(kTargets[qvdListIndex(v)]), std::memory_order_relaxed); break;
    case TRUE_PEAK: m_truePeakOn.store(qvdSwitchOn(std::min(v, 1.0f)), std::memory_order_relaxed); break;
    case RESET:
        // Every press counts, even one that finds the switch already on.
        if (qvdSwitchOn(std::min(v, 1.0f)))
            m_resetRequests.fetch_add(1, std::memory_order_relaxed);
        break;
    default: break;
    }
}

bool QVDLoudnessMeter::prepareProcessing()
{
    const double rate = sampleRate();
    m_filter = KWeighting::design(rate);
    // Rounded as the reference meters do at rates that are not multiples of 10 Hz.
    m_step = std::max<std::int32_t>(1, (sampleRate() + 5) / 10);
    m_truePeaks.build(std::min(activeInputs(), kMaxChannels));
    clearAll();
    return true;
}

bool QVDLoudnessMeter::channelCountsChanged()
{
    m_truePeaks.build(std::min(activeInputs(), kMaxChannels));
    return true;
}

void QVDLoudnessMeter::updateWeights(std::int32_t format) noexcept
{
    m_weightsFormat = format;
    for (std::int32_t c = 0; c < kMaxChannels; ++c) {
        double w = 1.0;
        switch (qvd::channelRole(format, c)) {
        case qvd::kRoleLFE: w = 0.0; break;
        // The side surrounds count 1.5 dB more; rear and height channels count as the front.
        case qvd::kRoleLeftSurround:
        case qvd::kRoleRightSurround: w = 1.41; break;
        default: break;
        }
        m_weights[static_cast<std::size_t>(c)] = w;
    }
}

void QVDLoudnessMeter::clearWindows() noexcept
{
    for (KWeightingState& s : m_states)
        s = KWeightingState{};
    m_stepFill = 0;
    m_stepEnergy = 0.0;
    m_steps.fill(0.0);
    m_stepPos = 0;
    m_windowSteps = 0;
    m_momentary = m_shortTerm = kMinusInf;
    m_truePeaks.reset();
}

void QVDLoudnessMeter::clearAll() noexcept
{
    clearWindows();
    m_blocks.clear();
    m_shortTerms.clear();
    m_totalSteps = 0;
    m_samplePeaks.fill(0.0f);
    m_truePeakLevels.fill(0.0f);
    m_history.fill(-std::numeric_limits<float>::infinity());
    m_historyPos = 0;
    m_historyChanged = true;
    m_maxMomentary = m_maxShortTerm = m_integrated = kMinusInf;
    m_range = 0.0;
}

void QVDLoudnessMeter::resetState() noexcept
{
    clearWindows();
}

void QVDLoudnessMeter::finishStep() noexcept
{
    m_stepPos = (m_stepPos + 1) % kShortTermSteps;
    m_steps[static_cast<std::size_t>(m_stepPos)] = m_stepEnergy / m_step;
    m_stepEnergy = 0.0;
    m_stepFill = 0;
    ++m_windowSteps;
    ++m_totalSteps;

    // Before a window is full its missing steps read as silence.
    const double momentary = meanOfLast(m_steps, m_stepPos, kMomentarySteps);
    const double shortTerm = meanOfLast(m_steps, m_stepPos, kShortTermSteps);
    m_momentary = loudnessOf(momentary);
    m_shortTerm = loudnessOf(shortTerm);
    m_maxMomentary = std::max(m_maxMomentary, m_momentary);
    m_maxShortTerm = std::max(m_maxShortTerm, m_shortTerm);
    // Gating blocks only from whole windows: 400 ms every 100 ms for the
    // integrated loudness, 3 s every 100 ms for the range.
    if (m_windowSteps >= kMomentarySteps) {
        m_blocks.add(momentary);
        m_integrated = m_blocks.gatedLoudness(kIntegratedGate);
    }
    if (m_windowSteps >= kShortTermSteps) {
        m_shortTerms.add(shortTerm);
        m_range = m_shortTerms.range(kRangeGate, 0.10, 0.95);
    }
    if (m_totalSteps % kStepsPerHistoryValue == 0) {
        m_history[static_cast<std::size_t>(m_historyPos)] = static_cast<float>(m_shortTerm);
        m_historyPos = (m_historyPos + 1) % kHistorySeconds;
        m_historyChanged = true;
    }
}

void QVDLoudnessMeter::measure(const float* const* channels, std::int32_t count, std::int32_t frames) noexcept
{
    for (std::int32_t done = 0; done < frames;) {
        const std::int32_t n = std::min(frames - done, m_step - m_stepFill);
        double sum = 0.0;
        std::int32_t c = 0;
        while (c < count) {
            const auto a = static_cast<std::size_t>(c);
            if (m_weights[a] == 0.0) {
                ++c;
                continue;
            }
            // Pairs run their recursions side by side.
            std::int32_t d = c + 1;
            while (d < count && m_weights[static_cast<std::size_t>(d)] == 0.0)
                ++d;
            if (d < count) {
                const auto b = static_cast<std::size_t>(d);
                double ea = 0.0, eb = 0.0;
                KWeighting::energy2(m_filter, m_states[a], m_states[b], channels[c] + done, channels[d] + done, n,
                                    ea, eb);
                sum += m_weights[a] * ea + m_weights[b] * eb;
            } else {
                sum += m_weights[a] * KWeighting::energy(m_filter, m_states[a], channels[c] + done, n);
            }
            c = d + 1;
        }
        m_stepEnergy += sum;
        m_stepFill += n;
        done += n;
        if (m_stepFill == m_step)
            finishStep();
    }
}

void QVDLoudnessMeter::render(const QVDBlock& block) noexcept
{
    if (m_resetsSeen != m_resetRequests.load(std::memory_order_relaxed)) {
        m_resetsSeen = m_resetRequests.load(std::memory_order_relaxed);
        clearAll();
    }
    // A layout can change without its channel count, and no hook says so.
    if (inputFormat() != m_weightsFormat)
        updateWeights(inputFormat());
    const std::int32_t channels = std::min(block.channels, kMaxChannels);
    const auto frames = static_cast<std::size_t>(block.frames);
    for (std::int32_t c = 0; c < block.channels; ++c) {
        const float peak = qvdCopyPeak(block.inputs[c], block.outputs[c], frames);
        block.inputPeak[c] = block.outputPeak[c] = peak;
        if (c < channels)
            m_samplePeaks[static_cast<std::size_t>(c)] = std::max(m_samplePeaks[static_cast<std::size_t>(c)], peak);
    }
    // Measured on the outputs: the same samples, and safe when the host runs in place.
    const std::int32_t measured = std::min(channels, block.inputCount);
    measure(block.outputs, measured, block.frames);

    const bool truePeak = m_truePeakOn.load(std::memory_order_relaxed);
    if (truePeak && !m_truePeakWasOn)
        m_truePeaks.reset(); // history from before it was switched off is stale
    m_truePeakWasOn = truePeak;
    if (truePeak) {
        // The interpolator's taps at the samples' own instants do not give
        // the samples back exactly, so on a lone click it can read a little
        // under them; the true peak is never below the sample peak.
        for (std::int32_t c = 0; c < measured; ++c) {
            float& level = m_truePeakLevels[static_cast<std::size_t>(c)];
            level = std::max({level, m_truePeaks.process(c, block.outputs[c], frames), block.outputPeak[c]});
        }
    }
    publish();
}

void QVDLoudnessMeter::publish() noexcept
{
    const double target = m_target.load(std::memory_order_relaxed);
    publishReadout(kMomentary, static_cast<float>(m_momentary));
    publishReadout(kShortTerm, static_cast<float>(m_shortTerm));
    publishReadout(kIntegrated, static_cast<float>(m_integrated));
    publishReadout(kRange, static_cast<float>(m_range));
    publishReadout(kDeviation, static_cast<float>(m_integrated - target));
    publishReadout(kMaxMomentary, static_cast<float>(m_maxMomentary));
    publishReadout(kMaxShortTerm, static_cast<float>(m_maxShortTerm));

    float maxTruePeak = 0.0f;
    for (std::size_t c = 0; c < m_peakOut.size(); ++c) {
        maxTruePeak = std::max(maxTruePeak, m_truePeakLevels[c]);
        m_peakOut[c] = decibels(m_truePeakLevels[c]);
    }
    publishReadout(kMaxTruePeak, decibels(maxTruePeak));
    publishReadout(kTruePeak, m_peakOut.data(), kMaxChannels);
    for (std::size_t c = 0; c < m_peakOut.size(); ++c)
        m_peakOut[c] = decibels(m_samplePeaks[c]);
    publishReadout(kSamplePeak, m_peakOut.data(), kMaxChannels);

    if (m_historyChanged) {
        // Oldest first.
        for (std::int32_t i = 0; i < kHistorySeconds; ++i)
            m_historyOut[static_cast<std::size_t>(i)] =
                m_history[static_cast<std::size_t>((m_historyPos + i) % kHistorySeconds)];
        publishReadout(kHistory, m_historyOut.data(), kHistorySeconds);
        m_historyChanged = false;
    }
}
