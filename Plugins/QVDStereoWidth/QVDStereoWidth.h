#pragma once
// Stereo width: mid/side width, bass mono below a Linkwitz-Riley split, balance,
// polarity and swap, a mono check, and a correlation meter on the output.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/BiQuadTypes.h>
#include <Algorithms/MidSide.h>
#include <QVDEffect.h>

class QVDStereoWidth : public QVDEffect<QVDStereoWidth> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t {
        WIDTH = 0,
        BASS_MONO,
        BASS_FREQ,
        BALANCE,
        INVERT_L,
        INVERT_R,
        SWAP,
        MONO,
        kParameterCount
    };
    enum MeterGroup : std::int32_t { kInputMeter = 0, kOutputMeter = 1, kCorrelationMeter = 2 };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Stereo Width", .fourcc = qvdFourCC("QVDs"),
                                                     .maxInputs = 2, .maxOutputs = 2,
                                                     .className = "QVDStereoWidth"};
    static std::vector<QVDParam> parameterRows();

    QVDStereoWidth(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    // [any-thread] Output correlation, -1 (opposite) .. +1 (mono), about 300 ms.
    float correlation() const { return m_correlation.load(std::memory_order_relaxed); }

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    StereoMatrix target() const noexcept;
    void bassMono(float* left, float* right, std::int32_t frames) noexcept;
    void measureCorrelation(const float* left, const float* right, std::int32_t frames) noexcept;

    std::atomic<float> m_width{1.0f};
    std::atomic<bool> m_bassMono{false};
    std::atomic<float> m_bassHz{120.0f};
    std::atomic<float> m_balance{0.0f};
    std::atomic<bool> m_invertL{false};
    std::atomic<bool> m_invertR{false};
    std::atomic<bool> m_swap{false};
    std::atomic<bool> m_mono{false};
    std::atomic<float> m_correlation{1.0f};

    // Audio thread only.
    // Polarity, swap and width; then balance and mono (after the split when on).
    MidSideMixer m_mixer, m_after;
    bool m_fresh = true;
    float m_designedHz = 0.0f;
    BiQuadCoefficients m_lowPass, m_allPass;
    // The side's two low-pass sections, then the left and right all-passes.
    BiQuadState m_state[4]{};
    std::vector<float> m_sideBuffer;
    double m_sumLR = 0.0, m_sumLL = 0.0, m_sumRR = 0.0, m_corrPole = 0.0;
};
