#include "DeEsser.h"

#include <algorithm>
#include <cmath>

#include <SmoothingCoefficient.h>

#include "BiQuad.h"
#include "Glide.h"
#include "LevelTracker.h"
#include "ParameterRow.h"

namespace {

QVDParameterDefinition row(std::int32_t index, const char* id, const char* label, std::int32_t kind, float min,
                           float max, float def, float step, const char* unit = "")
{
    return qvd::algorithms::parameterRow("DeEsser", index, id, label, kind, min, max, def, step, unit);
}

// Half the split filter's span: 1.2 ms gives a 1.6 kHz transition band.
constexpr double kHalfSpanSeconds = 0.0012;
// Kaiser window: sidelobes, and so the leak across the split, near -63 dB.
constexpr double kKaiserBeta = 6.0;

inline void settle(BiQuadState& s) noexcept
{
    if (!std::isfinite(s.w1) || !std::isfinite(s.w2))
        s = BiQuadState{};
}

double besselI0(double x)
{
    double term = 1.0, sum = 1.0;
    for (int k = 1; k < 50 && term > 1e-12 * sum; ++k) {
        const double h = x / (2.0 * k);
        term *= h * h;
        sum += term;
    }
    return sum;
}

// Eight running sums, so the compiler can vectorise without reassociating.
inline float dot(const float* __restrict h, const float* __restrict x, std::int32_t n) noexcept
{
    float acc[8] = {};
    std::int32_t k = 0;
    for (; k + 8 <= n; k += 8)
        for (std::int32_t j = 0; j < 8; ++j)
            acc[j] += h[k + j] * x[k + j];
    float sum = 0.0f;
    for (; k < n; ++k)
        sum += h[k] * x[k];
    for (float a : acc)
        sum += a;
    return sum;
}

} // namespace

const std::vector<QVDParameterDefinition>& DeEsser::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table{
        row(FREQ, "DeEsser::FREQ", "Frequency", qvd::kContinuous, kMinFrequency, kMaxFrequency, 6000.0f, 10.0f, "Hz"),
        row(Q, "DeEsser::Q", "Q", qvd::kContinuous, 0.5f, 8.0f, 1.5f, 0.01f),
        row(THRES, "DeEsser::THRES", "Threshold", qvd::kContinuous, -60.0f, 0.0f, -30.0f, 0.1f, "dB"),
        row(RANGE, "DeEsser::RANGE", "Range", qvd::kContinuous, 0.0f, 30.0f, 6.0f, 0.1f, "dB"),
        row(ATTACK, "DeEsser::ATTACK", "Attack", qvd::kContinuous, 0.1f, 50.0f, 1.0f, 0.1f, "ms"),
        row(RELEASE, "DeEsser::RELEASE", "Release", qvd::kContinuous, 10.0f, 1000.0f, 80.0f, 1.0f, "ms"),
        row(MODE, "DeEsser::MODE", "Mode", qvd::kList, 0.0f, 1.0f, 1.0f, 1.0f),
        row(SPLIT, "DeEsser::SPLIT", "Split", qvd::kContinuous, kMinFrequency, kMaxFrequency, 4000.0f, 10.0f, "Hz"),
        row(LISTEN, "DeEsser::LISTEN", "Listen", qvd::kList, 0.0f, 1.0f, 0.0f, 1.0f),
        row(LINK, "DeEsser::LINK", "Link", qvd::kList, 0.0f, 1.0f, 1.0f, 1.0f),
    };
    return table;
}

DeEsser::DeEsser() : QVDAudioAlgorithm(parameterTable()), m_variant(qvd::dynamics::selectVariant())
{
    for (auto& tracker : m_trackers) {
        tracker = std::make_unique<LevelTracker>();
        tracker->setParameter(LevelTracker::FLOOR, -100.0f);
        tracker->setParameter(LevelTracker::HOLD, 0.0f);
    }
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].value());
    reset();
}

DeEsser::~DeEsser() = default;

bool DeEsser::initialise(float sampleRate, std::int32_t channelCount)
{
    // The followers take the rate first, so the defaults below reach them in it.
    for (auto& tracker : m_trackers) {
        tracker->initialise(sampleRate, 1);
        tracker->setParameter(LevelTracker::FLOOR, -100.0f);
        tracker->setParameter(LevelTracker::HOLD, 0.0f);
    }
    // Sized before the defaults below, which redesign the split filter.
    const double fs = sampleRate > 0.0f ? static_cast<double>(sampleRate) : 48000.0;
    m_latency = std::max<std::int32_t>(2, static_cast<std::int32_t>(std::lround(kHalfSpanSeconds * fs)));
    m_taps = 2 * m_latency + 1;
    const auto taps = static_cast<std::size_t>(m_taps);
    m_window.resize(taps);
    const double norm = besselI0(kKaiserBeta);
    for (std::size_t k = 0; k < taps; ++k) {
        const double r = (static_cast<double>(k) - m_latency) / m_latency;
        m_window[k] = static_cast<float>(besselI0(kKaiserBeta * std::sqrt(std::max(0.0, 1.0 - r * r))) / norm);
    }
    m_lowPass.assign(taps, 0.0f);
    for (Lane& lane : m_lanes) {
        lane.input.assign(2 * taps, 0.0f);
        lane.band.assign(2 * taps, 0.0f);
    }
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok && channelCount >= 1 && channelCount <= kMaxChannels;
}

bool DeEsser::setChannelCount(std::int32_t channelCount)
{
    if (channelCount < 1 || channelCount > kMaxChannels)
        return false;
    return QVDAudioAlgorithm::setChannelCount(channelCount);
}

bool DeEsser::setParameter(std::uint32_t index, float value)
{
    if (index >= parameterCount() || std::isnan(value))
        return index < parameterCount();
    const QVDParameterDefinition& d = m_parameters[index].definition();
    const float v = std::clamp(value, d.minimum, d.maximum);
    QVDAudioAlgorithm::setParameter(index, v);
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case FREQ: m_freq.store(v, relaxed); break;
    case Q: m_q.store(v, relaxed); break;
    case THRES: m_thres.store(v / 20.0f, relaxed); break;
    case RANGE: m_range.store(v / 20.0f, relaxed); break;
    case ATTACK:
        for (auto& tracker : m_trackers)
            tracker->setParameter(LevelTracker::ATTACK, v);
        break;
    case RELEASE:
        for (auto& tracker : m_trackers)
            tracker->setParameter(LevelTracker::RELEASE, v);
        break;
    case MODE: m_splitMode.store(qvdListIndex(v) == kSplitBand, relaxed); break;
    case SPLIT: m_split.store(v, relaxed); break;
    case LISTEN: m_listen.store(qvdSwitchOn(v), relaxed); break;
    case LINK: m_link.store(qvdSwitchOn(v), relaxed); break;
    default: break;
    }
    return true;
}

void DeEsser::reset()
{
    for (Lane& lane : m_lanes) {
        lane.detect = BiQuadState{};
        std::fill(lane.input.begin(), lane.input.end(), 0.0f);
        std::fill(lane.band.begin(), lane.band.end(), 0.0f);
    }
    m_pos = 0;
    m_delayOnly = false;
    for (auto& tracker : m_trackers)
        tracker->reset();
    m_jump = true;
    m_reductionDb.store(0.0f, std::memory_order_relaxed);
}

float DeEsser::readOut(std::uint32_t index) const
{
    return index == kGainReduction ? m_reductionDb.load(std::memory_order_relaxed) : 0.0f;
}

DeEsser::Glides DeEsser::targets() const noexcept
{
    constexpr auto relaxed = std::memory_order_relaxed;
    Glides t{};
    t.logFreq = std::log(static_cast<double>(m_freq.load(relaxed)));
    t.logQ = std::log(static_cast<double>(m_q.load(relaxed)));
    t.logSplit = std::log(static_cast<double>(m_split.load(relaxed)));
    t.thres = m_thres.load(relaxed);
    t.range = m_range.load(relaxed);
    t.split = m_splitMode.load(relaxed) ? 1.0 : 0.0;
    t.listen = m_listen.load(relaxed) ? 1.0 : 0.0;
    t.link = m_link.load(relaxed) ? 1.0 : 0.0;
    return t;
}

void DeEsser::design() noexcept
{
    const double fs = m_sampleRate > 0 ? m_sampleRate : 48000.0;
    // Below Nyquist whatever the rate; at 44.1 kHz and up nothing is cut short.
    const double top = 0.45 * fs;
    m_detectCoefs = BiQuad::design(BiQuad::kBandPass, fs, std::min(std::exp(m_now.logFreq), top),
                                   std::exp(m_now.logQ), 1.0);
}

void DeEsser::designLowPass() noexcept
{
    const double fs = m_sampleRate > 0 ? m_sampleRate : 48000.0;
    if (m_lowPass.size() != static_cast<std::size_t>(m_taps))
        return; // not initialised yet
    // Windowed sinc; unity at DC, so the high band is exactly 0 there.
    const double w = 2.0 * std::min(std::exp(m_now.logSplit), 0.45 * fs) / fs;
    double sum = 0.0;
    for (std::int32_t k = 0; k < m_taps; ++k) {
        const double t = M_PI * w * (k - m_latency);
        const double sinc = k == m_latency ? 1.0 : std::sin(t) / t;
        const double h = w * sinc * m_window[static_cast<std::size_t>(k)];
        m_lowPass[static_cast<std::size_t>(k)] = static_cast<float>(h);
        sum += h;
    }
    for (float& h : m_lowPass)
        h = static_cast<float>(h / sum);
}

bool DeEsser::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    const std::int32_t count = m_channelCount;
    if (channels == nullptr || count < 1 || count > kMaxChannels ||
        m_lowPass.size() != static_cast<std::size_t>(m_taps))
        return false;
    const Glides target = targets();
    const double a = SmoothingCoefficient::shared200ms().a();
    if (m_jump) {
        m_now = target;
        design();
        designLowPass();
        m_jump = false;
    }
    const double chunkPole = std::pow(a, static_cast<double>(kChunk));
    const auto taps = static_cast<std::size_t>(m_taps);
    const std::size_t back = taps - static_cast<std::size_t>(m_latency); // x' sits here past the write position
    float most = 0.0f;

    for (std::uint32_t start = 0; start < frames; start += kChunk) {
        const auto n = static_cast<std::int32_t>(std::min<std::uint32_t>(frames - start, kChunk));
        const double pole = n == kChunk ? chunkPole : std::pow(a, static_cast<double>(n));

        // Filters glide a chunk at a time; a settled filter is never redesigned.
        const Glides before = m_now;
        m_now.logFreq = glideTo(m_now.logFreq, target.logFreq, pole);
        m_now.logQ = glideTo(m_now.logQ, target.logQ, pole);
        m_now.logSplit = glideTo(m_now.logSplit, target.logSplit, pole);
        if (m_now.logFreq != before.logFreq || m_now.logQ != before.logQ)
            design();
        if (m_now.logSplit != before.logSplit)
            designLowPass();

        // Nothing to reduce and nothing to listen to: only the delay.
        if (m_now.range == 0.0 && target.range == 0.0 && m_now.listen == 0.0 && target.listen == 0.0) {
            for (std::int32_t c = 0; c < count; ++c) {
                Lane& lane = m_lanes[static_cast<std::size_t>(c)];
                float* x = channels[c] + start;
                std::size_t pos = m_pos;
                for (std::int32_t i = 0; i < n; ++i) {
                    lane.input[pos] = lane.input[pos + taps] = x[i];
                    lane.band[pos] = lane.band[pos + taps] = 0.0f;
                    x[i] = lane.input[pos + back];
                    pos = pos + 1 == taps ? 0 : pos + 1;
                }
            }
            m_pos = (m_pos + static_cast<std::size_t>(n)) % taps;
            m_delayOnly = true;
            continue;
        }
        if (m_delayOnly) {
            // The followers missed the frames in between: start them afresh.
            for (auto& tracker : m_trackers)
                tracker->reset();
            m_delayOnly = false;
        }

        // Levels and crossfades glide per sample.
        bool splitting = false, listening = false, linking = false;
        for (std::int32_t i = 0; i < n; ++i) {
            m_now.thres = glideTo(m_now.thres, target.thres, a);
            m_now.range = glideTo(m_now.range, target.range, a);
            m_now.split = glideTo(m_now.split, target.split, a);
            m_now.listen = glideTo(m_now.listen, target.listen, a);
            m_now.link = glideTo(m_now.link, target.link, a);
            m_thresNow[i] = static_cast<float>(m_now.thres);
            m_rangeNow[i] = static_cast<float>(m_now.range);
            m_splitNow[i] = static_cast<float>(m_now.split);
            m_listenNow[i] = static_cast<float>(m_now.listen);
            m_linkNow[i] = static_cast<float>(m_now.link);
            splitting |= m_splitNow[i] > 0.0f;
            listening |= m_listenNow[i] > 0.0f;
            linking |= m_linkNow[i] > 0.0f;
        }

        // Detector: band-pass, then the peak follower of each channel.
        for (std::int32_t c = 0; c < count; ++c) {
            float* band = m_band[static_cast<std::size_t>(c)].data();
            BiQuad::run(m_detectCoefs, m_lanes[static_cast<std::size_t>(c)].detect, channels[c] + start, band,
                        static_cast<std::uint32_t>(n));
            const float* bands[1] = {band};
            m_trackers[static_cast<std::size_t>(c)]->track(bands, static_cast<std::uint32_t>(n),
                                                           m_env[static_cast<std::size_t>(c)].data());
        }
        if (linking) {
            m_loudest = m_env[0];
            for (std::int32_t c = 1; c < count; ++c)
                for (std::int32_t i = 0; i < n; ++i)
                    m_loudest[i] = std::max(m_loudest[i], m_env[static_cast<std::size_t>(c)][i]);
        }

        // Gain computer, log10 units: the level over the threshold, up to the range.
        for (std::int32_t c = 0; c < count; ++c) {
            const float* env = m_env[static_cast<std::size_t>(c)].data();
            float* gain = m_gain[static_cast<std::size_t>(c)].data();
            for (std::int32_t i = 0; i < n; ++i) {
                const float e = linking ? env[i] + m_linkNow[i] * (m_loudest[i] - env[i]) : env[i];
                const float r = std::min(std::max(e - m_thresNow[i], 0.0f), m_rangeNow[i]);
                most = std::max(most, r);
                gain[i] = -r;
            }
            m_variant.exp10(gain, m_scratch.data(), n);
            // Exactly 1 where nothing is reduced: the fast 10^x need not give it.
            for (std::int32_t i = 0; i < n; ++i)
                gain[i] = gain[i] < 0.0f ? m_scratch[i] : 1.0f;
        }

        for (std::int32_t c = 0; c < count; ++c) {
            Lane& lane = m_lanes[static_cast<std::size_t>(c)];
            float* x = channels[c] + start;
            const float* gain = m_gain[static_cast<std::size_t>(c)].data();
            const float* band = m_band[static_cast<std::size_t>(c)].data();
            std::size_t pos = m_pos;
            for (std::int32_t i = 0; i < n; ++i) {
                lane.input[pos] = lane.input[pos + taps] = x[i];
                lane.band[pos] = lane.band[pos + taps] = band[i];
                const float delayed = lane.input[pos + back];
                float y = delayed;
                const float g = gain[i];
                if (g != 1.0f) {
                    // Only the high band takes the gain: x' less the low band.
                    float reduced = delayed;
                    if (splitting)
                        reduced -= m_splitNow[i] * dot(m_lowPass.data(), lane.input.data() + pos + 1, m_taps);
                    y = delayed + reduced * (g - 1.0f);
                }
                if (listening)
                    y += m_listenNow[i] * (lane.band[pos + back] - y);
                x[i] = y;
                pos = pos + 1 == taps ? 0 : pos + 1;
            }
        }
        m_pos = (m_pos + static_cast<std::size_t>(n)) % taps;
    }
    for (std::int32_t c = 0; c < count; ++c) {
        Lane& lane = m_lanes[static_cast<std::size_t>(c)];
        settle(lane.detect);
        // A non-finite sample would sit in the split filter's span for 2.4 ms.
        for (float& v : lane.input)
            v = std::isfinite(v) ? v : 0.0f;
        for (float& v : lane.band)
            v = std::isfinite(v) ? v : 0.0f;
    }
    m_reductionDb.store(20.0f * most, std::memory_order_relaxed);
    return true;
}
