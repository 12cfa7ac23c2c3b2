#pragma once
// LFE filter: a low-pass on the LFE channel and, with bass management, a
// high-pass at the same crossover on every other channel whose low band is
// sent to the LFE. The LFE channel comes from the channel layout, or from the
// LFE Channel parameter (the only way to name one in a discrete layout).
//
// Coefficients are designed on the audio thread when a setting changed: a
// few trigonometric calls, no allocation, and no torn coefficient sets.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <BiQuadTypes.h>
#include <QVDEffect.h>

class QVDLFEFilter : public QVDEffect<QVDLFEFilter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { CUTOFF = 0, SLOPE, TYPE, BASS_MANAGEMENT, LFE_GAIN, LFE_CHANNEL };
    enum Type : int { kButterworth = 0, kLinkwitzRiley = 1 };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "LFE Filter", .fourcc = qvdFourCC("QVLF"),
                                                     .maxInputs = 32, .maxOutputs = 32, .className = "QVDLFEFilter"};
    static constexpr QVDEffectOptions kEffect{.copyInput = true};
    static constexpr int kMaxSections = 4; // 48 dB/oct
    static std::vector<QVDParam> parameterRows();

    using QVDEffect::QVDEffect;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    bool prepareProcessing() override;

private:
    using Chain = std::array<BiQuadState, kMaxSections>;

    void design() noexcept;
    std::int32_t lfeChannel(std::int32_t channels) const noexcept;
    void runChain(Chain& chain, const std::array<BiQuadCoefficients, kMaxSections>& coefs, float* samples,
                  std::int32_t frames) noexcept;

    std::atomic<float> m_cutoff{120.0f};
    std::atomic<int> m_slope{1}; // 12 dB/oct steps from 12
    std::atomic<int> m_type{kLinkwitzRiley};
    std::atomic<bool> m_bassManagement{false};
    std::atomic<bool> m_lfeGain{false};
    std::atomic<int> m_lfeParam{0}; // 0: from the layout, n: channel n
    std::atomic<std::uint32_t> m_version{1};

    // Audio thread only.
    std::uint32_t m_designed = 0;
    int m_sections = 0;
    std::array<BiQuadCoefficients, kMaxSections> m_low{};
    std::array<BiQuadCoefficients, kMaxSections> m_high{};
    std::vector<Chain> m_chains; // per channel: low-pass on the LFE, high-pass on the others
    std::vector<float> m_lowBand;
};
