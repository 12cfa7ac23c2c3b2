#pragma once
// The base of an effect plugin. A plugin names its descriptor and parameter
// rows and renders blocks; the base registers it, builds its parameter table,
// runs the block flow (preparation, one bypass read, latency-compensated
// bypass, meters, silent spare outputs) and the parameter path (index check,
// one exchange, serialised writers, then parameterChanged()).
//
//   class QVDWidget : public QVDEffect<QVDWidget> {
//   public:
//       static constexpr QVDPluginDescriptor kDescriptor{.name = "Widget", ...};
//       static std::vector<QVDParam> parameterRows();
//       using QVDEffect::QVDEffect;
//   protected:
//       void parameterChanged(std::uint32_t index, float value) override;
//       void render(const QVDBlock& block) noexcept override;
//   };
//   QVD_REGISTER_AUDIO_PLUGIN(QVDWidget)   // in the .cpp
//
// A plugin may hide `static constexpr QVDEffectOptions kEffect` with its own.

#include <vector>

#include "QVDAudioPlugin.h"

template <class Self>
class QVDEffect : public QVDAudioPlugin<Self> {
public:
    static constexpr QVDEffectOptions kEffect{};

    QVDEffect(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
        : QVDAudioPlugin<Self>(descriptor, hostContext, services, parameterTable())
    {
        this->setEffectOptions(Self::kEffect);
    }

    static const QVDPluginDescriptor& descriptor() { return Self::kDescriptor; }

    // Built once from the plugin's rows, shared by all instances.
    static const std::vector<QVDParameterDefinition>& parameterTable()
    {
        static const std::vector<QVDParameterDefinition> table =
            qvdParameterTable(Self::kDescriptor.className, Self::parameterRows());
        return table;
    }

protected:
    void processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                      std::int32_t frames) noexcept final
    {
        this->runEffectBlock(block, inputs, outputs, frames);
    }
    bool applyParameter(std::uint32_t index, float value) final
    {
        return QVDAudioPluginImpl::applyParameter(index, value);
    }
};
