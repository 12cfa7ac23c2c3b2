#pragma once
// Peak compressor: hard knee, hold, gain-reduction limit and optional
// side-chain. Levels and gains are in log10 units (dB/20); the gain of a frame
// is max(limit, (threshold - envelope) * (1 - 1/ratio)) + make-up, applied as
// 10^g to every channel of the frame.
//
// Processing forms, chosen by the buffer count (the channel count given to
// initialise) and the interleaved channel count (setInterleavedChannels):
//   1 buffer, 1 channel      single channel; the side-chain is buffer 1.
//   n buffers, 1 channel     linked planar: one gain from the loudest buffer;
//                            with the side-chain on, buffers n..2n-1 are the
//                            side-chain and only they are measured.
//   1 buffer, n channels     linked interleaved, frames of n values; the
//                            side-chain is buffer 1, interleaved the same way.
//   anything else            refused: false, audio untouched.
//
// Starting state: the envelope starts at the threshold in force when the first
// block after initialise or reset is processed (the level every detector value
// is floored to), so the first frames get exactly the make-up and are then
// pulled down by the attack, never by a stale envelope.
//
// Coefficients are single precision; the envelope is double, like every
// recursive state here: a float envelope stalls short of its target by up to
// half an ulp / (1 - release), which is most of a dB for a 4 s release.
//
// The detector ignores NaN samples; an infinite sample is measured as FLT_MAX
// and the envelope restarts from the threshold at the end of that block, so one
// bad sample cannot hold the gain down for seconds.
//
// Time coefficients follow the rate given to initialise; setSampleRate only
// stores the rate, so set the time parameters again after it.

#include <QVDAudioAlgorithm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "DynamicsKernels.h"

class Compressor : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t {
        RATIO = 0,
        THRES,
        ATTACK,
        HOLD,
        RELEASE,
        MAKEUP_GAIN,
        SIDECHAIN_ON,
        GR_LIMIT,
    };
    enum ReadOut : std::uint32_t {
        // Gain reduction of the last frame in dB, make-up excluded (positive
        // while compressing).
        kGainReduction = 0,
    };

    Compressor();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    // [not while processing] Sizes the detector pointer list for `channelCount` buffers.
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    bool setChannelCount(std::int32_t channelCount) override;
    // [not while processing] Interleaved channels per buffer (1 = planar); values below 1 act as 1.
    void setInterleavedChannels(std::int32_t channels);
    std::int32_t interleavedChannels() const { return m_interleaved; }

    void update() override {}
    // [audio-thread] Single-channel form on `samples` (the channel index is not
    // used: there is one envelope). Refused (false, untouched) while the
    // side-chain is on, since this entry has no side-chain buffer.
    bool processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept override;
    // [audio-thread] The forms listed above; false when refused.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [control-thread] A ratio of 0 or below (or NaN) is ignored; ratios in
    // (0, 1) act as 1, so the block never boosts above its threshold.
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing] Envelope back to the threshold, hold cleared.
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;

    // [any-thread] Current envelope in log10 units (for meters and tests).
    float envelope() const { return m_envelopeOut.load(std::memory_order_relaxed); }
    // [not while processing] Kernel variant; the fastest one by default.
    void setVariant(const qvd::dynamics::Variant& variant) { m_variant = variant; }
    const char* variantName() const { return m_variant.name; }

private:
    struct Coefficients {
        float threshold, attack, attackC, release, releaseC, slope, makeup, limit;
        std::int32_t holdSamples;
        bool sidechain;
    };
    Coefficients load() const noexcept;
    // Runs the block on gathered pointer lists; `stride` is the interleaved
    // channel count (1 for planar lists).
    void run(float* const* mains, const float* const* detectors, std::int32_t lists, std::int32_t stride,
             std::uint32_t frames) noexcept;
    // Serial part: envelope and gain (log10 units) for `n` levels.
    void envelope(const Coefficients& c, const float* level, float* gain, std::int32_t n, float& lastReduction) noexcept;

    static constexpr std::int32_t kChunk = 256;

    // Derived values: written by the setter, read once per block.
    std::atomic<float> m_threshold{-0.75f};
    std::atomic<float> m_attack{0.0f}, m_attackC{1.0f};
    std::atomic<float> m_release{0.0f}, m_releaseC{1.0f};
    std::atomic<float> m_slope{0.5f};
    std::atomic<float> m_makeup{0.0f};
    std::atomic<float> m_limit{-2.5f};
    std::atomic<std::int32_t> m_holdSamples{0};
    std::atomic<bool> m_sidechain{false};

    // Running state (audio thread).
    double m_envelope = -0.75; // log10 units, double like every recursive state
    std::int32_t m_hold = 0;    // samples left to hold
    bool m_restart = true;      // envelope starts at the threshold on the next block
    std::atomic<float> m_envelopeOut{-0.75f};
    std::atomic<float> m_reductionDb{0.0f};

    std::int32_t m_interleaved = 1;
    qvd::dynamics::Variant m_variant;
    // Detector pointers per buffer, sized in initialise / setChannelCount.
    std::vector<const float*> m_detectors;
    alignas(32) std::array<float, kChunk> m_level{};
    alignas(32) std::array<float, kChunk> m_gain{};
};
