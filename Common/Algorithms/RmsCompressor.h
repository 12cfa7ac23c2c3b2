#pragma once
// RMS compressor with a curved knee and automatic make-up, linked over up to
// 31 channels. Levels and gains are in log10 units (dB/20).
//
// Per frame: each channel's mean square follows x^2 with the RMS Speed
// one-pole; the loudest channel's RMS (from 1e-5) is floored at the knee's
// lower edge and followed by the attack/release envelope e; the gain is
//   0                                             e below the lower edge
//   radius * sin((e - lower) * theta / width) - (e - lower)   inside the knee
//   (e - centre) / ratio - (e - centre)           from the upper edge on
// with theta = acos(1/ratio), raised to at least kGainFloor in the last two
// cases, plus the make-up. The knee arc starts at 0 on the lower edge and meets
// the hard line on the upper edge.
//
// Gain floor: kGainFloor = -5 (-100 dB), the same depth as the detector's 1e-5
// floor. No legitimate signal reaches it (threshold -50 dB at ratio 20 asks for
// 100 dB only at +55 dBFS RMS); it exists so that a runaway level (a block of
// 1e30s, an infinite sample) cannot drive the gain, the meter and 10^g into
// the denormal range or to zero, and it gives the meter a fixed full scale.
//
// Mean squares and the envelope are double precision (see Compressor.h).
//
// Starting state: mean squares start at 0 and the envelope at the knee's lower
// edge in force when the first block after initialise or reset is processed,
// so the first frames pass with the make-up only. Non-finite mean squares are
// cleared at the end of a block; an infinite sample restarts the envelope.
//
// Time coefficients follow the rate given to initialise; setSampleRate only
// stores the rate, so set the time parameters again after it.

#include <QVDAudioAlgorithm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "DynamicsKernels.h"

class RmsCompressor : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t {
        RMS_SPEED = 0,
        THRES,
        RATIO,
        KNEE,
        ATTACK,
        RELEASE,
        MAKEUP_GAIN,
        AUTO_MAKEUP,
        MAKEUP_REF,
    };
    enum ReadOut : std::uint32_t {
        // Gain reduction of the last frame in dB, make-up excluded.
        kGainReduction = 0,
    };
    // Processing refuses this many channels or more.
    static constexpr std::int32_t kMaxChannels = 32;
    // Lowest gain of the knee and the hard line, log10 units (-100 dB).
    static constexpr float kGainFloor = -5.0f;

    RmsCompressor();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    bool initialise(float sampleRate, std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] channelCount() planar buffers, linked. False (audio
    // untouched) for fewer than 1 or kMaxChannels or more channels.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [control-thread] Ratios below 1 act as 1.001 (the knee needs acos(1/ratio) > 0).
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing]
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;

    // [any-thread] Static gain (log10 units, make-up excluded) for envelope e:
    // what the editor draws and what each frame uses.
    float gainFor(float e) const noexcept;
    // [any-thread] Make-up in force, log10 units.
    float makeup() const { return m_makeup.load(std::memory_order_relaxed); }
    // [any-thread] Current envelope in log10 units.
    float envelope() const { return m_envelopeOut.load(std::memory_order_relaxed); }
    // [not while processing] The detector's state, for handing it over:
    // channel c's mean square, the envelope, and whether the envelope is to
    // restart at the lower edge.
    double meanSquare(std::int32_t c) const noexcept { return m_meanSquare[static_cast<std::size_t>(c)]; }
    double envelopeState() const noexcept { return m_envelope; }
    bool restarting() const noexcept { return m_restart; }
    // [not while processing] Carries on from another detector's state: the
    // first `count` channels' mean squares (the rest start at 0) and the
    // envelope, so a change of linking keeps the gain reduction it had.
    void resumeFrom(const double* meanSquares, std::int32_t count, double envelope, bool restart) noexcept;
    // [not while processing] Kernel variant; the fastest one by default.
    void setVariant(const qvd::dynamics::Variant& variant) { m_variant = variant; }
    const char* variantName() const { return m_variant.name; }

private:
    struct Knee {
        float lower, upper, centre, invRatio, theta, thetaPerWidth, radius;
    };
    Knee loadKnee() const noexcept;
    static float gainFor(const Knee& k, float e) noexcept;
    void recomputeKnee();
    void recomputeMakeup();

    static constexpr std::int32_t kChunk = 256;

    std::atomic<float> m_rms{0.0f}, m_rmsC{1.0f};
    std::atomic<float> m_attack{0.0f}, m_attackC{1.0f};
    std::atomic<float> m_release{0.0f}, m_releaseC{1.0f};
    std::atomic<float> m_lower{-1.0f}, m_upper{-0.5f}, m_centre{-0.75f};
    std::atomic<float> m_invRatio{0.5f}, m_theta{1.0471976f}, m_thetaPerWidth{2.0943951f}, m_radius{0.0f};
    std::atomic<float> m_makeup{0.0f};

    std::array<double, kMaxChannels> m_meanSquare{};
    double m_envelope = -1.0; // log10 units
    bool m_restart = true;    // envelope starts at the lower edge on the next block
    std::atomic<float> m_envelopeOut{-1.0f};
    std::atomic<float> m_lastGain{0.0f}; // log10 units

    qvd::dynamics::Variant m_variant;
    alignas(32) std::array<float, kChunk> m_level{};
    alignas(32) std::array<float, kChunk> m_gain{};
};
