#pragma once
// Modulation: one LFO clock, read per channel at a phase offset, drives one
// of five effects on up to eight channels: tremolo (gain), vibrato (a swept
// delay), auto-pan (balance within each channel pair), ring modulation (the
// input times a carrier at an audio frequency) and a phaser (4 to 12
// first-order all-passes whose corner the LFO sweeps), with a dry/wet mix.
// The LFO runs free (Hz) or locked to the host's tempo in note values.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDModulation : public QVDEffect<QVDModulation> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { MODE = 0, RATE, DEPTH, SHAPE, PHASE, FREQUENCY, STAGES, MIX, SYNC };
    enum Mode : int { kTremolo = 0, kVibrato, kAutoPan, kRing, kPhaser };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Modulation", .fourcc = qvdFourCC("QVMl"), .maxInputs = 8,
                                                     .maxOutputs = 8, .className = "QVDModulation"};
    static std::vector<QVDParam> parameterRows();
    static constexpr int kChannels = 8;
    static constexpr int kMaxStages = 12;
    static constexpr double kVibratoMs = 5.0;

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    // LFO cycles per frame for this block: the note value at the host's tempo
    // when synced and the host has one, the free rate otherwise.
    double lfoIncrement(const QVDBlock& block) const noexcept;
    // The per-channel value of the LFO (or carrier) for the current frame, in [-1, 1].
    void channelWaves(const float* table, double phase, int channels, float* out) const noexcept;
    // Sets each channel's phaser coefficient ramp towards the corner the LFO
    // asks for now, to be reached over the next control period.
    void updateCorners(const float* table, double base, int channels) noexcept;
    // All-pass coefficient for a corner frequency in Hz.
    double allPassCoefficient(double hz) const noexcept;

    std::atomic<int> m_mode{kTremolo};
    std::atomic<float> m_rateHz{2.0f};
    std::atomic<float> m_depth{0.5f};
    std::atomic<int> m_shape{0};
    std::atomic<float> m_phaseOffset{0.25f}; // cycles between neighbouring channels
    std::atomic<float> m_frequency{440.0f};
    std::atomic<int> m_stages{4};
    std::atomic<float> m_mix{1.0f};
    std::atomic<int> m_sync{0}; // 0 free, else note value index + 1

    // Audio thread only.
    StereoDelay m_lines[kChannels / 2];
    bool m_fresh = true;
    double m_lfoPhase = 0.0, m_carrierPhase = 0.0; // cycles
    double m_depthState = 0.0, m_mixState = 0.0;
    double m_glide = 0.0;
    // Phaser: all-pass states per channel and stage, and each channel's
    // coefficient ramping between control points.
    double m_x1[kChannels][kMaxStages]{}, m_y1[kChannels][kMaxStages]{};
    double m_coefficient[kChannels]{}, m_coefficientStep[kChannels]{};
    int m_countdown = 0;
};
