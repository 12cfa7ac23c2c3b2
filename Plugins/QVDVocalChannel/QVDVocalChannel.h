#pragma once
// Voice strip in the order a mixer patches it: high-pass (12 dB/oct
// Butterworth, -3 dB at its frequency), gate (Expander), compressor
// (RmsCompressor), de-esser (the shared DeEsser block), tone EQ (low shelf,
// presence bell, high shelf) and output level.
//
// Every stage has its own switch; a switch crossfades the stage in or out
// over the shared 200 ms smoothing, and a stage that is fully out costs
// nothing. The de-esser's split filter delays the audio by 1.2 ms whether it
// is in or out (its range glides to 0 dB instead), so with every stage out
// and the output at 0 dB the input passes bit for bit, 1.2 ms late.
//
// Settings reach the blocks on the audio thread, between 32-frame chunks,
// when a parameter changed: no block is written by two threads. Thresholds,
// make-up, filter frequencies and gains glide; filters are redesigned a chunk
// at a time while they glide.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/BiQuadTypes.h>
#include <Algorithms/DeEsser.h>
#include <Algorithms/Expander.h>
#include <Algorithms/RmsCompressor.h>
#include <QVDEffect.h>

class QVDVocalChannel : public QVDEffect<QVDVocalChannel> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t {
        HPF_FREQ = 0,
        HPF_ON,
        GATE_ON,
        GATE_THRESH,
        GATE_RANGE,
        GATE_RATIO,
        GATE_ATTACK,
        GATE_HOLD,
        GATE_RELEASE,
        COMP_ON,
        COMP_THRESH,
        COMP_RATIO,
        COMP_KNEE,
        COMP_ATTACK,
        COMP_RELEASE,
        COMP_MAKEUP,
        DEESS_ON,
        DEESS_THRESH,
        DEESS_RANGE,
        DEESS_FREQ,
        DEESS_MODE,
        DEESS_SPLIT,
        EQ_ON,
        LOW_FREQ,
        LOW_GAIN,
        PRESENCE_FREQ,
        PRESENCE_GAIN,
        PRESENCE_Q,
        HIGH_FREQ,
        HIGH_GAIN,
        OUTPUT,
        kParameterCount
    };
    enum Stage : int { kHighPass = 0, kGate, kCompressor, kDeEsser, kEq, kStages };
    enum Readout : std::int32_t { kGateGain = 0, kCompressorReduction, kDeEsserReduction, kOutputLevel };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Vocal Channel", .fourcc = qvdFourCC("QVDy"),
                                                     .maxInputs = 2, .maxOutputs = 2,
                                                     .className = "QVDVocalChannel"};
    static constexpr QVDEffectOptions kEffect{.copyInput = true};
    static std::vector<QVDParam> parameterRows();

    QVDVocalChannel(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    // Frequencies from 1 kHz read in kHz, ratios as "4.0:1".
    QString valueText(std::int32_t index, float value) const override;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;

private:
    static constexpr std::int32_t kChunk = 32;
    static constexpr std::int32_t kChannels = 2;
    static constexpr int kBands = 3; // low shelf, presence, high shelf
    using Chunk = std::array<float, kChunk>;

    // Glided settings (log frequencies, dB gains).
    struct Glides {
        double hpf, gateThreshold, compThreshold, makeup;
        std::array<double, kBands> logFreq, gainDb;
        double presenceQ, output; // output linear
    };

    float value(std::uint32_t index) const { return m_parameters[index].value(); }
    void applySettings() noexcept;
    Glides targets() const noexcept;
    void designFilters() noexcept;
    void runChunk(float* const* x, std::int32_t channels, std::int32_t n, double pole, double chunkPole) noexcept;

    std::atomic<std::uint32_t> m_version{1};

    Expander m_gate;
    RmsCompressor m_compressor;
    DeEsser m_deesser;

    // Audio thread only.
    std::uint32_t m_applied = 0;
    bool m_jump = true;
    Glides m_now{}, m_target{};
    std::array<bool, kStages> m_on{};
    std::array<double, kStages> m_mix{};     // 0 out .. 1 in
    std::array<bool, kBands> m_bandLive{};    // a band at 0 dB is skipped
    BiQuadCoefficients m_hpfCoefs;
    std::array<BiQuadCoefficients, kBands> m_bandCoefs;
    std::array<BiQuadState, kChannels> m_hpfState{};
    std::array<std::array<BiQuadState, kBands>, kChannels> m_bandState{};
    std::array<Chunk, kChannels> m_dry{};
    Chunk m_mixNow{};
    Chunk m_outputNow{};
    float m_gateGain = 0.0f, m_compReduction = 0.0f, m_deessReduction = 0.0f;
};
