#pragma once
// Surround analyser: levels per channel and per loudspeaker role, the
// correlation of the front and the surround pairs, where the energy comes
// from on the horizontal plane and how spread it is, the loudness of the
// programme against that of its stereo downmix, and the LFE against the
// mains. The audio passes unchanged.
//
// Angles follow the layout's loudspeakers (C 0, L/R +-30, Ls/Rs +-110, or
// +-90 as the sides of 7.1 with the backs at +-150), counter-clockwise
// positive: left is positive, right negative. Spread is sqrt(1 - r^2) of the
// energy vector's length r: 0 for one loudspeaker, 0.5 for a phantom
// source between L and R, 1 when the energy cancels out. Layouts without
// roles (discrete channels) read direction 0 and spread 1.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/KWeighting.h>
#include <Algorithms/LoudnessGating.h>
#include <QVDEffect.h>

class QVDJellyFish : public QVDEffect<QVDJellyFish> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { INTEGRATION = 0, RESET };
    enum Readout : std::int32_t {
        kChannelLevels = 0,
        kChannelRoles,
        kRoleLevels,
        kFrontCorrelation,
        kSurroundCorrelation,
        kDirection,
        kSpread,
        kSurroundLoudness,
        kDownmixLoudness,
        kDownmixDifference,
        kLfeLevel,
    };
    static constexpr std::int32_t kMaxChannels = 32;
    static constexpr std::int32_t kRoles = qvd::kRoleTopBackRight + 1;
    static constexpr float kFloorDb = -200.0f;
    static constexpr std::int32_t kPiece = 64; // frames the level integrators take at once
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Surround Analyzer", .version = 0.1,
                                                     .fourcc = qvdFourCC("QVJf"), .maxInputs = kMaxChannels,
                                                     .maxOutputs = kMaxChannels, .className = "QVDJellyFish"};
    static constexpr QVDEffectOptions kEffect{.copyInput = true, .meters = QVDMeters::Standard};
    static std::vector<QVDParam> parameterRows();

    QVDJellyFish(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    // The horizontal angle (degrees, left positive) of `role` in `format`;
    // false for roles without one (LFE, none).
    static bool roleAngle(std::int32_t format, qvd::ChannelRole role, double& degrees, double& weight) noexcept;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { clearRunning(); }

private:
    struct Layout {
        std::int32_t format = -1;
        std::array<qvd::ChannelRole, kMaxChannels> roles{};
        std::array<double, kMaxChannels> x{}, y{}, vectorWeight{}; // unit vectors; 0 weight: no angle
        std::array<double, kMaxChannels> loudnessWeight{};
        std::array<double, kMaxChannels> downLeft{}, downRight{};
        bool hasDownmix = false;
        std::int32_t left = -1, right = -1, leftSurround = -1, rightSurround = -1, lfe = -1;
    };
    void updateLayout(std::int32_t format) noexcept;
    void clearRunning() noexcept;
    void clearLoudness() noexcept;
    void integrate(const QVDBlock& block, std::int32_t count) noexcept;
    void measureLoudness(const QVDBlock& block, std::int32_t count) noexcept;
    void finishStep() noexcept;
    void publish(std::int32_t count) noexcept;

    std::atomic<float> m_integrationMs{300.0f};
    std::atomic<std::uint32_t> m_resetRequests{0};

    // Set at prepare.
    KWeightingCoefficients m_filter;
    std::int32_t m_step = 4800;
    std::vector<float> m_downmix; // two channels of a block

    // Audio thread only.
    Layout m_layout;
    std::uint32_t m_resetsSeen = 0;
    float m_poleMs = 0.0f;
    double m_pole = 0.0;
    double m_piecePole = 0.0; // p^kPiece
    std::array<double, kPiece> m_powers{};
    std::array<double, kMaxChannels> m_energy{};
    double m_frontProduct = 0.0, m_surroundProduct = 0.0;
    std::array<KWeightingState, kMaxChannels> m_states{};
    KWeightingState m_downStates[2]{};
    std::int32_t m_stepFill = 0;
    double m_stepSurround = 0.0, m_stepDownmix = 0.0;
    std::array<double, 4> m_surroundSteps{}, m_downmixSteps{};
    std::int32_t m_stepPos = 0;
    std::int64_t m_windowSteps = 0;
    LoudnessHistogram m_surroundBlocks, m_downmixBlocks;
    double m_surroundLoudness = 0.0, m_downmixLoudness = 0.0;
    std::array<float, kMaxChannels> m_levelOut{}, m_roleOut{};
    std::array<float, kRoles> m_roleLevelOut{};
};
