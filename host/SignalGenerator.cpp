#include "SignalGenerator.h"

#include <cmath>
#include <numbers>

#include "Options.h"

namespace qvdfx {

SignalKind parseSignalKind(const std::string& text)
{
    if (text == "sine") return SignalKind::Sine;
    if (text == "sweep") return SignalKind::Sweep;
    if (text == "noise") return SignalKind::Noise;
    if (text == "pink") return SignalKind::Pink;
    if (text == "impulse") return SignalKind::Impulse;
    if (text == "silence") return SignalKind::Silence;
    fail(kExitUsage, "--signal must be sine, sweep, noise, pink, impulse or silence, not '" + text + "'");
}

SignalGenerator::SignalGenerator(const SignalSpec& signal, std::int64_t totalFrames)
    : m_signal(signal),
      m_total(totalFrames),
      m_amplitude(std::pow(10.0, signal.levelDb / 20.0)),
      m_rng(signal.seed),
      m_pinkState(static_cast<std::size_t>(signal.channels), std::vector<double>(7, 0.0))
{
}

float SignalGenerator::next(int channel)
{
    const double t = static_cast<double>(m_position) / m_signal.rate;
    switch (m_signal.kind) {
    case SignalKind::Sine:
        return static_cast<float>(m_amplitude * std::sin(2.0 * std::numbers::pi * m_signal.frequency * t));
    case SignalKind::Sweep: {
        // Exponential sweep from the start frequency to 90 % of Nyquist over the whole signal.
        const double f0 = m_signal.frequency;
        const double f1 = std::max(f0 * 1.0001, 0.45 * m_signal.rate);
        const double length = std::max<double>(1.0, static_cast<double>(m_total)) / m_signal.rate;
        const double k = std::log(f1 / f0) / length;
        const double phase = 2.0 * std::numbers::pi * f0 * (std::exp(k * t) - 1.0) / k;
        return static_cast<float>(m_amplitude * std::sin(phase));
    }
    case SignalKind::Noise:
        return static_cast<float>(m_amplitude * m_normal(m_rng));
    case SignalKind::Pink: {
        // White noise through a -3 dB/octave filter bank, whose RMS gain for
        // unit white noise is about 3.04 (measured over 2e6 samples).
        auto& b = m_pinkState[static_cast<std::size_t>(channel)];
        const double white = m_normal(m_rng);
        b[0] = 0.99886 * b[0] + white * 0.0555179;
        b[1] = 0.99332 * b[1] + white * 0.0750759;
        b[2] = 0.96900 * b[2] + white * 0.1538520;
        b[3] = 0.86650 * b[3] + white * 0.3104856;
        b[4] = 0.55000 * b[4] + white * 0.5329522;
        b[5] = -0.7616 * b[5] - white * 0.0168980;
        const double pink = b[0] + b[1] + b[2] + b[3] + b[4] + b[5] + b[6] + white * 0.5362;
        b[6] = white * 0.115926;
        return static_cast<float>(m_amplitude * pink / 3.04);
    }
    case SignalKind::Impulse:
        return m_position == 0 ? static_cast<float>(m_amplitude) : 0.0f;
    case SignalKind::Silence:
        return 0.0f;
    }
    return 0.0f;
}

void SignalGenerator::generate(float* const* channels, std::int32_t frames)
{
    for (std::int32_t n = 0; n < frames; ++n) {
        for (int c = 0; c < m_signal.channels; ++c)
            channels[c][n] = next(c);
        ++m_position;
    }
}

} // namespace qvdfx
