#pragma once
// Ducker: lowers the main signal while the host's side-chain key is active.
//
// The key (mono or stereo, through an optional voice-band filter) is active
// while its peak, the loudest channel's or the sum's, was above the threshold
// within the last Hold milliseconds. The gain moves in straight lines in dB:
// Attack is the time from 0 dB to the full depth, Release the time back.
// Look-ahead delays the main signal so the gain is down when the key's onset
// arrives; it is fixed at prepare (latency is reported then) and a change
// takes effect at the next prepare. Without a key from the host the gain
// rests at exactly 0 dB: the main signal passes bit for bit, delayed by the
// look-ahead only.

#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/BiQuad.h>
#include <QVDEffect.h>

class QVDDucker : public QVDEffect<QVDDucker> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t {
        THRESHOLD = 0,
        DEPTH,
        ATTACK,
        HOLD,
        RELEASE,
        LOOKAHEAD,
        KEY_FILTER,
        KEY_LOW,
        KEY_HIGH,
        KEY_DETECT,
        kParameterCount
    };
    enum KeyDetect : int { kKeyMax = 0, kKeySum = 1 };
    enum Readout : std::int32_t { kGainReadout = 0, kKeyReadout = 1 };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "Ducker", .version = 1.0, .fourcc = qvdFourCC("QVDU"),
                                                     .maxInputs = 2, .maxOutputs = 2, .className = "QVDDucker",
                                                     .flags = 26};
    static std::vector<QVDParam> parameterRows();
    // Key channels asked of the host; a mono side-chain is repeated by it.
    static constexpr std::int32_t kKeyChannels = 2;

    QVDDucker(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;

private:
    void updateSteps() noexcept;
    void setUpKeyFilters();

    std::atomic<float> m_threshold{0.0316f}; // linear
    std::atomic<float> m_depthDb{-12.0f};
    std::atomic<float> m_attackMs{10.0f};
    std::atomic<float> m_holdMs{100.0f};
    std::atomic<float> m_releaseMs{300.0f};
    std::atomic<float> m_lookaheadMs{0.0f};
    std::atomic<bool> m_keyFilter{false};
    std::atomic<float> m_keyLowHz{150.0f};
    std::atomic<float> m_keyHighHz{4000.0f};
    std::atomic<int> m_keyDetect{kKeyMax};
    // Derived at the rate in force, dB per sample and samples.
    std::atomic<float> m_attackStep{0.0f};
    std::atomic<float> m_releaseStep{0.0f};
    std::atomic<std::int32_t> m_holdSamples{0};

    BiQuad m_lowCut;  // key high-pass
    BiQuad m_highCut; // key low-pass

    // Audio thread only; sized at prepare.
    std::vector<std::vector<float>> m_key;
    std::vector<std::vector<float>> m_ring; // look-ahead delay per main channel
    std::size_t m_ringLength = 0;
    std::size_t m_ringPos = 0;
    std::int32_t m_holdLeft = 0;
    float m_gainDb = 0.0f;
    float m_gain = 1.0f;
};
