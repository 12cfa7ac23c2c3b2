#pragma once
// A plugin that only exists in the test tree: a pure delay of `kLatency`
// frames that reports that latency, and records what the base hands it.

#include <QVDAudioPlugin.h>

#include <vector>

class QVDTestDelay : public QVDAudioPlugin<QVDTestDelay> {
    Q_OBJECT
public:
    static constexpr std::uint64_t kLatency = 100;
    static constexpr const char* kKey = "Test Delay:1413770361";

    QVDTestDelay(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    static const QVDPluginDescriptor& descriptor();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    // Publishes a meter level as processBlock would.
    void setLevel(std::int32_t index, float level) { setMeterLevel(0, index, level); }

    // What processBlock saw, for the tests.
    int resets = 0;
    std::int64_t preRollFrames = 0;
    int preRollCalls = 0;
    std::vector<std::int32_t> blockFrames;

protected:
    void processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                      std::int32_t frames) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;

private:
    std::vector<std::vector<float>> m_lines;
    std::size_t m_pos = 0;
};
