#include "QVDDucker.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/DynamicsMath.h>
#include <qvd/HostExtensions.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDDucker)

namespace {

// Below this a step would take hours to cover 1 dB; a depth of 0 dB still
// lets a gain left lower by an earlier depth come back.
constexpr float kMinSpanDb = 1.0f;
constexpr float kLn10Over20 = 0.11512925465f;

inline float dbToGain(float db)
{
    return db == 0.0f ? 1.0f : std::exp(db * kLn10Over20);
}

} // namespace

std::vector<QVDParam> QVDDucker::parameterRows()
{
    return {
        {.name = "THRESHOLD", .label = "Threshold", .minimum = -60, .maximum = 0, .defaultValue = -30,
         .step = 0.1f, .unit = "dB"},
        {.name = "DEPTH", .label = "Depth", .minimum = -40, .maximum = 0, .defaultValue = -12, .step = 0.1f,
         .unit = "dB"},
        {.name = "ATTACK", .label = "Attack", .minimum = 1, .maximum = 500, .defaultValue = 10, .step = 0.1f,
         .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "HOLD", .label = "Hold", .minimum = 10, .maximum = 2000, .defaultValue = 100, .step = 1,
         .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "RELEASE", .label = "Release", .minimum = 10, .maximum = 5000, .defaultValue = 300, .step = 1,
         .unit = "ms", .scale = qvd::kLogarithmic},
        {.name = "LOOKAHEAD", .label = "Look-ahead", .minimum = 0, .maximum = 20, .defaultValue = 0, .step = 0.1f,
         .unit = "ms"},
        qvdSwitchParam("KEY_FILTER", "Key Filter", false),
        {.name = "KEY_LOW", .label = "Key Low Cut", .minimum = 20, .maximum = 2000, .defaultValue = 150, .step = 1,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        {.name = "KEY_HIGH", .label = "Key High Cut", .minimum = 500, .maximum = 20000, .defaultValue = 4000,
         .step = 1, .unit = "Hz", .scale = qvd::kLogarithmic},
        qvdListParam("KEY_DETECT", "Key Detect", {"Loudest Channel", "Sum"}, kKeyMax),
    };
}

QVDDucker::QVDDucker(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    addReadout(QStringLiteral("Gain"), QStringLiteral("dB"));
    addReadout(QStringLiteral("Key Available"), QStringLiteral("1 the host supplies the side-chain, 0 silence"));
}

void QVDDucker::setUpKeyFilters()
{
    for (BiQuad* f : {&m_lowCut, &m_highCut}) {
        f->setParameter(BiQuad::IN, 1.0f);
        f->setParameter(BiQuad::Q, static_cast<float>(std::sqrt(0.5))); // Butterworth
    }
    m_lowCut.setParameter(BiQuad::SHAPE, 1.0f);  // high-pass
    m_highCut.setParameter(BiQuad::SHAPE, 0.0f); // low-pass
    m_lowCut.setParameter(BiQuad::FREQ, m_keyLowHz.load(std::memory_order_relaxed));
    m_highCut.setParameter(BiQuad::FREQ, m_keyHighHz.load(std::memory_order_relaxed));
}

void QVDDucker::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    switch (index) {
    case THRESHOLD:
        m_threshold.store(std::pow(10.0f, std::clamp(value, -60.0f, 0.0f) / 20.0f), std::memory_order_relaxed);
        break;
    case DEPTH: m_depthDb.store(std::clamp(value, -40.0f, 0.0f), std::memory_order_relaxed); break;
    case ATTACK: m_attackMs.store(std::clamp(value, 1.0f, 500.0f), std::memory_order_relaxed); break;
    case HOLD: m_holdMs.store(std::clamp(value, 10.0f, 2000.0f), std::memory_order_relaxed); break;
    case RELEASE: m_releaseMs.store(std::clamp(value, 10.0f, 5000.0f), std::memory_order_relaxed); break;
    case LOOKAHEAD: m_lookaheadMs.store(std::clamp(value, 0.0f, 20.0f), std::memory_order_relaxed); break;
    case KEY_FILTER: m_keyFilter.store(qvdSwitchOn(value), std::memory_order_relaxed); break;
    case KEY_LOW:
        m_keyLowHz.store(std::clamp(value, 20.0f, 2000.0f), std::memory_order_relaxed);
        m_lowCut.setParameter(BiQuad::FREQ, m_keyLowHz.load(std::memory_order_relaxed));
        break;
    case KEY_HIGH:
        m_keyHighHz.store(std::clamp(value, 500.0f, 20000.0f), std::memory_order_relaxed);
        m_highCut.setParameter(BiQuad::FREQ, m_keyHighHz.load(std::memory_order_relaxed));
        break;
    case KEY_DETECT:
        m_keyDetect.store(qvdListIndex(value) == kKeySum ? kKeySum : kKeyMax, std::memory_order_relaxed);
        break;
    default: break;
    }
    updateSteps();
}

void QVDDucker::updateSteps() noexcept
{
    const float rate = static_cast<float>(sampleRate() > 0 ? sampleRate() : 48000);
    const float span = std::max(-m_depthDb.load(std::memory_order_relaxed), kMinSpanDb);
    const float attack = m_attackMs.load(std::memory_order_relaxed) * rate / 1000.0f;
    const float release = m_releaseMs.load(std::memory_order_relaxed) * rate / 1000.0f;
    m_attackStep.store(span / std::max(attack, 1.0f), std::memory_order_relaxed);
    m_releaseStep.store(span / std::max(release, 1.0f), std::memory_order_relaxed);
    std::int32_t hold = 0;
    qvd::dynamics::holdSamples(static_cast<std::int32_t>(rate), m_holdMs.load(std::memory_order_relaxed), hold);
    m_holdSamples.store(std::max(hold, 1), std::memory_order_relaxed);
}

bool QVDDucker::prepareProcessing()
{
    const double rate = sampleRate();
    const auto frames = static_cast<std::size_t>(std::max(blockSize(), 1));
    const auto channels = static_cast<std::size_t>(std::max(maxInputs(), maxOutputs()));
    m_ringLength = static_cast<std::size_t>(
        std::lround(static_cast<double>(m_lookaheadMs.load(std::memory_order_relaxed)) * rate / 1000.0));
    m_ring.assign(channels, std::vector<float>(m_ringLength, 0.0f));
    m_key.assign(kKeyChannels, std::vector<float>(frames, 0.0f));
    // Initialising restores a filter's defaults: set it up again at the new rate.
    m_lowCut.initialise(static_cast<float>(rate), kKeyChannels);
    m_highCut.initialise(static_cast<float>(rate), kKeyChannels);
    setUpKeyFilters();
    updateSteps();
    resetState();
    return setLatency(m_ringLength);
}

void QVDDucker::resetState() noexcept
{
    for (auto& ring : m_ring)
        std::fill(ring.begin(), ring.end(), 0.0f);
    m_ringPos = 0;
    m_holdLeft = 0;
    m_gainDb = 0.0f;
    m_gain = 1.0f;
    m_lowCut.reset();
    m_highCut.reset();
}

void QVDDucker::render(const QVDBlock& block) noexcept
{
    const float threshold = m_threshold.load(std::memory_order_relaxed);
    const float depth = m_depthDb.load(std::memory_order_relaxed);
    const float attackStep = m_attackStep.load(std::memory_order_relaxed);
    const float releaseStep = m_releaseStep.load(std::memory_order_relaxed);
    const std::int32_t holdSamples = m_holdSamples.load(std::memory_order_relaxed);
    const bool sum = m_keyDetect.load(std::memory_order_relaxed) == kKeySum;
    const bool filter = m_keyFilter.load(std::memory_order_relaxed);
    const std::size_t ringLength = m_ringLength;
    const std::int32_t chunk = static_cast<std::int32_t>(m_key[0].size());
    // The base's pre-roll after a reset is silence with no place on the timeline.
    const bool preRoll = block.record && block.record->mode == qvd::kModePreRoll;
    bool keyAvailable = true;

    for (std::int32_t done = 0; done < block.frames;) {
        const std::int32_t n = std::min(chunk, block.frames - done);
        float* key[kKeyChannels] = {m_key[0].data(), m_key[1].data()};
        // The host aligns the key with this block; later chunks of an
        // oversized block ask for their own frames.
        qvd::BlockRecord record = block.record ? *block.record : qvd::BlockRecord{};
        if (record.position >= 0)
            record.position += done;
        if (preRoll) {
            for (float* k : key)
                std::fill(k, k + n, 0.0f);
        } else {
            keyAvailable = fetchHostAudio(qvd::kSourceSideChain, &record, key, kKeyChannels, n) && keyAvailable;
        }
        if (filter) {
            m_lowCut.processChannels(key, kKeyChannels, static_cast<std::uint32_t>(n));
            m_highCut.processChannels(key, kKeyChannels, static_cast<std::uint32_t>(n));
        }

        std::size_t pos = m_ringPos;
        for (std::int32_t i = 0; i < n; ++i) {
            const float level = sum ? std::fabs(key[0][i] + key[1][i]) : std::max(std::fabs(key[0][i]), std::fabs(key[1][i]));
            // NaN compares false: a broken key sample counts as quiet.
            if (level > threshold)
                m_holdLeft = holdSamples;
            else if (m_holdLeft > 0)
                --m_holdLeft;

            const float before = m_gainDb;
            if (m_holdLeft > 0)
                m_gainDb = m_gainDb > depth ? std::max(depth, m_gainDb - attackStep)
                                            : std::min(depth, m_gainDb + releaseStep);
            else if (m_gainDb < 0.0f)
                m_gainDb = std::min(0.0f, m_gainDb + releaseStep);
            if (m_gainDb != before)
                m_gain = dbToGain(m_gainDb);

            const float g = m_gain;
            for (std::int32_t c = 0; c < block.channels; ++c) {
                float x = block.inputs[c][done + i];
                if (ringLength) {
                    float& slot = m_ring[static_cast<std::size_t>(c)][pos];
                    std::swap(x, slot);
                }
                block.outputs[c][done + i] = g == 1.0f ? x : x * g;
            }
            if (ringLength && ++pos == ringLength)
                pos = 0;
        }
        m_ringPos = pos;
        done += n;
    }
    publishReadout(kGainReadout, m_gainDb);
    if (!preRoll)
        publishReadout(kKeyReadout, keyAvailable ? 1.0f : 0.0f);
}
