#pragma once
// Stereo delay: two lines up to 4 s with gliding times, feedback through a
// low and a high cut and a soft limiter, all gliding, cross-feed for ping-pong, ducking of
// the wet signal by the input, and a dry/wet mix.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDStereoDelay : public QVDEffect<QVDStereoDelay> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { TIME_L = 0, TIME_R, FEEDBACK, CROSSFEED, LOW_CUT, HIGH_CUT, DUCK, MIX, NOTE_L, NOTE_R };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Delay", .fourcc = qvdFourCC("QVDy"), .maxInputs = 2,
                                                     .maxOutputs = 2, .className = "QVDStereoDelay"};
    static std::vector<QVDParam> parameterRows();
    static constexpr double kMaxSeconds = 4.0;
    // Low cut at its minimum and high cut at its maximum are off.
    static constexpr float kLowCutOff = 20.0f;
    static constexpr float kHighCutOff = 20000.0f;

    using QVDEffect::QVDEffect;

    // The soft limiter in the feedback path: linear up to 0.5, never beyond 0.98.
    static float limit(float x) noexcept;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    // One-pole coefficient for a corner in Hz.
    double pole(float hz) const noexcept;
    // One control step of a corner gliding in octaves: moves `octave` on and
    // sets `step`, the per-frame ramp of `pole` to it; once the corner has
    // arrived, lands `pole` exactly and stops the ramp.
    void stepTowards(double& octave, double target, double& pole, double& step) const noexcept;

    std::atomic<float> m_timeMs[2]{375.0f, 500.0f};
    // Sync choice per line: 0 free, else a note value at the host's tempo.
    std::atomic<int> m_note[2]{0, 0};
    std::atomic<float> m_feedback{0.35f};
    std::atomic<float> m_crossfeed{0.0f};
    std::atomic<float> m_lowCut{kLowCutOff};
    std::atomic<float> m_highCut{kHighCutOff};
    std::atomic<float> m_duckDb{0.0f};
    std::atomic<float> m_mix{0.35f};

    // Audio thread only.
    StereoDelay m_delay;
    bool m_fresh = true;
    double m_mixState = 0.35;
    double m_envelope = 0.0;
    double m_attack = 0.0, m_release = 0.0;
    // Per channel: the high cut's low-pass state and the low cut's.
    double m_lowPassed[2]{}, m_lowCutState[2]{};
    // Glided loop settings: feedback, how far each filter is in the loop
    // (0 off .. 1 on), the corners in octaves (log2 Hz) and their poles
    // ramping between control points.
    static constexpr int kControlPeriod = 16;
    double m_glide = 0.0, m_controlGlide = 0.0;
    double m_feedbackState = 0.35, m_lowAmount = 0.0, m_highAmount = 0.0;
    double m_lowOctave = 0.0, m_highOctave = 0.0;
    double m_hp = 0.0, m_hpStep = 0.0, m_lp = 0.0, m_lpStep = 0.0;
    int m_countdown = 0;
};
