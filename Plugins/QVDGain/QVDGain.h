#pragma once
// Gain: one smoothed gain for every channel, with input and output peak meters.

#include <atomic>
#include <memory>
#include <vector>

#include <QVDAudioPlugin.h>
#include <SmoothingCoefficient.h>

#include "QVDGainKernel.h"

class QVDGain : public QVDAudioPlugin<QVDGain> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { GAIN = 0 };
    enum MeterGroup : std::int32_t { kInputMeter = 0, kOutputMeter = 1 };

    QVDGain(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    static const QVDPluginDescriptor& descriptor();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    bool applyParameter(std::uint32_t index, float value) override;
    QWidget* buildEditor(QWidget* parent) override;
    bool hasEditor() const override { return true; }

    // [any-thread] Linear target gain and smoothed state of a channel.
    float targetGain(std::int32_t channel) const;
    double smoothedGain(std::int32_t channel) const;
    // Name of the kernel variant in use ("m256", "m128", "ref").
    const char* kernelName() const { return m_kernel.name; }
    // For tests and benchmarks: run a given variant.
    void setKernel(qvd::gain::Variant variant) { m_kernel = variant; }

protected:
    void processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                      std::int32_t frames) noexcept override;
    bool prepareProcessing() override;
    void channelCountsChanged() override;
    void resetState() noexcept override;

private:
    struct ChannelGain {
        std::atomic<float> target{1.0f};
        // Touched by the parameter thread only while smoothing is off.
        std::atomic<double> state{1.0};
    };

    const SmoothingCoefficient& m_smoothing;
    std::int32_t m_maxChannels;
    std::unique_ptr<ChannelGain[]> m_channels;
    qvd::gain::Variant m_kernel;
    // Per-block working copies for the kernel, sized at construction.
    std::vector<double> m_bt;
    std::vector<double> m_state;
    std::vector<float> m_peak;
    std::vector<float> m_padIn;
    std::vector<float> m_padOut;
};
