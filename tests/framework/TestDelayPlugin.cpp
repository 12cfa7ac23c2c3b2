#include "TestDelayPlugin.h"

QVD_REGISTER_AUDIO_PLUGIN(QVDTestDelay)

const QVDPluginDescriptor& QVDTestDelay::descriptor()
{
    static const QVDPluginDescriptor d{"Test Delay", 1.0, 1, qvdFourCC("TDly"), 4, 4, "QVDTestDelay", 0, 0, -1};
    return d;
}

const std::vector<QVDParameterDefinition>& QVDTestDelay::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = [] {
        QVDParameterDefinition mode;
        mode.index = 0;
        mode.identifier = QStringLiteral("QVDTestDelay::MODE");
        mode.label = QStringLiteral("Mode");
        mode.kind = qvd::kList;
        mode.minimum = 0.0f;
        mode.maximum = 2.0f;
        mode.step = 0.0f;
        mode.options = QStringList{QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("C")};
        return std::vector<QVDParameterDefinition>{mode};
    }();
    return table;
}

QVDTestDelay::QVDTestDelay(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDAudioPlugin<QVDTestDelay>(descriptor, hostContext, services, parameterTable())
{
    addMeterGroup(QStringLiteral("Levels"), 4);
    setMeterGroupSize(0, 4);
}

bool QVDTestDelay::prepareProcessing()
{
    m_lines.assign(4, std::vector<float>(kLatency, 0.0f));
    m_pos = 0;
    blockFrames.reserve(4096);
    return setLatency(kLatency);
}

void QVDTestDelay::resetState() noexcept
{
    for (auto& line : m_lines)
        std::fill(line.begin(), line.end(), 0.0f);
    m_pos = 0;
    ++resets;
}

void QVDTestDelay::processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                                std::int32_t frames) noexcept
{
    if (block && block->mode == qvd::kModePreRoll) {
        preRollFrames += frames;
        ++preRollCalls;
    }
    frames = prepareBlock(inputs, sequenceOf(block), frames);
    if (!block || block->mode != qvd::kModePreRoll)
        blockFrames.push_back(frames);
    const std::int32_t channels = std::min(activeInputs(), activeOutputs());
    std::size_t pos = m_pos;
    for (std::int32_t c = 0; c < channels; ++c) {
        auto& line = m_lines[static_cast<std::size_t>(c)];
        pos = m_pos;
        for (std::int32_t n = 0; n < frames; ++n) {
            const float x = inputs[c][n];
            outputs[c][n] = line[pos];
            line[pos] = x;
            pos = (pos + 1) % kLatency;
        }
    }
    m_pos = pos;
    completeBlock(inputs, outputs, frames, 0);
}
