#include "QVDLimiter.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Resample/TruePeak_ref.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDLimiter)

namespace {

// Interpolated peaks spread over neighbouring samples; the true-peak window
// reaches this far past the peak on either side.
constexpr std::int32_t kTpMargin = 2;
// Auto release: dense limiting releases this many times slower than a lone peak.
constexpr float kAutoSlowFactor = 4.0f;
constexpr double kDensitySeconds = 1.0;

inline float finiteOrZero(float x)
{
    return std::isfinite(x) ? x : 0.0f;
}

inline float poleFor(double ms, double rate)
{
    return static_cast<float>(std::exp(-1000.0 / (std::max(ms, 0.001) * rate)));
}

std::size_t powerOfTwoAbove(std::size_t n)
{
    std::size_t p = 1;
    while (p <= n)
        p <<= 1;
    return p;
}

} // namespace

std::vector<QVDParam> QVDLimiter::parameterRows()
{
    return {
        {.name = "INPUT", .label = "Input Gain", .minimum = -12, .maximum = 24, .defaultValue = 0, .step = 0.1f,
         .unit = "dB"},
        {.name = "CEILING", .label = "Ceiling", .minimum = -20, .maximum = 0, .defaultValue = -1, .step = 0.1f,
         .unit = "dB"},
        {.name = "RELEASE", .label = "Release", .minimum = 1, .maximum = 1000, .defaultValue = 100, .step = 1,
         .unit = "ms"},
        qvdSwitchParam("AUTO_RELEASE", "Auto Release", false),
        {.name = "LOOKAHEAD", .label = "Look-ahead", .minimum = 0.5f, .maximum = 10, .defaultValue = 5,
         .step = 0.1f, .unit = "ms"},
        qvdListParam("MODE", "Mode", {"Sample Peak", "True Peak"}, kSamplePeak),
        qvdSwitchParam("LINK", "Link", true, "Per Channel", "Linked"),
    };
}

QVDLimiter::QVDLimiter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    m_grMeter = addMeterGroup(QStringLiteral("Gain Reduction"), 1);
    setMeterGroupSize(m_grMeter, 1);
}

QVDLimiter::~QVDLimiter() = default;

void QVDLimiter::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto linear = [](float db) { return static_cast<float>(std::pow(10.0, static_cast<double>(db) / 20.0)); };
    switch (index) {
    case INPUT: m_inputGain.store(linear(std::clamp(value, -12.0f, 24.0f)), std::memory_order_relaxed); break;
    case CEILING: m_ceiling.store(linear(std::clamp(value, -20.0f, 0.0f)), std::memory_order_relaxed); break;
    case RELEASE: m_releaseMs.store(std::clamp(value, 1.0f, 1000.0f), std::memory_order_relaxed); break;
    case AUTO_RELEASE: m_autoRelease.store(qvdSwitchOn(value), std::memory_order_relaxed); break;
    case LOOKAHEAD: m_lookaheadMs.store(std::clamp(value, 0.5f, 10.0f), std::memory_order_relaxed); break;
    case MODE: m_mode.store(qvdListIndex(value) == kTruePeak ? kTruePeak : kSamplePeak, std::memory_order_relaxed); break;
    case LINK: m_linked.store(qvdSwitchOn(value), std::memory_order_relaxed); break;
    default: break;
    }
}

bool QVDLimiter::prepareProcessing()
{
    const double rate = sampleRate();
    const auto channels = static_cast<std::size_t>(std::max(maxInputs(), maxOutputs()));
    const auto frames = static_cast<std::size_t>(std::max(blockSize(), 1));

    if (!buildTruePeak())
        return false;
    // Frames the interpolator lags its input, rounded up, plus one for the
    // fraction of a frame each group of four oversampled values spans.
    m_tpOffset = static_cast<std::int32_t>((m_truePeaks.front()->Latency() + 3) / 4) + 1;
    m_look = std::max<std::int32_t>(
        1, static_cast<std::int32_t>(std::lround(m_lookaheadMs.load(std::memory_order_relaxed) * rate / 1000.0)));
    m_delay = m_look + m_tpOffset + kTpMargin;
    m_holdTp = m_look + 2 * kTpMargin + 1;

    const std::size_t window = powerOfTwoAbove(static_cast<std::size_t>(m_delay) + 2);
    m_ringMask = window - 1;
    m_ring.assign(channels, std::vector<float>(window, 0.0f));
    m_lanes.assign(channels, Lane{});
    for (Lane& lane : m_lanes) {
        lane.holdIndex.assign(window, 0);
        lane.holdValue.assign(window, 1.0f);
        lane.box.assign(static_cast<std::size_t>(m_look), 1.0f);
    }
    m_need.assign(channels, std::vector<float>(frames, 1.0f));
    resetState();
    return setLatency(static_cast<std::uint64_t>(m_delay));
}

bool QVDLimiter::buildTruePeak()
{
    // Built whole first, then swapped in: a refusal leaves the old ones running.
    const std::int32_t active = std::max(activeInputs(), 1);
    const auto frames = static_cast<std::size_t>(std::max(blockSize(), 1));
    std::vector<std::unique_ptr<twa::numeric::TruePeakImpl>> truePeaks;
    for (std::int32_t c = 0; c < active; c += 2)
        truePeaks.push_back(twa::numeric::CreateTruePeak(static_cast<std::size_t>(std::min(2, active - c))));
    std::vector<float> interleaved(frames * 2, 0.0f);
    std::vector<float> oversampled(frames * 2 * 4, 0.0f);
    m_truePeaks.swap(truePeaks);
    m_interleaved.swap(interleaved);
    m_oversampled.swap(oversampled);
    m_tpChannels = active;
    return true;
}

bool QVDLimiter::channelCountsChanged()
{
    // The interpolator's delay does not depend on its channel count, so the
    // latency stands.
    return m_tpChannels == std::max(activeInputs(), 1) || buildTruePeak();
}

void QVDLimiter::clearLane(Lane& lane) noexcept
{
    std::fill(lane.box.begin(), lane.box.end(), 1.0f);
    lane.run = Lane::Running{};
    lane.run.boxSum = static_cast<double>(lane.box.size());
}

void QVDLimiter::resetState() noexcept
{
    for (auto& ring : m_ring)
        std::fill(ring.begin(), ring.end(), 0.0f);
    m_ringPos = 0;
    m_clock = 0;
    for (Lane& lane : m_lanes)
        clearLane(lane);
    for (auto& truePeak : m_truePeaks)
        truePeak->Reset();
}

template <bool Auto>
void QVDLimiter::runLane(Lane& lane, const float* need, float* gain, std::int32_t frames, float fast, float slow,
                         float densityCoef) noexcept
{
    const std::int64_t hold = m_mode.load(std::memory_order_relaxed) == kTruePeak ? m_holdTp : m_delay;
    const std::size_t mask = m_ringMask;
    const std::size_t look = lane.box.size();
    const double scale = 1.0 / static_cast<double>(look);
    std::int64_t* holdIndex = lane.holdIndex.data();
    float* holdValue = lane.holdValue.data();
    float* box = lane.box.data();
    // Running state in locals: through the lane it would round-trip memory every sample.
    auto [head, tail, boxPos, boxSum, release, density] = lane.run;
    for (std::int32_t n = 0; n < frames; ++n) {
        const std::int64_t now = m_clock + n;
        const float v = need[n];
        // The queue keeps rising values, so its front is the window's minimum.
        while (tail != head && holdValue[(tail - 1) & mask] >= v)
            --tail;
        holdIndex[tail & mask] = now;
        holdValue[tail & mask] = v;
        ++tail;
        while (holdIndex[head & mask] < now - hold)
            ++head;
        const float held = holdValue[head & mask];

        // Release only upwards and never past the held gain, so the average
        // below stays under every gain the window needs.
        float pole = fast;
        if constexpr (Auto) {
            density = densityCoef * density + (held < 1.0f ? 1.0f - densityCoef : 0.0f);
            pole = fast + (slow - fast) * density;
        }
        release = held < release ? held : held + pole * (release - held);

        boxSum += static_cast<double>(release) - static_cast<double>(box[boxPos]);
        box[boxPos] = release;
        if (++boxPos == look) {
            // Resum once per window so rounding never builds up.
            boxPos = 0;
            double sum = 0.0;
            for (std::size_t i = 0; i < look; ++i)
                sum += box[i];
            boxSum = sum;
        }
        gain[n] = static_cast<float>(boxSum * scale);
    }
    lane.run = {head, tail, boxPos, boxSum, release, density};
}

void QVDLimiter::render(const QVDBlock& block) noexcept
{
    const std::int32_t frames = block.frames;
    const std::int32_t channels = block.channels;
    if (frames <= 0 || channels <= 0)
        return;
    const float inGain = m_inputGain.load(std::memory_order_relaxed);
    const float ceiling = m_ceiling.load(std::memory_order_relaxed);
    const bool linked = m_linked.load(std::memory_order_relaxed);
    const int mode = m_mode.load(std::memory_order_relaxed);
    if (mode != m_lastMode) {
        // The interpolator's history is stale after a spell in the other mode.
        if (mode == kTruePeak)
            for (auto& truePeak : m_truePeaks)
                truePeak->Reset();
        m_lastMode = mode;
    }
    const std::int32_t lanes = linked ? 1 : channels;
    for (std::int32_t l = 0; l < lanes; ++l)
        std::fill_n(m_need[static_cast<std::size_t>(l)].begin(), frames, 0.0f);

    // Detector: the largest magnitude per frame and lane.
    if (mode == kTruePeak) {
        for (std::int32_t first = 0; first < channels; first += 2) {
            auto& truePeak = *m_truePeaks[static_cast<std::size_t>(first / 2)];
            const std::size_t stride = truePeak.ChannelCount();
            const std::int32_t count = std::min<std::int32_t>(static_cast<std::int32_t>(stride), channels - first);
            for (std::int32_t i = 0; i < count; ++i) {
                const float* in = block.inputs[first + i];
                for (std::int32_t n = 0; n < frames; ++n)
                    m_interleaved[static_cast<std::size_t>(n) * stride + static_cast<std::size_t>(i)] =
                        finiteOrZero(in[n]) * inGain;
            }
            truePeak.Process(static_cast<std::size_t>(frames), m_interleaved.data(), m_oversampled.data());
            for (std::int32_t i = 0; i < count; ++i) {
                float* need = m_need[static_cast<std::size_t>(linked ? 0 : first + i)].data();
                const float* os = m_oversampled.data() + i;
                for (std::int32_t n = 0; n < frames; ++n) {
                    float a = need[n];
                    for (std::size_t k = 0; k < 4; ++k)
                        a = std::max(a, std::fabs(os[(static_cast<std::size_t>(n) * 4 + k) * stride]));
                    need[n] = a;
                }
            }
        }
    } else {
        for (std::int32_t c = 0; c < channels; ++c) {
            float* need = m_need[static_cast<std::size_t>(linked ? 0 : c)].data();
            const float* in = block.inputs[c];
            for (std::int32_t n = 0; n < frames; ++n)
                need[n] = std::max(need[n], std::fabs(finiteOrZero(in[n]) * inGain));
        }
    }

    const double rate = sampleRate();
    const float releaseMs = m_releaseMs.load(std::memory_order_relaxed);
    const float fast = poleFor(releaseMs, rate);
    const bool autoRelease = m_autoRelease.load(std::memory_order_relaxed);
    const float slow = poleFor(releaseMs * kAutoSlowFactor, rate);
    const float densityCoef = poleFor(kDensitySeconds * 1000.0, rate);
    float smallest = 1.0f;
    for (std::int32_t l = 0; l < lanes; ++l) {
        float* need = m_need[static_cast<std::size_t>(l)].data();
        for (std::int32_t n = 0; n < frames; ++n)
            need[n] = need[n] > ceiling ? ceiling / need[n] : 1.0f;
        // The lane turns its needed gains into applied gains in place.
        Lane& lane = m_lanes[static_cast<std::size_t>(l)];
        if (autoRelease)
            runLane<true>(lane, need, need, frames, fast, slow, densityCoef);
        else
            runLane<false>(lane, need, need, frames, fast, slow, densityCoef);
        for (std::int32_t n = 0; n < frames; ++n)
            smallest = std::min(smallest, need[n]);
    }

    const std::size_t mask = m_ringMask;
    const std::size_t delay = static_cast<std::size_t>(m_delay);
    for (std::int32_t c = 0; c < channels; ++c) {
        const float* in = block.inputs[c];
        float* out = block.outputs[c];
        float* ring = m_ring[static_cast<std::size_t>(c)].data();
        const float* gain = m_need[static_cast<std::size_t>(linked ? 0 : c)].data();
        std::size_t pos = m_ringPos;
        for (std::int32_t n = 0; n < frames; ++n, ++pos) {
            ring[pos & mask] = finiteOrZero(in[n]) * inGain;
            const float y = ring[(pos - delay) & mask] * gain[n];
            // Rounding of the gain can leave a last ulp above the ceiling.
            out[n] = std::clamp(y, -ceiling, ceiling);
        }
    }
    m_ringPos += static_cast<std::size_t>(frames);
    m_clock += frames;
    setMeterLevel(m_grMeter, 0, smallest);
}
