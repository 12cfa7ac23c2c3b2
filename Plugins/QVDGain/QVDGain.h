#pragma once
// Gain: one smoothed gain for every channel, with input and output peak meters.

#include <atomic>
#include <memory>
#include <vector>

#include <QVDEffect.h>
#include <SmoothingCoefficient.h>

#include "QVDGainKernel.h"

class QVDGain : public QVDEffect<QVDGain> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { GAIN = 0 };
    enum MeterGroup : std::int32_t { kInputMeter = 0, kOutputMeter = 1 };
    static constexpr QVDPluginDescriptor kDescriptor{
        .name = "Gain", .fourcc = qvdFourCC("QVGn"), .maxInputs = 36, .maxOutputs = 36, .className = "QVDGain"};
    // The kernel measures the input on the way; the output meter is derived from it.
    static constexpr QVDEffectOptions kEffect{.meters = QVDMeters::FromRender};
    static std::vector<QVDParam> parameterRows();

    QVDGain(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    // [any-thread] Linear target gain and smoothed state of a channel.
    float targetGain(std::int32_t channel) const;
    double smoothedGain(std::int32_t channel) const;
    // Name of the kernel variant in use ("m256", "m128", "ref").
    const char* kernelName() const { return m_kernel->name; }
    // For tests and benchmarks: run a given variant.
    void setKernel(const qvd::gain::Variant& variant) { m_kernel = &variant; }

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    void resetState() noexcept override;
    bool prepareProcessing() override;

private:
    struct ChannelGain {
        std::atomic<float> target{1.0f};
        // Touched by the parameter thread only while smoothing is off.
        std::atomic<double> state{1.0};
    };

    const SmoothingCoefficient& m_smoothing;
    std::int32_t m_maxChannels;
    std::unique_ptr<ChannelGain[]> m_channels;
    const qvd::gain::Variant* m_kernel;
    // Per-block working copies for the kernel, sized at construction.
    std::vector<double> m_bt;
    std::vector<double> m_state;
    std::vector<float> m_peak;
    std::vector<float> m_padIn;
    std::vector<float> m_padOut;
};
