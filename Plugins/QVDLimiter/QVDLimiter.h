#pragma once
// Look-ahead brick-wall limiter. The detector finds the gain each sample
// needs, holds its minimum across the look-ahead window, releases from it and
// averages it over the look-ahead, so every reduction ramps in across the
// whole window and the delayed audio meets a gain that is already low enough.
//
// Latency is fixed at prepare: look-ahead plus the true-peak interpolator's
// delay, the same in both modes so switching the mode never moves the audio.
// A look-ahead change is stored at once and takes effect at the next prepare.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <QVDEffect.h>

namespace twa::numeric {
class TruePeakImpl;
}

class QVDLimiter : public QVDEffect<QVDLimiter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { INPUT = 0, CEILING, RELEASE, AUTO_RELEASE, LOOKAHEAD, MODE, LINK };
    enum Mode : int { kSamplePeak = 0, kTruePeak = 1 };
    static constexpr QVDPluginDescriptor kDescriptor{
        .name = "Limiter", .fourcc = qvdFourCC("QVLr"), .maxInputs = 36, .maxOutputs = 36, .className = "QVDLimiter"};
    static std::vector<QVDParam> parameterRows();

    QVDLimiter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    ~QVDLimiter() override;

    // [any-thread] Smallest gain applied in the last block, linear (1 = none).
    float gainReduction() const { return meterLevel(m_grMeter, 0); }

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    bool prepareProcessing() override;
    bool channelCountsChanged() override;

private:
    // One detector: sliding minimum of the needed gain, release, box average.
    struct Lane {
        std::vector<std::int64_t> holdIndex; // monotonic queue of the window's minimum
        std::vector<float> holdValue;
        std::vector<float> box; // released gains of the last `look` samples
        struct Running {
            std::size_t head = 0, tail = 0; // of the queue
            std::size_t boxPos = 0;
            double boxSum = 0.0;
            float release = 1.0f; // released gain
            float density = 0.0f; // share of recent time spent limiting, for auto release
        } run;
    };

    bool buildTruePeak();
    void clearLane(Lane& lane) noexcept;
    template <bool Auto>
    void runLane(Lane& lane, const float* need, float* gain, std::int32_t frames, float fast, float slow,
                 float densityCoef) noexcept;

    std::atomic<float> m_inputGain{1.0f};
    std::atomic<float> m_ceiling{1.0f};
    std::atomic<float> m_releaseMs{100.0f};
    std::atomic<bool> m_autoRelease{false};
    std::atomic<int> m_mode{kSamplePeak};
    std::atomic<bool> m_linked{true};
    std::atomic<float> m_lookaheadMs{5.0f};
    std::int32_t m_grMeter = 0;

    // Sized at prepare.
    std::int32_t m_look = 1;  // attack ramp, samples
    std::int32_t m_delay = 1; // audio delay = latency
    std::int32_t m_holdTp = 1; // window of the true-peak detector; sample peak holds m_delay
    std::int32_t m_tpOffset = 0; // frames the true-peak detector lags its input
    std::size_t m_ringMask = 0;
    std::int64_t m_clock = 0;
    int m_lastMode = kSamplePeak;
    std::vector<std::vector<float>> m_ring; // per channel delay line
    std::size_t m_ringPos = 0;
    std::vector<Lane> m_lanes;
    std::vector<std::vector<float>> m_need; // per lane needed gain, then applied gain
    std::vector<float> m_gain;
    std::vector<float> m_interleaved; // one pair
    std::vector<float> m_oversampled;
    // One interpolator per channel pair: the paired kernels are the fast ones.
    std::vector<std::unique_ptr<twa::numeric::TruePeakImpl>> m_truePeaks;
    std::int32_t m_tpChannels = 0;
};
