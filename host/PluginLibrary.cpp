#include "PluginLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace qvdfx {

PluginLibrary::PluginLibrary(const std::string& path) : m_path(path)
{
    m_handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_handle) {
        const char* why = ::dlerror();
        m_error = "cannot load " + path + ": " + (why ? why : "unknown error");
        return;
    }
    auto entry = reinterpret_cast<qvd::GetPluginInterfaceFn>(::dlsym(m_handle, qvd::kEntrySymbol));
    if (!entry) {
        m_error = path + " has no " + qvd::kEntrySymbol;
        return;
    }
    auto* registry = static_cast<qvd::PluginInterface*>(entry());
    if (!registry) {
        m_error = std::string(qvd::kEntrySymbol) + " returned null";
        return;
    }
    if (registry->interfaceVersion() != qvd::kInterfaceVersion) {
        m_error = path + " has interface version " + std::to_string(registry->interfaceVersion()) + ", expected " +
                  std::to_string(qvd::kInterfaceVersion);
        return;
    }
    m_registry = registry;
}

PluginLibrary::~PluginLibrary()
{
    // Plugins register static objects with Qt; unloading under them is not
    // worth the risk at exit, so the library stays mapped.
}

std::string PluginLibrary::defaultPath()
{
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec)
        return qvd::kLibraryName;
    return (exe.parent_path() / qvd::kLibraryName).string();
}

std::int32_t HostServices::debugLogLevel() const
{
    const char* level = std::getenv("QVDFX_LOG_LEVEL");
    return level ? std::atoi(level) : 0;
}

void HostServices::debugLog(std::int32_t level, const char* line)
{
    std::fprintf(stderr, "[plugin %d] %s\n", level, line ? line : "");
}

} // namespace qvdfx
