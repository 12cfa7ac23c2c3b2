#pragma once
// Chorus: one to four voices per side reading a stereo delay line at delays
// an LFO sweeps between the set delay and delay + depth, with the voices'
// phases spread over the cycle and the right side's offset by up to half the
// spacing between voices; the LFO free (Hz) or locked to the host's tempo in
// note values; feedback into the line, a high cut on the wet path, dry/wet mix.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/StereoDelay.h>
#include <QVDEffect.h>

class QVDChorus : public QVDEffect<QVDChorus> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { VOICES = 0, RATE, DEPTH, DELAY, SPREAD, FEEDBACK, HIGH_CUT, MIX, SYNC };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Chorus", .fourcc = qvdFourCC("QVDy"), .maxInputs = 2,
                                                     .maxOutputs = 2, .className = "QVDChorus"};
    static std::vector<QVDParam> parameterRows();
    static constexpr int kMaxVoices = 4;
    static constexpr float kMinDelayMs = 1.0f;
    static constexpr float kMaxDelayMs = 30.0f;
    static constexpr float kMaxDepthMs = 10.0f;
    // The high cut at its maximum is off.
    static constexpr float kHighCutOff = 20000.0f;

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    // Frames between LFO updates; reads ramp straight between them. Never
    // more than the shortest delay, so a period's reads all find frames
    // written before it and the period's writes can follow them.
    static constexpr int kMaxPeriod = 16;
    // LFO cycles per frame for this block: the note value at the host's tempo
    // when synced and the host has one, the free rate otherwise.
    double lfoIncrement(const QVDBlock& block) const noexcept;
    // Moves the glided settings and the LFO one control period on and aims
    // each voice's read ramp at the position they give; during a voice
    // count fade, the outgoing voices' ramps too.
    void controlPoint(double increment, int voices, bool jump) noexcept;
    using Reads = double[2][kMaxVoices];
    void aimVoices(Reads& read, Reads& step, int voices, bool jump) const noexcept;
    // The voices' reads over `frames` frames from `n`, summed per side, then
    // those frames written with feedback, filtered and mixed.
    struct Settings {
        float feedback;
        double lowPass; // the high cut's pole, 0 when off
        double mix, mixGlide;
    };
    template <int voices>
    void readVoices(Reads& read, const Reads& step, int frames, float (*wet)[kMaxPeriod]) const noexcept;
    void readSet(int voices, Reads& read, const Reads& step, int frames, float (*wet)[kMaxPeriod]) const noexcept;
    // Blends the outgoing voices into `wet` while a voice count fade runs.
    void fadeVoices(int frames, float (*wet)[kMaxPeriod]) noexcept;
    void renderSegment(const QVDBlock& block, std::int32_t n, int frames, int voices,
                       const Settings& settings) noexcept;

    std::atomic<int> m_voices{2};
    std::atomic<float> m_rateHz{0.8f};
    std::atomic<int> m_sync{0}; // 0 free, else note value index + 1
    std::atomic<float> m_depthMs{3.0f};
    std::atomic<float> m_delayMs{8.0f};
    std::atomic<float> m_spread{0.5f};
    std::atomic<float> m_feedback{0.0f};
    std::atomic<float> m_highCut{kHighCutOff};
    std::atomic<float> m_mix{0.5f};

    // Audio thread only.
    StereoDelay m_line;
    bool m_fresh = true;
    int m_period = kMaxPeriod;
    int m_countdown = 0;
    int m_voiceCount = 0; // the count the ramps were set up for
    double m_phase = 0.0; // cycles, [0, 1)
    // Targets of this block: delay and half the depth in samples, side offset in cycles.
    double m_delayTarget = 0.0, m_halfDepthTarget = 0.0, m_sideTarget = 0.0;
    // Delay and depth pass two one-poles in series, so their rate of change
    // starts from zero and a jump of the whole range sweeps without a kink.
    double m_delay[2]{}, m_halfDepth[2]{}, m_side = 0.0;
    double m_controlGlide = 0.0; // one-pole coefficient per control period
    Reads m_read{}, m_step{};
    // A voice count change fades from the old count's reads, which carry on
    // as before, to the new count's over m_fadeLength frames; a change asked
    // for meanwhile waits for the fade to end.
    Reads m_readOld{}, m_stepOld{};
    int m_fadeVoices = 0;
    int m_fadeLeft = 0, m_fadeLength = 1;
    double m_mixState = 0.5;
    double m_lowPassed[2]{};
};
