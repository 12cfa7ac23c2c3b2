#pragma once
// Stereo fixer: measures the delay between the channels (up to 20 ms either
// way) and their polarity from the peak of their cross-correlation over a
// window, then delays the earlier channel and flips the right one to match;
// a dead or near-silent channel is rebuilt from the other. When the peak is
// weak or has rivals (unrelated or periodic material) it changes nothing and
// the status readout says which. Corrections cross-fade in over 10 ms. The
// latency is the largest correction, constant: the earlier channel always
// leaves that late.

#include <atomic>
#include <cstdint>
#include <vector>

#include <QVDEffect.h>

class QVDStereoFixer : public QVDEffect<QVDStereoFixer> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { WINDOW = 0, FIX_DELAY, FIX_POLARITY, REPAIR };
    // Values of the status readout.
    enum Status : int { kAligned = 0, kWeakPeak, kRivalPeaks, kSilent, kLeftRepaired, kRightRepaired };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Stereo Fixer", .fourcc = qvdFourCC("QVSF"),
                                                     .maxInputs = 2, .maxOutputs = 2, .className = "QVDStereoFixer"};
    static std::vector<QVDParam> parameterRows();
    static constexpr double kMaxShiftSeconds = 0.020;

    QVDStereoFixer(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;

private:
    // Where each output reads from: the left and right inputs at their
    // delays, mixed by a 2 x 2 matrix (row = output).
    struct Routing {
        std::int32_t delayL = 0, delayR = 0;
        float gain[2][2]{{1.0f, 0.0f}, {0.0f, 1.0f}};
    };
    // Decides from the finished window and publishes the readouts.
    void decide() noexcept;
    void route(const Routing& next) noexcept;
    float output(const Routing& r, int channel) const noexcept;

    std::atomic<float> m_windowSeconds{0.25f};
    std::atomic<bool> m_fixDelay{true}, m_fixPolarity{true}, m_repair{true};

    std::int32_t m_status = 0, m_lagReadout = 0, m_polarityReadout = 0, m_peakReadout = 0;

    // Audio thread only, sized at prepare. Histories are written twice,
    // `m_span` apart, so the last m_span samples are always contiguous.
    std::int32_t m_maxLag = 0, m_span = 0, m_pos = 0;
    std::vector<float> m_history[2];
    std::vector<float> m_correlation; // lag -m_maxLag .. m_maxLag
    double m_energy[2]{};
    std::int32_t m_count = 0, m_stride = 1;
    Routing m_current, m_previous;
    std::int32_t m_fade = 0, m_fadeLength = 1;
};
