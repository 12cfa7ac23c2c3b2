#pragma once
// The registry: two process-wide maps that plugin classes fill from their
// static initialisers, and the one object the library entry hands the host.

#include <QMap>
#include <QString>

#include <qvd/PluginInterface.h>

#include <atomic>

#include "QVDPluginDescriptor.h"

namespace qvd { class HostServices; }

using QVDAudioPluginFactory = qvd::PluginInstance* (*)(void* hostContext, qvd::HostServices* services,
                                                      const QVDPluginDescriptor* descriptor);
using QVDControlPluginFactory = qvd::PluginInstance* (*)(qvd::HostServices* services);

struct QVDAudioPluginEntry {
    QVDPluginDescriptor descriptor; // the registry's own copy; factories get its address
    QVDAudioPluginFactory factory = nullptr;
};

struct QVDControlPluginEntry {
    QString name;
    double version = 1.0;
    std::int32_t value = 1;
    QVDControlPluginFactory factory = nullptr;
};

// Built on first use under the runtime's thread-safe guard, so static
// initialisers in any order can register into them.
QMap<QString, QVDAudioPluginEntry>& qvdAudioPluginMap();
QMap<QString, QVDControlPluginEntry>& qvdControlPluginMap();

// "%1:%2": display name and the code read as a signed 32-bit integer.
QString qvdPluginKey(const char* name, std::uint32_t fourcc);

// Inserts an entry unless the key is taken; returns whether it did. The class
// templates (QVDAudioPlugin, QVDControlPlugin) call these from static
// initialisers and treat a taken key as a programming error.
bool qvdInsertAudioPlugin(const QString& key, const QVDPluginDescriptor& descriptor, QVDAudioPluginFactory factory);
bool qvdInsertControlPlugin(const QString& name, QVDControlPluginFactory factory);

class QVDPluginInterfaceImpl final : public qvd::PluginInterface {
public:
    static QVDPluginInterfaceImpl& instance();

    std::int32_t interfaceVersion() const override;
    std::map<std::string, qvd::PluginInfo> listPlugins(std::int32_t kind) const override;
    qvd::PluginInstance* createPlugin(std::int32_t kind, const char* key) override;
    void setHostContext(void* context) override;
    void setHostServices(qvd::HostServices* services) override;
    std::map<std::string, std::string> listMacroEffects() const override;
    std::map<std::string, std::string> systemInfo() const override;
    bool forceInstructionSet(const char* level) override;
    void setHostExtensions(qvd::HostExtensions* extensions) override;
    qvd::HostExtensions* hostExtensions() const { return m_hostExtensions.load(std::memory_order_relaxed); }

    void* hostContext() const { return m_hostContext.load(std::memory_order_relaxed); }
    qvd::HostServices* hostServices() const { return m_hostServices.load(std::memory_order_relaxed); }

private:
    QVDPluginInterfaceImpl() = default;

    // The host sets these once before creating instances; atomics keep a
    // careless host's concurrent calls free of data races.
    std::atomic<void*> m_hostContext{nullptr};
    std::atomic<qvd::HostServices*> m_hostServices{nullptr};
    std::atomic<qvd::HostExtensions*> m_hostExtensions{nullptr};
};

// Directory of the compiled-in macro-effect definitions.
inline constexpr const char* kQVDMacroFXDirectory = ":/QVDAudioPlugins/MacroFX";
