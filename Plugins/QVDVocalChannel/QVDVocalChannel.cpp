#include "QVDVocalChannel.h"

#include <algorithm>
#include <cmath>

#include <Algorithms/BiQuad.h>
#include <Algorithms/Glide.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDVocalChannel)

namespace {

constexpr double kButterworthQ = 0.70710678118654752;
// Short enough to follow syllables, long enough to read a sine's level steadily.
constexpr float kRmsWindowMs = 10.0f;
constexpr float kSilentDb = -120.0f;

inline void settle(BiQuadState& s) noexcept
{
    if (!std::isfinite(s.w1) || !std::isfinite(s.w2))
        s = BiQuadState{};
}

QVDParam hz(const char* name, const char* label, float min, float max, float def)
{
    return {.name = name, .label = label, .minimum = min, .maximum = max, .defaultValue = def, .step = 1,
            .unit = "Hz", .scale = qvd::kLogarithmic};
}
QVDParam db(const char* name, const char* label, float min, float max, float def)
{
    return {.name = name, .label = label, .minimum = min, .maximum = max, .defaultValue = def, .step = 0.1f,
            .unit = "dB"};
}
QVDParam ms(const char* name, const char* label, float min, float max, float def, float step)
{
    return {.name = name, .label = label, .minimum = min, .maximum = max, .defaultValue = def, .step = step,
            .unit = "ms", .scale = qvd::kLogarithmic};
}
QVDParam ratio(const char* name, const char* label, float min, float def)
{
    return {.name = name, .label = label, .minimum = min, .maximum = 20, .defaultValue = def, .step = 0.1f};
}

} // namespace

std::vector<QVDParam> QVDVocalChannel::parameterRows()
{
    return {
        hz("HPF_FREQ", "HP Frequency", 40, 300, 80),
        qvdSwitchParam("HPF_ON", "High-Pass", true),
        qvdSwitchParam("GATE_ON", "Gate", false),
        db("GATE_THRESH", "Gate Threshold", -80, 0, -50),
        db("GATE_RANGE", "Gate Range", 0, 50, 20),
        ratio("GATE_RATIO", "Gate Ratio", 1, 4),
        ms("GATE_ATTACK", "Gate Attack", 0.1f, 100, 1, 0.1f),
        ms("GATE_HOLD", "Gate Hold", 0.1f, 100, 20, 0.1f),
        ms("GATE_RELEASE", "Gate Release", 50, 4000, 200, 1),
        qvdSwitchParam("COMP_ON", "Compressor", true),
        db("COMP_THRESH", "Comp Threshold", -50, 0, -20),
        ratio("COMP_RATIO", "Comp Ratio", 1.2f, 3),
        db("COMP_KNEE", "Comp Knee", 0, 15, 6),
        ms("COMP_ATTACK", "Comp Attack", 0.1f, 100, 5, 0.1f),
        ms("COMP_RELEASE", "Comp Release", 50, 4000, 150, 1),
        db("COMP_MAKEUP", "Comp Make-up", 0, 20, 0),
        qvdSwitchParam("DEESS_ON", "De-Esser", true),
        db("DEESS_THRESH", "De-Ess Thresh", -60, 0, -30),
        db("DEESS_RANGE", "De-Ess Range", 0, 30, 6),
        hz("DEESS_FREQ", "De-Ess Freq", DeEsser::kMinFrequency, DeEsser::kMaxFrequency, 6000),
        qvdListParam("DEESS_MODE", "De-Ess Mode", {"Wide Band", "Split Band"}, DeEsser::kSplitBand),
        hz("DEESS_SPLIT", "De-Ess Split", DeEsser::kMinFrequency, DeEsser::kMaxFrequency, 4000),
        qvdSwitchParam("EQ_ON", "EQ", true),
        hz("LOW_FREQ", "Low Shelf Freq", 40, 500, 120),
        db("LOW_GAIN", "Low Shelf Gain", -12, 12, 0),
        hz("PRESENCE_FREQ", "Presence Freq", 1000, 8000, 3000),
        db("PRESENCE_GAIN", "Presence Gain", -12, 12, 0),
        {.name = "PRESENCE_Q", .label = "Presence Q", .minimum = 0.3f, .maximum = 4, .defaultValue = 1,
         .step = 0.01f, .scale = qvd::kLogarithmic},
        hz("HIGH_FREQ", "Hi Shelf Freq", 4000, 16000, 10000),
        db("HIGH_GAIN", "Hi Shelf Gain", -12, 12, 0),
        db("OUTPUT", "Output", -24, 24, 0),
    };
}

QVDVocalChannel::QVDVocalChannel(const QVDPluginDescriptor* descriptor, void* hostContext,
                                 qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enumeration.
    addReadout(QStringLiteral("Gate Gain"), QStringLiteral("dB"));
    addReadout(QStringLiteral("Compressor Reduction"), QStringLiteral("dB"));
    addReadout(QStringLiteral("De-Esser Reduction"), QStringLiteral("dB"));
    addReadout(QStringLiteral("Output Level"), QStringLiteral("dBFS"));
    addAlgorithmRef(&m_gate);
    addAlgorithmRef(&m_compressor);
    addAlgorithmRef(&m_deesser);
}

QString QVDVocalChannel::valueText(std::int32_t index, float value) const
{
    const bool frequency = index == HPF_FREQ || index == DEESS_FREQ || index == DEESS_SPLIT || index == LOW_FREQ ||
                           index == PRESENCE_FREQ || index == HIGH_FREQ;
    if (frequency && std::isfinite(value) && value >= 1000.0f)
        return QString::number(static_cast<double>(value) / 1000.0, 'f', 2) + QStringLiteral(" kHz");
    if ((index == GATE_RATIO || index == COMP_RATIO) && std::isfinite(value))
        return QString::number(static_cast<double>(value), 'f', 1) + QStringLiteral(":1");
    return QVDEffect::valueText(index, value);
}

void QVDVocalChannel::parameterChanged(std::uint32_t, float)
{
    // The audio thread reads the stored values when it sees a new version.
    m_version.fetch_add(1, std::memory_order_release);
}

bool QVDVocalChannel::prepareProcessing()
{
    const std::int32_t channels = std::clamp(activeInputs(), 1, kChannels);
    const auto rate = static_cast<float>(sampleRate());
    if (!m_gate.initialise(rate, channels) || !m_compressor.initialise(rate, channels) ||
        !m_deesser.initialise(rate, channels))
        return false;
    m_compressor.setParameter(RmsCompressor::RMS_SPEED, kRmsWindowMs);
    if (!setLatency(static_cast<std::uint64_t>(m_deesser.latency())))
        return false;
    // Settings go to the blocks (initialised to their defaults) at the first block.
    m_applied = m_version.load(std::memory_order_acquire) - 1;
    m_jump = true;
    return true;
}

void QVDVocalChannel::resetState() noexcept
{
    m_hpfState.fill(BiQuadState{});
    for (auto& states : m_bandState)
        states.fill(BiQuadState{});
    m_jump = true;
}

QVDVocalChannel::Glides QVDVocalChannel::targets() const noexcept
{
    // Values as stored, held to their rows' ranges (a NaN reads as the default).
    const auto setting = [this](std::uint32_t index) {
        const QVDParameterDefinition& d = m_parameters[index].definition();
        const float v = value(index);
        return static_cast<double>(std::isnan(v) ? d.defaultValue : std::clamp(v, d.minimum, d.maximum));
    };
    Glides g{};
    g.hpf = std::log(setting(HPF_FREQ));
    g.gateThreshold = setting(GATE_THRESH);
    g.compThreshold = setting(COMP_THRESH);
    g.makeup = setting(COMP_MAKEUP);
    g.logFreq = {std::log(setting(LOW_FREQ)), std::log(setting(PRESENCE_FREQ)), std::log(setting(HIGH_FREQ))};
    g.gainDb = {setting(LOW_GAIN), setting(PRESENCE_GAIN), setting(HIGH_GAIN)};
    g.presenceQ = setting(PRESENCE_Q);
    g.output = std::pow(10.0, setting(OUTPUT) / 20.0);
    return g;
}

void QVDVocalChannel::applySettings() noexcept
{
    const auto setting = [this](std::uint32_t index) {
        const QVDParameterDefinition& d = m_parameters[index].definition();
        const float v = value(index);
        return std::isnan(v) ? d.defaultValue : std::clamp(v, d.minimum, d.maximum);
    };
    m_on[kHighPass] = qvdSwitchOn(setting(HPF_ON));
    m_on[kGate] = qvdSwitchOn(setting(GATE_ON));
    m_on[kCompressor] = qvdSwitchOn(setting(COMP_ON));
    m_on[kDeEsser] = qvdSwitchOn(setting(DEESS_ON));
    m_on[kEq] = qvdSwitchOn(setting(EQ_ON));

    m_gate.setParameter(Expander::RANGE, setting(GATE_RANGE));
    m_gate.setParameter(Expander::RATIO, setting(GATE_RATIO));
    m_gate.setParameter(Expander::ATTACK, setting(GATE_ATTACK));
    m_gate.setParameter(Expander::HOLD, setting(GATE_HOLD));
    m_gate.setParameter(Expander::RELEASE, setting(GATE_RELEASE));

    m_compressor.setParameter(RmsCompressor::RATIO, setting(COMP_RATIO));
    m_compressor.setParameter(RmsCompressor::KNEE, setting(COMP_KNEE));
    m_compressor.setParameter(RmsCompressor::ATTACK, setting(COMP_ATTACK));
    m_compressor.setParameter(RmsCompressor::RELEASE, setting(COMP_RELEASE));

    // The de-esser glides its own settings; switched out, its range glides to
    // 0 dB and it only delays, so the latency never changes.
    m_deesser.setParameter(DeEsser::THRES, setting(DEESS_THRESH));
    m_deesser.setParameter(DeEsser::RANGE, m_on[kDeEsser] ? setting(DEESS_RANGE) : 0.0f);
    m_deesser.setParameter(DeEsser::FREQ, setting(DEESS_FREQ));
    m_deesser.setParameter(DeEsser::MODE, setting(DEESS_MODE));
    m_deesser.setParameter(DeEsser::SPLIT, setting(DEESS_SPLIT));
}

void QVDVocalChannel::designFilters() noexcept
{
    const double fs = sampleRate() > 0 ? sampleRate() : 48000.0;
    const double top = 0.45 * fs;
    m_hpfCoefs = BiQuad::design(BiQuad::kHighPass, fs, std::exp(m_now.hpf), kButterworthQ, 1.0);
    constexpr std::uint32_t kinds[kBands] = {BiQuad::kLowShelf, BiQuad::kBell, BiQuad::kHighShelf};
    for (int b = 0; b < kBands; ++b) {
        const auto i = static_cast<std::size_t>(b);
        const double q = b == 1 ? m_now.presenceQ : kButterworthQ;
        m_bandCoefs[i] = BiQuad::design(kinds[b], fs, std::min(std::exp(m_now.logFreq[i]), top), q,
                                        std::pow(10.0, m_now.gainDb[i] / 20.0));
    }
}

void QVDVocalChannel::runChunk(float* const* x, std::int32_t channels, std::int32_t n, double pole,
                               double chunkPole) noexcept
{
    const Glides& target = m_target;
    const Glides before = m_now;
    m_now.hpf = glideTo(m_now.hpf, target.hpf, chunkPole);
    m_now.gateThreshold = glideTo(m_now.gateThreshold, target.gateThreshold, chunkPole);
    m_now.compThreshold = glideTo(m_now.compThreshold, target.compThreshold, chunkPole);
    m_now.makeup = glideTo(m_now.makeup, target.makeup, chunkPole);
    m_now.presenceQ = glideTo(m_now.presenceQ, target.presenceQ, chunkPole);
    bool redesign = m_now.hpf != before.hpf || m_now.presenceQ != before.presenceQ;
    for (std::size_t b = 0; b < kBands; ++b) {
        m_now.logFreq[b] = glideTo(m_now.logFreq[b], target.logFreq[b], chunkPole);
        m_now.gainDb[b] = glideTo(m_now.gainDb[b], target.gainDb[b], chunkPole);
        redesign |= m_now.logFreq[b] != before.logFreq[b] || m_now.gainDb[b] != before.gainDb[b];
        // A band at 0 dB is left out; back in, it starts from rest.
        const bool live = m_now.gainDb[b] != 0.0 || target.gainDb[b] != 0.0;
        if (live && !m_bandLive[b])
            for (auto& states : m_bandState)
                states[b] = BiQuadState{};
        m_bandLive[b] = live;
    }
    if (redesign)
        designFilters();
    if (m_now.gateThreshold != before.gateThreshold)
        m_gate.setParameter(Expander::THRES, static_cast<float>(m_now.gateThreshold));
    if (m_now.compThreshold != before.compThreshold)
        m_compressor.setParameter(RmsCompressor::THRES, static_cast<float>(m_now.compThreshold));
    if (m_now.makeup != before.makeup)
        m_compressor.setParameter(RmsCompressor::MAKEUP_GAIN, static_cast<float>(m_now.makeup));

    const auto frames = static_cast<std::uint32_t>(n);
    for (int s = 0; s < kStages; ++s) {
        const auto si = static_cast<std::size_t>(s);
        if (s == kDeEsser) {
            m_deesser.processChannels(x, frames);
            m_deessReduction = std::max(m_deessReduction, m_deesser.readOut(DeEsser::kGainReduction));
            continue;
        }
        const double wanted = m_on[si] ? 1.0 : 0.0;
        if (m_mix[si] == 0.0 && wanted == 0.0)
            continue;
        if (m_mix[si] == 0.0) {
            // Coming back in: no state left over from before it went out.
            switch (s) {
            case kHighPass: m_hpfState.fill(BiQuadState{}); break;
            case kGate: m_gate.reset(); break;
            case kCompressor: m_compressor.reset(); break;
            default:
                for (auto& states : m_bandState)
                    states.fill(BiQuadState{});
                break;
            }
        }
        bool whole = true;
        for (std::int32_t i = 0; i < n; ++i) {
            m_mix[si] = glideTo(m_mix[si], wanted, pole);
            m_mixNow[static_cast<std::size_t>(i)] = static_cast<float>(m_mix[si]);
            whole &= m_mix[si] == 1.0;
        }
        if (!whole)
            for (std::int32_t c = 0; c < channels; ++c)
                std::copy_n(x[c], n, m_dry[static_cast<std::size_t>(c)].data());

        switch (s) {
        case kHighPass:
            for (std::int32_t c = 0; c < channels; ++c)
                BiQuad::run(m_hpfCoefs, m_hpfState[static_cast<std::size_t>(c)], x[c], x[c], frames);
            break;
        case kGate:
            m_gate.processChannels(x, frames);
            m_gateGain = std::min(m_gateGain, -m_gate.readOut(Expander::kGainReduction));
            break;
        case kCompressor:
            m_compressor.processChannels(x, frames);
            m_compReduction = std::max(m_compReduction, m_compressor.readOut(RmsCompressor::kGainReduction));
            break;
        default:
            for (std::size_t b = 0; b < kBands; ++b) {
                if (!m_bandLive[b])
                    continue;
                for (std::int32_t c = 0; c < channels; ++c)
                    BiQuad::run(m_bandCoefs[b], m_bandState[static_cast<std::size_t>(c)][b], x[c], x[c], frames);
            }
            break;
        }

        if (!whole) {
            for (std::int32_t c = 0; c < channels; ++c) {
                const float* dry = m_dry[static_cast<std::size_t>(c)].data();
                float* y = x[c];
                for (std::int32_t i = 0; i < n; ++i)
                    y[i] = dry[i] + m_mixNow[static_cast<std::size_t>(i)] * (y[i] - dry[i]);
            }
        }
    }

    if (m_now.output != 1.0 || target.output != 1.0) {
        for (std::int32_t i = 0; i < n; ++i) {
            m_now.output = glideTo(m_now.output, target.output, pole);
            m_outputNow[static_cast<std::size_t>(i)] = static_cast<float>(m_now.output);
        }
        for (std::int32_t c = 0; c < channels; ++c)
            for (std::int32_t i = 0; i < n; ++i)
                x[c][i] *= m_outputNow[static_cast<std::size_t>(i)];
    }
}

void QVDVocalChannel::render(const QVDBlock& block) noexcept
{
    const std::int32_t frames = block.frames;
    const std::int32_t channels = std::min(block.channels, kChannels);
    if (frames <= 0 || channels <= 0)
        return;
    const std::uint32_t version = m_version.load(std::memory_order_acquire);
    if (version != m_applied) {
        applySettings();
        m_target = targets();
        m_applied = version;
    }
    if (m_gate.channelCount() != channels) {
        m_gate.setChannelCount(channels);
        m_compressor.setChannelCount(channels);
        m_deesser.setChannelCount(channels);
    }
    if (m_jump) {
        // Fresh state: settings in force at once, stages in or out at once.
        m_now = m_target;
        for (int s = 0; s < kStages; ++s)
            m_mix[static_cast<std::size_t>(s)] = m_on[static_cast<std::size_t>(s)] ? 1.0 : 0.0;
        for (std::size_t b = 0; b < kBands; ++b)
            m_bandLive[b] = m_now.gainDb[b] != 0.0;
        designFilters();
        m_gate.setParameter(Expander::THRES, static_cast<float>(m_now.gateThreshold));
        m_compressor.setParameter(RmsCompressor::THRES, static_cast<float>(m_now.compThreshold));
        m_compressor.setParameter(RmsCompressor::MAKEUP_GAIN, static_cast<float>(m_now.makeup));
        m_jump = false;
    }

    const double pole = SmoothingCoefficient::shared200ms().a();
    const double chunkPole = std::pow(pole, static_cast<double>(kChunk));
    m_gateGain = 0.0f;
    m_compReduction = 0.0f;
    m_deessReduction = 0.0f;
    float* x[kChannels] = {};
    for (std::int32_t start = 0; start < frames; start += kChunk) {
        const std::int32_t n = std::min(kChunk, frames - start);
        for (std::int32_t c = 0; c < channels; ++c)
            x[c] = block.outputs[c] + start;
        runChunk(x, channels, n, pole, n == kChunk ? chunkPole : std::pow(pole, static_cast<double>(n)));
    }

    for (std::int32_t c = 0; c < channels; ++c) {
        settle(m_hpfState[static_cast<std::size_t>(c)]);
        for (auto& state : m_bandState[static_cast<std::size_t>(c)])
            settle(state);
    }
    float peak = 0.0f;
    for (std::int32_t c = 0; c < channels; ++c)
        for (std::int32_t i = 0; i < frames; ++i)
            peak = std::max(peak, std::fabs(block.outputs[c][i]));
    const float level = peak > 0.0f ? std::max(kSilentDb, 20.0f * std::log10(peak)) : kSilentDb;
    publishReadout(kGateGain, m_gateGain);
    publishReadout(kCompressorReduction, m_compReduction);
    publishReadout(kDeEsserReduction, m_deessReduction);
    publishReadout(kOutputLevel, std::isfinite(level) ? level : 0.0f);
}
