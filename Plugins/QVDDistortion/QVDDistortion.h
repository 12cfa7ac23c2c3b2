#pragma once
// Distortion: a low cut, drive into one of five shapers, a tilt tone control
// and a dry/wet mix. The three curves run at four times the host rate; bit
// and sample-rate reduction alias on purpose and run at the host rate, padded
// to the same latency so changing the type never moves the audio. The path
// coming in first replays the recent input it missed, so it joins without a
// gap. The asymmetric curve makes DC, which a 10 Hz blocker after it removes.
//
// Output sets the level of the wet signal alone, so the dry signal at any
// mix stays the input as it came.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Algorithms/BiQuadTypes.h>
#include <Algorithms/Oversampler.h>
#include <Algorithms/ShaperSupport.h>
#include <QVDEffect.h>

class QVDDistortion : public QVDEffect<QVDDistortion> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { DRIVE = 0, TYPE, BITS, SAMPLE_RATE, TONE, LOW_CUT, MIX, OUTPUT };
    enum Type : int { kTube = 0, kFuzz, kFold, kBits, kSampleRate };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Distortion", .fourcc = qvdFourCC("QVDs"),
                                                     .maxInputs = 8, .maxOutputs = 8,
                                                     .className = "QVDDistortion"};
    static std::vector<QVDParam> parameterRows();

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }
    bool prepareProcessing() override;

private:
    struct Channel {
        std::unique_ptr<Oversampler> curves;  // x4, for the three curves
        std::unique_ptr<Oversampler> reducer; // x1 padded to the same latency
        FixedDelay dry;
        FixedDelay history; // the shaper's recent input, for a change of type
        BiQuadState lowCut;
        float blockIn = 0.0f, blockOut = 0.0f; // DC blocker
        float tiltLow = 0.0f;                  // tilt's one-pole low band
        float held = 0.0f;                     // sample-rate reduction
        double phase = 1.0;
    };

    void renderChunk(const QVDBlock& block, std::int32_t offset, std::int32_t frames) noexcept;
    void shapeChannel(Channel& ch, int type, std::size_t n) noexcept;
    void clearChannel(Channel& ch) noexcept;
    void switchType(std::int32_t channels) noexcept;

    std::atomic<float> m_drive{4.0f};
    std::atomic<int> m_type{kTube};
    std::atomic<int> m_bits{8};
    std::atomic<float> m_reducedRate{8000.0f};
    std::atomic<float> m_tiltDb{0.0f};
    std::atomic<float> m_lowCutHz{20.0f};
    std::atomic<float> m_mix{1.0f};
    std::atomic<float> m_output{1.0f};

    // Sized at prepare.
    std::vector<Channel> m_channels;
    std::vector<float> m_dry, m_wet, m_replay;
    // Drive, mix and output glide with the host's smoothing.
    shaper::Glide m_driveGlide, m_mixGlide, m_outputGlide;
    std::vector<float> m_driveRun, m_mixRun, m_outputRun;
    std::int32_t m_chunk = 1;
    int m_activeType = -1;
    float m_designedHz = 0.0f;
    BiQuadCoefficients m_lowCut;
    float m_blockPole = 0.0f;
    float m_tiltPole = 0.0f;
};
