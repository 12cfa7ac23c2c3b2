#include "QVDLFEFilter.h"

#include <algorithm>
#include <cmath>
#include <string>

#include <BiQuad.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDLFEFilter)

namespace {

constexpr int kMaxChannels = 32;
// Level of the LFE channel against the others by convention: +10 dB.
const float kLfeBoost = static_cast<float>(std::pow(10.0, 0.5));

} // namespace

std::vector<QVDParam> QVDLFEFilter::parameterRows()
{
    std::vector<std::string> channels{"From Layout"};
    for (int c = 1; c <= kMaxChannels; ++c)
        channels.push_back(std::to_string(c));
    return {
        {.name = "CUTOFF", .label = "Cutoff", .minimum = 40, .maximum = 250, .defaultValue = 120, .step = 1,
         .unit = "Hz", .scale = qvd::kLogarithmic},
        qvdListParam("SLOPE", "Slope", {"12 dB/oct", "24 dB/oct", "36 dB/oct", "48 dB/oct"}, 1),
        qvdListParam("TYPE", "Type", {"Butterworth", "Linkwitz-Riley"}, kLinkwitzRiley),
        qvdSwitchParam("BASS_MANAGEMENT", "Bass Management", false),
        qvdSwitchParam("LFE_GAIN", "LFE +10 dB", false),
        qvdListParam("LFE_CHANNEL", "LFE Channel", channels, 0),
    };
}

void QVDLFEFilter::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    switch (index) {
    case CUTOFF: m_cutoff.store(std::clamp(value, 40.0f, 250.0f), std::memory_order_relaxed); break;
    case SLOPE: m_slope.store(std::clamp(qvdListIndex(value), 0, 3), std::memory_order_relaxed); break;
    case TYPE: m_type.store(qvdListIndex(value) == kButterworth ? kButterworth : kLinkwitzRiley, std::memory_order_relaxed); break;
    case BASS_MANAGEMENT: m_bassManagement.store(qvdSwitchOn(value), std::memory_order_relaxed); break;
    case LFE_GAIN: m_lfeGain.store(qvdSwitchOn(value), std::memory_order_relaxed); break;
    case LFE_CHANNEL: m_lfeParam.store(std::clamp(qvdListIndex(value), 0, kMaxChannels), std::memory_order_relaxed); break;
    default: return;
    }
    m_version.fetch_add(1, std::memory_order_release);
}

bool QVDLFEFilter::prepareProcessing()
{
    m_chains.assign(kMaxChannels, Chain{});
    m_lowBand.assign(static_cast<std::size_t>(std::max(blockSize(), 1)), 0.0f);
    m_designed = m_version.load(std::memory_order_acquire) - 1; // design at the first block
    return true;
}

void QVDLFEFilter::resetState() noexcept
{
    for (Chain& chain : m_chains)
        chain.fill(BiQuadState{});
}

void QVDLFEFilter::design() noexcept
{
    const double rate = sampleRate();
    const double fc = m_cutoff.load(std::memory_order_relaxed);
    const int order = 2 * (m_slope.load(std::memory_order_relaxed) + 1);
    // Linkwitz-Riley of order n is Butterworth of order n/2 squared.
    const bool lr = m_type.load(std::memory_order_relaxed) == kLinkwitzRiley;
    const int bw = lr ? order / 2 : order;
    std::array<double, kMaxSections> q{};
    int sections = 0;
    for (int k = 1; k <= bw / 2; ++k) {
        const double pole = 1.0 / (2.0 * std::sin((2.0 * k - 1.0) * M_PI / (2.0 * bw)));
        q[static_cast<std::size_t>(sections++)] = pole;
        if (lr)
            q[static_cast<std::size_t>(sections++)] = pole;
    }
    // An odd Butterworth's real pole, squared, is a section with Q = 1/2.
    if (lr && bw % 2 == 1)
        q[static_cast<std::size_t>(sections++)] = 0.5;
    for (int s = 0; s < kMaxSections; ++s) {
        const bool used = s < sections;
        m_low[static_cast<std::size_t>(s)] =
            BiQuad::design(used ? BiQuad::kLowPass : BiQuad::kNeutral, rate, fc, q[static_cast<std::size_t>(s)], 1.0);
        m_high[static_cast<std::size_t>(s)] =
            BiQuad::design(used ? BiQuad::kHighPass : BiQuad::kNeutral, rate, fc, q[static_cast<std::size_t>(s)], 1.0);
    }
    // Linkwitz-Riley halves of order 2 mod 4 sum flat only with the high band inverted.
    if (lr && bw % 2 == 1)
        m_high[0].gain = -m_high[0].gain;
    m_sections = sections;
}

std::int32_t QVDLFEFilter::lfeChannel(std::int32_t channels) const noexcept
{
    const int named = m_lfeParam.load(std::memory_order_relaxed);
    const std::int32_t lfe = named > 0 ? named - 1 : qvd::channelWithRole(inputFormat(), qvd::kRoleLFE);
    return lfe < channels ? lfe : -1;
}

void QVDLFEFilter::runChain(Chain& chain, const std::array<BiQuadCoefficients, kMaxSections>& coefs, float* samples,
                            std::int32_t frames) noexcept
{
    for (int s = 0; s < m_sections; ++s) {
        BiQuadState& state = chain[static_cast<std::size_t>(s)];
        BiQuad::run(coefs[static_cast<std::size_t>(s)], state, samples, samples, static_cast<std::uint32_t>(frames));
        // A non-finite input leaves a non-finite state; start again from rest.
        if (!std::isfinite(state.w1) || !std::isfinite(state.w2))
            state = BiQuadState{};
    }
}

void QVDLFEFilter::render(const QVDBlock& block) noexcept
{
    const std::uint32_t version = m_version.load(std::memory_order_acquire);
    if (version != m_designed) {
        design();
        m_designed = version;
    }
    const std::int32_t frames = block.frames;
    const std::int32_t lfe = lfeChannel(block.channels);
    if (lfe < 0 || frames <= 0)
        return; // nothing to filter and nowhere to send the low band
    float* low = m_lowBand.data();
    const float boost = m_lfeGain.load(std::memory_order_relaxed) ? kLfeBoost : 1.0f;
    const float* lfeIn = block.outputs[lfe];
    for (std::int32_t n = 0; n < frames; ++n)
        low[n] = lfeIn[n] * boost;
    if (m_bassManagement.load(std::memory_order_relaxed)) {
        for (std::int32_t c = 0; c < block.channels; ++c) {
            if (c == lfe)
                continue;
            float* main = block.outputs[c];
            for (std::int32_t n = 0; n < frames; ++n)
                low[n] += main[n];
            runChain(m_chains[static_cast<std::size_t>(c)], m_high, main, frames);
        }
    }
    runChain(m_chains[static_cast<std::size_t>(lfe)], m_low, low, frames);
    std::copy_n(low, frames, block.outputs[lfe]);
}
