#pragma once
// Peak level follower for meters and side-chains (duckers, de-essers, gates):
// the loudest channel's |x| in log10 units (dB/20), floored at FLOOR, followed
// with attack, hold and release exactly as the Compressor's detector follows
// its threshold-floored level. The audio is only read.
//
//   level L = max(floor, log10 max_c |x_c|)
//   L > envelope:  envelope <- a*envelope + (1-a)*L, hold re-armed
//   else:          hold counting down, then envelope <- r*envelope + (1-r)*L
//
// Starting state: the envelope starts at the floor in force when the first
// block after initialise or reset is processed (silence, never a stale level).
// NaN samples are ignored; an infinite sample restarts the envelope at the
// floor at the end of its block.
//
// Time coefficients follow the rate given to initialise; setSampleRate only
// stores the rate, so set the time parameters again after it.

#include <QVDAudioAlgorithm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "DynamicsKernels.h"

class LevelTracker : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { FLOOR = 0, ATTACK, HOLD, RELEASE };
    enum ReadOut : std::uint32_t {
        // Envelope after the last frame, dB.
        kLevelDb = 0,
    };

    LevelTracker();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    bool initialise(float sampleRate, std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] Follows channelCount() planar buffers; the audio is not changed.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [audio-thread] The same, also writing the envelope of every frame
    // (log10 units) to `levels` when it is not null.
    bool track(const float* const* channels, std::uint32_t frames, float* levels) noexcept;
    // [control-thread] NaN leaves derived values alone.
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing]
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;

    // [any-thread] Envelope in log10 units.
    float envelope() const { return m_envelopeOut.load(std::memory_order_relaxed); }
    // [not while processing] Kernel variant; the fastest one by default.
    void setVariant(const qvd::dynamics::Variant& variant) { m_variant = variant; }

private:
    static constexpr std::int32_t kChunk = 256;

    std::atomic<float> m_floor{-3.0f};
    std::atomic<float> m_attack{0.0f}, m_attackC{1.0f};
    std::atomic<float> m_release{0.0f}, m_releaseC{1.0f};
    std::atomic<std::int32_t> m_holdSamples{0};

    double m_envelope = -3.0; // log10 units
    std::int32_t m_hold = 0;  // samples left to hold
    bool m_restart = true;    // envelope starts at the floor on the next block
    std::atomic<float> m_envelopeOut{-3.0f};

    qvd::dynamics::Variant m_variant;
    alignas(32) std::array<float, kChunk> m_level{};
};
