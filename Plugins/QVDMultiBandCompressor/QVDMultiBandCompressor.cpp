#include "QVDMultiBandCompressor.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDMultiBandCompressor)

namespace {

constexpr float kDefaultCrossoverHz[QVDMultiBandCompressor::kMaxBands - 1] = {100.0f, 500.0f, 2000.0f, 8000.0f};
constexpr float kMinHz = 20.0f, kMaxHz = 20000.0f;
// Neighbouring crossovers stay at least a third of an octave apart.
const double kMinSpacing = std::pow(2.0, 1.0 / 3.0);
// Crossover coefficients are redesigned this often while a frequency glides.
constexpr std::int32_t kGlideChunk = 32;
// Fade around a change of band count or slope, each way.
constexpr double kFadeSeconds = 0.005;
// Detector window: two periods of the band's lower edge, within these bounds.
constexpr float kRmsMinMs = 5.0f, kRmsMaxMs = 30.0f;

// About 16 ms to settle halfway: quick enough to follow a hand on a control,
// slow enough that no step of a gain or a crossover is heard.
SmoothingCoefficient& glide()
{
    static SmoothingCoefficient record(100);
    return record;
}
[[maybe_unused]] SmoothingCoefficient& g_glide = glide();

// Crossovers sweep slower (about 65 ms halfway): a filter whose coefficients
// move fast rings, and a split sweeping across a tone shifts its phase.
SmoothingCoefficient& sweep()
{
    static SmoothingCoefficient record(400);
    return record;
}
[[maybe_unused]] SmoothingCoefficient& g_sweep = sweep();

float linear(float db)
{
    return static_cast<float>(std::pow(10.0, static_cast<double>(db) / 20.0));
}

// One-pole value after `frames` steps from `from` towards `to`; lands exactly.
float settle(float from, float to, double pole, std::int32_t frames)
{
    const double next = to + std::pow(pole, frames) * (static_cast<double>(from) - to);
    return std::fabs(next - to) < 1e-6 ? to : static_cast<float>(next);
}

// dst (=, or += with Add) src * gain ramped linearly from `from` to `to`.
template <bool Add>
void mixRamp(float* __restrict dst, const float* __restrict src, float from, float to, std::int32_t frames)
{
    if (from == to) {
        for (std::int32_t i = 0; i < frames; ++i)
            dst[i] = Add ? dst[i] + src[i] * to : src[i] * to;
        return;
    }
    const float step = (to - from) / static_cast<float>(frames);
    for (std::int32_t i = 0; i < frames; ++i) {
        const float g = from + step * static_cast<float>(i + 1);
        dst[i] = Add ? dst[i] + src[i] * g : src[i] * g;
    }
}

// x *= the ramp; what would be subnormal becomes 0 (gains far down can
// take a tiny band there).
void scaleRamp(float* x, float from, float to, std::int32_t frames)
{
    const float step = (to - from) / static_cast<float>(frames);
    for (std::int32_t i = 0; i < frames; ++i) {
        const float y = x[i] * (from == to ? to : from + step * static_cast<float>(i + 1));
        x[i] = std::fabs(y) < 1e-30f ? 0.0f : y;
    }
}

} // namespace

std::vector<QVDParam> QVDMultiBandCompressor::parameterRows()
{
    std::vector<QVDParam> rows{
        {.name = "BANDS", .label = "Bands", .minimum = 1, .maximum = kMaxBands, .defaultValue = 4, .step = 1},
        qvdListParam("SLOPE", "Crossover Slope", {"24 dB/oct", "48 dB/oct"}, Crossover::k24dB),
    };
    for (int k = 0; k < kMaxBands - 1; ++k) {
        const std::string n = std::to_string(k + 1);
        rows.push_back({.name = "CROSSOVER_" + n, .label = "Crossover " + n, .minimum = kMinHz, .maximum = kMaxHz,
                        .defaultValue = kDefaultCrossoverHz[k], .step = 1, .unit = "Hz",
                        .scale = qvd::kLogarithmic});
    }
    rows.push_back({.name = "INPUT", .label = "Input Gain", .minimum = -24, .maximum = 24, .defaultValue = 0,
                    .step = 0.1f, .unit = "dB"});
    rows.push_back({.name = "OUTPUT", .label = "Output Gain", .minimum = -24, .maximum = 24, .defaultValue = 0,
                    .step = 0.1f, .unit = "dB"});
    rows.push_back(qvdSwitchParam("LINK", "Detection", true, "Per Channel", "Linked"));
    for (int b = 0; b < kMaxBands; ++b) {
        const std::string n = std::to_string(b + 1);
        const std::string id = "BAND" + n + "_", label = "Band " + n + " ";
        rows.push_back({.name = id + "THRESHOLD", .label = label + "Threshold", .minimum = -60, .maximum = 0,
                        .defaultValue = -20, .step = 0.1f, .unit = "dB"});
        rows.push_back({.name = id + "RATIO", .label = label + "Ratio", .minimum = 1, .maximum = 20,
                        .defaultValue = 2, .step = 0.1f, .scale = qvd::kLogarithmic});
        rows.push_back({.name = id + "ATTACK", .label = label + "Attack", .minimum = 0.1f, .maximum = 200,
                        .defaultValue = 10, .step = 0.1f, .unit = "ms", .scale = qvd::kLogarithmic});
        rows.push_back({.name = id + "RELEASE", .label = label + "Release", .minimum = 5, .maximum = 4000,
                        .defaultValue = 150, .step = 1, .unit = "ms", .scale = qvd::kLogarithmic});
        rows.push_back({.name = id + "KNEE", .label = label + "Knee", .minimum = 0, .maximum = 24, .defaultValue = 6,
                        .step = 0.1f, .unit = "dB"});
        rows.push_back({.name = id + "MAKEUP", .label = label + "Make-up", .minimum = -12, .maximum = 24,
                        .defaultValue = 0, .step = 0.1f, .unit = "dB"});
        rows.push_back(qvdSwitchParam(id + "BYPASS", label + "Bypass", false));
        rows.push_back(qvdSwitchParam(id + "SOLO", label + "Solo", false));
    }
    return rows;
}

QVDMultiBandCompressor::QVDMultiBandCompressor(const QVDPluginDescriptor* descriptor, void* hostContext,
                                               qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    for (int k = 0; k < kMaxBands - 1; ++k)
        m_crossoverHz[static_cast<std::size_t>(k)].store(kDefaultCrossoverHz[k], std::memory_order_relaxed);
    for (int b = 0; b < kMaxBands; ++b) {
        m_linkedComp[static_cast<std::size_t>(b)] = std::make_unique<RmsCompressor>();
        for (auto& c : m_channelComp[static_cast<std::size_t>(b)])
            c = std::make_unique<RmsCompressor>();
    }
    m_grReadout = addReadout(QStringLiteral("Gain Reduction"), QStringLiteral("dB"), kMaxBands);
}

QVDMultiBandCompressor::~QVDMultiBandCompressor() = default;

QString QVDMultiBandCompressor::valueText(std::int32_t index, float value) const
{
    if (std::isnan(value))
        return QVDEffect::valueText(index, value);
    const auto i = static_cast<std::uint32_t>(index);
    if (i == BANDS) {
        const int n = std::clamp(qvdListIndex(value), 1, kMaxBands);
        return n == 1 ? QStringLiteral("1 band") : QStringLiteral("%1 bands").arg(n);
    }
    if (i >= CROSSOVER_1 && i <= CROSSOVER_4 && value >= 1000.0f)
        return QStringLiteral("%1 kHz").arg(static_cast<double>(value) / 1000.0, 0, 'f', 2);
    const bool bandRow = i >= kFirstBandParameter && i < kFirstBandParameter + kMaxBands * kBandParameters;
    if (bandRow && (i - kFirstBandParameter) % kBandParameters == RATIO)
        return QStringLiteral("%1:1").arg(static_cast<double>(value), 0, 'f', 1);
    return QVDEffect::valueText(index, value);
}

void QVDMultiBandCompressor::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    constexpr auto relaxed = std::memory_order_relaxed;
    constexpr std::uint32_t kCrossoverBit = 1u << kMaxBands;
    switch (index) {
    case BANDS: m_bands.store(std::clamp(qvdListIndex(std::clamp(value, 1.0f, 5.0f)), 1, kMaxBands), relaxed); break;
    case SLOPE:
        m_slope.store(qvdListIndex(std::clamp(value, 0.0f, 1.0f)) == 1 ? Crossover::k48dB : Crossover::k24dB, relaxed);
        break;
    case CROSSOVER_1:
    case CROSSOVER_2:
    case CROSSOVER_3:
    case CROSSOVER_4:
        m_crossoverHz[index - CROSSOVER_1].store(std::clamp(value, kMinHz, kMaxHz), relaxed);
        m_dirty.fetch_or(kCrossoverBit, std::memory_order_release);
        break;
    case INPUT: m_input.store(linear(std::clamp(value, -24.0f, 24.0f)), relaxed); break;
    case OUTPUT: m_output.store(linear(std::clamp(value, -24.0f, 24.0f)), relaxed); break;
    case LINK: m_linked.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    default: {
        if (index < kFirstBandParameter || index >= kFirstBandParameter + kMaxBands * kBandParameters)
            return;
        const std::uint32_t b = (index - kFirstBandParameter) / kBandParameters;
        Band& band = m_band[b];
        switch ((index - kFirstBandParameter) % kBandParameters) {
        case THRESHOLD: band.thresholdDb.store(std::clamp(value, -60.0f, 0.0f), relaxed); break;
        case RATIO: band.ratio.store(std::clamp(value, 1.0f, 20.0f), relaxed); break;
        case ATTACK: band.attackMs.store(std::clamp(value, 0.1f, 200.0f), relaxed); break;
        case RELEASE: band.releaseMs.store(std::clamp(value, 5.0f, 4000.0f), relaxed); break;
        case KNEE: band.kneeDb.store(std::clamp(value, 0.0f, 24.0f), relaxed); break;
        case MAKEUP: band.makeup.store(linear(std::clamp(value, -12.0f, 24.0f)), relaxed); return;
        case BYPASS: band.bypass.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); return;
        case SOLO: band.solo.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); return;
        default: return;
        }
        m_dirty.fetch_or(1u << b, std::memory_order_release);
        break;
    }
    }
}

bool QVDMultiBandCompressor::prepareProcessing()
{
    const auto frames = static_cast<std::size_t>(std::max(blockSize(), 1));
    const auto rate = static_cast<float>(sampleRate());
    std::vector<float> storage((kMaxBands + 1) * kMaxChannels * frames, 0.0f);
    m_storage.swap(storage);
    float* p = m_storage.data();
    for (auto& band : m_bandBuf)
        for (float*& ch : band)
            ch = p, p += frames;
    for (float*& ch : m_dryBuf)
        ch = p, p += frames;
    m_crossover.setChannelCount(kMaxChannels);
    for (int b = 0; b < kMaxBands; ++b) {
        m_linkedComp[static_cast<std::size_t>(b)]->initialise(rate, kMaxChannels);
        for (auto& c : m_channelComp[static_cast<std::size_t>(b)])
            c->initialise(rate, 1);
    }
    // initialise() restored the blocks' defaults: ours go back in at the first block.
    m_dirty.store(~0u, std::memory_order_release);
    resetState();
    return true;
}

void QVDMultiBandCompressor::resetState() noexcept
{
    m_crossover.reset();
    for (int b = 0; b < kMaxBands; ++b) {
        m_linkedComp[static_cast<std::size_t>(b)]->reset();
        for (auto& c : m_channelComp[static_cast<std::size_t>(b)])
            c->reset();
    }
    m_fresh = true;
}

void QVDMultiBandCompressor::targetFrequencies(int splits, double rate, double* hz) const noexcept
{
    const double top = std::min<double>(kMaxHz, 0.45 * rate);
    double below = 0.0;
    for (int k = 0; k < splits; ++k) {
        const double lowest = kMinHz * std::pow(kMinSpacing, k);
        const double highest = top / std::pow(kMinSpacing, splits - 1 - k);
        const double f = m_crossoverHz[static_cast<std::size_t>(k)].load(std::memory_order_relaxed);
        hz[k] = std::clamp(std::max(f, below * kMinSpacing), lowest, std::max(lowest, highest));
        below = hz[k];
    }
}

float QVDMultiBandCompressor::rmsWindowMs(int band, const double* hz) const noexcept
{
    if (band == 0)
        return kRmsMaxMs;
    return std::clamp(static_cast<float>(2000.0 / hz[band - 1]), kRmsMinMs, kRmsMaxMs);
}

void QVDMultiBandCompressor::applyBandSettings(int b, double rate) noexcept
{
    Band& band = m_band[static_cast<std::size_t>(b)];
    constexpr auto relaxed = std::memory_order_relaxed;
    double hz[kMaxBands - 1];
    targetFrequencies(kMaxBands - 1, rate, hz);
    const float values[][2] = {
        {RmsCompressor::RMS_SPEED, rmsWindowMs(b, hz)},
        {RmsCompressor::THRES, band.thresholdNow},
        {RmsCompressor::RATIO, band.ratioNow},
        // The block's knee reaches this far either side of the threshold.
        {RmsCompressor::KNEE, 0.5f * band.kneeNow},
        {RmsCompressor::ATTACK, band.attackMs.load(relaxed)},
        {RmsCompressor::RELEASE, band.releaseMs.load(relaxed)},
        // Make-up is ours, so it can glide.
        {RmsCompressor::MAKEUP_GAIN, 0.0f},
        {RmsCompressor::AUTO_MAKEUP, 0.0f},
    };
    const auto apply = [&](RmsCompressor& comp) {
        for (const auto& v : values)
            comp.setParameter(static_cast<std::uint32_t>(v[0]), v[1]);
    };
    apply(*m_linkedComp[static_cast<std::size_t>(b)]);
    for (auto& c : m_channelComp[static_cast<std::size_t>(b)])
        apply(*c);
}

void QVDMultiBandCompressor::applyCurve(int b, bool linked, std::int32_t channels) noexcept
{
    const Band& band = m_band[static_cast<std::size_t>(b)];
    const auto apply = [&](RmsCompressor& comp) {
        comp.setParameter(RmsCompressor::THRES, band.thresholdNow);
        comp.setParameter(RmsCompressor::RATIO, band.ratioNow);
        comp.setParameter(RmsCompressor::KNEE, 0.5f * band.kneeNow);
    };
    if (linked)
        apply(*m_linkedComp[static_cast<std::size_t>(b)]);
    else
        for (std::int32_t c = 0; c < channels; ++c)
            apply(*m_channelComp[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)]);
}

bool QVDMultiBandCompressor::glideCurve(Band& band, double pole) noexcept
{
    constexpr auto relaxed = std::memory_order_relaxed;
    const auto step = [pole](float& now, float target, float close) {
        const double next = target + pole * (static_cast<double>(now) - target);
        now = std::fabs(next - target) < close ? target : static_cast<float>(next);
    };
    const float threshold = band.thresholdDb.load(relaxed), ratio = band.ratio.load(relaxed);
    const float knee = band.kneeDb.load(relaxed);
    if (band.thresholdNow == threshold && band.ratioNow == ratio && band.kneeNow == knee)
        return false;
    step(band.thresholdNow, threshold, 0.01f);
    step(band.ratioNow, ratio, 0.001f);
    step(band.kneeNow, knee, 0.01f);
    return true;
}

void QVDMultiBandCompressor::compress(int b, bool linked, std::int32_t channels, std::int32_t start,
                                      std::int32_t frames) noexcept
{
    const auto n = static_cast<std::uint32_t>(frames);
    float* const* buf = m_bandBuf[static_cast<std::size_t>(b)].data();
    if (linked) {
        float* at[kMaxChannels];
        for (std::int32_t c = 0; c < channels; ++c)
            at[c] = buf[c] + start;
        RmsCompressor& comp = *m_linkedComp[static_cast<std::size_t>(b)];
        comp.setChannelCount(channels);
        comp.processChannels(at, n);
    } else {
        for (std::int32_t c = 0; c < channels; ++c) {
            float* at = buf[c] + start;
            m_channelComp[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)]->processChannels(&at, n);
        }
    }
}

void QVDMultiBandCompressor::updateCrossover(bool jump) noexcept
{
    const double rate = sampleRate();
    const int splits = m_crossover.bands() - 1;
    const double* target = m_targetHz.data();
    if (jump)
        targetFrequencies(splits, rate, m_targetHz.data());
    const double pole = jump ? 0.0 : std::pow(sweep().a(), kGlideChunk);
    for (int k = 0; k < splits; ++k) {
        double& f = m_glideHz[static_cast<std::size_t>(k)];
        if (f == target[k])
            continue;
        // Glides in octaves, the way the ear hears a sweep.
        const double octaves = std::log2(f > 0.0 ? f / target[k] : 1.0) * pole;
        f = f > 0.0 && std::fabs(octaves) > 1e-4 ? target[k] * std::exp2(octaves) : target[k];
        m_crossover.setSplit(k, Crossover::design(rate, f, m_crossover.slope()));
    }
}

void QVDMultiBandCompressor::renderCrossover(const QVDBlock& block, const Ramp& input) noexcept
{
    const int bands = m_crossover.bands();
    const std::int32_t channels = block.channels;
    const float step = (input.to - input.from) / static_cast<float>(block.frames);
    for (std::int32_t start = 0; start < block.frames; start += kGlideChunk) {
        const std::int32_t n = std::min(kGlideChunk, block.frames - start);
        updateCrossover(false);
        // Gained input into the top band's buffer, where the splits start.
        float* top = nullptr;
        for (std::int32_t c = 0; c < channels; ++c) {
            top = m_bandBuf[static_cast<std::size_t>(bands - 1)][static_cast<std::size_t>(c)] + start;
            const float* in = block.inputs[c] + start;
            if (input.steady()) {
                for (std::int32_t i = 0; i < n; ++i)
                    top[i] = in[i] * input.to;
            } else {
                for (std::int32_t i = 0; i < n; ++i)
                    top[i] = in[i] * (input.from + step * static_cast<float>(start + i + 1));
            }
        }
        for (std::int32_t c = 0; c < channels; c += 2) {
            const std::int32_t count = std::min(2, channels - c);
            float* laneBufs[kMaxBands][2];
            float* const* bandPtrs[kMaxBands];
            for (int b = 0; b < bands; ++b) {
                for (std::int32_t l = 0; l < count; ++l)
                    laneBufs[b][l] = m_bandBuf[static_cast<std::size_t>(b)][static_cast<std::size_t>(c + l)] + start;
                bandPtrs[b] = laneBufs[b];
            }
            const float* in[2] = {laneBufs[bands - 1][0], laneBufs[bands - 1][count - 1]};
            m_crossover.process(c, count, in, bandPtrs, n);
        }
    }
}

void QVDMultiBandCompressor::render(const QVDBlock& block) noexcept
{
    const std::int32_t frames = block.frames;
    const std::int32_t channels = std::min(block.channels, kMaxChannels);
    if (frames <= 0 || channels <= 0)
        return;
    constexpr auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    const SmoothingCoefficient& smoothing = glide();
    const double pole = smoothing.a();

    const bool linked = m_linked.load(relaxed);
    std::uint32_t dirty = m_dirty.exchange(0, std::memory_order_acquire);
    if (linked != m_linkedInForce)
        dirty = ~0u; // the other detection's compressors may hold an older curve
    for (int b = 0; b < kMaxBands; ++b)
        if (dirty & ((1u << b) | (1u << kMaxBands)))
            applyBandSettings(b, rate);

    if (linked != m_linkedInForce) {
        // The other detection has not been listening: it takes over where the
        // one in force is, so the gain reduction carries on instead of
        // letting go. Linked follows the loudest channel's envelope.
        for (int b = 0; b < kMaxBands; ++b) {
            RmsCompressor& shared = *m_linkedComp[static_cast<std::size_t>(b)];
            auto& own = m_channelComp[static_cast<std::size_t>(b)];
            if (linked) {
                double meanSquares[kMaxChannels];
                double envelope = own[0]->envelopeState();
                bool restart = true;
                for (std::int32_t c = 0; c < channels; ++c) {
                    const RmsCompressor& from = *own[static_cast<std::size_t>(c)];
                    meanSquares[c] = from.meanSquare(0);
                    envelope = std::max(envelope, from.envelopeState());
                    restart = restart && from.restarting();
                }
                shared.resumeFrom(meanSquares, channels, envelope, restart);
            } else {
                for (std::int32_t c = 0; c < kMaxChannels; ++c) {
                    const double meanSquare = c < channels ? shared.meanSquare(c) : 0.0;
                    own[static_cast<std::size_t>(c)]->resumeFrom(&meanSquare, 1, shared.envelopeState(),
                                                                 shared.restarting());
                }
            }
        }
        m_linkedInForce = linked;
    }

    // Band count and slope: switched at once when fresh or unsmoothed, else
    // behind a fade to silence.
    const int wantBands = m_bands.load(relaxed);
    const auto wantSlope = static_cast<Crossover::Slope>(m_slope.load(relaxed));
    const bool change = wantBands != m_crossover.bands() || wantSlope != m_crossover.slope();
    const auto switchStructure = [&] {
        const int before = m_crossover.bands();
        m_crossover.setBands(wantBands, wantSlope);
        for (int b = before; b < wantBands; ++b) {
            m_linkedComp[static_cast<std::size_t>(b)]->reset();
            for (auto& c : m_channelComp[static_cast<std::size_t>(b)])
                c->reset();
        }
        updateCrossover(true);
    };
    const float fadeStep = static_cast<float>(frames / (kFadeSeconds * rate));
    Ramp fade{m_fade, m_fade};
    if (change && (m_fresh || !smoothing.enabled())) {
        switchStructure();
        fade = {1.0f, 1.0f};
    } else if (change) {
        fade.to = std::max(0.0f, m_fade - fadeStep);
    } else if (m_fade < 1.0f) {
        fade.to = std::min(1.0f, m_fade + fadeStep);
    }
    m_fade = fade.to;
    targetFrequencies(m_crossover.bands() - 1, rate, m_targetHz.data());
    if (m_fresh)
        updateCrossover(true);

    const int bands = m_crossover.bands();
    bool anySolo = false;
    for (int b = 0; b < bands; ++b)
        anySolo |= m_band[static_cast<std::size_t>(b)].solo.load(relaxed);

    const float inTarget = m_input.load(relaxed), outTarget = m_output.load(relaxed);
    // Unsmoothed (a host's offline render, tests), settings hold from the first sample.
    const bool jump = m_fresh || !smoothing.enabled();
    const Ramp input{jump ? inTarget : m_inGain, jump ? inTarget : settle(m_inGain, inTarget, pole, frames)};
    const Ramp output{jump ? outTarget : m_outGain, jump ? outTarget : settle(m_outGain, outTarget, pole, frames)};
    m_inGain = input.to;
    m_outGain = output.to;

    renderCrossover(block, input);

    float reduction[kMaxBands] = {};
    const double chunkPole = std::pow(pole, kGlideChunk);
    for (int b = 0; b < bands; ++b) {
        Band& band = m_band[static_cast<std::size_t>(b)];
        const bool heard = !anySolo || band.solo.load(relaxed);
        const bool bypass = band.bypass.load(relaxed);
        const float wetTarget = heard && !bypass ? band.makeup.load(relaxed) : 0.0f;
        const float dryTarget = heard && bypass ? 1.0f : 0.0f;
        if (jump)
            band.wet = wetTarget, band.dry = dryTarget;
        const Ramp wet{band.wet, settle(band.wet, wetTarget, pole, frames)};
        const Ramp dry{band.dry, settle(band.dry, dryTarget, pole, frames)};
        band.wet = wet.to;
        band.dry = dry.to;

        float* const* buf = m_bandBuf[static_cast<std::size_t>(b)].data();
        const bool needDry = dry.from != 0.0f || dry.to != 0.0f;
        if (needDry)
            for (std::int32_t c = 0; c < channels; ++c)
                std::memcpy(m_dryBuf[static_cast<std::size_t>(c)], buf[c],
                            static_cast<std::size_t>(frames) * sizeof(float));

        // The detector runs even when the band is not heard, so it is ready
        // the moment bypass or solo let the band through again.
        if (glideCurve(band, jump ? 0.0 : chunkPole)) {
            // In glide steps, the curve moved before each.
            for (std::int32_t start = 0; start < frames; start += kGlideChunk) {
                if (start > 0)
                    glideCurve(band, chunkPole);
                applyCurve(b, linked, channels);
                compress(b, linked, channels, start, std::min(kGlideChunk, frames - start));
            }
        } else {
            compress(b, linked, channels, 0, frames);
        }
        if (linked) {
            reduction[b] = m_linkedComp[static_cast<std::size_t>(b)]->readOut(RmsCompressor::kGainReduction);
        } else {
            for (std::int32_t c = 0; c < channels; ++c)
                reduction[b] = std::max(reduction[b],
                                        m_channelComp[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)]->readOut(
                                            RmsCompressor::kGainReduction));
        }

        for (std::int32_t c = 0; c < channels; ++c) {
            float* out = block.outputs[c];
            if (b == 0)
                mixRamp<false>(out, buf[c], wet.from, wet.to, frames);
            else
                mixRamp<true>(out, buf[c], wet.from, wet.to, frames);
            if (needDry)
                mixRamp<true>(out, m_dryBuf[static_cast<std::size_t>(c)], dry.from, dry.to, frames);
        }
    }

    const Ramp last{output.from * fade.from, output.to * fade.to};
    for (std::int32_t c = 0; c < channels; ++c)
        scaleRamp(block.outputs[c], last.from, last.to, frames);

    if (change && m_fade == 0.0f) {
        switchStructure();
    }
    m_fresh = false;
    publishReadout(m_grReadout, reduction, kMaxBands);
}
