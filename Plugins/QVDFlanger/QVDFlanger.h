#pragma once
// Flanger: a stereo delay line read at a delay an LFO sweeps from
// delay x (1 - depth) up to the set delay, mixed with the dry signal so the
// comb's notches move; feedback of either sign, the LFO free (Hz) or locked
// to the host's tempo in note values, the right side's LFO offset in phase.
// Through-zero plays the dry side through the same line at the sweep's
// centre and swings the wet read either side of it, so the two cross; the
// output is then late by that centre delay.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDFlanger : public QVDEffect<QVDFlanger> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { DELAY = 0, DEPTH, RATE, SYNC, SHAPE, FEEDBACK, PHASE, THROUGH_ZERO, MIX };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Flanger", .fourcc = qvdFourCC("QVDy"), .maxInputs = 2,
                                                     .maxOutputs = 2, .className = "QVDFlanger", .extra = 128};
    static std::vector<QVDParam> parameterRows();
    static constexpr float kMinDelayMs = 0.1f;
    static constexpr float kMaxDelayMs = 10.0f;

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    // LFO cycles per sample for this block: the note value at the host's
    // tempo when synced and the host has one, the free rate otherwise.
    double lfoIncrement(const QVDBlock& block) const noexcept;
    // What the glided settings head for in this block.
    struct Targets {
        double delay, depth, offset, mix;
    };
    template <bool throughZero>
    void renderFrames(const QVDBlock& block, const Targets& targets, const float* table) noexcept;
    // Left and right wet reads and the through-zero dry read, in samples, at
    // the current phase and settings.
    void readPositions(bool throughZero, const float* table, double* read) const noexcept;

    std::atomic<float> m_delayMs{2.0f};
    std::atomic<float> m_depth{0.5f};
    std::atomic<float> m_rateHz{0.25f};
    std::atomic<int> m_sync{0}; // 0 free, else note value index + 1
    std::atomic<int> m_shape{0};
    std::atomic<float> m_feedback{0.0f};
    std::atomic<float> m_phaseOffset{0.25f}; // cycles
    std::atomic<bool> m_throughZero{false};
    std::atomic<float> m_mix{0.5f};

    // Audio thread only.
    StereoDelay m_line;
    bool m_fresh = true;
    double m_phase = 0.0; // cycles, [0, 1)
    // Glided settings: delay in samples, depth 0..1, phase offset, mix.
    double m_delayState = 0.0, m_depthState = 0.0, m_offsetState = 0.0, m_mixState = 0.0;
    // Frames between LFO and setting updates; reads ramp between them.
    static constexpr int kControlPeriod = 16;
    double m_controlGlide = 0.0; // one-pole coefficient of the time settings per update
    int m_countdown = 0;
    double m_read[3]{}, m_step[3]{};
};
