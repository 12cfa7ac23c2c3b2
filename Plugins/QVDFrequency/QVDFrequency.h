#pragma once
// Frequency analyser: the power spectrum of one channel or of the mean of
// all, in dB where a sine's peak reads its level, averaged over time or held
// at its peaks, with fractional-octave band levels and the strongest peak.
// The audio passes unchanged.
//
// Bounded work per block: the audio thread runs at most one transform of the
// chosen size per block. When blocks are longer than the hop the frames in
// between are skipped, and the averaging counts the time that really passed,
// so its time constant holds either way.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Algorithms/OctaveBands.h>
#include <FFT/qv_fft.h>
#include <QVDEffect.h>

class QVDFrequency : public QVDEffect<QVDFrequency> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { SIZE = 0, WINDOW, OVERLAP, AVERAGING, TIME, RESET, CHANNEL, BANDS };
    enum Readout : std::int32_t {
        kSpectrum = 0,
        kGridFrequencies,
        kBands,
        kBandCentres,
        kBandCount,
        kPeakFrequency,
        kPeakLevel,
        kBins,
        kBinWidth,
    };
    enum Averaging : std::int32_t { kAverageOff = 0, kAverageExponential, kAveragePeakHold };
    static constexpr std::int32_t kMaxChannels = 8;
    static constexpr std::int32_t kSizeCount = 7;        // 512 .. 32768
    static constexpr std::int32_t kMinSize = 512;
    static constexpr std::int32_t kMaxSize = 32768;
    static constexpr std::int32_t kMaxBins = kMaxSize / 2 + 1;
    static constexpr std::int32_t kWindowCount = 10;
    // The display spectrum: this many points spaced evenly in log frequency
    // from 20 Hz to 20 kHz, whatever the transform size; points above the
    // Nyquist frequency read the floor.
    static constexpr std::int32_t kGridPoints = 512;
    static constexpr double kGridLow = 20.0, kGridHigh = 20000.0;
    static constexpr float kFloorDb = -200.0f;

    static constexpr QVDPluginDescriptor kDescriptor{.name = "Frequency Analyzer", .fourcc = qvdFourCC("QVFr"),
                                                     .maxInputs = kMaxChannels, .maxOutputs = kMaxChannels,
                                                     .className = "QVDFrequency"};
    static constexpr QVDEffectOptions kEffect{.copyInput = true, .meters = QVDMeters::Standard};
    static std::vector<QVDParam> parameterRows();

    QVDFrequency(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    ~QVDFrequency() override;

    static std::int32_t sizeOf(std::int32_t choice) { return kMinSize << choice; }

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { clearHistory(); }

private:
    struct Config {
        std::int32_t size = 0, window = -1, channel = -1, averaging = -1, bands = -1;
        bool operator==(const Config&) const = default;
    };
    Config wanted() const noexcept;
    void clearHistory() noexcept;
    void applyConfig(const Config& c) noexcept;
    void collect(const QVDBlock& block) noexcept;
    bool analyse() noexcept; // false when the frame held non-finite samples
    void average(double elapsedFrames) noexcept;
    void publishAll() noexcept;
    void publishLayout() noexcept;
    const float* windowOf(std::int32_t sizeChoice, std::int32_t type) const noexcept;

    std::atomic<std::int32_t> m_size{3};
    std::atomic<std::int32_t> m_window{twa::fft::kWindowHann};
    std::atomic<std::int32_t> m_overlap{1};
    std::atomic<std::int32_t> m_averaging{kAverageExponential};
    std::atomic<float> m_timeMs{1000.0f};
    std::atomic<std::int32_t> m_channel{0};
    std::atomic<std::int32_t> m_bandsChoice{1};
    std::atomic<std::uint32_t> m_resetRequests{0};

    struct WindowTable {
        std::vector<float> samples; // by size, then type
        std::array<std::array<double, kWindowCount>, kSizeCount> sum{}, squares{};
    };
    static const WindowTable& windowTable();

    // Set at prepare: a transform per size, so a change never allocates.
    std::vector<std::unique_ptr<twa::fft::qv_fft>> m_ffts;
    const WindowTable* m_table = nullptr;

    // Audio thread only.
    Config m_config;
    std::uint32_t m_resetsSeen = 0;
    std::vector<float> m_ring; // the analysed signal, kMaxSize frames
    std::int32_t m_ringPos = 0;
    std::int64_t m_filled = 0; // frames in the ring since it was cleared
    std::int64_t m_sinceFrame = 0;
    std::vector<float> m_frame;
    twa::fft::spectrum_vector m_spectrum;
    std::vector<float> m_power;   // this frame, per bin
    std::vector<float> m_average; // what is shown, per bin
    bool m_haveAverage = false;
    std::vector<float> m_binOut;
    std::array<float, kGridPoints> m_gridFrequencies{};
    std::array<float, kGridPoints> m_gridOut{};
    std::array<OctaveBands::Band, OctaveBands::kMaxBands> m_bandLayout{};
    std::int32_t m_bandCount = 0;
    std::array<float, OctaveBands::kMaxBands> m_bandOut{};
    bool m_layoutDue = true;
};
