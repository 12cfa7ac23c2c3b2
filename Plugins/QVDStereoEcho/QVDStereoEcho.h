#pragma once
// Multi-tap echo: up to eight taps on one stereo line, each with its own time
// (free in ms or a note value at the host's tempo), level and pan. The
// longest active tap feeds back into the line, so the whole pattern repeats.
// Tape mode adds wow and flutter to every read and saturates what goes onto
// the line; digital mode keeps a soft limiter on the feedback only, so echoes
// land at exact samples and levels.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDStereoEcho : public QVDEffect<QVDStereoEcho> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { MODE = 0, TAPS, FEEDBACK, MIX, WOW_FLUTTER, SATURATION, FIRST_TAP };
    // Each tap's rows follow FIRST_TAP in this order.
    enum TapParameter : std::uint32_t { TAP_TIME = 0, TAP_NOTE, TAP_LEVEL, TAP_PAN, kRowsPerTap };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Echo", .fourcc = qvdFourCC("QVDy"), .maxInputs = 2,
                                                     .maxOutputs = 2, .className = "QVDStereoEcho"};
    static std::vector<QVDParam> parameterRows();
    static constexpr int kMaxTaps = 8;
    static constexpr float kMaxTimeMs = 4000.0f;

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    struct TapSetting {
        std::atomic<float> timeMs{250.0f};
        std::atomic<int> note{0}; // 0 free, else note value index + 1
        std::atomic<float> gain{1.0f};
        std::atomic<float> pan{0.0f};
    };
    struct TapState {
        double time = 2.0; // samples, glided
        double left = 0.0, right = 0.0; // gains, glided
    };
    // Target delay of a tap in samples for this block.
    double tapTarget(const TapSetting& tap, bool haveTempo, double bpm) const noexcept;

    TapSetting m_taps[kMaxTaps];
    std::atomic<int> m_tapCount{2};
    std::atomic<float> m_feedback{0.3f};
    std::atomic<float> m_mix{0.35f};
    std::atomic<bool> m_tape{false};
    std::atomic<float> m_wowFlutter{0.3f};
    std::atomic<float> m_drive{1.0f};

    // Audio thread only.
    StereoDelay m_line;
    TapState m_state[kMaxTaps];
    bool m_fresh = true;
    double m_mixState = 0.0;
    double m_glide = 0.0;
    double m_wowPhase = 0.0, m_flutterPhase = 0.0; // cycles
};
