#pragma once
// Downward expander with range and hold, linked over all channels. Levels and
// gains are in log10 units (dB/20). Below the threshold the gain is
// (envelope - threshold) * ratio, never below -range: the detector level is
// floored at threshold - range/ratio, so silence settles at exactly -range.
//
// The envelope is clamped at the threshold while rising, and the hold is
// re-armed each time it gets there: the gain stays at 0 dB for the hold time
// after the signal last reached the threshold, then falls with the release.
//
// Starting state: the envelope starts at the threshold in force when the first
// block after initialise or reset is processed, so the first frames pass at
// 0 dB and a quiet start is pulled down by the release. (An envelope starting
// at 0, above the threshold, would raise the first samples by as much as
// -threshold * ratio.)
//
// The level is measured from FLT_MIN (a frame of zeros or NaNs reads as the
// floor, as the log10 of silence would); an infinite sample reads as FLT_MAX
// and the envelope restarts at the end of that block.
//
// Time coefficients follow the rate given to initialise; setSampleRate only
// stores the rate, so set the time parameters again after it.

#include <QVDAudioAlgorithm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "DynamicsKernels.h"

class Expander : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { THRES = 0, RATIO, RANGE, ATTACK, HOLD, RELEASE };
    enum ReadOut : std::uint32_t {
        // Attenuation of the last frame in dB (positive while expanding).
        kGainReduction = 0,
    };

    Expander();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    bool initialise(float sampleRate, std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] Every channel of channelCount() planar buffers, linked.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [control-thread] THRES, RATIO and RANGE recompute threshold, effective
    // ratio max(ratio, 1) and floor together; NaN values leave derived values alone.
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing]
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;

    // [any-thread] Current envelope and floor in log10 units.
    float envelope() const { return m_envelopeOut.load(std::memory_order_relaxed); }
    float floorLevel() const { return m_floor.load(std::memory_order_relaxed); }
    // [not while processing] Kernel variant; the fastest one by default.
    void setVariant(const qvd::dynamics::Variant& variant) { m_variant = variant; }
    const char* variantName() const { return m_variant.name; }

private:
    void recomputeLevels();

    static constexpr std::int32_t kChunk = 256;

    std::atomic<float> m_threshold{-1.5f}, m_ratio{2.0f}, m_floor{-1.75f};
    std::atomic<float> m_attack{0.0f}, m_attackC{1.0f};
    std::atomic<float> m_release{0.0f}, m_releaseC{1.0f};
    std::atomic<std::int32_t> m_holdSamples{0};

    double m_envelope = -1.5;  // log10 units
    std::int32_t m_hold = 0;   // samples left to hold
    bool m_restart = true;     // envelope starts at the threshold on the next block
    std::atomic<float> m_envelopeOut{-1.5f};
    std::atomic<float> m_lastGain{0.0f}; // log10 units

    qvd::dynamics::Variant m_variant;
    alignas(32) std::array<float, kChunk> m_level{};
    alignas(32) std::array<float, kChunk> m_gain{};
};
