#pragma once
// Per-class template for control plugins (kind 2): a factory taking the host
// services and registration by display name. A control plugin's source file
// registers it with QVD_REGISTER_CONTROL_PLUGIN(Class); the class provides
//   static const char* displayName();
//   explicit Class(qvd::HostServices*);
// and derives from qvd::PluginInstance, answering getControlInterface.

#include <new>

#include <System/twa_assert.h>

#include "QVDPluginInterfaceImpl.h"

template <class T>
class QVDControlPlugin {
public:
    static qvd::PluginInstance* create(qvd::HostServices* services)
    {
        T* plugin = new (std::nothrow) T(services);
        return plugin ? static_cast<qvd::PluginInstance*>(plugin) : nullptr;
    }

    static bool registerClass()
    {
        const QString name = QString::fromUtf8(T::displayName());
        if (qvdControlPluginMap().contains(name)) {
            QVD_ASSERT(0);
            return false;
        }
        return qvdInsertControlPlugin(name, &QVDControlPlugin::create);
    }
};

#define QVD_REGISTER_CONTROL_PLUGIN(Class)                                                         \
    namespace {                                                                                    \
    [[maybe_unused]] const bool qvd_registered_##Class = QVDControlPlugin<Class>::registerClass();  \
    }
