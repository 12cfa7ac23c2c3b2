#pragma once
// Room reverb: a shoebox room with a source in it, rendered by the
// sixteen-line engine. The engine runs at the host rate, or at a half or a
// quarter of it for 88.2/96 and 176.4/192 kHz.
//
// Threads: parameter sets run the controller on the setting thread and hand
// the finished engine record to the audio thread through a three-slot
// exchange: no lock and no allocation on the audio thread, never a torn record.

#include <QVDEffect.h>

#include <qv_reverb_u15.h>
#include <qv_reverb_u15_control.h>
#include <qv_reverb_u15_oversampled.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

class QVDReverb : public QVDEffect<QVDReverb> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t {
        ROOM_HEIGHT = 0,
        ROOM_LENGTH,
        ROOM_WIDTH,
        ROOM_SIZE,
        ROOM_RATIO,
        PRE_DELAY,
        REVERB_TIME,
        DISTANCE,
        BRIGHTNESS,
        MODULATION,
        EARLY_LOW_FREQ,
        EARLY_HIGH_FREQ,
        EARLY_LOW_GAIN,
        EARLY_HIGH_GAIN,
        LATE_LOW_FREQ,
        LATE_HIGH_FREQ,
        LATE_LOW_GAIN,
        LATE_HIGH_GAIN,
        DRY_WET,
        DIRECT_GAIN,
        EARLY_GAIN,
        LATE_GAIN,
        kParameterCount
    };
    using Settings = qv_reverb_u15_control::Settings;
    enum MeterGroup : std::int32_t { kInputMeter = 0, kOutputMeter = 1 };

    static constexpr QVDPluginDescriptor kDescriptor{.name = "Reverb", .version = 0.1, .fourcc = qvdFourCC("QVRb"),
                                                     .maxInputs = 8, .maxOutputs = 8, .className = "QVDReverb"};
    static std::vector<QVDParam> parameterRows();

    QVDReverb(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    ~QVDReverb() override;
    // The record every instance starts from.
    static const Settings& defaultSettings();

    // [any-thread] Setting value of parameter `index` at normalised v.
    static float settingOf(std::uint32_t index, float v);
    // [any-thread] Normalised value of a setting, limited to [0, 1].
    static float normalisedOf(std::uint32_t index, float setting);
    // [any-thread] Level curve of the three gain parameters.
    static float levelCurve(float v);
    // [any-thread] Fixed short name; empty outside 0..21.
    static const wchar_t* shortName(std::int32_t index);

    // The settings record, not the parameter values, is where an instance starts.
    void pluginCreated() override {}
    // [control-thread] Value and unit as shown to the user: "4.00 m", "-12 ms".
    QString displayText(std::int32_t index) const;
    QString valueText(std::int32_t index, float) const override { return displayText(index); }
    // [control-thread] The settings record as the controller holds it.
    Settings settings() const;
    // [control-thread] Engine variant in use: 1, 2 or 4 (0 before prepare).
    std::uint32_t oversampling() const { return m_factor; }
    // [control-thread] Rate the controller and engine run at.
    float engineRate() const;
    // [control-thread] The engine record the controller last produced.
    qv_reverb_u15_param engineParam() const;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    bool channelCountsChanged() override;
    void resetState() noexcept override;

private:
    // Three slots: the setting thread fills its own and swaps it into the
    // middle; the audio thread swaps the middle out when it is fresh.
    class RecordExchange {
    public:
        // [setting-thread]
        void publish(const qv_reverb_u15_param& p) noexcept;
        // [audio-thread] The newest record, or null when nothing new came.
        const qv_reverb_u15_param* take() noexcept;
        // [not while processing]
        void clear() noexcept;

    private:
        static constexpr std::uint32_t kFresh = 4;
        std::array<qv_reverb_u15_param, 3> m_slots{};
        std::atomic<std::uint32_t> m_middle{1};
        std::uint32_t m_back = 0;
        std::uint32_t m_front = 2;
    };

    bool buildEngine();
    void storeSetting(std::uint32_t settingIndex, float value);
    void trace(const QString& line) const;

    mutable std::mutex m_controlMutex; // setting thread against prepare; never the audio thread
    Settings m_settings;
    std::unique_ptr<qv_reverb_u15_param> m_param;
    std::unique_ptr<qv_reverb_u15_control> m_control;
    RecordExchange m_exchange;

    std::uint32_t m_factor = 0;
    std::unique_ptr<qv_reverb_u15> m_plain;
    std::unique_ptr<qv_reverb_u15_oversampled> m_oversampled;

    // Oversampled engines take whole multiples of the factor: input waits in
    // m_pending until a multiple is there, output leaves m_ready a fixed
    // `factor` frames later.
    std::vector<std::vector<float>> m_pending;
    std::vector<std::vector<float>> m_ready;
    std::size_t m_pendingFrames = 0;
    std::size_t m_readyFrames = 0;
    std::vector<float*> m_pendingRows;
    std::vector<float*> m_readyRows;
    // Stand-ins when the host runs the plugin with no inputs or no outputs:
    // the engine always has at least one of each.
    std::vector<float> m_silentRow;
    std::vector<float> m_discardRow;
};
