#pragma once
// Signals and measurements shared by the DSP block tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include <Algorithms/DynamicsKernels.h>
#include <SmoothingCoefficient.h>

namespace algtest {

constexpr float kRate = 48000.0f;

inline std::vector<float> sine(float amplitude, float hz, std::size_t frames, float rate = kRate)
{
    std::vector<float> v(frames);
    for (std::size_t i = 0; i < frames; ++i)
        v[i] = amplitude * static_cast<float>(std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    return v;
}

inline std::vector<float> noise(std::size_t frames, float amplitude, std::uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-amplitude, amplitude);
    std::vector<float> v(frames);
    for (float& x : v)
        x = u(rng);
    return v;
}

// Noise of peak 0.9 in bursts of `period` samples over -60 dB gaps: exercises
// attack, hold and release.
inline std::vector<float> bursts(std::size_t frames, std::size_t period, std::uint32_t seed)
{
    auto v = noise(frames, 0.9f, seed);
    for (std::size_t i = 0; i < v.size(); ++i)
        v[i] *= (i / period) % 2 ? 1.0f : 0.001f;
    return v;
}

inline float dbToAmp(double db) { return static_cast<float>(std::pow(10.0, db / 20.0)); }
inline double ampToDb(double a) { return 20.0 * std::log10(a); }

inline float peak(const std::vector<float>& v, std::size_t from, std::size_t to)
{
    float p = 0.0f;
    for (std::size_t i = from; i < to; ++i)
        p = std::max(p, std::fabs(v[i]));
    return p;
}

// Runs a mono signal through a block in place, `block` frames at a time.
template <class Block>
std::vector<float> runMono(Block& b, std::vector<float> x, std::size_t block = 512)
{
    for (std::size_t s = 0; s < x.size(); s += block) {
        float* p = x.data() + s;
        EXPECT_TRUE(b.processChannels(&p, static_cast<std::uint32_t>(std::min(block, x.size() - s))));
    }
    return x;
}

// A 1 kHz square wave: unlike a sine, its peak level is steady sample by sample.
inline std::vector<float> square(float amplitude, std::size_t frames)
{
    std::vector<float> v(frames);
    for (std::size_t i = 0; i < frames; ++i)
        v[i] = (i / 24) % 2 ? -amplitude : amplitude;
    return v;
}

// Gain in dB that sample i went through.
inline double gainDb(const std::vector<float>& in, const std::vector<float>& out, std::size_t i)
{
    return ampToDb(std::fabs(static_cast<double>(out[i]) / in[i]));
}

// Samples after `from` until the gain has moved `fraction` of its way to `targetDb`.
inline double samplesToReach(const std::vector<float>& in, const std::vector<float>& out, std::size_t from,
                             double targetDb, double fraction)
{
    const double g0 = gainDb(in, out, from - 1);
    for (std::size_t i = from; i < out.size(); ++i)
        if ((gainDb(in, out, i) - g0) / (targetDb - g0) >= fraction)
            return static_cast<double>(i - from + 1);
    return -1.0;
}

inline std::vector<float*> pointers(std::vector<std::vector<float>>& channels)
{
    std::vector<float*> p;
    for (auto& c : channels)
        p.push_back(c.data());
    return p;
}

inline bool allFinite(const std::vector<float>& v, std::size_t from = 0)
{
    return std::all_of(v.begin() + static_cast<std::ptrdiff_t>(from), v.end(),
                       [](float x) { return std::isfinite(x); });
}

// Values that must never make a setter misbehave.
inline const std::vector<float>& hostileValues()
{
    static const std::vector<float> v{std::nanf(""), INFINITY, -INFINITY, 1e38f, -1e38f, 1e-38f, -1e-38f, 0.0f};
    return v;
}

// Every kernel variant this machine runs (the reference first).
inline std::vector<qvd::dynamics::Variant> variants()
{
    qvd::dynamics::Variant v[8];
    const int n = qvd::dynamics::supportedVariants(v, 8);
    return {v, v + std::min(n, 8)};
}

// Smoothing off and coefficients for 48 kHz, restored after each test.
struct SmoothingOff {
    SmoothingOff()
    {
        SmoothingCoefficient::recomputeAll(kRate);
        SmoothingCoefficient::enableAll(false);
    }
    ~SmoothingOff() { SmoothingCoefficient::enableAll(false); }
};

} // namespace algtest
