#pragma once
// Waveshaping clipper: drive into one of five curves that never pass the
// ceiling, optionally at 2, 4 or 8 times the host rate.
//
// Latency is that of the longest chain (x8) at every setting: the shorter
// chains are padded to it, so the oversampling factor can change while audio
// runs without the audio moving in time. The chain coming in first replays
// the recent input it missed, so it takes over as if it had run all along.
//
// Without oversampling no curve passes the ceiling. Oversampled, removing
// the clipped wave's harmonics above the host's Nyquist brings peaks back:
// about 0.1 dB on low tones, up to 5 dB on full-band noise driven hard. The
// safety clip, when on, cuts the wet signal back to the ceiling after it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Algorithms/ShaperSupport.h>
#include <QVDEffect.h>

class Oversampler;
class FixedDelay;

class QVDSoftClipper : public QVDEffect<QVDSoftClipper> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { DRIVE = 0, CEILING, CURVE, KNEE, OVERSAMPLING, OUTPUT, MIX, LINK, SAFETY_CLIP };
    enum Curve : int { kHard = 0, kCubic, kTanh, kSine, kSmoothKnee };
    static constexpr int kFactorCount = 4; // off, x2, x4, x8
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Soft Clipper", .fourcc = qvdFourCC("QVSc"),
                                                     .maxInputs = 32, .maxOutputs = 32,
                                                     .className = "QVDSoftClipper"};
    static std::vector<QVDParam> parameterRows();

    using QVDEffect::QVDEffect;
    ~QVDSoftClipper() override;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }
    bool prepareProcessing() override;

private:
    void renderChunk(const QVDBlock& block, std::int32_t offset, std::int32_t frames) noexcept;
    void switchChains(std::int32_t channels) noexcept;
    // Up, shape and down in place on m_rows.
    void runChains(std::int32_t channels, std::size_t frames) noexcept;
    template <class Shape>
    void shape(std::int32_t channels, std::size_t samples, bool linked, const Shape& curve) noexcept;

    std::atomic<float> m_drive{1.0f};
    std::atomic<float> m_ceiling{1.0f};
    std::atomic<int> m_curve{kTanh};
    std::atomic<float> m_kneeStart{0.5f}; // where the smooth knee leaves the straight line, re the ceiling
    std::atomic<int> m_factorIndex{2};
    std::atomic<float> m_output{1.0f};
    std::atomic<float> m_mix{1.0f};
    std::atomic<bool> m_linked{false};
    std::atomic<bool> m_safety{false};

    // Sized at prepare: per factor, one chain per channel.
    std::vector<std::unique_ptr<Oversampler>> m_chains[kFactorCount];
    std::vector<FixedDelay> m_dry;
    std::vector<FixedDelay> m_history;       // the chains' recent input, for a switch
    std::vector<std::vector<float>> m_input; // finite input, then the delayed dry signal
    std::vector<std::vector<float>> m_wet;   // the chains' input, then their output
    std::vector<std::vector<float>> m_replay;
    std::vector<float*> m_rows;
    std::vector<float*> m_high; // each channel's oversampled samples this chunk
    // Drive, mix and output trim glide with the host's smoothing.
    shaper::Glide m_driveGlide, m_mixGlide, m_outputGlide;
    std::vector<float> m_driveRun, m_mixRun, m_outputRun;
    std::int32_t m_chunk = 1;
    int m_activeFactor = -1;
};
