#pragma once
// Multiband compressor: up to five bands from a Linkwitz-Riley crossover
// (24 or 48 dB/oct) that sums to an all-pass, each band with its own RMS
// compressor (threshold, ratio, attack, release, soft knee), make-up, bypass
// and solo. Detection is linked across channels or per channel. No latency.
//
// The detector of each band is RMS over two periods of its lower edge (5 to
// 30 ms), so a low band's level does not ripple with its own waveform.
//
// Settings reach the compressors on the audio thread at the start of a block
// (a few trigonometric calls, no allocation). Crossover frequencies and each
// band's threshold, ratio and knee glide in steps of 32 frames; band gains,
// bypass and solo ramp across each block; a change of band count or slope
// fades the output out and back in around the switch, since the phase of the
// whole changes with it. Without host smoothing every setting holds at once.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Algorithms/Crossover.h>
#include <Algorithms/RmsCompressor.h>
#include <QVDEffect.h>

class QVDMultiBandCompressor : public QVDEffect<QVDMultiBandCompressor> {
    Q_OBJECT
public:
    static constexpr int kMaxBands = Crossover::kMaxBands;
    static constexpr int kMaxChannels = 10;
    enum Parameter : std::uint32_t {
        BANDS = 0,
        SLOPE,
        CROSSOVER_1,
        CROSSOVER_2,
        CROSSOVER_3,
        CROSSOVER_4,
        INPUT,
        OUTPUT,
        LINK,
        kFirstBandParameter,
    };
    // Per band, from kFirstBandParameter + band * kBandParameters.
    enum BandParameter : std::uint32_t { THRESHOLD = 0, RATIO, ATTACK, RELEASE, KNEE, MAKEUP, BYPASS, SOLO,
                                         kBandParameters };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Multiband Compressor", .fourcc = qvdFourCC("QVDk"),
                                                     .maxInputs = kMaxChannels, .maxOutputs = kMaxChannels,
                                                     .className = "QVDMultiBandCompressor"};
    static std::vector<QVDParam> parameterRows();
    static constexpr std::uint32_t bandParameter(int band, BandParameter p)
    {
        return kFirstBandParameter + static_cast<std::uint32_t>(band) * kBandParameters + p;
    }

    QVDMultiBandCompressor(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    ~QVDMultiBandCompressor() override;

    // "4.0:1", "2.50 kHz", "4 bands"; the rest as the base writes them.
    QString valueText(std::int32_t index, float value) const override;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { resetState(); }
    bool prepareProcessing() override;

private:
    struct Band {
        std::atomic<float> thresholdDb{-20.0f}, ratio{2.0f}, attackMs{10.0f}, releaseMs{150.0f}, kneeDb{6.0f};
        std::atomic<float> makeup{1.0f}; // linear
        std::atomic<bool> bypass{false}, solo{false};
        // Audio thread: the weights of the compressed and the untouched band
        // in the output, where the last block left them.
        float wet = 1.0f, dry = 0.0f;
        // The static curve in force; it glides to the settings, since a
        // threshold that jumps while compressing steps the gain.
        float thresholdNow = -20.0f, ratioNow = 2.0f, kneeNow = 6.0f;
    };
    // Ramp of one gain across a block: the one-pole's value after `frames`.
    struct Ramp {
        float from, to;
        bool steady() const { return from == to; }
    };

    void applyBandSettings(int band, double rate) noexcept;
    // The band's curve in force to the compressors of the detection in use.
    void applyCurve(int band, bool linked, std::int32_t channels) noexcept;
    // Moves the band's curve towards its settings by `pole`; false when it is there.
    bool glideCurve(Band& band, double pole) noexcept;
    void compress(int band, bool linked, std::int32_t channels, std::int32_t start, std::int32_t frames) noexcept;
    void updateCrossover(bool jump) noexcept;
    // Each crossover kept a third of an octave above the one below and
    // inside 20 Hz .. min(20 kHz, 0.45 rate).
    void targetFrequencies(int splits, double rate, double* hz) const noexcept;
    float rmsWindowMs(int band, const double* hz) const noexcept;
    void renderCrossover(const QVDBlock& block, const Ramp& input) noexcept;

    std::atomic<int> m_bands{4};
    std::atomic<int> m_slope{Crossover::k24dB};
    std::array<std::atomic<float>, kMaxBands - 1> m_crossoverHz{};
    std::atomic<float> m_input{1.0f}, m_output{1.0f};
    std::atomic<bool> m_linked{true};
    std::array<Band, kMaxBands> m_band;
    // Bands whose compressor settings changed; bit kMaxBands: the crossover.
    std::atomic<std::uint32_t> m_dirty{~0u};
    std::int32_t m_grReadout = 0;

    // Audio thread.
    Crossover m_crossover;
    std::array<double, kMaxBands - 1> m_glideHz{};  // frequencies in force
    std::array<double, kMaxBands - 1> m_targetHz{}; // where they glide to, set once a block
    bool m_fresh = true;
    bool m_linkedInForce = true;
    float m_inGain = 1.0f, m_outGain = 1.0f;
    float m_fade = 1.0f; // output fade around a change of band count or slope
    std::array<std::unique_ptr<RmsCompressor>, kMaxBands> m_linkedComp;
    std::array<std::array<std::unique_ptr<RmsCompressor>, kMaxChannels>, kMaxBands> m_channelComp;
    // Sized at prepare: per band and channel, and one dry copy per channel.
    std::vector<float> m_storage;
    std::array<std::array<float*, kMaxChannels>, kMaxBands> m_bandBuf{};
    std::array<float*, kMaxChannels> m_dryBuf{};
};
