#pragma once
// Measurements shared by the waveshaper tests.

#include "PluginFixture.h"

#include <bit>
#include <cstdint>
#include <string>

namespace qvd::test {

inline float linear(double db)
{
    return static_cast<float>(std::pow(10.0, db / 20.0));
}

// The first frame where `out` is not `in` delayed by `latency` bit for bit,
// or -1; silence is expected before the delay.
inline long firstMismatch(const std::vector<float>& in, const std::vector<float>& out, std::size_t latency)
{
    for (std::size_t n = 0; n < out.size(); ++n) {
        const float expected = n < latency ? 0.0f : in[n - latency];
        if (std::bit_cast<std::uint32_t>(expected) != std::bit_cast<std::uint32_t>(out[n]))
            return static_cast<long>(n);
    }
    return -1;
}

// Frames [from, from + frames) of every channel.
inline Signal slice(const Signal& in, std::size_t from, std::size_t frames)
{
    Signal s;
    for (const auto& ch : in)
        s.emplace_back(ch.begin() + static_cast<long>(from), ch.begin() + static_cast<long>(from + frames));
    return s;
}

// Noise with exact zeros of both signs among it, for bit-exact paths.
inline Signal signedZeroNoise(int channels, std::size_t frames, unsigned seed)
{
    Signal s = noise(channels, frames, seed, 1.0f);
    for (auto& ch : s)
        for (std::size_t n = 0; n < frames; n += 97)
            ch[n] = n % 2 ? -0.0f : 0.0f;
    return s;
}

// Levels in dB of the lines at whole multiples of `step` Hz below Nyquist,
// over `span` frames from `from` (a whole number of periods of `step`).
inline std::vector<double> linesDb(const std::vector<float>& x, double step, double rate, std::size_t from,
                                   std::size_t span)
{
    std::vector<double> lines;
    for (double hz = step; hz < rate / 2; hz += step)
        lines.push_back(toneDb(x, hz, rate, from, from + span));
    return lines;
}

} // namespace qvd::test
