#include "QVDMeter.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

#include <QVDPeakMeter.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDMeter)

namespace {

using Standard = MeterStandard;

// In the order of QVDMeter::Ballistics. PPM integration times are the
// -2 dB burst lengths of IEC 60268-10; VU and K-system meters settle in 300 ms.
const Standard kStandards[] = {
    {.kind = Standard::kPeak, .integrationMs = 0.0, .returnDb = 20.0, .returnSeconds = 1.7},
    {.kind = Standard::kPeak, .integrationMs = 10.0, .returnDb = 24.0, .returnSeconds = 2.8},
    {.kind = Standard::kPeak, .integrationMs = 10.0, .returnDb = 24.0, .returnSeconds = 2.8},
    {.kind = Standard::kPeak, .integrationMs = 5.0, .returnDb = 20.0, .returnSeconds = 1.5},
    {.kind = Standard::kPeak, .integrationMs = 5.0, .returnDb = 20.0, .returnSeconds = 1.7},
    {.kind = Standard::kAverage, .integrationMs = 300.0},
    {.kind = Standard::kPower, .integrationMs = 300.0, .referenceDb = -12.0},
    {.kind = Standard::kPower, .integrationMs = 300.0, .referenceDb = -14.0},
    {.kind = Standard::kPower, .integrationMs = 300.0, .referenceDb = -20.0},
};
static_assert(std::size(kStandards) == QVDMeter::kBallisticsCount);

// A sine's RMS reads as its peak level under the AES convention.
const double kAesOffsetDb = 10.0 * std::log10(2.0);

// Fitting the peak attacks takes milliseconds; instances at one rate share the fit.
std::array<MeterBallistics, QVDMeter::kBallisticsCount> designsFor(std::int32_t rate)
{
    using Designs = std::array<MeterBallistics, QVDMeter::kBallisticsCount>;
    static std::mutex mutex;
    static std::vector<std::pair<std::int32_t, Designs>> fitted;
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [r, designs] : fitted)
        if (r == rate)
            return designs;
    Designs designs;
    for (std::size_t i = 0; i < designs.size(); ++i)
        designs[i] = MeterBallistics::design(kStandards[i], rate);
    fitted.emplace_back(rate, designs);
    return designs;
}

float decibels(double linear)
{
    return linear > 0.0 ? static_cast<float>(20.0 * std::log10(linear)) : -std::numeric_limits<float>::infinity();
}

} // namespace

std::vector<QVDParam> QVDMeter::parameterRows()
{
    return {
        qvdListParam("BALLISTICS", "Ballistics",
                     {"Digital Peak", "EBU PPM", "BBC PPM", "DIN PPM", "Nordic PPM", "VU", "K-12", "K-14", "K-20"}, 0),
        {.name = "HOLD", .label = "Peak Hold", .minimum = 0.1f, .maximum = 30.0f, .defaultValue = 2.0f,
         .step = 0.1f, .unit = "s"},
        {.name = "RMS_TIME", .label = "RMS Time", .minimum = 10.0f, .maximum = 3000.0f, .defaultValue = 300.0f,
         .step = 1.0f, .unit = "ms", .scale = qvd::kLogarithmic},
        qvdSwitchParam("AES_RMS", "RMS +3 dB (AES)", false),
        qvdSwitchParam("RESET", "Reset", false),
    };
}

QVDMeter::QVDMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Level"), QStringLiteral("dB"), kMaxChannels);
    addReadout(QStringLiteral("Peak Hold"), QStringLiteral("dB"), kMaxChannels);
    addReadout(QStringLiteral("RMS"), QStringLiteral("dB"), kMaxChannels);
    addReadout(QStringLiteral("Sample Peak"), QStringLiteral("dBFS"), kMaxChannels);
    addReadout(QStringLiteral("True Peak"), QStringLiteral("dBTP"), kMaxChannels);
    addReadout(QStringLiteral("Clips"), QString(), kMaxChannels);
}

void QVDMeter::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case BALLISTICS:
        m_ballistics.store(qvdListIndex(std::clamp(value, 0.0f, static_cast<float>(kBallisticsCount - 1))), relaxed);
        break;
    case HOLD: m_holdSeconds.store(std::clamp(value, 0.1f, 30.0f), relaxed); break;
    case RMS_TIME: m_rmsMs.store(std::clamp(value, 10.0f, 3000.0f), relaxed); break;
    case AES_RMS: m_aesRms.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case RESET:
        // Every press counts, even one that finds the switch already on.
        if (qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)))
            m_resetRequests.fetch_add(1, relaxed);
        break;
    default: break;
    }
}

bool QVDMeter::prepareProcessing()
{
    m_designs = designsFor(sampleRate());
    m_rmsPoleMs = 0.0f;
    m_truePeaks.build(std::min(activeInputs(), kMaxChannels));
    clearReadings();
    return true;
}

bool QVDMeter::channelCountsChanged()
{
    m_truePeaks.build(std::min(activeInputs(), kMaxChannels));
    return true;
}

void QVDMeter::resetState() noexcept
{
    // After a seek the running readings start from silence; the maxima and counts stay.
    for (Channel& ch : m_channels) {
        ch.level = {};
        ch.hold = 0.0;
        ch.holdLeft = 0;
        ch.power = 0.0;
        ch.clipping = false;
    }
    m_truePeaks.reset();
}

void QVDMeter::clearReadings() noexcept
{
    m_channels.fill(Channel{});
    resetState();
}

void QVDMeter::measure(Channel& ch, const float* x, std::int32_t frames, const MeterBallistics& m, double rmsPole,
                       std::int64_t holdFrames) noexcept
{
    // In a local copy: through the reference every field would round-trip memory.
    Channel s = ch;
    for (std::int32_t n = 0; n < frames; ++n) {
        const double v = x[n];
        m.step(s.level, v);
        if (s.level.b >= s.hold) {
            s.hold = s.level.b;
            s.holdLeft = holdFrames;
        } else if (--s.holdLeft <= 0) {
            s.hold = s.level.b;
        }
        s.power += rmsPole * (v * v - s.power);
        // A run of samples at full scale or over counts once.
        const bool over = std::fabs(v) >= 1.0;
        s.clips += over && !s.clipping ? 1.0f : 0.0f;
        s.clipping = over;
    }
    // A NaN would stick; a long silence would decay into subnormals.
    const double sum = s.level.a + s.level.b + s.hold + s.power;
    if (!std::isfinite(sum) || sum < 1e-30)
        s.level = {}, s.hold = 0.0, s.power = 0.0;
    ch = s;
}

void QVDMeter::render(const QVDBlock& block) noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    if (m_resetsSeen != m_resetRequests.load(relaxed)) {
        m_resetsSeen = m_resetRequests.load(relaxed);
        clearReadings();
    }
    const std::int32_t kind = m_ballistics.load(relaxed);
    if (kind != m_lastBallistics) {
        // Readings of one ballistics mean nothing to another.
        for (Channel& ch : m_channels)
            ch.level = {}, ch.hold = 0.0, ch.holdLeft = 0;
        m_lastBallistics = kind;
    }
    const float rmsMs = m_rmsMs.load(relaxed);
    if (rmsMs != m_rmsPoleMs) {
        m_rmsPole = 1.0 - std::exp(-1000.0 / (static_cast<double>(rmsMs) * sampleRate()));
        m_rmsPoleMs = rmsMs;
    }
    const MeterBallistics& m = m_designs[static_cast<std::size_t>(kind)];
    const auto holdFrames = static_cast<std::int64_t>(m_holdSeconds.load(relaxed) * static_cast<float>(sampleRate()));
    const auto frames = static_cast<std::size_t>(block.frames);
    const std::int32_t channels = std::min(block.channels, kMaxChannels);
    for (std::int32_t c = 0; c < block.channels; ++c) {
        const float peak = qvdCopyPeak(block.inputs[c], block.outputs[c], frames);
        block.inputPeak[c] = block.outputPeak[c] = peak;
        if (c >= channels)
            continue;
        Channel& ch = m_channels[static_cast<std::size_t>(c)];
        ch.samplePeak = std::max(ch.samplePeak, peak);
        // Measured on the outputs: the same samples, and safe when the host runs in place.
        measure(ch, block.outputs[c], block.frames, m, m_rmsPole, holdFrames);
        ch.truePeak = std::max(ch.truePeak, m_truePeaks.process(c, block.outputs[c], frames));
    }
    publish(channels, m, m_aesRms.load(relaxed) ? kAesOffsetDb : 0.0);
}

void QVDMeter::publish(std::int32_t channels, const MeterBallistics& m, double rmsGainDb) noexcept
{
    const auto n = static_cast<std::size_t>(channels);
    const float silent = -std::numeric_limits<float>::infinity();
    auto send = [&](std::int32_t readout, auto value) {
        std::fill(m_out.begin(), m_out.end(), silent);
        for (std::size_t c = 0; c < n; ++c)
            m_out[c] = value(m_channels[c]);
        publishReadout(readout, m_out.data(), kMaxChannels);
    };
    send(kLevel, [&](const Channel& ch) { return static_cast<float>(m.decibels(ch.level.b)); });
    send(kPeakHold, [&](const Channel& ch) { return static_cast<float>(m.decibels(ch.hold)); });
    send(kRms, [&](const Channel& ch) {
        return ch.power > 0.0 ? static_cast<float>(10.0 * std::log10(ch.power) + rmsGainDb) : silent;
    });
    send(kSamplePeak, [](const Channel& ch) { return decibels(ch.samplePeak); });
    send(kTruePeak, [](const Channel& ch) { return decibels(ch.truePeak); });
    std::fill(m_out.begin(), m_out.end(), 0.0f);
    for (std::size_t c = 0; c < n; ++c)
        m_out[c] = m_channels[c].clips;
    publishReadout(kClips, m_out.data(), kMaxChannels);
}
