#pragma once
// Level meter: per channel a reading with the ballistics of a chosen
// standard and its peak hold, RMS, sample and true peaks since the last
// reset, and a count of clips. The audio passes unchanged.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/ChannelTruePeaks.h>
#include <Algorithms/MeterBallistics.h>
#include <QVDEffect.h>

class QVDMeter : public QVDEffect<QVDMeter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { BALLISTICS = 0, HOLD, RMS_TIME, AES_RMS, RESET };
    enum Ballistics : std::int32_t {
        kDigitalPeak = 0,
        kEbuPpm,
        kBbcPpm,
        kDinPpm,
        kNordicPpm,
        kVu,
        kK12,
        kK14,
        kK20,
        kBallisticsCount
    };
    enum Readout : std::int32_t { kLevel = 0, kPeakHold, kRms, kSamplePeak, kTruePeak, kClips };
    static constexpr std::int32_t kMaxChannels = 36;
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Meter", .fourcc = qvdFourCC("QVMe"),
                                                     .maxInputs = kMaxChannels, .maxOutputs = kMaxChannels,
                                                     .className = "QVDMeter"};
    static constexpr QVDEffectOptions kEffect{.copyInput = false, .meters = QVDMeters::FromRender};
    static std::vector<QVDParam> parameterRows();

    QVDMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    bool channelCountsChanged() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    struct Channel {
        MeterBallistics::State level;
        double hold = 0.0;           // in the ballistics' own domain
        std::int64_t holdLeft = 0;   // frames until the hold lets go
        double power = 0.0;          // RMS smoothing
        float samplePeak = 0.0f, truePeak = 0.0f;
        float clips = 0.0f;
        bool clipping = false;
    };

    void clearReadings() noexcept;
    void measure(Channel& ch, const float* x, std::int32_t frames, const MeterBallistics& m, double rmsPole,
                 std::int64_t holdFrames) noexcept;
    void publish(std::int32_t channels, const MeterBallistics& m, double rmsGainDb) noexcept;

    std::atomic<std::int32_t> m_ballistics{kDigitalPeak};
    std::atomic<float> m_holdSeconds{2.0f};
    std::atomic<float> m_rmsMs{300.0f};
    std::atomic<bool> m_aesRms{false};
    std::atomic<std::uint32_t> m_resetRequests{0};

    // Set at prepare.
    std::array<MeterBallistics, kBallisticsCount> m_designs{};
    ChannelTruePeaks m_truePeaks;

    // Audio thread only.
    std::uint32_t m_resetsSeen = 0;
    std::int32_t m_lastBallistics = -1;
    float m_rmsPoleMs = 0.0f;
    double m_rmsPole = 0.0;
    std::array<Channel, kMaxChannels> m_channels{};
    std::array<float, kMaxChannels> m_out{};
};
