#pragma once
// Loudness meter: momentary, short-term and gated integrated loudness,
// loudness range, true and sample peaks per channel, the deviation from a
// delivery target and a short-term history. The audio passes unchanged.
//
// Everything advances in 100 ms steps counted in frames, so the readings do
// not depend on how the host splits its blocks. A seek clears the filters
// and the sliding windows; the integrated figures, the peaks and the history
// run on until the reset switch or a new prepare.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/ChannelTruePeaks.h>
#include <Algorithms/KWeighting.h>
#include <Algorithms/LoudnessGating.h>
#include <QVDEffect.h>

class QVDLoudnessMeter : public QVDEffect<QVDLoudnessMeter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { TARGET = 0, TRUE_PEAK, RESET };
    enum Readout : std::int32_t {
        kMomentary = 0,
        kShortTerm,
        kIntegrated,
        kRange,
        kDeviation,
        kMaxMomentary,
        kMaxShortTerm,
        kMaxTruePeak,
        kTruePeak,
        kSamplePeak,
        kHistory,
    };
    static constexpr std::int32_t kMaxChannels = 32;
    static constexpr std::int32_t kHistorySeconds = 300;
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Loudness Meter", .fourcc = qvdFourCC("QVLM"),
                                                     .maxInputs = kMaxChannels, .maxOutputs = kMaxChannels,
                                                     .className = "QVDLoudnessMeter"};
    static constexpr QVDEffectOptions kEffect{.copyInput = false, .meters = QVDMeters::FromRender};
    static std::vector<QVDParam> parameterRows();

    QVDLoudnessMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    bool channelCountsChanged() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { clearWindows(); }

private:
    void updateWeights(std::int32_t format) noexcept;
    void clearWindows() noexcept;
    void clearAll() noexcept;
    void measure(const float* const* channels, std::int32_t count, std::int32_t frames) noexcept;
    void finishStep() noexcept;
    void publish() noexcept;

    std::atomic<float> m_target{-23.0f};
    std::atomic<bool> m_truePeakOn{true};
    std::atomic<std::uint32_t> m_resetRequests{0};

    // Set outside processing.
    KWeightingCoefficients m_filter;
    std::int32_t m_step = 4800; // frames per 100 ms
    ChannelTruePeaks m_truePeaks;

    // Audio thread only.
    std::int32_t m_weightsFormat = -1;
    std::array<double, kMaxChannels> m_weights{};
    std::uint32_t m_resetsSeen = 0;
    bool m_truePeakWasOn = true;
    std::array<KWeightingState, kMaxChannels> m_states{};
    std::int32_t m_stepFill = 0;
    double m_stepEnergy = 0.0;
    // Mean squares of the last 30 steps, a ring; steps since the windows cleared.
    std::array<double, 30> m_steps{};
    std::int32_t m_stepPos = 0;
    std::int64_t m_windowSteps = 0;
    std::int64_t m_totalSteps = 0;
    LoudnessHistogram m_blocks;     // 400 ms blocks, for the integrated loudness
    LoudnessHistogram m_shortTerms; // 3 s windows, for the range
    std::array<float, kMaxChannels> m_samplePeaks{};
    std::array<float, kMaxChannels> m_truePeakLevels{};
    std::array<float, kHistorySeconds> m_history{};
    std::int32_t m_historyPos = 0;
    std::array<float, kHistorySeconds> m_historyOut{};
    std::array<float, kMaxChannels> m_peakOut{};
    double m_momentary = 0.0, m_shortTerm = 0.0, m_maxMomentary = 0.0, m_maxShortTerm = 0.0;
    double m_integrated = 0.0, m_range = 0.0;
    bool m_historyChanged = true;
};
