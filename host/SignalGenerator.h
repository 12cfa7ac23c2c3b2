#pragma once
// Deterministic test signals: the same arguments give the same samples.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace qvdfx {

enum class SignalKind { Sine, Sweep, Noise, Pink, Impulse, Silence };

// "sine", "sweep", "noise", "pink", "impulse", "silence"; a usage failure otherwise.
SignalKind parseSignalKind(const std::string& text);

struct SignalSpec {
    SignalKind kind = SignalKind::Sine;
    double frequency = 1000.0; // sine frequency; start of a sweep
    double levelDb = -12.0;    // peak for sine, sweep and impulse; RMS for noise and pink
    int rate = 48000;
    int channels = 2;
    std::uint32_t seed = 1;
};

// Produces the signal block by block, planar.
class SignalGenerator {
public:
    SignalGenerator(const SignalSpec& signal, std::int64_t totalFrames);
    // Fills `frames` frames of every channel.
    void generate(float* const* channels, std::int32_t frames);

private:
    float next(int channel);

    SignalSpec m_signal;
    std::int64_t m_total;
    std::int64_t m_position = 0;
    double m_amplitude;
    std::mt19937 m_rng;
    std::normal_distribution<double> m_normal{0.0, 1.0};
    std::vector<std::vector<double>> m_pinkState;
};

} // namespace qvdfx
