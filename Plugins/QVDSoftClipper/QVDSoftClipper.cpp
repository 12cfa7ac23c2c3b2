#include "QVDSoftClipper.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/Oversampler.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDSoftClipper)

namespace {

// Every curve is odd, has unit slope at 0 and maps onto [-1, 1]: the ceiling
// is 1 here and scales the result afterwards.
struct HardCurve {
    float operator()(float x) const noexcept { return std::clamp(x, -1.0f, 1.0f); }
};
struct CubicCurve {
    // x - 4/27 x^3 reaches 1 with zero slope at 1.5.
    float operator()(float x) const noexcept
    {
        const float a = std::clamp(x, -1.5f, 1.5f);
        return std::clamp(a - (4.0f / 27.0f) * a * a * a, -1.0f, 1.0f);
    }
};
struct TanhCurve {
    float operator()(float x) const noexcept { return std::tanh(x); }
};
struct SineCurve {
    float operator()(float x) const noexcept
    {
        constexpr float kQuarter = static_cast<float>(M_PI / 2.0);
        return std::sin(std::clamp(x, -kQuarter, kQuarter));
    }
};
// Straight up to `start`, then a tanh bend that meets the line with equal
// slope and curvature and approaches the ceiling; start 1 is a hard clip.
struct KneeCurve {
    float start;
    float operator()(float x) const noexcept
    {
        const float a = std::fabs(x);
        if (a <= start)
            return x;
        const float room = 1.0f - start;
        const float y = room > 0.0f ? start + room * std::tanh((a - start) / room) : 1.0f;
        return std::copysign(std::min(y, 1.0f), x);
    }
};

constexpr std::size_t kFactors[QVDSoftClipper::kFactorCount] = {1, 2, 4, 8};

} // namespace

std::vector<QVDParam> QVDSoftClipper::parameterRows()
{
    return {
        {.name = "DRIVE", .label = "Drive", .minimum = 0, .maximum = 24, .defaultValue = 0, .step = 0.1f,
         .unit = "dB"},
        {.name = "CEILING", .label = "Ceiling", .minimum = -20, .maximum = 0, .defaultValue = 0, .step = 0.1f,
         .unit = "dB"},
        qvdListParam("CURVE", "Curve", {"Hard", "Cubic", "Tanh", "Sine", "Smooth Knee"}, kTanh),
        {.name = "KNEE", .label = "Knee", .minimum = 0, .maximum = 12, .defaultValue = 6, .step = 0.1f,
         .unit = "dB"},
        qvdListParam("OVERSAMPLING", "Oversampling", {"Off", "x2", "x4", "x8"}, 2),
        {.name = "OUTPUT", .label = "Output Trim", .minimum = -12, .maximum = 12, .defaultValue = 0,
         .step = 0.1f, .unit = "dB"},
        {.name = "MIX", .label = "Mix", .minimum = 0, .maximum = 100, .defaultValue = 100, .step = 1,
         .unit = "%"},
        qvdSwitchParam("LINK", "Link", false, "Per Channel", "Linked"),
        qvdSwitchParam("SAFETY_CLIP", "Safety Clip", false),
    };
}

QVDSoftClipper::~QVDSoftClipper() = default;

void QVDSoftClipper::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case DRIVE: m_drive.store(shaper::gainOfDecibels(std::clamp(value, 0.0f, 24.0f)), relaxed); break;
    case CEILING: m_ceiling.store(shaper::gainOfDecibels(std::clamp(value, -20.0f, 0.0f)), relaxed); break;
    case CURVE: m_curve.store(qvdListIndex(std::clamp(value, 0.0f, static_cast<float>(kSmoothKnee))), relaxed); break;
    case KNEE: m_kneeStart.store(shaper::gainOfDecibels(-std::clamp(value, 0.0f, 12.0f)), relaxed); break;
    case OVERSAMPLING:
        m_factorIndex.store(qvdListIndex(std::clamp(value, 0.0f, static_cast<float>(kFactorCount - 1))), relaxed);
        break;
    case OUTPUT: m_output.store(shaper::gainOfDecibels(std::clamp(value, -12.0f, 12.0f)), relaxed); break;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); break;
    case LINK: m_linked.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    case SAFETY_CLIP: m_safety.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), relaxed); break;
    default: break;
    }
}

bool QVDSoftClipper::prepareProcessing()
{
    const auto channels = static_cast<std::size_t>(std::max(maxInputs(), maxOutputs()));
    m_chunk = std::max(blockSize(), 1);
    const auto chunk = static_cast<std::size_t>(m_chunk);
    const std::size_t latency = Oversampler::longestLatency();
    for (int f = 0; f < kFactorCount; ++f) {
        m_chains[f].clear();
        for (std::size_t c = 0; c < channels; ++c)
            m_chains[f].push_back(std::make_unique<Oversampler>(kFactors[f], chunk, latency));
    }
    // Every chain's output depends on at most this much of its input.
    const std::size_t reach = 2 * latency;
    m_dry.assign(channels, FixedDelay{});
    m_history.assign(channels, FixedDelay{});
    for (std::size_t c = 0; c < channels; ++c) {
        m_dry[c].resize(latency);
        m_history[c].resize(reach);
    }
    m_input.assign(channels, std::vector<float>(chunk, 0.0f));
    m_wet.assign(channels, std::vector<float>(chunk, 0.0f));
    m_replay.assign(channels, std::vector<float>(reach, 0.0f));
    m_rows.assign(channels, nullptr);
    m_high.assign(channels, nullptr);
    for (auto* run : {&m_driveRun, &m_mixRun, &m_outputRun})
        run->assign(chunk, 0.0f);
    resetState();
    return setLatency(latency);
}

void QVDSoftClipper::resetState() noexcept
{
    for (auto& chains : m_chains)
        for (auto& chain : chains)
            chain->reset();
    for (FixedDelay& d : m_dry)
        d.clear();
    for (FixedDelay& h : m_history)
        h.clear();
    const auto relaxed = std::memory_order_relaxed;
    m_driveGlide.jump(m_drive.load(relaxed));
    m_mixGlide.jump(m_mix.load(relaxed));
    m_outputGlide.jump(m_output.load(relaxed));
}

template <class Shape>
void QVDSoftClipper::shape(std::int32_t channels, std::size_t samples, bool linked, const Shape& curve) noexcept
{
    if (!linked || channels < 2) {
        for (std::int32_t c = 0; c < channels; ++c) {
            float* x = m_high[static_cast<std::size_t>(c)];
            for (std::size_t i = 0; i < samples; ++i)
                x[i] = curve(x[i]);
        }
        return;
    }
    // One gain for every channel, the one the loudest needs: the image holds.
    for (std::size_t i = 0; i < samples; ++i) {
        float loudest = 0.0f;
        for (std::int32_t c = 0; c < channels; ++c)
            loudest = std::max(loudest, std::fabs(m_high[static_cast<std::size_t>(c)][i]));
        if (loudest <= 0.0f)
            continue;
        const float gain = std::min(curve(loudest) / loudest, 1.0f);
        for (std::int32_t c = 0; c < channels; ++c)
            m_high[static_cast<std::size_t>(c)][i] *= gain;
    }
}

void QVDSoftClipper::render(const QVDBlock& block) noexcept
{
    const int factor = m_factorIndex.load(std::memory_order_relaxed);
    if (factor != m_activeFactor) {
        m_activeFactor = factor;
        switchChains(block.channels);
    }
    for (std::int32_t done = 0; done < block.frames; done += m_chunk)
        renderChunk(block, done, std::min(m_chunk, block.frames - done));
}

void QVDSoftClipper::switchChains(std::int32_t channels) noexcept
{
    // The chain coming in holds history from its last spell: clear it and
    // replay what it missed, so its output joins the outgoing one's seamlessly.
    for (auto& chain : m_chains[m_activeFactor])
        chain->reset();
    if (m_history.empty())
        return;
    const std::size_t held = m_history.front().length();
    for (std::int32_t c = 0; c < channels; ++c)
        m_history[static_cast<std::size_t>(c)].copyHeld(m_replay[static_cast<std::size_t>(c)].data());
    const auto chunk = static_cast<std::size_t>(m_chunk);
    for (std::size_t done = 0; done < held; done += chunk) {
        for (std::int32_t c = 0; c < channels; ++c)
            m_rows[static_cast<std::size_t>(c)] = m_replay[static_cast<std::size_t>(c)].data() + done;
        runChains(channels, std::min(chunk, held - done));
    }
}

void QVDSoftClipper::runChains(std::int32_t channels, std::size_t frames) noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    auto& chains = m_chains[m_activeFactor];
    for (std::int32_t c = 0; c < channels; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        m_high[ch] = chains[ch]->up(m_rows[ch], frames);
    }
    const std::size_t samples = frames * kFactors[m_activeFactor];
    const bool linked = m_linked.load(relaxed);
    switch (m_curve.load(relaxed)) {
    case kHard: shape(channels, samples, linked, HardCurve{}); break;
    case kCubic: shape(channels, samples, linked, CubicCurve{}); break;
    case kSine: shape(channels, samples, linked, SineCurve{}); break;
    case kSmoothKnee: shape(channels, samples, linked, KneeCurve{m_kneeStart.load(relaxed)}); break;
    default: shape(channels, samples, linked, TanhCurve{}); break;
    }
    for (std::int32_t c = 0; c < channels; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        chains[ch]->down(m_rows[ch], frames);
    }
}

void QVDSoftClipper::renderChunk(const QVDBlock& block, std::int32_t offset, std::int32_t frames) noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    const std::int32_t channels = block.channels;
    const auto n = static_cast<std::size_t>(frames);
    const float ceiling = m_ceiling.load(relaxed);
    const SmoothingCoefficient& smoothing = SmoothingCoefficient::shared200ms();
    const double a = smoothing.a(), b = smoothing.b();
    const float drive = m_drive.load(relaxed);
    float* toCurve = m_driveRun.data();
    m_driveGlide.fill(drive, a, b, toCurve, n);
    for (std::size_t i = 0; i < n; ++i)
        toCurve[i] /= ceiling;

    for (std::int32_t c = 0; c < channels; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        const float* in = block.inputs[c] + offset;
        float* finite = m_input[ch].data();
        float* wet = m_wet[ch].data();
        for (std::size_t i = 0; i < n; ++i) {
            finite[i] = shaper::finiteOrZero(in[i]);
            wet[i] = std::clamp(finite[i] * toCurve[i], -shaper::kInputLimit, shaper::kInputLimit);
        }
        m_history[ch].push(wet, n);
        m_rows[ch] = wet;
    }
    runChains(channels, n);

    const float mix = m_mix.load(relaxed);
    const float output = m_output.load(relaxed);
    const bool mixSteady = m_mixGlide.run(mix, a, b, m_mixRun.data(), n);
    const float* gain = m_outputGlide.fill(output, a, b, m_outputRun.data(), n);
    const float limit = m_safety.load(relaxed) ? ceiling : INFINITY;
    for (std::int32_t c = 0; c < channels; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        float* out = block.outputs[c] + offset;
        float* dry = m_input[ch].data();
        float* wet = m_wet[ch].data();
        m_dry[ch].process(dry, n);
        for (std::size_t i = 0; i < n; ++i)
            wet[i] = std::clamp(wet[i] * ceiling, -limit, limit);
        if (mixSteady)
            shaper::mixDryWet(dry, wet, out, n, mix);
        else
            shaper::mixDryWet(dry, wet, out, n, m_mixRun.data());
        for (std::size_t i = 0; i < n; ++i)
            out[i] *= gain[i];
    }
}
