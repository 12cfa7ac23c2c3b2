#include "Lv2Library.h"

#include <dlfcn.h>

#include <map>
#include <memory>
#include <mutex>

namespace qvd::lv2 {

namespace {

// Plugins never log from an LV2 host: level 0, and lines that arrive anyway
// are dropped, since a host's stderr may be the audio thread's.
class Services final : public qvd::HostServices {
public:
    const char* hostName() const override { return "lv2"; }
    std::int32_t hostVersion() const override { return 100; }
    double editorScale() const override { return 1.0; }
    std::int32_t debugLogLevel() const override { return 0; }
    void debugLog(std::int32_t, const char*) override {}
};

} // namespace

Lv2Library::Lv2Library(const std::string& path)
{
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = ::dlerror();
        m_error = "cannot load " + path + ": " + (why ? why : "unknown error");
        return;
    }
    const auto entry = reinterpret_cast<qvd::GetPluginInterfaceFn>(::dlsym(handle, qvd::kEntrySymbol));
    auto* registry = entry ? static_cast<qvd::PluginInterface*>(entry()) : nullptr;
    if (!registry) {
        m_error = path + ": no usable " + qvd::kEntrySymbol;
        return;
    }
    if (registry->interfaceVersion() != qvd::kInterfaceVersion) {
        m_error = path + ": interface version " + std::to_string(registry->interfaceVersion()) + ", expected " +
                  std::to_string(qvd::kInterfaceVersion);
        return;
    }
    static Services services;
    registry->setHostServices(&services);
    m_registry = registry;
}

Lv2Library& Lv2Library::open(const std::string& path)
{
    static std::mutex mutex;
    static std::map<std::string, std::unique_ptr<Lv2Library>> loaded;
    const std::lock_guard<std::mutex> lock(mutex);
    auto& slot = loaded[path];
    if (!slot)
        slot.reset(new Lv2Library(path));
    return *slot;
}

std::string bundledLibraryPath()
{
    Dl_info info{};
    if (!::dladdr(reinterpret_cast<void*>(&bundledLibraryPath), &info) || !info.dli_fname)
        return qvd::kLibraryName;
    const std::string self = info.dli_fname;
    const auto slash = self.rfind('/');
    return (slash == std::string::npos ? std::string() : self.substr(0, slash + 1)) + qvd::kLibraryName;
}

} // namespace qvd::lv2
