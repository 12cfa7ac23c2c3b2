#pragma once
// Chorus: one to four voices per side reading a stereo delay line at delays
// an LFO sweeps between the set delay and delay + depth, with the voices'
// phases spread over the cycle and the right side's offset by up to half the
// spacing between voices; feedback into the line, a high cut on the wet path, dry/wet mix.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/LFO.h>
#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDChorus : public QVDEffect<QVDChorus> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { VOICES = 0, RATE, DEPTH, DELAY, SPREAD, FEEDBACK, HIGH_CUT, MIX };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Chorus", .fourcc = qvdFourCC("QVDy"), .maxInputs = 2,
                                                     .maxOutputs = 2, .className = "QVDChorus"};
    static std::vector<QVDParam> parameterRows();
    static constexpr int kMaxVoices = 4;
    static constexpr float kMaxDelayMs = 30.0f;
    static constexpr float kMaxDepthMs = 10.0f;
    // The high cut at its maximum is off.
    static constexpr float kHighCutOff = 20000.0f;

    QVDChorus(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    std::atomic<int> m_voices{2};
    std::atomic<float> m_depthMs{3.0f};
    std::atomic<float> m_delayMs{8.0f};
    std::atomic<float> m_spread{0.5f};
    std::atomic<float> m_feedback{0.0f};
    std::atomic<float> m_highCut{kHighCutOff};
    std::atomic<float> m_mix{0.5f};

    LFO m_lfo;
    // Audio thread only.
    StereoDelay m_line;
    bool m_fresh = true;
    double m_mixState = 0.5;
    double m_lowPassed[2]{};
};
