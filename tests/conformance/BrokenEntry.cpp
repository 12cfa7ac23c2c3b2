// The broken library's entry: a registry that answers wrongly (a new object
// per call, plugins for unknown keys and kinds), an extra export, and a slow
// start. Each trips one registry or binary check.
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>


#include <sndfile.h>

#include <QVDPluginInterfaceImpl.h>

namespace {

class SloppyRegistry final : public qvd::PluginInterface {
public:
    explicit SloppyRegistry(qvd::PluginInterface* real) : m_real(real) {}
    std::int32_t interfaceVersion() const override { return m_real->interfaceVersion(); }
    std::map<std::string, qvd::PluginInfo> listPlugins(std::int32_t kind) const override
    {
        // Any kind lists the audio plugins.
        return m_real->listPlugins(kind == qvd::kControlPlugin ? kind : qvd::kAudioPlugin);
    }
    qvd::PluginInstance* createPlugin(std::int32_t, const char* key) override
    {
        // Unknown keys fall back to the first plugin.
        qvd::PluginInstance* p = m_real->createPlugin(qvd::kAudioPlugin, key);
        if (!p)
            p = m_real->createPlugin(qvd::kAudioPlugin, m_real->listPlugins(qvd::kAudioPlugin).begin()->first.c_str());
        return p;
    }
    void setHostContext(void* c) override { m_real->setHostContext(c); }
    void setHostServices(qvd::HostServices* s) override { m_real->setHostServices(s); }
    std::map<std::string, std::string> listMacroEffects() const override { return m_real->listMacroEffects(); }
    std::map<std::string, std::string> systemInfo() const override { return m_real->systemInfo(); }
    bool forceInstructionSet(const char* level) override { return m_real->forceInstructionSet(level); }
    void setHostExtensions(qvd::HostExtensions* e) override { m_real->setHostExtensions(e); }

private:
    qvd::PluginInterface* m_real;
};

// A slow static initialiser that also pulls in a library plugins must not need.
[[maybe_unused]] const bool g_slowStart = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    return sf_version_string() != nullptr;
}();

} // namespace

extern "C" __attribute__((visibility("default"))) int qvd_broken_extra_export()
{
    return 1;
}

extern "C" __attribute__((visibility("default"))) void* GetQVDPluginInterface()
{
    static std::atomic<int> calls{0};
    qvd::PluginInterface* real = &QVDPluginInterfaceImpl::instance();
    // A different registry object every other call.
    static SloppyRegistry a(real), b(real);
    return static_cast<qvd::PluginInterface*>(++calls % 2 ? &a : &b);
}
