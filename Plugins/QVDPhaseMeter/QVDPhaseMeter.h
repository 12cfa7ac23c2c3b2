#pragma once
// Phase meter: the correlation of left and right over a chosen integration
// time, their balance, and goniometer points. The audio passes unchanged.
// A mono input reads as two identical channels.

#include <array>
#include <atomic>
#include <cstdint>

#include <QVDEffect.h>

class QVDPhaseMeter : public QVDEffect<QVDPhaseMeter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { INTEGRATION = 0 };
    enum Readout : std::int32_t { kCorrelation = 0, kBalance, kGoniometer };
    // Points over the last ~50 ms, as x (side) and y (mid) pairs, oldest first.
    static constexpr std::int32_t kPoints = 256;
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Phase Meter", .fourcc = qvdFourCC("QVPM"),
                                                     .maxInputs = 2, .maxOutputs = 2, .className = "QVDPhaseMeter"};
    static constexpr QVDEffectOptions kEffect{.copyInput = false, .meters = QVDMeters::FromRender};
    static std::vector<QVDParam> parameterRows();

    QVDPhaseMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }

private:
    void integrate(const float* left, const float* right, std::int32_t frames) noexcept;
    void collectPoints(const float* left, const float* right, std::int32_t frames) noexcept;

    std::atomic<float> m_integrationMs{300.0f};

    // Set at prepare.
    std::int32_t m_decimation = 1;
    std::int32_t m_publishEvery = 960; // frames between goniometer snapshots

    // Audio thread only.
    float m_poleMs = 0.0f; // the time m_pole was made for
    double m_pole = 0.0;
    double m_sumLR = 0.0, m_sumLL = 0.0, m_sumRR = 0.0;
    std::int32_t m_phase = 0;  // frames to the next point
    std::int32_t m_sinceSnapshot = 0;
    std::int32_t m_pointPos = 0;
    std::array<float, 2 * kPoints> m_points{};
    std::array<float, 2 * kPoints> m_snapshot{};
};
