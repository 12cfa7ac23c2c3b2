#pragma once
// Per-plugin class template: the factory the registry calls and the static
// registration of the class's descriptor. A plugin's source file registers it
// with QVD_REGISTER_AUDIO_PLUGIN(Class).
//
// A plugin class provides:
//   static const QVDPluginDescriptor& descriptor();
//   Class(const QVDPluginDescriptor*, void* hostContext, qvd::HostServices*);

#include <new>

#include <System/twa_assert.h>

#include "QVDAudioPluginImpl.h"
#include "QVDPluginInterfaceImpl.h"

template <class T>
class QVDAudioPlugin : public QVDAudioPluginImpl {
public:
    using QVDAudioPluginImpl::QVDAudioPluginImpl;

    // [control-thread] Builds an instance; null on allocation failure.
    static qvd::PluginInstance* create(void* hostContext, qvd::HostServices* services,
                                       const QVDPluginDescriptor* descriptor)
    {
        T* plugin = new (std::nothrow) T(descriptor, hostContext, services);
        if (!plugin)
            return nullptr;
        plugin->pluginCreated();
        return static_cast<qvd::PluginInstance*>(plugin);
    }

    // Static initialisation: inserts the descriptor and factory into the
    // audio map. A descriptor of kind 2 is left to the control path.
    static bool registerClass()
    {
        const QVDPluginDescriptor& d = T::descriptor();
        if (d.kind == 2)
            return false;
        const QString key = qvdPluginKey(d.name, d.fourcc);
        if (qvdAudioPluginMap().contains(key)) {
            QVD_ASSERT(0);
            return false;
        }
        return qvdInsertAudioPlugin(key, d, &QVDAudioPlugin::create);
    }
};

#define QVD_REGISTER_AUDIO_PLUGIN(Class)                                                           \
    namespace {                                                                                    \
    [[maybe_unused]] const bool qvd_registered_##Class = QVDAudioPlugin<Class>::registerClass();    \
    }
