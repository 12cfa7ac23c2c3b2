#pragma once
// Setter helpers shared by the dynamics blocks, turning parameter values into
// derived values. They never convert an out-of-range float to an integer and never
// produce a non-finite derived value from NaN, +-Inf or +-1e38: a NaN leaves
// the derived value as it was, other values are clamped into a range wide
// enough that no legitimate setting is touched.

#include <atomic>
#include <cmath>
#include <cstdint>

#include "DynamicsKernels.h"

namespace qvd::dynamics {

// Levels and gains in dB are kept inside +-400 dB: far beyond any setting that
// means something, and every derived level stays finite.
constexpr float kDbLimit = 400.0f;
// Detector floor, 1e-5 (-100 dB): silence never reaches log10.
constexpr float kLevelFloor = 1e-5f;
// Longest hold in samples (over an hour at 192 kHz); keeps the count an int.
constexpr std::int32_t kMaxHoldSamples = 1 << 30;

// dB -> log10 units (dB/20), clamped; false for NaN (caller keeps its value).
inline bool dbToLog10(float db, float& out)
{
    if (std::isnan(db))
        return false;
    const float c = db < -kDbLimit ? -kDbLimit : (db > kDbLimit ? kDbLimit : db);
    out = c / 20.0f;
    return true;
}

// One-pole coefficient k = exp(-1/(fs*T/1000)) and its complement 1 - k, in
// single precision. Negative times act as 0 (k = 0: follow at once); +Inf
// gives k = 1 (hold still). False for NaN.
inline bool timeCoefficient(std::int32_t sampleRate, float ms, float& k, float& complement)
{
    if (std::isnan(ms))
        return false;
    const float t = ms > 0.0f ? ms : 0.0f;
    const float fs = sampleRate > 0 ? static_cast<float>(sampleRate) : 0.0f;
    const float samples = fs * t / 1000.0f;
    // exp(-1/0) would be 0: said without dividing by zero.
    k = samples > 0.0f ? std::exp(-1.0f / samples) : 0.0f;
    complement = 1.0f - k;
    return true;
}

// Hold time in samples: truncate(fs*T/1000), clamped to [0, kMaxHoldSamples]
// before the conversion. False for NaN.
inline bool holdSamples(std::int32_t sampleRate, float ms, std::int32_t& out)
{
    if (std::isnan(ms))
        return false;
    const float fs = sampleRate > 0 ? static_cast<float>(sampleRate) : 0.0f;
    const float n = fs * ms / 1000.0f;
    if (!(n > 0.0f))
        out = 0;
    else if (n >= static_cast<float>(kMaxHoldSamples))
        out = kMaxHoldSamples;
    else
        out = static_cast<std::int32_t>(n);
    return true;
}

// Publishes a time constant's coefficient pair for the audio thread; a NaN
// keeps the pair as it was.
inline void storeTime(std::atomic<float>& k, std::atomic<float>& complement, std::int32_t sampleRate, float ms)
{
    float a = 0.0f, b = 0.0f;
    if (timeCoefficient(sampleRate, ms, a, b)) {
        k.store(a, std::memory_order_relaxed);
        complement.store(b, std::memory_order_relaxed);
    }
}

// Publishes a hold time in samples; a NaN keeps it as it was.
inline void storeHold(std::atomic<std::int32_t>& samples, std::int32_t sampleRate, float ms)
{
    std::int32_t n = 0;
    if (holdSamples(sampleRate, ms, n))
        samples.store(n, std::memory_order_relaxed);
}

// truncate(value + 0.5) != 0 without converting an out-of-range float.
inline bool listIndexNonZero(float value)
{
    const float v = value + 0.5f;
    return v >= 1.0f || v <= -1.0f;
}

} // namespace qvd::dynamics
